// The MPEG audio decoder component (".mp3") on FFmpeg's MP3 decoder.
//
// FFmpeg decodes a frame that is cut short of the length its header gives
// as if nothing were wrong, so every packet's header is read here first and
// a packet shorter than its frame is refused (kCodecErrBadData). Header
// word, big-endian, bit 31 first:
//   31..21  sync, all ones
//   20..19  version: 00 MPEG-2.5, 01 reserved, 10 MPEG-2, 11 MPEG-1
//   18..17  layer: 00 reserved, 01 Layer III, 10 Layer II, 11 Layer I
//   16      protection
//   15..12  bit-rate index (0 free format, 15 forbidden)
//   11..10  sample-rate index (3 reserved)
//    9      padding
// Frame length in bytes, bit rate in bits per second:
//   Layer I:             (12 * bit rate / sample rate + padding) * 4
//   Layer II, MPEG-1 III: 144 * bit rate / sample rate + padding
//   Layer III, MPEG-2/2.5: 72 * bit rate / sample rate + padding
// A free-format frame has no length in its header and is not checked.
//
// Reset flushes FFmpeg's decoder, which clears the bit reservoir and leaves
// it exactly as a new decoder.
#ifndef KEL_CODEC_CODECDECODERMP3_H
#define KEL_CODEC_CODECDECODERMP3_H

#include "codec/codecdecoder.h"

namespace KEL {

class CodecDecoderMP3 : public CodecDecoder {
public:
    CodecDecoderMP3();

    // The frame length that the four header bytes at data give: 0 for a
    // free-format frame, -1 when there is no valid header (fewer than four
    // bytes, no sync, a reserved version, layer or sample-rate index, the
    // forbidden bit-rate index).
    static int frame_length(const uint8_t* data, size_t size);

protected:
    int check_packet(const uint8_t* data, size_t size) override;
    uint32_t max_packet_bytes() const override;
};

} // namespace KEL

#endif
