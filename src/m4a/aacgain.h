// Lossless gain for AAC: the global_gain fields of a raw data block are
// moved by whole steps of 2^(1/4) (1.5 dB) in place, without decoding.
//
// Every scale factor of a channel is coded as a difference from the one
// before it, starting from the channel's 8-bit global_gain, so moving
// global_gain by S moves every band of the channel by S steps. The block is
// walked only as far as needed: the first channel's global_gain follows the
// element header directly; the second channel's (channel pair) lies behind
// the whole first channel stream, whose scale factors and spectrum code
// words are skipped by AACBitReader's look-up tables.
#ifndef KEL_M4A_AACGAIN_H
#define KEL_M4A_AACGAIN_H

#include "coded/bitstream.h"

namespace KEL {

// Whole global_gain steps of a linear gain: truncate(20 log10(g) / (5
// log10 2) + 0.001), -255 below 1e-12, held to -255..255, 0 for NaN. The
// 0.001 is all the rounding there is, so an attenuation that falls on a
// whole step comes out one step short (0.5 gives -3).
KEL_API int aac_gain_steps(float gain);

// Rewrites the global_gain fields of the first single channel or channel
// pair element of one raw data block (program config and fill elements
// before it are passed over); a global_gain of 0 is left as it is, others are moved
// and clamped to 0..255. 0, "Ebps" for a block that starts with another
// element or uses a codebook outside the tables, or the reader's error.
// Reads and writes nothing outside the Bitstream's range (no spare byte is
// needed after it); on success the Bitstream is left at the last
// global_gain field.
KEL_API int adjust_gain(Bitstream& bits, float gain, float sample_rate);

} // namespace KEL

#endif
