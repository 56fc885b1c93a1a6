#include "m4a/clipencoderaac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/bshandle.h"
#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "m4a/packetm4aac.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace KEL {

namespace {

// Float, big-endian, packed.
constexpr uint32_t kFloatFlags = kLPCMFlagFloat | kLPCMFlagBigEndian | kLPCMFlagPacked;

void put_be_float(unsigned char* p, float value)
{
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    put_be32(p, bits);
}

} // namespace

ClipEncoderAAC::ClipEncoderAAC(float source_rate, int channels, float sample_rate, int bit_rate)
    : ClipEncoder(source_rate), channels(channels), sample_rate(sample_rate)
{
    if (channels != 1 && channels != 2)
        return;
    const ComponentDescription wanted{kComponentEncoder, kFormatAAC, kComponentManufacturer, 0, 0};
    Component component = find_next_component(nullptr, &wanted);
    ComponentInstanceRecord* instance = nullptr;
    if (component == nullptr || open_a_component(component, &instance) != 0 || instance == nullptr) {
        if (instance != nullptr)
            close_component(instance);
        return;
    }

    const uint32_t rate = bit_rate > 0 ? static_cast<uint32_t>(bit_rate) : 0;
    AudioStreamBasicDescription out{};
    uint32_t out_size = sizeof out;
    bool ok = audio_codec_set_property(instance, kPropertyBitRate, sizeof rate, &rate) == 0 &&
              audio_codec_get_property(instance, kPropertyOutputFormat, &out_size, &out) == 0;
    out.sample_rate = sample_rate;
    out.channels_per_frame = static_cast<uint32_t>(channels);

    const uint32_t frame_bytes = 4u * static_cast<uint32_t>(channels);
    const AudioStreamBasicDescription in{sample_rate, kFormatLPCM, kFloatFlags, frame_bytes, 1, frame_bytes,
                                         static_cast<uint32_t>(channels), 32, 0};
    ok = ok && audio_codec_initialize(instance, &in, &out, nullptr, 0) == 0;

    uint32_t max_bytes = 0;
    uint32_t max_size = sizeof max_bytes;
    if (ok && audio_codec_get_property(instance, kPropertyMaximumPacketSize, &max_size, &max_bytes) == 0 &&
        max_bytes > 0 && max_bytes <= (1u << 24))
        max_packet_bytes = static_cast<int>(max_bytes);
    if (ok)
        output = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(max_packet_bytes)));
    if (!ok || output == nullptr) {
        close_component(instance);
        return;
    }
    encoder = instance;
}

ClipEncoderAAC::~ClipEncoderAAC()
{
    if (encoder != nullptr)
        close_component(encoder);
    std::free(output);
}

bool ClipEncoderAAC::append_block(float** frames)
{
    unsigned char block[kFramesPerPacket * 2 * 4];
    unsigned char* p = block;
    for (int i = 0; i < kFramesPerPacket; ++i) {
        if (channels == 1) {
            put_be_float(p, (frames[0][i] + frames[1][i]) * 0.5f);
            p += 4;
        } else {
            put_be_float(p, frames[0][i]);
            put_be_float(p + 4, frames[1][i]);
            p += 8;
        }
    }
    uint32_t bytes = static_cast<uint32_t>(channels) * 4096u;
    uint32_t packets = 1;
    return audio_codec_append_input_data(encoder, block, &bytes, &packets, nullptr) == 0;
}

int ClipEncoderAAC::produce()
{
    uint32_t bytes = static_cast<uint32_t>(max_packet_bytes);
    uint32_t packets = 1;
    uint32_t status = 0;
    if (audio_codec_produce_output_packets(encoder, output, &bytes, &packets, nullptr, &status) != 0)
        return -1;
    if (status != kProduceOutput && status != kProduceOutputMore && status != kProduceNeedsInput)
        return -1;
    return static_cast<int>(bytes);
}

const void* ClipEncoderAAC::packet_encode(int* size, bool flush, int* err)
{
    *size = 0;
    *err = 0;
    if (encoder == nullptr || output == nullptr) {
        *err = kErrCodec;
        return nullptr;
    }
    float left[kFramesPerPacket];
    float right[kFramesPerPacket];
    float* frames[2] = {left, right};
    // While flushing, a block that the encoder swallows without output is
    // followed at once by the next one (or the drain), so that the caller,
    // which stops at the first empty answer, still gets every packet.
    for (;;) {
        const int got = get_data(frames, kFramesPerPacket, sample_rate, flush);
        if (got != 0 && got != kFramesPerPacket) {
            *err = kErrEncode;
            return nullptr;
        }
        if (got == 0 && !flush)
            return nullptr;
        if (got != 0 && !append_block(frames)) {
            *err = kErrEncode;
            return nullptr;
        }
        const int bytes = produce();
        if (bytes < 0) {
            *err = kErrEncode;
            return nullptr;
        }
        if (bytes > 0 || !flush || got == 0) {
            *size = bytes;
            return output;
        }
    }
}

Packet* ClipEncoderAAC::packet_with_storage(BSHandle* handle)
{
    const int bytes = handle != nullptr ? static_cast<int>(handle->size) : 0;
    const int rate = static_cast<int>(std::rint(static_cast<double>(bytes) * sample_rate * 8.0 / kFramesPerPacket));
    return new (std::nothrow) PacketM4AAC(rate, sample_rate, channels, kFramesPerPacket, handle);
}

} // namespace KEL
