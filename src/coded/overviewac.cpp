#include "coded/overviewac.h"

#include "codec/component.h"
#include "coded/clipac.h"

namespace KEL {

OverviewAC::OverviewAC(ClipAC* clip, _kel_overview_progress_t* progress, ComponentInstanceRecord* codec)
    : Overview(clip, progress), codec(codec), last_index(ClipAC::kNoPacket), primed(0)
{
}

OverviewAC::~OverviewAC()
{
    if (codec != nullptr)
        close_component(codec);
}

int OverviewAC::packet_decode(int index, float** out, int* error, float gain)
{
    // The base keeps the clip as a plain Clip*; it was made from a ClipAC.
    auto* owner = static_cast<ClipAC*>(clip);
    return owner->packet_decode(codec, last_index, primed, index, out, error, gain);
}

} // namespace KEL
