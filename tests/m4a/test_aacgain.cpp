// The AAC gain walk on hand-built raw data blocks: each block is written
// bit by bit from the codebook tables with an independent model of the
// syntax (tuple sizes, sign bits and escapes derived here from the value
// ranges of each codebook), and the walk must change exactly the bits of
// the global_gain fields.
#include "core/fourcc.h"
#include "m4a/aacbitreader.h"
#include "m4a/aacgain.h"
#include "m4a/aacreference.h"
#include "m4a/m4afixtures.h"
#include "m4a/aactables.h"
#include "m4a/packetm4aac.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

namespace KEL {
namespace test {
namespace {

class BitWriter {
public:
    void put(uint32_t value, int n)
    {
        for (int b = n - 1; b >= 0; --b)
            bits_.push_back(((value >> b) & 1u) != 0);
    }
    size_t position() const { return bits_.size(); }
    // The bytes, zero-padded, with slack bytes of filler after them.
    std::vector<unsigned char> bytes(int slack = 4) const
    {
        std::vector<unsigned char> out((bits_.size() + 7) / 8 + static_cast<size_t>(slack), 0x5A);
        for (size_t i = 0; i < (bits_.size() + 7) / 8; ++i)
            out[i] = 0;
        for (size_t i = 0; i < bits_.size(); ++i)
            if (bits_[i])
                out[i / 8] |= static_cast<unsigned char>(0x80 >> (i % 8));
        return out;
    }

private:
    std::vector<bool> bits_;
};

// Tuple layout of spectrum codebook 1..11: values per code word, number of
// values each digit may take, and whether the values carry their own sign.
struct Layout {
    int values;
    int range;
    bool is_signed;
};
Layout layout(int cb)
{
    if (cb <= 4)
        return {4, 3, cb <= 2};
    if (cb <= 6)
        return {2, 9, true};
    if (cb <= 8)
        return {2, 8, false};
    if (cb <= 10)
        return {2, 13, false};
    return {2, 17, false};
}

void put_code(BitWriter& w, int cb, int index)
{
    uint32_t code = 0;
    int length = 0;
    aac_codebook_entry(cb, index, &code, &length);
    w.put(code, length);
}

// Code word index of codebook cb (a random one for -1) with random sign
// bits and escapes whose prefixes hold up to max_ones 1 bits.
void put_spectral(BitWriter& w, int cb, std::mt19937& rng, int index = -1, int max_ones = 3)
{
    const Layout l = layout(cb);
    if (index < 0)
        index = static_cast<int>(rng() % static_cast<unsigned>(aac_codebook_size(cb)));
    put_code(w, cb, index);
    std::vector<int> digits;
    for (int rest = index, i = 0; i < l.values; ++i, rest /= l.range)
        digits.push_back(rest % l.range);
    if (!l.is_signed)
        for (int d : digits)
            if (d != 0)
                w.put(rng() & 1u, 1);
    for (int d : digits) {
        if (cb == 11 && d == 16) {
            const int extra = static_cast<int>(rng() % static_cast<unsigned>(max_ones + 1));
            for (int one = 0; one < extra; ++one)
                w.put(1, 1);
            w.put(0, 1);
            for (int bit = 0; bit < 4 + extra; ++bit)
                w.put(rng() & 1u, 1);
        }
    }
}

void put_scale_factor(BitWriter& w, std::mt19937& rng)
{
    put_code(w, 0, static_cast<int>(rng() % 121));
}

TEST(AACGain, StepsAndQuantizedGain)
{
    EXPECT_EQ(aac_gain_steps(2.0f), 4);
    EXPECT_EQ(aac_gain_steps(0.5f), -3); // truncated toward zero from -3.999
    EXPECT_EQ(aac_gain_steps(1.1f), 0);
    EXPECT_EQ(aac_gain_steps(1.0f), 0);
    EXPECT_EQ(aac_gain_steps(0.0f), -255);
    EXPECT_EQ(aac_gain_steps(1e-13f), -255);
    EXPECT_EQ(aac_gain_steps(std::nanf("")), 0);
    EXPECT_EQ(aac_gain_steps(INFINITY), 255);
    EXPECT_EQ(aac_gain_steps(std::pow(2.0f, 7.0f / 4.0f)), 7);

    PacketM4AAC packet(128000, 44100.0f, 2, 1024, nullptr);
    packet.gain = 1.1f;
    EXPECT_FLOAT_EQ(packet.quantized_gain(), 1.0f);
    packet.gain = 3.0f; // 6.34 steps -> 6
    EXPECT_NEAR(packet.quantized_gain(), std::pow(2.0, 6.0 / 4.0), 1e-5);
    packet.gain = 0.0f;
    EXPECT_EQ(packet.quantized_gain(), 0.0f);
}

TEST(AACGain, TreesMatchTheStandardsCodes)
{
    // Known entries of the standard's tables: a scale-factor difference of 0
    // is "0", the all-zero quadruple of codebook 1 is "0", the pair (16, 16)
    // of the escape codebook is "00100".
    uint32_t code = 0;
    int length = 0;
    aac_codebook_entry(0, 60, &code, &length);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(length, 1);
    aac_codebook_entry(1, 40, &code, &length);
    EXPECT_EQ(length, 1);
    aac_codebook_entry(11, 288, &code, &length);
    EXPECT_EQ(code, 4u);
    EXPECT_EQ(length, 5);

    // (Every code word is skipped exactly: AACBitReader.SkipsRunsOfCodeWords
    // against the writer here, RandomBitsEndLikeTheTreeWalk against the
    // bit-by-bit reference.)
}

// A single channel element: the one field sits right after id and tag.
TEST(AACGain, SingleChannelFieldAndClamps)
{
    struct Case {
        int stored;
        float gain;
        int expected;
    };
    for (const Case c : {Case{100, 2.0f, 104}, Case{250, 4.0f, 255}, Case{0, 2.0f, 0}, Case{100, 0.0f, 0},
                         Case{10, 0.25f, 3}}) {
        BitWriter w;
        w.put(0, 3);
        w.put(0xB, 4);
        w.put(static_cast<uint32_t>(c.stored), 8);
        w.put(0x2A5, 10);
        std::vector<unsigned char> before = w.bytes();
        std::vector<unsigned char> after = before;
        Bitstream bits(after.data(), static_cast<int>(after.size()) - 1);
        EXPECT_EQ(adjust_gain(bits, c.gain, 44100.0f), 0);
        EXPECT_EQ(read8(after, 7), c.expected);
        after[0] = before[0] = static_cast<unsigned char>(before[0] & 0xFE);
        after[1] = before[1] = static_cast<unsigned char>(before[1] & 0x01);
        EXPECT_EQ(after, before) << "bits outside the field changed";
    }

    // An LFE element (id 3) first: refused, nothing changed.
    BitWriter lfe;
    lfe.put(3, 3);
    lfe.put(0, 4);
    lfe.put(100, 8);
    std::vector<unsigned char> block = lfe.bytes();
    const std::vector<unsigned char> kept = block;
    Bitstream bits(block.data(), static_cast<int>(block.size()) - 1);
    EXPECT_EQ(adjust_gain(bits, 2.0f, 44100.0f), fourcc("Ebps"));
    EXPECT_EQ(block, kept);
}

// A program config element before the channel: its comment length counts
// bits here, not bytes.
TEST(AACGain, ProgramConfigIsPassedOver)
{
    BitWriter w;
    w.put(5, 3);
    w.put(0, 10);
    w.put(1, 4); // front
    w.put(0, 4); // side
    w.put(0, 4); // back
    w.put(2, 2); // lfe
    w.put(0, 3); // data
    w.put(2, 4); // coupling
    w.put(1, 1); // mono mixdown
    w.put(0xF, 4);
    w.put(0, 1);
    w.put(0, 1);
    w.put(0x15, 5); // front element
    w.put(0xA5, 8); // two LFE elements
    w.put(0x3FF, 10); // two coupling elements: 64 bits, byte-aligned
    ASSERT_EQ(w.position() % 8, 0u);
    w.put(3, 8); // comment length
    w.put(7, 3); // 3 "comment" bits
    w.put(0, 3); // single channel element
    w.put(0, 4);
    const size_t field = w.position();
    w.put(60, 8);
    std::vector<unsigned char> block = w.bytes();
    Bitstream bits(block.data(), static_cast<int>(block.size()) - 1);
    EXPECT_EQ(adjust_gain(bits, 2.0f, 48000.0f), 0);
    EXPECT_EQ(read8(block, field), 64);
}

struct PairBlock {
    std::vector<unsigned char> bytes;
    size_t first = 0, second = 0;
};

// Channel pair, common long window, mid/side mask; sections of codebooks
// 1, 0, 11, noise and intensity; pulse and TNS data.
PairBlock long_pair(std::mt19937& rng)
{
    BitWriter w;
    w.put(1, 3);
    w.put(0, 4);
    w.put(1, 1);  // common window
    w.put(0, 1);  // reserved
    w.put(0, 2);  // long only
    w.put(1, 1);  // shape
    w.put(7, 6);  // max_sfb
    w.put(0, 1);  // no prediction
    w.put(1, 2);  // mask per band
    w.put(0x55, 7);
    PairBlock b;
    b.first = w.position();
    w.put(120, 8);
    const int sections[][2] = {{1, 2}, {0, 1}, {11, 2}, {13, 1}, {14, 1}};
    for (const auto& s : sections) {
        w.put(static_cast<uint32_t>(s[0]), 4);
        w.put(static_cast<uint32_t>(s[1]), 5);
    }
    for (int band : {0, 1, 3, 4})
        (void)band, put_scale_factor(w, rng);
    w.put(0x123, 9); // first noise energy
    put_scale_factor(w, rng); // intensity position
    w.put(1, 1);     // pulse: 2 pulses
    w.put(1, 2);
    w.put(3, 6);
    w.put(0x1FF, 9);
    w.put(0x0AB, 9);
    w.put(1, 1);     // TNS: one filter of order 3
    w.put(1, 2);
    w.put(1, 1);     // resolution 4 bits
    w.put(20, 6);
    w.put(3, 5);
    w.put(0, 1);
    w.put(0, 1);     // not compressed: 4 bits per coefficient
    w.put(0xABC, 12);
    w.put(0, 1);     // no gain control
    for (int i = 0; i < 2; ++i) // codebook 1: 8 lines in quadruples
        put_spectral(w, 1, rng);
    for (int i = 0; i < 4; ++i) // codebook 11: 8 lines in pairs
        put_spectral(w, 11, rng);
    b.second = w.position();
    w.put(90, 8);
    w.put(0x3C3, 10);
    b.bytes = w.bytes();
    return b;
}

// Channel pair, separate windows, the first eight short in groups of 2, 3
// and 3 with escaped section lengths; TNS and gain control data.
PairBlock short_pair(std::mt19937& rng)
{
    BitWriter w;
    w.put(1, 3);
    w.put(2, 4);
    w.put(0, 1);  // no common window
    PairBlock b;
    b.first = w.position();
    w.put(140, 8);
    w.put(0, 1);
    w.put(2, 2);  // eight short
    w.put(0, 1);
    w.put(9, 4);  // max_sfb
    w.put(0x5B, 7); // 1011011: groups of 2, 3, 3
    auto section = [&](int cb, int length) {
        w.put(static_cast<uint32_t>(cb), 4);
        for (; length >= 7; length -= 7)
            w.put(7, 3);
        w.put(static_cast<uint32_t>(length), 3);
    };
    section(2, 9);
    section(0, 4);
    section(5, 5);
    section(9, 9);
    for (int n = 0; n < 9 + 5 + 9; ++n)
        put_scale_factor(w, rng);
    w.put(0, 1);  // no pulse
    w.put(1, 1);  // TNS in window 0 only
    w.put(1, 1);
    w.put(0, 1);  // resolution 3 bits
    w.put(9, 4);
    w.put(2, 3);
    w.put(1, 1);
    w.put(1, 1);  // compressed: 2 bits per coefficient
    w.put(0xA, 4);
    for (int win = 1; win < 8; ++win)
        w.put(0, 1);
    w.put(1, 1);  // gain control: one band
    w.put(1, 2);
    for (int win = 0; win < 8; ++win) {
        w.put(win == 3 ? 2 : 0, 3);
        if (win == 3)
            w.put(0xFFF, 12);
    }
    // Short bands 0..8 of 44.1 kHz span 56 lines per window.
    for (int i = 0; i < 56 * 2 / 4; ++i)
        put_spectral(w, 2, rng);
    for (int i = 0; i < 40 * 3 / 2; ++i)
        put_spectral(w, 5, rng);
    for (int i = 0; i < 56 * 3 / 2; ++i)
        put_spectral(w, 9, rng);
    b.second = w.position();
    w.put(77, 8);
    w.put(0x2, 2);
    b.bytes = w.bytes();
    return b;
}

TEST(AACGain, ChannelPairsChangeBothFieldsOnly)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 20; ++round) {
        for (const PairBlock& original : {long_pair(rng), short_pair(rng)}) {
            std::vector<unsigned char> block = original.bytes;
            Bitstream bits(block.data(), static_cast<int>(block.size()) - 1);
            ASSERT_EQ(adjust_gain(bits, 0.7f, 44100.0f), 0); // -2 steps
            EXPECT_EQ(read8(block, original.first), read8(original.bytes, original.first) - 2);
            EXPECT_EQ(read8(block, original.second), read8(original.bytes, original.second) - 2);
            for (size_t bit = 0; bit < block.size() * 8; ++bit) {
                const bool in_field = (bit >= original.first && bit < original.first + 8) ||
                                      (bit >= original.second && bit < original.second + 8);
                if (!in_field) {
                    ASSERT_EQ((block[bit / 8] >> (7 - bit % 8)) & 1, (original.bytes[bit / 8] >> (7 - bit % 8)) & 1)
                        << "bit " << bit;
                }
            }
            // Cut short inside the first channel: an error, the second
            // field untouched.
            std::vector<unsigned char> cut(original.bytes.begin(),
                                           original.bytes.begin() + static_cast<long>(original.second / 8 - 2));
            cut.push_back(0);
            Bitstream short_bits(cut.data(), static_cast<int>(cut.size()) - 1);
            EXPECT_EQ(adjust_gain(short_bits, 2.0f, 44100.0f), fourcc("Ebef"));
        }
    }
}

// The table-driven reader of the walk against Bitstream and the one-bit
// tree walks. Its buffers are exactly as long as the data, so that a read
// past them shows in the sanitizer build.
int64_t position_of(const Bitstream& bits)
{
    return (bits.current - bits.start) * 8 + bits.bit_offset;
}

TEST(AACBitReader, FieldsAlignmentAndGainsAsBitstreamHasThem)
{
    std::mt19937 rng(3);
    for (int round = 0; round < 300; ++round) {
        std::vector<unsigned char> data(1 + rng() % 24);
        for (auto& byte : data)
            byte = static_cast<unsigned char>(rng());
        std::vector<unsigned char> padded = data;
        padded.push_back(0); // Bitstream reads one byte ahead
        Bitstream expected(padded.data(), static_cast<int>(data.size()));
        Bitstream mine(data.data(), static_cast<int>(data.size()));
        // Start both part-way in, so that the reader continues a Bitstream.
        const int lead = static_cast<int>(rng() % 8);
        expected.skip_bits(lead);
        mine.skip_bits(lead);
        AACBitReader r(mine);
        int expected_error = 0;
        for (int op = 0; op < 12 && expected_error == 0; ++op) {
            const int kind = static_cast<int>(rng() % 4);
            const int n = static_cast<int>(rng() % 33);
            if (kind == 0) {
                uint32_t value = 0;
                for (int left = n; left > 0 && expected_error == 0; left -= 8)
                    value = (value << std::min(left, 8)) |
                            static_cast<uint32_t>(expected.get_bits_le8(std::min(left, 8), expected_error));
                const uint32_t got = r.get(n);
                if (expected_error == 0) {
                    ASSERT_EQ(got, value);
                }
            } else if (kind == 1) {
                expected_error = expected.skip_bits(n);
                r.skip(n);
            } else if (kind == 2) {
                expected_error = expected.byte_align();
                r.align();
            } else {
                const int steps = static_cast<int>(rng() % 40) - 20;
                const int gain = expected.peek_8bits(expected_error);
                if (expected_error == 0 && gain != 0)
                    expected_error = expected.poke_8bits(static_cast<unsigned char>(std::clamp(gain + steps, 0, 255)));
                r.move_gain(steps);
            }
            ASSERT_EQ(r.error, expected_error) << "round " << round << " op " << op;
            if (expected_error == 0) {
                Bitstream stored(data.data(), static_cast<int>(data.size()));
                r.store(stored);
                ASSERT_EQ(position_of(stored), position_of(expected));
                ASSERT_EQ(stored.bytes_left, expected.bytes_left);
            }
        }
        EXPECT_TRUE(std::equal(data.begin(), data.end(), padded.begin())) << "round " << round;
    }
}

// Every code word of every codebook once, in random order, with sign bits
// and escapes (every third with a prefix of up to 70 ones, longer than one
// 57-bit look-up); runs of any length must end where the writer put the
// code word boundaries.
TEST(AACBitReader, SkipsRunsOfCodeWordsToTheirEnds)
{
    std::mt19937 rng(17);
    for (int cb = 0; cb < AACBitReader::kCodebooks; ++cb) {
        std::vector<int> order(static_cast<size_t>(aac_codebook_size(cb)));
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), rng);
        BitWriter w;
        std::vector<int64_t> ends = {0};
        for (size_t i = 0; i < order.size(); ++i) {
            if (cb == 0)
                put_code(w, 0, order[i]);
            else
                put_spectral(w, cb, rng, order[i], i % 3 == 0 ? 70 : 8);
            ends.push_back(static_cast<int64_t>(w.position()));
        }
        std::vector<unsigned char> data = w.bytes(0);
        const int words = static_cast<int>(order.size());
        for (int count = 1; count <= words; ++count) {
            Bitstream bits(data.data(), static_cast<int>(data.size()));
            AACBitReader r(bits);
            r.skip_codes(cb, count);
            ASSERT_EQ(r.error, 0) << "codebook " << cb << " count " << count;
            ASSERT_EQ(r.position(), ends[static_cast<size_t>(count)]) << "codebook " << cb << " count " << count;
        }
        // One more code word than the data holds runs into the end.
        Bitstream bits(data.data(), static_cast<int>(data.size()));
        AACBitReader r(bits);
        r.skip_codes(cb, words + 8);
        EXPECT_EQ(r.error, fourcc("Ebef")) << "codebook " << cb;
    }
    std::vector<unsigned char> data(4, 0);
    for (int cb : {-1, 12}) {
        Bitstream bits(data.data(), 4);
        AACBitReader r(bits);
        r.skip_codes(cb, 1);
        EXPECT_EQ(r.error, fourcc("Ebps"));
    }
}

// Random bits, cut anywhere: the tree walk's code word ends, and its error
// where the bits run out, are the reader's for every count.
TEST(AACBitReader, RandomBitsEndLikeTheTreeWalk)
{
    std::mt19937 rng(23);
    for (int cb = 0; cb < AACBitReader::kCodebooks; ++cb) {
        for (int round = 0; round < 40; ++round) {
            std::vector<unsigned char> data(1 + rng() % 40);
            for (auto& byte : data)
                byte = static_cast<unsigned char>(rng() & rng()); // more 0 bits: shorter codes
            std::vector<unsigned char> padded = data;
            padded.push_back(0);
            Bitstream walk(padded.data(), static_cast<int>(data.size()));
            std::vector<int64_t> ends = {0};
            int error = 0;
            while (error == 0) {
                error = cb == 0 ? skip_scale_factor(walk) : skip_spectral_data(static_cast<unsigned char>(cb), walk);
                if (error == 0)
                    ends.push_back(position_of(walk));
            }
            for (size_t count = 1; count <= ends.size(); ++count) {
                Bitstream bits(data.data(), static_cast<int>(data.size()));
                AACBitReader r(bits);
                r.skip_codes(cb, static_cast<int>(count));
                if (count < ends.size()) {
                    ASSERT_EQ(r.error, 0) << "codebook " << cb << " count " << count;
                    ASSERT_EQ(r.position(), ends[count]) << "codebook " << cb << " count " << count;
                } else {
                    ASSERT_EQ(r.error, error) << "codebook " << cb;
                }
            }
        }
    }
}

} // namespace
} // namespace test
} // namespace KEL
