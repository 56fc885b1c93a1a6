// MPEG audio frame headers: the 4-byte header word decoded into the record
// the MP3 scanner works with, plus the layout facts that several MP3 parts
// share (bit-rate tables, Layer III side-information sizes, packet types).
//
// Header word, read big-endian from the frame's first four bytes, bit 31
// first:
//   31..21  sync, all ones
//   20..19  version: 00 MPEG-2.5, 01 reserved, 10 MPEG-2, 11 MPEG-1
//   18..17  layer: 00 reserved, 01 Layer III, 10 Layer II, 11 Layer I
//   16      protection bit, 0 when a CRC-16 follows the header
//   15..12  bit-rate index (0 free format, 15 forbidden)
//   11..10  sample-rate index (3 reserved)
//    9      padding
//    8      private
//    7..6   channel mode: 00 stereo, 01 joint stereo, 10 dual channel,
//           11 single channel
//    5..4   mode extension
//    3      copyright
//    2      original
//    1..0   emphasis
#ifndef KEL_MP3_MPEGHEADER_H
#define KEL_MP3_MPEGHEADER_H

#include "core/byteorder.h"
#include "kel.h"

#include <cstdint>

namespace KEL {

// One decoded frame header; the field order is part of the record's layout.
struct mpeg_frame_t {
    int32_t version;           // 1 for MPEG-1, 2 for MPEG-2 and MPEG-2.5
    int32_t is_mpeg25;         // 1 for MPEG-2.5, else 0
    int32_t layer;             // 1, 2 or 3
    int32_t sample_rate;       // Hz
    int32_t stereo;            // 0 single channel, 1 any two-channel mode
    int32_t stereo_mode;       // KELClipStereoMode (kel.h)
    int32_t bit_rate;          // bits per second
    int32_t frame_length;      // bytes, header included
    int32_t samples_per_frame; // 1152 or 576
};

// Decodes a header word. Returns false, leaving the record unspecified,
// unless the sync bits are all ones, the version is not the reserved one,
// the layer is not the reserved one, the bit-rate index is neither 0 (free
// format) nor 15, and the sample-rate index is not 3. Layers I and II pass.
// The frame length is bit_rate * (144 for MPEG-1, 72 otherwise) /
// sample_rate plus the padding byte: the Layer III rule, applied to every
// layer on purpose, since only Layer III frames are kept as packets.
KEL_API bool decode_header(unsigned int header, mpeg_frame_t* frame);

// The four header bytes as the big-endian word decode_header takes.
inline unsigned int mpeg_header_word(const unsigned char* b)
{
    return get_be32(b);
}

// True when the top 11 bits of the word are the frame sync.
inline bool mpeg_has_sync(unsigned int header)
{
    return (header & 0xFFE00000u) == 0xFFE00000u;
}

// Bit rate in bits per second of a bit-rate index (1..14) for MPEG-1
// (mpeg1 true) or MPEG-2/2.5 and a layer (1..3); 0 for index 0, 15 or any
// other argument out of range.
KEL_API int mpeg_bit_rate(bool mpeg1, int layer, int index);

// Sample rate in Hz of a sample-rate index (0..2) for version 1 or 2 and the
// MPEG-2.5 flag; 0 for an index out of range.
KEL_API int mpeg_sample_rate(int version, bool is_mpeg25, int index);

// Bytes of Layer III side information after the header and CRC:
// MPEG-1 32 (two channels) or 17 (single channel), MPEG-2/2.5 17 or 9.
KEL_API int mpeg_side_info_size(bool mpeg1, bool single_channel);

// The packet type of a Layer III frame: 3 MPEG-1, 4 MPEG-2, 5 MPEG-2.5.
KEL_API int mpeg_packet_type(const mpeg_frame_t& frame);

} // namespace KEL

#endif
