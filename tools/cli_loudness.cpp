// kel loudness: integrated loudness, loudness range and peaks of files as
// EBU R128 measures them, with the ReplayGain 2.0 gain, one file or a whole
// album at a time.
#include "cli_commands.h"
#include "batch.h"
#include "cli_common.h"
#include "console.h"
#include "commandline.h"
#include "progressbar.h"
#include "toolclip.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

namespace KEL::cli {

namespace {

const char* const kLoudnessHelp =
    "usage: kel loudness FILE... [--album] [--json] [--tag] [-j N]\n"
    "\n"
    "Measures each file as ITU-R BS.1770-4 and EBU R128 do: integrated\n"
    "loudness (LUFS), loudness range (LU), sample peak (dBFS) and true peak\n"
    "(dBTP, four times oversampled), from the decoded audio, and the\n"
    "ReplayGain 2.0 track gain: the change that brings the file to -18 LUFS.\n"
    "Digital silence has no loudness (-inf, null in JSON). A file that cannot\n"
    "be read is reported and the others are still measured; the status is\n"
    "then 1. Files are measured -j at a time; the album values come from all\n"
    "of them afterwards.\n";

const char* const kNormalizeHelp =
    "usage: kel normalize FILE... [--target LUFS] [--album] [--max-true-peak DBTP]\n"
    "                     (-o OUT | --out-dir DIR | --in-place) [--no-tags] [-j N] [--json]\n"
    "\n"
    "Brings each file to a loudness: MP3 and AAC without re-encoding, in whole\n"
    "steps of 1.5 dB (the step nearest the target that keeps the true peak\n"
    "under the ceiling), PCM by exact scaling, Apple Lossless by encoding the\n"
    "packets again. Prints per file the loudness before, the gain applied and\n"
    "the loudness after. Tags are carried, except loudness values measured on\n"
    "the old audio (ReplayGain, R128). A file that fails is reported and the\n"
    "others go on; the status is then 1. Files are measured, then written, -j\n"
    "at a time; each file's report prints as one block, in input order.\n";

// What the options of loudness and normalize fill in.
struct LoudnessSettings {
    std::vector<std::string> files;
    bool album = false;
    bool json = false;
    bool tag = false;
    double target = -18.0;
    double max_true_peak = -1.0;
    std::string output;
    std::string out_dir;
    bool in_place = false;
    bool no_tags = false;
    int jobs = 0; // files at once, 0 for the cores
};

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

// Measures every file, -j at a time.
std::vector<Measured> measure_all(const LoudnessSettings& o)
{
    std::vector<Measured> files(o.files.size());
    Batch(o.jobs, false).run(o.files, [&](size_t i) { files[i] = measure(o.files[i]); });
    return files;
}

int run_normalize(const LoudnessSettings& o)
{
    const int destinations = (o.output.empty() ? 0 : 1) + (o.out_dir.empty() ? 0 : 1) + (o.in_place ? 1 : 0);
    if (destinations != 1)
        fail_usage("normalize", "give one of -o, --out-dir and --in-place");
    if (!o.output.empty() && o.files.size() != 1)
        fail_usage("normalize", "-o takes one input; use --out-dir or --in-place for several");
    std::vector<std::string> outputs;
    for (const std::string& file : o.files)
        outputs.push_back(o.out_dir.empty() ? (o.in_place ? file : o.output) : output_in(o.out_dir, file, ""));
    if (!o.out_dir.empty())
        prepare_outputs("normalize", o.out_dir, o.files, outputs);
    for (size_t i = 0; o.in_place && i < o.files.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (o.files[i] == o.files[j])
                fail_usage("normalize", o.files[i] + " is given twice; --in-place writes each file once");
    const double target = o.target;
    const double ceiling = o.max_true_peak;
    SaveSettings settings;
    settings.tags = !o.no_tags;

    const std::vector<Measured> files = measure_all(o);
    kel_loudness_t whole{-INFINITY, 0.0, 0.0, 0.0};
    if (o.album) {
        std::vector<const kel_loudness_meter_t*> meters;
        for (const Measured& m : files)
            if (m.meter != nullptr)
                meters.push_back(m.meter.get());
        if (!meters.empty())
            kel_loudness_album(meters.data(), static_cast<int>(meters.size()), &whole);
    }

    Batch batch(o.jobs, o.json);
    const size_t failed = batch.run(o.files, [&](size_t i) {
        const Measured& m = files[i];
        if (m.error != 0) {
            report_library(m.error, m.file);
            throw Exit{kExitFailure};
        }
        const kel_loudness_t& level = o.album ? whole : m.values;
        if (!std::isfinite(level.integrated_lufs)) {
            Console::err("kel: %s: digital silence has no loudness; left as it is\n", m.file.c_str());
            throw Exit{kExitFailure};
        }
        ToolClip clip = ToolClip::open(m.file);
        const double applied = apply_gain(clip, level, target, ceiling);
        const std::string& out = outputs[i];
        Batch::summary()["output"] = out;
        clip.save(out, settings);
        nlohmann::ordered_json& summary = Batch::summary();
        summary["integrated_lufs"] = m.values.integrated_lufs;
        summary["gain_db"] = applied;
        summary["integrated_lufs_after"] = m.values.integrated_lufs + applied;
        summary["true_peak_dbtp_after"] = to_db(m.values.true_peak) + applied;
        Console::out("%s: %.2f LUFS, gain %+.2f dB, %.2f LUFS after (true peak %.2f dBTP); wrote %s\n",
                     m.file.c_str(), m.values.integrated_lufs, applied, m.values.integrated_lufs + applied,
                     to_db(m.values.true_peak) + applied, out.c_str());
    });
    return batch.finish(failed);
}

int run_loudness(const LoudnessSettings& o)
{
    const bool json = o.json;
    const bool album = o.album;

    std::vector<Measured> files = measure_all(o);
    int status = kExitOk;
    int failed = 0;
    for (const Measured& m : files) {
        if (m.error != 0) {
            status = kExitFailure;
            ++failed;
            if (!json)
                report_library(m.error, m.file);
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

    if (o.tag) {
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
    std::vector<nlohmann::ordered_json> objects;
    for (const Measured& m : files) {
        const kel_loudness_t& v = m.values;
        if (json) {
            nlohmann::ordered_json out;
            out["file"] = m.file;
            if (m.error != 0) {
                out["error"] = {{"code", code_text(m.error)}};
            } else {
                out["integrated_lufs"] = v.integrated_lufs;
                out["range_lu"] = v.range_lu;
                out["sample_peak_dbfs"] = to_db(v.sample_peak);
                out["true_peak_dbtp"] = to_db(v.true_peak);
                out["track_gain_db"] = gain_to_reference(v.integrated_lufs);
                if (album) {
                    out["album_integrated_lufs"] = whole.integrated_lufs;
                    out["album_gain_db"] = gain_to_reference(whole.integrated_lufs);
                }
            }
            objects.push_back(std::move(out));
        } else if (m.error == 0) {
            Console::out("%s\n", m.file.c_str());
            Console::out("  integrated   %s\n", db_or_inf(v.integrated_lufs, false, "LUFS").c_str());
            Console::out("  range        %.2f LU\n", v.range_lu);
            Console::out("  sample peak  %s\n", db_or_inf(v.sample_peak, true, "dBFS").c_str());
            Console::out("  true peak    %s\n", db_or_inf(v.true_peak, true, "dBTP").c_str());
            Console::out("  track gain   %s\n", db_or_inf(gain_to_reference(v.integrated_lufs), false, "dB").c_str());
        }
    }
    if (json)
        print_json_array(objects);
    else if (album)
        Console::out("album\n  integrated   %s\n  range        %.2f LU\n  true peak    %s\n  album gain   %s\n",
                    db_or_inf(whole.integrated_lufs, false, "LUFS").c_str(), whole.range_lu,
                    db_or_inf(whole.true_peak, true, "dBTP").c_str(),
                    db_or_inf(gain_to_reference(whole.integrated_lufs), false, "dB").c_str());
    if (failed > 0 && !json)
        Console::err("kel: %d of %zu files could not be measured\n", failed, files.size());
    return status;
}

} // namespace

void add_loudness(CommandLine& kel)
{
    auto s = std::make_shared<LoudnessSettings>();
    CLI::App& c = kel.add("loudness", "EBU R128 loudness, range, true peak and ReplayGain 2.0 gain", kLoudnessHelp,
                          [s] { return run_loudness(*s); });
    c.add_option("FILE", s->files, "the files to measure")->required();
    CommandLine::add_jobs(c, s->jobs);
    c.add_flag("--album", s->album, "also the values of all the files as one programme, and the\nalbum gain");
    c.add_flag("--tag", s->tag,
               "write the ReplayGain values (track, and album with --album)\n"
               "into each file's tags, the audio untouched");
    c.add_flag("--json", s->json,
               "one JSON array, one object per file with the keys file,\n"
               "integrated_lufs, range_lu, sample_peak_dbfs, true_peak_dbtp,\n"
               "track_gain_db, and with --album album_integrated_lufs and\n"
               "album_gain_db (the same in every object); a file that failed\n"
               "has file and error instead");
}

void add_normalize(CommandLine& kel)
{
    auto s = std::make_shared<LoudnessSettings>();
    CLI::App& c = kel.add("normalize", "bring files to a loudness, MP3 and AAC without re-encoding", kNormalizeHelp,
                          [s] { return run_normalize(*s); });
    c.add_option("FILE", s->files, "the files to bring to the loudness")->required();
    CommandLine::add_number(c, "--target", s->target, "the integrated loudness wanted (default -18)", "LUFS");
    c.add_flag("--album", s->album,
               "one gain for all the files: the album's loudness\n"
               "to the target, their relative levels kept");
    CommandLine::add_number(c, "--max-true-peak", s->max_true_peak,
                            "ceiling for the true peak after the gain (default -1)", "DBTP");
    c.add_option("-o,--output", s->output, "the file to write (one input only)")->type_name("OUT");
    c.add_option("--out-dir", s->out_dir, "write each result into DIR under its own name")->type_name("DIR");
    c.add_flag("--in-place", s->in_place,
               "replace each file (written beside it, then renamed\n"
               "over it, so a failure leaves the original)");
    c.add_flag("--no-tags", s->no_tags, "write no tags");
    CommandLine::add_jobs(c, s->jobs);
    c.add_flag("--json", s->json,
               "print one JSON array, one object per input with the keys\n"
               "file, output, integrated_lufs, gain_db, integrated_lufs_after,\n"
               "true_peak_dbtp_after and the written file's format, channels,\n"
               "sample_rate, bits_per_sample and duration; a file that failed\n"
               "has file and error {code, message} instead");
}

} // namespace KEL::cli
