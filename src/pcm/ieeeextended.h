// Big-endian IEEE 754 floating-point numbers in byte buffers, as the audio
// container headers store them: the 80-bit extended format of the AIFF
// "COMM" chunk's sample rate, and the 32- and 64-bit formats.
//
// The extended format is 10 bytes, most significant first:
//   bit 79       sign
//   bits 78..64  exponent, biased by 16383 (0x7FFF: infinity or NaN)
//   bits 63..0   mantissa with an explicit integer bit (bit 63)
// so a finite number is (-1)^sign * mantissa * 2^(exponent - 16383 - 63).
// Every double is exact in it; the way back rounds to the nearest double
// (ties to even), giving infinity past the double range and zero (or a
// subnormal) below it.
#ifndef KEL_PCM_IEEEEXTENDED_H
#define KEL_PCM_IEEEEXTENDED_H

#include "kel.h"

namespace KEL {

// num into 10 bytes. Infinities are written with the integer bit set and a
// zero fraction, NaNs as quiet NaNs with the payload's top bits kept.
KEL_API void ConvertToIeeeExtended(double num, unsigned char* bytes);
// 10 bytes into a double. An exponent of 0x7FFF with a zero fraction (with or
// without the integer bit) is an infinity, with any other fraction a NaN;
// denormal and unnormal mantissas are taken at their face value.
KEL_API double ConvertFromIeeeExtended(const unsigned char* bytes);

// num rounded to single precision (ties to even, infinity on overflow) into
// 4 bytes.
KEL_API void ConvertToIeeeSingle(double num, unsigned char* bytes);
KEL_API double ConvertFromIeeeSingle(const unsigned char* bytes);

// num into 8 bytes, bit for bit.
KEL_API void ConvertToIeeeDouble(double num, unsigned char* bytes);
KEL_API double ConvertFromIeeeDouble(const unsigned char* bytes);

} // namespace KEL

#endif
