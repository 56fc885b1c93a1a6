// The transcoding pipeline: decoder -> ring buffer -> resampler -> encoder
// -> packets in an anonymous scratch file, driven through a fake format
// whose packets hold known samples.
#include "common/testsupport.h"
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <memory>

using namespace KEL;
using namespace KEL::test;

namespace {

// packets of frames frames each; left is a ramp of distinct values, right
// its negation.
std::unique_ptr<FakeClip> make_source(float rate, int packets, int frames)
{
    auto clip = std::make_unique<FakeClip>(rate, frames, nullptr);
    for (int p = 0, n = 0; p < packets; ++p) {
        std::vector<float> l(frames), r(frames);
        for (int i = 0; i < frames; ++i, ++n) {
            l[i] = static_cast<float>(n % 2000) / 2000.0f;
            r[i] = -l[i];
        }
        clip->append(l, r);
    }
    clip->update_stream_info();
    return clip;
}

FakeClip::Lanes decoded(const Owned& clip)
{
    return static_cast<FakeClip*>(clip.get())->decode_all();
}

struct ProgressLog {
    std::vector<float> values;
    int cancel_after = -1;
    static int callback(void* context, float percent)
    {
        auto* log = static_cast<ProgressLog*>(context);
        log->values.push_back(percent);
        return log->cancel_after < 0 || static_cast<int>(log->values.size()) <= log->cancel_after;
    }
};

TEST(Transcode, SameRateCopiesSamplesExactlyIntoNewPacketsThatOutliveTheSource)
{
    auto source = make_source(44100.0f, 10, 1000);
    source->packets[1]->gain = 0.5f; // the source's gains are applied
    FakeClip target(44100.0f, 1024, nullptr);
    int err = -1;
    Owned result(target.transcode(source.get(), 0, 9, &err, nullptr));
    ASSERT_EQ(err, 0);
    ASSERT_NE(result, nullptr);
    // 10000 frames in packets of 1024: nine full packets and a padded tenth.
    EXPECT_EQ(result->packet_count, 10);
    EXPECT_NEAR(result->duration(), 10240.0f / 44100.0f, 1e-6);
    const FakeClip::Lanes want = source->decode_all();
    source.reset();
    const FakeClip::Lanes got = decoded(result);
    ASSERT_EQ(got.left.size(), 10240u);
    for (size_t i = 0; i < got.left.size(); ++i) {
        ASSERT_EQ(got.left[i], i < 10000 ? want.left[i] : 0.0f) << i;
        ASSERT_EQ(got.right[i], i < 10000 ? want.right[i] : 0.0f) << i;
    }
    EXPECT_FLOAT_EQ(got.left[1000 + 500], 0.5f * 1500 / 2000.0f);
}

TEST(Transcode, RateChangeKeepsDurationWithinOneTargetPacket)
{
    auto source = make_source(44100.0f, 43, 1024);
    FakeClip target(48000.0f, 1152, nullptr);
    int err = 0;
    Owned result(target.transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_NEAR(result->duration(), source->duration(), 1152.0 / 48000.0);
    EXPECT_GE(result->duration(), source->duration());
}

TEST(Transcode, RangesAreCheckedAndTheLoopIsBoundedByCount)
{
    auto source = make_source(44100.0f, 8, 1024);
    FakeClip target(44100.0f, 1024, nullptr);
    int err = 0;
    // first 2, last 5: count 4, so packets 2 and 3 are transcoded and the
    // flush comes at i == 3.
    Owned two(target.transcode(source.get(), 2, 5, &err, nullptr));
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(two->packet_count, 2);
    EXPECT_EQ(decoded(two).left[0], static_cast<float>(2048 % 2000) / 2000.0f);
    // first 5, last 6: count 2, so the loop never runs.
    Owned none(target.transcode(source.get(), 5, 6, &err, nullptr));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(none->packet_count, 0);
    for (const auto& [first, last] : std::vector<std::pair<int, int>>{{-1, 1}, {0, 8}, {2, 1}}) {
        EXPECT_EQ(target.transcode(source.get(), first, last, &err, nullptr), nullptr);
        EXPECT_EQ(err, fourcc("EPnm")) << first << ".." << last;
    }
    target.refuse_encoder = true;
    EXPECT_EQ(target.transcode(source.get(), 0, 2, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Ecod"));
}

// A packet that cannot be read ("Ersz") becomes silence with a warning;
// any other decode error fails the transcode and closes the scratch file.
TEST(Transcode, DecodeErrors)
{
    auto source = make_source(44100.0f, 3, 1024);
    source->decode_error = [](int packet) { return packet == 1 ? fourcc("Ersz") : 0; };
    FakeClip target(44100.0f, 1024, nullptr);
    int err = 0;
    Owned result(target.transcode(source.get(), 0, 2, &err, nullptr));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    const FakeClip::Lanes got = decoded(result);
    ASSERT_EQ(got.left.size(), 3072u);
    for (int i = 1024; i < 2048; ++i)
        ASSERT_EQ(got.left[i], 0.0f);
    EXPECT_NE(got.left[2048 + 10], 0.0f);

    source->decode_error = [](int packet) { return packet == 2 ? fourcc("Edec") : 0; };
    const int before = open_descriptors();
    EXPECT_EQ(target.transcode(source.get(), 0, 2, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Edec"));
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Transcode, ProgressEveryHalfPercentAndCancel)
{
    // 1000 packets at 0.1 percent each: about one report every fifth
    // packet, never two closer than 0.5 percent, never a gap of a whole one.
    auto source = make_source(44100.0f, 1000, 64);
    FakeClip target(44100.0f, 64, nullptr);
    ProgressLog log;
    _kel_progress_ext_t progress{&ProgressLog::callback, &log, 0.0f};
    int err = 0;
    Owned result(target.transcode(source.get(), 0, 999, &err, &progress));
    ASSERT_NE(result, nullptr);
    EXPECT_GE(log.values.size(), 190u);
    EXPECT_LE(log.values.size(), 199u);
    for (size_t i = 1; i < log.values.size(); ++i) {
        EXPECT_GE(log.values[i] - log.values[i - 1], 0.5f);
        EXPECT_LE(log.values[i] - log.values[i - 1], 0.61f);
    }
    // A cancel stops at once and leaves nothing open.
    log = ProgressLog{};
    log.cancel_after = 2;
    const int before = open_descriptors();
    EXPECT_EQ(target.transcode(source.get(), 0, 999, &err, &progress), nullptr);
    EXPECT_EQ(err, fourcc("Ebrk"));
    EXPECT_EQ(log.values.size(), 3u);
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
