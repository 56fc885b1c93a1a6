#include "pcm/packetaiff.h"

#include "pcm/kernels.h"
#include "pcm/pcmcodec.h"

#include <new>

namespace KEL {

namespace {

// The layout of the bytes get_bytes hands out: always big-endian.
PcmLayout handed_out(int bits, int channels)
{
    return PcmLayout{bits, channels, PcmByteOrder::big};
}

} // namespace

PacketAIFF::PacketAIFF(int bits, int bitRate, float sampleRate, int channels, bool littleEndian, int frames,
                       int diskFrames, BSHandle* bytes)
    : Packet(bitRate, sampleRate, channels, frames, bytes), bits(bits), diskFrames(diskFrames),
      littleEndian(littleEndian)
{
}

PacketAIFF::~PacketAIFF() = default;

Packet::Type PacketAIFF::type() const
{
    return TypeAIFF;
}

int PacketAIFF::get_bytes(void* dst, float gain)
{
    const int count = Packet::get_bytes(dst, gain);
    if (gain < 0.0f)
        gain = this->gain;
    // The gain works on the bytes as stored; only then are little-endian
    // samples turned round.
    const bool swapped = littleEndian && bits == 16;
    const PcmLayout stored{bits, channels(), swapped ? PcmByteOrder::little : PcmByteOrder::big};
    auto* bytes = static_cast<unsigned char*>(dst);
    pcm_apply_gain(bytes, count, stored, gain);
    if (swapped && count > 0)
        swap_bytes16(bytes, count);
    return count;
}

int PacketAIFF::get_bytes_with_gain_and_envelope(void* dst)
{
    return pcm_bytes_with_gain_and_envelope(*this, dst, handed_out(bits, channels()));
}

int PacketAIFF::disk_frame_count()
{
    return diskFrames;
}

Packet* PacketAIFF::copy()
{
    auto* twin = new (std::nothrow)
        PacketAIFF(bits, bit_rate, sample_rate, channels(), littleEndian, frame_count, diskFrames, handle);
    if (twin != nullptr)
        copy_state_to(twin);
    return twin;
}

int PacketAIFF::decode(float** out, int* err, float gain)
{
    return pcm_decode_packet(*this, handed_out(bits, channels()), diskFrames, out, err, gain);
}

} // namespace KEL
