// The flat entry points: scratch error words, clearing rules and progress
// wrapping. (The C program in tests/capi drives every entry point too.)
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

// packets of frames frames of 0.25 on the left and -0.25 on the right.
FakeClip* make_clip(int packets, int frames)
{
    auto* clip = new FakeClip(44100.0f, frames, nullptr);
    for (int i = 0; i < packets; ++i)
        clip->append(std::vector<float>(frames, 0.25f), std::vector<float>(frames, -0.25f));
    clip->update_stream_info();
    return clip;
}

TEST(EntryPoints, ErrorWordsAreClearedBeforeForwardingAndMayBeNull)
{
    int err = 0;
    EXPECT_EQ(kel_clip_create(0, 2, 44100.0f, 16, 0, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eclt"));
    EXPECT_EQ(kel_clip_create(7, 2, 44100.0f, 16, 0, 0, nullptr), nullptr);
    kel_clip_overview_destroy(nullptr);
    // The word is written only on failure.
    err = 4242;
    kel_clip_t* made = kel_clip_create(KEL_FORMAT_WAVE, 2, 44100.0f, 16, 0, 0, &err);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(err, 4242);
    kel_clip_close(made, nullptr);

    FakeClip* clip = make_clip(4, 64);
    err = 12345;
    kel_clip_t* copy = kel_clip_copy(clip, 1, 2, &err);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kel_clip_packet_count(copy), 2);
    err = 777;
    EXPECT_EQ(kel_clip_packet_frame_count(copy, 1, &err), 64);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(kel_clip_packet_frame_count(copy, 2, nullptr), 0);
    EXPECT_EQ(kel_clip_cut(clip, 3, 2, &err), nullptr);
    EXPECT_EQ(err, KEL_ERR_PACKET_NUMBER);
    EXPECT_EQ(kel_clip_cut(clip, 3, 2, nullptr), nullptr);

    // Gains and fades report success as non-zero results.
    EXPECT_NE(kel_clip_packet_set_gain(clip, 1, 0.5f, &err), 0);
    EXPECT_EQ(kel_clip_packet_get_gain(clip, 1, &err), 0.5f);
    EXPECT_EQ(kel_clip_packet_set_gain(clip, 1, -1.0f, &err), 0);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
    EXPECT_NE(kel_clip_log_fade(clip, 0, 3, 1.0f, 0.0f, &err), 0);
    EXPECT_EQ(kel_clip_log_fade(clip, 0, 3, 1.2f, 0.0f, &err), 0);
    EXPECT_EQ(err, KEL_ERR_PARAMETER);
    std::vector<float> l(64), r(64);
    float* buffers[2] = {l.data(), r.data()};
    EXPECT_EQ(kel_clip_packet_decode(clip, 3, buffers, &err), 64);
    EXPECT_EQ(l[63], 0.0f) << "the host gets the packet with its fade applied";
    kel_clip_close(copy, nullptr);
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
    progress.base_percent = 20.0f;
    report_progress(&progress, 37.0f);
    EXPECT_NEAR(calls.values.back(), 20.0 + 37.0 * 0.8, 1e-5);
    // Bases outside (0, 100) leave the percentage alone.
    for (float base : {0.0f, -5.0f, 100.0f, 250.0f}) {
        progress.base_percent = base;
        report_progress(&progress, 42.5f);
        EXPECT_EQ(calls.values.back(), 42.5f) << base;
    }
    calls.answer = 0;
    EXPECT_FALSE(report_progress(&progress, 1.0f));
    EXPECT_TRUE(report_progress(nullptr, 1.0f));
}

} // namespace
