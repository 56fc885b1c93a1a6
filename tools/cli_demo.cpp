// kel demo: a tour of the engine on material it makes itself. A sweep with
// noise becomes a clip, is edited, gained, faded and drawn, saved in the
// three PCM formats, and each saved file is opened again to check it.
#include "cli_commands.h"
#include "cli_common.h"
#include "clipoverview.h"
#include "commandline.h"
#include "progressbar.h"
#include "toolclip.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace KEL::cli {

namespace {

const char* const kDemoHelp =
    "usage: kel demo [DIR]\n"
    "\n"
    "Runs the built-in demonstration (also what 'kel' alone does). It needs\n"
    "no input: it makes a 10-second stereo clip from float buffers (a tone\n"
    "sweep with noise), cuts a second out, fades in and out, lowers one part\n"
    "by 6 dB, draws the waveform to DIR/overview.png, saves the clip as\n"
    "DIR/demo.wav, DIR/demo.aif and DIR/demo.caf, and opens each saved file\n"
    "again to check it. One line per step. DIR defaults to ./kel-demo and is\n"
    "created when missing.\n";

constexpr float kRate = 44100.0f;
constexpr int kSeconds = 10;

// An exponential sweep from 110 Hz to 1760 Hz at half scale, with quiet
// white noise; the right channel lags by a quarter turn and has noise of
// its own.
void make_sweep(std::vector<float>& left, std::vector<float>& right)
{
    constexpr double kLow = 110.0;
    constexpr double kHigh = 1760.0;
    const double length = kSeconds;
    const double ratio = std::log(kHigh / kLow);
    uint32_t state = 0x2545F491u;
    auto noise = [&state]() {
        // xorshift32: deterministic, so every run makes the same files.
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return static_cast<double>(state) / 4294967296.0 * 2.0 - 1.0;
    };
    for (size_t i = 0; i < left.size(); ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double phase = 2.0 * M_PI * kLow * length / ratio * (std::exp(t / length * ratio) - 1.0);
        left[i] = static_cast<float>(0.5 * std::sin(phase) + 0.03 * noise());
        right[i] = static_cast<float>(0.5 * std::sin(phase - M_PI / 2.0) + 0.03 * noise());
    }
}

void make_directory(const std::string& dir)
{
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST)
        fail(dir + ": cannot create the directory: " + std::strerror(errno));
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        fail(dir + ": is not a directory");
}

// Opens a saved file again and compares it with what was saved.
bool check_saved(const std::string& path, int format, double seconds, double packet_seconds)
{
    ToolClip reopened = ToolClip::open(path);
    const _kel_clip_info_t i = reopened.info();
    const double duration = reopened.duration_seconds();
    const bool ok = i.format == format && i.channels == 2 && i.sample_rate == kRate &&
                    std::fabs(duration - seconds) <= packet_seconds;
    std::printf("   reopened %s: %s, %d ch, %g Hz, %d bit, %.3f s, %d packets: %s\n", path.c_str(),
                format_name(i.format), i.channels, static_cast<double>(i.sample_rate), i.bits_per_sample, duration,
                reopened.packet_count(), ok ? "ok" : "MISMATCH");
    return ok;
}

int run_demo(const std::string& dir)
{
    make_directory(dir);

    // 1. A clip from float buffers.
    const int frames = static_cast<int>(kRate) * kSeconds;
    std::vector<float> left(static_cast<size_t>(frames));
    std::vector<float> right(static_cast<size_t>(frames));
    make_sweep(left, right);
    float* channels[2] = {left.data(), right.data()};
    int err = 0;
    kel_clip_t* made = nullptr;
    {
        ProgressBar bar("create");
        made = kel_clip_create_from_buffer(channels, kRate, frames, &err, bar.record());
    }
    ToolClip clip(made, "demo clip");
    check_interrupt();
    if (made == nullptr)
        fail_library(err != 0 ? err : KEL_ERR_UNKNOWN, "demo clip");
    const double packet_seconds = clip.seconds_at(1);
    std::printf("1. made a %.3f s stereo sweep with noise from float buffers: %s, %d packets of %.0f frames\n",
                clip.duration_seconds(), format_name(clip.info().format), clip.packet_count(),
                packet_seconds * kRate);

    // 2. Cut the fifth second out.
    PacketRange cut{clip.boundary_at(4.0), clip.boundary_at(5.0) - 1};
    const std::string cut_text = clip.describe(cut);
    ToolClip piece(kel_clip_cut(clip.get(), cut.first, cut.last, &err), "demo clip");
    if (piece.get() == nullptr)
        fail_library(err, "demo clip");
    piece.close();
    std::printf("2. cut %s out; %.3f s left\n", cut_text.c_str(), clip.duration_seconds());

    // 3. Fade in over half a second, out over the last second.
    const int count = clip.packet_count();
    const PacketRange in{0, clip.boundary_at(0.5) - 1};
    const PacketRange out{clip.boundary_at(clip.duration_seconds() - 1.0), count - 1};
    if (!kel_clip_log_fade(clip.get(), in.first, in.last, 0.0f, 1.0f, &err) ||
        !kel_clip_log_fade(clip.get(), out.first, out.last, 1.0f, 0.0f, &err))
        fail_library(err, "demo clip");
    std::printf("3. faded in over %s and out over %s\n", clip.describe(in).c_str(), clip.describe(out).c_str());

    // 4. Lower 6.0 s to 7.5 s by 6 dB.
    const PacketRange quiet{clip.boundary_at(6.0), clip.boundary_at(7.5) - 1};
    const float factor = static_cast<float>(std::pow(10.0, -6.0 / 20.0));
    float applied = 1.0f;
    for (int p = quiet.first; p <= quiet.last; ++p) {
        applied = kel_clip_packet_set_gain_nearest(clip.get(), p, factor, &err);
        if (err != 0)
            fail_library(err, "demo clip");
    }
    std::printf("4. lowered %s by 6 dB (applied %+.2f dB)\n", clip.describe(quiet).c_str(), to_db(applied));

    // 5. The waveform picture.
    const std::string picture = dir + "/overview.png";
    {
        ClipOverview overview(clip);
        overview.draw_png({0, count - 1}, 1200, 300, picture);
        std::printf("5. drew %s (1200 x 300); peak %s, RMS %s\n", picture.c_str(),
                    db_text(overview.max_sample({0, count - 1}), "dBFS").c_str(),
                    db_text(overview.rms_total({0, count - 1}), "dBFS").c_str());
    }

    // 6 to 8. Save in each format and check each saved file.
    struct Output {
        const char* name;
        int format;
    };
    static constexpr std::array<Output, 3> kOutputs{{
        {"demo.wav", KEL_FORMAT_WAVE}, // transcoded from the CAF clip
        {"demo.aif", KEL_FORMAT_AIFF}, // transcoded from the CAF clip
        {"demo.caf", KEL_FORMAT_CAF},  // the clip's own format: saved as it is
    }};
    const double seconds = clip.duration_seconds();
    int failures = 0;
    int step = 6;
    for (const Output& target : kOutputs) {
        const std::string path = dir + "/" + target.name;
        try {
            const bool same = clip.info().format == target.format;
            clip.save(path);
            std::printf("%d. saved %s (%s)\n", step, path.c_str(),
                        same ? "written as it is" : "converted with kel_clip_create + kel_clip_transcode");
            if (!check_saved(path, target.format, seconds, packet_seconds))
                ++failures;
        } catch (const Exit& e) {
            // One format failing does not stop the others.
            if (e.status == kExitCancelled)
                throw;
            ++failures;
        }
        ++step;
    }
    if (failures != 0) {
        std::printf("demo finished with %d failed step%s\n", failures, failures == 1 ? "" : "s");
        return kExitFailure;
    }
    std::printf("demo finished; files in %s\n", dir.c_str());
    return kExitOk;
}

} // namespace

void add_demo(CommandLine& kel)
{
    auto dir = std::make_shared<std::string>("kel-demo");
    CLI::App& c = kel.add("demo", "the built-in demonstration (the default)", kDemoHelp,
                          [dir] { return run_demo(*dir); });
    c.add_option("DIR", *dir, "where the demo writes its files (default ./kel-demo)");
}

} // namespace KEL::cli
