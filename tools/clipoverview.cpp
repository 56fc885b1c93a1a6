#include "clipoverview.h"

#include "cli_common.h"
#include "pngwriter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace KEL::cli {

namespace {

// Colours of the waveform picture.
constexpr Rgb kBackground{0x1c, 0x1f, 0x26};
constexpr Rgb kWave{0x3d, 0x8e, 0xd8};  // min/max extent of each column
constexpr Rgb kRms{0xa8, 0xd4, 0xff};   // RMS band inside the extent
constexpr Rgb kAxis{0x8a, 0x90, 0x9c};  // axis line and ticks
constexpr Rgb kLabel{0xd8, 0xdc, 0xe4}; // tick labels

constexpr int kAxisHeight = 16;      // axis line, ticks and a row of digits
constexpr int kMinTickSpacing = 70;  // pixels between labelled ticks, at least

// Tick intervals in seconds, finest first; the first that keeps ticks
// kMinTickSpacing apart is used.
static constexpr std::array<double, 22> kTickSteps{
    0.001, 0.002, 0.005,        // sub-packet zooms
    0.01,  0.02,  0.05,         // hundredths
    0.1,   0.2,   0.5,          // tenths
    1.0,   2.0,   5.0,          // seconds
    10.0,  15.0,  30.0,         // up to half a minute
    60.0,  120.0, 300.0,        // minutes
    600.0, 900.0, 1800.0,       // long recordings
    3600.0,                     // hours
};

std::string time_label(double seconds, double step)
{
    if (step >= 1.0 && seconds >= 60.0) {
        const long whole = std::lround(seconds);
        return strprintf("%ld:%02ld", whole / 60, whole % 60);
    }
    const int decimals = step >= 1.0 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
    return strprintf("%.*fs", decimals, seconds);
}

void draw_axis(PngWriter& png, int top, double t0, double t1)
{
    png.fill_rect(0, top, png.width(), top + 1, kAxis);
    const double span = t1 - t0;
    if (!(span > 0.0))
        return;
    double step = kTickSteps.back();
    for (const double s : kTickSteps) {
        if (s / span * png.width() >= kMinTickSpacing) {
            step = s;
            break;
        }
    }
    // + 0.0 turns a -0.0 from ceil into 0.0, which prints without a sign.
    for (double k = std::ceil(t0 / step - 1e-9) + 0.0;; k += 1.0) {
        const double t = k * step;
        if (t > t1 + 1e-9)
            break;
        const int x = static_cast<int>(std::lround((t - t0) / span * (png.width() - 1)));
        png.vline(x, top + 1, top + 3, kAxis);
        const std::string label = time_label(t, step);
        const int w = PngWriter::text_width(label);
        const int lx = std::clamp(x - w / 2, 0, std::max(0, png.width() - w));
        png.text(lx, top + 6, label, kLabel);
    }
}

} // namespace

ClipOverview::ClipOverview(ToolClip& clip)
    : clip_(clip), bar_("overview"), overview_(kel_clip_overview_create(clip.get(), bar_.overview_record()))
{
    if (overview_ == nullptr)
        fail_library(KEL_ERR_UNKNOWN, clip.name());
}

ClipOverview::~ClipOverview()
{
    kel_clip_overview_destroy(overview_);
}

std::vector<float> ClipOverview::min_max(PacketRange range, int points)
{
    std::vector<float> out(static_cast<size_t>(points) * 2, 0.0f);
    int err = 0;
    const int done = kel_overview_generate(overview_, range.first, range.last, points, 0, out.data(), &err);
    bar_.finish();
    check_interrupt();
    if (err != 0)
        fail_library(err, clip_.name());
    // At fine zooms the library sizes the job by the first packet's length,
    // so a clip whose packets are shorter (a short last packet) runs out of
    // samples a few points early. The points delivered cover all the audio.
    if (done < 1)
        fail(strprintf("%s: the overview delivered no points", clip_.name().c_str()));
    out.resize(static_cast<size_t>(done) * 2);
    return out;
}

std::vector<float> ClipOverview::rms(PacketRange range)
{
    std::vector<float> out(static_cast<size_t>(range.last - range.first + 1), 0.0f);
    int err = 0;
    const int done = kel_rms_generate(overview_, range.first, range.last, out.data(), &err);
    bar_.finish();
    check_interrupt();
    if (err != 0)
        fail_library(err, clip_.name());
    if (done != static_cast<int>(out.size()))
        fail(strprintf("%s: RMS values for %d of %zu packets", clip_.name().c_str(), done, out.size()));
    return out;
}

float ClipOverview::max_sample(PacketRange range)
{
    int err = 0;
    const float peak = kel_max_sample_find(overview_, range.first, range.last, &err);
    bar_.finish();
    check_interrupt();
    if (err != 0)
        fail_library(err, clip_.name());
    return peak;
}

double ClipOverview::rms_total(PacketRange range)
{
    const std::vector<float> values = rms(range);
    const std::vector<long long>& b = clip_.boundaries();
    double energy = 0.0;
    double frames = 0.0;
    for (int p = range.first; p <= range.last; ++p) {
        const double v = values[static_cast<size_t>(p - range.first)];
        const double n = static_cast<double>(b[static_cast<size_t>(p) + 1] - b[static_cast<size_t>(p)]);
        energy += v * v * n;
        frames += n;
    }
    return frames > 0.0 ? std::sqrt(energy / frames) : 0.0;
}

void ClipOverview::draw_png(PacketRange range, int width, int height, const std::string& path)
{
    PngWriter png(width, height, kBackground); // checks the size before any work
    const std::vector<float> pairs = min_max(range, width);
    const int delivered = static_cast<int>(pairs.size() / 2);
    const std::vector<float> packet_rms = rms(range);
    // Small pictures get no axis; the waveform takes all the height.
    const int wave_height = height >= 3 * kAxisHeight ? height - kAxisHeight : height;
    const double half = (wave_height - 1) / 2.0;
    auto row = [&](double value) {
        return static_cast<int>(std::lround(half - std::clamp(value, -1.0, 1.0) * half));
    };
    const int packets = range.last - range.first + 1;
    for (int x = 0; x < width; ++x) {
        // Fewer points than columns spread over the whole width.
        const size_t point = static_cast<size_t>(static_cast<long long>(x) * delivered / width);
        const int top = row(pairs[2 * point]);
        const int bottom = row(pairs[2 * point + 1]);
        png.vline(x, top, bottom, kWave);
        // The packets under this column; a column narrower than a packet
        // takes the packet it lies in.
        const int p0 = static_cast<int>(static_cast<long long>(x) * packets / width);
        const int p1 = std::max(p0, static_cast<int>(static_cast<long long>(x + 1) * packets / width) - 1);
        double energy = 0.0;
        for (int p = p0; p <= p1; ++p)
            energy += static_cast<double>(packet_rms[static_cast<size_t>(p)]) * packet_rms[static_cast<size_t>(p)];
        const double level = std::sqrt(energy / (p1 - p0 + 1));
        if (level > 0.0)
            png.vline(x, std::clamp(row(level), top, bottom), std::clamp(row(-level), top, bottom), kRms);
    }
    if (wave_height < height)
        draw_axis(png, wave_height, clip_.seconds_at(range.first), clip_.seconds_at(range.last + 1));
    png.write(path);
}

void ClipOverview::print_text(PacketRange range, int points)
{
    const std::vector<float> pairs = min_max(range, points);
    const int delivered = static_cast<int>(pairs.size() / 2);
    const double t0 = clip_.seconds_at(range.first);
    const double span = clip_.seconds_at(range.last + 1) - t0;
    std::printf("# column seconds maximum minimum\n");
    for (int i = 0; i < delivered; ++i)
        std::printf("%d %.6f %.6f %.6f\n", i, t0 + span * i / delivered, static_cast<double>(pairs[2 * static_cast<size_t>(i)]),
                    static_cast<double>(pairs[2 * static_cast<size_t>(i) + 1]));
}

} // namespace KEL::cli
