// Sample conversion kernels shared by the PCM formats (WAVE, AIFF, CAF) and
// the Apple Lossless encoder.
//
// Two representations meet here:
//  - "ii16" / "ii24": interleaved signed two's complement integers of 2 or 3
//    bytes per sample, frame after frame, as they lie in a file;
//  - "nifloat": the working float form, two separate arrays of 32-bit floats
//    (element 0 the first channel, element 1 the second), full scale
//    -1.0 ... +1.0. Both arrays are always present, also for mono material.
// "be" and "le" name the byte order of the integer buffer, "ne" the order the
// kernel writes itself (see each function).
//
// None of the kernels allocates. A count of zero (or below) does nothing; a
// channel count below 1 does nothing as well. The float arrays and the integer
// buffer must not overlap each other. Where floats become integers, a NaN
// sample or product gives the negative limit (-32768 or -8388608).
#ifndef KEL_PCM_KERNELS_H
#define KEL_PCM_KERNELS_H

#include "kel.h"

namespace KEL {

// Float to integer. Per sample x: x above 0.9999694 (compared in double
// precision) gives 32767, x below -1.0 gives -32768, anything else
// x * 32768 truncated toward zero. One channel: reads src[0] only and writes
// one sample per frame; any other channel count: writes src[0] and src[1]
// alternately, two samples per frame. Samples are 16-bit words in host byte
// order (callers that need the other order run swap_bytes16 afterwards).
KEL_API void convert_ne_nifloat_to_ne_ii16(float** src, unsigned char* dst, int frames,
                                           int channels);

// Float to 24-bit integer: x above 1 - 2^-23 gives 8388607, x below -1.0
// gives -8388608, otherwise x * 8388608 truncated toward zero. Channel handling
// as for 16 bit; 3 bytes per sample, most significant byte first.
KEL_API void convert_ne_nifloat_to_ne_ii24(float** src, unsigned char* dst, int frames,
                                           int channels);
// As convert_ne_nifloat_to_ne_ii24, least significant byte first.
KEL_API void convert_ne_nifloat_to_le_ii24(float** src, unsigned char* dst, int frames,
                                           int channels);

// Integer to float, exact: a 16-bit sample s becomes s / 32768. One channel:
// the first array is filled and then copied into the second. Any other channel
// count: the first two samples of each frame go to the two arrays, further
// channels are skipped.
KEL_API void convert_be_ii16_to_ne_nifloat(unsigned char* src, float** dst, int frames,
                                           int channels);
KEL_API void convert_le_ii16_to_ne_nifloat(unsigned char* src, float** dst, int frames,
                                           int channels);
// As above for 24-bit samples: s / 8388608, computed as the sample placed in
// the top 24 bits of a 32-bit word times 2^-31.
KEL_API void convert_be_ii24_to_ne_nifloat(unsigned char* src, float** dst, int frames,
                                           int channels);
KEL_API void convert_le_ii24_to_ne_nifloat(unsigned char* src, float** dst, int frames,
                                           int channels);

// Gain in place on byteCount bytes of samples (a trailing partial sample is
// left alone). 16 bit: sample * gain in single precision, clamped to
// -32768 ... 32767 and truncated toward zero. 24 bit: computed on the
// top-aligned 32-bit scale, truncated with saturation, and the low byte
// dropped, so the result rounds toward minus infinity.
KEL_API void apply_gain16_be(unsigned char* bytes, int byteCount, float gain);
KEL_API void apply_gain16_le(unsigned char* bytes, int byteCount, float gain);
KEL_API void apply_gain24_be(unsigned char* bytes, int byteCount, float gain);
KEL_API void apply_gain24_le(unsigned char* bytes, int byteCount, float gain);

// Gain and a per-frame envelope in place on frames * channels samples: every
// sample of frame i becomes envelope[i] * (sample * gain), then is clamped,
// truncated and written as by the gain kernels. envelope holds frames values.
KEL_API void apply_gain_and_envelope16_be(unsigned char* bytes, int frames, int channels,
                                          float gain, float* envelope);
KEL_API void apply_gain_and_envelope16_le(unsigned char* bytes, int frames, int channels,
                                          float gain, float* envelope);
KEL_API void apply_gain_and_envelope24_be(unsigned char* bytes, int frames, int channels,
                                          float gain, float* envelope);
KEL_API void apply_gain_and_envelope24_le(unsigned char* bytes, int frames, int channels,
                                          float gain, float* envelope);

// Byte order reversal in place: swap_bytes16 exchanges the bytes of each of
// byteCount / 2 words, swap_bytes24 the first and third byte of each of
// byteCount / 3 triples. Trailing bytes are left alone.
KEL_API void swap_bytes16(unsigned char* bytes, int byteCount);
KEL_API void swap_bytes24(unsigned char* bytes, int byteCount);

} // namespace KEL

#endif
