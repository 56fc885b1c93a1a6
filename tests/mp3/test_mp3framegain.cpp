// Layer III lossless gain, side-information readers and the reservoir walk,
// on synthetic frames against an independent side-information parser, an
// independently written CRC and exact step arithmetic, and on lame's files
// against mp3gain's rewrite of them.
#include "mp3fixtures.h"

#include "core/fourcc.h"
#include "mp3/mp3framegain.h"

#include "coded/packetac.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace KEL {
namespace {

using test::adjusted;
using test::Bytes;
using test::expected_after;
using test::parse_side_info;
using test::read_field;
using test::reference_crc;
using test::SideInfo;

// Whole steps for a gain, from exact arithmetic: 20 log10(g) over the
// decibels of one step, plus 0.001, toward zero.
long double reference_step_value(double g)
{
    return 20.0L * std::log10((long double)g) / (5.0L * std::log10(2.0L)) + 0.001L;
}

// A frame of random bytes behind a valid header (MPEG version bits 3, 2 or
// 0), with the given global_gains and main_data_begin and a correct CRC.
Bytes synthetic_frame(std::mt19937& rng, unsigned version_bits, bool crc, bool mono,
                      const std::vector<int>& gains, int main_data_begin, int length)
{
    Bytes f(static_cast<size_t>(length));
    for (auto& c : f)
        c = static_cast<unsigned char>(rng());
    test::write_field(f, 0, 11, 0x7FF);
    test::write_field(f, 11, 2, version_bits);
    test::write_field(f, 13, 2, 1); // Layer III
    test::write_field(f, 15, 1, crc ? 0 : 1);
    test::write_field(f, 16, 4, 9);
    test::write_field(f, 20, 2, 0);
    test::write_field(f, 24, 2, mono ? 3 : 1);
    const bool mpeg1 = version_bits == 3;
    test::write_field(f, crc ? 48 : 32, mpeg1 ? 9 : 8, unsigned(main_data_begin));
    const SideInfo s = parse_side_info(f);
    for (size_t i = 0; i < s.gain_bits.size(); ++i)
        test::write_field(f, s.gain_bits[i], 8, unsigned(gains[i % gains.size()]));
    if (crc) {
        const unsigned sum = reference_crc(f, s.static_bytes);
        f[4] = static_cast<unsigned char>(sum >> 8);
        f[5] = static_cast<unsigned char>(sum);
    }
    return f;
}

struct Layout {
    unsigned version_bits;
    bool mono;
    size_t fields; // global_gain fields per frame
};
const Layout kLayouts[] = {{3, false, 4}, {3, true, 2}, {2, false, 2}, {2, true, 1}, {0, true, 1}};

TEST(Mp3FrameGain, QuantizedGainAndStepsAgree)
{
    // The documented points, including the rounding toward 1 of exact steps
    // below 1 (0.5 is -3 steps) and the floor below 1e-12.
    const struct {
        float gain;
        int steps;
    } points[] = {{1.0f, 0}, {1.1f, 0}, {0.9f, 0}, {1.2f, 1}, {10.0f, 13}, {0.1f, -13},
                  {2.0f, 4}, {0.5f, -3},  {4.0f, 8}, {0.25f, -7}};
    std::mt19937 rng(11);
    const Bytes frame = synthetic_frame(rng, 3, false, false, {128}, 0, 417);
    const size_t field = parse_side_info(frame).gain_bits[0];
    for (const auto& p : points) {
        EXPECT_EQ(int(reference_step_value(p.gain)), p.steps) << p.gain;
        EXPECT_EQ(int(read_field(adjusted(frame, p.gain), field, 8)) - 128, p.steps) << p.gain;
        EXPECT_NEAR(mp3_quantized_gain(p.gain), std::pow(2.0, p.steps / 4.0), 1e-6 * std::pow(2.0, p.steps / 4.0))
            << p.gain;
    }
    EXPECT_EQ(mp3_quantized_gain(0.0f), 0.0f);
    EXPECT_EQ(mp3_quantized_gain(0.99e-12f), 0.0f);
    EXPECT_GT(mp3_quantized_gain(1.01e-12f), 0.0f);

    // Over a sweep of gains, the steps adjust_gain applies are the exact
    // ones, and mp3_quantized_gain reports exactly those steps.
    int checked = 0;
    for (int i = 0; i < 3000; ++i) {
        const float g = float(std::pow(10.0, -3.0 + 6.0 * i / 3000.0));
        const long double v = reference_step_value(g);
        if (std::fabs(v - std::round(v)) < 1e-4L)
            continue; // too close to a step boundary for single precision
        const int steps = int(v);
        const Bytes out = adjusted(frame, g);
        ASSERT_EQ(int(read_field(out, field, 8)) - 128, steps) << g;
        ASSERT_NEAR(mp3_quantized_gain(g), std::pow(2.0, steps / 4.0), 1e-6 * std::pow(2.0, steps / 4.0)) << g;
        ++checked;
    }
    EXPECT_GT(checked, 2900);
}

// The gain to store for the step nearest a wish: stored and saved, it moves
// the fields by exactly that step, and the step reported is the one applied.
// Storing the exact step value instead lands one step short for every
// attenuation (the trap of quantize-then-save).
TEST(Mp3FrameGain, NearestStepGainLandsOnTheStep)
{
    std::mt19937 rng(12);
    const Bytes frame = synthetic_frame(rng, 3, false, false, {128}, 0, 417);
    const size_t field = parse_side_info(frame).gain_bits[0];
    for (int n = -40; n <= 40; ++n) {
        // Wishes anywhere within a step of n (in decibels) round to n.
        for (const double off : {-0.49, 0.0, 0.49}) {
            const float wish = float(std::pow(2.0, (n + off) / 4.0));
            const float stored = PacketAC::nearest_step_gain(wish);
            ASSERT_EQ(int(read_field(adjusted(frame, stored), field, 8)) - 128, n) << n << " " << off;
            ASSERT_NEAR(mp3_quantized_gain(stored), std::pow(2.0, n / 4.0), 1e-6 * std::pow(2.0, n / 4.0));
        }
        if (n < 0) { // the exact step value itself truncates toward 1
            const float exact = float(std::pow(2.0, n / 4.0));
            EXPECT_EQ(int(read_field(adjusted(frame, exact), field, 8)) - 128, n + 1) << n;
        }
    }
    EXPECT_EQ(PacketAC::nearest_step_gain(1.0f), 1.0f);
    EXPECT_EQ(PacketAC::nearest_step_gain(0.0f), 0.0f);
}

TEST(Mp3FrameGain, SyntheticFramesEveryLayout)
{
    std::mt19937 rng(5);
    // 0 stays 0, 3 meets the lower bound, 250 the upper one.
    const std::vector<int> gains = {250, 0, 3, 140};
    const float gain_values[] = {4.0f, 0.25f, 2.0f, 0.5f, 1.2f, 0.0f, 1e30f};
    const int gain_steps[] = {8, -7, 4, -3, 1, -255, 255};
    for (const Layout& l : kLayouts) {
        for (bool crc : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "version bits " << l.version_bits << " mono " << l.mono
                                              << " crc " << crc);
            const Bytes f = synthetic_frame(rng, l.version_bits, crc, l.mono, gains, 77, 300);
            ASSERT_EQ(parse_side_info(f).gain_bits.size(), l.fields);
            EXPECT_EQ(adjusted(f, 1.0f), f); // a correct CRC is reproduced
            for (size_t i = 0; i < std::size(gain_values); ++i) {
                int status = -1;
                const Bytes out = adjusted(f, gain_values[i], &status);
                EXPECT_EQ(status, 0);
                EXPECT_EQ(out, expected_after(f, gain_steps[i])) << "gain " << gain_values[i];
            }

            // The readers: sizes from the independent parse (36 for
            // unprotected MPEG-1 stereo, 15 for protected MPEG-2 mono, ...).
            int err = -1;
            EXPECT_EQ(mp3_static_part_size(f.data(), 6, err), parse_side_info(f).static_bytes);
            EXPECT_EQ(err, 0);
            EXPECT_EQ(mp3_get_main_data_begin(f.data(), 8, err), 77);
            EXPECT_EQ(err, 0);
            EXPECT_EQ(mp3_static_part_size(f.data(), 5, err), 0);
            EXPECT_EQ(err, fourcc("Ebef"));
            err = 0;
            EXPECT_EQ(mp3_get_main_data_begin(f.data(), 7, err), 0);
            EXPECT_EQ(err, fourcc("Ebef"));
        }
    }
    // The largest MPEG-1 value needs all 9 bits.
    const Bytes big = synthetic_frame(rng, 3, true, false, {1}, 511, 100);
    int err = -1;
    EXPECT_EQ(mp3_get_main_data_begin(big.data(), int(big.size()), err), 511);
}

TEST(Mp3FrameGain, FrameShorterThanSideInformation)
{
    std::mt19937 rng(3);
    const Bytes f = synthetic_frame(rng, 3, false, false, {100}, 0, 417);
    const SideInfo s = parse_side_info(f);
    // 20 bytes hold the first two gain fields whole, the others not at all.
    const Bytes cut(f.begin(), f.begin() + 20);
    ASSERT_LE(s.gain_bits[1] + 8, 160u);
    ASSERT_GE(s.gain_bits[2], 160u);
    int status = 0;
    const Bytes out = adjusted(cut, 2.0f, &status);
    EXPECT_EQ(status, fourcc("Ebef"));
    EXPECT_EQ(read_field(out, s.gain_bits[0], 8), 104u);
    EXPECT_EQ(read_field(out, s.gain_bits[1], 8), 104u);
    Bytes rest = out;
    test::write_field(rest, s.gain_bits[0], 8, 100);
    test::write_field(rest, s.gain_bits[1], 8, 100);
    EXPECT_EQ(rest, cut);
    // Down to the bare header (of a protected frame, whose CRC cannot be
    // written): nothing outside the bytes is touched.
    Bytes head = synthetic_frame(rng, 2, true, true, {9}, 0, 60);
    head.resize(4);
    EXPECT_EQ(adjusted(head, 0.5f, &status), head);
    EXPECT_EQ(status, fourcc("Ebef"));
}

// Frames in memory for the reservoir walk.
class MemoryFrames : public Mp3FrameSource {
public:
    std::vector<Bytes> frames;
    int frame_count() override { return int(frames.size()); }
    int frame_length(int i) override { return int(frames[size_t(i)].size()); }
    int main_data_begin(int i, int& err) override
    {
        return mp3_get_main_data_begin(frames[size_t(i)].data(), frame_length(i), err);
    }
    int static_part_size(int i, int& err) override
    {
        return mp3_static_part_size(frames[size_t(i)].data(), frame_length(i), err);
    }
};

TEST(Mp3FrameGain, PrerollWalk)
{
    std::mt19937 rng(9);
    // MPEG-1 stereo without CRC: 36 static bytes, so 336-byte frames carry
    // 300 bytes of main data.
    auto frame = [&rng](int mdb, int length) { return synthetic_frame(rng, 3, false, false, {90}, mdb, length); };
    MemoryFrames m;
    for (int i = 0; i < 4; ++i)
        m.frames.push_back(frame(0, 336));
    int err = -1;
    auto preroll = [&m, &err, &frame](int mdb, int index) {
        m.frames[size_t(index)] = frame(mdb, 336);
        err = -1;
        return mp3_preroll_count(m, index, err);
    };
    EXPECT_EQ(preroll(0, 3), 0);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(preroll(500, 3), 2);
    EXPECT_EQ(err, 0);
    // Frame 1 with 200 bytes of main data: 500 is exactly two frames' worth.
    m.frames[1] = frame(0, 236);
    EXPECT_EQ(preroll(500, 3), 2);
    EXPECT_EQ(preroll(501, 3), 3);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(preroll(500, 2), 2); // 200 + 300, and frame 0 is the last one
    EXPECT_EQ(err, 0);
    EXPECT_EQ(preroll(300, 0), 0);
    EXPECT_EQ(err, fourcc("Epre"));
    EXPECT_EQ(preroll(500, 1), 1); // runs out after frame 0
    EXPECT_EQ(err, fourcc("Epre"));
    EXPECT_EQ(mp3_preroll_count(m, 4, err), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
    EXPECT_EQ(mp3_preroll_count(m, -1, err), 0);
    EXPECT_EQ(err, fourcc("EPnm"));

    // A frame with no main data, or too short to parse, stops the walk.
    m.frames[1] = frame(0, 36);
    EXPECT_EQ(preroll(500, 3), 1);
    EXPECT_EQ(err, fourcc("Ebps"));
    m.frames[1] = Bytes{0xFF, 0xFB, 0x90};
    EXPECT_EQ(preroll(500, 3), 1);
    EXPECT_EQ(err, fourcc("Ebps"));
    // An unreadable main_data_begin gives 0 with its error.
    m.frames[3] = Bytes{0xFF, 0xFB, 0x90, 0x00};
    EXPECT_EQ(mp3_preroll_count(m, 3, err), 0);
    EXPECT_EQ(err, fourcc("Ebef"));
}

class LameFile : public ::testing::TestWithParam<test::LameStream> {
protected:
    void SetUp() override
    {
        path_ = test::stream_file(GetParam());
        file_ = test::read_file(path_);
        walk_ = test::walk_frames(file_);
        ASSERT_EQ(walk_.stop, file_.size());
        ASSERT_GT(walk_.frames.size(), 20u);
    }

    std::string path_;
    Bytes file_;
    test::FrameWalk walk_;
};

// The readers agree with the independent parse on every frame; gain 1.0
// reproduces each frame (so the recomputed CRC equals lame's).
TEST_P(LameFile, ReadersAndUnitGain)
{
    for (size_t i = 0; i < walk_.frames.size(); ++i) {
        const Bytes f = test::frame_bytes(file_, walk_.frames[i]);
        const test::SideInfo s = test::parse_side_info(f);
        SCOPED_TRACE(::testing::Message() << "frame " << i);
        int err = -1;
        ASSERT_EQ(mp3_get_main_data_begin(f.data(), int(f.size()), err), s.main_data_begin);
        ASSERT_EQ(err, 0);
        ASSERT_EQ(mp3_static_part_size(f.data(), int(f.size()), err), s.static_bytes);
        ASSERT_EQ(err, 0);
        // The parse is sane: the coded bits fit the reservoir plus this
        // frame's main data, and a stored CRC checks.
        ASSERT_LE(s.part2_3_bits, 8 * (s.main_data_begin + int(f.size()) - s.static_bytes));
        ASSERT_EQ(s.protection_absent, !GetParam().protected_frames);
        if (!s.protection_absent) {
            ASSERT_EQ(test::reference_crc(f, s.static_bytes), unsigned(f[4]) << 8 | f[5]);
        }
        ASSERT_EQ(test::adjusted(f, 1.0f), f);
    }
}

// Every frame, CRC included, as mp3gain writes it for the same step count,
// clamping at both ends of the 8-bit range included; nothing outside the
// frames changes. -150 steps is about the most a gain can ask for: below
// 1e-12 every field goes to 0 instead.
TEST_P(LameFile, MatchesMp3gain)
{
    for (int n : {3, -4, 120, -150}) {
        SCOPED_TRACE(::testing::Message() << n << " steps");
        const std::string copy = test::scratch().path("gained.mp3");
        test::write_file(copy, file_);
        ASSERT_EQ(test::run_tool({"mp3gain", "-g", std::to_string(n), "-s", "s", "-q", copy}), 0);
        const Bytes want = test::read_file(copy);
        ASSERT_EQ(want.size(), file_.size());

        Bytes got = file_;
        int clamped = 0;
        for (size_t i = 0; i < walk_.frames.size(); ++i) {
            const test::FrameAt& at = walk_.frames[i];
            const Bytes f = test::frame_bytes(file_, at);
            const Bytes out = test::adjusted(f, test::gain_for_steps(n));
            std::copy(out.begin(), out.end(), got.begin() + long(at.offset));
            ASSERT_EQ(out, Bytes(want.begin() + long(at.offset), want.begin() + long(at.offset + f.size())))
                << "frame " << i;
            for (size_t b : test::parse_side_info(f).gain_bits) {
                const int g = int(test::read_field(f, b, 8));
                clamped += g != 0 && (g + n > 255 || g + n < 0);
            }
        }
        EXPECT_TRUE(got == want);
        if (n == 120 || n == -150) {
            EXPECT_GT(clamped, 0); // the bounds were reached
        }
    }
}

// The reservoir walk against the intervals the main data occupies in the
// concatenated main-data areas.
TEST_P(LameFile, PrerollCoversTheReservoir)
{
    MemoryFrames frames;
    std::vector<long> end{0}; // end[j + 1]: end of frame j's main data
    for (const test::FrameAt& at : walk_.frames) {
        frames.frames.push_back(test::frame_bytes(file_, at));
        end.push_back(end.back() + long(frames.frames.back().size()) - test::parse_side_info(frames.frames.back()).static_bytes);
    }
    int reaching_back = 0;
    for (size_t i = 0; i < frames.frames.size(); ++i) {
        const long begin = end[i] - test::parse_side_info(frames.frames[i]).main_data_begin;
        int want = 0;
        for (size_t j = 0; j < i; ++j)
            want += end[j + 1] > begin;
        int err = -1;
        EXPECT_EQ(mp3_preroll_count(frames, int(i), err), want) << "frame " << i;
        EXPECT_EQ(err, begin < 0 ? fourcc("Epre") : 0) << "frame " << i;
        reaching_back += want > 1;
    }
    EXPECT_GT(reaching_back, 0); // some frames reach past the previous one
}

INSTANTIATE_TEST_SUITE_P(Streams, LameFile, ::testing::ValuesIn(test::lame_streams()),
                         [](const ::testing::TestParamInfo<test::LameStream>& info) { return info.param.name; });

} // namespace
} // namespace KEL
