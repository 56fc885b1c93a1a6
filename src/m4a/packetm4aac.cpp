#include "m4a/packetm4aac.h"

#include "m4a/aacgain.h"

#include <cmath>
#include <new>

namespace KEL {

PacketM4AAC::PacketM4AAC(int bit_rate, float sample_rate, int channels, int frames, BSHandle* data)
    : PacketAC(bit_rate, sample_rate, channels, frames, data)
{
}

PacketM4AAC::~PacketM4AAC() = default;

Packet::Type PacketM4AAC::type() const
{
    return TypeAAC;
}

float PacketM4AAC::storable_gain(float wanted)
{
    return nearest_step_gain(wanted);
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
    apply_gain(static_cast<unsigned char*>(buffer), n, gain);
    return n;
}

void PacketM4AAC::apply_gain(unsigned char* bytes, int n, float gain) const
{
    if (gain < 0.0f)
        gain = this->gain;
    if (gain == 1.0f || n <= 0 || bytes == nullptr)
        return;
    // The walk is done in place: it reads and writes nothing outside the
    // n bytes. Its status is of no use here: the bytes go out either way.
    Bitstream bits(bytes, n);
    adjust_gain(bits, gain, sample_rate);
}

Packet* PacketM4AAC::copy()
{
    auto* twin = new (std::nothrow) PacketM4AAC(bit_rate, sample_rate, channels(), frame_count, handle);
    if (twin != nullptr)
        twin->copy_packet_data(this);
    return twin;
}

} // namespace KEL
