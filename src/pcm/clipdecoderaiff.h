// Decodes the packets of an AIFF clip for transcoding.
#ifndef KEL_PCM_CLIPDECODERAIFF_H
#define KEL_PCM_CLIPDECODERAIFF_H

#include "core/clipdecoder.h"

namespace KEL {

class ClipAIFF;

class KEL_API ClipDecoderAIFF : public ClipDecoder {
public:
    // The clip is not owned; it must outlive the decoder.
    explicit ClipDecoderAIFF(ClipAIFF* clip);
    ~ClipDecoderAIFF() override;

    int packet_decode(int packet, float** channels, int* err, float gain) override;

    ClipAIFF* clip;
};

} // namespace KEL

#endif
