// The reference for the table-driven code word skipping of the AAC gain
// walk: the decoding trees of aactables walked one bit at a time.
#ifndef KEL_TESTS_M4A_AACREFERENCE_H
#define KEL_TESTS_M4A_AACREFERENCE_H

#include "coded/bitstream.h"

namespace KEL {
namespace test {

// Advance past one code word of a tree (aactables.h form) with its sign
// bits; 0 or the reader's error.
int skip_huffman_code(const int (*tree)[2], Bitstream& bits);
int skip_scale_factor(Bitstream& bits);
// One code word of spectrum codebook 1..11, escapes included; "Ebps" for
// any other codebook.
int skip_spectral_data(unsigned char codebook, Bitstream& bits);

} // namespace test
} // namespace KEL

#endif
