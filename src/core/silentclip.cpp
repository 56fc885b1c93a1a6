#include "core/silentclip.h"

#include "core/clipdecoder.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <algorithm>
#include <climits>

namespace KEL {

namespace {

// A packet without stored bytes. Nothing asks a transcoding source for its
// packet type; it reports that of the engine's scratch PCM packets.
class SilentPacket : public Packet {
public:
    SilentPacket(float sample_rate, int frames) : Packet(0, sample_rate, 1, frames, nullptr) {}
    Type type() const override { return TypeCAF; }
    Packet* copy() override
    {
        auto* twin = new SilentPacket(sample_rate, frame_count);
        copy_state_to(twin);
        return twin;
    }
};

class SilentDecoder : public ClipDecoder {
public:
    explicit SilentDecoder(SilentClip* clip) : clip_(clip) {}
    int packet_decode(int packet, float** buffers, int* err, float gain) override
    {
        return clip_->packet_decode_play(packet, buffers, err, gain);
    }

private:
    SilentClip* clip_;
};

} // namespace

SilentClip::SilentClip(float sample_rate) : Clip(1, sample_rate, 16, nullptr) {}

SilentClip* SilentClip::create(float sample_rate, int count, int frames, int* err)
{
    *err = 0;
    if (count < 1) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    if (frames < 1 || frames > INT_MAX / 2) {
        *err = kErrParameter;
        return nullptr;
    }
    auto* clip = new SilentClip(sample_rate);
    auto* silence = new SilentPacket(sample_rate, frames);
    for (int i = 0; i < count; ++i)
        clip->add_packet(silence);
    silence->release();
    clip->update_stream_info();
    return clip;
}

int SilentClip::save_to(const char*, const void*, int, const void*, int, int* err, _kel_progress_ext_t*)
{
    if (err != nullptr)
        *err = kErrParameter;
    return kErrParameter;
}

void SilentClip::get_info(_kel_clip_info_t* info)
{
    *info = _kel_clip_info_t{};
    info->channels = channels;
    info->sample_rate = sample_rate;
    info->bits_per_sample = bits_per_sample;
    info->bit_rate = bit_rate();
    info->duration = duration();
}

Overview* SilentClip::create_overview(_kel_overview_progress_t*)
{
    return nullptr;
}

ClipDecoder* SilentClip::create_decoder()
{
    return new SilentDecoder(this);
}

ClipEncoder* SilentClip::create_encoder(float)
{
    return nullptr;
}

int SilentClip::packet_decode_play(int packet, float** buffers, int* err, float)
{
    const int frames = packet_frame_count(packet, err);
    std::fill(buffers[0], buffers[0] + frames, 0.0f);
    std::fill(buffers[1], buffers[1] + frames, 0.0f);
    return frames;
}

bool SilentClip::will_accept(Clip*, int* err)
{
    if (err != nullptr)
        *err = kErrClipType;
    return false;
}

Clip* SilentClip::NewClip(BSFile*)
{
    return new SilentClip(sample_rate);
}

} // namespace KEL
