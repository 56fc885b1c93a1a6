// The vectorised true-peak filter against libebur128's own, which it must
// match: same peaks at every oversampling factor, whatever blocks the audio
// arrives in.
#include "loudness/truepeak.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ebur128.h>
#include <random>
#include <vector>

namespace {

// Noise with bursts of a quarter-rate square wave, whose band-limited
// peaks fall between the samples, well above the sample peak.
std::vector<float> test_signal(size_t frames, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-0.3f, 0.3f);
    std::vector<float> s(frames);
    for (size_t i = 0; i < frames; ++i)
        s[i] = noise(random) * ((i / 5000) % 2 == 0 ? 1.0f : 0.05f);
    for (size_t i = frames / 3; i < frames / 3 + 400; ++i)
        s[i] = (i / 2) % 2 == 0 ? 0.9f : -0.9f;
    return s;
}

double libebur128_peak(const std::vector<float>& s, unsigned long rate, int (*get)(ebur128_state*, unsigned int, double*))
{
    ebur128_state* state = ebur128_init(1, rate, EBUR128_MODE_TRUE_PEAK);
    ebur128_add_frames_float(state, s.data(), s.size());
    double peak = 0.0;
    get(state, 0, &peak);
    ebur128_destroy(&state);
    return peak;
}

TEST(TruePeak, MatchesLibebur128AtEveryFactorAndBlocking)
{
    for (const unsigned long rate : {44100ul, 48000ul, 96000ul, 192000ul}) {
        const std::vector<float> s = test_signal(30011, static_cast<unsigned>(rate));
        const double sample_peak = libebur128_peak(s, rate, ebur128_sample_peak);
        const double true_peak = libebur128_peak(s, rate, ebur128_true_peak);
        if (rate < 192000)
            EXPECT_GT(true_peak, sample_peak * 1.05) << "the signal must have peaks between its samples";
        else
            EXPECT_EQ(true_peak, sample_peak) << "no oversampling from 192 kHz";
        for (const size_t chunk : {size_t{1}, size_t{7}, size_t{1152}, size_t{4099}, s.size()}) {
            KEL::TruePeak meter(static_cast<double>(rate));
            for (size_t at = 0; at < s.size(); at += chunk)
                meter.add(s.data() + at, std::min(chunk, s.size() - at));
            EXPECT_EQ(meter.sample_peak(), sample_peak) << rate << " Hz in blocks of " << chunk;
            EXPECT_NEAR(meter.peak(), true_peak, true_peak * 1e-5) << rate << " Hz in blocks of " << chunk;
        }
    }
}

} // namespace
