#include "pcm/overviewaiff.h"

#include "pcm/clipaiff.h"

namespace KEL {

OverviewAIFF::OverviewAIFF(ClipAIFF* clip, _kel_overview_progress_t* progress)
    : Overview(clip, progress), aiff(clip)
{
}

OverviewAIFF::~OverviewAIFF() = default;

int OverviewAIFF::packet_decode(int packet, float** out, int* err, float gain)
{
    return aiff->packet_decode_play(packet, out, err, gain);
}

} // namespace KEL
