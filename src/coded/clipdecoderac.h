// Decodes the packets of a codec-component clip for transcoding, with a
// decoder instance and decoding state of its own.
#ifndef KEL_CODED_CLIPDECODERAC_H
#define KEL_CODED_CLIPDECODERAC_H

#include "core/clipdecoder.h"

namespace KEL {

class ClipAC;
class ComponentInstanceRecord;

class KEL_API ClipDecoderAC : public ClipDecoder {
public:
    // Takes over codec (closed by the destructor). The clip is not owned;
    // it must outlive the decoder.
    ClipDecoderAC(ClipAC* clip, ComponentInstanceRecord* codec);
    ~ClipDecoderAC() override;

    // The clip's packet_decode with this decoder's codec and state.
    int packet_decode(int index, float** out, int* error, float gain) override;

    ClipAC* clip;
    ComponentInstanceRecord* codec; // owned
    int last_index;                 // packet the codec last delivered
    int primed;                     // warm-up packets fed since its last reset
};

} // namespace KEL

#endif
