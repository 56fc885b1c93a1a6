#include "pcm/ieeeextended.h"

#include "core/byteorder.h"


#include <cstdint>
#include <cstring>

namespace KEL {


namespace {

// A number taken apart independently of its storage format. A finite,
// non-zero value is mantissa * 2^(exponent - 63) with bit 63 of the
// mantissa set; a NaN keeps its fraction bits in mantissa, the most
// significant at bit 62.
struct Unpacked {
    enum Kind { zero, finite, infinite, nan };
    Kind kind = zero;
    bool negative = false;
    int exponent = 0;
    uint64_t mantissa = 0;
};

constexpr uint64_t kTopBit = 1ULL << 63;

// The binary interchange formats handled here, by field widths.
struct BinaryFormat {
    int exponent_bits;
    int fraction_bits;

    int bias() const { return (1 << (exponent_bits - 1)) - 1; }
    uint64_t exponent_mask() const { return (1ULL << exponent_bits) - 1; }
    uint64_t fraction_mask() const { return (1ULL << fraction_bits) - 1; }
};

constexpr BinaryFormat kSingle{8, 23};
constexpr BinaryFormat kDouble{11, 52};

// Extended: exponent bias, and the exponent field of infinities and NaNs.
constexpr int kExtendedBias = 16383;
constexpr int kExtendedMaxField = 0x7FFF;

// Shifts a non-zero mantissa up until bit 63 is set, lowering the exponent
// to keep the value.
void normalize(Unpacked& u)
{
    const int shift = __builtin_clzll(u.mantissa);
    u.mantissa <<= shift;
    u.exponent -= shift;
}

uint64_t double_bits(double num)
{
    uint64_t bits;
    std::memcpy(&bits, &num, sizeof bits);
    return bits;
}

double bits_double(uint64_t bits)
{
    double num;
    std::memcpy(&num, &bits, sizeof num);
    return num;
}

Unpacked unpack_binary(uint64_t bits, const BinaryFormat& format)
{
    Unpacked u;
    u.negative = ((bits >> (format.exponent_bits + format.fraction_bits)) & 1) != 0;
    const uint64_t field = (bits >> format.fraction_bits) & format.exponent_mask();
    const uint64_t fraction = bits & format.fraction_mask();
    const int align = 63 - format.fraction_bits;
    if (field == format.exponent_mask()) {
        u.kind = fraction == 0 ? Unpacked::infinite : Unpacked::nan;
        u.mantissa = fraction << align;
        return u;
    }
    if (field == 0) {
        if (fraction == 0)
            return u;
        // Subnormal: no integer bit, the smallest exponent.
        u.kind = Unpacked::finite;
        u.exponent = 1 - format.bias();
        u.mantissa = fraction << align;
        normalize(u);
        return u;
    }
    u.kind = Unpacked::finite;
    u.exponent = static_cast<int>(field) - format.bias();
    u.mantissa = kTopBit | (fraction << align);
    return u;
}

// value >> drop, rounded to nearest with ties to even; drop is 1..64.
uint64_t shift_rounded(uint64_t value, int drop)
{
    const uint64_t kept = drop == 64 ? 0 : value >> drop;
    const uint64_t rest = drop == 64 ? value : value & ((1ULL << drop) - 1);
    const uint64_t half = 1ULL << (drop - 1);
    if (rest > half || (rest == half && (kept & 1) != 0))
        return kept + 1;
    return kept;
}

uint64_t pack_binary(const Unpacked& u, const BinaryFormat& format)
{
    const uint64_t sign = u.negative ? 1ULL << (format.exponent_bits + format.fraction_bits) : 0;
    const uint64_t special = format.exponent_mask() << format.fraction_bits;
    switch (u.kind) {
    case Unpacked::zero:
        return sign;
    case Unpacked::infinite:
        return sign | special;
    case Unpacked::nan: {
        // Always quiet, so that the fraction cannot come out zero.
        const uint64_t quiet = 1ULL << (format.fraction_bits - 1);
        return sign | special | quiet | ((u.mantissa >> (63 - format.fraction_bits)) & format.fraction_mask());
    }
    case Unpacked::finite:
        break;
    }

    const int min_exponent = 1 - format.bias();
    const int max_exponent = format.bias();
    // Bits of the mantissa beyond the integer bit and the fraction.
    const int normal_drop = 63 - format.fraction_bits;
    if (u.exponent >= min_exponent) {
        uint64_t kept = shift_rounded(u.mantissa, normal_drop);
        int exponent = u.exponent;
        if (kept >> (format.fraction_bits + 1) != 0) { // rounded up to the next power of two
            kept >>= 1;
            ++exponent;
        }
        if (exponent > max_exponent)
            return sign | special;
        const uint64_t field = static_cast<uint64_t>(exponent + format.bias());
        return sign | (field << format.fraction_bits) | (kept & format.fraction_mask());
    }
    // Below the normal range: a subnormal fraction, which may round up into
    // the smallest normal number (the carry lands in the exponent field) or
    // down to zero.
    const long long drop = static_cast<long long>(normal_drop) + (min_exponent - u.exponent);
    if (drop > 64)
        return sign;
    return sign | shift_rounded(u.mantissa, static_cast<int>(drop));
}

Unpacked unpack_extended(const unsigned char* bytes)
{
    Unpacked u;
    u.negative = (bytes[0] & 0x80) != 0;
    const int field = ((bytes[0] & 0x7F) << 8) | bytes[1];
    u.mantissa = get_be64(bytes + 2);
    if (field == kExtendedMaxField) {
        // The integer bit does not matter here: writers that leave it clear
        // for infinity are common.
        u.mantissa &= ~kTopBit;
        u.kind = u.mantissa == 0 ? Unpacked::infinite : Unpacked::nan;
        return u;
    }
    if (u.mantissa == 0)
        return u;
    // A zero exponent field (denormal) means the same scale as field 1.
    u.kind = Unpacked::finite;
    u.exponent = (field == 0 ? 1 : field) - kExtendedBias;
    normalize(u);
    return u;
}

void pack_extended(const Unpacked& u, unsigned char* bytes)
{
    int field = 0;
    uint64_t mantissa = 0;
    switch (u.kind) {
    case Unpacked::zero:
        break;
    case Unpacked::infinite:
        field = kExtendedMaxField;
        mantissa = kTopBit;
        break;
    case Unpacked::nan:
        field = kExtendedMaxField;
        mantissa = kTopBit | (1ULL << 62) | u.mantissa;
        break;
    case Unpacked::finite:
        // Values come from doubles, whose exponents (-1074..1023) all lie
        // well inside the extended range: no rounding, no overflow.
        field = u.exponent + kExtendedBias;
        mantissa = u.mantissa;
        break;
    }
    put_be16(bytes, static_cast<uint32_t>(field) | (u.negative ? 0x8000u : 0u));
    put_be64(bytes + 2, mantissa);
}

} // namespace

void ConvertToIeeeExtended(double num, unsigned char* bytes)
{
    pack_extended(unpack_binary(double_bits(num), kDouble), bytes);
}

double ConvertFromIeeeExtended(const unsigned char* bytes)
{
    return bits_double(pack_binary(unpack_extended(bytes), kDouble));
}

void ConvertToIeeeSingle(double num, unsigned char* bytes)
{
    put_be32(bytes, static_cast<uint32_t>(pack_binary(unpack_binary(double_bits(num), kDouble), kSingle)));
}

double ConvertFromIeeeSingle(const unsigned char* bytes)
{
    return bits_double(pack_binary(unpack_binary(get_be32(bytes), kSingle), kDouble));
}

void ConvertToIeeeDouble(double num, unsigned char* bytes)
{
    put_be64(bytes, double_bits(num));
}

double ConvertFromIeeeDouble(const unsigned char* bytes)
{
    return bits_double(get_be64(bytes));
}

} // namespace KEL
