#include "codec/lpcmformat.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace KEL {

namespace {

enum class SampleKind { none, f32, s16, s32 };

SampleKind kind_of(int format, bool* planar)
{
    switch (format) {
    case AV_SAMPLE_FMT_FLT:
        *planar = false;
        return SampleKind::f32;
    case AV_SAMPLE_FMT_FLTP:
        *planar = true;
        return SampleKind::f32;
    case AV_SAMPLE_FMT_S16:
        *planar = false;
        return SampleKind::s16;
    case AV_SAMPLE_FMT_S16P:
        *planar = true;
        return SampleKind::s16;
    case AV_SAMPLE_FMT_S32:
        *planar = false;
        return SampleKind::s32;
    case AV_SAMPLE_FMT_S32P:
        *planar = true;
        return SampleKind::s32;
    default:
        *planar = false;
        return SampleKind::none;
    }
}

size_t sample_size(SampleKind kind)
{
    return kind == SampleKind::s16 ? 2 : 4;
}

uint32_t load(const unsigned char* p, int bytes, bool big)
{
    uint32_t v = 0;
    for (int k = 0; k < bytes; ++k) {
        const uint32_t b = p[big ? k : bytes - 1 - k];
        v = (v << 8) | b;
    }
    return v;
}

void store(unsigned char* p, uint32_t v, int bytes, bool big)
{
    for (int k = bytes - 1; k >= 0; --k) {
        p[big ? k : bytes - 1 - k] = static_cast<unsigned char>(v);
        v >>= 8;
    }
}

uint32_t float_bits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

float bits_float(uint32_t u)
{
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

int32_t float_to_int(float f, int bits)
{
    if (std::isnan(f))
        return 0;
    const double full = std::ldexp(1.0, bits - 1);
    const double scaled = std::rint(static_cast<double>(f) * full);
    if (scaled >= full - 1.0)
        return static_cast<int32_t>(full - 1.0);
    if (scaled <= -full)
        return static_cast<int32_t>(-full);
    return static_cast<int32_t>(scaled);
}

float int_to_float(int32_t left_justified)
{
    return static_cast<float>(left_justified) / 2147483648.0f;
}

// A sample of the given kind at p as a left-justified integer.
int32_t load_int(const unsigned char* p, SampleKind kind)
{
    if (kind == SampleKind::s16) {
        int16_t s;
        std::memcpy(&s, p, sizeof s);
        return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int32_t>(s)) << 16);
    }
    int32_t s;
    std::memcpy(&s, p, sizeof s);
    return s;
}

} // namespace

bool LPCMFormat::from_description(const AudioStreamBasicDescription& d, LPCMFormat* out)
{
    if (d.format_id != kFormatLPCM || d.frames_per_packet != 1)
        return false;
    if ((d.format_flags & kLPCMFlagNonInterleaved) != 0 || (d.format_flags & kLPCMFlagPacked) == 0)
        return false;
    if (d.channels_per_frame < 1 || d.channels_per_frame > static_cast<uint32_t>(kMaxChannels))
        return false;
    const bool is_float = (d.format_flags & kLPCMFlagFloat) != 0;
    const bool is_signed = (d.format_flags & kLPCMFlagSignedInteger) != 0;
    if (is_float == is_signed)
        return false;
    if (is_float ? d.bits_per_channel != 32
                 : d.bits_per_channel != 16 && d.bits_per_channel != 24 && d.bits_per_channel != 32)
        return false;
    const uint32_t frame = d.channels_per_frame * (d.bits_per_channel / 8);
    if (d.bytes_per_frame != frame || d.bytes_per_packet != frame)
        return false;
    out->channels_ = static_cast<int>(d.channels_per_frame);
    out->bits_ = static_cast<int>(d.bits_per_channel);
    out->is_float_ = is_float;
    out->big_endian_ = (d.format_flags & kLPCMFlagBigEndian) != 0;
    return true;
}

bool LPCMFormat::write_frames(const AVFrame& frame, int first, int count, unsigned char* dst) const
{
    bool planar = false;
    const SampleKind kind = kind_of(frame.format, &planar);
    const int src_channels = frame.ch_layout.nb_channels;
    if (kind == SampleKind::none || src_channels < 1 || channels_ < 1 || first < 0 || count < 0 ||
        first > frame.nb_samples - count)
        return false;
    const int out_bytes = bits_ / 8;
    const size_t out_step = frame_bytes();
    const size_t in_size = sample_size(kind);
    for (int c = 0; c < channels_; ++c) {
        const int sc = std::min(c, src_channels - 1);
        const unsigned char* in;
        size_t in_step;
        if (planar) {
            in = frame.extended_data[sc] + static_cast<size_t>(first) * in_size;
            in_step = in_size;
        } else {
            in = frame.extended_data[0] + (static_cast<size_t>(first) * src_channels + sc) * in_size;
            in_step = in_size * static_cast<size_t>(src_channels);
        }
        unsigned char* o = dst + static_cast<size_t>(c) * out_bytes;
        for (int n = 0; n < count; ++n, in += in_step, o += out_step) {
            uint32_t value;
            if (kind == SampleKind::f32) {
                float f;
                std::memcpy(&f, in, sizeof f);
                value = is_float_ ? float_bits(f) : static_cast<uint32_t>(float_to_int(f, bits_));
            } else {
                const int32_t v = load_int(in, kind);
                value = is_float_ ? float_bits(int_to_float(v)) : static_cast<uint32_t>(v >> (32 - bits_));
            }
            store(o, value, out_bytes, big_endian_);
        }
    }
    return true;
}

bool LPCMFormat::read_frames(const unsigned char* src, int count, AVFrame& frame) const
{
    bool planar = false;
    const SampleKind kind = kind_of(frame.format, &planar);
    if (kind == SampleKind::none || !planar || frame.ch_layout.nb_channels != channels_ || count < 0 ||
        count > frame.nb_samples)
        return false;
    const int in_bytes = bits_ / 8;
    const size_t in_step = frame_bytes();
    for (int c = 0; c < channels_; ++c) {
        const unsigned char* in = src + static_cast<size_t>(c) * in_bytes;
        unsigned char* plane = frame.extended_data[c];
        for (int n = 0; n < count; ++n, in += in_step) {
            const uint32_t raw = load(in, in_bytes, big_endian_);
            float f = 0.0f;
            int32_t v = 0;
            if (is_float_) {
                f = bits_float(raw);
                v = float_to_int(f, kind == SampleKind::s16 ? 16 : 32);
            } else {
                v = static_cast<int32_t>(raw << (32 - bits_));
                f = int_to_float(v);
                if (kind == SampleKind::s16)
                    v >>= 16;
            }
            if (kind == SampleKind::f32) {
                std::memcpy(plane + static_cast<size_t>(n) * 4, &f, 4);
            } else if (kind == SampleKind::s16) {
                const int16_t s = static_cast<int16_t>(v);
                std::memcpy(plane + static_cast<size_t>(n) * 2, &s, 2);
            } else {
                std::memcpy(plane + static_cast<size_t>(n) * 4, &v, 4);
            }
        }
    }
    return true;
}

} // namespace KEL
