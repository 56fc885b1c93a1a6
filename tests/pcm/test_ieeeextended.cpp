// The big-endian IEEE conversions AIFF and CAF use, against the formats'
// definitions: the 80-bit extended layout built by integer arithmetic, the
// hardware's own conversions as the reference for rounding, and the special
// values (zeros, infinities, NaNs) case by case.
#include "pcm/ieeeextended.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

using namespace KEL;

namespace {

using Ext = std::array<unsigned char, 10>;

// An extended number from its fields: sign, 15-bit exponent, 64-bit mantissa.
Ext ext(bool negative, unsigned exponent, uint64_t mantissa)
{
    Ext b{};
    b[0] = static_cast<unsigned char>((negative ? 0x80 : 0) | ((exponent >> 8) & 0x7F));
    b[1] = static_cast<unsigned char>(exponent);
    for (int i = 0; i < 8; ++i)
        b[2 + i] = static_cast<unsigned char>(mantissa >> (56 - 8 * i));
    return b;
}

// A positive integer in the extended format: the highest set bit becomes
// the explicit integer bit, and the exponent counts the bits below it.
Ext ext_of_integer(uint64_t n)
{
    int top = 63;
    while ((n >> top) == 0)
        --top;
    return ext(false, 16383u + static_cast<unsigned>(top), n << (63 - top));
}

Ext to_ext(double v)
{
    Ext b{};
    ConvertToIeeeExtended(v, b.data());
    return b;
}

double from_ext(const Ext& b)
{
    return ConvertFromIeeeExtended(b.data());
}

uint64_t bits(double v)
{
    uint64_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

double from_bits(uint64_t u)
{
    double v;
    std::memcpy(&v, &u, sizeof v);
    return v;
}

TEST(IeeeExtended, CommonSampleRatesBothWays)
{
    // 44100.5: the half lands in the mantissa right after 0xAC44.
    EXPECT_EQ(to_ext(44100.5), (Ext{0x40, 0x0E, 0xAC, 0x44, 0x80, 0, 0, 0, 0, 0}));
    for (uint64_t rate : {1ULL, 2ULL, 3ULL, 4000ULL, 8000ULL, 11025ULL, 12000ULL, 16000ULL, 22050ULL, 24000ULL,
                          32000ULL, 44100ULL, 47250ULL, 48000ULL, 88200ULL, 96000ULL, 176400ULL, 192000ULL,
                          384000ULL, 4294967295ULL}) {
        SCOPED_TRACE(rate);
        const Ext want = ext_of_integer(rate);
        EXPECT_EQ(to_ext(static_cast<double>(rate)), want);
        EXPECT_EQ(from_ext(want), static_cast<double>(rate));
        EXPECT_EQ(to_ext(-static_cast<double>(rate))[0], want[0] | 0x80);
    }
    EXPECT_EQ(from_ext(ext(true, 16383, 1ULL << 63)), -1.0);

    // An unnormal mantissa (integer bit clear) is taken at face value:
    // 0x5622 at the scale of 44100 is half of it.
    EXPECT_EQ(from_ext(ext(false, 0x400E, 0x5622ULL << 48)), 22050.0);
}

TEST(IeeeExtended, EveryDoubleSurvivesARoundTrip)
{
    std::mt19937_64 random(0x4145494646ULL);
    for (int i = 0; i < 200000; ++i) {
        const uint64_t pattern = random();
        const double v = from_bits(pattern);
        if (std::isnan(v))
            continue;
        ASSERT_EQ(bits(from_ext(to_ext(v))), pattern) << std::hex << pattern;
    }
    // The edges of the double range, both signs.
    for (double v : {std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::min(),
                     std::numeric_limits<double>::max(), std::nextafter(std::numeric_limits<double>::min(), 0.0),
                     1.0, 0.1}) {
        EXPECT_EQ(from_ext(to_ext(v)), v);
        EXPECT_EQ(from_ext(to_ext(-v)), -v);
    }
    // The smallest subnormal double is a normal extended number.
    EXPECT_EQ(to_ext(std::numeric_limits<double>::denorm_min()), ext(false, 16383 - 1074, 1ULL << 63));
}

TEST(IeeeExtended, MantissasWiderThanADoubleRoundToNearestEven)
{
    // The hardware's conversion of a 64-bit integer rounds to nearest even;
    // an extended number with the integer's bits must read back the same.
    std::mt19937_64 random(20240612);
    for (int i = 0; i < 100000; ++i) {
        uint64_t n = random() | (1ULL << 63);
        if (i % 4 == 0) // exact ties: a 1 right below the 53 kept bits
            n = (n & ~0x7FFULL) | 0x400ULL;
        const int scale = static_cast<int>(random() % 2000) - 1000;
        const Ext e = ext(false, static_cast<unsigned>(16383 + 63 + scale), n);
        ASSERT_EQ(from_ext(e), std::ldexp(static_cast<double>(n), scale)) << std::hex << n << " " << std::dec << scale;
    }
}

// The values a damaged or odd header can hold, which must read as what
// they are so that the rate check refuses them: signed zeros, numbers
// beyond the double range, infinities (with or without the integer bit)
// and NaNs. (Rounding inside the subnormal range is no rate's concern.)
TEST(IeeeExtended, ZerosOverflowInfinitiesAndNaNs)
{
    EXPECT_EQ(to_ext(0.0), ext(false, 0, 0));
    EXPECT_EQ(to_ext(-0.0), ext(true, 0, 0));
    EXPECT_EQ(to_ext(HUGE_VAL), ext(false, 0x7FFF, 1ULL << 63));
    EXPECT_EQ(to_ext(-HUGE_VAL), ext(true, 0x7FFF, 1ULL << 63));
    const struct {
        Ext in;
        double want; // NaN: any NaN
    } reads[] = {
        {ext(false, 0, 0), 0.0},
        {ext(true, 0, 0), -0.0},
        {ext(false, 0, 1), 0.0}, // extended denormals are far below any double
        {ext(false, 16383 + 1023, 0xFFFFFFFFFFFFF800ULL), std::numeric_limits<double>::max()},
        {ext(false, 16383 + 1023, 0xFFFFFFFFFFFFFC00ULL), HUGE_VAL}, // ties away from the odd mantissa
        {ext(true, 16383 + 1024, 1ULL << 63), -HUGE_VAL},
        {ext(false, 0x7FFF, 1ULL << 63), HUGE_VAL},
        {ext(true, 0x7FFF, 1ULL << 63), -HUGE_VAL},
        {ext(false, 0x7FFF, 0), HUGE_VAL},
        {ext(false, 0x7FFF, 0xC000000000000000ULL), NAN},
        {ext(false, 0x7FFF, 1), NAN},
        {ext(true, 0x7FFF, (1ULL << 63) | 1), NAN},
    };
    for (const auto& r : reads) {
        const double got = from_ext(r.in);
        if (std::isnan(r.want)) {
            EXPECT_TRUE(std::isnan(got));
        } else {
            EXPECT_EQ(got, r.want);
            EXPECT_EQ(std::signbit(got), std::signbit(r.want));
        }
    }
    // A NaN written out keeps the all-ones exponent and a fraction.
    for (double nan : {std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN()}) {
        const Ext e = to_ext(nan);
        EXPECT_EQ((e[0] & 0x7F) << 8 | e[1], 0x7FFF);
        EXPECT_TRUE(std::isnan(from_ext(e)));
    }
}

// The double sibling (CAF's sample rate): the big-endian bytes of the value.
TEST(IeeeExtended, DoublesAreTheirBigEndianBits)
{
    std::mt19937_64 random(7);
    for (int i = 0; i < 100000; ++i) {
        const uint64_t pattern = random();
        const double v = from_bits(pattern);
        std::array<unsigned char, 8> d{};
        ConvertToIeeeDouble(v, d.data());
        uint64_t got = 0;
        for (unsigned char c : d)
            got = got << 8 | c;
        ASSERT_EQ(got, pattern);
        if (!std::isnan(v)) {
            ASSERT_EQ(bits(ConvertFromIeeeDouble(d.data())), pattern);
        }
    }
}

} // namespace
