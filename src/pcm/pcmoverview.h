// The overviews of the PCM formats: a PCM packet decodes without context,
// so every packet goes to the clip's own packet_decode_play.
#ifndef KEL_PCM_PCMOVERVIEW_H
#define KEL_PCM_PCMOVERVIEW_H

#include "overview/overview.h"

namespace KEL {

class ClipAIFF;
class ClipCAFF;
class ClipWAVE;

template <class ClipT>
class PcmOverview : public Overview {
public:
    // The clip is not owned; it must outlive the overview.
    PcmOverview(ClipT* clip, _kel_overview_progress_t* progress) : Overview(clip, progress), clip(clip) {}

    int packet_decode(int packet, float** out, int* err, float gain) override
    {
        return clip->packet_decode_play(packet, out, err, gain);
    }

    ClipT* clip;
};

using OverviewWAVE = PcmOverview<ClipWAVE>;
using OverviewAIFF = PcmOverview<ClipAIFF>;
using OverviewCAFF = PcmOverview<ClipCAFF>;

} // namespace KEL

#endif
