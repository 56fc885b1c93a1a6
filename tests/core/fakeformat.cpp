#include "fakeformat.h"

#include <cmath>
#include <cstring>

namespace KEL {
namespace test {

Packet* FakePacket::copy()
{
    if (refuse_copy)
        return nullptr;
    auto* p = new FakePacket(sample_rate, frame_count, handle);
    copy_state_to(p);
    p->stepped_gain = stepped_gain;
    return p;
}

float FakePacket::quantized_gain()
{
    if (!stepped_gain || gain <= 0.0f)
        return gain;
    const double steps = std::nearbyint(4.0 * std::log2(static_cast<double>(gain)));
    return static_cast<float>(std::exp2(steps / 4.0));
}

bool FakeClip::will_accept(Clip* other, int* err)
{
    if (refuse_code != 0) {
        *err = refuse_code;
        return false;
    }
    return dynamic_cast<FakeClip*>(other) != nullptr;
}

Clip* FakeClip::NewClip(BSFile* store)
{
    auto* clip = new FakeClip(sample_rate, encoder_frames, store);
    clip->start_fudge = start_fudge;
    clip->length_fudge = length_fudge;
    return clip;
}

void FakeClip::append(const std::vector<float>& left, const std::vector<float>& right)
{
    const int frames = static_cast<int>(left.size());
    std::vector<float> interleaved(2 * left.size());
    for (size_t i = 0; i < left.size(); ++i) {
        interleaved[2 * i] = left[i];
        interleaved[2 * i + 1] = right[i];
    }
    auto* handle = new BSHandleMem(frames * 8);
    handle->init_with_copy(interleaved.data());
    auto* packet = new FakePacket(sample_rate, frames, handle);
    handle->release();
    add_packet(packet);
    packet->release();
}

FakeClip::Lanes FakeClip::decode_all()
{
    Lanes lanes;
    for (int i = 0; i < packet_count; ++i) {
        const int n = packets[i]->frame_count;
        std::vector<float> l(n), r(n);
        float* buffers[2] = {l.data(), r.data()};
        int err = 0;
        packet_decode_play(i, buffers, &err, -1.0f);
        lanes.left.insert(lanes.left.end(), l.begin(), l.end());
        lanes.right.insert(lanes.right.end(), r.begin(), r.end());
    }
    return lanes;
}

void FakeClip::get_info(_kel_clip_info_t* info)
{
    *info = _kel_clip_info_t{};
    info->channels = channels;
    info->sample_rate = sample_rate;
    info->bits_per_sample = bits_per_sample;
    info->bit_rate = bit_rate();
    info->duration = duration();
}

Overview* FakeClip::create_overview(_kel_overview_progress_t* progress)
{
    return new FakeOverview(this, progress);
}

ClipDecoder* FakeClip::create_decoder()
{
    return new FakeDecoder(this);
}

ClipEncoder* FakeClip::create_encoder(float source_rate)
{
    if (refuse_encoder)
        return nullptr;
    return new FakeEncoder(source_rate, sample_rate, encoder_frames);
}

int FakeClip::packet_decode_play(int index, float** buffers, int* err, float gain)
{
    ++decode_calls;
    Packet* p = get_packet(index);
    if (p == nullptr) {
        *err = 0x45506E6D; // "EPnm"
        return 0;
    }
    if (decode_error) {
        *err = decode_error(index);
        if (*err != 0)
            return 0;
    }
    std::vector<float> interleaved(static_cast<size_t>(p->frame_count) * 2);
    p->get_bytes(interleaved.data(), gain);
    const float factor = gain == -1.0f ? p->gain : gain;
    for (int i = 0; i < p->frame_count; ++i) {
        buffers[0][i] = interleaved[2 * i] * factor;
        buffers[1][i] = interleaved[2 * i + 1] * factor;
    }
    if (gain == -1.0f)
        p->apply_gain_envelope(buffers, p->frame_count);
    return p->frame_count;
}

const void* FakeEncoder::packet_encode(int* size, bool flush, int* err)
{
    *err = 0;
    std::vector<float> left(frames_), right(frames_);
    float* out[2] = {left.data(), right.data()};
    const int got = get_data(out, frames_, rate_, flush);
    if (got <= 0) {
        *size = 0;
        return nullptr;
    }
    bytes_.resize(static_cast<size_t>(got) * 2);
    for (int i = 0; i < got; ++i) {
        bytes_[2 * i] = left[i];
        bytes_[2 * i + 1] = right[i];
    }
    *size = got * 8;
    return bytes_.data();
}

} // namespace test
} // namespace KEL
