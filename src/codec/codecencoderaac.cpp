#include "codec/codecencoderaac.h"

namespace KEL {

namespace {

// FFmpeg's encoder asks for at most this many bytes per channel for one
// access unit.
constexpr uint32_t kPacketBytesPerChannel = 8192;

} // namespace

CodecEncoderAAC::CodecEncoderAAC() : CodecEncoder(kFormatAAC)
{
}

int CodecEncoderAAC::prepare(FFCodecSettings& settings)
{
    if (!in_format_.is_float())
        return kCodecErrUnsupportedFormat;
    if (output_.frames_per_packet != 0 && output_.frames_per_packet != static_cast<uint32_t>(kFramesPerPacket))
        return kCodecErrUnsupportedFormat;
    settings.codec_id = AV_CODEC_ID_AAC;
    settings.sample_format = AV_SAMPLE_FMT_FLTP;
    settings.bit_rate = bit_rate_;
    frames_per_packet_ = kFramesPerPacket;
    return 0;
}

void CodecEncoderAAC::complete_output()
{
    output_.sample_rate = input_.sample_rate;
    output_.format_id = kFormatAAC;
    output_.format_flags = 0;
    output_.bytes_per_packet = 0;
    output_.frames_per_packet = kFramesPerPacket;
    output_.bytes_per_frame = 0;
    output_.channels_per_frame = input_.channels_per_frame;
    output_.bits_per_channel = 0;
}

uint32_t CodecEncoderAAC::max_packet_bytes() const
{
    return kPacketBytesPerChannel * static_cast<uint32_t>(in_format_.channels());
}

int CodecEncoderAAC::output_format(AudioStreamBasicDescription* out) const
{
    if (initialized()) {
        *out = output_;
        return 0;
    }
    *out = AudioStreamBasicDescription{44100.0, kFormatAAC, 0, 0, kFramesPerPacket, 0, 2, 0, 0};
    return 0;
}

int CodecEncoderAAC::get_property(int32_t id, uint32_t* io_size, void* data)
{
    if (id != kPropertyBitRate)
        return CodecEncoder::get_property(id, io_size, data);
    uint32_t value = bit_rate_;
    if (initialized() && codec_.context() != nullptr && codec_.context()->bit_rate > 0 &&
        codec_.context()->bit_rate <= UINT32_MAX)
        value = static_cast<uint32_t>(codec_.context()->bit_rate);
    return copy_property(&value, sizeof value, io_size, data);
}

int CodecEncoderAAC::set_property(int32_t id, uint32_t size, const void* data)
{
    if (id != kPropertyBitRate)
        return CodecEncoder::set_property(id, size, data);
    uint32_t value = 0;
    const int err = read_u32_property(size, data, &value);
    if (err != 0)
        return err;
    bit_rate_ = value;
    return restart();
}

} // namespace KEL
