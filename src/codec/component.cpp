#include "codec/component.h"

#include "codec/codecdecoder.h"
#include "codec/codecdecoderalac.h"
#include "codec/codecdecodermp3.h"
#include "codec/codecencoderaac.h"
#include "codec/codecencoderalac.h"
#include "codec/componentinstancerecord.h"

#include <array>
#include <new>

namespace KEL {

struct ComponentEntry {
    int32_t type;
    int32_t subtype;
    AVCodecID codec_id;                // the FFmpeg codec that must be present
    ComponentInstanceRecord* (*make)(); // a new instance, or null
};

namespace {

ComponentInstanceRecord* make_mp3_decoder()
{
    return new (std::nothrow) CodecDecoderMP3();
}

ComponentInstanceRecord* make_aac_decoder()
{
    // A flushed AAC decoder still differs from a new one; reset reopens it.
    return new (std::nothrow) CodecDecoder(kFormatAAC, AV_CODEC_ID_AAC, true);
}

ComponentInstanceRecord* make_alac_decoder()
{
    return new (std::nothrow) CodecDecoderALAC();
}

ComponentInstanceRecord* make_aac_encoder()
{
    return new (std::nothrow) CodecEncoderAAC();
}

ComponentInstanceRecord* make_alac_encoder()
{
    return new (std::nothrow) CodecEncoderALAC();
}

static constexpr std::array<ComponentEntry, 5> kComponents = {{
    {kComponentDecoder, kFormatMP3, AV_CODEC_ID_MP3, make_mp3_decoder},    // MPEG audio to PCM
    {kComponentDecoder, kFormatAAC, AV_CODEC_ID_AAC, make_aac_decoder},    // AAC to PCM
    {kComponentDecoder, kFormatALAC, AV_CODEC_ID_ALAC, make_alac_decoder}, // Apple Lossless to PCM
    {kComponentEncoder, kFormatAAC, AV_CODEC_ID_AAC, make_aac_encoder},    // PCM to AAC
    {kComponentEncoder, kFormatALAC, AV_CODEC_ID_ALAC, make_alac_encoder}, // PCM to Apple Lossless
}};

constexpr uint32_t kComponentFlags = 0;

bool matches(const ComponentEntry& entry, const ComponentDescription& d)
{
    if (d.type != 0 && d.type != entry.type)
        return false;
    if (d.subtype != 0 && d.subtype != entry.subtype)
        return false;
    if (d.manufacturer != 0 && d.manufacturer != kComponentManufacturer)
        return false;
    return (kComponentFlags & d.flags_mask) == (d.flags & d.flags_mask);
}

bool available(const ComponentEntry& entry)
{
    return entry.type == kComponentEncoder ? avcodec_find_encoder(entry.codec_id) != nullptr
                                           : avcodec_find_decoder(entry.codec_id) != nullptr;
}

} // namespace

Component find_next_component(Component previous, const ComponentDescription* looking_for)
{
    if (looking_for == nullptr)
        return nullptr;
    size_t start = 0;
    if (previous != nullptr) {
        while (start < kComponents.size() && &kComponents[start] != previous)
            ++start;
        if (start == kComponents.size())
            return nullptr; // not one of ours
        ++start;
    }
    for (size_t i = start; i < kComponents.size(); ++i) {
        if (matches(kComponents[i], *looking_for) && available(kComponents[i]))
            return &kComponents[i];
    }
    return nullptr;
}

int get_component_description(Component component, ComponentDescription* out)
{
    if (component == nullptr || out == nullptr)
        return kCodecErrIllegalOperation;
    *out = ComponentDescription{component->type, component->subtype, kComponentManufacturer, kComponentFlags, 0};
    return 0;
}

int open_a_component(Component component, ComponentInstanceRecord** instance)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    *instance = nullptr;
    if (component == nullptr)
        return kCodecErrNoComponent;
    *instance = component->make();
    return *instance != nullptr ? 0 : kCodecErrOutOfMemory;
}

int close_component(ComponentInstanceRecord* instance)
{
    delete instance;
    return 0;
}

int audio_codec_initialize(ComponentInstanceRecord* instance, const AudioStreamBasicDescription* input,
                           const AudioStreamBasicDescription* output, const void* magic_cookie,
                           uint32_t magic_cookie_size)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->initialize(input, output, magic_cookie, magic_cookie_size);
}

int audio_codec_reset(ComponentInstanceRecord* instance)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->reset();
}

int audio_codec_append_input_data(ComponentInstanceRecord* instance, const void* data, uint32_t* io_bytes,
                                  uint32_t* io_packets, const AudioStreamPacketDescription* descriptions)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->append_input_data(data, io_bytes, io_packets, descriptions);
}

int audio_codec_produce_output_packets(ComponentInstanceRecord* instance, void* out, uint32_t* io_bytes,
                                       uint32_t* io_packets, AudioStreamPacketDescription* descriptions,
                                       uint32_t* status)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->produce_output_packets(out, io_bytes, io_packets, descriptions, status);
}

int audio_codec_get_property(ComponentInstanceRecord* instance, int32_t property, uint32_t* io_size, void* data)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->get_property(property, io_size, data);
}

int audio_codec_set_property(ComponentInstanceRecord* instance, int32_t property, uint32_t size,
                             const void* data)
{
    if (instance == nullptr)
        return kCodecErrIllegalOperation;
    return instance->set_property(property, size, data);
}

} // namespace KEL
