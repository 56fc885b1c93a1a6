// The CAF encoder used by transcoding and by silent clips: packets of
// packetFrames frames of 16-bit big-endian integer PCM, the only form CAF
// clips are written in.
#ifndef KEL_PCM_CLIPENCODERCAFF_H
#define KEL_PCM_CLIPENCODERCAFF_H

#include "core/clipencoder.h"

namespace KEL {

class KEL_API ClipEncoderCAFF : public ClipEncoder {
public:
    // encoderParam is the rate of the frames put in (the base's
    // source_rate); sampleRate the rate the packets are made at.
    ClipEncoderCAFF(float encoderParam, int channels, float sampleRate, int bits, int packetFrames, int bitRate);
    ~ClipEncoderCAFF() override;

    // The next packet's bytes (owned by the encoder, valid until the next
    // call); null when no whole packet is buffered yet or, when flushing,
    // none is left.
    const void* packet_encode(int* byteCount, bool flush, int* err) override;
    Packet* packet_with_storage(BSHandle* h) override;

    int channels;
    float sampleRate;
    int bits;
    int packetFrames;
    int bitRate;
    // packetFrames * channels * 4 bytes; null when it could not be
    // allocated.
    unsigned char* buffer = nullptr;

private:
    // One packet of float frames per channel, as the base delivers them.
    float* frames_[2] = {nullptr, nullptr};
};

} // namespace KEL

#endif
