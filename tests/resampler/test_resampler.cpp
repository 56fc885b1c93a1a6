// Tests of the streaming resampler: the frame arithmetic, exact copies at
// equal rates, agreement with a double-precision model of the algorithm
// (the low-pass only when the rate goes up) over random call sizes, and
// resets.

#include "resampler/resampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Destroy {
    void operator()(resampler* r) const { resampler_destroy(r); }
};
using Resampler = std::unique_ptr<resampler, Destroy>;

struct Stereo {
    std::vector<float> l, r;
    explicit Stereo(size_t n = 0) : l(n), r(n) {}
    size_t size() const { return l.size(); }
};

Stereo noise(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Stereo s(n);
    for (size_t k = 0; k < n; ++k) {
        s.l[k] = u(rng);
        s.r[k] = u(rng);
    }
    return s;
}

// Calls of the given output sizes over one input stream; returns the
// concatenated output and the input frames each call took.
Stereo stream(resampler* rs, const Stereo& in, double src, double dst, const std::vector<int>& calls,
              std::vector<int>* taken = nullptr)
{
    Stereo out;
    size_t pos = 0;
    for (int n : calls) {
        const int n_in = resampler_frames_in(rs, src, dst, n);
        EXPECT_LE(pos + static_cast<size_t>(n_in), in.size());
        const float* ip[2] = {in.l.data() + pos, in.r.data() + pos};
        Stereo o(static_cast<size_t>(n));
        float* op[2] = {o.l.data(), o.r.data()};
        EXPECT_EQ(resampler_resample_ni2ch(rs, ip, src, op, dst, n), n);
        out.l.insert(out.l.end(), o.l.begin(), o.l.end());
        out.r.insert(out.r.end(), o.r.begin(), o.r.end());
        pos += static_cast<size_t>(n_in);
        if (taken)
            taken->push_back(n_in);
    }
    return out;
}

// Second-order low-pass at the source's Nyquist frequency, Q = 0.8, from
// the bilinear-transform design; coefficients normalised by a0.
struct Biquad {
    double b0, b1, b2, a1, a2;
    explicit Biquad(double r)
    {
        const double w = kPi * r;
        const double alpha = std::sin(w) / (2.0 * 0.8);
        const double a0 = 1.0 + alpha;
        b0 = b2 = (1.0 - std::cos(w)) / 2.0 / a0;
        b1 = (1.0 - std::cos(w)) / a0;
        a1 = -2.0 * std::cos(w) / a0;
        a2 = (1.0 - alpha) / a0;
    }
};

// The algorithm in double precision over one channel, tracking global
// frame numbers: output frame j of a call at carried position p is the
// Lagrange cubic through global frames g+i-3 .. g+i (g: frames taken
// before the call, frames before the stream are 0, the newest frame taken
// stands in for one not yet supplied) in its basis-polynomial form.
std::vector<double> model(const std::vector<float>& x, double src, const std::vector<double>& dsts,
                          const std::vector<int>& calls)
{
    double p = 0.0, x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    long g = 0;
    std::vector<double> out;
    for (size_t c = 0; c < calls.size(); ++c) {
        const int n = calls[c];
        const double r = src / dsts[c];
        const Biquad f(r);
        const long n_in = static_cast<long>(std::ceil(r * n + p));
        auto at = [&](long k) {
            k = std::min(k, g + n_in - 1);
            return k < 0 ? 0.0 : static_cast<double>(x[static_cast<size_t>(k)]);
        };
        for (int j = 0; j < n; ++j) {
            const double pj = p + r * j;
            const long i = std::max(0L, static_cast<long>(std::trunc(pj)));
            const double t = pj - static_cast<double>(i);
            const long base = g + i - 3;
            double y = -t * (t - 1) * (t - 2) / 6 * at(base) + (t + 1) * (t - 1) * (t - 2) / 2 * at(base + 1) -
                       (t + 1) * t * (t - 2) / 2 * at(base + 2) + (t + 1) * t * (t - 1) / 6 * at(base + 3);
            if (r < 1.0) {
                const double v = f.b0 * y + f.b1 * x1 + f.b2 * x2 - f.a1 * y1 - f.a2 * y2;
                x2 = x1, x1 = y, y2 = y1, y1 = v;
                y = v;
            }
            out.push_back(y);
        }
        p += r * n - static_cast<double>(n_in);
        g += n_in;
    }
    return out;
}

std::vector<double> model(const std::vector<float>& x, double src, double dst, const std::vector<int>& calls)
{
    return model(x, src, std::vector<double>(calls.size(), dst), calls);
}

double max_diff(const std::vector<float>& a, const std::vector<double>& b, size_t from = 0)
{
    double m = 0;
    for (size_t k = from; k < std::min(a.size(), b.size()); ++k)
        m = std::max(m, std::fabs(static_cast<double>(a[k]) - b[k]));
    return m;
}

TEST(ResamplerDeathTest, ResetOfNullEndsTheProcess)
{
    EXPECT_DEATH(resampler_reset(nullptr), "resampler\\.cpp:[0-9]+: failed assertion `resamp'");
}

TEST(ResamplerCopy, EqualRatesCopyBitExactly)
{
    Stereo in = noise(3000, 1);
    in.l[3] = std::numeric_limits<float>::denorm_min();
    in.l[4] = -0.0f;
    in.r[5] = std::numeric_limits<float>::infinity();
    uint32_t payload = 0x7FC12345u;
    std::memcpy(&in.r[6], &payload, sizeof payload);

    Resampler rs(resampler_create());
    // Leave a negative carried position behind at the source rate.
    std::vector<int> first{100};
    stream(rs.get(), in, 44100, 48000, first);
    const int before = resampler_frames_in(rs.get(), 44100, 48000, 512);

    size_t pos = 0;
    std::vector<float> inter(2 * 1000), outer(2 * 1000);
    for (int n : {1, 2, 3, 700, 1000}) {
        ASSERT_EQ(resampler_frames_in(rs.get(), 44100, 44100, n), n);
        Stereo o(static_cast<size_t>(n));
        const float* ip[2] = {in.l.data() + pos, in.r.data() + pos};
        float* op[2] = {o.l.data(), o.r.data()};
        ASSERT_EQ(resampler_resample_ni2ch(rs.get(), ip, 44100, op, 44100, n), n);
        EXPECT_EQ(std::memcmp(o.l.data(), ip[0], o.l.size() * 4), 0);
        EXPECT_EQ(std::memcmp(o.r.data(), ip[1], o.r.size() * 4), 0);

        for (int k = 0; k < n; ++k)
            inter[2 * k] = in.l[pos + k], inter[2 * k + 1] = in.r[pos + k];
        ASSERT_EQ(resampler_resample_i2ch(rs.get(), inter.data(), 44100, outer.data(), 44100, n), n);
        EXPECT_EQ(std::memcmp(outer.data(), inter.data(), static_cast<size_t>(n) * 8), 0);
        pos += static_cast<size_t>(n);
    }
    // The carried position is left as it was.
    EXPECT_EQ(resampler_frames_in(rs.get(), 44100, 48000, 512), before);
}

TEST(ResamplerFrames, FramesOutIsTheLargestFeedableCount)
{
    struct Pair {
        double src, dst;
    };
    const Pair pairs[] = {{44100, 48000}, {48000, 44100}, {22050, 48000}, {48000, 22050}, {8000, 96000},
                          {96000, 8000},  {44100, 44100}, {32000, 44100}, {11025, 48000}, {44100, 88200}};
    for (const Pair& pr : pairs) {
        for (int carried = 0; carried < 2; ++carried) {
            Resampler rs(resampler_create());
            if (carried) {
                Stereo in = noise(2000, 3);
                stream(rs.get(), in, pr.src, pr.dst, {37, 5});
            }
            EXPECT_EQ(resampler_frames_out(rs.get(), pr.src, pr.dst, 0), 0);
            for (int k = 1; k <= 3000; ++k) {
                const int out = resampler_frames_out(rs.get(), pr.src, pr.dst, k);
                ASSERT_LE(resampler_frames_in(rs.get(), pr.src, pr.dst, out), k)
                    << pr.src << "->" << pr.dst << " k=" << k;
                ASSERT_GT(resampler_frames_in(rs.get(), pr.src, pr.dst, out + 1), k)
                    << pr.src << "->" << pr.dst << " k=" << k;
            }
        }
    }
}

TEST(ResamplerModel, MatchesADoublePrecisionModel)
{
    struct Case {
        double src, dst;
        int max_call;
    };
    // Random call sizes down to 1; 8000 -> 48000 includes calls that take
    // no input frame at all.
    const Case cases[] = {{44100, 48000, 700}, {48000, 44100, 700}, {22050, 48000, 300},
                          {48000, 22050, 300}, {44100, 88200, 64},  {8000, 48000, 8},
                          {96000, 44100, 500}, {48000, 47999, 900}};
    for (const Case& c : cases) {
        std::mt19937 rng(static_cast<uint32_t>(c.src + c.dst));
        std::vector<int> calls;
        int total = 0;
        while (total < 20000) {
            calls.push_back(1 + static_cast<int>(rng() % static_cast<unsigned>(c.max_call)));
            total += calls.back();
        }
        const Stereo in = noise(static_cast<size_t>(total * c.src / c.dst) + 16, 4);
        Resampler rs(resampler_create());
        const Stereo out = stream(rs.get(), in, c.src, c.dst, calls);
        EXPECT_LT(max_diff(out.l, model(in.l, c.src, c.dst, calls)), 5e-6) << c.src << "->" << c.dst;
        EXPECT_LT(max_diff(out.r, model(in.r, c.src, c.dst, calls)), 5e-6) << c.src << "->" << c.dst;
    }
}

// The destination rate may change from call to call at one source rate:
// position, history and filter state carry on, and each upward ratio gets
// its own filter.
TEST(ResamplerModel, DestinationChangesCarryTheState)
{
    const double dst_cycle[] = {48000, 96000, 32000, 48000, 88200};
    std::vector<int> calls;
    std::vector<double> dsts;
    for (int k = 0; k < 40; ++k) {
        calls.push_back(100 + 37 * (k % 7));
        dsts.push_back(dst_cycle[k % 5]);
    }
    const Stereo in = noise(20000, 6);
    Resampler rs(resampler_create());
    std::vector<float> out;
    size_t pos = 0;
    for (size_t c = 0; c < calls.size(); ++c) {
        const int n_in = resampler_frames_in(rs.get(), 44100, dsts[c], calls[c]);
        const float* ip[2] = {in.l.data() + pos, in.r.data() + pos};
        Stereo o(static_cast<size_t>(calls[c]));
        float* op[2] = {o.l.data(), o.r.data()};
        resampler_resample_ni2ch(rs.get(), ip, 44100, op, dsts[c], calls[c]);
        out.insert(out.end(), o.l.begin(), o.l.end());
        pos += static_cast<size_t>(n_in);
    }
    EXPECT_LT(max_diff(out, model(in.l, 44100, dsts, calls)), 5e-6);
}

TEST(ResamplerModel, InterleavedEqualsSeparateChannels)
{
    const Stereo in = noise(40000, 5);
    Resampler a(resampler_create()), b(resampler_create());
    std::mt19937 rng(9);
    size_t pos = 0;
    for (int call = 0; call < 60; ++call) {
        const int n = 1 + static_cast<int>(rng() % 600);
        const int n_in = resampler_frames_in(a.get(), 44100, 48000, n);
        ASSERT_EQ(resampler_frames_in(b.get(), 44100, 48000, n), n_in);
        const float* ip[2] = {in.l.data() + pos, in.r.data() + pos};
        Stereo o(static_cast<size_t>(n));
        float* op[2] = {o.l.data(), o.r.data()};
        resampler_resample_ni2ch(a.get(), ip, 44100, op, 48000, n);
        std::vector<float> ii(2 * static_cast<size_t>(n_in)), oi(2 * static_cast<size_t>(n));
        for (int k = 0; k < n_in; ++k)
            ii[2 * k] = ip[0][k], ii[2 * k + 1] = ip[1][k];
        resampler_resample_i2ch(b.get(), ii.data(), 44100, oi.data(), 48000, n);
        for (int k = 0; k < n; ++k) {
            ASSERT_EQ(oi[2 * k], o.l[k]);
            ASSERT_EQ(oi[2 * k + 1], o.r[k]);
        }
        pos += static_cast<size_t>(n_in);
    }
}

TEST(ResamplerReset, ChangingTheSourceRateDropsTheHistory)
{
    Stereo ones(4000);
    std::fill(ones.l.begin(), ones.l.end(), 1.0f);
    std::fill(ones.r.begin(), ones.r.end(), 1.0f);

    // A new source rate: the first output is the middle history frame
    // (zero) through a filter at rest.
    Resampler a(resampler_create());
    stream(a.get(), ones, 44100, 48000, {500});
    EXPECT_EQ(resampler_frames_in(a.get(), 22050, 48000, 480), 221);
    const Stereo after = stream(a.get(), ones, 22050, 48000, {480});
    Resampler fresh(resampler_create());
    const Stereo ref = stream(fresh.get(), ones, 22050, 48000, {480});
    EXPECT_EQ(after.l[0], 0.0f);
    EXPECT_EQ(after.l, ref.l);
    EXPECT_EQ(after.r, ref.r);

    // Only the destination rate changing keeps history and filter state.
    Resampler b(resampler_create());
    stream(b.get(), ones, 44100, 48000, {500});
    const Stereo kept = stream(b.get(), ones, 44100, 96000, {100});
    EXPECT_NEAR(kept.l[0], 1.0f, 1e-3);

    // An explicit reset does the same as a new source rate.
    resampler_reset(b.get());
    EXPECT_EQ(resampler_frames_in(b.get(), 44100, 48000, 500), 460);
    const Stereo reset = stream(b.get(), ones, 44100, 48000, {500});
    EXPECT_EQ(reset.l[0], 0.0f);
}

TEST(ResamplerFrames, DegenerateRequests)
{
    Resampler rs(resampler_create());
    EXPECT_EQ(resampler_frames_in(rs.get(), 44100, 48000, -5), 0);
    EXPECT_EQ(resampler_frames_out(rs.get(), 44100, 48000, -5), 0);
    EXPECT_EQ(resampler_frames_in(rs.get(), 0, 48000, 10), 0);
    EXPECT_EQ(resampler_frames_in(rs.get(), 44100, -1, 10), 0);
    EXPECT_EQ(resampler_frames_out(rs.get(), std::nan(""), 48000, 10), 0);
    const float* ip[2] = {nullptr, nullptr};
    float* op[2] = {nullptr, nullptr};
    EXPECT_EQ(resampler_resample_ni2ch(rs.get(), ip, 44100, op, 48000, 0), 0);
    // Saturates instead of overflowing.
    EXPECT_EQ(resampler_frames_in(rs.get(), 1e9, 1, 1000000), std::numeric_limits<int>::max());
}

} // namespace
