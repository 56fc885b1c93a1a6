#include "m4a/alactranscoder.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/errorcodes.h"
#include "m4a/clipm4alac.h"
#include "m4a/packetm4alac.h"
#include "pcm/kernels.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace KEL {

namespace {

constexpr bool kHostIsBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

// Largest packet size the encoder may report that is taken as plausible.
constexpr uint32_t kMaxPacketBytes = 1u << 24;

// The third header byte of a hand-made frame: "uncompressed", and for 24
// bits a one-byte shift.
constexpr unsigned char kUncompressed16 = 0x02;
constexpr unsigned char kUncompressed24 = 0x06;

} // namespace

ALACTranscoder::ALACTranscoder(int bits) : bits_per_sample(bits)
{
}

ALACTranscoder::~ALACTranscoder()
{
    if (decoder != nullptr)
        close_component(decoder);
    if (encoder != nullptr)
        close_component(encoder);
}

bool ALACTranscoder::init(ClipM4ALAC* clip)
{
    decoder = clip->create_codec();
    if (decoder == nullptr)
        return false;

    const ComponentDescription wanted{kComponentEncoder, clip->component_subtype(), kComponentManufacturer, 0, 0};
    Component component = find_next_component(nullptr, &wanted);
    ComponentInstanceRecord* instance = nullptr;
    bool ok = component != nullptr && open_a_component(component, &instance) == 0 && instance != nullptr;

    if (ok) {
        const uint32_t channels = static_cast<uint32_t>(clip->channels);
        AudioStreamBasicDescription input{};
        input.sample_rate = clip->sample_rate;
        input.format_id = kFormatLPCM;
        input.format_flags = kLPCMFlagSignedInteger | kLPCMFlagBigEndian | kLPCMFlagPacked;
        input.bytes_per_packet = channels * static_cast<uint32_t>(bits_per_sample / 8);
        input.frames_per_packet = 1;
        input.bytes_per_frame = input.bytes_per_packet;
        input.channels_per_frame = channels;
        input.bits_per_channel = static_cast<uint32_t>(bits_per_sample);

        AudioStreamBasicDescription output{};
        output.sample_rate = clip->sample_rate;
        output.format_id = clip->format_id();
        output.format_flags = clip->format_flags();
        output.frames_per_packet = static_cast<uint32_t>(clip->frames_per_packet());
        output.channels_per_frame = channels;

        uint32_t size = 0;
        uint32_t value_size = sizeof size;
        ok = audio_codec_initialize(instance, &input, &output, nullptr, 0) == 0 &&
             audio_codec_get_property(instance, kPropertyMaximumPacketSize, &value_size, &size) == 0 &&
             size > 0 && size <= kMaxPacketBytes;
        if (ok)
            max_packet_size = static_cast<int>(size);
    }
    if (!ok) {
        close_component(instance);
        close_component(decoder);
        decoder = nullptr;
        return false;
    }
    encoder = instance;
    return true;
}

int ALACTranscoder::write_uncompressed(const unsigned char* samples, int length, int channels, int bits,
                                       unsigned char* out, int capacity)
{
    if (length < 0 || capacity < 3 || length > capacity - 3)
        return 0;
    out[0] = static_cast<unsigned char>((channels << 4) & 0xE0);
    out[1] = 0;
    out[2] = bits == 16 ? kUncompressed16 : kUncompressed24;
    // The samples start at the last bit of the header.
    for (int i = 0; i < length; ++i) {
        out[2 + i] = static_cast<unsigned char>(out[2 + i] | (samples[i] >> 7));
        out[3 + i] = static_cast<unsigned char>(samples[i] << 1);
    }
    return length + 3;
}

int ALACTranscoder::transcode(PacketM4ALAC* packet, unsigned char* out, int capacity, bool* damaged)
{
    if (decoder == nullptr || encoder == nullptr || packet == nullptr || out == nullptr)
        return 0;
    const int frames = packet->frame_count;
    const int channels = packet->channels();
    if (frames <= 0 || frames > PacketAC::kMaxFrames || channels < 1 || channels > PacketAC::kMaxChannels)
        return 0;

    std::vector<float> left(static_cast<size_t>(frames), 0.0f);
    std::vector<float> right(static_cast<size_t>(frames), 0.0f);
    float* floats[2] = {left.data(), right.data()};

    audio_codec_reset(decoder);
    int err = 0;
    int got = 0;
    if (frames == PacketM4ALAC::kFullFrames) {
        bool more = false;
        got = packet->decode(floats, decoder, more, &err, -1.0f, bits_per_sample);
    } else {
        got = packet->decode_partial(floats, decoder, &err, -1.0f, bits_per_sample);
    }
    if (got < frames) {
        if (err != kErrPacketBytes)
            return 0;
        // Bytes that cannot be read are saved as silence.
        std::fill(left.begin(), left.end(), 0.0f);
        std::fill(right.begin(), right.end(), 0.0f);
        *damaged = true;
    }

    const int sample_bytes = bits_per_sample / 8;
    const size_t length = static_cast<size_t>(frames) * static_cast<size_t>(channels) * static_cast<size_t>(sample_bytes);
    // The kernels write one or two channels per frame.
    if (channels > 2)
        return 0;
    std::vector<unsigned char> pcm(length);
    if (bits_per_sample == 16) {
        convert_ne_nifloat_to_ne_ii16(floats, pcm.data(), frames, channels);
        if (!kHostIsBig)
            swap_bytes16(pcm.data(), static_cast<int>(length));
    } else if (bits_per_sample == 24) {
        convert_ne_nifloat_to_ne_ii24(floats, pcm.data(), frames, channels);
    } else {
        return 0;
    }
    audio_codec_reset(encoder);

    if (frames != PacketM4ALAC::kFullFrames)
        return write_uncompressed(pcm.data(), static_cast<int>(length), channels, bits_per_sample, out, capacity);

    uint32_t in_bytes = static_cast<uint32_t>(length);
    uint32_t in_packets = 1;
    if (audio_codec_append_input_data(encoder, pcm.data(), &in_bytes, &in_packets, nullptr) != 0)
        return 0;
    uint32_t out_bytes = capacity > 0 ? static_cast<uint32_t>(capacity) : 0;
    uint32_t out_packets = 1;
    uint32_t status = 0;
    if (audio_codec_produce_output_packets(encoder, out, &out_bytes, &out_packets, nullptr, &status) != 0 ||
        status != kProduceOutput)
        return 0;
    return static_cast<int>(out_bytes);
}

} // namespace KEL
