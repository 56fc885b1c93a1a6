#include "loudness/truepeak.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace KEL {

namespace {

// Coefficients below this are left out, as libebur128 does (the sinc's
// zeros fall on the taps of phase 0 but for its centre).
constexpr double kAlmostZero = 1e-6;
// Frames filtered per pass: small enough to stay in the first-level cache.
constexpr size_t kBlock = 1024;

// Four lanes: SSE2, which every x86-64 has, and NEON on ARM.
typedef float Lanes __attribute__((vector_size(16)));

// Runs one phase's taps over x[i - delay] for i < n (a multiple of 8),
// folding the outputs into the lanes' extremes.
void filter(const float* coeff, const int* delay, int count, const float* x, size_t n, Lanes& top, Lanes& bottom)
{
    for (size_t i = 0; i < n; i += 8) {
        Lanes a = {0.0f, 0.0f, 0.0f, 0.0f};
        Lanes b = a;
        for (int t = 0; t < count; ++t) {
            const float* in = x + static_cast<std::ptrdiff_t>(i) - delay[t];
            Lanes u;
            Lanes v;
            std::memcpy(&u, in, sizeof u);
            std::memcpy(&v, in + 4, sizeof v);
            a += coeff[t] * u;
            b += coeff[t] * v;
        }
        top = a > top ? a : top;
        bottom = a < bottom ? a : bottom;
        top = b > top ? b : top;
        bottom = b < bottom ? b : bottom;
    }
}

} // namespace

TruePeak::TruePeak(double sample_rate)
{
    const int factor = sample_rate < 96000.0 ? 4 : sample_rate < 192000.0 ? 2 : 1;
    if (factor == 1)
        return;
    std::vector<Phase> all(static_cast<size_t>(factor));
    for (int j = 0; j < kTaps; ++j) {
        const double m = j - (kTaps - 1) / 2.0;
        double c = 1.0;
        if (std::fabs(m) > kAlmostZero)
            c = std::sin(m * M_PI / factor) / (m * M_PI / factor);
        c *= 0.5 * (1.0 - std::cos(2.0 * M_PI * j / (kTaps - 1)));
        if (std::fabs(c) <= kAlmostZero)
            continue;
        Phase& phase = all[static_cast<size_t>(j % factor)];
        phase.coeff[static_cast<size_t>(phase.count)] = static_cast<float>(c);
        phase.delay[static_cast<size_t>(phase.count)] = j / factor;
        ++phase.count;
        history_ = std::max(history_, j / factor);
    }
    // Phase 0 holds the centre tap alone: the input delayed, whose peak the
    // sample peak already covers.
    phases_.assign(all.begin() + 1, all.end());
    buffer_.assign(static_cast<size_t>(history_), 0.0f);
}

void TruePeak::add(const float* samples, size_t frames)
{
    float block_max = 0.0f;
    for (size_t i = 0; i < frames; ++i)
        block_max = std::max(block_max, std::fabs(samples[i]));
    sample_peak_ = std::max(sample_peak_, static_cast<double>(block_max));
    peak_ = std::max(peak_, sample_peak_);
    if (phases_.empty())
        return;
    const size_t h = static_cast<size_t>(history_);
    while (frames > 0) {
        const size_t n = std::min(frames, kBlock);
        if (buffer_.size() < h + n)
            buffer_.resize(h + n);
        std::copy(samples, samples + n, buffer_.begin() + static_cast<std::ptrdiff_t>(h));
        const float* x = buffer_.data() + h;
        // Whole groups of 8 through the vector filter, the rest one by one.
        const size_t whole = n / 8 * 8;
        Lanes top = {0.0f, 0.0f, 0.0f, 0.0f};
        Lanes bottom = top;
        float high = 0.0f;
        for (const Phase& phase : phases_) {
            filter(phase.coeff.data(), phase.delay.data(), phase.count, x, whole, top, bottom);
            for (size_t i = whole; i < n; ++i) {
                float acc = 0.0f;
                for (int t = 0; t < phase.count; ++t)
                    acc += phase.coeff[static_cast<size_t>(t)] * x[static_cast<std::ptrdiff_t>(i) - phase.delay[static_cast<size_t>(t)]];
                high = std::max(high, std::fabs(acc));
            }
        }
        for (int k = 0; k < 4; ++k)
            high = std::max({high, top[k], -bottom[k]});
        peak_ = std::max(peak_, static_cast<double>(high));
        // The block's last h samples are the next block's history.
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(n), buffer_.begin() + static_cast<std::ptrdiff_t>(n + h),
                  buffer_.begin());
        samples += n;
        frames -= n;
    }
}

} // namespace KEL
