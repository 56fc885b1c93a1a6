// Streaming two-channel sample-rate converter.
//
// Output frame j of a call sits at input position P = position + r * j,
// r = src_rate / dst_rate, counted from the call's first input frame. With
// i = P truncated toward zero (at least 0) and t = P - i, the output is the
// cubic through input frames i-3, i-2, i-1, i evaluated at t from frame
// i-2; frames -3, -2, -1 are the last three frames of the previous call.
// The converter therefore lags its input by two frames. Because the
// truncation goes toward zero, a carried position in (-1, 0) keeps i = 0
// and gives a negative t: the first output of such a call comes from the
// cubic through the history and the first new frame, evaluated between its
// first two points. A single long call would have used the stencil one
// frame earlier; the two cubics differ only by their interpolation error.
//
// When the rate goes up, a second-order low-pass at the source's Nyquist
// frequency follows, so that the images the interpolation leaves above it
// are damped. Its state carries across calls like the position and the
// history; all of it is dropped when the source rate changes.

#include "resampler/resampler.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct resampler {
    double position;    // input position of the next output frame, in (-1, 0]
    float history[2][3]; // last three input samples per channel, oldest first
    double src_rate;    // source rate of the last call
    double cutoff;      // normalised cutoff the coefficients were made for
    double b0, b1, b2, a1, a2; // low-pass, normalised by a0; b2 == b0
    float filter[2][4]; // per channel: x[n-1], x[n-2], y[n-1], y[n-2]
};

namespace {

// The cutoff cached after a reset: no real cutoff is negative, so the next
// filtered call recomputes the coefficients.
constexpr double kNoCutoff = -1.0;
// Quality factor 0.8: alpha = sin(w) / (2 * 0.8).
constexpr double kTwoQ = 1.6;
constexpr double kPi = 3.14159265358979323846;

[[noreturn]] void assertion_failed(const char* file, unsigned line, const char* expr)
{
    const char* slash = std::strrchr(file, '/');
    std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", slash ? slash + 1 : file, line, expr);
    std::abort();
}

#define RESAMP_ASSERT(e) ((e) ? (void)0 : assertion_failed(__FILE__, __LINE__, #e))

bool rates_valid(double src_rate, double dst_rate)
{
    if (!(src_rate > 0.0 && dst_rate > 0.0 && std::isfinite(src_rate) && std::isfinite(dst_rate)))
        return false;
    const double r = src_rate / dst_rate;
    return r > 0.0 && std::isfinite(r);
}

// The position a call at src_rate starts from: the carried one, unless the
// call will reset the state because the source rate has changed.
double start_position(const resampler* resamp, double src_rate)
{
    return src_rate == resamp->src_rate ? resamp->position : 0.0;
}

// Input frames for out_frames output frames as an unclamped double.
double frames_needed(const resampler* resamp, double src_rate, double dst_rate, int out_frames)
{
    return std::ceil(src_rate / dst_rate * out_frames + start_position(resamp, src_rate));
}

int clamp_to_int(double frames)
{
    if (!(frames > 0.0))
        return 0;
    return frames >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<int>(frames);
}

void clear_state(resampler* resamp)
{
    resamp->position = 0.0;
    std::memset(resamp->history, 0, sizeof resamp->history);
    std::memset(resamp->filter, 0, sizeof resamp->filter);
    resamp->cutoff = kNoCutoff;
}

// Four-point, third-order Lagrange interpolation through a, b, c, d (at
// -1, 0, 1, 2) evaluated at t:
//   y = b + t * (c1 + t * (c2 + t * c3))
//   c1 = (-2a - 3b + 6c - d) / 6, c2 = (a - 2b + c) / 2, c3 = (-a + 3b - 3c + d) / 6
// c2 and c3 are formed directly, c1 from the curve passing through c at
// t = 1 (b + c1 + c2 + c3 == c). The nested form runs innermost first as
// three fused multiply-adds: fma(fma(fma(c3, t, c2), t, c1), t, b).
inline float lagrange(float a, float b, float c, float d, float t)
{
    const float c2 = 0.5f * (a + c) - b;
    const float c3 = (d - a) * (1.0f / 6.0f) + 0.5f * (b - c);
    const float c1 = c - b - c2 - c3;
    return std::fma(std::fma(std::fma(c3, t, c2), t, c1), t, b);
}

// Input frame for output position P: truncated toward zero, at least 0,
// and never past the last frame supplied (a guard against rounding in
// extreme ratios; frames_in always covers the last position).
inline int frame_index(double p, int n_in)
{
    int i = static_cast<int>(p);
    if (i > n_in - 1)
        i = n_in - 1;
    return i < 0 ? 0 : i;
}

// One channel's sample k of the current call: k < 0 reads the history.
// With no input frames at all (an upward ratio so steep that a call takes
// none) the newest history frame stands in for frame 0.
template <int Stride>
inline float sample_at(const float* in, const float* hist, int n_in, int k)
{
    if (k < 0)
        return hist[k + 3];
    return k < n_in ? in[k * Stride] : hist[2];
}

template <int InStride, int OutStride>
void interpolate(resampler* resamp, const float* in0, const float* in1, int n_in, float* out0,
                 float* out1, double r, int n)
{
    const double pos = resamp->position;
    const float* h0 = resamp->history[0];
    const float* h1 = resamp->history[1];
    int j = 0;

    // Outputs whose stencil reaches into the history.
    for (; j < n; ++j) {
        const double p = pos + r * j;
        const int i = frame_index(p, n_in);
        if (i > 2)
            break;
        const float t = static_cast<float>(p - i);
        out0[j * OutStride] = lagrange(sample_at<InStride>(in0, h0, n_in, i - 3),
                                       sample_at<InStride>(in0, h0, n_in, i - 2),
                                       sample_at<InStride>(in0, h0, n_in, i - 1),
                                       sample_at<InStride>(in0, h0, n_in, i), t);
        out1[j * OutStride] = lagrange(sample_at<InStride>(in1, h1, n_in, i - 3),
                                       sample_at<InStride>(in1, h1, n_in, i - 2),
                                       sample_at<InStride>(in1, h1, n_in, i - 1),
                                       sample_at<InStride>(in1, h1, n_in, i), t);
    }

    // The rest reads the input only.
    for (; j < n; ++j) {
        const double p = pos + r * j;
        const int i = frame_index(p, n_in);
        const float t = static_cast<float>(p - i);
        const float* s0 = in0 + (i - 3) * InStride;
        const float* s1 = in1 + (i - 3) * InStride;
        out0[j * OutStride] =
            lagrange(s0[0], s0[InStride], s0[2 * InStride], s0[3 * InStride], t);
        out1[j * OutStride] =
            lagrange(s1[0], s1[InStride], s1[2 * InStride], s1[3 * InStride], t);
    }

    resamp->position = pos + r * n - n_in;
}

template <int InStride>
void keep_history(float* hist, const float* in, int n_in)
{
    if (n_in >= 3) {
        for (int k = 0; k < 3; ++k)
            hist[k] = in[(n_in - 3 + k) * InStride];
    } else if (n_in == 2) {
        hist[0] = hist[2];
        hist[1] = in[0];
        hist[2] = in[InStride];
    } else if (n_in == 1) {
        hist[0] = hist[1];
        hist[1] = hist[2];
        hist[2] = in[0];
    }
}

void update_coefficients(resampler* resamp, double f)
{
    if (f == resamp->cutoff)
        return;
    const double w = 2.0 * kPi * f;
    const double cw = std::cos(w);
    const double alpha = std::sin(w) / kTwoQ;
    const double a0 = 1.0 + alpha;
    resamp->b0 = (1.0 - cw) / 2.0 / a0;
    resamp->b1 = (1.0 - cw) / a0;
    resamp->b2 = resamp->b0;
    resamp->a1 = -2.0 * cw / a0;
    resamp->a2 = (1.0 - alpha) / a0;
    resamp->cutoff = f;
}

// Direct form I biquad in place over n samples, three per turn; the state
// holds x[n-1], x[n-2], y[n-1], y[n-2] between calls.
template <int Stride>
void lowpass(float* x, int n, float* state, float b0, float b1, float a1, float a2)
{
    float x1 = state[0], x2 = state[1], y1 = state[2], y2 = state[3];
    int k = 0;
    for (; k + 3 <= n; k += 3) {
        float* s = x + k * Stride;
        const float u0 = s[0], u1 = s[Stride], u2 = s[2 * Stride];
        const float v0 = b0 * (u0 + x2) + b1 * x1 - a1 * y1 - a2 * y2;
        const float v1 = b0 * (u1 + x1) + b1 * u0 - a1 * v0 - a2 * y1;
        const float v2 = b0 * (u2 + u0) + b1 * u1 - a1 * v1 - a2 * v0;
        s[0] = v0;
        s[Stride] = v1;
        s[2 * Stride] = v2;
        x2 = u1;
        x1 = u2;
        y2 = v1;
        y1 = v2;
    }
    for (; k < n; ++k) {
        float* s = x + k * Stride;
        const float u = *s;
        const float v = b0 * (u + x2) + b1 * x1 - a1 * y1 - a2 * y2;
        *s = v;
        x2 = x1;
        x1 = u;
        y2 = y1;
        y1 = v;
    }
    state[0] = x1;
    state[1] = x2;
    state[2] = y1;
    state[3] = y2;
}

template <int InStride, int OutStride>
int resample(resampler* resamp, const float* in0, const float* in1, double src_rate, float* out0,
             float* out1, double dst_rate, int n)
{
    if (src_rate != resamp->src_rate) {
        resamp->src_rate = src_rate;
        clear_state(resamp);
    }
    const double needed = frames_needed(resamp, src_rate, dst_rate, n);
    RESAMP_ASSERT(needed < static_cast<double>(INT_MAX));
    const int n_in = clamp_to_int(needed);
    const double r = src_rate / dst_rate;

    if (r == 1.0) {
        // n_in == n here: the carried position lies in (-1, 0].
        if (InStride == 1 && OutStride == 1) {
            std::memmove(out0, in0, static_cast<size_t>(n) * sizeof(float));
            std::memmove(out1, in1, static_cast<size_t>(n) * sizeof(float));
        } else {
            std::memmove(out0, in0, static_cast<size_t>(n) * 2 * sizeof(float));
        }
    } else {
        interpolate<InStride, OutStride>(resamp, in0, in1, n_in, out0, out1, r, n);
    }

    keep_history<InStride>(resamp->history[0], in0, n_in);
    keep_history<InStride>(resamp->history[1], in1, n_in);

    if (r < 1.0) {
        update_coefficients(resamp, r * 0.5);
        const float b0 = static_cast<float>(resamp->b0);
        const float b1 = static_cast<float>(resamp->b1);
        const float a1 = static_cast<float>(resamp->a1);
        const float a2 = static_cast<float>(resamp->a2);
        lowpass<OutStride>(out0, n, resamp->filter[0], b0, b1, a1, a2);
        lowpass<OutStride>(out1, n, resamp->filter[1], b0, b1, a1, a2);
    }
    return n;
}

} // namespace

extern "C" {

resampler* resampler_create(void)
{
    resampler* resamp = static_cast<resampler*>(std::calloc(1, sizeof(resampler)));
    RESAMP_ASSERT(resamp);
    resampler_reset(resamp);
    resamp->src_rate = 44100.0;
    return resamp;
}

void resampler_destroy(resampler* resamp)
{
    std::free(resamp);
}

void resampler_reset(resampler* resamp)
{
    RESAMP_ASSERT(resamp);
    clear_state(resamp);
}

int resampler_frames_in(resampler* resamp, double src_rate, double dst_rate, int out_frames)
{
    RESAMP_ASSERT(resamp);
    if (out_frames <= 0 || !rates_valid(src_rate, dst_rate))
        return 0;
    return clamp_to_int(frames_needed(resamp, src_rate, dst_rate, out_frames));
}

int resampler_frames_out(resampler* resamp, double src_rate, double dst_rate, int in_frames)
{
    RESAMP_ASSERT(resamp);
    if (in_frames <= 0 || !rates_valid(src_rate, dst_rate))
        return 0;
    const double p = start_position(resamp, src_rate);
    const double estimate = std::ceil((in_frames - p) / (src_rate / dst_rate));
    if (!(estimate >= 1.0))
        return 0;
    int n = clamp_to_int(estimate);
    for (int tries = n; tries > 0; --tries) {
        if (resampler_frames_in(resamp, src_rate, dst_rate, n) <= in_frames)
            break;
        --n;
    }
    return n;
}

int resampler_resample_ni2ch(resampler* resamp, const float* const* in, double src_rate,
                             float* const* out, double dst_rate, int out_frames)
{
    RESAMP_ASSERT(resamp);
    if (out_frames <= 0)
        return 0;
    RESAMP_ASSERT(in && in[0] && in[1] && out && out[0] && out[1]);
    RESAMP_ASSERT(rates_valid(src_rate, dst_rate));
    return resample<1, 1>(resamp, in[0], in[1], src_rate, out[0], out[1], dst_rate, out_frames);
}

int resampler_resample_i2ch(resampler* resamp, const float* in, double src_rate, float* out,
                            double dst_rate, int out_frames)
{
    RESAMP_ASSERT(resamp);
    if (out_frames <= 0)
        return 0;
    RESAMP_ASSERT(in && out);
    RESAMP_ASSERT(rates_valid(src_rate, dst_rate));
    return resample<2, 2>(resamp, in, in + 1, src_rate, out, out + 1, dst_rate, out_frames);
}

} // extern "C"
