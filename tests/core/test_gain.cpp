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

// Packets of the given lengths whose samples are 0.5 on the left and -0.25
// on the right, so that a decoded frame shows its gain directly.
void fill(FakeClip& clip, const std::vector<int>& frames)
{
    for (int n : frames)
        clip.append(std::vector<float>(static_cast<size_t>(n), 0.5f), std::vector<float>(static_cast<size_t>(n), -0.25f));
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
    return p->envelope == nullptr ? std::vector<float>() : std::vector<float>(p->envelope, p->envelope + p->frame_count);
}

// Fills the packet's overview cache so that a test can see it kept or dropped.
void make_cache(Clip& clip, int index)
{
    const int n = clip.packets[index]->frame_count;
    std::vector<float> left(static_cast<size_t>(n), 0.5f), right(static_cast<size_t>(n), -0.25f);
    float* channels[2] = {left.data(), right.data()};
    clip.packet_make_wave_cache(index, channels, n, nullptr);
    ASSERT_EQ(clip.packet_is_wave_cache_valid(index), 1);
}

TEST(PacketGain, IndexAndValueChecks)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {10, 10});
    const int epnm = fourcc("EPnm"), eprm = fourcc("Eprm");
    const struct {
        int packet;
        float gain;
        int code;
    } bad[] = {{2, 0.5f, epnm}, {-1, 0.5f, epnm}, {0, -0.001f, eprm}, {0, std::numeric_limits<float>::quiet_NaN(), eprm}};
    for (const auto& b : bad) {
        int err = 0;
        clip.packet_gain(b.packet, b.gain, &err);
        EXPECT_EQ(err, b.code) << b.packet << " " << b.gain;
        err = 0;
        if (b.code == epnm) {
            EXPECT_EQ(clip.packet_gain(b.packet, &err), 0.0f);
            EXPECT_EQ(err, epnm);
        }
    }
    EXPECT_EQ(clip.packets[0]->gain, 1.0f);
    // No upper bound, and 0.0 is allowed.
    int err = 0;
    clip.packet_gain(0, 7.5f, &err);
    clip.packet_gain(1, 0.0f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip.packet_gain(0, &err), 7.5f);
    const FakeClip::Lanes d = clip.decode_all();
    EXPECT_EQ(d.left[0], 3.75f);
    EXPECT_EQ(d.right[9], -1.875f);
    EXPECT_EQ(d.left[10], 0.0f);
}

TEST(PacketGain, CopyOnWriteOnlyWhenTheGainChanges)
{
    FakeClip a(44100.0f, 1024, nullptr);
    fill(a, {16, 16});
    make_cache(a, 1);
    int err = 0;
    Owned b(a.copy(0, 1, &err));
    Packet* shared = a.packets[1];
    // Equal to the current value: nothing is copied.
    b->packet_gain(1, 1.0f, &err);
    EXPECT_EQ(b->packet_gain_quantize(1, &err), 1.0f);
    EXPECT_EQ(b->packets[1], shared);
    EXPECT_EQ(shared->retain_count(), 2);

    // A new value: b gets its own packet, keeping the cache (made at unity
    // gain); a keeps the original.
    b->packet_gain(1, 0.5f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_NE(b->packets[1], shared);
    EXPECT_EQ(b->packets[1]->retain_count(), 1);
    EXPECT_EQ(shared->retain_count(), 1);
    EXPECT_EQ(shared->gain, 1.0f);
    EXPECT_EQ(b->packets[0], a.packets[0]);
    EXPECT_EQ(b->packet_is_wave_cache_valid(1), 1);
    const FakeClip::Lanes da = a.decode_all(), db = static_cast<FakeClip*>(b.get())->decode_all();
    EXPECT_EQ(da.left[16], 0.5f);
    EXPECT_EQ(db.left[16], 0.25f);
    EXPECT_EQ(db.right[31], -0.125f);
    EXPECT_EQ(db.left[15], 0.5f);
    // A second change on the now private packet copies nothing more.
    Packet* own = b->packets[1];
    b->packet_gain(1, 0.25f, &err);
    EXPECT_EQ(b->packets[1], own);

    // A copy that fails reports "Epcp" and changes nothing; unshared, the
    // same packet is changed in place.
    static_cast<FakePacket*>(a.packets[0])->refuse_copy = true;
    b->packet_gain(0, 0.5f, &err);
    EXPECT_EQ(err, fourcc("Epcp"));
    EXPECT_EQ(b->packets[0], a.packets[0]);
    EXPECT_EQ(a.packets[0]->gain, 1.0f);
    b.reset();
    err = 0;
    a.packet_gain(0, 0.5f, &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(a.packets[0]->gain, 0.5f);
}

TEST(PacketGain, QuantizeSnapsToTheFormatStep)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {8, 8, 8});
    int err = 0;
    EXPECT_EQ(clip.packet_gain_quantize(3, &err), 0.0f);
    EXPECT_EQ(err, fourcc("EPnm"));
    for (int i = 0; i < 3; ++i)
        static_cast<FakePacket*>(clip.packets[i])->stepped_gain = true;
    // 1.3: 4 log2 is 1.51, so 2^(2/4); 0.8: -1.29, so 2^(-1/4).
    err = 0;
    clip.packet_gain(0, 1.3f, &err);
    EXPECT_EQ(clip.packet_gain_quantize(0, &err), static_cast<float>(std::sqrt(2.0)));
    EXPECT_EQ(clip.packets[0]->gain, static_cast<float>(std::sqrt(2.0)));
    clip.packet_gain(1, 0.8f, &err);
    EXPECT_EQ(clip.packet_gain_quantize(1, &err), static_cast<float>(std::pow(2.0, -0.25)));
    // A gain already on a step is kept, and a shared packet is not copied.
    clip.packet_gain(2, 0.5f, &err);
    Owned other(clip.copy(2, 2, &err));
    Packet* shared = clip.packets[2];
    EXPECT_EQ(clip.packet_gain_quantize(2, &err), 0.5f);
    EXPECT_EQ(clip.packets[2], shared);
    EXPECT_EQ(err, 0);
}

TEST(LogFade, SquaredRampsThatMultiply)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {1152, 1, 300, 200});
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
    // The fade shows in playback on top of the gain.
    clip.packet_gain(0, 0.5f, &err);
    const FakeClip::Lanes d = clip.decode_all();
    EXPECT_EQ(d.left[0], 0.25f);
    EXPECT_EQ(d.left[1151], 0.0f);
    EXPECT_EQ(d.right[575], -0.25f * 0.5f * env[575]);

    // A single frame takes the start level, unsquared.
    clip.log_fade(1, 1, 0.5f, 0.1f, &err);
    EXPECT_EQ(envelope_of(clip.packets[1]), std::vector<float>{0.5f});

    // Two fades over the same packets multiply.
    clip.log_fade(2, 3, 1.0f, 0.0f, &err);
    clip.log_fade(2, 3, 0.25f, 1.0f, &err);
    EXPECT_EQ(err, 0);
    for (int p = 2; p < 4; ++p) {
        const std::vector<float> e = envelope_of(clip.packets[p]);
        ASSERT_EQ(e.size(), p == 2 ? 300u : 200u);
        for (size_t i = 0; i < e.size(); ++i) {
            const int k = (p - 2) * 300 + static_cast<int>(i);
            EXPECT_NEAR(e[i], ramp(k, 500, 1.0f, 0.0f) * ramp(k, 500, 0.25f, 1.0f), 1e-6) << k;
        }
    }
}

TEST(LogFade, BadArgumentsChangeNothing)
{
    FakeClip a(44100.0f, 1024, nullptr);
    fill(a, {64, 64});
    int err = 0;
    Owned b(a.copy(0, 1, &err));
    const int eprm = fourcc("Eprm"), epnm = fourcc("EPnm");
    const struct {
        int first, last;
        float from, to;
        int code;
    } cases[] = {
        {0, 1, 1.2f, 0.0f, eprm}, {0, 1, 1.0f, -0.1f, eprm}, {0, 1, -0.5f, 0.5f, eprm},
        {0, 1, std::numeric_limits<float>::quiet_NaN(), 0.5f, eprm},
        {1, 0, 1.0f, 0.0f, epnm}, {-1, 0, 1.0f, 0.0f, epnm}, {0, 2, 1.0f, 0.0f, epnm},
    };
    for (const auto& c : cases) {
        b->log_fade(c.first, c.last, c.from, c.to, &err);
        EXPECT_EQ(err, c.code) << c.first << " " << c.from;
        err = 0;
        b->log_fade_remove(c.first, c.last, &err);
        EXPECT_EQ(err, c.code == epnm ? c.code : 0);
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(b->packets[i], a.packets[i]);
        EXPECT_EQ(b->packets[i]->envelope, nullptr);
    }
}

TEST(LogFade, SpansPacketsOfDifferentLengthsOnlyInThisClip)
{
    FakeClip a(44100.0f, 1024, nullptr);
    fill(a, {100, 37, 1, 250, 80});
    int err = 0;
    Owned b(a.copy(0, 4, &err));
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
    const FakeClip::Lanes db = static_cast<FakeClip*>(b.get())->decode_all();
    ASSERT_EQ(db.left.size(), 468u);
    EXPECT_EQ(db.left[99], 0.5f);
    EXPECT_EQ(db.left[100], 0.5f * joined[0]);
    EXPECT_EQ(db.left[137], 0.5f * joined[37]);
    EXPECT_EQ(db.right[387], -0.25f * joined[287]);
    EXPECT_EQ(db.left[388], 0.5f);
    EXPECT_EQ(a.decode_all().left, std::vector<float>(468, 0.5f));

    // A copy that fails part-way keeps the packets done before it.
    Owned c(a.copy(0, 2, &err));
    static_cast<FakePacket*>(a.packets[1])->refuse_copy = true;
    c->log_fade(0, 2, 1.0f, 0.0f, &err);
    EXPECT_EQ(err, fourcc("Epcp"));
    EXPECT_NE(c->packets[0], a.packets[0]);
    EXPECT_EQ(envelope_of(c->packets[0]).size(), 100u);
    EXPECT_EQ(c->packets[1], a.packets[1]);
    EXPECT_EQ(c->packets[2]->envelope, nullptr);
}

TEST(LogFadeRemove, CopiesOnlySharedPacketsWithEnvelopes)
{
    FakeClip a(44100.0f, 1024, nullptr);
    fill(a, {32, 32, 32, 32});
    int err = 0;
    a.log_fade(1, 1, 0.0f, 1.0f, &err);
    a.log_fade(3, 3, 1.0f, 0.5f, &err);
    make_cache(a, 0);
    make_cache(a, 3);
    Owned b(a.copy(0, 2, &err));
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
}

// Each run of enveloped packets is spread over a target range of packets
// (the run, shifted and widened by the clip's fudge factors, cut at the
// clip's ends); each target packet takes the envelope factor at its centre
// mapped onto the run, times its own gain. The original clip is untouched.
TEST(ConvertToGains, RunsMapOntoTargetPackets)
{
    // No fudge: packets 1..3 (one fade over 300 frames) and packet 5 at the
    // end. Packet 2 (run frames 100..149) takes its centre frame 125, which
    // is frame 25 of packet 2.
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {64, 100, 50, 150, 64, 80});
    int err = 0;
    clip.log_fade(1, 3, 0.8f, 0.2f, &err);
    clip.log_fade(5, 5, 0.3f, 1.0f, &err);
    clip.packet_gain(2, 2.0f, &err);
    const std::vector<Packet*> before(clip.packets, clip.packets + 6);
    Owned gains(clip.convert_gains_and_envelopes_to_gains(&err));
    ASSERT_NE(gains, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(gains->packets[1]->gain, before[1]->envelope[0]);
    EXPECT_EQ(gains->packets[2]->gain, 2.0f * before[2]->envelope[25]);
    EXPECT_EQ(gains->packets[3]->gain, before[3]->envelope[149]);
    EXPECT_EQ(gains->packets[5]->gain, before[5]->envelope[0]);
    EXPECT_FLOAT_EQ(gains->packets[1]->gain, 0.64f);
    EXPECT_FLOAT_EQ(gains->packets[5]->gain, 0.09f);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(gains->packets[i]->envelope, nullptr) << i;
        EXPECT_EQ(clip.packets[i], before[i]);
    }
    EXPECT_EQ(gains->packets[0], before[0]); // outside the runs: still shared
    EXPECT_EQ(gains->packets[4], before[4]);
    EXPECT_EQ(envelope_of(clip.packets[3]).size(), 150u);
    EXPECT_EQ(clip.packets[2]->gain, 2.0f);
    gains.reset();
    for (Packet* p : before)
        EXPECT_EQ(p->retain_count(), 1);

    // Start -1, length +1: run 2..4 (271 frames) becomes target 1..4 (341
    // frames). Packet 2's centre is target frame 70 + 60 = 130, run frame
    // 130 * 271 / 341 = 103.3 (packet 2, index 103); packet 3's is 190 + 30
    // = 220 (the half frame dropped), run frame 174 (packet 3, index 54).
    FakeClip fudged(44100.0f, 1024, nullptr);
    fudged.start_fudge = -1;
    fudged.length_fudge = 1;
    fill(fudged, {100, 70, 120, 61, 90, 100, 100, 100});
    fudged.log_fade(2, 4, 1.0f, 0.0f, &err);
    fudged.packet_gain(1, 0.5f, &err);
    gains.reset(fudged.convert_gains_and_envelopes_to_gains(&err));
    ASSERT_NE(gains, nullptr);
    EXPECT_EQ(gains->packets[1]->gain, 0.5f * 1.0f);
    EXPECT_EQ(gains->packets[2]->gain, fudged.packets[2]->envelope[103]);
    EXPECT_EQ(gains->packets[3]->gain, fudged.packets[3]->envelope[54]);
    EXPECT_EQ(gains->packets[4]->gain, 0.0f);
    EXPECT_FLOAT_EQ(gains->packets[2]->gain, ramp(103, 271, 1.0f, 0.0f));
    for (int i : {0, 5, 6, 7}) {
        EXPECT_EQ(gains->packets[i], fudged.packets[i]);
        EXPECT_EQ(gains->packets[i]->gain, 1.0f);
    }

    // A run reaching the clip's end keeps the length packet_count - start
    // (the length fudge is dropped): target 2..4 for run 3..5, equal
    // lengths; a later start stops at the end: target 4..5.
    FakeClip tail(44100.0f, 1024, nullptr);
    fill(tail, {100, 100, 100, 100, 100, 100});
    tail.log_fade(3, 5, 0.6f, 0.0f, &err);
    tail.start_fudge = -1;
    tail.length_fudge = 1;
    gains.reset(tail.convert_gains_and_envelopes_to_gains(&err));
    EXPECT_EQ(gains->packets[1]->gain, 1.0f);
    EXPECT_EQ(gains->packets[2]->gain, tail.packets[3]->envelope[0]);
    EXPECT_EQ(gains->packets[3]->gain, tail.packets[4]->envelope[50]);
    EXPECT_EQ(gains->packets[4]->gain, tail.packets[5]->envelope[99]);
    EXPECT_EQ(gains->packets[5]->gain, 1.0f);
    tail.start_fudge = 1;
    tail.length_fudge = 0;
    gains.reset(tail.convert_gains_and_envelopes_to_gains(&err));
    EXPECT_EQ(gains->packets[3]->gain, 1.0f);
    EXPECT_EQ(gains->packets[4]->gain, tail.packets[3]->envelope[0]);
    EXPECT_EQ(gains->packets[5]->gain, tail.packets[5]->envelope[99]);

    // A run at the start shifted earlier is clamped at packet 0; a single
    // target packet takes the run's first factor.
    FakeClip front(44100.0f, 1024, nullptr);
    fill(front, {50, 50, 50});
    front.log_fade(0, 0, 0.7f, 0.1f, &err);
    front.start_fudge = -2;
    gains.reset(front.convert_gains_and_envelopes_to_gains(&err));
    EXPECT_FLOAT_EQ(gains->packets[0]->gain, 0.49f);
    EXPECT_EQ(gains->packets[1]->gain, 1.0f);
}

TEST(ConvertToGains, PlainCopiesAndFailures)
{
    // Without envelopes: a plain copy.
    FakeClip flat(44100.0f, 1024, nullptr);
    fill(flat, {10, 20});
    int err = 0;
    Owned same(flat.convert_gains_and_envelopes_to_gains(&err));
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(same->packets[1], flat.packets[1]);
    // A failed copy gives no clip and changes nothing.
    FakeClip clip(44100.0f, 1024, nullptr);
    fill(clip, {20, 20, 20});
    clip.log_fade(0, 2, 1.0f, 0.5f, &err);
    static_cast<FakePacket*>(clip.packets[1])->refuse_copy = true;
    EXPECT_EQ(clip.convert_gains_and_envelopes_to_gains(&err), nullptr);
    EXPECT_EQ(err, fourcc("Epcp"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(clip.packets[i]->retain_count(), 1);
        EXPECT_EQ(envelope_of(clip.packets[i]).size(), 20u);
    }
    FakeClip empty(44100.0f, 1024, nullptr);
    EXPECT_EQ(empty.convert_gains_and_envelopes_to_gains(&err), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
}

} // namespace
