// A most-significant-bit-first cursor over a caller-owned byte buffer.
//
// The lossless gain editors (MP3 and AAC) use it to walk a frame's header and
// side information up to each global_gain field, which need not start on a
// byte boundary, and to overwrite that field in place. The reader is a plain
// value object meant to live on the caller's stack; it never allocates and
// never owns the buffer.
//
// Bit order: within a byte, bit 0 is the most significant bit and bit 7 the
// least significant one; a field that crosses a byte boundary continues with
// the most significant bit of the next byte (big-endian bit order, as MPEG
// headers are written).
//
// Errors: the only one is "Ebef" (the end of the data was reached); 0 means
// success. Operations that return a value report it through an int&
// argument (0 on success) and return 0 on error. Apart from byte_align,
// nothing that reports an error changes the position.
//
// Reading one byte past the end: get_bits_le8 and peek_bits_le8 always load
// the byte after `current` as well, even when the field lies wholly inside
// `current` and even when `current` is the last byte of the range that the
// bound checks allow. A buffer handed to those two must therefore stay
// readable for one byte past `length`. peek_8bits and poke_8bits at bit
// offset 0 touch `current` only, and at any other offset the bound check
// already guarantees that the next byte is inside the range.
#ifndef KEL_CODED_BITSTREAM_H
#define KEL_CODED_BITSTREAM_H

#include "kel.h"

#include <cstdint>

namespace KEL {

class KEL_API Bitstream {
public:
    // A reader at the first bit of buffer[0 .. length).
    Bitstream(unsigned char* buffer, int length);

    // Moves on by n bits. "Ebef" (position unchanged) when fewer than n bits
    // are left, and also for a negative n.
    int skip_bits(int n);

    // Reads an n-bit field (0 <= n <= 8) and moves on by n bits. A field of
    // 0 bits reads as 0 and loads nothing. An n outside 0..8 is not supported:
    // it gives 0 with err 0 and does not move. Loads current[1] (see above).
    int get_bits_le8(int n, int& err);

    // The next 8 bits, without moving.
    int peek_8bits(int& err);

    // As get_bits_le8, without moving. Loads current[1] (see above).
    int peek_bits_le8(int n, int& err);

    // Overwrites the next 8 bits with v, without moving; every bit outside
    // that field is kept.
    int poke_8bits(unsigned char v);

    // At a bit offset other than 0: "Ebef" when no byte is left, otherwise
    // the offset becomes 0 and the byte count goes down by one while
    // `current` deliberately stays where it is (the next read starts again at
    // the first bit of the same byte, with a bound one byte shorter; the AAC
    // editor depends on exactly this). Then, in every case, the result is
    // "Ebef" when no byte is left and 0 otherwise, so aligning at the very
    // end of the buffer is an error even when nothing had to be skipped.
    int byte_align();

    // Back to the state the constructor made.
    void rewind();

    // Field order and widths are part of the reader's layout.
    unsigned char* current; // byte that holds the next unread bit
    unsigned char* start;   // first byte of the buffer
    int32_t bit_offset;     // bits of *current already used, 0..7
    int32_t bytes_left;     // bytes from current (inclusive) to the end
    int32_t length;         // the buffer's whole length in bytes

private:
    // True when n more bits (n >= 0) fit before the end.
    bool has_bits(int n) const;
    // The next 8 bits, loading current[0] and current[1].
    int next8() const;
};

} // namespace KEL

#endif
