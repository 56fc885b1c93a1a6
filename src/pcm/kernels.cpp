// Sample conversion kernels: interleaved 16/24-bit integer PCM to and from the
// two-array float form, gain and envelope on integer PCM in place, and byte
// order reversal.
//
// How the loops are laid out, and why:
//  - Each kernel has a "run" function over n items (frames or samples) with
//    __restrict pointers, and the entry point hands it blocks of kBlock items
//    followed by one shorter remainder. For the blocks n is a compile-time
//    constant (std::integral_constant): at -O2 the compiler vectorises only
//    loops whose trip count is a known multiple of the vector length. The
//    remainder runs the same code with a run-time n, so every sample gets the
//    same arithmetic whichever path it takes.
//  - Where floats become integers, a run first writes the clamped floats into
//    a block-sized array and converts them in a second loop. Converting right
//    after the clamp lets the optimiser push the conversion into the branches
//    of the clamp, and the branches then block vectorisation.
//  - Every conversion from float to integer is of a value already clamped
//    into the integer's range (NaN included), so none is undefined.
//  - 3-byte samples cannot be loaded or stored as vector lanes on plain
//    x86-64; the 24-bit runs assemble and split them in scalar loops and keep
//    the arithmetic in separate vectorised loops.
#include "pcm/kernels.h"

#include "core/cloned.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace KEL {

namespace {

enum class Order { big, little };
constexpr Order kHostOrder =
    __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? Order::little : Order::big;

// Items per vectorised block (frames or samples, depending on the kernel),
// and its type, which carries the count as a constant.
constexpr int kBlock = 32;
using Block = std::integral_constant<int, kBlock>;

// 2^-15 (bit pattern 0x38000000): a 16-bit sample to full scale.
constexpr float kScale16 = 0x1p-15f;
// 2^-31 (bit pattern 0x30000000): a top-aligned 24-bit sample to full scale.
constexpr float kScale32 = 0x1p-31f;

// Upper clip bound of the 16-bit writer: the double 0x3FEFFFBFD3C00615
// (about 0.9999694), deliberately a little below 32767/32768 so that samples
// just under full scale still give 32767. A float x exceeds it exactly when x
// exceeds the largest float below it, kClipHigh16Float, so the test can run in
// single precision; the static_assert pins that float as the neighbour below.
constexpr double kClipHigh16 = 0x1.fffbfd3c00615p-1;
constexpr float kClipHigh16Float = 0x1.fffbfcp-1f;
static_assert(double(kClipHigh16Float) < kClipHigh16 &&
                  double(0x1.fffbfep-1f) > kClipHigh16,
              "16-bit clip bound must sit between two adjacent floats");

// Upper clip bound of the 24-bit writers: 1 - 2^-23 (float 0x3F7FFFFE).
constexpr float kClipHigh24 = 0x1.fffffcp-1f;

// ---- Byte access -----------------------------------------------------------

// A signed 16-bit sample in the given byte order.
template <Order O>
inline int32_t load16(const unsigned char* p) {
    uint16_t u;
    std::memcpy(&u, p, 2);
    if constexpr (O != kHostOrder) u = __builtin_bswap16(u);
    return int16_t(u);
}

// Stores the low 16 bits of v in the given byte order.
template <Order O>
inline void store16(unsigned char* p, int32_t v) {
    uint16_t u = uint16_t(v);
    if constexpr (O != kHostOrder) u = __builtin_bswap16(u);
    std::memcpy(p, &u, 2);
}

// 24-bit samples, held in bits 31..8 of a signed 32-bit word with bits 7..0
// zero: the word is the sample times 256 and keeps its sign ("top-aligned").
//
// The narrow forms touch exactly the sample's 3 bytes. The wide forms move 4
// bytes, the sample and the first byte of the next one, in a single memory
// access; a run uses them for every sample but its last, and stores in
// ascending order, so the extra byte written is always overwritten by the
// next sample and nothing outside the run is read or written.
template <Order O>
inline int32_t load24top(const unsigned char* p) {
    const uint32_t msb = O == Order::big ? p[0] : p[2];
    const uint32_t lsb = O == Order::big ? p[2] : p[0];
    return int32_t(msb << 24 | uint32_t(p[1]) << 16 | lsb << 8);
}

template <Order O>
inline int32_t load24top_wide(const unsigned char* p) {
    uint32_t u;
    std::memcpy(&u, p, 4);
    if constexpr (kHostOrder == Order::big) u = __builtin_bswap32(u);
    // u now holds the 4 bytes as a little-endian number: p[0] in bits 7..0.
    return int32_t(O == Order::little ? u << 8 : __builtin_bswap32(u) & 0xFFFFFF00u);
}

// Stores bits 31..8 of the top-aligned word w as a 3-byte sample.
template <Order O>
inline void store24top(unsigned char* p, int32_t w) {
    const uint32_t u = uint32_t(w);
    p[0] = uint8_t(O == Order::big ? u >> 24 : u >> 8);
    p[1] = uint8_t(u >> 16);
    p[2] = uint8_t(O == Order::big ? u >> 8 : u >> 24);
}

template <Order O>
inline void store24top_wide(unsigned char* p, int32_t w) {
    // The 4 bytes as a little-endian number: the sample's first byte in bits
    // 7..0, a zero byte in bits 31..24.
    uint32_t u = O == Order::little ? uint32_t(w) >> 8 : __builtin_bswap32(uint32_t(w)) & 0xFFFFFFu;
    if constexpr (kHostOrder == Order::big) u = __builtin_bswap32(u);
    std::memcpy(p, &u, 4);
}

// count consecutive 3-byte samples to and from top-aligned words.
template <Order O>
inline void load24_run(const unsigned char* __restrict src, int32_t* __restrict word, int count) {
    if (count <= 0) return;
    for (int k = 0; k < count - 1; ++k) word[k] = load24top_wide<O>(src + 3 * k);
    word[count - 1] = load24top<O>(src + 3 * (count - 1));
}

template <Order O>
inline void store24_run(unsigned char* __restrict dst, const int32_t* __restrict word, int count) {
    if (count <= 0) return;
    for (int k = 0; k < count - 1; ++k) store24top_wide<O>(dst + 3 * k, word[k]);
    store24top<O>(dst + 3 * (count - 1), word[count - 1]);
}

// ---- Per-sample arithmetic -------------------------------------------------

// The conversions from int are exact (at most 24 significant bits), and so
// are the products with the power-of-two scales.
inline float from16(int32_t s) { return float(s) * kScale16; }
inline float from24top(int32_t w) { return float(w) * kScale32; }

// The clamps below return floats whose truncation toward zero is the
// integer result. Each bound is one compare-and-select; the lower bound is
// applied first and in the form that also catches NaN (every comparison with
// NaN is false), so NaN ends at the lower bound and the conversion that
// follows is always in range.
inline float at_least(float y, float low) { return y > low ? y : low; }
inline float at_most(float y, float high) { return y < high ? y : high; }

// Float sample to the 16-bit scale. The bound is tested on y = x * 32768
// rather than on x: the product by a power of two is exact, so the outcome is
// the same.
inline float clip16(float x) {
    const float y = at_least(x * 32768.0f, -32768.0f);
    return y > kClipHigh16Float * 32768.0f ? 32767.0f : y;
}

// Float sample to the 24-bit scale; 1 - 2^-23 times 2^23 is exactly 8388607.
inline float clip24(float x) {
    static_assert(kClipHigh24 * 8388608.0f == 8388607.0f, "24-bit bound is 2^23 - 1");
    return at_most(at_least(x * 8388608.0f, -8388608.0f), 8388607.0f);
}

// A gained 16-bit sample clamped to -32768 ... 32767.
inline float clamp16(float y) { return at_most(at_least(y, -32768.0f), 32767.0f); }

// A gained sample on the top-aligned 32-bit scale, clamped to
// -2^31 ... 2^31. Truncated, 2^31 itself saturates to 2147483647; the largest
// float below 2^31, 2147483520 (0x7FFFFF80), has the same bits 31..8 and is
// the upper bound instead, so that the conversion stays in range. Only bits
// 31..8 are written back, which makes the 24-bit result round toward minus
// infinity (the 16-bit kernels round toward zero).
inline float clamp32(float y) {
    constexpr float kBelow2_31 = 2147483520.0f;
    static_assert(uint32_t(kBelow2_31) >> 8 == uint32_t(INT32_MAX) >> 8, "same bits 31..8");
    return at_most(at_least(y, -2147483648.0f), kBelow2_31);
}

// ---- Runs ------------------------------------------------------------------

// Calls run(first, n) over the items [0, count): n is Block for the full
// blocks and an int for the remainder. first is a size_t so that the byte
// offsets the callers derive from it cannot overflow.
template <typename Run>
inline void in_blocks(int count, Run run) {
    int i = 0;
    for (; count - i >= kBlock; i += kBlock) run(size_t(i), Block{});
    if (i < count) run(size_t(i), count - i);
}

// Integer to float, one channel.
template <Order O, typename N>
void ii16_mono_run(const unsigned char* __restrict src, float* __restrict out, N n) {
    for (int k = 0; k < n; ++k) out[k] = from16(load16<O>(src + 2 * k));
}

template <Order O, typename N>
void ii24_mono_run(const unsigned char* __restrict src, float* __restrict out, N n) {
    int32_t word[kBlock];
    load24_run<O>(src, word, n);
    for (int k = 0; k < n; ++k) out[k] = from24top(word[k]);
}

// Integer to float, two channels.
template <Order O, typename N>
void ii16_stereo_run(const unsigned char* __restrict src, float* __restrict left,
                     float* __restrict right, N n) {
    for (int k = 0; k < n; ++k) {
        left[k] = from16(load16<O>(src + 4 * k));
        right[k] = from16(load16<O>(src + 4 * k + 2));
    }
}

// Integer to float, the first two of more than two channels.
template <Order O>
void ii16_multi(const unsigned char* src, float* left, float* right, int frames, int channels) {
    const size_t frameBytes = size_t(2) * size_t(channels);
    for (int k = 0; k < frames; ++k, src += frameBytes) {
        left[k] = from16(load16<O>(src));
        right[k] = from16(load16<O>(src + 2));
    }
}

template <Order O, typename N>
void ii24_stereo_run(const unsigned char* __restrict src, float* __restrict left,
                     float* __restrict right, N n) {
    int32_t word[2 * kBlock];
    load24_run<O>(src, word, 2 * n);
    for (int k = 0; k < n; ++k) {
        left[k] = from24top(word[2 * k]);
        right[k] = from24top(word[2 * k + 1]);
    }
}

// Integer to float, the first two of more than two channels. A third sample
// follows the second in every frame, so both can be loaded wide.
template <Order O>
void ii24_multi(const unsigned char* src, float* left, float* right, int frames, int channels) {
    const size_t frameBytes = size_t(3) * size_t(channels);
    for (int k = 0; k < frames; ++k, src += frameBytes) {
        left[k] = from24top(load24top_wide<O>(src));
        right[k] = from24top(load24top_wide<O>(src + 3));
    }
}

// Mono material is delivered as two identical channels.
inline void copy_to_second(float** dst, int frames) {
    if (dst[1] != dst[0]) std::memcpy(dst[1], dst[0], size_t(frames) * sizeof(float));
}

template <Order O>
void ii16_to_nifloat(const unsigned char* src, float** dst, int frames, int channels) {
    if (frames <= 0 || channels <= 0) return;
    float* left = dst[0];
    float* right = dst[1];
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) { ii16_mono_run<O>(src + 2 * f, left + f, n); });
        copy_to_second(dst, frames);
    } else if (channels == 2) {
        in_blocks(frames, [=](size_t f, auto n) {
            ii16_stereo_run<O>(src + 4 * f, left + f, right + f, n);
        });
    } else {
        ii16_multi<O>(src, left, right, frames, channels);
    }
}

template <Order O>
void ii24_to_nifloat(const unsigned char* src, float** dst, int frames, int channels) {
    if (frames <= 0 || channels <= 0) return;
    float* left = dst[0];
    float* right = dst[1];
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) { ii24_mono_run<O>(src + 3 * f, left + f, n); });
        copy_to_second(dst, frames);
    } else if (channels == 2) {
        in_blocks(frames, [=](size_t f, auto n) {
            ii24_stereo_run<O>(src + 6 * f, left + f, right + f, n);
        });
    } else {
        ii24_multi<O>(src, left, right, frames, channels);
    }
}

// Float to integer. Writers produce one channel or two, never more.
template <typename N>
void nifloat_ii16_mono_run(const float* __restrict in, unsigned char* __restrict dst, N n) {
    float level[kBlock];
    for (int k = 0; k < n; ++k) level[k] = clip16(in[k]);
    for (int k = 0; k < n; ++k) store16<kHostOrder>(dst + 2 * k, int32_t(level[k]));
}

template <typename N>
void nifloat_ii16_stereo_run(const float* __restrict left, const float* __restrict right,
                           unsigned char* __restrict dst, N n) {
    float levelL[kBlock], levelR[kBlock];
    for (int k = 0; k < n; ++k) {
        levelL[k] = clip16(left[k]);
        levelR[k] = clip16(right[k]);
    }
    for (int k = 0; k < n; ++k) {
        store16<kHostOrder>(dst + 4 * k, int32_t(levelL[k]));
        store16<kHostOrder>(dst + 4 * k + 2, int32_t(levelR[k]));
    }
}

// The 24-bit writers produce top-aligned words for store24_run.
template <Order O, typename N>
void nifloat_ii24_mono_run(const float* __restrict in, unsigned char* __restrict dst, N n) {
    float level[kBlock];
    int32_t word[kBlock];
    for (int k = 0; k < n; ++k) level[k] = clip24(in[k]);
    for (int k = 0; k < n; ++k) word[k] = int32_t(uint32_t(int32_t(level[k])) << 8);
    store24_run<O>(dst, word, n);
}

template <Order O, typename N>
void nifloat_ii24_stereo_run(const float* __restrict left, const float* __restrict right,
                             unsigned char* __restrict dst, N n) {
    float levelL[kBlock], levelR[kBlock];
    int32_t word[2 * kBlock];
    for (int k = 0; k < n; ++k) {
        levelL[k] = clip24(left[k]);
        levelR[k] = clip24(right[k]);
    }
    for (int k = 0; k < n; ++k) {
        word[2 * k] = int32_t(uint32_t(int32_t(levelL[k])) << 8);
        word[2 * k + 1] = int32_t(uint32_t(int32_t(levelR[k])) << 8);
    }
    store24_run<O>(dst, word, 2 * n);
}

template <Order O>
void nifloat_to_ii24(float** src, unsigned char* dst, int frames, int channels) {
    if (frames <= 0 || channels <= 0) return;
    const float* left = src[0];
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) {
            nifloat_ii24_mono_run<O>(left + f, dst + 3 * f, n);
        });
    } else {
        const float* right = src[1];
        in_blocks(frames, [=](size_t f, auto n) {
            nifloat_ii24_stereo_run<O>(left + f, right + f, dst + 6 * f, n);
        });
    }
}

// Gain in place on n samples.
template <Order O, typename N>
void gain16_run(unsigned char* __restrict bytes, N n, float gain) {
    float level[kBlock];
    for (int k = 0; k < n; ++k) level[k] = clamp16(float(load16<O>(bytes + 2 * k)) * gain);
    for (int k = 0; k < n; ++k) store16<O>(bytes + 2 * k, int32_t(level[k]));
}

template <Order O, typename N>
void gain24_run(unsigned char* __restrict bytes, N n, float gain) {
    int32_t word[kBlock];
    float level[kBlock];
    load24_run<O>(bytes, word, n);
    for (int k = 0; k < n; ++k) level[k] = clamp32(float(word[k]) * gain);
    for (int k = 0; k < n; ++k) word[k] = int32_t(level[k]);
    store24_run<O>(bytes, word, n);
}

template <Order O>
void apply_gain16(unsigned char* bytes, int byteCount, float gain) {
    if (byteCount <= 0) return;
    const int samples = int(unsigned(byteCount) >> 1);
    in_blocks(samples, [=](size_t s, auto n) { gain16_run<O>(bytes + 2 * s, n, gain); });
}

template <Order O>
void apply_gain24(unsigned char* bytes, int byteCount, float gain) {
    if (byteCount <= 0) return;
    in_blocks(byteCount / 3, [=](size_t s, auto n) { gain24_run<O>(bytes + 3 * s, n, gain); });
}

// Gain and envelope in place on n frames of C samples (C is 1 or 2): every
// sample of frame k becomes envelope[k] * (sample * gain).
template <Order O, int C, typename N>
void envelope16_run(unsigned char* __restrict bytes, const float* __restrict envelope, N n,
                    float gain) {
    float level[kBlock * C];
    for (int k = 0; k < n; ++k)
        for (int c = 0; c < C; ++c)
            level[C * k + c] =
                clamp16(envelope[k] * (float(load16<O>(bytes + 2 * (C * k + c))) * gain));
    for (int i = 0; i < C * n; ++i) store16<O>(bytes + 2 * i, int32_t(level[i]));
}

template <Order O, int C, typename N>
void envelope24_run(unsigned char* __restrict bytes, const float* __restrict envelope, N n,
                    float gain) {
    int32_t word[kBlock * C];
    float level[kBlock * C];
    load24_run<O>(bytes, word, C * n);
    for (int k = 0; k < n; ++k)
        for (int c = 0; c < C; ++c)
            level[C * k + c] = clamp32(envelope[k] * (float(word[C * k + c]) * gain));
    for (int i = 0; i < C * n; ++i) word[i] = int32_t(level[i]);
    store24_run<O>(bytes, word, C * n);
}

// Any channel count, one sample at a time.
template <Order O>
void envelope16_any(unsigned char* bytes, const float* envelope, int frames, int channels,
                    float gain) {
    for (int f = 0; f < frames; ++f) {
        unsigned char* p = bytes + size_t(2) * size_t(channels) * size_t(f);
        for (int c = 0; c < channels; ++c, p += 2)
            store16<O>(p, int32_t(clamp16(envelope[f] * (float(load16<O>(p)) * gain))));
    }
}

template <Order O>
void envelope24_any(unsigned char* bytes, const float* envelope, int frames, int channels,
                    float gain) {
    for (int f = 0; f < frames; ++f) {
        unsigned char* p = bytes + size_t(3) * size_t(channels) * size_t(f);
        for (int c = 0; c < channels; ++c, p += 3) {
            const float level = clamp32(envelope[f] * (float(load24top<O>(p)) * gain));
            store24top<O>(p, int32_t(level));
        }
    }
}

template <Order O>
void apply_gain_and_envelope16(unsigned char* bytes, int frames, int channels, float gain,
                               const float* envelope) {
    if (frames <= 0 || channels <= 0) return;
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) {
            envelope16_run<O, 1>(bytes + 2 * f, envelope + f, n, gain);
        });
    } else if (channels == 2) {
        in_blocks(frames, [=](size_t f, auto n) {
            envelope16_run<O, 2>(bytes + 4 * f, envelope + f, n, gain);
        });
    } else {
        envelope16_any<O>(bytes, envelope, frames, channels, gain);
    }
}

template <Order O>
void apply_gain_and_envelope24(unsigned char* bytes, int frames, int channels, float gain,
                               const float* envelope) {
    if (frames <= 0 || channels <= 0) return;
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) {
            envelope24_run<O, 1>(bytes + 3 * f, envelope + f, n, gain);
        });
    } else if (channels == 2) {
        in_blocks(frames, [=](size_t f, auto n) {
            envelope24_run<O, 2>(bytes + 6 * f, envelope + f, n, gain);
        });
    } else {
        envelope24_any<O>(bytes, envelope, frames, channels, gain);
    }
}

template <typename N>
void swap16_run(unsigned char* __restrict bytes, N n) {
    for (int k = 0; k < n; ++k) {
        uint16_t u;
        std::memcpy(&u, bytes + 2 * k, 2);
        u = __builtin_bswap16(u);
        std::memcpy(bytes + 2 * k, &u, 2);
    }
}

inline void swap24_run(unsigned char* __restrict bytes, int n) {
    for (int k = 0; k < n; ++k) {
        unsigned char* p = bytes + 3 * k;
        const unsigned char first = p[0];
        p[0] = p[2];
        p[2] = first;
    }
}

} // namespace

// ---- Entry points ----------------------------------------------------------

KEL_CLONED void convert_ne_nifloat_to_ne_ii16(float** src, unsigned char* dst, int frames, int channels) {
    if (frames <= 0 || channels <= 0) return;
    const float* left = src[0];
    if (channels == 1) {
        in_blocks(frames, [=](size_t f, auto n) {
            nifloat_ii16_mono_run(left + f, dst + 2 * f, n);
        });
    } else {
        const float* right = src[1];
        in_blocks(frames, [=](size_t f, auto n) {
            nifloat_ii16_stereo_run(left + f, right + f, dst + 4 * f, n);
        });
    }
}

KEL_CLONED void convert_ne_nifloat_to_ne_ii24(float** src, unsigned char* dst, int frames, int channels) {
    nifloat_to_ii24<Order::big>(src, dst, frames, channels);
}

KEL_CLONED void convert_ne_nifloat_to_le_ii24(float** src, unsigned char* dst, int frames, int channels) {
    nifloat_to_ii24<Order::little>(src, dst, frames, channels);
}

KEL_CLONED void convert_be_ii16_to_ne_nifloat(unsigned char* src, float** dst, int frames, int channels) {
    ii16_to_nifloat<Order::big>(src, dst, frames, channels);
}

KEL_CLONED void convert_le_ii16_to_ne_nifloat(unsigned char* src, float** dst, int frames, int channels) {
    ii16_to_nifloat<Order::little>(src, dst, frames, channels);
}

KEL_CLONED void convert_be_ii24_to_ne_nifloat(unsigned char* src, float** dst, int frames, int channels) {
    ii24_to_nifloat<Order::big>(src, dst, frames, channels);
}

KEL_CLONED void convert_le_ii24_to_ne_nifloat(unsigned char* src, float** dst, int frames, int channels) {
    ii24_to_nifloat<Order::little>(src, dst, frames, channels);
}

KEL_CLONED void apply_gain16_be(unsigned char* bytes, int byteCount, float gain) {
    apply_gain16<Order::big>(bytes, byteCount, gain);
}

KEL_CLONED void apply_gain16_le(unsigned char* bytes, int byteCount, float gain) {
    apply_gain16<Order::little>(bytes, byteCount, gain);
}

KEL_CLONED void apply_gain24_be(unsigned char* bytes, int byteCount, float gain) {
    apply_gain24<Order::big>(bytes, byteCount, gain);
}

KEL_CLONED void apply_gain24_le(unsigned char* bytes, int byteCount, float gain) {
    apply_gain24<Order::little>(bytes, byteCount, gain);
}

KEL_CLONED void apply_gain_and_envelope16_be(unsigned char* bytes, int frames, int channels, float gain,
                                  float* envelope) {
    apply_gain_and_envelope16<Order::big>(bytes, frames, channels, gain, envelope);
}

KEL_CLONED void apply_gain_and_envelope16_le(unsigned char* bytes, int frames, int channels, float gain,
                                  float* envelope) {
    apply_gain_and_envelope16<Order::little>(bytes, frames, channels, gain, envelope);
}

KEL_CLONED void apply_gain_and_envelope24_be(unsigned char* bytes, int frames, int channels, float gain,
                                  float* envelope) {
    apply_gain_and_envelope24<Order::big>(bytes, frames, channels, gain, envelope);
}

KEL_CLONED void apply_gain_and_envelope24_le(unsigned char* bytes, int frames, int channels, float gain,
                                  float* envelope) {
    apply_gain_and_envelope24<Order::little>(bytes, frames, channels, gain, envelope);
}

KEL_CLONED void swap_bytes16(unsigned char* bytes, int byteCount) {
    if (byteCount <= 0) return;
    in_blocks(byteCount / 2, [=](size_t w, auto n) { swap16_run(bytes + 2 * w, n); });
}

KEL_CLONED void swap_bytes24(unsigned char* bytes, int byteCount) {
    if (byteCount <= 0) return;
    swap24_run(bytes, byteCount / 3);
}

} // namespace KEL
