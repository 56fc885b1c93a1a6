#include "core/clip.h"

#include "core/bsfile.h"
#include "core/bshandle.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace KEL {

Clip::Clip() : channels(0), sample_rate(0.0f), bits_per_sample(0) {}

Clip::Clip(int channels, float sample_rate, int bits_per_sample, BSFile* file)
    : channels(channels), sample_rate(sample_rate), bits_per_sample(bits_per_sample),
      backing_file(file)
{
}

Clip::~Clip() = default;

int Clip::close(_kel_progress_ext_t* progress)
{
    // The statistics stay those of the packets the clip had.
    settle_stream_info();
    if (packets != nullptr) {
        for (int i = 0; i < packet_count; ++i) {
            if (packets[i] != nullptr)
                packets[i]->release();
        }
        delete[] packets;
    }
    int result = 0;
    if (backing_file != nullptr) {
        result = backing_file->clip_gone(progress) ? 1 : 0;
        backing_file->release_owner();
    }
    backing_file = nullptr;
    packet_count = 0;
    packet_capacity = 0;
    packets = nullptr;
    return result;
}

int Clip::packet_decode_view(int packet, float** buffers, int* err, float gain)
{
    return packet_decode_play(packet, buffers, err, gain);
}

int Clip::packet_preroll_count(int, int*)
{
    return 0;
}

Clip* Clip::create_padding_clip(int, int*)
{
    return nullptr;
}

int Clip::fade_start_fudge_factor()
{
    return 0;
}

int Clip::fade_length_fudge_factor()
{
    return 0;
}

bool Clip::add_packet(Packet* packet)
{
    // Linear growth in fixed steps keeps memory predictable for files of
    // hundreds of thousands of packets.
    if (packets == nullptr || packet_count >= packet_capacity) {
        const int capacity = packets == nullptr ? kPacketArrayStep : packet_capacity + kPacketArrayStep;
        Packet** grown = new Packet*[static_cast<size_t>(capacity)];
        if (packets != nullptr)
            std::memcpy(grown, packets, sizeof(Packet*) * static_cast<size_t>(packet_count));
        std::memset(grown + packet_count, 0, sizeof(Packet*) * static_cast<size_t>(capacity - packet_count));
        delete[] packets;
        packets = grown;
        packet_capacity = capacity;
    }
    settle_stream_info();
    packet->retain();
    packets[packet_count++] = packet;
    return true;
}

void Clip::copy_packets(Packet** dest) const
{
    for (int i = 0; i < packet_count; ++i) {
        dest[i] = packets[i];
        dest[i]->retain();
    }
}

Packet* Clip::get_packet(int index) const
{
    if (index < 0 || index >= packet_count)
        return nullptr;
    return packets[index];
}

void Clip::UsePackets(Packet** adopted, int count)
{
    packets = adopted;
    packet_capacity = count;
    packet_count = count;
    for (int i = 0; i < count; ++i)
        packets[i]->retain();
    update_stream_info();
}

void Clip::update_stream_info()
{
    stream_info_stale_ = true;
}

int Clip::is_vbr() const
{
    settle_stream_info();
    return is_vbr_;
}

float Clip::duration() const
{
    settle_stream_info();
    return duration_;
}

int Clip::bit_rate() const
{
    settle_stream_info();
    return bit_rate_;
}

void Clip::set_is_vbr(int vbr)
{
    settle_stream_info();
    is_vbr_ = vbr;
}

void Clip::settle_stream_info() const
{
    if (!stream_info_stale_)
        return;
    stream_info_stale_ = false;
    long long total_bytes = 0;
    double seconds = 0.0;
    int common_rate = 0;
    int vbr = 0;
    // Runs of equal frame counts reuse the last quotient: the same division
    // gives the same double, and the sum keeps its packet-by-packet order.
    int last_frames = -1;
    double last_seconds = 0.0;
    const double rate = static_cast<double>(sample_rate);
    for (int i = 0; i < packet_count; ++i) {
        const Packet* p = packets[i];
        if (p->handle != nullptr)
            total_bytes += p->handle->size;
        if (p->frame_count != last_frames) {
            last_frames = p->frame_count;
            last_seconds = static_cast<double>(last_frames) / rate;
        }
        seconds += last_seconds;
        if (common_rate == 0)
            common_rate = p->bit_rate;
        else if (p->bit_rate != common_rate)
            vbr = 1;
    }
    is_vbr_ = vbr;
    duration_ = static_cast<float>(seconds);
    if (!vbr && common_rate != 0)
        bit_rate_ = common_rate;
    else if (duration_ > 0.0f) {
        // nearbyint rounds half to even in the default rounding mode.
        const double bits_per_second = std::nearbyint(static_cast<double>(total_bytes) * 8.0 / seconds);
        bit_rate_ = bits_per_second < static_cast<double>(INT_MAX) ? static_cast<int>(bits_per_second) : INT_MAX;
    } else {
        bit_rate_ = 0;
    }
}

int Clip::packet_frame_count(int packet, int* err) const
{
    const Packet* p = get_packet(packet);
    if (p == nullptr) {
        if (err != nullptr)
            *err = kErrPacketNumber;
        return 0;
    }
    return p->frame_count;
}

int Clip::packet_is_wave_cache_valid(int packet) const
{
    const Packet* p = get_packet(packet);
    return p != nullptr ? p->wave_cache_valid : 0;
}

void Clip::packet_get_wave_cache(int packet, float* out16) const
{
    if (const Packet* p = get_packet(packet))
        p->get_wave_cache(out16);
}

void Clip::packet_get_rms_cache(int packet, float* out) const
{
    if (const Packet* p = get_packet(packet))
        p->get_rms_cache(out);
}

void Clip::packet_get_max_sample_cache(int packet, float* out) const
{
    if (const Packet* p = get_packet(packet))
        p->get_max_sample_cache(out);
}

void Clip::packet_make_wave_cache(int packet, float** channels_data, int frames, float* cache)
{
    if (Packet* p = get_packet(packet))
        p->make_wave_cache(channels_data, frames, cache);
}

} // namespace KEL
