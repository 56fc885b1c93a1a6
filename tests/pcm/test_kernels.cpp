// Sample conversion kernels where the format tests cannot reach them: the
// float-to-integer writers against a reference that works in double
// precision, the bounds, infinities and NaN, saturation and the floor of
// 24-bit gains, and empty calls. (Every sample the PCM formats read, gain,
// envelope and write is compared with ffmpeg or the gain rules there.)
// Buffers are sized exactly so that the address sanitizer sees any access
// outside.
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

} // namespace

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
    // (The byte order of every writer is RandomAgainstReference's business.)
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
