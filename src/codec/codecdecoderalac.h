// The Apple Lossless decoder component ("alac") on FFmpeg's ALAC decoder.
//
// Configuration. FFmpeg needs the 36-byte "alac" atom as extradata. The
// atom comes from, in this order of precedence: a cookie given to
// initialize, a cookie set through "kuki" (before or after initialize;
// after, the decoder restarts with it), or the input description (frame
// length = frames per packet, bit depth from the format flags: 1 for 16
// bits, 3 for 24). "kuki" reads back in the 48-byte "frma" + "alac" layout
// of ALACCookie; before initialize, with no cookie set, there is none yet
// and the read fails with kCodecErrState.
//
// Uncompressed frames. FFmpeg refuses a frame that ends without the END
// element, which is how short packets are written by hand when a clip is
// saved with changed gain; so frames whose one element is uncompressed are
// decoded here. Element header, bit by bit from the first byte's top bit:
//   3   element tag: 0 single channel (SCE), 1 channel pair (CPE), 7 END
//   4   element instance tag
//   12  unused
//   1   "has size": a 32-bit frame count follows the header
//   2   bytes shifted (ignored for uncompressed samples)
//   1   "uncompressed"
//  [32] frame count when "has size"; otherwise the cookie's frame length
// then, frame by frame, each channel's sample as a signed big-endian field
// of the cookie's bit depth. A hand-made frame has no size and holds fewer
// frames than the frame length: the whole frames present are delivered.
// Everything else (compressed elements, more than two channels) goes to
// FFmpeg.
#ifndef KEL_CODEC_CODECDECODERALAC_H
#define KEL_CODEC_CODECDECODERALAC_H

#include "codec/alaccookie.h"
#include "codec/codecdecoder.h"

namespace KEL {

class CodecDecoderALAC : public CodecDecoder {
public:
    CodecDecoderALAC();

    int get_property(int32_t id, uint32_t* io_size, void* data) override;
    int set_property(int32_t id, uint32_t size, const void* data) override;

protected:
    int prepare(const void* cookie, uint32_t cookie_size, FFCodecSettings& settings) override;
    bool decode_by_hand(const uint8_t* data, size_t size, AVFrame* frame, int* error) override;
    uint32_t max_packet_bytes() const override;

private:
    ALACCookie config_;
    bool cookie_set_ = false;
};

} // namespace KEL

#endif
