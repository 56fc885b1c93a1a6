#include "m4a/clipencoderalac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/bshandle.h"
#include "core/errorcodes.h"
#include "m4a/packetm4alac.h"
#include "pcm/kernels.h"

#include <cmath>
#include <cstdlib>
#include <new>

namespace KEL {

namespace {

constexpr bool kHostIsBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

// Largest packet size the encoder may report that is taken as plausible.
constexpr uint32_t kMaxPacketBytes = 1u << 24;

} // namespace

ClipEncoderALAC::ClipEncoderALAC(float source_rate, int channels, float sample_rate, int bits,
                                 int frames_per_packet)
    : ClipEncoder(source_rate), channels(channels), sample_rate(sample_rate), bits_per_sample(bits),
      frames_per_packet(frames_per_packet)
{
    if (channels < 1 || channels > 2 || (bits != 16 && bits != 24) || frames_per_packet < 1 ||
        frames_per_packet > PacketM4ALAC::kFullFrames)
        return;
    const ComponentDescription wanted{kComponentEncoder, kFormatALAC, kComponentManufacturer, 0, 0};
    Component component = find_next_component(nullptr, &wanted);
    ComponentInstanceRecord* instance = nullptr;
    if (component == nullptr || open_a_component(component, &instance) != 0 || instance == nullptr) {
        close_component(instance);
        return;
    }

    const uint32_t frame_bytes = static_cast<uint32_t>(channels) * static_cast<uint32_t>(bits / 8);
    AudioStreamBasicDescription input{};
    input.sample_rate = sample_rate;
    input.format_id = kFormatLPCM;
    input.format_flags = kLPCMFlagSignedInteger | kLPCMFlagBigEndian | kLPCMFlagPacked;
    input.bytes_per_packet = frame_bytes;
    input.frames_per_packet = 1;
    input.bytes_per_frame = frame_bytes;
    input.channels_per_frame = static_cast<uint32_t>(channels);
    input.bits_per_channel = static_cast<uint32_t>(bits);

    AudioStreamBasicDescription output{};
    output.sample_rate = sample_rate;
    output.format_id = kFormatALAC;
    output.format_flags = bits == 16 ? kALACFlag16Bit : kALACFlag24Bit;
    output.frames_per_packet = static_cast<uint32_t>(frames_per_packet);
    output.channels_per_frame = static_cast<uint32_t>(channels);

    uint32_t size = 0;
    uint32_t value_size = sizeof size;
    if (audio_codec_initialize(instance, &input, &output, nullptr, 0) != 0 ||
        audio_codec_get_property(instance, kPropertyMaximumPacketSize, &value_size, &size) != 0 || size == 0 ||
        size > kMaxPacketBytes) {
        close_component(instance);
        return;
    }
    max_packet_size = static_cast<int>(size);
    buffer = static_cast<unsigned char*>(std::malloc(size));
    if (buffer == nullptr) {
        close_component(instance);
        return;
    }
    encoder = instance;
    try {
        frames_[0].resize(static_cast<size_t>(frames_per_packet));
        frames_[1].resize(static_cast<size_t>(frames_per_packet));
        pcm_.resize(static_cast<size_t>(frames_per_packet) * frame_bytes);
    } catch (...) {
        close_component(encoder);
        encoder = nullptr;
    }
}

ClipEncoderALAC::~ClipEncoderALAC()
{
    std::free(buffer);
    if (encoder != nullptr)
        close_component(encoder);
}

const void* ClipEncoderALAC::packet_encode(int* size, bool flush, int* err)
{
    *err = 0;
    *size = 0;
    if (encoder == nullptr || buffer == nullptr) {
        *err = kErrCodec;
        return nullptr;
    }
    float* floats[2] = {frames_[0].data(), frames_[1].data()};
    const int frames = get_data(floats, frames_per_packet, sample_rate, flush);
    if (frames == 0)
        return nullptr;
    if (frames != frames_per_packet) {
        *err = kErrEncode;
        return nullptr;
    }

    const int length = static_cast<int>(pcm_.size());
    if (bits_per_sample == 16) {
        convert_ne_nifloat_to_ne_ii16(floats, pcm_.data(), frames, channels);
        if (!kHostIsBig)
            swap_bytes16(pcm_.data(), length);
    } else {
        convert_ne_nifloat_to_ne_ii24(floats, pcm_.data(), frames, channels);
    }

    audio_codec_reset(encoder);
    uint32_t in_bytes = static_cast<uint32_t>(length);
    uint32_t in_packets = 1;
    uint32_t out_bytes = static_cast<uint32_t>(max_packet_size);
    uint32_t out_packets = 1;
    uint32_t status = 0;
    if (audio_codec_append_input_data(encoder, pcm_.data(), &in_bytes, &in_packets, nullptr) != 0 ||
        audio_codec_produce_output_packets(encoder, buffer, &out_bytes, &out_packets, nullptr, &status) != 0 ||
        (status != kProduceOutput && status != kProduceOutputMore)) {
        *err = kErrEncode;
        return nullptr;
    }
    *size = static_cast<int>(out_bytes);
    return buffer;
}

Packet* ClipEncoderALAC::packet_with_storage(BSHandle* handle)
{
    const int size = handle != nullptr ? handle->size : 0;
    const double rate = std::rint(static_cast<double>(size) * sample_rate * 8.0 / frames_per_packet);
    const int bit_rate = rate < 2147483647.0 && rate >= 0.0 ? static_cast<int>(rate) : 0;
    return new (std::nothrow) PacketM4ALAC(bit_rate, sample_rate, channels, frames_per_packet, handle);
}

} // namespace KEL
