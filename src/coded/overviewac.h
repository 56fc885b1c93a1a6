// Overviews of codec-component clips. Each overview owns a decoder instance
// and decoding state of its own, so that drawing never disturbs playback
// or a transcoding decoder of the same clip.
#ifndef KEL_CODED_OVERVIEWAC_H
#define KEL_CODED_OVERVIEWAC_H

#include "overview/overview.h"

namespace KEL {

class ClipAC;
class ComponentInstanceRecord;

class KEL_API OverviewAC : public Overview {
public:
    // Takes over codec (closed by the destructor). The clip is not owned;
    // it must outlive the overview.
    OverviewAC(ClipAC* clip, _kel_overview_progress_t* progress, ComponentInstanceRecord* codec);
    ~OverviewAC() override;

    // The clip's packet_decode with this overview's codec and state.
    int packet_decode(int index, float** out, int* error, float gain) override;

    ComponentInstanceRecord* codec; // owned
    int last_index;                 // packet the codec last delivered
    int primed;                     // warm-up packets fed since its last reset
};

} // namespace KEL

#endif
