// Standard data of AAC (MPEG-4 audio, ISO/IEC 14496-3) that the lossless
// gain editor needs to walk a raw data block: the Huffman codebooks of the
// scale factors and of the eleven spectrum codebooks, held as binary
// decoding trees, and the scale-factor band offsets of long and short
// windows per sampling frequency index.
//
// Tree form. A tree is an array of nodes, each a pair of signed integers
// for the bits 0 and 1; node 0 is the root. A positive entry is the index of
// the next node; 0 is a leaf with nothing after it; a negative entry is a
// leaf followed by that many sign bits (one per non-zero value of an
// unsigned codebook's tuple). The trees of the signed codebooks (1, 2, 5,
// 6) and of the scale factors have only 0 leaves. The escape codebook 11
// has a tree of quadruples: next node for bit 0 and bit 1 as above, then the
// number of escaped values (magnitude 16) reached through bit 0 and bit 1.
#ifndef KEL_M4A_AACTABLES_H
#define KEL_M4A_AACTABLES_H

#include "kel.h"

#include <cstdint>

namespace KEL {

// Sampling frequency indexes 0 (96000 Hz) to 11 (8000 Hz).
constexpr int kAACFrequencyIndexes = 12;

// The sampling frequency index of a rate, by the standard's nearest-rate
// thresholds.
KEL_API int aac_frequency_index(float sample_rate);

// Band offsets in spectral lines of the long window (1024 lines) and of one
// short window (128 lines) for a frequency index 0..11; *bands receives the
// band count (the arrays hold bands + 1 offsets).
KEL_API const uint16_t* aac_long_band_offsets(int frequency_index, int* bands);
KEL_API const uint16_t* aac_short_band_offsets(int frequency_index, int* bands);

// Bands that may carry prediction data in a long window.
KEL_API int aac_predictor_band_limit(int frequency_index);

// The decoding trees (see above). spectrum 1 to 10; null for any other.
KEL_API const int (*aac_scale_factor_tree())[2];
KEL_API const int (*aac_spectrum_tree(int codebook))[2];
KEL_API const int (*aac_escape_tree())[4];

// Number of codes in a codebook's table (0 scale factors, 1..11
// spectrum), and the code and length of one entry; for tests that check
// the trees against the code tables.
KEL_API int aac_codebook_size(int codebook);
KEL_API void aac_codebook_entry(int codebook, int index, uint32_t* code, int* length);

} // namespace KEL

#endif
