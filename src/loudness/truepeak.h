// True peak of one channel as ITU-R BS.1770-4 annex 2 estimates it: the
// largest magnitude of the signal oversampled four times (twice from 96
// kHz, not at all from 192 kHz) by a 49-tap Hann-windowed sinc, the filter
// libebur128 uses, so the two agree. Ours runs over planar blocks with the
// taps outermost, which the compiler vectorises; libebur128's
// sample-at-a-time loop through a ring buffer cost two thirds of a
// measurement.
#ifndef KEL_LOUDNESS_TRUEPEAK_H
#define KEL_LOUDNESS_TRUEPEAK_H

#include <array>
#include <cstddef>
#include <vector>

namespace KEL {

class TruePeak {
public:
    explicit TruePeak(double sample_rate);

    // Feeds the next frames of the channel.
    void add(const float* samples, size_t frames);
    // The largest magnitude so far of the samples, and of the oversampled
    // signal (which includes the samples), linear.
    double sample_peak() const { return sample_peak_; }
    double peak() const { return peak_; }

private:
    static constexpr int kTaps = 49;
    // Taps of one phase: ceil(49 / factor) at most.
    static constexpr int kMaxPhaseTaps = kTaps;

    struct Phase {
        int count = 0;
        std::array<float, kMaxPhaseTaps> coeff{};
        std::array<int, kMaxPhaseTaps> delay{}; // how many samples back
    };

    std::vector<Phase> phases_; // the in-between phases; phase 0 is the input
    int history_ = 0;           // samples the longest phase reaches back
    std::vector<float> buffer_; // history_ previous samples, then a block
    double sample_peak_ = 0.0;
    double peak_ = 0.0;
};

} // namespace KEL

#endif
