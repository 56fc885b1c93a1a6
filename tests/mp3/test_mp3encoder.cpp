// MP3 encoding through LAME: WAVE files transcoded into MP3 clips, saved
// and checked with ffprobe and ffmpeg; and the library missing from the
// folder it is looked for in.
#include "core/fourcc.h"
#include "mp3/clipmp3.h"
#include "mp3/lamelibrary.h"

#include "mp3fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

using namespace KEL;
using namespace KEL::test;

namespace {

// LAME's delay ahead of the first input sample in its decoded output: 576
// frames of encoder look-ahead plus 529 of decoder filter delay.
constexpr int kLameDelay = 576 + 529;

struct Case {
    std::string name;
    int source_rate, channels, target_rate, bit_rate;
    bool vbr;
    int mpeg_version, samples_per_frame;
};

// Best match of `got` against `want` shifted by `delay` frames, as the
// ratio of the error's energy to the signal's.
double error_ratio(const std::vector<float>& got, const std::vector<float>& want, size_t delay)
{
    double error = 0.0;
    double signal = 0.0;
    for (size_t i = 4096; i + delay < got.size() && i + 4096 < want.size(); ++i) {
        const double d = static_cast<double>(got[i + delay]) - want[i];
        error += d * d;
        signal += static_cast<double>(want[i]) * want[i];
    }
    return signal > 0.0 ? error / signal : 1.0;
}

} // namespace

TEST(MP3Encoder, WaveFilesBecomeMp3ClipsOfTheRightShapeAndSound)
{
    const std::vector<Case> cases = {
        {"cbr", 44100, 2, 44100, 128000, false, 1, 1152},
        {"vbr", 44100, 2, 44100, 320000, true, 1, 1152},
        {"mono", 44100, 1, 44100, 96000, false, 1, 1152},
        {"lsf", 44100, 2, 22050, 64000, false, 2, 576},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string wav = test_wave("enc-" + c.name, c.source_rate, c.channels);
        int err = 0;
        ClipPtr source = open_clip(wav, err);
        ASSERT_NE(source, nullptr);
        ClipPtr target(ClipMP3::create_empty(c.channels, static_cast<float>(c.target_rate), c.bit_rate, false, &err));
        ASSERT_NE(target, nullptr);
        target->set_is_vbr(c.vbr ? 1 : 0);

        ClipPtr mp3(target->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_NE(mp3, nullptr);
        _kel_clip_info_t info{};
        mp3->get_info(&info);
        EXPECT_EQ(info.format, KEL_FORMAT_MP3);
        EXPECT_EQ(info.channels, c.channels);
        EXPECT_EQ(info.sample_rate, static_cast<float>(c.target_rate));
        EXPECT_EQ(info.mpeg_version, c.mpeg_version);
        EXPECT_EQ(info.rate_mode, c.vbr ? 2 : 1);
        if (!c.vbr) {
            EXPECT_EQ(info.bit_rate, c.bit_rate);
        }
        EXPECT_EQ(info.stereo_mode, c.channels == 1 ? KELClipStereoModeSingleChannel : KELClipStereoModeJointStereo);

        const std::string out = scratch().path("enc-" + c.name + ".mp3");
        ASSERT_EQ(mp3->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
        // Length: the source's, rounded up to whole encoder blocks of 1152
        // input frames (the last one padded with silence), plus LAME's
        // delay, rounded up to whole MP3 frames, plus at most one frame.
        const double ratio = static_cast<double>(c.target_rate) / c.source_rate;
        const double frames = std::ceil(1.55 * c.source_rate / 1152.0) * 1152.0 * ratio + kLameDelay;
        const double spf = c.samples_per_frame;
        const double seconds = probe_duration(out);
        EXPECT_GE(seconds * c.target_rate, frames - 1.0);
        EXPECT_LE(seconds * c.target_rate, std::ceil(frames / spf) * spf + spf + 1.0);

        // Sounds like its source: the sine (and the noise) come back after
        // the delay, channel for channel, with a small coding error.
        const Samples decoded = ffmpeg_mp3_frames(out);
        Samples reference = decode_clip(*source);
        if (c.target_rate == c.source_rate) {
            EXPECT_LT(error_ratio(decoded.left, reference.left, kLameDelay), 0.05);
            if (c.channels == 2) {
                // Pink noise codes less exactly than the sine.
                EXPECT_LT(error_ratio(decoded.right, reference.right, kLameDelay), 0.2);
                EXPECT_GT(error_ratio(decoded.left, reference.right, kLameDelay), 0.5);
            }
        }
    }
}

TEST(MP3Encoder, MissingLibraryFailsTheTranscodeWithoutLeavingFiles)
{
    // A fresh process: the library must not have been loaded before.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int err = 0;
            ClipPtr source = open_clip(test_wave("enc-cbr", 44100, 2), err);
            ClipPtr target(ClipMP3::create_empty(2, 44100.0f, 128000, false, &err));
            TempDir empty_folder;
            setenv("KEL_PRIVATE_FRAMEWORKS", empty_folder.root().c_str(), 1);
            PrivateTmpdir tmp;
            const int step = lame_load_from_main_bundle();
            Clip* mp3 = target->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr);
            const bool ok = step == -7 && !lame_is_loaded() && lame_init() == nullptr && mp3 == nullptr &&
                            err == fourcc("Ecod") && tmp.dir().entries().empty();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
