// Decodes packets of one source clip for transcoding.
#ifndef KEL_CORE_CLIPDECODER_H
#define KEL_CORE_CLIPDECODER_H

#include "kel.h"

namespace KEL {

class KEL_API ClipDecoder {
public:
    ClipDecoder() = default;
    virtual ~ClipDecoder();
    ClipDecoder(const ClipDecoder&) = delete;
    ClipDecoder& operator=(const ClipDecoder&) = delete;

    // Decodes packet into the two channel buffers and returns the frames
    // decoded; gain -1.0 applies the packet's own gain and envelope.
    virtual int packet_decode(int packet, float** channels, int* err, float gain) = 0;
};

} // namespace KEL

#endif
