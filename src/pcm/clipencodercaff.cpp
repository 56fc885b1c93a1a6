#include "pcm/clipencodercaff.h"

#include "pcm/packetcaff.h"
#include "pcm/pcmcodec.h"

#include <climits>
#include <cstdlib>

namespace KEL {

namespace {

// Every CAF packet this engine makes holds 16-bit big-endian samples.
constexpr int kWrittenBits = 16;

} // namespace

ClipEncoderCAFF::ClipEncoderCAFF(float encoderParam, int channels, float sampleRate, int bits, int packetFrames,
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
    if (frames_[0] != nullptr && frames_[1] != nullptr)
        buffer = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(bytes), 1));
}

ClipEncoderCAFF::~ClipEncoderCAFF()
{
    std::free(buffer);
    std::free(frames_[0]);
    std::free(frames_[1]);
}

const void* ClipEncoderCAFF::packet_encode(int* byteCount, bool flush, int* err)
{
    const PcmLayout layout{kWrittenBits, channels, PcmByteOrder::big};
    return pcm_encode_packet(*this, frames_, buffer, packetFrames, sampleRate, layout, byteCount, flush, err);
}

Packet* ClipEncoderCAFF::packet_with_storage(BSHandle* h)
{
    return new PacketCAFF(kWrittenBits, bitRate, sampleRate, channels, false, packetFrames, packetFrames, h);
}

} // namespace KEL
