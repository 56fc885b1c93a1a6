// The reader behind the AAC gain walk: a most-significant-bit-first cursor
// that continues a Bitstream (same position, same bound, same alignment
// rule) and skips Huffman code words by table look-up instead of walking a
// decoding tree one bit at a time.
//
// Reading. peek() loads the next 64 bits at once (one unaligned load and a
// byte swap); a field of up to 32 bits is then a shift away. Nothing outside
// the Bitstream's remaining range is ever read or written: within the last
// eight bytes of that range the load is put together byte by byte with
// zeros past the end, so the one spare byte the Bitstream asks of its
// callers is not needed here.
//
// Errors stick. The first read that does not fit the bound sets `error`
// to "Ebef" and moves nothing; every later operation gives 0 and moves
// nothing, so a walk may run on and look at the error once at its end.
//
// Code word tables. For each codebook (0 for the scale factors, 1 to 11 for
// the spectrum) the decoding tree of aactables is unrolled once, on first
// use, into look-up tables indexed by the next bits: a root table of up to
// kRootBits bits whose entries give a code word's length, its sign bits and
// its escapes, or link to a second-level table for the longer code words.
// Root entries also carry how many whole code words (with their sign bits,
// without escapes) the root window holds, so that runs of short code words
// (quadruples of zeros are one bit long) are skipped several at a time.
#ifndef KEL_M4A_AACBITREADER_H
#define KEL_M4A_AACBITREADER_H

#include "core/errorcodes.h"
#include "coded/bitstream.h"

#include <cstdint>
#include <cstring>

namespace KEL {

class AACBitReader {
public:
    // Bits looked up at once at the root of a code word table.
    static constexpr int kRootBits = 10;
    // Codebooks with a table: 0 (scale factors) and 1 to 11.
    static constexpr int kCodebooks = 12;

    // Continues bits from its current position to its current bound.
    explicit AACBitReader(Bitstream& bits);

    // Hands the position and bound back to bits (the one this reader was
    // made from), as Bitstream itself would have left them.
    void store(Bitstream& bits) const;

    // The next 64 bits, first bit in the most significant place. At least
    // 57 of them are the stream's; bits past the readable range are 0.
    uint64_t peek() const
    {
        const int64_t byte = pos_ >> 3;
        uint64_t word = 0;
        if (byte + 8 <= size_) {
            std::memcpy(&word, base_ + byte, sizeof word);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            word = __builtin_bswap64(word);
#endif
        } else {
            for (int64_t i = byte; i < byte + 8; ++i)
                word = (word << 8) | (i < size_ ? base_[i] : 0u);
        }
        return word << (pos_ & 7);
    }

    // Whether n more bits lie before the bound.
    bool fits(int64_t n) const { return n >= 0 && pos_ + n <= limit_; }

    // An n-bit field, 0 <= n <= 32.
    uint32_t get(int n)
    {
        if (error != 0)
            return 0;
        if (!fits(n)) {
            error = kEndOfData;
            return 0;
        }
        const uint32_t value = n == 0 ? 0u : static_cast<uint32_t>(peek() >> (64 - n));
        pos_ += n;
        return value;
    }

    // Moves on by n bits; a negative n or one past the bound is "Ebef".
    void skip(int64_t n)
    {
        if (error != 0)
            return;
        if (n > 0x7FFFFFFF || !fits(n))
            error = kEndOfData;
        else
            pos_ += n;
    }

    // Byte alignment as Bitstream::byte_align does it: within a byte the
    // position goes back to that byte's first bit and the bound loses one
    // byte; "Ebef" when no byte is left afterwards.
    void align();

    // Moves the next 8 bits (a global_gain) by steps, clamped to 0..255; a
    // field of 0 is left alone. Does not move the position.
    void move_gain(int steps);

    // Sets the error unless one is already set.
    void fail(int code)
    {
        if (error == 0)
            error = code;
    }

    // Skips count code words of codebook 0 (scale factors) or 1 to 11
    // (spectrum, with sign bits and escapes); "Ebps" for any other codebook
    // or when the tables could not be built.
    void skip_codes(int codebook, int count);

    // Bits from the start of the range the reader was made on.
    int64_t position() const { return pos_; }

    int error = 0;

private:
    static constexpr int32_t kEndOfData = kErrBitstreamEnd;

    // One escape of codebook 11: a run of 1 bits ended by a 0, then 4 more
    // bits than the run is long.
    void skip_escape();

    unsigned char* base_; // the Bitstream's current byte at construction
    int64_t size_;        // bytes that may be read from base_
    int64_t pos_;         // next bit, counted from the first bit of base_
    int64_t limit_;       // bound in bits from the first bit of base_
};

} // namespace KEL

#endif
