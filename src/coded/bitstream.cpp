// Bit reader: field reads of up to 8 bits, in-place 8-bit writes, and the
// alignment step with its one-byte-short bound.
#include "coded/bitstream.h"

#include "core/errorcodes.h"

#include <array>

namespace KEL {

namespace {

constexpr int32_t kErrEndOfData = kErrBitstreamEnd;

} // namespace

Bitstream::Bitstream(unsigned char* buffer, int length)
    : current(buffer), start(buffer), bit_offset(0), bytes_left(length), length(length)
{
}

bool Bitstream::has_bits(int n) const
{
    // 64-bit so that a buffer near 2^31 bytes cannot overflow the bound.
    return static_cast<int64_t>(bit_offset) + n <= static_cast<int64_t>(bytes_left) * 8;
}

int Bitstream::next8() const
{
    const unsigned w = (static_cast<unsigned>(current[0]) << 8) | current[1];
    return static_cast<int>((w >> (8 - bit_offset)) & 0xFFu);
}

int Bitstream::skip_bits(int n)
{
    if (n < 0 || !has_bits(n))
        return kErrEndOfData;
    const int t = bit_offset + n;
    bit_offset = t % 8;
    current += t / 8;
    bytes_left -= t / 8;
    return 0;
}

int Bitstream::peek_bits_le8(int n, int& err)
{
    if (n < 0 || n > 8) {
        err = 0;
        return 0;
    }
    if (!has_bits(n)) {
        err = kErrEndOfData;
        return 0;
    }
    err = 0;
    if (n == 0)
        return 0;
    return next8() >> (8 - n);
}

int Bitstream::get_bits_le8(int n, int& err)
{
    const int v = peek_bits_le8(n, err);
    if (err == 0 && n > 0 && n <= 8)
        skip_bits(n);
    return v;
}

int Bitstream::peek_8bits(int& err)
{
    if (!has_bits(8)) {
        err = kErrEndOfData;
        return 0;
    }
    err = 0;
    if (bit_offset == 0)
        return current[0];
    return next8();
}

int Bitstream::poke_8bits(unsigned char v)
{
    // Bits of current[0] above the field (kept), by bit offset.
    static constexpr std::array<unsigned char, 8> mask_left = {
        0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE};
    // Bits of current[1] below the field (kept), by bit offset.
    static constexpr std::array<unsigned char, 8> mask_right = {
        0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03, 0x01};

    if (!has_bits(8))
        return kErrEndOfData;
    if (bit_offset == 0) {
        current[0] = v;
        return 0;
    }
    const unsigned s = static_cast<unsigned>(v) << (8 - bit_offset); // 16-bit quantity
    current[0] = static_cast<unsigned char>((current[0] & mask_left[bit_offset]) | (s >> 8));
    current[1] = static_cast<unsigned char>((current[1] & mask_right[bit_offset]) | (s & 0xFFu));
    return 0;
}

int Bitstream::byte_align()
{
    if (bit_offset != 0) {
        if (bytes_left == 0)
            return kErrEndOfData;
        bit_offset = 0;
        --bytes_left; // current stays: see the header
    }
    return bytes_left == 0 ? kErrEndOfData : 0;
}

void Bitstream::rewind()
{
    current = start;
    bytes_left = length;
    bit_offset = 0;
}

} // namespace KEL
