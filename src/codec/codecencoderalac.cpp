#include "codec/codecencoderalac.h"

#include "codec/alaccookie.h"

namespace KEL {

namespace {

// Bits of one element header at most: tag (3), instance (4), unused (12),
// has size (1), shift (2), uncompressed (1), frame count (32).
constexpr uint64_t kElementHeaderBits = 55;
// The END element that closes a frame.
constexpr uint64_t kEndBits = 3;

} // namespace

CodecEncoderALAC::CodecEncoderALAC() : CodecEncoder(kFormatALAC)
{
}

int CodecEncoderALAC::prepare(FFCodecSettings& settings)
{
    const int bits = in_format_.bits();
    if (in_format_.is_float() || (bits != 16 && bits != 24))
        return kCodecErrUnsupportedFormat;
    const uint32_t flags = output_.format_flags;
    if (flags != 0 && flags != (bits == 16 ? kALACFlag16Bit : kALACFlag24Bit))
        return kCodecErrUnsupportedFormat;
    const uint32_t frames = output_.frames_per_packet != 0 ? output_.frames_per_packet : kMaxFramesPerPacket;
    if (frames > static_cast<uint32_t>(kMaxFramesPerPacket))
        return kCodecErrUnsupportedFormat;
    settings.codec_id = AV_CODEC_ID_ALAC;
    settings.sample_format = bits == 16 ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S32P;
    settings.bits_per_raw_sample = bits;
    frames_per_packet_ = static_cast<int>(frames);
    return 0;
}

void CodecEncoderALAC::complete_output()
{
    output_.sample_rate = input_.sample_rate;
    output_.format_id = kFormatALAC;
    output_.format_flags = in_format_.bits() == 16 ? kALACFlag16Bit : kALACFlag24Bit;
    output_.bytes_per_packet = 0;
    output_.frames_per_packet = static_cast<uint32_t>(frames_per_packet_);
    output_.bytes_per_frame = 0;
    output_.channels_per_frame = input_.channels_per_frame;
    output_.bits_per_channel = 0;
}

uint32_t CodecEncoderALAC::max_packet_bytes() const
{
    const uint64_t channels = static_cast<uint64_t>(in_format_.channels());
    const uint64_t sample_bits = static_cast<uint64_t>(in_format_.bits()) * static_cast<uint64_t>(frames_per_packet_);
    const uint64_t bits = channels * kElementHeaderBits + channels * sample_bits + kEndBits;
    return static_cast<uint32_t>((bits + 7) / 8);
}

std::vector<uint8_t> CodecEncoderALAC::cookie() const
{
    const std::vector<uint8_t> extradata = CodecEncoder::cookie();
    ALACCookie config;
    if (!ALACCookie::parse(extradata.data(), extradata.size(), &config))
        config = ALACCookie::from_description(output_);
    config.frame_length = static_cast<uint32_t>(frames_per_packet_);
    config.max_run = 255;
    config.max_frame_bytes = max_packet_bytes();
    const std::array<uint8_t, ALACCookie::kLayoutBytes> layout = config.layout();
    return std::vector<uint8_t>(layout.begin(), layout.end());
}

} // namespace KEL
