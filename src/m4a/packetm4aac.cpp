#include "m4a/packetm4aac.h"

#include "m4a/aacgain.h"

#include <cmath>
#include <cstring>
#include <new>
#include <vector>

namespace KEL {

namespace {

// Blocks up to this size are edited in a stack copy; an access unit holds
// at most 6144 bits per channel, so larger ones are rare.
constexpr int kStackBytes = 8192;
// The bit reader may look one byte past the field it reads.
constexpr int kReaderSpare = 1;

} // namespace

PacketM4AAC::PacketM4AAC(int bit_rate, float sample_rate, int channels, int frames, BSHandle* data)
    : PacketAC(bit_rate, sample_rate, channels, frames, data)
{
}

PacketM4AAC::~PacketM4AAC() = default;

Packet::Type PacketM4AAC::type() const
{
    return TypeAAC;
}

float PacketM4AAC::quantized_gain()
{
    if (gain < 1e-12f)
        return 0.0f;
    const double steps = aac_gain_steps(gain);
    return static_cast<float>(std::pow(10.0, steps * 5.0 * std::log10(2.0) / 20.0));
}

int PacketM4AAC::get_bytes(void* buffer, float gain)
{
    const int n = Packet::get_bytes(buffer, -1.0f);
    if (gain < 0.0f)
        gain = this->gain;
    if (gain == 1.0f || n <= 0)
        return n;

    // The walk's status is of no use here: the bytes go out either way.
    unsigned char local[kStackBytes + kReaderSpare];
    std::vector<unsigned char> heap;
    unsigned char* copy = local;
    if (n > kStackBytes) {
        heap.assign(static_cast<size_t>(n) + kReaderSpare, 0);
        copy = heap.data();
    }
    std::memcpy(copy, buffer, static_cast<size_t>(n));
    copy[n] = 0;
    Bitstream bits(copy, n);
    adjust_gain(bits, gain, sample_rate);
    std::memcpy(buffer, copy, static_cast<size_t>(n));
    return n;
}

Packet* PacketM4AAC::copy()
{
    auto* twin = new (std::nothrow) PacketM4AAC(bit_rate, sample_rate, channels(), frame_count, handle);
    if (twin != nullptr)
        twin->copy_packet_data(this);
    return twin;
}

} // namespace KEL
