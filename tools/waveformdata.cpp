#include "waveformdata.h"

#include "cli_common.h"
#include "clipoverview.h"
#include "partialfile.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace KEL::cli {

namespace {

constexpr int kVersion = 2;
constexpr uint32_t kFlag8Bit = 1; // flags bit 0: values are int8
constexpr size_t kHeaderBytes = 24;

void put32(std::string& out, uint32_t v)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((v >> shift) & 0xFF));
}

} // namespace

WaveformData::WaveformData(int sample_rate, int samples_per_pixel, int bits, int channels)
    : sample_rate_(sample_rate), samples_per_pixel_(samples_per_pixel), bits_(bits), channels_(channels)
{
}

int WaveformData::scale(float value, int bits)
{
    const double largest = bits == 8 ? 127.0 : 32767.0;
    const double v = std::floor(static_cast<double>(value) * largest);
    return static_cast<int>(std::clamp(v, -largest - 1.0, largest));
}

void WaveformData::add(float min, float max)
{
    values_.push_back(static_cast<int16_t>(scale(min, bits_)));
    values_.push_back(static_cast<int16_t>(scale(max, bits_)));
}

int WaveformData::length() const
{
    return static_cast<int>(values_.size() / (2 * static_cast<size_t>(channels_)));
}

void WaveformData::fill_mono(ClipOverview& overview, ToolClip& clip, PacketRange range)
{
    const std::vector<long long>& b = clip.boundaries();
    const long long frames = b[static_cast<size_t>(range.last) + 1] - b[static_cast<size_t>(range.first)];
    const long long pixels = (frames + samples_per_pixel_ - 1) / samples_per_pixel_;
    if (pixels > INT32_MAX / 2)
        fail(strprintf("%s: %lld pixels are more than the overview can make; ask for more samples per pixel",
                       clip.name().c_str(), pixels));
    // The library's pairs come as (maximum, minimum).
    const std::vector<float> pairs = overview.min_max(range, static_cast<int>(pixels));
    values_.reserve(pairs.size());
    for (size_t i = 0; i + 1 < pairs.size(); i += 2)
        add(pairs[i + 1], pairs[i]);
}

void WaveformData::fill_stereo(ToolClip& clip, PacketRange range)
{
    const std::vector<long long>& b = clip.boundaries();
    std::vector<float> left;
    std::vector<float> right;
    float lo[2] = {0.0f, 0.0f};
    float hi[2] = {0.0f, 0.0f};
    long long in_pixel = 0;
    for (int p = range.first; p <= range.last; ++p) {
        check_interrupt();
        const size_t frames = static_cast<size_t>(b[static_cast<size_t>(p) + 1] - b[static_cast<size_t>(p)]);
        left.assign(std::max<size_t>(frames, 1), 0.0f);
        right.assign(left.size(), 0.0f);
        float* buffers[2] = {left.data(), right.data()};
        int err = 0;
        const int got = kel_clip_packet_decode(clip.get(), p, buffers, &err);
        if (err != 0)
            fail_library(err, clip.name());
        const size_t n = std::min(frames, static_cast<size_t>(std::max(got, 0)));
        for (size_t i = 0; i < n; ++i) {
            const float s[2] = {left[i], right[i]};
            for (int c = 0; c < 2; ++c) {
                lo[c] = in_pixel == 0 ? s[c] : std::min(lo[c], s[c]);
                hi[c] = in_pixel == 0 ? s[c] : std::max(hi[c], s[c]);
            }
            if (++in_pixel == samples_per_pixel_) {
                add(lo[0], hi[0]);
                add(lo[1], hi[1]);
                in_pixel = 0;
            }
        }
    }
    if (in_pixel > 0) {
        add(lo[0], hi[0]);
        add(lo[1], hi[1]);
    }
}

std::string WaveformData::binary() const
{
    std::string out;
    const size_t width = bits_ == 8 ? 1 : 2;
    out.reserve(kHeaderBytes + values_.size() * width);
    put32(out, static_cast<uint32_t>(kVersion));
    put32(out, bits_ == 8 ? kFlag8Bit : 0);
    put32(out, static_cast<uint32_t>(sample_rate_));
    put32(out, static_cast<uint32_t>(samples_per_pixel_));
    put32(out, static_cast<uint32_t>(length()));
    put32(out, static_cast<uint32_t>(channels_));
    for (const int16_t v : values_) {
        const uint16_t u = static_cast<uint16_t>(v);
        out.push_back(static_cast<char>(u & 0xFF));
        if (width == 2)
            out.push_back(static_cast<char>(u >> 8));
    }
    return out;
}

std::string WaveformData::json() const
{
    std::string out = strprintf("{\"version\":%d,\"channels\":%d,\"sample_rate\":%d,\"samples_per_pixel\":%d,"
                                "\"bits\":%d,\"length\":%d,\"data\":[",
                                kVersion, channels_, sample_rate_, samples_per_pixel_, bits_, length());
    out.reserve(out.size() + values_.size() * 7 + 3);
    for (size_t i = 0; i < values_.size(); ++i) {
        if (i > 0)
            out.push_back(',');
        out += std::to_string(values_[i]);
    }
    return out + "]}\n";
}

void WaveformData::write(const std::string& path, bool as_json) const
{
    const std::string bytes = as_json ? json() : binary();
    PartialFile partial(path);
    FILE* f = std::fopen(partial.path().c_str(), "wb");
    if (f == nullptr)
        fail(path + ": cannot be written: " + std::strerror(errno));
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const int error = errno;
    if (std::fclose(f) != 0 || !written)
        fail(path + ": cannot be written: " + std::strerror(written ? errno : error));
    check_interrupt();
    partial.commit();
}

} // namespace KEL::cli
