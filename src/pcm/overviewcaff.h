// Overviews of CAF clips: packets are decoded by the clip itself.
#ifndef KEL_PCM_OVERVIEWCAFF_H
#define KEL_PCM_OVERVIEWCAFF_H

#include "overview/overview.h"

namespace KEL {

class ClipCAFF;

class KEL_API OverviewCAFF : public Overview {
public:
    // The clip is not owned; it must outlive the overview.
    OverviewCAFF(ClipCAFF* clip, _kel_overview_progress_t* progress);
    ~OverviewCAFF() override;

    int packet_decode(int packet, float** out, int* err, float gain) override;

    ClipCAFF* caff;
};

} // namespace KEL

#endif
