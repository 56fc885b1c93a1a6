#include "loudness/loudnessmeter.h"

#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/progress.h"

#include <algorithm>
#include <cmath>
#include <ebur128.h>
#include <new>
#include <vector>

namespace KEL {

namespace {

// Everything a meter answers but the peaks; the histogram keeps its memory
// constant however long the programme.
constexpr int kMode = EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_HISTOGRAM;

} // namespace

LoudnessMeter* LoudnessMeter::measure(Clip& clip, int first, int last, int* err, _kel_progress_ext_t* progress)
{
    *err = 0;
    if (first < 0 || last >= clip.packet_count || last < first) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    // The working form has two lanes; a single-channel clip delivers its
    // channel twice and is measured once, as the standard weighs channels.
    const int channels = clip.channels == 1 ? 1 : 2;
    const double rate = clip.sample_rate;
    if (!(rate >= 1.0 && rate <= 2822400.0)) {
        *err = kErrParameter;
        return nullptr;
    }
    ebur128_state* state = ebur128_init(static_cast<unsigned int>(channels), static_cast<unsigned long>(rate), kMode);
    if (state == nullptr) {
        *err = kErrUnknown;
        return nullptr;
    }
    auto* meter = new (std::nothrow) LoudnessMeter(state, channels, rate);
    if (meter == nullptr) {
        ebur128_destroy(&state);
        *err = kErrUnknown;
        return nullptr;
    }

    std::vector<float> left, right, interleaved;
    ProgressThrottle throttle(progress);
    const float step = 100.0f / static_cast<float>(last - first + 1);
    for (int p = first; p <= last; ++p) {
        int code = 0;
        const int frames = clip.packet_frame_count(p, &code);
        if (code == 0 && frames > 0) {
            left.assign(static_cast<size_t>(frames), 0.0f);
            right.assign(static_cast<size_t>(frames), 0.0f);
            float* lanes[2] = {left.data(), right.data()};
            // The packet's own gain and envelope: what the listener hears.
            const int got = clip.packet_decode_play(p, lanes, &code, -1.0f);
            if (code == 0 && got > 0) {
                const size_t n = static_cast<size_t>(std::min(got, frames));
                meter->peaks_[0].add(left.data(), n);
                if (channels == 1) {
                    ebur128_add_frames_float(state, left.data(), n);
                } else {
                    interleaved.resize(2 * n);
                    for (size_t i = 0; i < n; ++i) {
                        interleaved[2 * i] = left[i];
                        interleaved[2 * i + 1] = right[i];
                    }
                    ebur128_add_frames_float(state, interleaved.data(), n);
                    meter->peaks_[1].add(right.data(), n);
                }
            }
        }
        if (code != 0) {
            delete meter;
            *err = code;
            return nullptr;
        }
        if (!throttle.step(step * static_cast<float>(p - first + 1))) {
            delete meter;
            *err = kErrCancelled;
            return nullptr;
        }
    }
    report_progress(progress, 100.0f);
    return meter;
}

LoudnessMeter::~LoudnessMeter()
{
    ebur128_destroy(&state_);
}

void LoudnessMeter::result(kel_loudness_t* out) const
{
    const LoudnessMeter* self = this;
    album(&self, 1, out);
}

int LoudnessMeter::album(const LoudnessMeter* const* meters, int count, kel_loudness_t* out)
{
    if (meters == nullptr || count < 1 || out == nullptr)
        return kErrParameter;
    std::vector<ebur128_state*> states;
    kel_loudness_t r{-INFINITY, 0.0, 0.0, 0.0};
    for (int i = 0; i < count; ++i) {
        if (meters[i] == nullptr)
            return kErrParameter;
        states.push_back(meters[i]->state_);
        for (const TruePeak& channel : meters[i]->peaks_) {
            r.sample_peak = std::max(r.sample_peak, channel.sample_peak());
            r.true_peak = std::max(r.true_peak, channel.peak());
        }
    }
    double value = 0.0;
    // libebur128 answers -HUGE_VAL when no block passes the gates: the
    // programme is digital silence and has no integrated loudness.
    if (ebur128_loudness_global_multiple(states.data(), states.size(), &value) == EBUR128_SUCCESS)
        r.integrated_lufs = value;
    if (ebur128_loudness_range_multiple(states.data(), states.size(), &value) == EBUR128_SUCCESS)
        r.range_lu = value;
    *out = r;
    return 0;
}

} // namespace KEL
