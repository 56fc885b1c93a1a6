#include "codec/lpcmformat.h"

#include "core/cloned.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace KEL {

namespace {

// Frames per block of the float copy loops. A block's count is a
// compile-time constant, which is what lets -O2 vectorise the loop; the
// remainder runs the same code with a run-time count.
constexpr int kBlock = 32;
using Block = std::integral_constant<int, kBlock>;

constexpr bool kHostBigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

uint32_t swapped_if(uint32_t word, bool swap)
{
    return swap ? __builtin_bswap32(word) : word;
}

// Two planes of 32-bit floats to interleaved pairs (left may equal right).
template <bool Swap, class N>
void planes_to_pairs(const unsigned char* __restrict left, const unsigned char* __restrict right,
                     unsigned char* __restrict out, N n)
{
    for (int i = 0; i < n; ++i) {
        uint32_t l;
        uint32_t r;
        std::memcpy(&l, left + 4 * i, 4);
        std::memcpy(&r, right + 4 * i, 4);
        l = swapped_if(l, Swap);
        r = swapped_if(r, Swap);
        std::memcpy(out + 8 * i, &l, 4);
        std::memcpy(out + 8 * i + 4, &r, 4);
    }
}

// One plane of 32-bit floats to one channel.
template <bool Swap, class N>
void plane_to_mono(const unsigned char* __restrict in, unsigned char* __restrict out, N n)
{
    for (int i = 0; i < n; ++i) {
        uint32_t v;
        std::memcpy(&v, in + 4 * i, 4);
        v = swapped_if(v, Swap);
        std::memcpy(out + 4 * i, &v, 4);
    }
}

template <bool Swap>
void copy_planes(const unsigned char* left, const unsigned char* right, unsigned char* out, int frames)
{
    int i = 0;
    if (right == nullptr) {
        for (; i + kBlock <= frames; i += kBlock)
            plane_to_mono<Swap>(left + 4 * i, out + 4 * i, Block());
        plane_to_mono<Swap>(left + 4 * i, out + 4 * i, frames - i);
        return;
    }
    for (; i + kBlock <= frames; i += kBlock)
        planes_to_pairs<Swap>(left + 4 * i, right + 4 * i, out + 8 * i, Block());
    planes_to_pairs<Swap>(left + 4 * i, right + 4 * i, out + 8 * i, frames - i);
}

// Interleaved pairs of 32-bit floats to two planes.
template <bool Swap, class N>
void pairs_to_planes(const unsigned char* __restrict in, unsigned char* __restrict left,
                     unsigned char* __restrict right, N n)
{
    for (int i = 0; i < n; ++i) {
        uint32_t l;
        uint32_t r;
        std::memcpy(&l, in + 8 * i, 4);
        std::memcpy(&r, in + 8 * i + 4, 4);
        l = swapped_if(l, Swap);
        r = swapped_if(r, Swap);
        std::memcpy(left + 4 * i, &l, 4);
        std::memcpy(right + 4 * i, &r, 4);
    }
}

template <bool Swap>
void split_pairs(const unsigned char* in, unsigned char* left, unsigned char* right, int frames)
{
    int i = 0;
    if (right == nullptr) {
        for (; i + kBlock <= frames; i += kBlock)
            plane_to_mono<Swap>(in + 4 * i, left + 4 * i, Block());
        plane_to_mono<Swap>(in + 4 * i, left + 4 * i, frames - i);
        return;
    }
    for (; i + kBlock <= frames; i += kBlock)
        pairs_to_planes<Swap>(in + 8 * i, left + 4 * i, right + 4 * i, Block());
    pairs_to_planes<Swap>(in + 8 * i, left + 4 * i, right + 4 * i, frames - i);
}

// Planar 32-bit floats to one channel (right null) or two interleaved
// ones, byte-swapped when swap is set.
KEL_CLONED
void copy_float_planes(const unsigned char* left, const unsigned char* right, unsigned char* out, int frames,
                       bool swap)
{
    if (swap)
        copy_planes<true>(left, right, out, frames);
    else
        copy_planes<false>(left, right, out, frames);
}

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

// Planes of 16-bit integers to one channel (right null) or two interleaved
// ones of 16-bit big-endian integers.
template <class N>
void planes16_to_be(const unsigned char* __restrict left, const unsigned char* __restrict right,
                    unsigned char* __restrict out, int channels, N n)
{
    for (int i = 0; i < n; ++i) {
        uint16_t l;
        std::memcpy(&l, left + 2 * i, 2);
        if (!kHostBigEndian)
            l = __builtin_bswap16(l);
        std::memcpy(out + 2 * channels * i, &l, 2);
        if (channels == 2) {
            uint16_t r;
            std::memcpy(&r, right + 2 * i, 2);
            if (!kHostBigEndian)
                r = __builtin_bswap16(r);
            std::memcpy(out + 4 * i + 2, &r, 2);
        }
    }
}

KEL_CLONED
void copy_int16_planes(const unsigned char* left, const unsigned char* right, unsigned char* out, int frames)
{
    const int channels = right == nullptr ? 1 : 2;
    int i = 0;
    if (channels == 1) {
        for (; i + kBlock <= frames; i += kBlock)
            planes16_to_be(left + 2 * i, left + 2 * i, out + 2 * i, 1, Block());
        planes16_to_be(left + 2 * i, left + 2 * i, out + 2 * i, 1, frames - i);
        return;
    }
    for (; i + kBlock <= frames; i += kBlock)
        planes16_to_be(left + 2 * i, right + 2 * i, out + 4 * i, 2, Block());
    planes16_to_be(left + 2 * i, right + 2 * i, out + 4 * i, 2, frames - i);
}

// Planes of 32-bit integers to 24-bit big-endian integers (their top three
// bytes), one channel (right null) or two interleaved.
void copy_int32_planes_to_be24(const unsigned char* left, const unsigned char* right, unsigned char* out, int frames)
{
    const int channels = right == nullptr ? 1 : 2;
    for (int c = 0; c < channels; ++c) {
        const unsigned char* in = c == 0 ? left : right;
        unsigned char* o = out + 3 * c;
        for (int i = 0; i < frames; ++i, in += 4, o += 3 * channels) {
            int32_t v;
            std::memcpy(&v, in, 4);
            const uint32_t u = static_cast<uint32_t>(v);
            o[0] = static_cast<unsigned char>(u >> 24);
            o[1] = static_cast<unsigned char>(u >> 16);
            o[2] = static_cast<unsigned char>(u >> 8);
        }
    }
}

// One channel (right null) or two interleaved ones of 32-bit floats to
// planes, byte-swapped when swap is set.
KEL_CLONED
void split_float_frames(const unsigned char* in, unsigned char* left, unsigned char* right, int frames, bool swap)
{
    if (swap)
        split_pairs<true>(in, left, right, frames);
    else
        split_pairs<false>(in, left, right, frames);
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
    if (kind == SampleKind::f32 && planar && is_float_ && channels_ <= 2) {
        // What the float decoders deliver: a straight copy per channel, with
        // the byte order changed as a whole word.
        const size_t offset = static_cast<size_t>(first) * 4;
        const unsigned char* left = frame.extended_data[0] + offset;
        const unsigned char* right =
            channels_ == 1 ? nullptr : frame.extended_data[std::min(1, src_channels - 1)] + offset;
        copy_float_planes(left, right, dst, count, big_endian_ != kHostBigEndian);
        return true;
    }
    if (planar && !is_float_ && big_endian_ && channels_ <= 2 &&
        ((kind == SampleKind::s16 && bits_ == 16) || (kind == SampleKind::s32 && (bits_ == 24 || bits_ == 32)))) {
        // What the integer decoders deliver at the stream's own width (or
        // 24-bit samples in 32-bit words): the top bytes of each sample in
        // big-endian order.
        const size_t offset = static_cast<size_t>(first) * in_size;
        const unsigned char* left = frame.extended_data[0] + offset;
        const unsigned char* right =
            channels_ == 1 ? nullptr : frame.extended_data[std::min(1, src_channels - 1)] + offset;
        if (bits_ == 16)
            copy_int16_planes(left, right, dst, count);
        else if (bits_ == 24)
            copy_int32_planes_to_be24(left, right, dst, count);
        else
            copy_float_planes(left, right, dst, count, !kHostBigEndian); // 32-bit words alike
        return true;
    }
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
    if (kind == SampleKind::f32 && is_float_ && channels_ <= 2) {
        // What the float encoders take: a straight copy per channel, with
        // the byte order changed as a whole word.
        split_float_frames(src, frame.extended_data[0], channels_ == 1 ? nullptr : frame.extended_data[1], count,
                           big_endian_ != kHostBigEndian);
        return true;
    }
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
