// Lossless gain and side-information readers for one MPEG audio Layer III
// frame, working on the frame's bytes, and the bit-reservoir walk over a
// sequence of frames.
//
// A Layer III frame carries, for each granule and channel, an 8-bit
// global_gain field in its side information; the decoder scales that granule
// by 2^(global_gain / 4), so one step is 20 * log10(2) / 4 (about 1.505 dB).
// A frame's loudness is changed without decoding by moving every nonzero
// global_gain by the same whole number of steps and recomputing the frame's
// CRC-16 when it has one. Gains between steps are rounded to the step grid;
// mp3_quantized_gain says which gain will really be applied.
//
// Frame layout, from the first byte: the 4-byte header (mpegheader.h), the
// 2-byte CRC when the header's protection bit is 0, the side information
// (mpeg_side_info_size bytes), then the main data. The side information
// starts with main_data_begin (9 bits for MPEG-1, 8 for MPEG-2/2.5), the
// number of bytes before this frame's main data at which its own main data
// begins (the bit reservoir).
//
// Side information, after main_data_begin and the private bits (MPEG-1:
// 5 bits single channel, 3 two-channel; MPEG-2/2.5: 1 per channel) and,
// for MPEG-1 only, the scale-factor selection bits (4 per channel), one
// block per granule (two for MPEG-1, one for MPEG-2/2.5) and channel:
//   part2_3_length 12, big_values 9, global_gain 8,
//   scalefac_compress 4 (MPEG-1) or 9 (MPEG-2/2.5), window_switching_flag 1,
//   22 bits of block type / table selection / region or subblock gains,
//   preflag 1 (MPEG-1 only), scalefac_scale 1, count1table_select 1;
// 59 bits per block for MPEG-1 and 63 for MPEG-2/2.5.
#ifndef KEL_MP3_MP3FRAMEGAIN_H
#define KEL_MP3_MP3FRAMEGAIN_H

#include "kel.h"
#include "coded/bitstream.h"

namespace KEL {

// The gain that adjust_gain really applies for a linear gain: 0.0 below
// 1e-12, otherwise 2^(s / 4) for the step count s of the gain (see
// adjust_gain), computed as 10^(s * 5 * log10(2) / 20).
KEL_API float mp3_quantized_gain(float gain);

// Rewrites the global_gain fields of the whole frame that bs covers (bs at
// its start) and, for a protected frame, its CRC.
//
// The step count is s = trunc(20 * log10(gain) * steps_per_dB + 0.001), or
// -255 for a gain below 1e-12. Because the 0.001 comes before truncation
// toward zero, a gain that is an exact multiple of a step below 1 ends one
// step nearer to 1 (0.5 gives -3 steps, not -4); mp3_quantized_gain follows
// the same rule. Each nonzero global_gain G becomes clamp(G + s, 0, 255); a
// field that is 0 stays 0, and a field beyond the end of the data stays as
// it is. A NaN gain gives 0 steps.
//
// Returns 0, or "Ebef" when the frame is shorter than its header and side
// information: the walk then stops at the first field that is not all
// there, leaving every byte from it on (and the CRC) as it was.
//
// The header reads go through Bitstream::get_bits_le8, which loads one byte
// past the field; for a frame of at least 5 bytes that byte lies inside the
// frame. The fields, the CRC bytes and the side information are read with
// peek_8bits, so no byte after the range bs covers is touched otherwise.
KEL_API int adjust_gain(Bitstream& bs, float gain);

// Header, CRC and side-information size in bytes of the frame whose first
// `available` bytes are at head (available: how many bytes the frame's
// storage delivered; only the first 6 are used). Fewer than 6: err "Ebef"
// and 0. Otherwise 4 + (2 with a CRC) + the side-information size, and err
// the status of the last header read.
KEL_API int mp3_static_part_size(const unsigned char* head, int available, int& err);

// The frame's main_data_begin, from its first `available` bytes (only the
// first 8 are used). Fewer than 8: err "Ebef" and 0; otherwise err 0.
KEL_API int mp3_get_main_data_begin(const unsigned char* head, int available, int& err);

// The CRC-16 of MPEG audio (polynomial x^16 + x^15 + x^2 + 1, register
// starting at 0xFFFF, bits taken most significant first, no final XOR)
// folded over n more bytes.
KEL_API unsigned mpeg_audio_crc16(unsigned crc, const unsigned char* bytes, int n);

// The bit-reservoir walk. main_data_begin counts bytes over the main-data
// areas of the earlier frames (their side information excluded).
// Mp3FrameSource is what the walk needs to know of a sequence of frames; the
// MP3 clip answers it from its packets, tests from bytes in memory.
class KEL_API Mp3FrameSource {
public:
    virtual ~Mp3FrameSource();

    // Number of frames; valid indices are 0 .. frame_count() - 1.
    virtual int frame_count() = 0;
    // Byte length of frame `index`, header included.
    virtual int frame_length(int index) = 0;
    // main_data_begin of frame `index` (mp3_get_main_data_begin), 0 or an
    // error code in err.
    virtual int main_data_begin(int index, int& err) = 0;
    // Header, CRC and side-information size of frame `index`
    // (mp3_static_part_size), 0 or an error code in err.
    virtual int static_part_size(int index, int& err) = 0;
};

// How many frames immediately before `index` hold main data of frame
// `index`, and so must be present (and decoded first) for it to decode.
//  - index outside the frames: err "EPnm", 0;
//  - main_data_begin cannot be read: 0 with its error; it is 0: 0, err 0;
//  - walking back over frames index-1, index-2, ..., each contributing its
//    length minus its static part: the count at which the contributions
//    cover main_data_begin, err 0; "Epre" with the frames counted so far when
//    the first frame is passed; "Ebps" with the frames counted so far when a
//    frame's static part cannot be read or it has no main data.
// There is no cap other than the first frame.
KEL_API int mp3_preroll_count(Mp3FrameSource& frames, int index, int& err);

} // namespace KEL

#endif
