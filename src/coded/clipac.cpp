#include "coded/clipac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/errorcodes.h"
#include "coded/clipdecoderac.h"
#include "coded/overviewac.h"
#include "coded/packetac.h"

#include <new>

namespace KEL {

namespace {

// The index after last, wrapping from kNoPacket to the most negative value
// as two's-complement arithmetic does, without signed overflow.
int next_index(int last)
{
    return static_cast<int>(static_cast<uint32_t>(last) + 1u);
}

// The PCM side of a codec: big-endian packed float (flags 11) or signed
// integers of the clip's width (flags 14), one frame per packet.
AudioStreamBasicDescription pcm_description(double rate, int channels, int bits, bool integer)
{
    AudioStreamBasicDescription d{};
    d.sample_rate = rate;
    d.format_id = kFormatLPCM;
    const uint32_t chans = static_cast<uint32_t>(channels);
    if (integer) {
        d.format_flags = kLPCMFlagSignedInteger | kLPCMFlagBigEndian | kLPCMFlagPacked;
        d.bytes_per_packet = static_cast<uint32_t>(bits / 8) * chans;
        d.bits_per_channel = static_cast<uint32_t>(bits);
    } else {
        d.format_flags = kLPCMFlagFloat | kLPCMFlagBigEndian | kLPCMFlagPacked;
        d.bytes_per_packet = 4 * chans;
        d.bits_per_channel = 32;
    }
    d.frames_per_packet = 1;
    d.bytes_per_frame = d.bytes_per_packet;
    d.channels_per_frame = chans;
    return d;
}

} // namespace

ClipAC::ClipAC(int channels, float sample_rate, int bits_per_sample, BSFile* file)
    : Clip(channels, sample_rate, bits_per_sample, file)
{
}

ClipAC::~ClipAC()
{
    if (codec != nullptr)
        close_component(codec);
}

uint32_t ClipAC::format_flags()
{
    return 0;
}

bool ClipAC::codec_outputs_integer_samples()
{
    return false;
}

int ClipAC::specific_codec_setup(ComponentInstanceRecord*)
{
    return 0;
}

ComponentInstanceRecord* ClipAC::create_codec()
{
    const ComponentDescription wanted{kComponentDecoder, component_subtype(), kComponentManufacturer, 0, 0};
    Component component = find_next_component(nullptr, &wanted);
    if (component == nullptr)
        return nullptr;
    ComponentInstanceRecord* instance = nullptr;
    if (open_a_component(component, &instance) != 0 || instance == nullptr) {
        close_component(instance);
        return nullptr;
    }

    AudioStreamBasicDescription input{};
    input.sample_rate = sample_rate;
    input.format_id = format_id();
    input.format_flags = format_flags();
    input.frames_per_packet = static_cast<uint32_t>(frames_per_packet());
    input.channels_per_frame = static_cast<uint32_t>(channels);
    const AudioStreamBasicDescription output =
        pcm_description(sample_rate, channels, bits_per_sample, codec_outputs_integer_samples());

    if (specific_codec_setup(instance) != 0 ||
        audio_codec_initialize(instance, &input, &output, nullptr, 0) != 0) {
        close_component(instance);
        return nullptr;
    }
    return instance;
}

bool ClipAC::init_codec()
{
    // A new codec starts with no history.
    if (codec != nullptr)
        close_component(codec);
    last_index = kNoPacket;
    primed = 0;
    codec = create_codec();
    return codec != nullptr;
}

Overview* ClipAC::create_overview(_kel_overview_progress_t* progress)
{
    ComponentInstanceRecord* instance = create_codec();
    if (instance == nullptr)
        return nullptr;
    auto* overview = new (std::nothrow) OverviewAC(this, progress, instance);
    if (overview == nullptr)
        close_component(instance);
    return overview;
}

ClipDecoder* ClipAC::create_decoder()
{
    ComponentInstanceRecord* instance = create_codec();
    if (instance == nullptr)
        return nullptr;
    auto* decoder = new (std::nothrow) ClipDecoderAC(this, instance);
    if (decoder == nullptr)
        close_component(instance);
    return decoder;
}

void ClipAC::fill_info(_kel_clip_info_t* info, int format) const
{
    info->format = format;
    info->channels = channels;
    info->sample_rate = sample_rate;
    info->bits_per_sample = bits_per_sample;
    info->bit_rate = bit_rate();
    info->duration = duration();
    info->rate_mode = is_vbr() != 0 ? 2 : 1;
    info->mpeg_version = 0;
    info->stereo_mode = 0;
}

int ClipAC::packet_decode_play(int index, float** out, int* error, float gain)
{
    // Clips made empty get their packets by editing and have no codec yet.
    if (codec == nullptr && !init_codec()) {
        *error = kErrCodec;
        return 0;
    }
    return packet_decode(codec, last_index, primed, index, out, error, gain);
}

bool ClipAC::packet_needs_fresh_codec(int)
{
    return false;
}

int ClipAC::packet_decode(ComponentInstanceRecord* decoder, int& last, int& warm, int index, float** out,
                          int* error, float gain)
{
    const int bits = codec_outputs_integer_samples() ? bits_per_sample : 0;
    if (index < 0 || index >= packet_count) {
        *error = kErrPacketNumber;
        return 0;
    }
    if (decoder == nullptr) {
        *error = kErrCodec;
        return 0;
    }

    const bool jump = index != next_index(last);
    if (jump)
        warm = 0;
    bool more = false;
    if (warm < nbackpackets() || jump) {
        audio_codec_reset(decoder);
        for (int k = index - nbackpackets(); k < index; ++k) {
            if (k < 0)
                continue;
            auto* packet = dynamic_cast<PacketAC*>(get_packet(k));
            if (packet == nullptr) {
                *error = kErrInternal;
                return 0;
            }
            if (k > 0 && k > index - nbackpackets() && packet_needs_fresh_codec(k))
                audio_codec_reset(decoder);
            packet->decode(nullptr, decoder, more, error, gain, bits);
            ++warm;
        }
    }

    // A codec that holds output back (AAC priming) may need the packets
    // after the wanted one before it delivers the wanted one's frames.
    const int forward = nfwdpackets();
    for (int i = 0; index + i < packet_count && i <= forward; ++i) {
        auto* packet = dynamic_cast<PacketAC*>(get_packet(index + i));
        if (packet == nullptr) {
            *error = kErrInternal;
            return 0;
        }
        if (index + i > 0 && packet_needs_fresh_codec(index + i))
            audio_codec_reset(decoder);
        const int frames = packet->decode(out, decoder, more, error, gain, bits);
        if (more)
            continue;
        if (frames == 0) {
            last = kNoPacket;
            warm = 0;
            return 0;
        }
        last = index;
        return frames;
    }
    *error = kErrDecode;
    return 0;
}

} // namespace KEL
