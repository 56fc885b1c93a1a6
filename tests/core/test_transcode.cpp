// The transcoding pipeline: decoder -> ring buffer -> resampler -> encoder
// -> packets in an anonymous scratch file, driven through a fake format
// whose packets hold known samples.
#include "common/testsupport.h"
#include "core/bsfile.h"
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace KEL;
using namespace KEL::test;

namespace {

struct Closer {
    void operator()(Clip* c) const
    {
        c->close(nullptr);
        delete c;
    }
};
using ClipPtr = std::unique_ptr<Clip, Closer>;
using FakePtr = std::unique_ptr<FakeClip, Closer>;

// A source clip of `packets` packets of `frames` frames each; left is a
// ramp of distinct values, right its negation.
FakePtr make_source(float rate, int packets, int frames)
{
    FakePtr clip(new FakeClip(rate, frames, nullptr));
    int n = 0;
    for (int p = 0; p < packets; ++p) {
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

} // namespace

TEST(Transcode, SameRateCopiesSamplesExactlyIntoNewPacketSize)
{
    auto source = make_source(44100.0f, 10, 1000);
    FakeClip target(44100.0f, 1024, nullptr);
    int err = -1;
    ClipPtr result(target.transcode(source.get(), 0, 9, &err, nullptr));
    ASSERT_EQ(err, 0);
    ASSERT_NE(result, nullptr);
    // 10000 frames in packets of 1024: nine full packets and a padded tenth.
    EXPECT_EQ(result->packet_count, 10);
    std::vector<float> sl, sr, tl, tr;
    source->decode_all(sl, sr);
    static_cast<FakeClip*>(result.get())->decode_all(tl, tr);
    ASSERT_EQ(tl.size(), 10240u);
    for (size_t i = 0; i < sl.size(); ++i) {
        ASSERT_EQ(tl[i], sl[i]) << i;
        ASSERT_EQ(tr[i], sr[i]) << i;
    }
    for (size_t i = sl.size(); i < tl.size(); ++i)
        ASSERT_EQ(tl[i], 0.0f) << "flush pads with silence";
    EXPECT_NEAR(result->duration(), 10240.0f / 44100.0f, 1e-6);
}

TEST(Transcode, ResultOutlivesSourceAndAppliesSourceGain)
{
    auto source = make_source(44100.0f, 4, 1024);
    source->packets[1]->gain = 0.5f;
    FakeClip target(44100.0f, 1024, nullptr);
    int err = 0;
    ClipPtr result(target.transcode(source.get(), 0, 3, &err, nullptr));
    ASSERT_NE(result, nullptr);
    std::vector<float> sl, sr, tl, tr;
    source->decode_all(sl, sr);
    source->close(nullptr);
    source.reset();
    static_cast<FakeClip*>(result.get())->decode_all(tl, tr);
    ASSERT_EQ(tl.size(), sl.size());
    for (size_t i = 0; i < sl.size(); ++i)
        ASSERT_EQ(tl[i], sl[i]) << i;
    EXPECT_FLOAT_EQ(tl[1024 + 500], 0.5f * (1524 % 2000) / 2000.0f);
}

TEST(Transcode, RateChangeKeepsDurationWithinOneTargetPacket)
{
    auto source = make_source(44100.0f, 43, 1024);
    FakeClip target(48000.0f, 1152, nullptr);
    int err = 0;
    ClipPtr result(target.transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_NEAR(result->duration(), source->duration(), 1152.0 / 48000.0);
    EXPECT_GE(result->duration(), source->duration());
}

TEST(Transcode, RangeLoopIsBoundedByCountNotLast)
{
    auto source = make_source(44100.0f, 8, 1024);
    FakeClip target(44100.0f, 1024, nullptr);
    int err = 0;
    // first 2, last 5: count 4, so packets 2 and 3 are transcoded and the
    // flush comes at i == 3.
    ClipPtr two(target.transcode(source.get(), 2, 5, &err, nullptr));
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(two->packet_count, 2);
    std::vector<float> l, r;
    static_cast<FakeClip*>(two.get())->decode_all(l, r);
    EXPECT_EQ(l[0], static_cast<float>(2048 % 2000) / 2000.0f);
    // first 5, last 6: count 2, so the loop never runs.
    ClipPtr none(target.transcode(source.get(), 5, 6, &err, nullptr));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(none->packet_count, 0);
}

TEST(Transcode, BadRangeAndMissingCodec)
{
    auto source = make_source(44100.0f, 3, 256);
    FakeClip target(44100.0f, 256, nullptr);
    int err = 0;
    EXPECT_EQ(target.transcode(source.get(), -1, 1, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    EXPECT_EQ(target.transcode(source.get(), 0, 3, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    EXPECT_EQ(target.transcode(source.get(), 2, 1, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    target.refuse_encoder = true;
    EXPECT_EQ(target.transcode(source.get(), 0, 2, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Ecod"));
}

TEST(Transcode, UndecodablePacketBecomesSilenceWithWarning)
{
    auto source = make_source(44100.0f, 3, 1024);
    source->decode_error = [](int packet) { return packet == 1 ? fourcc("Ersz") : 0; };
    FakeClip target(44100.0f, 1024, nullptr);
    int err = 0;
    ClipPtr result(target.transcode(source.get(), 0, 2, &err, nullptr));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    std::vector<float> l, r;
    static_cast<FakeClip*>(result.get())->decode_all(l, r);
    ASSERT_EQ(l.size(), 3072u);
    for (int i = 1024; i < 2048; ++i)
        ASSERT_EQ(l[i], 0.0f);
    EXPECT_NE(l[2048 + 10], 0.0f);
}

TEST(Transcode, OtherDecodeErrorsFailWithoutResult)
{
    auto source = make_source(44100.0f, 3, 1024);
    source->decode_error = [](int packet) { return packet == 2 ? fourcc("Edec") : 0; };
    FakeClip target(44100.0f, 1024, nullptr);
    const int before = open_descriptors();
    int err = 0;
    EXPECT_EQ(target.transcode(source.get(), 0, 2, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Edec"));
    EXPECT_EQ(open_descriptors(), before) << "the scratch file must be closed";
}

TEST(Transcode, CancelledByProgressLeavesNothingOpen)
{
    auto source = make_source(44100.0f, 400, 256);
    FakeClip target(44100.0f, 256, nullptr);
    ProgressLog log;
    log.cancel_after = 2;
    _kel_progress_ext_t progress{&ProgressLog::callback, &log, 0.0f};
    const int before = open_descriptors();
    int err = 0;
    EXPECT_EQ(target.transcode(source.get(), 0, 399, &err, &progress), nullptr);
    EXPECT_EQ(err, fourcc("Ebrk"));
    EXPECT_EQ(log.values.size(), 3u);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Transcode, ProgressIsThrottledToHalfPercentSteps)
{
    auto source = make_source(44100.0f, 1000, 64);
    FakeClip target(44100.0f, 64, nullptr);
    ProgressLog log;
    _kel_progress_ext_t progress{&ProgressLog::callback, &log, 0.0f};
    int err = 0;
    ClipPtr result(target.transcode(source.get(), 0, 999, &err, &progress));
    ASSERT_NE(result, nullptr);
    ASSERT_FALSE(log.values.empty());
    // 1000 packets at 0.1 percent each: about one report every fifth
    // packet, never two closer than 0.5 percent, never a gap of a whole one.
    EXPECT_GE(log.values.size(), 190u);
    EXPECT_LE(log.values.size(), 199u);
    for (size_t i = 1; i < log.values.size(); ++i) {
        EXPECT_GE(log.values[i] - log.values[i - 1], 0.5f);
        EXPECT_LE(log.values[i] - log.values[i - 1], 0.61f);
    }
}
