#include "pcm/clipdecodercaff.h"

#include "pcm/clipcaff.h"

namespace KEL {

ClipDecoderCAFF::ClipDecoderCAFF(ClipCAFF* clip) : clip(clip) {}

ClipDecoderCAFF::~ClipDecoderCAFF() = default;

int ClipDecoderCAFF::packet_decode(int packet, float** channels, int* err, float gain)
{
    return clip->packet_decode_play(packet, channels, err, gain);
}

} // namespace KEL
