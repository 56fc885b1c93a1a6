// Loudness of a clip as ITU-R BS.1770-4 and EBU R128 measure it:
// integrated loudness, loudness range, sample peak and true peak (four
// times oversampled), computed by libebur128 (peaks by TruePeak) from the packets' decoded
// audio with their gains and envelopes, each packet decoded once (on the
// caller's thread, while a second one measures what came before). A meter
// keeps its measurement state, so that several clips make one album.
#ifndef KEL_LOUDNESS_LOUDNESSMETER_H
#define KEL_LOUDNESS_LOUDNESSMETER_H

#include "kel.h"
#include "loudness/truepeak.h"

#include <vector>

#include <ebur128.h>

namespace KEL {

class Clip;

class KEL_API LoudnessMeter {
public:
    // Measures packets first..last of clip; null with "EPnm", "Eprm" (no
    // channels or rate the meter takes), "EUnk", "Ebrk" (cancelled) or the
    // first decoding error. Progress in percent of the packets.
    static LoudnessMeter* measure(Clip& clip, int first, int last, int* err, _kel_progress_ext_t* progress);
    ~LoudnessMeter();
    LoudnessMeter(const LoudnessMeter&) = delete;
    LoudnessMeter& operator=(const LoudnessMeter&) = delete;

    // The clip's values; integrated loudness -inf for digital silence.
    void result(kel_loudness_t* out) const;
    // The values of several meters as one programme (an album): loudness
    // and range over all their blocks, the largest peaks. 0 or "Eprm".
    static int album(const LoudnessMeter* const* meters, int count, kel_loudness_t* out);

private:
    class MeasurePipe;

    LoudnessMeter(ebur128_state* state, int channels, double rate)
        : state_(state), peaks_(static_cast<size_t>(channels), TruePeak(rate))
    {
    }

    ebur128_state* state_;
    std::vector<TruePeak> peaks_; // one per channel measured
};

} // namespace KEL

#endif
