// Decodes the packets of a CAF clip for transcoding.
#ifndef KEL_PCM_CLIPDECODERCAFF_H
#define KEL_PCM_CLIPDECODERCAFF_H

#include "core/clipdecoder.h"

namespace KEL {

class ClipCAFF;

class KEL_API ClipDecoderCAFF : public ClipDecoder {
public:
    // The clip is not owned; it must outlive the decoder.
    explicit ClipDecoderCAFF(ClipCAFF* clip);
    ~ClipDecoderCAFF() override;

    int packet_decode(int packet, float** channels, int* err, float gain) override;

    ClipCAFF* clip;
};

} // namespace KEL

#endif
