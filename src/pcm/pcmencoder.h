// The encoders transcoding uses for the PCM formats: packets of packetFrames
// frames of integer PCM in the order PacketT stores new packets in.
//
//   ClipEncoderWAVE  16 or 24 bits, little-endian
//   ClipEncoderAIFF  16 or 24 bits, big-endian (the 16-bit kernel writes
//                    host order and is swapped; the 24-bit one writes the
//                    most significant byte first)
//   ClipEncoderCAFF  16 bits, big-endian: the only form CAF clips are
//                    written in (ClipCAFF asks for 16 bits)
#ifndef KEL_PCM_PCMENCODER_H
#define KEL_PCM_PCMENCODER_H

#include "core/clipencoder.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmpacket.h"

#include <cstdlib>
#include <new>

namespace KEL {

template <class PacketT, PcmByteOrder kOrder>
class PcmEncoder : public ClipEncoder {
public:
    // encoderParam is the rate of the frames put in (the base's
    // source_rate); sampleRate the rate the packets are made at.
    PcmEncoder(float encoderParam, int channels, float sampleRate, int bits, int packetFrames, int bitRate)
        : ClipEncoder(encoderParam), channels(channels), sampleRate(sampleRate), bits(bits),
          packetFrames(packetFrames), bitRate(bitRate)
    {
        buffer = pcm_encoder_buffers(packetFrames, channels, frames_);
    }

    ~PcmEncoder() override
    {
        std::free(buffer);
        std::free(frames_[0]);
        std::free(frames_[1]);
    }

    // The next packet's bytes (owned by the encoder, valid until the next
    // call); null when no whole packet is buffered yet or, when flushing,
    // none is left.
    const void* packet_encode(int* byteCount, bool flush, int* err) override
    {
        const PcmLayout layout{bits, channels, kOrder};
        return pcm_encode_packet(*this, frames_, buffer, packetFrames, sampleRate, layout, byteCount, flush, err);
    }

    Packet* packet_with_storage(BSHandle* h) override
    {
        return new PacketT(bits, bitRate, sampleRate, channels, kOrder == PcmByteOrder::little, packetFrames,
                           packetFrames, h);
    }

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

using ClipEncoderWAVE = PcmEncoder<PacketWAVE, PcmByteOrder::little>;
using ClipEncoderAIFF = PcmEncoder<PacketAIFF, PcmByteOrder::big>;
using ClipEncoderCAFF = PcmEncoder<PacketCAFF, PcmByteOrder::big>;

} // namespace KEL

#endif
