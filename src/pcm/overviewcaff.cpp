#include "pcm/overviewcaff.h"

#include "pcm/clipcaff.h"

namespace KEL {

OverviewCAFF::OverviewCAFF(ClipCAFF* clip, _kel_overview_progress_t* progress)
    : Overview(clip, progress), caff(clip)
{
}

OverviewCAFF::~OverviewCAFF() = default;

int OverviewCAFF::packet_decode(int packet, float** out, int* err, float gain)
{
    return caff->packet_decode_play(packet, out, err, gain);
}

} // namespace KEL
