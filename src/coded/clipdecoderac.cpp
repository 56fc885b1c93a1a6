#include "coded/clipdecoderac.h"

#include "codec/component.h"
#include "coded/clipac.h"

namespace KEL {

ClipDecoderAC::ClipDecoderAC(ClipAC* clip, ComponentInstanceRecord* codec)
    : clip(clip), codec(codec), last_index(ClipAC::kNoPacket), primed(0)
{
}

ClipDecoderAC::~ClipDecoderAC()
{
    if (codec != nullptr)
        close_component(codec);
}

int ClipDecoderAC::packet_decode(int index, float** out, int* error, float gain)
{
    return clip->packet_decode(codec, last_index, primed, index, out, error, gain);
}

} // namespace KEL
