#include "core/packet.h"

#include "core/bshandle.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace KEL {

namespace {

constexpr int kPairs = Packet::kWaveCacheValues / 2;

// Four floats in one SSE register; the extremes are taken four frames at a
// time in independent lanes.
typedef float Lanes __attribute__((vector_size(16)));

Lanes load_lanes(const float* p)
{
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Extends one (maximum, minimum) pair over frames [begin, end) and adds the
// squares of the mono mix to sum. Extremes are clamped to [-1, 1].
//
// A value replaces an extreme only when strictly beyond it (NaN never does),
// so taking the extremes in four lanes and merging them gives exactly the
// frame-by-frame result. The sum of squares is rounded frame by frame in
// order, so it stays one sequential chain.
void extend_pair(float** channels, int begin, int end, float& maximum, float& minimum, float& sum)
{
    const float* left = channels[0];
    const float* right = channels[1];
    float total = sum;
    for (int i = begin; i < end; ++i) {
        const float mono = (left[i] + right[i]) * 0.5f;
        total += mono * mono;
    }
    sum = total;

    Lanes high = {maximum, maximum, maximum, maximum};
    Lanes low = {minimum, minimum, minimum, minimum};
    int i = begin;
    for (; i + 4 <= end; i += 4) {
        const Lanes l = load_lanes(left + i);
        const Lanes r = load_lanes(right + i);
        const Lanes larger = l < r ? r : l;
        const Lanes smaller = r < l ? r : l;
        high = high < larger ? larger : high;
        low = smaller < low ? smaller : low;
    }
    float top = maximum;
    float bottom = minimum;
    for (int lane = 0; lane < 4; ++lane) {
        top = std::max(top, high[lane]);
        bottom = std::min(bottom, low[lane]);
    }
    for (; i < end; ++i) {
        top = std::max(top, std::max(left[i], right[i]));
        bottom = std::min(bottom, std::min(left[i], right[i]));
    }
    maximum = std::min(top, 1.0f);
    minimum = std::max(bottom, -1.0f);
}

} // namespace

Packet::Packet(int bit_rate, float sample_rate, int format_value, int frame_count, BSHandle* handle)
    : handle(handle), bit_rate(bit_rate), sample_rate(sample_rate), format_value(format_value),
      frame_count(frame_count)
{
    if (handle != nullptr)
        handle->retain();
}

Packet::~Packet()
{
    if (handle != nullptr)
        handle->release();
    delete[] envelope;
}

int Packet::get_bytes(void* dest, float)
{
    return handle != nullptr ? handle->get_bytes(dest, 0) : 0;
}

int Packet::get_bytes_with_gain_and_envelope(void* dest)
{
    return get_bytes(dest, -1.0f);
}

int Packet::disk_frame_count()
{
    return frame_count;
}

float Packet::quantized_gain()
{
    return gain;
}

float Packet::storable_gain(float wanted)
{
    return wanted;
}

void Packet::make_wave_cache(float** channels, int frames, float* cache)
{
    // Fewer than 8 frames give no whole segment per pair: such packets keep
    // no cache (they draw from decoding instead).
    if (wave_cache_valid || frames != frame_count || frames < kPairs)
        return;
    float* out = cache != nullptr ? cache : wave_cache;
    const int segment = frames / kPairs;
    float sum = 0.0f;
    for (int pair = 0; pair < kPairs; ++pair) {
        float maximum = 0.0f;
        float minimum = 0.0f;
        const int begin = pair * segment;
        extend_pair(channels, begin, begin + segment, maximum, minimum, sum);
        out[2 * pair] = maximum;
        out[2 * pair + 1] = minimum;
    }
    // The frames left over after eight whole segments widen the last pair.
    if (frames > kPairs * segment)
        extend_pair(channels, kPairs * segment, frames, out[2 * kPairs - 2], out[2 * kPairs - 1], sum);
    if (cache == nullptr) {
        rms = std::sqrt(sum * (1.0f / static_cast<float>(frames)));
        wave_cache_valid = 1;
    }
}

void Packet::get_wave_cache(float* out16) const
{
    if (gain == 1.0f) {
        std::memcpy(out16, wave_cache, sizeof wave_cache);
        return;
    }
    for (int i = 0; i < kWaveCacheValues; ++i)
        out16[i] = wave_cache[i] * gain;
}

void Packet::get_wave_cache_raw(float* out16) const
{
    std::memcpy(out16, wave_cache, sizeof wave_cache);
}

void Packet::get_rms_cache(float* out) const
{
    *out = rms * gain;
}

void Packet::get_rms_cache_raw(float* out) const
{
    *out = rms;
}

void Packet::get_max_sample_cache(float* out) const
{
    float largest = 0.0f;
    for (float value : wave_cache) {
        const float magnitude = std::fabs(value);
        if (magnitude >= 1.0f) {
            largest = magnitude;
            break;
        }
        largest = std::max(largest, magnitude);
    }
    *out = largest * gain;
}

void Packet::gain_envelope(const float* factors, int frames)
{
    if (factors == nullptr || frames != frame_count || frames <= 0) {
        delete[] envelope;
        envelope = nullptr;
        return;
    }
    if (envelope == nullptr) {
        envelope = new (std::nothrow) float[frames];
        if (envelope == nullptr)
            return;
        std::memcpy(envelope, factors, sizeof(float) * static_cast<size_t>(frames));
        return;
    }
    for (int i = 0; i < frames; ++i)
        envelope[i] *= factors[i];
}

const float* Packet::gain_envelope(int& frames) const
{
    frames = frame_count;
    return envelope;
}

void Packet::apply_gain_envelope(float** channels, int frames) const
{
    if (envelope == nullptr)
        return;
    const int n = std::min(frames, frame_count);
    float* left = channels[0];
    float* right = channels[1];
    for (int i = 0; i < n; ++i)
        left[i] *= envelope[i];
    // A mono packet decodes into one buffer passed twice: scale it once.
    if (right != left) {
        for (int i = 0; i < n; ++i)
            right[i] *= envelope[i];
    }
}

void Packet::copy_packet_data(const Packet* from)
{
    gain = from->gain;
    if (from->wave_cache_valid) {
        // The cache values only: rms, the valid flag and the envelope stay
        // as they are.
        std::memcpy(wave_cache, from->wave_cache, sizeof wave_cache);
        return;
    }
    if (from->envelope != nullptr && from->frame_count == frame_count)
        gain_envelope(from->envelope, from->frame_count);
}

void Packet::copy_state_to(Packet* to) const
{
    to->gain = gain;
    to->wave_cache_valid = wave_cache_valid;
    std::memcpy(to->wave_cache, wave_cache, sizeof wave_cache);
    to->rms = rms;
    delete[] to->envelope;
    to->envelope = nullptr;
    if (envelope != nullptr && to->frame_count == frame_count)
        to->gain_envelope(envelope, frame_count);
}

} // namespace KEL
