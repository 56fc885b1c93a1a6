// The gain that brings a measured clip to a loudness without its true peak
// passing a ceiling, as the clip's packets can carry it: formats that
// change loudness in whole steps (MP3 and AAC global gain, 1.5 dB) get the
// step nearest the target that stays under the ceiling, the others the
// exact value. The proposal is per packet, so that packets whose gains were
// already edited (a fade) keep their shape.
#ifndef KEL_LOUDNESS_GAINPROPOSAL_H
#define KEL_LOUDNESS_GAINPROPOSAL_H

#include "kel.h"

namespace KEL {

class Clip;
class Packet;

class KEL_API GainProposal {
public:
    // Fills gains[0..last-first] with the gain to store in each packet
    // first..last (kel_clip_packet_set_gain) and returns the change in
    // decibels that the first of them gets. NaN with "Eprm" when the
    // measurement has no integrated loudness (digital silence) or a value
    // is not a number, "EPnm" for a bad range.
    static double propose(Clip& clip, int first, int last, const kel_loudness_t& measured, double target_lufs,
                          double max_true_peak_dbtp, float* gains, int* err);

private:
    // The change in decibels that packet really gets when db is asked of it.
    static double achievable_db(Packet& packet, double db);
};

} // namespace KEL

#endif
