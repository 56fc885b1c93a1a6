// Overviews of WAVE clips: packets are decoded by the clip itself.
#ifndef KEL_PCM_OVERVIEWWAVE_H
#define KEL_PCM_OVERVIEWWAVE_H

#include "overview/overview.h"

namespace KEL {

class ClipWAVE;

class KEL_API OverviewWAVE : public Overview {
public:
    // The clip is not owned; it must outlive the overview.
    OverviewWAVE(ClipWAVE* clip, _kel_overview_progress_t* progress);
    ~OverviewWAVE() override;

    int packet_decode(int packet, float** out, int* err, float gain) override;

    ClipWAVE* wave;
};

} // namespace KEL

#endif
