#include "pcm/clipencoderaiff.h"

#include "pcm/packetaiff.h"
#include "pcm/pcmcodec.h"

#include <cstdlib>

namespace KEL {

ClipEncoderAIFF::ClipEncoderAIFF(float encoderParam, int channels, float sampleRate, int bits, int packetFrames,
                                 int bitRate)
    : ClipEncoder(encoderParam), channels(channels), sampleRate(sampleRate), bits(bits),
      packetFrames(packetFrames), bitRate(bitRate)
{
    buffer = pcm_encoder_buffers(packetFrames, channels, frames_);
}

ClipEncoderAIFF::~ClipEncoderAIFF()
{
    std::free(buffer);
    std::free(frames_[0]);
    std::free(frames_[1]);
}

const void* ClipEncoderAIFF::packet_encode(int* byteCount, bool flush, int* err)
{
    // Big-endian whatever the host: the 16-bit kernel writes host order and
    // is swapped on a little-endian host; the 24-bit one writes the most
    // significant byte first.
    const PcmLayout layout{bits, channels, PcmByteOrder::big};
    return pcm_encode_packet(*this, frames_, buffer, packetFrames, sampleRate, layout, byteCount, flush, err);
}

Packet* ClipEncoderAIFF::packet_with_storage(BSHandle* h)
{
    return new PacketAIFF(bits, bitRate, sampleRate, channels, false, packetFrames, packetFrames, h);
}

} // namespace KEL
