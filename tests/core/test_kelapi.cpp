// The flat entry points: scratch error words, clearing rules, progress
// wrapping and the raw packet size setting.
#include "core/fourcc.h"
#include "core/progress.h"
#include "fakeformat.h"
#include "kel.h"

#include <gtest/gtest.h>

#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

struct Calls {
    std::vector<float> values;
    int answer = 1;
    static int callback(void* context, float percent)
    {
        auto* calls = static_cast<Calls*>(context);
        calls->values.push_back(percent);
        return calls->answer;
    }
};

FakeClip* make_clip(int packets, int frames)
{
    auto* clip = new FakeClip(44100.0f, frames, nullptr);
    std::vector<float> l(frames, 0.25f), r(frames, -0.25f);
    for (int i = 0; i < packets; ++i)
        clip->append(l, r);
    clip->update_stream_info();
    return clip;
}

} // namespace

TEST(EntryPoints, CreateRefusesUnknownFormatsEvenWithoutErrorWord)
{
    int err = 0;
    EXPECT_EQ(kel_clip_create(0, 2, 44100.0f, 16, 0, 0, &err), nullptr);
    EXPECT_EQ(err, KEL_ERR_CLIP_TYPE);
    err = 0;
    EXPECT_EQ(kel_clip_create(7, 2, 44100.0f, 16, 0, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eclt"));
    EXPECT_EQ(kel_clip_create(-3, 2, 44100.0f, 16, 0, 0, nullptr), nullptr);
}

TEST(EntryPoints, ErrorWordIsClearedBeforeForwarding)
{
    FakeClip* clip = make_clip(4, 64);
    int err = 12345;
    kel_clip_t* copy = kel_clip_copy(clip, 1, 2, &err);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kel_clip_packet_count(copy), 2);
    err = 777;
    EXPECT_EQ(kel_clip_packet_frame_count(copy, 1, &err), 64);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kel_clip_packet_frame_count(copy, 2, nullptr), 0) << "null error words are fine";
    EXPECT_EQ(kel_clip_cut(clip, 3, 2, &err), nullptr);
    EXPECT_EQ(err, KEL_ERR_PACKET_NUMBER);
    EXPECT_EQ(kel_clip_cut(clip, 3, 2, nullptr), nullptr);
    kel_clip_close(copy, nullptr);
    kel_clip_close(clip, nullptr);
}

TEST(EntryPoints, GainAndFadeResultsReportSuccess)
{
    FakeClip* clip = make_clip(3, 64);
    int err = 0;
    EXPECT_NE(kel_clip_packet_set_gain(clip, 1, 0.5f, &err), 0);
    EXPECT_EQ(kel_clip_packet_get_gain(clip, 1, &err), 0.5f);
    EXPECT_EQ(kel_clip_packet_set_gain(clip, 1, -1.0f, &err), 0);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
    EXPECT_NE(kel_clip_log_fade(clip, 0, 2, 1.0f, 0.0f, &err), 0);
    EXPECT_EQ(kel_clip_log_fade(clip, 0, 2, 1.2f, 0.0f, &err), 0);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
    std::vector<float> l(64), r(64);
    float* buffers[2] = {l.data(), r.data()};
    EXPECT_EQ(kel_clip_packet_decode(clip, 2, buffers, &err), 64);
    EXPECT_EQ(l[63], 0.0f) << "the host gets the packet with its fade applied";
    kel_clip_close(clip, nullptr);
}

TEST(EntryPoints, ProgressRecordsAreWrappedOrLeftOut)
{
    FakeClip* source = make_clip(40, 64);
    FakeClip target(44100.0f, 64, nullptr);
    Calls calls;
    _kel_progress_t with_callback{&Calls::callback, &calls};
    _kel_progress_t without_callback{nullptr, &calls};
    int err = 0;
    const _kel_progress_t* records[] = {nullptr, &without_callback};
    for (const _kel_progress_t* progress : records) {
        kel_clip_t* result = kel_clip_transcode(&target, source, 0, 39, &err, progress);
        ASSERT_NE(result, nullptr);
        kel_clip_close(result, progress);
    }
    EXPECT_TRUE(calls.values.empty());

    kel_clip_t* result = kel_clip_transcode(&target, source, 0, 39, &err, &with_callback);
    ASSERT_NE(result, nullptr);
    EXPECT_FALSE(calls.values.empty());
    kel_clip_close(result, nullptr);

    calls = Calls{};
    calls.answer = 0;
    EXPECT_EQ(kel_clip_transcode(&target, source, 0, 39, &err, &with_callback), nullptr);
    EXPECT_EQ(err, KEL_ERR_CANCELLED);
    EXPECT_EQ(calls.values.size(), 1u) << "the first refusal cancels";
    kel_clip_close(source, nullptr);
}

TEST(EntryPoints, BasePercentMapsSubOperationOntoTail)
{
    Calls calls;
    _kel_progress_ext_t progress{&Calls::callback, &calls, 50.0f};
    EXPECT_TRUE(report_progress(&progress, 50.0f));
    EXPECT_TRUE(report_progress(&progress, 100.0f));
    EXPECT_TRUE(report_progress(&progress, 0.0f));
    EXPECT_EQ(calls.values, (std::vector<float>{75.0f, 100.0f, 50.0f}));

    calls.values.clear();
    progress.base_percent = 20.0f;
    report_progress(&progress, 37.0f);
    EXPECT_NEAR(calls.values.back(), 20.0 + 37.0 * 0.8, 1e-5);
    for (float base : {0.0f, -5.0f, 100.0f, 250.0f}) {
        progress.base_percent = base;
        report_progress(&progress, 42.5f);
        EXPECT_EQ(calls.values.back(), 42.5f) << base;
    }
    calls.answer = 0;
    EXPECT_FALSE(report_progress(&progress, 1.0f));
    EXPECT_TRUE(report_progress(nullptr, 1.0f));
}

TEST(EntryPoints, RawPacketSizeIsKeptAsGiven)
{
    EXPECT_EQ(kel_get_raw_packet_size(), 0);
    kel_set_raw_packet_size(-17);
    EXPECT_EQ(kel_get_raw_packet_size(), -17);
    kel_set_raw_packet_size(0);
    EXPECT_EQ(kel_get_raw_packet_size(), 0);
}

TEST(EntryPoints, OverviewLifecycle)
{
    kel_clip_overview_destroy(nullptr);
    FakeClip* clip = make_clip(8, 64);
    kel_overview_t* overview = kel_clip_overview_create(clip, nullptr);
    ASSERT_NE(overview, nullptr);
    std::vector<float> out(8);
    int err = 99;
    EXPECT_EQ(kel_overview_generate(overview, 0, 7, 4, 0, out.data(), &err), 4);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(out[0], 0.25f);
    EXPECT_EQ(out[1], -0.25f);
    EXPECT_EQ(kel_max_sample_find(overview, 0, 7, &err), 0.25f);
    EXPECT_EQ(kel_rms_generate(overview, 0, 8, out.data(), &err), 0);
    EXPECT_EQ(err, KEL_ERR_PACKET_NUMBER);
    kel_clip_overview_destroy(overview);
    kel_clip_close(clip, nullptr);
}

TEST(EntryPoints, CreateWritesErrorWordOnlyOnFailure)
{
    int err = 4242;
    kel_clip_t* clip = kel_clip_create(KEL_FORMAT_WAVE, 2, 44100.0f, 16, 0, 0, &err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(err, 4242);
    EXPECT_EQ(kel_clip_packet_count(clip), 0);
    kel_clip_close(clip, nullptr);
    EXPECT_EQ(kel_clip_create(KEL_FORMAT_WAVE, 3, 44100.0f, 16, 0, 0, &err), nullptr);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
}
