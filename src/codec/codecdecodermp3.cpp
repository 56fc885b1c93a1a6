#include "codec/codecdecodermp3.h"

#include <array>

namespace KEL {

namespace {

// Bit rates in kbit/s by bit-rate index (0 free format; 15 is forbidden and
// never looked up).
using RateRow = std::array<int, 15>;
static constexpr std::array<RateRow, 5> kBitRatesKbps = {{
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448}, // MPEG-1 Layer I
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},    // MPEG-1 Layer II
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},     // MPEG-1 Layer III
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},    // MPEG-2/2.5 Layer I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},         // MPEG-2/2.5 Layers II, III
}};

// Sample rates in Hz by version field and sample-rate index.
static constexpr std::array<std::array<int, 3>, 4> kSampleRates = {{
    {11025, 12000, 8000},  // 00 MPEG-2.5
    {0, 0, 0},             // 01 reserved
    {22050, 24000, 16000}, // 10 MPEG-2
    {44100, 48000, 32000}, // 11 MPEG-1
}};

// The longest frame any header can describe: MPEG-2.5 Layer II at 160 kbit/s
// and 8000 Hz with padding.
constexpr uint32_t kLongestFrame = 144 * 160000 / 8000 + 1;

} // namespace

CodecDecoderMP3::CodecDecoderMP3() : CodecDecoder(kFormatMP3, AV_CODEC_ID_MP3, false)
{
}

int CodecDecoderMP3::frame_length(const uint8_t* data, size_t size)
{
    if (data == nullptr || size < 4 || data[0] != 0xFF || (data[1] & 0xE0) != 0xE0)
        return -1;
    const int version = (data[1] >> 3) & 3;
    const int layer_field = (data[1] >> 1) & 3;
    const int rate_index = data[2] >> 4;
    const int sample_index = (data[2] >> 2) & 3;
    const int padding = (data[2] >> 1) & 1;
    if (version == 1 || layer_field == 0 || rate_index == 15 || sample_index == 3)
        return -1;
    if (rate_index == 0)
        return 0;
    const int layer = 4 - layer_field; // 1, 2 or 3
    const bool mpeg1 = version == 3;
    const int row = mpeg1 ? layer - 1 : (layer == 1 ? 3 : 4);
    const int bit_rate = kBitRatesKbps[static_cast<size_t>(row)][static_cast<size_t>(rate_index)] * 1000;
    const int sample_rate = kSampleRates[static_cast<size_t>(version)][static_cast<size_t>(sample_index)];
    if (layer == 1)
        return (12 * bit_rate / sample_rate + padding) * 4;
    if (layer == 3 && !mpeg1)
        return 72 * bit_rate / sample_rate + padding;
    return 144 * bit_rate / sample_rate + padding;
}

int CodecDecoderMP3::check_packet(const uint8_t* data, size_t size)
{
    const int length = frame_length(data, size);
    if (length < 0 || size < static_cast<size_t>(length))
        return kCodecErrBadData;
    return 0;
}

uint32_t CodecDecoderMP3::max_packet_bytes() const
{
    return kLongestFrame;
}

} // namespace KEL
