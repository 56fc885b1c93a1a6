// The decoders transcoding uses for the PCM formats: a PCM packet decodes
// without context, so every packet goes to the clip's own
// packet_decode_play.
#ifndef KEL_PCM_PCMDECODER_H
#define KEL_PCM_PCMDECODER_H

#include "core/clipdecoder.h"

namespace KEL {

class ClipAIFF;
class ClipCAFF;
class ClipWAVE;

template <class ClipT>
class PcmDecoder : public ClipDecoder {
public:
    // The clip is not owned; it must outlive the decoder.
    explicit PcmDecoder(ClipT* clip) : clip(clip) {}

    int packet_decode(int packet, float** channels, int* err, float gain) override
    {
        return clip->packet_decode_play(packet, channels, err, gain);
    }

    ClipT* clip;
};

using ClipDecoderWAVE = PcmDecoder<ClipWAVE>;
using ClipDecoderAIFF = PcmDecoder<ClipAIFF>;
using ClipDecoderCAFF = PcmDecoder<ClipCAFF>;

} // namespace KEL

#endif
