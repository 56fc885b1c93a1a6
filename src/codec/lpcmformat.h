// The linear PCM side of a codec: which descriptions the layer accepts, and
// the moves between interleaved PCM bytes and FFmpeg's decoded or to-be-
// encoded frames.
//
// Accepted: "lpcm", packed and interleaved, either 32-bit float (flags 1|8,
// with 2 for big-endian: 11) or 16-, 24- or 32-bit signed integers (4|8,
// with 2: 14), one frame per packet, bytes per frame and per packet equal to
// channels * bits / 8, 1 to kMaxChannels channels.
//
// Conversions. Integer samples are handled left-justified in 32 bits (a
// 16-bit sample s is s << 16), so every integer width meets every other by
// a shift: narrowing drops low bits, widening appends zero bits. An integer
// becomes float as value / 2^31 (for 16-bit samples exactly s / 32768); a
// float becomes a B-bit integer as f * 2^(B-1) rounded to nearest, ties to
// even, and clamped to the B-bit range, NaN giving 0.
#ifndef KEL_CODEC_LPCMFORMAT_H
#define KEL_CODEC_LPCMFORMAT_H

#include "codec/codectypes.h"

#include <cstdint>

struct AVFrame;

namespace KEL {

class LPCMFormat {
public:
    static constexpr int kMaxChannels = 8;

    // False, leaving *out alone, unless d is an accepted description.
    static bool from_description(const AudioStreamBasicDescription& d, LPCMFormat* out);

    int channels() const { return channels_; }
    int bits() const { return bits_; }
    bool is_float() const { return is_float_; }
    uint32_t frame_bytes() const { return static_cast<uint32_t>(channels_ * (bits_ / 8)); }

    // Writes count frames of frame, from frame index first on, interleaved
    // into dst (count * frame_bytes() bytes). Output channel c takes the
    // frame's channel c, or its last channel when it has fewer. False, with
    // nothing written, for a sample format other than float, 16- or 32-bit
    // integer (planar or packed) or a range outside the frame.
    bool write_frames(const AVFrame& frame, int first, int count, unsigned char* dst) const;

    // Reads count interleaved frames from src into frame, which must be
    // planar (float, 16- or 32-bit integer) with this format's channel
    // count and room for count frames. False, with nothing read, otherwise.
    bool read_frames(const unsigned char* src, int count, AVFrame& frame) const;

private:
    int channels_ = 0;
    int bits_ = 0;
    bool is_float_ = false;
    bool big_endian_ = false;
};

} // namespace KEL

#endif
