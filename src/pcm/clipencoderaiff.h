// The AIFF encoder used by transcoding: packets of packetFrames frames of
// big-endian 16- or 24-bit integer PCM.
#ifndef KEL_PCM_CLIPENCODERAIFF_H
#define KEL_PCM_CLIPENCODERAIFF_H

#include "core/clipencoder.h"

namespace KEL {

class KEL_API ClipEncoderAIFF : public ClipEncoder {
public:
    // encoderParam is the rate of the frames put in (the base's
    // source_rate); sampleRate the rate the packets are made at.
    ClipEncoderAIFF(float encoderParam, int channels, float sampleRate, int bits, int packetFrames, int bitRate);
    ~ClipEncoderAIFF() override;

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
    // packetFrames * channels * 4 bytes, enough for either sample width;
    // null when it could not be allocated.
    unsigned char* buffer = nullptr;

private:
    // One packet of float frames per channel, as the base delivers them.
    float* frames_[2] = {nullptr, nullptr};
};

} // namespace KEL

#endif
