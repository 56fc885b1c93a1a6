#include "pcm/packetcaff.h"

#include "pcm/kernels.h"
#include "pcm/pcmcodec.h"

#include <new>

namespace KEL {

namespace {

// The order of the bytes as they lie in the file.
PcmLayout stored_layout(int bits, int channels, bool littleEndian)
{
    return PcmLayout{bits, channels, littleEndian ? PcmByteOrder::little : PcmByteOrder::big};
}

// The order of the bytes get_bytes hands out.
PcmLayout delivered_layout(int bits, int channels)
{
    return PcmLayout{bits, channels, PcmByteOrder::little};
}

} // namespace

PacketCAFF::PacketCAFF(int bits, int bitRate, float sampleRate, int channels, bool littleEndian, int frames,
                       int diskFrames, BSHandle* bytes)
    : Packet(bitRate, sampleRate, channels, frames, bytes), bits(bits), diskFrames(diskFrames),
      littleEndian(littleEndian)
{
}

PacketCAFF::~PacketCAFF() = default;

Packet::Type PacketCAFF::type() const
{
    return TypeCAF;
}

int PacketCAFF::get_bytes(void* dst, float gain)
{
    const int count = Packet::get_bytes(dst, gain);
    if (gain < 0.0f)
        gain = this->gain;
    auto* bytes = static_cast<unsigned char*>(dst);
    pcm_apply_gain(bytes, count, stored_layout(bits, channels(), littleEndian), gain);
    if (!littleEndian && count > 0)
        swap_bytes16(bytes, count);
    return count;
}

int PacketCAFF::get_bytes_with_gain_and_envelope(void* dst)
{
    return pcm_bytes_with_gain_and_envelope(*this, dst, delivered_layout(bits, channels()));
}

int PacketCAFF::disk_frame_count()
{
    return diskFrames;
}

Packet* PacketCAFF::copy()
{
    auto* twin = new (std::nothrow)
        PacketCAFF(bits, bit_rate, sample_rate, channels(), littleEndian, frame_count, diskFrames, handle);
    if (twin != nullptr)
        copy_state_to(twin);
    return twin;
}

int PacketCAFF::decode(float** out, int* err, float gain)
{
    return pcm_decode_packet(*this, delivered_layout(bits, channels()), diskFrames, out, err, gain);
}

} // namespace KEL
