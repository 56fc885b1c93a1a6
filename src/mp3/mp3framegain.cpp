// Layer III global_gain rewriting, CRC-16, the side-information readers and
// the bit-reservoir walk.
#include "mp3/mp3framegain.h"

#include "core/errorcodes.h"
#include "mp3/mpegheader.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

namespace KEL {

namespace {

constexpr int32_t kErrEndOfData = kErrBitstreamEnd;

// Bytes the header readers copy out of a frame, and the room they give
// Bitstream::get_bits_le8 to load one byte past them.
constexpr int kStaticHeadBytes = 6;
constexpr int kMainDataHeadBytes = 8;
constexpr int kHeadBufferBytes = kMainDataHeadBytes + 8;

// The header fields the side-information walkers need.
struct HeaderBits {
    int version_bits = 0; // 3 for MPEG-1
    int protection = 1;   // 0 when a CRC word follows the header
    bool single_channel = false;
};

// Reads the 32 header bits from the frame's first bit; err holds the status
// of the last bit operation.
HeaderBits read_header(Bitstream& bs, int& err)
{
    HeaderBits h;
    err = bs.skip_bits(11); // sync
    h.version_bits = bs.get_bits_le8(2, err);
    err = bs.skip_bits(2); // layer
    h.protection = bs.get_bits_le8(1, err);
    err = bs.skip_bits(8); // bit-rate index, sample-rate index, padding, private
    h.single_channel = bs.get_bits_le8(2, err) == 3;
    err = bs.skip_bits(6); // mode extension, copyright, original, emphasis
    return h;
}

// Whole global_gain steps for a linear gain (not below 1e-12): the decibel
// value times the steps per decibel plus 0.001, one fused multiply-add in
// double precision, truncated toward zero. Values beyond the int range
// saturate; NaN gives 0.
int gain_steps(float gain, float steps_per_dB)
{
    const double x = std::fma(20.0 * std::log10(static_cast<double>(gain)),
                              static_cast<double>(steps_per_dB), 0.001);
    if (std::isnan(x))
        return 0;
    if (x >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (x <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int>(x);
}

// One global_gain field at the reader's position: a nonzero value moves by
// steps (already within -255..255) and is clamped to 8 bits; 0 stays 0; a
// field that cannot be read is left alone. The reader does not move.
int move_global_gain(Bitstream& bs, int steps)
{
    int err = 0;
    const int g = bs.peek_8bits(err);
    if (err != 0 || g == 0)
        return err;
    return bs.poke_8bits(static_cast<unsigned char>(std::clamp(g + steps, 0, 255)));
}

// Folds the next n bytes of the reader (byte-aligned) into the CRC and moves
// past them. peek_8bits at bit offset 0 loads the current byte only.
unsigned fold_bytes(Bitstream& bs, unsigned crc, int n, int& err)
{
    for (int i = 0; i < n; ++i) {
        const unsigned char b = static_cast<unsigned char>(bs.peek_8bits(err));
        crc = mpeg_audio_crc16(crc, &b, 1);
        err = bs.skip_bits(8);
    }
    return crc;
}

} // namespace

unsigned mpeg_audio_crc16(unsigned crc, const unsigned char* bytes, int n)
{
    // x^16 + x^15 + x^2 + 1 without the x^16 term.
    constexpr unsigned kPolynomial = 0x8005;
    for (int i = 0; i < n; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            const unsigned in = (static_cast<unsigned>(bytes[i]) >> bit) & 1u;
            const unsigned top = (crc >> 15) & 1u;
            crc = (crc << 1) & 0xFFFFu;
            if ((in ^ top) != 0)
                crc ^= kPolynomial;
        }
    }
    return crc & 0xFFFFu;
}

float mp3_quantized_gain(float gain)
{
    // Steps per decibel, and decibels per step over 20 (the base-10
    // exponent of one step), each computed once in single precision.
    static const float gain_dB_norm = 1.0f / (5.0f * std::log10(2.0f));
    static const float gain_dB_norm_rev = 5.0f * std::log10(2.0f) / 20.0f;

    if (gain < 1e-12f)
        return 0.0f;
    const int s = gain_steps(gain, gain_dB_norm);
    const float exponent = static_cast<float>(s) * gain_dB_norm_rev;
    return static_cast<float>(std::pow(10.0, static_cast<double>(exponent)));
}

int adjust_gain(Bitstream& bs, float gain)
{
    // Steps per decibel, computed once in single precision.
    static const float gain_dB_norm = 1.0f / (5.0f * std::log10(2.0f));

    // 255 steps already take any 8-bit field to a bound, so a wider count
    // changes nothing and is cut back to keep G + s inside int.
    const int steps =
        gain < 1e-12f ? -255 : std::clamp(gain_steps(gain, gain_dB_norm), -255, 255);

    // The walk stops at the first field that is not all there: a failed
    // skip does not move, and a global_gain poked from there would overwrite
    // whatever other field lies at that point of a frame cut short.
    int err = 0;
    const HeaderBits h = read_header(bs, err);
    const bool mpeg1 = h.version_bits == 3;
    const int nch = h.single_channel ? 1 : 2;
    if (err == 0 && h.protection == 0)
        err = bs.skip_bits(16); // CRC word
    const auto skip = [&](int n) {
        if (err == 0)
            err = bs.skip_bits(n);
    };
    const auto move_gain = [&]() {
        if (err == 0)
            err = move_global_gain(bs, steps);
    };

    if (mpeg1) {
        skip(9);                // main_data_begin
        skip(nch == 1 ? 5 : 3); // private bits
        skip(nch == 1 ? 4 : 8); // scale-factor selection
        for (int gr = 0; gr < 2; ++gr) {
            for (int ch = 0; ch < nch; ++ch) {
                skip(21); // part2_3_length, big_values
                move_gain();
                skip(38); // global_gain and the 30 bits after it
            }
        }
    } else {
        skip(8);   // main_data_begin
        skip(nch); // private bits
        for (int ch = 0; ch < nch; ++ch) {
            skip(21);
            move_gain();
            skip(42); // global_gain and the 34 bits after it
        }
    }
    if (err != 0)
        return err;
    if (h.protection != 0)
        return err;

    // The CRC covers header bytes 2 and 3 and the side information, which
    // starts after the CRC word itself.
    bs.rewind();
    err = bs.skip_bits(16);
    unsigned crc = fold_bytes(bs, 0xFFFFu, 2, err);
    err = bs.skip_bits(16);
    crc = fold_bytes(bs, crc, mpeg_side_info_size(mpeg1, nch == 1), err);

    bs.rewind();
    err = bs.skip_bits(32);
    err = bs.poke_8bits(static_cast<unsigned char>(crc >> 8));
    err = bs.skip_bits(8);
    err = bs.poke_8bits(static_cast<unsigned char>(crc & 0xFFu));
    return err;
}

int mp3_static_part_size(const unsigned char* head, int available, int& err)
{
    if (available < kStaticHeadBytes) {
        err = kErrEndOfData;
        return 0;
    }
    unsigned char buffer[kHeadBufferBytes] = {};
    std::memcpy(buffer, head, kStaticHeadBytes);
    Bitstream bs(buffer, kStaticHeadBytes);
    const HeaderBits h = read_header(bs, err);
    return 4 + (h.protection == 0 ? 2 : 0) + mpeg_side_info_size(h.version_bits == 3, h.single_channel);
}

int mp3_get_main_data_begin(const unsigned char* head, int available, int& err)
{
    if (available < kMainDataHeadBytes) {
        err = kErrEndOfData;
        return 0;
    }
    unsigned char buffer[kHeadBufferBytes] = {};
    std::memcpy(buffer, head, kMainDataHeadBytes);
    Bitstream bs(buffer, kMainDataHeadBytes);
    int status = 0;
    const HeaderBits h = read_header(bs, status);
    if (h.protection == 0)
        bs.skip_bits(16);
    int value = 0;
    if (h.version_bits == 3) {
        // 9 bits: the first 8, then the lowest.
        const int high = bs.get_bits_le8(8, status);
        value = high * 2 + bs.get_bits_le8(1, status);
    } else {
        value = bs.get_bits_le8(8, status);
    }
    err = 0;
    return value;
}

Mp3FrameSource::~Mp3FrameSource() = default;

int mp3_preroll_count(Mp3FrameSource& frames, int index, int& err)
{
    err = 0;
    if (index < 0 || index >= frames.frame_count()) {
        err = kErrPacketNumber;
        return 0;
    }
    int remaining = frames.main_data_begin(index, err);
    if (err != 0 || remaining == 0)
        return 0;

    for (int k = 0;; ++k) {
        if (k == index) {
            err = kErrReservoirBeforeStart; // the reservoir reaches before the first frame
            return k;
        }
        const int q = index - 1 - k;
        int status = 0;
        const int static_part = frames.static_part_size(q, status);
        const int main_data = frames.frame_length(q) - static_part;
        if (status != 0 || main_data < 1) {
            err = kErrBitstreamParse;
            return k;
        }
        remaining -= main_data;
        if (remaining < 1)
            return k + 1;
    }
}

} // namespace KEL
