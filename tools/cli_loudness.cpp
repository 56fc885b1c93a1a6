// kel loudness: integrated loudness, loudness range and peaks of files as
// EBU R128 measures them, with the ReplayGain 2.0 gain, one file or a whole
// album at a time.
#include "cli_commands.h"
#include "cli_common.h"
#include "options.h"
#include "progressbar.h"
#include "toolclip.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

namespace KEL::cli {

const char* const kLoudnessHelp =
    "usage: kel loudness FILE... [--album] [--json] [--tag]\n"
    "\n"
    "Measures each file as ITU-R BS.1770-4 and EBU R128 do: integrated\n"
    "loudness (LUFS), loudness range (LU), sample peak (dBFS) and true peak\n"
    "(dBTP, four times oversampled), from the decoded audio, and the\n"
    "ReplayGain 2.0 track gain: the change that brings the file to -18 LUFS.\n"
    "Digital silence has no loudness (-inf, null in JSON). A file that cannot\n"
    "be read is reported and the others are still measured; the status is\n"
    "then 1.\n"
    "\n"
    "  --album   also the values of all the files as one programme, and the\n"
    "            album gain\n"
    "  --tag     write the ReplayGain values (track, and album with --album)\n"
    "            into each file's tags, the audio untouched\n"
    "  --json    one JSON array, one object per file with the keys file,\n"
    "            integrated_lufs, range_lu, sample_peak_dbfs, true_peak_dbtp,\n"
    "            track_gain_db, and with --album album_integrated_lufs and\n"
    "            album_gain_db (the same in every object); a file that failed\n"
    "            has file and error instead\n";

const char* const kNormalizeHelp =
    "usage: kel normalize FILE... [--target LUFS] [--album] [--max-true-peak DBTP]\n"
    "                     (-o OUT | --out-dir DIR | --in-place) [--no-tags]\n"
    "\n"
    "Brings each file to a loudness: MP3 and AAC without re-encoding, in whole\n"
    "steps of 1.5 dB (the step nearest the target that keeps the true peak\n"
    "under the ceiling), PCM by exact scaling, Apple Lossless by encoding the\n"
    "packets again. Prints per file the loudness before, the gain applied and\n"
    "the loudness after. Tags are carried, except loudness values measured on\n"
    "the old audio (ReplayGain, R128). A file that fails is reported and the\n"
    "others go on; the status is then 1.\n"
    "\n"
    "  --target LUFS         the integrated loudness wanted (default -18)\n"
    "  --album               one gain for all the files: the album's loudness\n"
    "                        to the target, their relative levels kept\n"
    "  --max-true-peak DBTP  ceiling for the true peak after the gain (default -1)\n"
    "  -o, --output OUT      the file to write (one input only)\n"
    "  --out-dir DIR         write each result into DIR under its own name\n"
    "  --in-place            replace each file (written beside it, then renamed\n"
    "                        over it, so a failure leaves the original)\n"
    "  --no-tags             write no tags\n";

namespace {

// ReplayGain 2.0 plays everything at -18 LUFS.
constexpr double kReferenceLufs = -18.0;

struct MeterFree {
    void operator()(kel_loudness_meter_t* m) const { kel_loudness_meter_free(m); }
};
using Meter = std::unique_ptr<kel_loudness_meter_t, MeterFree>;

struct Measured {
    std::string file;
    Meter meter;
    kel_loudness_t values{};
    int error = 0;
};

Measured measure(const std::string& path)
{
    Measured m;
    m.file = path;
    ToolClip clip = ToolClip::try_open(path, m.error);
    if (clip.get() == nullptr)
        return m;
    int err = 0;
    {
        ProgressBar bar("measure");
        m.meter.reset(kel_clip_measure_loudness(clip.get(), 0, clip.packet_count() - 1, &err, bar.record()));
    }
    check_interrupt();
    if (m.meter == nullptr) {
        m.error = err != 0 ? err : KEL_ERR_UNKNOWN;
        return m;
    }
    kel_loudness_meter_result(m.meter.get(), &m.values);
    return m;
}

double gain_to_reference(double lufs)
{
    return std::isfinite(lufs) ? kReferenceLufs - lufs : NAN;
}

std::string db_or_inf(double linear_or_db, bool linear, const char* unit)
{
    const double db = linear ? to_db(linear_or_db) : linear_or_db;
    return std::isfinite(db) ? strprintf("%.2f %s", db, unit) : strprintf("-inf %s", unit);
}

// Where a normalised file goes.
std::string output_for(const Options& o, const std::string& input)
{
    if (o.has("in-place"))
        return input;
    if (o.has("out-dir")) {
        const size_t slash = input.find_last_of('/');
        return o.text("out-dir") + "/" + (slash == std::string::npos ? input : input.substr(slash + 1));
    }
    return o.text("output");
}

// Brings the clip from `level` to target_lufs under the true-peak ceiling,
// as the library proposes for its format. Returns the change applied, in
// decibels.
double apply_gain(ToolClip& clip, const kel_loudness_t& level, double target_lufs, double ceiling_dbtp)
{
    const int count = clip.packet_count();
    std::vector<float> gains(static_cast<size_t>(count));
    int err = 0;
    const double applied =
        kel_clip_propose_gains(clip.get(), 0, count - 1, &level, target_lufs, ceiling_dbtp, gains.data(), &err);
    for (int p = 0; err == 0 && p < count; ++p)
        kel_clip_packet_set_gain(clip.get(), p, gains[static_cast<size_t>(p)], &err);
    if (err != 0)
        fail_library(err, clip.name());
    clip.note_edited({0, count - 1});
    return applied;
}

} // namespace

int run_normalize(const Args& args)
{
    const Options o("normalize", args,
                    {{"target", true}, {"album", false}, {"max-true-peak", true}, {"output", true},
                     {"out-dir", true}, {"in-place", false}, {"no-tags", false}});
    if (o.help())
        return show_help(kNormalizeHelp);
    if (o.positional().empty())
        fail_usage("normalize", "no file given");
    const int destinations = (o.has("output") ? 1 : 0) + (o.has("out-dir") ? 1 : 0) + (o.has("in-place") ? 1 : 0);
    if (destinations != 1)
        fail_usage("normalize", "give one of -o, --out-dir and --in-place");
    if (o.has("output") && o.positional().size() != 1)
        fail_usage("normalize", "-o takes one input; use --out-dir or --in-place for several");
    const double target = o.number("target", kReferenceLufs);
    const double ceiling = o.number("max-true-peak", -1.0);
    SaveSettings settings;
    settings.tags = !o.has("no-tags");

    std::vector<Measured> files;
    for (const std::string& path : o.positional())
        files.push_back(measure(path));
    kel_loudness_t whole{-INFINITY, 0.0, 0.0, 0.0};
    if (o.has("album")) {
        std::vector<const kel_loudness_meter_t*> meters;
        for (const Measured& m : files)
            if (m.meter != nullptr)
                meters.push_back(m.meter.get());
        if (!meters.empty())
            kel_loudness_album(meters.data(), static_cast<int>(meters.size()), &whole);
    }

    int failed = 0;
    for (const Measured& m : files) {
        if (m.error != 0) {
            report_library(m.error, m.file);
            ++failed;
            continue;
        }
        const kel_loudness_t& level = o.has("album") ? whole : m.values;
        if (!std::isfinite(level.integrated_lufs)) {
            std::fprintf(stderr, "kel: %s: digital silence has no loudness; left as it is\n", m.file.c_str());
            ++failed;
            continue;
        }
        try {
            ToolClip clip = ToolClip::open(m.file);
            const double applied = apply_gain(clip, level, target, ceiling);
            const std::string out = output_for(o, m.file);
            clip.save(out, settings);
            std::printf("%s: %.2f LUFS, gain %+.2f dB, %.2f LUFS after (true peak %.2f dBTP); wrote %s\n",
                        m.file.c_str(), m.values.integrated_lufs, applied, m.values.integrated_lufs + applied,
                        to_db(m.values.true_peak) + applied, out.c_str());
        } catch (const Exit& e) {
            if (e.status == kExitCancelled)
                throw;
            ++failed;
        }
    }
    if (failed > 0)
        std::fprintf(stderr, "kel: %d of %zu files were not normalised\n", failed, files.size());
    return failed > 0 ? kExitFailure : kExitOk;
}

int run_loudness(const Args& args)
{
    const Options o("loudness", args, {{"album", false}, {"json", false}, {"tag", false}});
    if (o.help())
        return show_help(kLoudnessHelp);
    if (o.positional().empty())
        fail_usage("loudness", "no file given");
    const bool json = o.has("json");
    const bool album = o.has("album");

    std::vector<Measured> files;
    int status = kExitOk;
    int failed = 0;
    for (const std::string& path : o.positional()) {
        files.push_back(measure(path));
        if (files.back().error != 0) {
            status = kExitFailure;
            ++failed;
            if (!json)
                report_library(files.back().error, path);
        }
    }

    kel_loudness_t whole{-INFINITY, 0.0, 0.0, 0.0};
    if (album) {
        std::vector<const kel_loudness_meter_t*> meters;
        for (const Measured& m : files)
            if (m.meter != nullptr)
                meters.push_back(m.meter.get());
        if (!meters.empty())
            kel_loudness_album(meters.data(), static_cast<int>(meters.size()), &whole);
    }

    if (o.has("tag")) {
        for (Measured& m : files) {
            if (m.error != 0 || !std::isfinite(m.values.integrated_lufs))
                continue;
            int err = 0;
            kel_tags_set_replaygain(m.file.c_str(), gain_to_reference(m.values.integrated_lufs), m.values.true_peak,
                                    album ? gain_to_reference(whole.integrated_lufs) : NAN, whole.true_peak, &err);
            if (err != 0) {
                report_library(err, m.file);
                status = kExitFailure;
            }
        }
    }
    if (json)
        std::printf("[\n");
    for (size_t n = 0; n < files.size(); ++n) {
        const Measured& m = files[n];
        const kel_loudness_t& v = m.values;
        if (json) {
            std::string out = "  {\"file\": " + json_string(m.file);
            if (m.error != 0) {
                out += ", \"error\": {\"code\": " + json_string(code_text(m.error)) + "}}";
            } else {
                out += ", \"integrated_lufs\": " + json_number(v.integrated_lufs);
                out += ", \"range_lu\": " + json_number(v.range_lu);
                out += ", \"sample_peak_dbfs\": " + json_number(to_db(v.sample_peak));
                out += ", \"true_peak_dbtp\": " + json_number(to_db(v.true_peak));
                out += ", \"track_gain_db\": " + json_number(gain_to_reference(v.integrated_lufs));
                if (album) {
                    out += ", \"album_integrated_lufs\": " + json_number(whole.integrated_lufs);
                    out += ", \"album_gain_db\": " + json_number(gain_to_reference(whole.integrated_lufs));
                }
                out += "}";
            }
            std::printf("%s%s\n", out.c_str(), n + 1 < files.size() ? "," : "");
        } else if (m.error == 0) {
            std::printf("%s\n", m.file.c_str());
            std::printf("  integrated   %s\n", db_or_inf(v.integrated_lufs, false, "LUFS").c_str());
            std::printf("  range        %.2f LU\n", v.range_lu);
            std::printf("  sample peak  %s\n", db_or_inf(v.sample_peak, true, "dBFS").c_str());
            std::printf("  true peak    %s\n", db_or_inf(v.true_peak, true, "dBTP").c_str());
            std::printf("  track gain   %s\n", db_or_inf(gain_to_reference(v.integrated_lufs), false, "dB").c_str());
        }
    }
    if (json)
        std::printf("]\n");
    else if (album)
        std::printf("album\n  integrated   %s\n  range        %.2f LU\n  true peak    %s\n  album gain   %s\n",
                    db_or_inf(whole.integrated_lufs, false, "LUFS").c_str(), whole.range_lu,
                    db_or_inf(whole.true_peak, true, "dBTP").c_str(),
                    db_or_inf(gain_to_reference(whole.integrated_lufs), false, "dB").c_str());
    if (failed > 0 && !json)
        std::fprintf(stderr, "kel: %d of %zu files could not be measured\n", failed, files.size());
    return status;
}

} // namespace KEL::cli
