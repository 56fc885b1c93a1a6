// Sample conversion kernels against a reference that works sample by sample
// in double precision, with bytes packed and unpacked one at a time. Buffers
// are sized exactly so that the address sanitizer sees any access outside.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "pcm/kernels.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Floats = std::vector<float>;
using Reader = void (*)(unsigned char*, float**, int, int);
using Writer = void (*)(float**, unsigned char*, int, int);
using Gain = void (*)(unsigned char*, int, float);
using Envelope = void (*)(unsigned char*, int, int, float, float*);

bool host_is_big() {
    const uint16_t one = 1;
    unsigned char first;
    std::memcpy(&first, &one, 1);
    return first == 0;
}

// One integer layout and the kernels that read or scale it in place.
struct Format {
    const char* name;
    int bytes;
    bool big;
    Reader read;
    Gain gain;
    Envelope envelope;
};

const Format kFormats[] = {
    {"be16", 2, true, KEL::convert_be_ii16_to_ne_nifloat, KEL::apply_gain16_be,
     KEL::apply_gain_and_envelope16_be},
    {"le16", 2, false, KEL::convert_le_ii16_to_ne_nifloat, KEL::apply_gain16_le,
     KEL::apply_gain_and_envelope16_le},
    {"be24", 3, true, KEL::convert_be_ii24_to_ne_nifloat, KEL::apply_gain24_be,
     KEL::apply_gain_and_envelope24_be},
    {"le24", 3, false, KEL::convert_le_ii24_to_ne_nifloat, KEL::apply_gain24_le,
     KEL::apply_gain_and_envelope24_le},
};

void put(unsigned char* p, long v, int bytes, bool big) {
    const unsigned long u = static_cast<unsigned long>(v);
    for (int i = 0; i < bytes; ++i) p[i] = (u >> (8 * (big ? bytes - 1 - i : i))) & 0xFF;
}

long get(const unsigned char* p, int bytes, bool big) {
    long v = 0;
    for (int i = 0; i < bytes; ++i) v = v * 256 + p[big ? i : bytes - 1 - i];
    const long half = 1L << (8 * bytes - 1);
    return v >= half ? v - 2 * half : v;
}

Bytes pack(const std::vector<long>& values, int bytes, bool big) {
    Bytes out(values.size() * size_t(bytes));
    for (size_t i = 0; i < values.size(); ++i) put(&out[i * size_t(bytes)], values[i], bytes, big);
    return out;
}

double from_bits(uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
}

// Float to integer as the rules state them: bounds compared in double,
// product with 2^15 or 2^23 (exact in double), truncation toward zero.
long ref_write(float x, int bytes) {
    const double d = x;
    if (bytes == 2) {
        if (d > from_bits(0x3FEFFFBFD3C00615)) return 32767;
        if (d < -1.0) return -32768;
        return long(std::trunc(d * 32768.0));
    }
    if (d > 1.0 - std::ldexp(1.0, -23)) return 8388607;
    if (d < -1.0) return -8388608;
    return long(std::trunc(d * 8388608.0));
}

// Single-precision product: the exact double product rounded once.
float mul(double a, double b) { return float(a * b); }

// Gain (and envelope factor, when given) on one sample.
long ref_gain(long s, int bytes, float gain, const float* envelope = nullptr) {
    if (bytes == 2) {
        float p = mul(double(s), gain);
        if (envelope) p = mul(*envelope, p);
        if (p > 32767.0f) return 32767;
        if (p < -32768.0f) return -32768;
        return long(std::trunc(p));
    }
    float p = mul(double(s) * 256.0, gain);
    if (envelope) p = mul(*envelope, p);
    const double t = p >= 2147483648.0f  ? 2147483647.0
                     : p < -2147483648.0f ? -2147483648.0
                                          : std::trunc(double(p));
    return long(std::floor(t / 256.0));
}

long random_sample(std::mt19937& rng, int bytes) {
    const long half = 1L << (8 * bytes - 1);
    return std::uniform_int_distribution<long>(-half, half - 1)(rng);
}

} // namespace

// Every 16-bit value (-32768 is exactly -1.0), both ends and a sweep of the
// 24-bit range, in every channel count, back through the writers.
TEST(KernelsRead, EveryLayoutAndChannelCountRoundTrips) {
    std::mt19937 rng(1);
    for (const Format& f : kFormats) {
        std::vector<long> sweep;
        if (f.bytes == 2) {
            for (long v = -32768; v <= 32767; ++v) sweep.push_back(v);
        } else {
            sweep = {-8388608, -8388607, -1, 0, 1, 8388606, 8388607};
            for (long v = -8388608; v <= 8388607; v += 61) sweep.push_back(v);
        }
        const double scale = f.bytes == 2 ? 32768.0 : 8388608.0;
        for (int channels : {1, 2, 3, 5}) {
            // The sweep on the first channel, random samples on the others.
            const int frames = int(sweep.size());
            std::vector<long> values(size_t(frames * channels));
            for (int i = 0; i < frames; ++i)
                for (int c = 0; c < channels; ++c)
                    values[size_t(i * channels + c)] = c == 0 ? sweep[size_t(i)] : random_sample(rng, f.bytes);
            Bytes in = pack(values, f.bytes, f.big);
            Floats left(size_t(frames), 7.0f), right(size_t(frames), 7.0f);
            float* ch[2] = {left.data(), right.data()};
            f.read(in.data(), ch, frames, channels);
            const int second = channels == 1 ? 0 : 1;
            for (int i = 0; i < frames; ++i) {
                ASSERT_EQ(double(left[size_t(i)]), values[size_t(i * channels)] / scale) << f.name;
                ASSERT_EQ(double(right[size_t(i)]), values[size_t(i * channels + second)] / scale)
                    << f.name << " channels " << channels;
            }
            if (channels > 2) continue;
            // The writers give the samples back: 16 bits in the host's
            // order, 24 bits in either.
            Bytes out(size_t(frames * channels * f.bytes));
            if (f.bytes == 2) {
                KEL::convert_ne_nifloat_to_ne_ii16(ch, out.data(), frames, channels);
                EXPECT_EQ(out, pack(values, 2, host_is_big())) << f.name;
            } else {
                (f.big ? KEL::convert_ne_nifloat_to_ne_ii24 : KEL::convert_ne_nifloat_to_le_ii24)(
                    ch, out.data(), frames, channels);
                EXPECT_EQ(out, in) << f.name;
            }
        }
    }
}

TEST(KernelsWrite, StatedValues) {
    struct Case { float x; long v16, v24; };
    const Case cases[] = {
        {1.0f, 32767, 8388607},      {-1.0f, -32768, -8388608}, {0.5f, 16384, 4194304},
        {-0.00001f, 0, -83},         {0.99997f, 32767, 8388356}, {0.9999f, 32764, 8387769},
        {1.5f, 32767, 8388607},      {-1.5f, -32768, -8388608}, {-0.0f, 0, 0},
        {std::numeric_limits<float>::infinity(), 32767, 8388607},
        {-std::numeric_limits<float>::infinity(), -32768, -8388608},
    };
    const bool hostBig = host_is_big();
    for (const Case& c : cases) {
        float x = c.x;
        float* ch[2] = {&x, &x};
        unsigned char out16[2], be24[3], le24[3];
        KEL::convert_ne_nifloat_to_ne_ii16(ch, out16, 1, 1);
        KEL::convert_ne_nifloat_to_ne_ii24(ch, be24, 1, 1);
        KEL::convert_ne_nifloat_to_le_ii24(ch, le24, 1, 1);
        EXPECT_EQ(get(out16, 2, hostBig), c.v16) << c.x;
        EXPECT_EQ(get(be24, 3, true), c.v24) << c.x;
        EXPECT_EQ(get(le24, 3, false), c.v24) << c.x;
        EXPECT_EQ(c.v16, ref_write(c.x, 2));
        EXPECT_EQ(c.v24, ref_write(c.x, 3));
    }
    // Byte order of the 24-bit writers on a value with three distinct bytes.
    float x = float(0x123456) / 8388608.0f;
    float* ch[2] = {&x, &x};
    unsigned char out[3];
    KEL::convert_ne_nifloat_to_ne_ii24(ch, out, 1, 1);
    EXPECT_EQ(Bytes(out, out + 3), (Bytes{0x12, 0x34, 0x56}));
    KEL::convert_ne_nifloat_to_le_ii24(ch, out, 1, 1);
    EXPECT_EQ(Bytes(out, out + 3), (Bytes{0x56, 0x34, 0x12}));
}

TEST(KernelsWrite, SixteenBitBoundIsTheDoubleConstant) {
    const double bound = from_bits(0x3FEFFFBFD3C00615);
    // The two floats that straddle the bound.
    float below = float(bound);
    if (double(below) > bound) below = std::nextafter(below, 0.0f);
    const float above = std::nextafter(below, 2.0f);
    ASSERT_TRUE(double(below) <= bound && double(above) > bound);
    float* ch[2] = {&below, const_cast<float*>(&above)};
    unsigned char out[4];
    KEL::convert_ne_nifloat_to_ne_ii16(ch, out, 1, 2);
    EXPECT_EQ(get(out, 2, host_is_big()), 32766);  // below 32767/32768, truncated
    EXPECT_EQ(get(out + 2, 2, host_is_big()), 32767);
}

TEST(KernelsWrite, RandomAgainstReference) {
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> level(-1.2f, 1.2f);
    const bool hostBig = host_is_big();
    struct Target { Writer write; int bytes; bool big; };
    const Target targets[] = {{KEL::convert_ne_nifloat_to_ne_ii16, 2, hostBig},
                              {KEL::convert_ne_nifloat_to_ne_ii24, 3, true},
                              {KEL::convert_ne_nifloat_to_le_ii24, 3, false}};
    for (const Target& t : targets) {
        for (int channels : {1, 2, 3}) {
            for (int frames : {1, 31, 32, 33, 1000}) {
                Floats left(static_cast<size_t>(frames)), right(static_cast<size_t>(frames));
                for (size_t i = 0; i < left.size(); ++i) {
                    left[i] = level(rng);
                    right[i] = i % 7 == 0 ? std::ldexp(level(rng), -20) : level(rng);
                }
                float* ch[2] = {left.data(), right.data()};
                const int written = channels == 1 ? 1 : 2;
                Bytes out(size_t(frames * written * t.bytes));
                t.write(ch, out.data(), frames, channels);
                for (int i = 0; i < frames * written; ++i) {
                    const float x = (i % written == 0 ? left : right)[size_t(i / written)];
                    ASSERT_EQ(get(&out[size_t(i * t.bytes)], t.bytes, t.big), ref_write(x, t.bytes))
                        << "x " << x << " channels " << channels;
                }
            }
        }
    }
}

TEST(KernelsGain, StatedValues) {
    for (const Format& f : kFormats) {
        const long shift = f.bytes == 2 ? 1 : 256;  // 16-bit values on the 24-bit scale
        Bytes buf = pack({20000 * shift, -20000 * shift}, f.bytes, f.big);
        f.gain(buf.data(), int(buf.size()), 2.0f);
        EXPECT_EQ(get(&buf[0], f.bytes, f.big), f.bytes == 2 ? 32767 : 8388607) << f.name;
        EXPECT_EQ(get(&buf[size_t(f.bytes)], f.bytes, f.big), f.bytes == 2 ? -32768 : -8388608);
        buf = pack({-3, 3}, f.bytes, f.big);
        f.gain(buf.data(), int(buf.size()), 0.5f);
        // 16 bit truncates toward zero; 24 bit drops the low byte of the
        // 32-bit result and so rounds toward minus infinity.
        EXPECT_EQ(get(&buf[0], f.bytes, f.big), f.bytes == 2 ? -1 : -2) << f.name;
        EXPECT_EQ(get(&buf[size_t(f.bytes)], f.bytes, f.big), 1) << f.name;
        // 0x400000 doubled is exactly 2^31 on the 32-bit scale: saturates.
        buf = pack({0x400000 / (f.bytes == 2 ? 256 : 1)}, f.bytes, f.big);
        f.gain(buf.data(), f.bytes, 2.0f);
        EXPECT_EQ(get(&buf[0], f.bytes, f.big), f.bytes == 2 ? 32767 : 8388607) << f.name;
    }
}

TEST(KernelsGain, RandomAgainstReference) {
    std::mt19937 rng(3);
    const float gains[] = {0.0f, 0.25f, 0.7071f, 1.0f, 1.3f, 3.9f, -0.6f, 1e-30f};
    for (const Format& f : kFormats) {
        for (float gain : gains) {
            for (int samples : {1, 31, 32, 33, 1000}) {
                const int extra = f.bytes - 1;  // a partial sample at the end stays
                std::vector<long> values(static_cast<size_t>(samples));
                for (long& v : values) v = random_sample(rng, f.bytes);
                Bytes buf = pack(values, f.bytes, f.big);
                for (int i = 0; i < extra; ++i) buf.push_back(0xA5);
                f.gain(buf.data(), int(buf.size()), gain);
                for (int i = 0; i < samples; ++i)
                    ASSERT_EQ(get(&buf[size_t(i * f.bytes)], f.bytes, f.big),
                              ref_gain(values[size_t(i)], f.bytes, gain))
                        << f.name << " gain " << gain << " sample " << values[size_t(i)];
                for (int i = 0; i < extra; ++i) EXPECT_EQ(buf[buf.size() - 1 - size_t(i)], 0xA5);
            }
        }
    }
}

TEST(KernelsEnvelope, RandomAgainstReference) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> factor(0.0f, 1.6f);
    for (const Format& f : kFormats) {
        for (int channels : {1, 2, 3}) {
            for (int frames : {1, 32, 45, 700}) {
                std::vector<long> values(size_t(frames * channels));
                for (long& v : values) v = random_sample(rng, f.bytes);
                Floats envelope(static_cast<size_t>(frames));  // exactly one value per frame
                for (float& e : envelope) e = factor(rng);
                const float gain = factor(rng);
                Bytes buf = pack(values, f.bytes, f.big);
                f.envelope(buf.data(), frames, channels, gain, envelope.data());
                for (int i = 0; i < frames * channels; ++i) {
                    const float* e = &envelope[size_t(i / channels)];
                    ASSERT_EQ(get(&buf[size_t(i * f.bytes)], f.bytes, f.big),
                              ref_gain(values[size_t(i)], f.bytes, gain, e))
                        << f.name << " channels " << channels;
                }
            }
        }
    }
}

TEST(KernelsSwap, WholeWordsOnly) {
    Bytes five = {1, 2, 3, 4, 5};
    KEL::swap_bytes16(five.data(), 5);
    EXPECT_EQ(five, (Bytes{2, 1, 4, 3, 5}));
    Bytes seven = {1, 2, 3, 4, 5, 6, 7};
    KEL::swap_bytes24(seven.data(), 7);
    EXPECT_EQ(seven, (Bytes{3, 2, 1, 6, 5, 4, 7}));

}

TEST(Kernels, ZeroCountsTouchNothing) {
    Bytes bytes(12, 0x5A);
    Floats left(4, 7.0f), right(4, 7.0f);
    float* ch[2] = {left.data(), right.data()};
    float envelope = 0.0f;
    for (const Format& f : kFormats) {
        f.read(bytes.data(), ch, 0, 2);
        f.gain(bytes.data(), 0, 0.0f);
        f.envelope(bytes.data(), 0, 2, 0.0f, &envelope);
    }
    KEL::convert_ne_nifloat_to_ne_ii16(ch, bytes.data(), 0, 2);
    KEL::convert_ne_nifloat_to_ne_ii24(ch, bytes.data(), 0, 2);
    KEL::convert_ne_nifloat_to_le_ii24(ch, bytes.data(), 0, 2);
    KEL::swap_bytes16(bytes.data(), 1);
    KEL::swap_bytes24(bytes.data(), 2);
    EXPECT_EQ(bytes, Bytes(12, 0x5A));
    EXPECT_EQ(left, Floats(4, 7.0f));
    EXPECT_EQ(right, Floats(4, 7.0f));
}

TEST(Kernels, NaNGivesTheNegativeLimit) {
    float x = std::numeric_limits<float>::quiet_NaN();
    float* ch[2] = {&x, &x};
    unsigned char out[3];
    KEL::convert_ne_nifloat_to_ne_ii16(ch, out, 1, 1);
    EXPECT_EQ(get(out, 2, host_is_big()), -32768);
    KEL::convert_ne_nifloat_to_le_ii24(ch, out, 1, 1);
    EXPECT_EQ(get(out, 3, false), -8388608);
    for (const Format& f : kFormats) {
        Bytes buf = pack({5}, f.bytes, f.big);
        f.gain(buf.data(), f.bytes, x);
        EXPECT_EQ(get(buf.data(), f.bytes, f.big), f.bytes == 2 ? -32768 : -8388608) << f.name;
    }
}
