// Decodes the packets of a WAVE clip for transcoding.
#ifndef KEL_PCM_CLIPDECODERWAVE_H
#define KEL_PCM_CLIPDECODERWAVE_H

#include "core/clipdecoder.h"

namespace KEL {

class ClipWAVE;

class KEL_API ClipDecoderWAVE : public ClipDecoder {
public:
    // The clip is not owned; it must outlive the decoder.
    explicit ClipDecoderWAVE(ClipWAVE* clip);
    ~ClipDecoderWAVE() override;

    int packet_decode(int packet, float** channels, int* err, float gain) override;

    ClipWAVE* clip;
};

} // namespace KEL

#endif
