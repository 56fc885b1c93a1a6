#include "pcm/clipdecoderwave.h"

#include "pcm/clipwave.h"

namespace KEL {

ClipDecoderWAVE::ClipDecoderWAVE(ClipWAVE* clip) : clip(clip) {}

ClipDecoderWAVE::~ClipDecoderWAVE() = default;

int ClipDecoderWAVE::packet_decode(int packet, float** channels, int* err, float gain)
{
    return clip->packet_decode_play(packet, channels, err, gain);
}

} // namespace KEL
