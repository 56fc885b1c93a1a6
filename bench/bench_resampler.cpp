// Resampler throughput: ten minutes of stereo noise plus a sine at 44.1 kHz
// converted to 48 kHz (and, for comparison, 48 kHz down to 44.1 kHz) in
// calls of 512 output frames, the way the encoder pipeline asks for them.
// Prints the time taken and the multiple of real time on one core.
//
//   bench_resampler [minutes]

#include "resampler/resampler.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr int kBlock = 512;
constexpr double kPi = 3.14159265358979323846;

struct Signal {
    std::vector<float> l, r, interleaved;
};

Signal make_signal(double rate, double seconds)
{
    const size_t n = static_cast<size_t>(rate * seconds) + 2 * kBlock;
    Signal s;
    s.l.resize(n);
    s.r.resize(n);
    s.interleaved.resize(2 * n);
    std::mt19937 rng(42);
    std::uniform_real_distribution<float> u(-0.25f, 0.25f);
    const double w = 2 * kPi * 997.0 / rate;
    for (size_t k = 0; k < n; ++k) {
        const float tone = static_cast<float>(0.5 * std::sin(w * static_cast<double>(k)));
        s.l[k] = tone + u(rng);
        s.r[k] = -tone + u(rng);
        s.interleaved[2 * k] = s.l[k];
        s.interleaved[2 * k + 1] = s.r[k];
    }
    return s;
}

struct Result {
    double seconds;
    double checksum;
    size_t frames_in;
};

// Converts the whole signal in calls of kBlock output frames.
Result run(const Signal& s, double src, double dst, double seconds, bool interleaved)
{
    resampler* rs = resampler_create();
    const size_t blocks = static_cast<size_t>(seconds * dst / kBlock);
    std::vector<float> out_l(kBlock), out_r(kBlock), out_i(2 * kBlock);
    float* out[2] = {out_l.data(), out_r.data()};
    double checksum = 0;
    size_t pos = 0;

    const auto start = std::chrono::steady_clock::now();
    for (size_t b = 0; b < blocks; ++b) {
        const int n_in = resampler_frames_in(rs, src, dst, kBlock);
        if (pos + static_cast<size_t>(n_in) > s.l.size())
            break;
        if (interleaved) {
            resampler_resample_i2ch(rs, s.interleaved.data() + 2 * pos, src, out_i.data(), dst, kBlock);
            checksum += out_i[0] + out_i[2 * kBlock - 1];
        } else {
            const float* in[2] = {s.l.data() + pos, s.r.data() + pos};
            resampler_resample_ni2ch(rs, in, src, out, dst, kBlock);
            checksum += out_l[0] + out_r[kBlock - 1];
        }
        pos += static_cast<size_t>(n_in);
    }
    const auto stop = std::chrono::steady_clock::now();
    resampler_destroy(rs);
    return {std::chrono::duration<double>(stop - start).count(), checksum, pos};
}

void report(const char* what, double audio_seconds, const Result& r)
{
    std::printf("%-40s %8.3f s  %8.1f x real time  (%zu input frames, checksum %.6g)\n", what,
                r.seconds, audio_seconds / r.seconds, r.frames_in, r.checksum);
}

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc > 1 ? std::atof(argv[1]) : 10.0;
    if (!(minutes > 0)) {
        std::fprintf(stderr, "usage: %s [minutes]\n", argv[0]);
        return 2;
    }
    const double seconds = minutes * 60.0;
    std::printf("%.1f minutes of stereo audio, calls of %d output frames\n", minutes, kBlock);

    {
        const Signal s = make_signal(44100, seconds);
        report("44100 -> 48000, separate channels", seconds, run(s, 44100, 48000, seconds, false));
        report("44100 -> 48000, interleaved", seconds, run(s, 44100, 48000, seconds, true));
    }
    {
        const Signal s = make_signal(48000, seconds);
        report("48000 -> 44100, separate channels", seconds, run(s, 48000, 44100, seconds, false));
    }
    return 0;
}
