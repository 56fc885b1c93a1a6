// Throughput of the sample conversion kernels on one core.
//
// Each kernel processes 10^8 samples of stereo material in blocks of 4096
// frames, repeated over one cache-resident buffer, as a packet decoder or a
// saver does. The figure is GB/s of integer PCM bytes handled (2 bytes per
// sample for the 16-bit kernels, 3 for the 24-bit ones); the target is at
// least 1 GB/s for every kernel. Time is the thread's CPU time, so that other
// processes on a shared machine do not count against the kernels; the wall
// clock time is printed alongside. Each kernel is timed three times and the
// fastest round is reported.
//
// Usage: bench_kernels [samples]   (default 100000000)
#include <chrono>
#include <ctime>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "pcm/kernels.h"

namespace {

constexpr int kFrames = 4096;  // frames per call
constexpr int kChannels = 2;
constexpr int kSamples = kFrames * kChannels;
constexpr double kTarget = 1.0;  // GB/s
constexpr int kRounds = 3;       // the fastest round counts

struct Buffers {
    std::vector<unsigned char> pcm16 = std::vector<unsigned char>(size_t(kSamples) * 2);
    std::vector<unsigned char> pcm24 = std::vector<unsigned char>(size_t(kSamples) * 3);
    std::vector<float> left = std::vector<float>(kFrames);
    std::vector<float> right = std::vector<float>(kFrames);
    std::vector<float> envelope = std::vector<float>(kFrames);
    float* channels[2] = {left.data(), right.data()};

    Buffers() {
        std::mt19937 rng(12345);
        std::uniform_int_distribution<int> byte(0, 255);
        std::uniform_real_distribution<float> level(-1.05f, 1.05f);
        for (auto& b : pcm16) b = uint8_t(byte(rng));
        for (auto& b : pcm24) b = uint8_t(byte(rng));
        for (int i = 0; i < kFrames; ++i) {
            left[size_t(i)] = level(rng);
            right[size_t(i)] = level(rng);
            envelope[size_t(i)] = float(i) / kFrames;
        }
    }

    // Folds the buffers into a number so that no work can be discarded.
    unsigned checksum() const {
        unsigned sum = 0;
        for (unsigned char b : pcm16) sum = sum * 31 + b;
        for (unsigned char b : pcm24) sum = sum * 31 + b;
        for (int i = 0; i < kFrames; ++i) {
            sum = sum * 31 + unsigned(int(left[size_t(i)] * 1000.0f));
            sum = sum * 31 + unsigned(int(right[size_t(i)] * 1000.0f));
        }
        return sum;
    }
};

double thread_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Calls one block kernel until `samples` samples have passed through it and
// prints the rate; returns false when it is below the target.
bool measure(const char* name, long long samples, int bytesPerSample,
             const std::function<void(long long)>& block) {
    const long long calls = (samples + kSamples - 1) / kSamples;
    block(0);  // warm the buffers and the branch predictors
    double seconds = 0.0, wall = 0.0;
    for (int round = 0; round < kRounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = thread_seconds();
        for (long long c = 0; c < calls; ++c) block(c);
        const double cpu = thread_seconds() - cpuStart;
        const auto stop = std::chrono::steady_clock::now();
        if (round == 0 || cpu < seconds) {
            seconds = cpu;
            wall = std::chrono::duration<double>(stop - start).count();
        }
    }
    const double bytes = double(calls) * kSamples * bytesPerSample;
    const double gbps = bytes / seconds / 1e9;
    const double msps = double(calls) * kSamples / seconds / 1e6;
    std::printf("%-30s cpu %6.3f s  wall %6.3f s  %7.1f Msamples/s  %6.2f GB/s%s\n", name,
                seconds, wall, msps, gbps, gbps < kTarget ? "  (below target)" : "");
    return gbps >= kTarget;
}

} // namespace

int main(int argc, char** argv) {
    long long samples = 100000000;
    if (argc > 1) samples = std::atoll(argv[1]);
    if (samples <= 0) {
        std::fprintf(stderr, "usage: %s [samples]\n", argv[0]);
        return 2;
    }
    Buffers b;
    std::printf("%lld samples, stereo, %d frames per call\n", samples, kFrames);

    bool ok = true;
    ok &= measure("convert_le_ii16_to_ne_nifloat", samples, 2, [&](long long) {
        KEL::convert_le_ii16_to_ne_nifloat(b.pcm16.data(), b.channels, kFrames, kChannels);
    });
    ok &= measure("convert_ne_nifloat_to_ne_ii16", samples, 2, [&](long long) {
        KEL::convert_ne_nifloat_to_ne_ii16(b.channels, b.pcm16.data(), kFrames, kChannels);
    });
    // Alternating gains keep the material from decaying to silence.
    ok &= measure("apply_gain16_le", samples, 2, [&](long long c) {
        KEL::apply_gain16_le(b.pcm16.data(), kSamples * 2, (c & 1) ? 0.75f : 1.25f);
    });

    std::printf("further kernels:\n");
    ok &= measure("convert_be_ii16_to_ne_nifloat", samples, 2, [&](long long) {
        KEL::convert_be_ii16_to_ne_nifloat(b.pcm16.data(), b.channels, kFrames, kChannels);
    });
    ok &= measure("apply_gain16_be", samples, 2, [&](long long c) {
        KEL::apply_gain16_be(b.pcm16.data(), kSamples * 2, (c & 1) ? 0.75f : 1.25f);
    });
    ok &= measure("apply_gain_and_envelope16_le", samples, 2, [&](long long c) {
        KEL::apply_gain_and_envelope16_le(b.pcm16.data(), kFrames, kChannels,
                                          (c & 1) ? 0.75f : 1.25f, b.envelope.data());
    });
    ok &= measure("swap_bytes16", samples, 2, [&](long long) {
        KEL::swap_bytes16(b.pcm16.data(), kSamples * 2);
    });
    ok &= measure("convert_le_ii24_to_ne_nifloat", samples, 3, [&](long long) {
        KEL::convert_le_ii24_to_ne_nifloat(b.pcm24.data(), b.channels, kFrames, kChannels);
    });
    ok &= measure("convert_be_ii24_to_ne_nifloat", samples, 3, [&](long long) {
        KEL::convert_be_ii24_to_ne_nifloat(b.pcm24.data(), b.channels, kFrames, kChannels);
    });
    ok &= measure("convert_ne_nifloat_to_ne_ii24", samples, 3, [&](long long) {
        KEL::convert_ne_nifloat_to_ne_ii24(b.channels, b.pcm24.data(), kFrames, kChannels);
    });
    ok &= measure("convert_ne_nifloat_to_le_ii24", samples, 3, [&](long long) {
        KEL::convert_ne_nifloat_to_le_ii24(b.channels, b.pcm24.data(), kFrames, kChannels);
    });
    ok &= measure("apply_gain24_le", samples, 3, [&](long long c) {
        KEL::apply_gain24_le(b.pcm24.data(), kSamples * 3, (c & 1) ? 0.75f : 1.25f);
    });
    ok &= measure("apply_gain24_be", samples, 3, [&](long long c) {
        KEL::apply_gain24_be(b.pcm24.data(), kSamples * 3, (c & 1) ? 0.75f : 1.25f);
    });
    ok &= measure("apply_gain_and_envelope24_le", samples, 3, [&](long long c) {
        KEL::apply_gain_and_envelope24_le(b.pcm24.data(), kFrames, kChannels,
                                          (c & 1) ? 0.75f : 1.25f, b.envelope.data());
    });
    ok &= measure("swap_bytes24", samples, 3, [&](long long) {
        KEL::swap_bytes24(b.pcm24.data(), kSamples * 3);
    });

    std::printf("checksum %08x\n%s\n", b.checksum(),
                ok ? "all kernels at or above 1 GB/s" : "some kernels below 1 GB/s");
    return 0;
}
