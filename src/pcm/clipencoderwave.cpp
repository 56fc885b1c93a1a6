#include "pcm/clipencoderwave.h"

#include "pcm/packetwave.h"
#include "pcm/pcmcodec.h"

#include <climits>
#include <cstdlib>

namespace KEL {

ClipEncoderWAVE::ClipEncoderWAVE(float encoderParam, int channels, float sampleRate, int bits, int packetFrames,
                                 int bitRate)
    : ClipEncoder(encoderParam), channels(channels), sampleRate(sampleRate), bits(bits),
      packetFrames(packetFrames), bitRate(bitRate)
{
    if (packetFrames <= 0 || channels <= 0)
        return;
    const long long bytes = static_cast<long long>(packetFrames) * channels * 4;
    if (bytes > INT_MAX)
        return;
    frames_[0] = static_cast<float*>(std::calloc(static_cast<size_t>(packetFrames), sizeof(float)));
    frames_[1] = static_cast<float*>(std::calloc(static_cast<size_t>(packetFrames), sizeof(float)));
    // Zeroed: for more than two channels the kernels write only two
    // channels' worth of samples, and the rest must not be stale memory.
    if (frames_[0] != nullptr && frames_[1] != nullptr)
        buffer = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(bytes), 1));
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
