#include "pcm/clipencoderwave.h"

#include "pcm/packetwave.h"
#include "pcm/pcmcodec.h"

#include <cstdlib>

namespace KEL {

ClipEncoderWAVE::ClipEncoderWAVE(float encoderParam, int channels, float sampleRate, int bits, int packetFrames,
                                 int bitRate)
    : ClipEncoder(encoderParam), channels(channels), sampleRate(sampleRate), bits(bits),
      packetFrames(packetFrames), bitRate(bitRate)
{
    buffer = pcm_encoder_buffers(packetFrames, channels, frames_);
}

ClipEncoderWAVE::~ClipEncoderWAVE()
{
    std::free(buffer);
    std::free(frames_[0]);
    std::free(frames_[1]);
}

const void* ClipEncoderWAVE::packet_encode(int* byteCount, bool flush, int* err)
{
    const PcmLayout layout{bits, channels, PcmByteOrder::little};
    return pcm_encode_packet(*this, frames_, buffer, packetFrames, sampleRate, layout, byteCount, flush, err);
}

Packet* ClipEncoderWAVE::packet_with_storage(BSHandle* h)
{
    return new PacketWAVE(bits, bitRate, sampleRate, channels, packetFrames, packetFrames, h);
}

} // namespace KEL
