// Waveform overviews: min/max pairs at every zoom, RMS, maximum sample,
// the dirty redraw and progress, checked against references computed here
// from the known samples of fake clips.
#include "core/fourcc.h"
#include "core/fakeformat.h"
#include "overview/overview.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

constexpr double kPi = 3.14159265358979323846;

// The left and right sample of a frame, by its index in the whole clip.
using Signal = std::function<std::pair<float, float>(int frame)>;

// A fake clip together with the test's own copy of its samples and gains.
struct TestClip {
    std::unique_ptr<FakeClip> clip;
    std::unique_ptr<Overview> overview;
    std::vector<int> lengths;
    std::vector<int> offsets;
    std::vector<float> left, right;
    std::vector<float> gains;

    ~TestClip() { overview.reset(); }
    void set_gain(int packet, float gain)
    {
        int err = 0;
        clip->packet_gain(packet, gain, &err);
        ASSERT_EQ(err, 0);
        gains[packet] = gain;
    }
};

std::unique_ptr<TestClip> make_clip(const std::vector<int>& lengths, const Signal& signal,
                                    _kel_overview_progress_t* progress = nullptr)
{
    auto t = std::make_unique<TestClip>();
    t->clip = std::make_unique<FakeClip>(44100.0f, 1024, nullptr);
    t->lengths = lengths;
    int frame = 0;
    for (int len : lengths) {
        t->offsets.push_back(frame);
        std::vector<float> l(len), r(len);
        for (int i = 0; i < len; ++i, ++frame) {
            std::tie(l[i], r[i]) = signal(frame);
            t->left.push_back(l[i]);
            t->right.push_back(r[i]);
        }
        t->clip->append(l, r);
        t->gains.push_back(1.0f);
    }
    t->overview.reset(t->clip->create_overview(progress));
    return t;
}

std::vector<int> uniform(int packets, int frames)
{
    return std::vector<int>(packets, frames);
}

std::pair<float, float> sine(int i)
{
    return {static_cast<float>(0.8 * std::sin(2.0 * kPi * i / 777.0)),
            static_cast<float>(0.6 * std::sin(2.0 * kPi * i / 333.0 + 1.0))};
}

std::pair<float, float> constant(float v, int)
{
    return {v, v};
}

using Pairs = std::vector<float>; // max, min, max, min, ...

// Eight (max, min) pairs of one packet at unity gain: pair j spans frames
// [j*seg, (j+1)*seg), the last pair also the frames left over; extremes
// start at 0 and are clamped to [-1, 1].
Pairs packet_pairs(const TestClip& t, int p)
{
    const int len = t.lengths[p];
    const int seg = len / 8;
    Pairs pairs;
    for (int j = 0; j < 8; ++j) {
        const int begin = t.offsets[p] + j * seg;
        const int end = t.offsets[p] + (j == 7 ? len : (j + 1) * seg);
        double hi = 0.0, lo = 0.0;
        for (int f = begin; f < end; ++f) {
            hi = std::max({hi, double(t.left[f]), double(t.right[f])});
            lo = std::min({lo, double(t.left[f]), double(t.right[f])});
        }
        pairs.push_back(float(std::min(hi, 1.0)));
        pairs.push_back(float(std::max(lo, -1.0)));
    }
    return pairs;
}

// Coarse reference: all pairs of the range laid end to end; point i covers
// pairsPerPoint of them from the pair holding its first sample.
Pairs reference_coarse(const TestClip& t, int first, int last, int points)
{
    const int n = last - first + 1;
    const long long frames = t.lengths[first];
    const long long seg = frames / 8;
    const long long spp = frames * n / points;
    Pairs all;
    for (int p = first; p <= last; ++p) {
        Pairs pp = packet_pairs(t, p);
        for (float& v : pp)
            v *= t.gains[p];
        all.insert(all.end(), pp.begin(), pp.end());
    }
    Pairs out;
    for (int i = 0; i < points; ++i) {
        const long long start = spp * i;
        const long long g0 = start / frames * 8 + start % frames / seg;
        const long long g1 = std::min<long long>(g0 + spp / seg, 8LL * n);
        float hi = 0.0f, lo = 0.0f;
        for (long long g = g0; g < g1; ++g) {
            hi = std::max(hi, all[2 * g]);
            lo = std::min(lo, all[2 * g + 1]);
        }
        out.push_back(hi);
        out.push_back(lo);
    }
    return out;
}

// Mono mix of packets first..last as the packets play (own gain applied).
std::vector<float> mono(const TestClip& t, int first, int last)
{
    std::vector<float> m;
    for (int p = first; p <= last; ++p) {
        const float g = t.gains[p];
        for (int f = t.offsets[p]; f < t.offsets[p] + t.lengths[p]; ++f)
            m.push_back((t.left[f] * g + t.right[f] * g) * 0.5f);
    }
    return m;
}

// Fine reference: point i spans samples [i*spp, i*spp + spp) and one more
// when the points do not divide the nominal sample count. Stops at the
// first point that runs past the real samples.
Pairs reference_fine(const TestClip& t, int first, int last, int points)
{
    const std::vector<float> m = mono(t, first, last);
    const long long total = 1LL * t.lengths[first] * (last - first + 1);
    const long long spp = total / points;
    const long long span = spp + (total % points != 0 ? 1 : 0);
    Pairs out;
    for (long long i = 0; i < points; ++i) {
        if (i * spp + span > static_cast<long long>(m.size()))
            break;
        double hi = 0.0, lo = 0.0;
        for (long long s = i * spp; s < i * spp + span; ++s) {
            hi = std::max(hi, double(m[s]));
            lo = std::min(lo, double(m[s]));
        }
        out.push_back(float(std::min(hi, 1.0)));
        out.push_back(float(std::max(lo, -1.0)));
    }
    return out;
}

// Extra-fine reference: point k shows sample k / pointsPerSample on its
// side of the zero line; points past the last whole share are silent.
Pairs reference_extra_fine(const TestClip& t, int first, int last, int points)
{
    const std::vector<float> m = mono(t, first, last);
    const long long total = 1LL * t.lengths[first] * (last - first + 1);
    const long long pps = points / total;
    Pairs out;
    for (long long k = 0; k < points; ++k) {
        const long long s = k / pps;
        const float v = s < total ? std::clamp(m[s], -1.0f, 1.0f) : 0.0f;
        out.push_back(v > 0.0f ? v : 0.0f);
        out.push_back(v > 0.0f ? 0.0f : v);
    }
    return out;
}

Pairs run(Overview& ov, int first, int last, int points, int dirty, int& result, int& err)
{
    Pairs out(2 * static_cast<size_t>(points), -7.0f);
    result = ov.generate(first, last, points, dirty, out.data(), err);
    return out;
}

void expect_same(const Pairs& got, const Pairs& want, size_t values)
{
    ASSERT_GE(got.size(), values);
    ASSERT_GE(want.size(), values);
    for (size_t i = 0; i < values; ++i)
        ASSERT_EQ(got[i], want[i]) << (i % 2 ? "minimum" : "maximum") << " of point " << i / 2;
}

// Progress record whose callback logs every report and cancels at a chosen
// report (0: never).
struct ProgressLog {
    std::vector<float> percents;
    std::vector<int> packets;
    int cancel_at = 0;
    void clear()
    {
        percents.clear();
        packets.clear();
    }
    static int callback(float percent, void* context, int packet)
    {
        auto* log = static_cast<ProgressLog*>(context);
        log->percents.push_back(percent);
        log->packets.push_back(packet);
        return log->cancel_at != 0 && static_cast<int>(log->percents.size()) == log->cancel_at ? 0 : 1;
    }
    _kel_overview_progress_t record(int report_always) { return {&ProgressLog::callback, this, report_always}; }
};

} // namespace

TEST(OverviewChecks, BadRangesRunsAndScales)
{
    auto t = make_clip(uniform(10, 64), sine);
    Overview& ov = *t->overview;
    std::vector<float> out(40);
    const int epnm = fourcc("EPnm");
    for (auto [first, last] : std::vector<std::pair<int, int>>{{-1, 5}, {0, 10}, {5, 4}}) {
        for (int dirty : {0, 3}) {
            int err = 0;
            EXPECT_EQ(ov.generate(first, last, 10, dirty, out.data(), err), 0);
            EXPECT_EQ(err, epnm);
        }
        int err = 0;
        EXPECT_EQ(ov.generate_rms(first, last, out.data(), err), 0);
        EXPECT_EQ(err, epnm);
        EXPECT_EQ(ov.find_max_sample(first, last, err), 0.0f);
        EXPECT_EQ(err, epnm);
    }
    for (int dirty : {-1, 11}) {
        int err = 0;
        EXPECT_EQ(ov.generate(0, 9, 10, dirty, out.data(), err), 0);
        EXPECT_EQ(err, fourcc("Eprm"));
    }
    int err = 0;
    EXPECT_EQ(ov.generate(0, 9, 0, 0, out.data(), err), 0);
    EXPECT_EQ(err, fourcc("Escl"));
    err = 12345; // a good call clears an earlier code
    EXPECT_EQ(ov.generate(0, 9, 20, 10, out.data(), err), 20);
    EXPECT_EQ(err, 0);
}

TEST(OverviewCoarse, MatchesPairReferenceAndDecodesEachPacketOnce)
{
    auto t = make_clip(uniform(100, 1024), sine);
    int result = 0, err = 0;
    // 37 points: 2767 samples, 21 pairs, up to four packets per point.
    Pairs got = run(*t->overview, 0, 99, 37, 0, result, err);
    EXPECT_EQ(result, 37);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(t->clip->decode_calls, 100) << "every cache built exactly once";
    expect_same(got, reference_coarse(*t, 0, 99, 37), 74);

    t->clip->decode_calls = 0;
    const std::vector<std::array<int, 3>> cases{{0, 99, 100}, {0, 99, 50}, {0, 99, 300}, {0, 99, 1},
                                                {0, 99, 800}, {10, 59, 13}, {99, 99, 8}};
    for (auto [first, last, points] : cases) {
        SCOPED_TRACE(::testing::Message() << first << ".." << last << " on " << points);
        got = run(*t->overview, first, last, points, 0, result, err);
        EXPECT_EQ(result, points);
        expect_same(got, reference_coarse(*t, first, last, points), 2 * points);
    }
    EXPECT_EQ(t->clip->decode_calls, 0) << "valid caches need no decoding";
}

TEST(OverviewCoarse, PacketsOfOtherLengthsAndShortPackets)
{
    // A middle packet shorter than the first, and a last packet too short
    // to keep a cache, holding a spike.
    auto t = make_clip({1024, 1024, 96, 1024, 5}, [](int i) {
        if (i >= 3168)
            return i == 3170 ? std::pair{0.7f, 0.7f} : std::pair{0.0f, 0.0f};
        return sine(i);
    });
    int result = 0, err = 0;
    Pairs got = run(*t->overview, 0, 3, 4, 0, result, err);
    expect_same(got, reference_coarse(*t, 0, 3, 4), 8);
    got = run(*t->overview, 0, 4, 5, 0, result, err);
    EXPECT_EQ(result, 5);
    EXPECT_EQ(got[8], 0.7f) << "the short packet's spike is drawn";
    EXPECT_EQ(got[9], 0.0f);

    std::vector<float> rms(5);
    EXPECT_EQ(t->overview->generate_rms(4, 4, rms.data(), err), 1);
    EXPECT_FLOAT_EQ(rms[0], std::sqrt(0.49f / 5.0f));
    EXPECT_EQ(t->overview->find_max_sample(4, 4, err), 0.7f);
}

TEST(OverviewCoarse, GainScalesCachesWithoutDecoding)
{
    auto t = make_clip(uniform(20, 256), sine);
    std::vector<float> rms_before(20);
    int err = 0;
    t->overview->generate_rms(0, 19, rms_before.data(), err);
    const float max_before = t->overview->find_max_sample(3, 3, err);

    t->set_gain(3, 0.5f);
    t->set_gain(4, 2.0f);
    t->set_gain(11, 0.0f);
    t->clip->decode_calls = 0;
    int result = 0;
    for (int points : {20, 7, 40}) {
        Pairs got = run(*t->overview, 0, 19, points, 0, result, err);
        expect_same(got, reference_coarse(*t, 0, 19, points), 2 * points);
    }
    std::vector<float> rms(20);
    EXPECT_EQ(t->overview->generate_rms(0, 19, rms.data(), err), 20);
    EXPECT_EQ(rms[3], rms_before[3] * 0.5f);
    EXPECT_EQ(rms[4], rms_before[4] * 2.0f);
    EXPECT_EQ(rms[11], 0.0f);
    EXPECT_EQ(t->overview->find_max_sample(3, 3, err), max_before * 0.5f);
    EXPECT_EQ(t->clip->decode_calls, 0);
}

TEST(OverviewZoom, CacheFineAndExtraFineSelection)
{
    auto t = make_clip(uniform(100, 1024), sine);
    t->set_gain(5, 0.25f); // the decoding paths draw with the packets' own gain
    int err = 0;
    std::vector<float> rms(100);
    t->overview->generate_rms(0, 99, rms.data(), err);
    int result = 0;

    // 800 points: 128 samples, one cache pair each; 801: 127, decoded.
    t->clip->decode_calls = 0;
    run(*t->overview, 0, 99, 800, 0, result, err);
    EXPECT_EQ(t->clip->decode_calls, 0);
    for (int points : {801, 1000, 1024, 102400}) {
        SCOPED_TRACE(points);
        t->clip->decode_calls = 0;
        Pairs got = run(*t->overview, 0, 99, points, 0, result, err);
        EXPECT_EQ(result, points);
        EXPECT_EQ(t->clip->decode_calls, 100);
        expect_same(got, reference_fine(*t, 0, 99, points), 2 * points);
    }
    for (int points : {204800, 150000}) {
        SCOPED_TRACE(points);
        Pairs got = run(*t->overview, 0, 99, points, 0, result, err);
        EXPECT_EQ(result, points);
        expect_same(got, reference_extra_fine(*t, 0, 99, points), 2 * points);
    }
}

TEST(OverviewZoom, ShortPacketsAndClipEnd)
{
    // Packets of 4 frames keep no cache: every zoom decodes.
    auto tiny = make_clip(uniform(10, 4), sine);
    int result = 0, err = 0;
    Pairs got = run(*tiny->overview, 0, 9, 10, 0, result, err);
    EXPECT_EQ(result, 10);
    expect_same(got, reference_fine(*tiny, 0, 9, 10), 20);
    got = run(*tiny->overview, 0, 9, 80, 0, result, err);
    expect_same(got, reference_extra_fine(*tiny, 0, 9, 80), 160);
    std::vector<float> rms(10);
    EXPECT_EQ(tiny->overview->generate_rms(0, 9, rms.data(), err), 10);
    for (int p = 0; p < 10; ++p) {
        double sum = 0.0;
        for (float m : mono(*tiny, p, p))
            sum += double(m) * m;
        EXPECT_NEAR(rms[p], std::sqrt(sum / 4.0), 1e-6) << "packet " << p;
    }

    // A short last packet: 261 real samples where 320 are expected. At two
    // samples per point the decoding runs out after 130 points.
    auto t = make_clip({64, 64, 64, 64, 5}, sine);
    got = run(*t->overview, 0, 4, 160, 0, result, err);
    EXPECT_EQ(result, 130);
    EXPECT_EQ(err, 0);
    expect_same(got, reference_fine(*t, 0, 4, 160), 260);
}

TEST(OverviewBroken, UndecodablePacketDrawsAsSilence)
{
    auto t = make_clip(uniform(10, 128), [](int i) { return constant(0.5f, i); });
    t->clip->decode_error = [](int packet) { return packet == 3 ? fourcc("Edec") : 0; };
    int result = 0, err = 0;
    // From the caches, point 3 is packet 3.
    Pairs got = run(*t->overview, 0, 9, 10, 0, result, err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(result, 10);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(got[2 * i], i == 3 ? 0.0f : 0.5f) << "point " << i;
    // Decoded at 12 samples per point plus one: points 32..41 lie wholly
    // inside packet 3 (samples 384..511).
    got = run(*t->overview, 0, 9, 100, 0, result, err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(result, 100);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(got[2 * i], i >= 32 && i <= 41 ? 0.0f : 0.5f) << "point " << i;
    std::vector<float> rms(10);
    t->overview->generate_rms(0, 9, rms.data(), err);
    EXPECT_EQ(rms[3], 0.0f);
    EXPECT_EQ(rms[4], 0.5f);
    EXPECT_EQ(t->overview->find_max_sample(2, 4, err), 0.5f);
    EXPECT_EQ(t->overview->find_max_sample(3, 3, err), 0.0f);
    EXPECT_EQ(err, 0);
}

TEST(OverviewDirty, OnePacketPerRunAndNeverTheLast)
{
    // Each packet a sine of its own amplitude, so a point names its packet.
    auto t = make_clip(uniform(200, 64), [](int i) {
        const float a = static_cast<float>(i / 64 + 1) / 256.0f;
        const float s = static_cast<float>(std::sin(2.0 * kPi * (i % 64) / 64.0));
        return std::pair{a * s, a * s};
    });
    auto packet_extremes = [&](int p) {
        const Pairs pairs = packet_pairs(*t, p);
        float hi = 0.0f, lo = 0.0f;
        for (int j = 0; j < 8; ++j) {
            hi = std::max(hi, pairs[2 * j]);
            lo = std::min(lo, pairs[2 * j + 1]);
        }
        return std::pair{hi, lo};
    };
    int result = 0, err = 0;
    // 200 packets, 20 points in runs of 3: a step of 30 packets, seven
    // runs, the last cut to two points.
    Pairs got = run(*t->overview, 0, 199, 20, 3, result, err);
    EXPECT_EQ(result, 20);
    EXPECT_EQ(t->clip->decode_calls, 7) << "only the sampled packets are decoded";
    for (int i = 0; i < 20; ++i) {
        const auto [hi, lo] = packet_extremes(i / 3 * 30);
        EXPECT_EQ(got[2 * i], hi) << "point " << i;
        EXPECT_EQ(got[2 * i + 1], lo) << "point " << i;
    }
    // A step below 10 packets draws normally.
    Pairs normal = run(*t->overview, 0, 199, 100, 0, result, err);
    got = run(*t->overview, 0, 199, 100, 2, result, err);
    expect_same(got, normal, 200);

    // 91 packets, 91 points in runs of 10: the walk reaches the last packet
    // after nine runs and stops; the last point stays silent.
    auto u = make_clip(uniform(91, 64), [](int i) { return constant(0.25f, i); });
    got = run(*u->overview, 0, 90, 91, 10, result, err);
    EXPECT_EQ(result, 91);
    EXPECT_EQ(u->clip->decode_calls, 9);
    for (int i = 0; i < 90; ++i)
        ASSERT_EQ(got[2 * i], 0.25f) << "point " << i;
    EXPECT_EQ(got[180], 0.0f);
    EXPECT_EQ(got[181], 0.0f);
}

TEST(OverviewProgress, ReportsOnlyWhenAskedOrBuilding)
{
    ProgressLog log;
    _kel_overview_progress_t quiet = log.record(0);
    auto t = make_clip(uniform(100, 256), sine, &quiet);
    int result = 0, err = 0;
    // The first draw builds the caches, so it reports although not asked to.
    run(*t->overview, 0, 99, 100, 0, result, err);
    EXPECT_EQ(result, 100);
    ASSERT_FALSE(log.percents.empty());
    EXPECT_EQ(log.percents.back(), 100.0f);
    // A redraw from valid caches, and the decoding zooms, stay silent.
    log.clear();
    run(*t->overview, 0, 99, 100, 0, result, err);
    run(*t->overview, 0, 99, 2000, 0, result, err);
    EXPECT_TRUE(log.percents.empty());

    // Asked always: a report per half percent, with the packet in hand.
    _kel_overview_progress_t always = log.record(1);
    t->overview.reset(t->clip->create_overview(&always));
    run(*t->overview, 0, 99, 300, 0, result, err);
    EXPECT_EQ(result, 300);
    ASSERT_EQ(log.percents.size(), 150u) << "every second point of 300 adds 2/3 %";
    for (size_t k = 0; k < log.percents.size(); ++k) {
        EXPECT_FLOAT_EQ(log.percents[k], 100.0f * 2 * (k + 1) / 300);
        // Point i (done = i + 1) starts in packet floor(85 / 256 * i).
        EXPECT_EQ(log.packets[k], static_cast<int>((2 * k + 1) * 85 / 256));
    }
    log.clear();
    run(*t->overview, 0, 99, 2000, 0, result, err);
    EXPECT_TRUE(log.percents.empty()) << "the decoding zooms never report";

    // A cancel returns the points finished so far.
    log.clear();
    log.cancel_at = 3;
    Pairs got = run(*t->overview, 0, 99, 100, 0, result, err);
    EXPECT_EQ(result, 3);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(got[6], -7.0f) << "nothing drawn after the cancel";
    log.clear();
    log.cancel_at = 1;
    run(*t->overview, 0, 99, 20, 4, result, err);
    EXPECT_EQ(result, 4) << "the dirty redraw stops after its first run";
}

TEST(OverviewProgress, SlowDecodesReportByTimeAndCancel)
{
    // Every decode takes 15 ms: the clock is first read after ten cache
    // builds (10 x 1010 units > 10000), when 150 ms have passed.
    ProgressLog log;
    _kel_overview_progress_t quiet = log.record(0);
    auto t = make_clip(uniform(30, 64), [](int i) { return constant(i == 20 * 64 ? 0.9f : 0.1f, i); }, &quiet);
    t->clip->decode_error = [](int) {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        return 0;
    };
    log.cancel_at = 1;
    int err = 0;
    EXPECT_EQ(t->overview->find_max_sample(0, 29, err), 0.1f) << "cancelled before the loud packet";
    ASSERT_EQ(log.packets.size(), 1u);
    EXPECT_EQ(log.packets[0], 9);
    EXPECT_FLOAT_EQ(log.percents[0], 100.0f / 30 * 10);

    // Packets 0..9 now have caches; the next ten builds report again.
    log.clear();
    std::vector<float> rms(30, -1.0f);
    EXPECT_EQ(t->overview->generate_rms(0, 29, rms.data(), err), 20);
    EXPECT_EQ(log.packets, std::vector<int>{19});
    EXPECT_NEAR(rms[19], 0.1f, 1e-6);
    EXPECT_EQ(rms[20], -1.0f);

    log.cancel_at = 0;
    EXPECT_EQ(t->overview->find_max_sample(0, 29, err), 0.9f);
    EXPECT_EQ(err, 0);
}
