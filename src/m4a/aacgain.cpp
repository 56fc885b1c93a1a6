#include "m4a/aacgain.h"

#include "core/errorcodes.h"
#include "m4a/aacbitreader.h"
#include "m4a/aactables.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace KEL {

namespace {

// Syntax element ids of a raw data block.
constexpr int kSingleChannel = 0;
constexpr int kChannelPair = 1;
constexpr int kProgramConfig = 5;
constexpr int kFill = 6;

// ics_info window_sequence values.
constexpr int kLongOnly = 0;
constexpr int kLongStart = 1;
constexpr int kEightShort = 2;

// Codebooks with a meaning other than spectrum values.
constexpr int kZeroCodebook = 0;
constexpr int kEscapeCodebook = 11;
constexpr int kNoiseCodebook = 13;
// The first noise band's energy is a plain 9-bit field, not a code word.
constexpr int kNoiseStartBits = 9;

constexpr int kMaxWindows = 8;

// The window layout of one channel stream.
struct IcsInfo {
    int window_sequence = kLongOnly;
    int max_sfb = 0;
    int groups = 1;
    std::array<int, kMaxWindows> group_windows = {1};
};

// ics_info; with_mask also reads the mid/side mask of a common window.
void read_ics_info(AACBitReader& r, IcsInfo& ics, int frequency_index, bool with_mask)
{
    r.skip(1); // reserved
    ics.window_sequence = static_cast<int>(r.get(2));
    r.skip(1); // window shape
    if (ics.window_sequence == kEightShort) {
        ics.max_sfb = static_cast<int>(r.get(4));
        const int grouping = static_cast<int>(r.get(7));
        ics.groups = 1;
        ics.group_windows = {1};
        for (int bit = 6; bit >= 0; --bit) {
            if ((grouping >> bit) & 1)
                ++ics.group_windows[static_cast<size_t>(ics.groups - 1)];
            else
                ics.group_windows[static_cast<size_t>(ics.groups++)] = 1;
        }
    } else {
        ics.max_sfb = static_cast<int>(r.get(6));
        ics.groups = 1;
        ics.group_windows = {1};
        if (r.get(1) != 0) { // predictor data
            if (r.get(1) == 0)
                r.skip(std::min(ics.max_sfb, aac_predictor_band_limit(frequency_index)));
            else
                r.skip(5);
        }
    }
    if (with_mask && r.get(2) == 1)
        r.skip(static_cast<int64_t>(ics.max_sfb) * ics.groups);
}

// A run of bands of one window group coded with one codebook.
struct Section {
    uint8_t codebook;
    uint8_t group;
    uint8_t start;
    uint8_t end;
};
// Every band of every group in its own section at most: 8 groups of 15
// short bands, or one group of up to 63 long bands.
constexpr int kMaxSections = 128;

// Everything of one channel stream after its global_gain and ics_info.
void skip_channel_body(AACBitReader& r, const IcsInfo& ics, int frequency_index)
{
    const bool short_windows = ics.window_sequence == kEightShort;
    int table_bands = 0;
    const uint16_t* offsets = short_windows ? aac_short_band_offsets(frequency_index, &table_bands)
                                            : aac_long_band_offsets(frequency_index, &table_bands);
    if (ics.max_sfb > table_bands) {
        r.fail(kErrBitstreamParse);
        return;
    }

    // Section data. A section holds at least one band, so the sections of
    // the groups fit kMaxSections (max_sfb <= 15 for short windows).
    std::array<Section, kMaxSections> sections;
    int section_count = 0;
    const int length_bits = short_windows ? 3 : 5;
    const int escape = (1 << length_bits) - 1;
    for (int g = 0; g < ics.groups && r.error == 0; ++g) {
        int band = 0;
        while (band < ics.max_sfb && r.error == 0) {
            const int codebook = static_cast<int>(r.get(4));
            int length = 0;
            int increment = escape;
            while (increment == escape && r.error == 0) {
                increment = static_cast<int>(r.get(length_bits));
                length += increment;
            }
            if (r.error != 0)
                return;
            if (length == 0 || band + length > ics.max_sfb) {
                r.fail(kErrBitstreamParse);
                return;
            }
            sections[static_cast<size_t>(section_count++)] =
                Section{static_cast<uint8_t>(codebook), static_cast<uint8_t>(g), static_cast<uint8_t>(band),
                        static_cast<uint8_t>(band + length)};
            band += length;
        }
    }

    // Scale factors, noise energies and intensity positions: one per band
    // of every section whose codebook is not 0, in section order (groups,
    // then bands).
    bool noise_started = false;
    for (int s = 0; s < section_count && r.error == 0; ++s) {
        const Section& sec = sections[static_cast<size_t>(s)];
        if (sec.codebook == kZeroCodebook)
            continue;
        int bands = sec.end - sec.start;
        if (sec.codebook == kNoiseCodebook && !noise_started) {
            noise_started = true;
            r.skip(kNoiseStartBits);
            --bands;
        }
        r.skip_codes(0, bands);
    }

    // Pulse data: count, start band, then offset (5) and amplitude (4).
    if (r.get(1) != 0) {
        const int pulses = static_cast<int>(r.get(2)) + 1;
        r.skip(6);
        r.skip(9LL * pulses);
    }

    // Temporal noise shaping.
    if (r.get(1) != 0) {
        const int windows = short_windows ? kMaxWindows : 1;
        for (int w = 0; w < windows && r.error == 0; ++w) {
            const int filters = static_cast<int>(r.get(short_windows ? 1 : 2));
            if (filters == 0)
                continue;
            const int resolution = static_cast<int>(r.get(1));
            for (int f = 0; f < filters && r.error == 0; ++f) {
                r.skip(short_windows ? 4 : 6); // length
                const int order = static_cast<int>(r.get(short_windows ? 3 : 5));
                if (order == 0)
                    continue;
                r.skip(1); // direction
                const int compress = static_cast<int>(r.get(1));
                r.skip(static_cast<int64_t>(order) * (3 + resolution - compress));
            }
        }
    }

    // Gain control: per band and window, a 3-bit count, then level (4)
    // and location bits of each adjustment.
    if (r.get(1) != 0) {
        const int bands = static_cast<int>(r.get(2));
        for (int bd = 0; bd < bands && r.error == 0; ++bd) {
            switch (ics.window_sequence) {
            case kLongOnly:
                r.skip(9LL * r.get(3));
                break;
            case kLongStart:
                r.skip(8LL * r.get(3));
                r.skip(6LL * r.get(3));
                break;
            case kEightShort:
                for (int w = 0; w < kMaxWindows && r.error == 0; ++w)
                    r.skip(6LL * r.get(3));
                break;
            default: // long stop
                r.skip(8LL * r.get(3));
                r.skip(9LL * r.get(3));
                break;
            }
        }
    }

    // Spectral data, section by section: one code word per 4 lines
    // (codebooks 1 to 4) or per 2 lines (5 to 11).
    for (int s = 0; s < section_count && r.error == 0; ++s) {
        const Section& sec = sections[static_cast<size_t>(s)];
        if (sec.codebook == kZeroCodebook || sec.codebook > kEscapeCodebook)
            continue;
        const int windows = short_windows ? ics.group_windows[sec.group] : 1;
        const int lines = (offsets[sec.end] - offsets[sec.start]) * windows;
        const int step = sec.codebook <= 4 ? 4 : 2;
        r.skip_codes(sec.codebook, (lines + step - 1) / step);
    }
}

// The walk of adjust_gain over one raw data block.
void walk_block(AACBitReader& r, int steps, int frequency_index)
{
    int id = static_cast<int>(r.get(3));
    while ((id == kProgramConfig || id == kFill) && r.error == 0) {
        if (id == kFill) {
            // Fill element (an encoder's identification, for instance): a
            // 4-bit byte count, escaped by 15 into 8 more bits, then the
            // bytes.
            int count = static_cast<int>(r.get(4));
            if (count == 15)
                count += static_cast<int>(r.get(8)) - 1;
            r.skip(8LL * count);
            id = static_cast<int>(r.get(3));
            continue;
        }
        r.skip(10); // instance tag, object type, frequency index
        const int front = static_cast<int>(r.get(4));
        const int side = static_cast<int>(r.get(4));
        const int back = static_cast<int>(r.get(4));
        const int lfe = static_cast<int>(r.get(2));
        const int data = static_cast<int>(r.get(3));
        const int coupling = static_cast<int>(r.get(4));
        for (int mixdown_bits : {4, 4, 3})
            if (r.get(1) != 0)
                r.skip(mixdown_bits);
        r.skip(5LL * (front + side + back) + 4LL * (lfe + data) + 5LL * coupling);
        r.align();
        // The comment's length counts bytes; that many bits are skipped.
        r.skip(r.get(8));
        id = static_cast<int>(r.get(3));
    }
    if (r.error != 0)
        return;
    if (id != kSingleChannel && id != kChannelPair) {
        r.fail(kErrBitstreamParse);
        return;
    }
    r.skip(4); // instance tag

    IcsInfo ics;
    const bool common_window = id == kChannelPair && r.get(1) != 0;
    if (common_window)
        read_ics_info(r, ics, frequency_index, true);
    r.move_gain(steps);
    if (id == kSingleChannel || r.error != 0)
        return;

    r.skip(8);
    if (!common_window)
        read_ics_info(r, ics, frequency_index, false);
    skip_channel_body(r, ics, frequency_index);
    r.move_gain(steps);
}

} // namespace

int aac_gain_steps(float gain)
{
    static const double steps_per_decibel = 1.0 / (5.0 * std::log10(2.0));
    if (gain < 1e-12f)
        return -255;
    // NaN and infinity have no int value; 255 steps already take any 8-bit
    // field to a bound, so a wider count changes nothing.
    const double steps = 20.0 * std::log10(static_cast<double>(gain)) * steps_per_decibel + 0.001;
    if (std::isnan(steps))
        return 0;
    return static_cast<int>(std::clamp(steps, -255.0, 255.0));
}

int adjust_gain(Bitstream& bits, float gain, float sample_rate)
{
    const int steps = aac_gain_steps(gain);
    const int frequency_index = aac_frequency_index(sample_rate);
    AACBitReader r(bits);
    walk_block(r, steps, frequency_index);
    r.store(bits);
    return r.error;
}

} // namespace KEL
