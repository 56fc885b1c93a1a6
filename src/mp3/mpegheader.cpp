// MPEG audio header decoding and the tables behind it.
#include "mp3/mpegheader.h"

#include <array>

namespace KEL {

namespace {

using RateRow = std::array<int16_t, 16>;

// Bit rates in kbit/s by bit-rate index; index 0 (free format) and 15
// (forbidden) hold 0. Rows: MPEG-1 Layers I..III (ISO/IEC 11172-3), then
// MPEG-2/2.5 Layers I..III (ISO/IEC 13818-3, low sampling frequencies).
static constexpr std::array<std::array<RateRow, 3>, 2> kBitRatesKbps = {{
    {{
        // MPEG-1 Layer I
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
        // MPEG-1 Layer II
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
        // MPEG-1 Layer III
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
    }},
    {{
        // MPEG-2/2.5 Layer I
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
        // MPEG-2/2.5 Layer II
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
        // MPEG-2/2.5 Layer III (same as Layer II)
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
    }},
}};

// MPEG-1 sample rates in Hz by sample-rate index; MPEG-2 halves them and
// MPEG-2.5 halves them again.
static constexpr std::array<int32_t, 3> kSampleRates = {44100, 48000, 32000};

// KELClipStereoMode by the header's two channel-mode bits.
static constexpr std::array<int32_t, 4> kStereoModes = {
    KELClipStereoModeStereo,        // 00 stereo
    KELClipStereoModeJointStereo,   // 01 joint stereo
    KELClipStereoModeDualChannel,   // 10 dual channel
    KELClipStereoModeSingleChannel, // 11 single channel
};

} // namespace

int mpeg_bit_rate(bool mpeg1, int layer, int index)
{
    if (layer < 1 || layer > 3 || index < 0 || index > 15)
        return 0;
    return kBitRatesKbps[mpeg1 ? 0 : 1][static_cast<size_t>(layer - 1)][static_cast<size_t>(index)] *
           1000;
}

int mpeg_sample_rate(int version, bool is_mpeg25, int index)
{
    if (index < 0 || index > 2)
        return 0;
    int rate = kSampleRates[static_cast<size_t>(index)];
    if (version != 1)
        rate /= 2;
    if (is_mpeg25)
        rate /= 2;
    return rate;
}

int mpeg_side_info_size(bool mpeg1, bool single_channel)
{
    if (mpeg1)
        return single_channel ? 17 : 32;
    return single_channel ? 9 : 17;
}

int mpeg_packet_type(const mpeg_frame_t& frame)
{
    if (frame.version == 1)
        return 3;
    return frame.is_mpeg25 ? 5 : 4;
}

bool decode_header(unsigned int header, mpeg_frame_t* frame)
{
    const unsigned version_bits = (header >> 19) & 3u;
    const unsigned layer_bits = (header >> 17) & 3u;
    const unsigned rate_index = (header >> 12) & 15u;
    const unsigned sr_index = (header >> 10) & 3u;
    if (!mpeg_has_sync(header) || version_bits == 1 || layer_bits == 0 || rate_index == 0 ||
        rate_index == 15 || sr_index == 3)
        return false;

    const bool mpeg1 = version_bits == 3;
    const unsigned mode = (header >> 6) & 3u;
    frame->version = mpeg1 ? 1 : 2;
    frame->is_mpeg25 = version_bits == 0 ? 1 : 0;
    frame->layer = 4 - static_cast<int32_t>(layer_bits);
    frame->sample_rate =
        mpeg_sample_rate(frame->version, frame->is_mpeg25 != 0, static_cast<int>(sr_index));
    frame->stereo = mode == 3 ? 0 : 1;
    frame->stereo_mode = kStereoModes[mode];
    frame->bit_rate = mpeg_bit_rate(mpeg1, frame->layer, static_cast<int>(rate_index));
    frame->frame_length =
        frame->bit_rate * (mpeg1 ? 144 : 72) / frame->sample_rate + static_cast<int32_t>((header >> 9) & 1u);
    frame->samples_per_frame = mpeg1 ? 1152 : 576;
    return true;
}

} // namespace KEL
