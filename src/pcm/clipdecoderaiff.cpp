#include "pcm/clipdecoderaiff.h"

#include "pcm/clipaiff.h"

namespace KEL {

ClipDecoderAIFF::ClipDecoderAIFF(ClipAIFF* clip) : clip(clip) {}

ClipDecoderAIFF::~ClipDecoderAIFF() = default;

int ClipDecoderAIFF::packet_decode(int packet, float** channels, int* err, float gain)
{
    return clip->packet_decode_play(packet, channels, err, gain);
}

} // namespace KEL
