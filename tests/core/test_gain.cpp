// Per-packet gain, fades, their removal and their conversion to plain
// gains, with copy-on-write on packets shared between clips.
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

constexpr float kRate = 44100.0f;

// Packets of the given lengths whose samples are 0.5 on the left and -0.25
// on the right, so that a decoded frame shows its gain directly.
void fill(FakeClip& clip, const std::vector<int>& frames)
{
    for (int n : frames)
        clip.append(std::vector<float>(static_cast<size_t>(n), 0.5f), std::vector<float>(static_cast<size_t>(n), -0.25f));
}

FakePacket* fake(const Clip& clip, int index)
{
    return static_cast<FakePacket*>(clip.packets[index]);
}

void close_and_delete(Clip* clip)
{
    clip->close(nullptr);
    delete clip;
}

// The squared ramp from `from` to `to` over n frames, written as a weighted
// mean of the two ends (equal to the stated ramp up to rounding).
float ramp(int k, int n, float from, float to)
{
    const double t = static_cast<double>(k) / (n - 1);
    const double a = (1.0 - t) * from + t * to;
    return static_cast<float>(a * a);
}

std::vector<float> envelope_of(const Packet* p)
{
    if (p->envelope == nullptr)
        return {};
    return std::vector<float>(p->envelope, p->envelope + p->frame_count);
}

// Fills the packet's overview cache so that a test can see it invalidated.
void make_cache(Clip& clip, int index)
{
    const int n = clip.packets[index]->frame_count;
    std::vector<float> left(static_cast<size_t>(n), 0.5f), right(static_cast<size_t>(n), -0.25f);
    float* channels[2] = {left.data(), right.data()};
    clip.packet_make_wave_cache(index, channels, n, nullptr);
    ASSERT_EQ(clip.packet_is_wave_cache_valid(index), 1);
}

} // namespace

TEST(PacketGain, IndexAndValueChecks)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {10, 10});
    int err = 0;
    EXPECT_EQ(clip.packet_gain(2, &err), 0.0f);
    EXPECT_EQ(err, fourcc("EPnm"));
    err = 0;
    EXPECT_EQ(clip.packet_gain(-1, &err), 0.0f);
    EXPECT_EQ(err, fourcc("EPnm"));
    err = 0;
    clip.packet_gain(2, 0.5f, &err);
    EXPECT_EQ(err, fourcc("EPnm"));
    err = 0;
    clip.packet_gain(0, -0.001f, &err);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    clip.packet_gain(0, std::numeric_limits<float>::quiet_NaN(), &err);
    EXPECT_EQ(err, fourcc("Eprm"));
    EXPECT_EQ(clip.packets[0]->gain, 1.0f);

    // No upper bound, and 0.0 is allowed.
    err = 0;
    clip.packet_gain(0, 7.5f, &err);
    clip.packet_gain(1, 0.0f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip.packet_gain(0, &err), 7.5f);
    EXPECT_EQ(clip.packet_gain(1, &err), 0.0f);
    std::vector<float> left, right;
    clip.decode_all(left, right);
    EXPECT_EQ(left[0], 3.75f);
    EXPECT_EQ(right[9], -1.875f);
    EXPECT_EQ(left[10], 0.0f);
    clip.close(nullptr);
}

TEST(PacketGain, CopyOnWriteOnlyWhenTheGainChanges)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {16, 16});
    make_cache(a, 1);
    int err = 0;
    Clip* b = a.copy(0, 1, &err);
    Packet* shared = a.packets[1];
    ASSERT_EQ(shared->retain_count(), 2);

    // Equal to the current value: nothing is copied.
    b->packet_gain(1, 1.0f, &err);
    EXPECT_EQ(b->packets[1], shared);
    EXPECT_EQ(b->packet_gain_quantize(1, &err), 1.0f);
    EXPECT_EQ(b->packets[1], shared);
    EXPECT_EQ(shared->retain_count(), 2);

    // A new value: b gets its own packet; a keeps the original.
    b->packet_gain(1, 0.5f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_NE(b->packets[1], shared);
    EXPECT_EQ(b->packets[1]->retain_count(), 1);
    EXPECT_EQ(shared->retain_count(), 1);
    EXPECT_EQ(shared->gain, 1.0f);
    EXPECT_EQ(b->packets[0], a.packets[0]);
    // The cache is kept at unity gain and survives the change.
    EXPECT_EQ(b->packet_is_wave_cache_valid(1), 1);

    std::vector<float> left_a, right_a, left_b, right_b;
    a.decode_all(left_a, right_a);
    static_cast<FakeClip*>(b)->decode_all(left_b, right_b);
    EXPECT_EQ(left_a[16], 0.5f);
    EXPECT_EQ(left_b[16], 0.25f);
    EXPECT_EQ(right_b[31], -0.125f);
    EXPECT_EQ(left_b[15], 0.5f);

    // A second change on the now private packet copies nothing more.
    Packet* own = b->packets[1];
    b->packet_gain(1, 0.25f, &err);
    EXPECT_EQ(b->packets[1], own);
    close_and_delete(b);
    a.close(nullptr);
}

TEST(PacketGain, FailedCopyReportsEpcp)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {8});
    fake(a, 0)->refuse_copy = true;
    int err = 0;
    Clip* b = a.copy(0, 0, &err);
    b->packet_gain(0, 0.5f, &err);
    EXPECT_EQ(err, fourcc("Epcp"));
    EXPECT_EQ(b->packets[0], a.packets[0]);
    EXPECT_EQ(a.packets[0]->gain, 1.0f);
    EXPECT_EQ(a.packets[0]->retain_count(), 2);
    // Unshared, the same packet is changed in place.
    close_and_delete(b);
    err = 0;
    a.packet_gain(0, 0.5f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(a.packets[0]->gain, 0.5f);
    a.close(nullptr);
}

TEST(PacketGain, QuantizeSnapsToTheFormatStep)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {8, 8, 8});
    int err = 0;
    EXPECT_EQ(clip.packet_gain_quantize(3, &err), 0.0f);
    EXPECT_EQ(err, fourcc("EPnm"));

    for (int i = 0; i < 3; ++i)
        fake(clip, i)->stepped_gain = true;
    // 1.3 lies between 2^(1/4) = 1.189 and 2^(2/4) = 1.414; its log2 times
    // 4 is 1.51, so the step above is the nearest.
    err = 0;
    clip.packet_gain(0, 1.3f, &err);
    EXPECT_EQ(clip.packet_gain_quantize(0, &err), static_cast<float>(std::sqrt(2.0)));
    EXPECT_EQ(clip.packets[0]->gain, static_cast<float>(std::sqrt(2.0)));
    // 0.8: log2 times 4 is -1.29, so 2^(-1/4).
    clip.packet_gain(1, 0.8f, &err);
    EXPECT_EQ(clip.packet_gain_quantize(1, &err), static_cast<float>(std::pow(2.0, -0.25)));
    // A gain already on a step is kept, and a shared packet is not copied.
    clip.packet_gain(2, 0.5f, &err);
    Clip* other = clip.copy(2, 2, &err);
    Packet* shared = clip.packets[2];
    EXPECT_EQ(clip.packet_gain_quantize(2, &err), 0.5f);
    EXPECT_EQ(clip.packets[2], shared);
    EXPECT_EQ(err, 0);
    close_and_delete(other);
    clip.close(nullptr);
}

TEST(LogFade, SinglePacketFadeOut)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {1152});
    make_cache(clip, 0);
    int err = 0x1234;
    clip.log_fade(0, 0, 1.0f, 0.0f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip.packet_is_wave_cache_valid(0), 0);
    const std::vector<float> env = envelope_of(clip.packets[0]);
    ASSERT_EQ(env.size(), 1152u);
    for (int k = 0; k < 1152; ++k) {
        const double a = 1.0 - k / 1151.0;
        ASSERT_EQ(env[static_cast<size_t>(k)], static_cast<float>(a * a)) << k;
    }
    EXPECT_EQ(env.front(), 1.0f);
    EXPECT_EQ(env.back(), 0.0f);
    // The fade shows in playback on top of the gain.
    clip.packet_gain(0, 0.5f, &err);
    std::vector<float> left, right;
    clip.decode_all(left, right);
    EXPECT_EQ(left[0], 0.25f);
    EXPECT_EQ(left[1151], 0.0f);
    EXPECT_EQ(right[575], -0.25f * 0.5f * env[575]);
    clip.close(nullptr);
}

TEST(LogFade, SingleFrameTakesTheStartLevelUnsquared)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {1});
    int err = 0;
    clip.log_fade(0, 0, 0.5f, 0.1f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(envelope_of(clip.packets[0]), std::vector<float>{0.5f});
    clip.close(nullptr);
}

TEST(LogFade, TwoFadesMultiply)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {300, 200});
    int err = 0;
    clip.log_fade(0, 1, 1.0f, 0.0f, &err);
    clip.log_fade(0, 1, 0.25f, 1.0f, &err);
    EXPECT_EQ(err, 0);
    for (int p = 0; p < 2; ++p) {
        const std::vector<float> env = envelope_of(clip.packets[p]);
        ASSERT_EQ(env.size(), p == 0 ? 300u : 200u);
        for (size_t i = 0; i < env.size(); ++i) {
            const int k = p * 300 + static_cast<int>(i);
            EXPECT_NEAR(env[i], ramp(k, 500, 1.0f, 0.0f) * ramp(k, 500, 0.25f, 1.0f), 1e-6) << k;
        }
    }
    clip.close(nullptr);
}

TEST(LogFade, BadArgumentsChangeNothing)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {64, 64});
    int err = 0;
    Clip* b = a.copy(0, 1, &err);
    const struct {
        int first, last;
        float from, to;
        int code;
    } cases[] = {
        {0, 1, 1.2f, 0.0f, fourcc("Eprm")},
        {0, 1, 1.0f, -0.1f, fourcc("Eprm")},
        {0, 1, -0.5f, 0.5f, fourcc("Eprm")},
        {0, 1, std::numeric_limits<float>::quiet_NaN(), 0.5f, fourcc("Eprm")},
        {1, 0, 1.0f, 0.0f, fourcc("EPnm")},
        {-1, 0, 1.0f, 0.0f, fourcc("EPnm")},
        {0, 2, 1.0f, 0.0f, fourcc("EPnm")},
    };
    for (const auto& c : cases) {
        b->log_fade(c.first, c.last, c.from, c.to, &err);
        EXPECT_EQ(err, c.code) << c.first << " " << c.from;
        err = 0;
        b->log_fade_remove(c.first, c.last, &err);
        EXPECT_EQ(err, c.code == fourcc("EPnm") ? c.code : 0);
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(b->packets[i], a.packets[i]);
        EXPECT_EQ(b->packets[i]->envelope, nullptr);
    }
    close_and_delete(b);
    a.close(nullptr);
}

TEST(LogFade, SpansPacketsOfDifferentLengthsOnlyInThisClip)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {100, 37, 1, 250, 80});
    int err = 0;
    Clip* b = a.copy(0, 4, &err);
    b->log_fade(1, 3, 0.2f, 0.9f, &err);
    EXPECT_EQ(err, 0);

    // 37 + 1 + 250 = 288 frames share one ramp.
    std::vector<float> joined;
    for (int p = 1; p <= 3; ++p) {
        EXPECT_NE(b->packets[p], a.packets[p]);
        EXPECT_EQ(a.packets[p]->envelope, nullptr);
        const std::vector<float> env = envelope_of(b->packets[p]);
        EXPECT_EQ(env.size(), static_cast<size_t>(b->packets[p]->frame_count));
        joined.insert(joined.end(), env.begin(), env.end());
    }
    ASSERT_EQ(joined.size(), 288u);
    for (int k = 0; k < 288; ++k)
        EXPECT_NEAR(joined[static_cast<size_t>(k)], ramp(k, 288, 0.2f, 0.9f), 1e-6) << k;
    EXPECT_EQ(b->packets[0], a.packets[0]);
    EXPECT_EQ(b->packets[4], a.packets[4]);

    std::vector<float> left_a, right_a, left_b, right_b;
    a.decode_all(left_a, right_a);
    static_cast<FakeClip*>(b)->decode_all(left_b, right_b);
    ASSERT_EQ(left_b.size(), 468u);
    EXPECT_EQ(left_b[99], 0.5f);
    EXPECT_EQ(left_b[100], 0.5f * joined[0]);
    EXPECT_EQ(left_b[137], 0.5f * joined[37]);
    EXPECT_EQ(right_b[387], -0.25f * joined[287]);
    EXPECT_EQ(left_b[388], 0.5f);
    EXPECT_EQ(left_a, std::vector<float>(468, 0.5f));
    close_and_delete(b);
    a.close(nullptr);
}

TEST(LogFade, FailurePartWayKeepsTheEarlierPackets)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {10, 10, 10});
    int err = 0;
    Clip* b = a.copy(0, 2, &err);
    fake(a, 1)->refuse_copy = true;
    b->log_fade(0, 2, 1.0f, 0.0f, &err);
    EXPECT_EQ(err, fourcc("Epcp"));
    EXPECT_NE(b->packets[0], a.packets[0]);
    EXPECT_EQ(envelope_of(b->packets[0]).size(), 10u);
    EXPECT_EQ(b->packets[1], a.packets[1]);
    EXPECT_EQ(b->packets[2], a.packets[2]);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(a.packets[i]->envelope, nullptr);
    EXPECT_EQ(b->packets[2]->envelope, nullptr);
    close_and_delete(b);
    a.close(nullptr);
}

TEST(LogFadeRemove, CopiesOnlySharedPacketsWithEnvelopes)
{
    FakeClip a(kRate, 1024, nullptr);
    fill(a, {32, 32, 32, 32});
    int err = 0;
    a.log_fade(1, 1, 0.0f, 1.0f, &err);
    a.log_fade(3, 3, 1.0f, 0.5f, &err);
    make_cache(a, 0);
    make_cache(a, 3);
    Clip* b = a.copy(0, 2, &err);
    const std::vector<float> fade = envelope_of(a.packets[1]);

    err = 0x1234;
    b->log_fade_remove(0, 2, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(b->packets[0], a.packets[0]);
    EXPECT_EQ(b->packets[2], a.packets[2]);
    EXPECT_EQ(b->packet_is_wave_cache_valid(0), 1);
    EXPECT_NE(b->packets[1], a.packets[1]);
    EXPECT_EQ(b->packets[1]->envelope, nullptr);
    EXPECT_EQ(envelope_of(a.packets[1]), fade);

    // An unshared packet loses its envelope in place, and its cache.
    Packet* last = a.packets[3];
    a.log_fade_remove(3, 3, &err);
    EXPECT_EQ(a.packets[3], last);
    EXPECT_EQ(last->envelope, nullptr);
    EXPECT_EQ(last->wave_cache_valid, 0);
    close_and_delete(b);
    a.close(nullptr);
}

TEST(ConvertToGains, WithoutFudgeFactors)
{
    // Two runs: packets 1..3 (one fade over 300 frames) and packet 5 alone
    // at the clip's end.
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {64, 100, 50, 150, 64, 80});
    int err = 0;
    clip.log_fade(1, 3, 0.8f, 0.2f, &err);
    clip.log_fade(5, 5, 0.3f, 1.0f, &err);
    clip.packet_gain(2, 2.0f, &err);
    const std::vector<Packet*> before(clip.packets, clip.packets + 6);

    Clip* gains = clip.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(gains, nullptr);
    EXPECT_EQ(err, 0);
    ASSERT_EQ(gains->packet_count, 6);
    // Target range = run: the first packet takes the first factor, the last
    // the last, and packet 2 (frames 100..149 of the run) its centre frame
    // 125, which is frame 25 of packet 2.
    EXPECT_EQ(gains->packets[1]->gain, before[1]->envelope[0]);
    EXPECT_EQ(gains->packets[2]->gain, 2.0f * before[2]->envelope[25]);
    EXPECT_EQ(gains->packets[3]->gain, before[3]->envelope[149]);
    EXPECT_EQ(gains->packets[5]->gain, before[5]->envelope[0]);
    EXPECT_FLOAT_EQ(gains->packets[1]->gain, 0.64f);
    EXPECT_FLOAT_EQ(gains->packets[3]->gain, 0.04f);
    EXPECT_FLOAT_EQ(gains->packets[5]->gain, 0.09f);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(gains->packets[i]->envelope, nullptr) << i;
    // Packets outside the runs are still shared, untouched.
    EXPECT_EQ(gains->packets[0], before[0]);
    EXPECT_EQ(gains->packets[4], before[4]);
    // The original clip keeps its packets, envelopes and gains.
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(clip.packets[i], before[i]);
    EXPECT_EQ(envelope_of(clip.packets[3]).size(), 150u);
    EXPECT_EQ(clip.packets[2]->gain, 2.0f);
    EXPECT_EQ(clip.packets[1]->gain, 1.0f);
    close_and_delete(gains);
    for (Packet* p : before)
        EXPECT_EQ(p->retain_count(), 1);

    // A clip without envelopes converts to a plain copy.
    FakeClip flat(kRate, 1024, nullptr);
    fill(flat, {10, 20});
    Clip* same = flat.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(same->packets[1], flat.packets[1]);
    close_and_delete(same);
    flat.close(nullptr);
    clip.close(nullptr);
}

TEST(ConvertToGains, FudgeFactorsShiftAndWidenTheTarget)
{
    FakeClip clip(kRate, 1024, nullptr);
    clip.start_fudge = -1;
    clip.length_fudge = 1;
    fill(clip, {100, 70, 120, 61, 90, 100, 100, 100});
    int err = 0;
    clip.log_fade(2, 4, 1.0f, 0.0f, &err);
    clip.packet_gain(1, 0.5f, &err);
    const std::vector<Packet*> before(clip.packets, clip.packets + 8);

    Clip* gains = clip.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(gains, nullptr);
    // Run 2..4 (271 frames) becomes target 1..4 (341 frames). Packet 2's
    // centre is target frame 70 + 120 / 2 = 130 -> run frame 130 * 271 /
    // 341 = 103.3 (packet 2, index 103); packet 3's is 190 + 61 / 2 = 220
    // (the half frame dropped) -> 174.8, truncated to 174 (packet 3, index
    // 54).
    EXPECT_EQ(gains->packets[1]->gain, 0.5f * 1.0f);
    EXPECT_EQ(gains->packets[2]->gain, before[2]->envelope[103]);
    EXPECT_EQ(gains->packets[3]->gain, before[3]->envelope[54]);
    EXPECT_EQ(gains->packets[4]->gain, 0.0f);
    EXPECT_FLOAT_EQ(gains->packets[2]->gain, ramp(103, 271, 1.0f, 0.0f));
    EXPECT_FLOAT_EQ(gains->packets[3]->gain, ramp(174, 271, 1.0f, 0.0f));
    for (int i : {0, 5, 6, 7}) {
        EXPECT_EQ(gains->packets[i], before[i]);
        EXPECT_EQ(gains->packets[i]->gain, 1.0f);
    }
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(gains->packets[i]->envelope, nullptr);
    EXPECT_EQ(clip.packets[1]->gain, 0.5f);
    EXPECT_EQ(envelope_of(clip.packets[4]).size(), 90u);
    close_and_delete(gains);
    clip.close(nullptr);
}

TEST(ConvertToGains, RunsAtTheEdgesOfTheClip)
{
    // A run reaching the clip's end has a target length of packet_count - s
    // (the length fudge is dropped), from the shifted start.
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {100, 100, 100, 100, 100, 100});
    int err = 0;
    clip.log_fade(3, 5, 0.6f, 0.0f, &err);
    clip.start_fudge = -1;
    clip.length_fudge = 1;
    Clip* gains = clip.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(gains, nullptr);
    // Target 2..4: equal lengths map packet 3's centre (frame 150) to run
    // frame 150, index 50 of packet 4.
    EXPECT_EQ(gains->packets[1]->gain, 1.0f);
    EXPECT_EQ(gains->packets[2]->gain, clip.packets[3]->envelope[0]);
    EXPECT_EQ(gains->packets[3]->gain, clip.packets[4]->envelope[50]);
    EXPECT_EQ(gains->packets[4]->gain, clip.packets[5]->envelope[99]);
    EXPECT_EQ(gains->packets[5]->gain, 1.0f);
    EXPECT_EQ(gains->packets[5]->envelope, nullptr);
    close_and_delete(gains);

    // A start shifted later stops at the clip's end: target 4..5.
    clip.start_fudge = 1;
    clip.length_fudge = 0;
    gains = clip.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(gains, nullptr);
    EXPECT_EQ(gains->packets[3]->gain, 1.0f);
    EXPECT_EQ(gains->packets[4]->gain, clip.packets[3]->envelope[0]);
    EXPECT_EQ(gains->packets[5]->gain, clip.packets[5]->envelope[99]);
    close_and_delete(gains);

    // A run at the start shifted earlier is clamped at packet 0; a single
    // target packet takes the run's first factor.
    FakeClip front(kRate, 1024, nullptr);
    fill(front, {50, 50, 50});
    front.log_fade(0, 0, 0.7f, 0.1f, &err);
    front.start_fudge = -2;
    gains = front.convert_gains_and_envelopes_to_gains(&err);
    ASSERT_NE(gains, nullptr);
    EXPECT_EQ(gains->packets[0]->gain, front.packets[0]->envelope[0]);
    EXPECT_FLOAT_EQ(gains->packets[0]->gain, 0.49f);
    EXPECT_EQ(gains->packets[1]->gain, 1.0f);
    close_and_delete(gains);
    front.close(nullptr);
    clip.close(nullptr);
}

TEST(ConvertToGains, FailureGivesNoClip)
{
    FakeClip clip(kRate, 1024, nullptr);
    fill(clip, {20, 20, 20});
    int err = 0;
    clip.log_fade(0, 2, 1.0f, 0.5f, &err);
    fake(clip, 1)->refuse_copy = true;
    EXPECT_EQ(clip.convert_gains_and_envelopes_to_gains(&err), nullptr);
    EXPECT_EQ(err, fourcc("Epcp"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(clip.packets[i]->retain_count(), 1);
        EXPECT_EQ(clip.packets[i]->gain, 1.0f);
        EXPECT_EQ(envelope_of(clip.packets[i]).size(), 20u);
    }

    FakeClip empty(kRate, 1024, nullptr);
    err = 0;
    EXPECT_EQ(empty.convert_gains_and_envelopes_to_gains(&err), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    clip.close(nullptr);
}
