// Layer III gain and side-information readers on real frames: lame encodes
// the files, mp3gain (without tags) is the oracle for the gain rewrite.
#include "mp3fixtures.h"

#include "core/fourcc.h"
#include "mp3/mp3framegain.h"

#include <gtest/gtest.h>

#include <cmath>

namespace KEL {
namespace {

using test::Bytes;

struct Encoding {
    const char* name;
    int rate;
    int channels;
    std::vector<std::string> lame;
};

const Encoding kEncodings[] = {
    {"cbr128", 44100, 2, {"-b", "128"}},
    {"vbr", 44100, 2, {"-V2"}},
    {"mono", 44100, 1, {"-m", "m", "-b", "64"}},
    {"mpeg2", 22050, 2, {"-b", "64", "--resample", "22.05"}},
    {"mpeg25", 8000, 2, {"-b", "16", "--resample", "8"}},
    {"crc", 44100, 2, {"-p", "-b", "128", "--id3v2-only", "--tt", "KEL"}},
    {"crc-mpeg2-mono", 16000, 1, {"-p", "-m", "m", "-b", "32", "--resample", "16"}},
};

void PrintTo(const Encoding& e, std::ostream* os)
{
    *os << e.name;
}

Bytes frame_bytes(const Bytes& file, const test::FrameAt& f)
{
    return Bytes(file.begin() + long(f.offset), file.begin() + long(f.offset + size_t(f.header.frame_length)));
}

// A gain halfway between n and n + 1 steps away from 1, so that it lands
// on n steps whatever the rounding of the last bits.
float gain_for_steps(int n)
{
    return float(std::pow(2.0, (n + (n < 0 ? -0.5 : 0.5)) / 4.0));
}

class LameFile : public ::testing::TestWithParam<Encoding> {
protected:
    void SetUp() override
    {
        const Encoding& e = GetParam();
        path_ = test::encode_test_mp3(dir_, e.name, e.rate, e.channels, e.lame);
        ASSERT_FALSE(path_.empty()) << "sox or lame failed";
        file_ = test::read_file(path_);
        walk_ = test::walk_frames(file_);
        ASSERT_EQ(walk_.stop, file_.size());
        ASSERT_GT(walk_.frames.size(), 20u);
    }

    test::ScratchDir dir_;
    std::string path_;
    Bytes file_;
    test::FrameWalk walk_;
};

// The readers agree with the independent parse on every frame; gain 1.0
// reproduces each frame (so the recomputed CRC equals lame's).
TEST_P(LameFile, ReadersAndUnitGain)
{
    for (size_t i = 0; i < walk_.frames.size(); ++i) {
        const Bytes f = frame_bytes(file_, walk_.frames[i]);
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
        ASSERT_EQ(s.protection_absent, GetParam().lame[0] != "-p");
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
        const std::string copy = dir_.path("gained.mp3");
        test::write_file(copy, file_);
        ASSERT_EQ(test::run_tool({"mp3gain", "-g", std::to_string(n), "-s", "s", "-q", copy}), 0);
        const Bytes want = test::read_file(copy);
        ASSERT_EQ(want.size(), file_.size());

        Bytes got = file_;
        int clamped = 0;
        for (size_t i = 0; i < walk_.frames.size(); ++i) {
            const test::FrameAt& at = walk_.frames[i];
            const Bytes f = frame_bytes(file_, at);
            const Bytes out = test::adjusted(f, gain_for_steps(n));
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
    struct Frames : Mp3FrameSource {
        std::vector<Bytes> f;
        int frame_count() override { return int(f.size()); }
        int frame_length(int i) override { return int(f[size_t(i)].size()); }
        int main_data_begin(int i, int& err) override
        {
            return mp3_get_main_data_begin(f[size_t(i)].data(), frame_length(i), err);
        }
        int static_part_size(int i, int& err) override
        {
            return mp3_static_part_size(f[size_t(i)].data(), frame_length(i), err);
        }
    } frames;
    std::vector<long> end{0}; // end[j + 1]: end of frame j's main data
    for (const test::FrameAt& at : walk_.frames) {
        frames.f.push_back(frame_bytes(file_, at));
        end.push_back(end.back() + long(frames.f.back().size()) - test::parse_side_info(frames.f.back()).static_bytes);
    }
    int reaching_back = 0;
    for (size_t i = 0; i < frames.f.size(); ++i) {
        const long begin = end[i] - test::parse_side_info(frames.f[i]).main_data_begin;
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

INSTANTIATE_TEST_SUITE_P(Encodings, LameFile, ::testing::ValuesIn(kEncodings),
                         [](const ::testing::TestParamInfo<Encoding>& info) {
                             std::string n = info.param.name;
                             for (char& c : n)
                                 if (c == '-')
                                     c = '_';
                             return n;
                         });

} // namespace
} // namespace KEL
