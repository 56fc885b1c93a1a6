#include "mp3/packetmp3.h"

#include "core/bshandle.h"
#include "coded/bitstream.h"
#include "core/bshandlefile.h"
#include "mp3/mp3framegain.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace KEL {

namespace {

// The gain fields and the CRC all lie in the first 38 bytes of a frame
// (4 header, 2 CRC, at most 32 side information); the gain is applied on a
// copy of this head, which leaves the reader room past its end.
constexpr int kGainHeadBytes = 48;
constexpr int kReaderSpare = 8;

// Bytes read through the handle by the side-information readers.
constexpr int kStaticHeadBytes = 6;
constexpr int kMainDataHeadBytes = 8;

} // namespace

PacketMP3::PacketMP3(int bit_rate, float sample_rate, int channels, int frames_per_packet, int type,
                     BSHandle* handle)
    : PacketAC(bit_rate, sample_rate, channels, frames_per_packet, handle), mp3_type(type)
{
}

PacketMP3::~PacketMP3() = default;

Packet::Type PacketMP3::type() const
{
    return static_cast<Type>(mp3_type);
}

int PacketMP3::get_bytes(void* buffer, float gain)
{
    const int n = Packet::get_bytes(buffer, -1.0f);
    if (gain < 0.0f)
        gain = this->gain;
    if (gain == 1.0f || n <= 0)
        return n;

    // The frame's status from adjust_gain ("Ebef" for a frame shorter than
    // its side information) is of no use here: the bytes go out either way.
    unsigned char head[kGainHeadBytes + kReaderSpare] = {};
    const int covered = std::min(n, kGainHeadBytes);
    unsigned char* bytes = static_cast<unsigned char*>(buffer);
    std::memcpy(head, bytes, static_cast<size_t>(covered));
    Bitstream bs(head, covered);
    adjust_gain(bs, gain);
    std::memcpy(bytes, head, static_cast<size_t>(covered));
    return n;
}

float PacketMP3::storable_gain(float wanted)
{
    return nearest_step_gain(wanted);
}

float PacketMP3::quantized_gain()
{
    return mp3_quantized_gain(gain);
}

Packet* PacketMP3::copy()
{
    auto* twin = new (std::nothrow) PacketMP3(bit_rate, sample_rate, channels(), frame_count, mp3_type, handle);
    if (twin != nullptr) {
        twin->copy_packet_data(this);
        twin->stream_serial = stream_serial;
    }
    return twin;
}

bool PacketMP3::follows_in_stream(const PacketMP3& before) const
{
    if (stream_serial < 0 || before.stream_serial < 0)
        return true;
    const auto* mine = dynamic_cast<const BSHandleFile*>(handle);
    const auto* theirs = dynamic_cast<const BSHandleFile*>(before.handle);
    return mine != nullptr && theirs != nullptr && mine->file == theirs->file &&
           before.stream_serial + 1 == stream_serial;
}

int PacketMP3::static_part_size(int& err)
{
    unsigned char head[kStaticHeadBytes] = {};
    const int got = handle != nullptr ? handle->get_bytes(head, kStaticHeadBytes) : 0;
    return mp3_static_part_size(head, got, err);
}

int PacketMP3::get_main_data_begin(int& err)
{
    unsigned char head[kMainDataHeadBytes] = {};
    const int got = handle != nullptr ? handle->get_bytes(head, kMainDataHeadBytes) : 0;
    return mp3_get_main_data_begin(head, got, err);
}

} // namespace KEL
