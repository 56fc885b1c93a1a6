#include "m4a/packetm4alac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/bshandle.h"
#include "core/errorcodes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace KEL {

namespace {

// Largest stored packet accepted for decoding: an uncompressed frame of
// 4096 frames of eight 32-bit channels with its headers fits easily.
constexpr int kMaxPacketBytes = 1 << 20;

// Input and output bytes of decode_partial, kept per thread and only ever
// grown. A decode never runs inside another here (get_bytes does not
// decode), so one pair per thread is enough.
struct PartialScratch {
    std::vector<unsigned char> input;
    std::vector<unsigned char> output;
};

PartialScratch& scratch()
{
    thread_local PartialScratch buffers;
    return buffers;
}

} // namespace

PacketM4ALAC::PacketM4ALAC(int bit_rate, float sample_rate, int channels, int frames, BSHandle* handle)
    : PacketAC(bit_rate, sample_rate, channels, frames, handle)
{
}

PacketM4ALAC::~PacketM4ALAC() = default;

Packet::Type PacketM4ALAC::type() const
{
    return TypeALAC;
}

int PacketM4ALAC::get_bytes(void* dest, float)
{
    return Packet::get_bytes(dest, 1.0f);
}

Packet* PacketM4ALAC::copy()
{
    auto* twin = new (std::nothrow) PacketM4ALAC(bit_rate, sample_rate, channels(), frame_count, handle);
    if (twin != nullptr)
        twin->copy_packet_data(this);
    return twin;
}

bool PacketM4ALAC::can_change_gain_inline()
{
    return false;
}

int PacketM4ALAC::decode_partial(float** out, ComponentInstanceRecord* codec, int* error, float gain, int bits)
{
    const int C = channels();
    const int F = frame_count;
    const int stored = handle != nullptr ? handle->size : -1;
    if (stored < 0 || stored > kMaxPacketBytes) {
        *error = kErrPacketBytes;
        return 0;
    }
    const int sample_bytes = bits == 0 ? 4 : bits / 8;
    if (C < 1 || C > kMaxChannels || F < 0 || F > kMaxFrames || sample_bytes < 1 || sample_bytes > 4) {
        *error = kErrDecode;
        return 0;
    }

    // The zero tail covers the frames up to one past a whole packet.
    const int tail_frames = std::max(0, kFullFrames + 1 - F);
    const size_t tail = static_cast<size_t>(C) * static_cast<size_t>(tail_frames) * static_cast<size_t>(bits / 8);
    const size_t frame_bytes = static_cast<size_t>(C) * static_cast<size_t>(sample_bytes);
    const size_t out_bytes = frame_bytes * static_cast<size_t>(kFullFrames);

    PartialScratch& buffers = scratch();
    if (!reserve(buffers.input, std::max(static_cast<size_t>(stored), tail) + 1) ||
        !reserve(buffers.output, out_bytes)) {
        *error = kErrUnknown;
        return 0;
    }
    unsigned char* input = buffers.input.data();
    unsigned char* output = buffers.output.data();

    const int count = get_bytes(input, gain);
    if (count != stored) {
        *error = kErrPacketBytes;
        return 0;
    }
    uint32_t in_bytes = static_cast<uint32_t>(count);
    uint32_t in_packets = 1;
    const AudioStreamPacketDescription description{0, 0, static_cast<uint32_t>(count)};
    if (audio_codec_append_input_data(codec, input, &in_bytes, &in_packets, &description) != 0) {
        *error = kErrDecode;
        return 0;
    }
    std::memset(input, 0, tail);
    uint32_t tail_bytes = static_cast<uint32_t>(tail);
    uint32_t tail_packets = 0;
    if (audio_codec_append_input_data(codec, input, &tail_bytes, &tail_packets, nullptr) != 0) {
        *error = kErrDecode;
        return 0;
    }

    uint32_t capacity = static_cast<uint32_t>(out_bytes);
    std::memset(output, 0, out_bytes);
    uint32_t out_packets = 1;
    uint32_t status = 0;
    if (audio_codec_produce_output_packets(codec, output, &capacity, &out_packets, nullptr, &status) != 0 ||
        (status != kProduceOutput && status != kProduceOutputMore)) {
        *error = kErrDecode;
        return 0;
    }
    const int produced = std::min(static_cast<int>(capacity / frame_bytes), F);
    *error = 0;

    if (out == nullptr || out[0] == nullptr || out[1] == nullptr)
        return produced;

    float* left = out[0];
    float* right = out[1];
    std::memset(left, 0, sizeof(float) * static_cast<size_t>(F));
    std::memset(right, 0, sizeof(float) * static_cast<size_t>(F));
    // A short output is delivered as a whole packet of silence, as decode
    // does, so that the clip's timing stays as its frame counts say.
    if (produced != F)
        return F;

    decode_samples(out, output, F, bits);
    apply_gain_envelope(out, F);
    return produced;
}

} // namespace KEL
