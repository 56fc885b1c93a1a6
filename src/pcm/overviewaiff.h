// Overviews of AIFF clips: packets are decoded by the clip itself.
#ifndef KEL_PCM_OVERVIEWAIFF_H
#define KEL_PCM_OVERVIEWAIFF_H

#include "overview/overview.h"

namespace KEL {

class ClipAIFF;

class KEL_API OverviewAIFF : public Overview {
public:
    // The clip is not owned; it must outlive the overview.
    OverviewAIFF(ClipAIFF* clip, _kel_overview_progress_t* progress);
    ~OverviewAIFF() override;

    int packet_decode(int packet, float** out, int* err, float gain) override;

    ClipAIFF* aiff;
};

} // namespace KEL

#endif
