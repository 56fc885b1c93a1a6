#include "pcm/packetwave.h"

#include "pcm/pcmcodec.h"

#include <new>

namespace KEL {

namespace {

PcmLayout wave_layout(int bits, int channels)
{
    return PcmLayout{bits, channels, PcmByteOrder::little};
}

} // namespace

PacketWAVE::PacketWAVE(int bits, int bitRate, float sampleRate, int channels, int frames, int diskFrames,
                       BSHandle* bytes)
    : Packet(bitRate, sampleRate, channels, frames, bytes), bits(bits), diskFrames(diskFrames)
{
}

PacketWAVE::~PacketWAVE() = default;

Packet::Type PacketWAVE::type() const
{
    return TypeWAVE;
}

int PacketWAVE::get_bytes(void* dst, float gain)
{
    const int count = Packet::get_bytes(dst, gain);
    if (gain < 0.0f)
        gain = this->gain;
    pcm_apply_gain(static_cast<unsigned char*>(dst), count, wave_layout(bits, channels()), gain);
    return count;
}

int PacketWAVE::get_bytes_with_gain_and_envelope(void* dst)
{
    return pcm_bytes_with_gain_and_envelope(*this, dst, wave_layout(bits, channels()));
}

int PacketWAVE::disk_frame_count()
{
    return diskFrames;
}

Packet* PacketWAVE::copy()
{
    auto* twin = new (std::nothrow)
        PacketWAVE(bits, bit_rate, sample_rate, channels(), frame_count, diskFrames, handle);
    if (twin != nullptr)
        copy_state_to(twin);
    return twin;
}

int PacketWAVE::decode(float** out, int* err, float gain)
{
    return pcm_decode_packet(*this, wave_layout(bits, channels()), diskFrames, out, err, gain);
}

} // namespace KEL
