#include "pcm/overviewwave.h"

#include "pcm/clipwave.h"

namespace KEL {

OverviewWAVE::OverviewWAVE(ClipWAVE* clip, _kel_overview_progress_t* progress)
    : Overview(clip, progress), wave(clip)
{
}

OverviewWAVE::~OverviewWAVE() = default;

int OverviewWAVE::packet_decode(int packet, float** out, int* err, float gain)
{
    return wave->packet_decode_play(packet, out, err, gain);
}

} // namespace KEL
