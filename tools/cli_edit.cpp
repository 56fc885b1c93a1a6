// The editing commands: cut, copy, splice, gain, fade, and convert. Edits
// move packets and set gains without decoding; only writing the result in
// another format decodes.
#include "cli_commands.h"
#include "batch.h"
#include "cli_common.h"
#include "console.h"
#include "commandline.h"
#include "toolclip.h"

#include <algorithm>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <memory>

namespace KEL::cli {

namespace {

#define KEL_RANGE_PROSE                                                           \
    "Times are rounded to the nearest packet boundary: a packet is the\n"         \
    "smallest piece the file's coding can cut without decoding (1024 frames\n"    \
    "for PCM files, 1152 for most MP3). The command prints the packets taken.\n"

#define KEL_BATCH_PROSE                                                           \
    "Several FILEs are written into --out-dir under their own names (the\n"     \
    "extension --format names, if any), -j files at once. Each file's report\n"  \
    "prints as one block, in input order. A file that fails is reported and\n"   \
    "the others go on; the status is then 1. Ctrl-C keeps the finished files\n"  \
    "and leaves no partial one.\n"

const char* const kCutHelp =
    "usage: kel cut FILE --start T --end T -o OUT\n"
    "       kel cut FILE... --start T --end T --out-dir DIR [-j N] [--json]\n"
    "\n"
    "Removes a range and writes what remains.\n"
    "\n" KEL_RANGE_PROSE "\n" KEL_BATCH_PROSE;

const char* const kCopyHelp =
    "usage: kel copy FILE --start T --end T -o OUT\n"
    "       kel copy FILE... --start T --end T --out-dir DIR [-j N] [--json]\n"
    "\n"
    "Keeps a range and writes it alone.\n"
    "\n" KEL_RANGE_PROSE "\n" KEL_BATCH_PROSE;

const char* const kSpliceHelp =
    "usage: kel splice FILE --at T --insert OTHER -o OUT\n"
    "\n"
    "Inserts all of OTHER into FILE and writes the result. The two files must\n"
    "have the same format, channels, sample rate and sample width. The\n"
    "result carries the tags of FILE.\n";

const char* const kGainHelp =
    "usage: kel gain FILE --db X [--start T --end T] -o OUT\n"
    "       kel gain FILE... --db X --out-dir DIR [-j N] [--json]\n"
    "\n"
    "Changes the loudness of the whole file or of a range by X decibels\n"
    "(negative is quieter). MP3 gain moves in steps of 1.5 dB and is changed\n"
    "without re-encoding; the command reports the gain really applied.\n"
    "\n" KEL_RANGE_PROSE "\n" KEL_BATCH_PROSE;

const char* const kFadeHelp =
    "usage: kel fade FILE [--in SEC] [--out SEC] -o OUT\n"
    "       kel fade FILE... [--in SEC] [--out SEC] --out-dir DIR [-j N] [--json]\n"
    "\n"
    "Fades in from silence over the first SEC seconds and/or out to silence\n"
    "over the last SEC seconds, rounded to whole packets (at least one).\n"
    "\n" KEL_BATCH_PROSE;

const char* const kConvertHelp =
    "usage: kel convert FILE -o OUT.ext [--rate HZ] [--bits N] [--bitrate K]\n"
    "       kel convert FILE... --out-dir DIR --format EXT [-j N] [--json] [...]\n"
    "\n"
    "Writes FILE in the format of OUT's extension: .wav (WAVE), .aif or .aiff\n"
    "(AIFF), .caf (CAF, 16 bit), .mp3 (MP3), .m4a (AAC, or Apple Lossless with\n"
    "--lossless). Formats the library cannot encode are refused with a clear\n"
    "message. Channels beyond the first two are dropped.\n"
    "\n" KEL_BATCH_PROSE;

// What the options of the editing commands fill in; each command declares
// the ones it takes.
struct EditSettings {
    std::vector<std::string> files;
    std::string output;
    std::string out_dir;       // batches
    std::string format;        // batches: the outputs' extension
    int jobs = 0;              // batches: files at once, 0 for the cores
    bool json = false;         // batches: summaries on stdout
    RangeSettings range;
    std::string codec;
    bool no_tags = false;
    double db = 0.0;           // gain
    double at = NAN;           // splice
    std::string insert;        // splice
    double fade_in = 0.0;      // fade
    double fade_out = 0.0;     // fade
    double rate = 0.0;         // convert
    int bits = 0;              // convert
    double bitrate = 0.0;      // convert, kbit/s
    bool vbr = false;          // convert
    bool lossless = false;     // convert
};

using Writer = int (*)(const EditSettings&, const std::string& file, const std::string& out);

// Runs a writing command on each of its inputs: OUT from -o for one file,
// or DIR/NAME for each under --out-dir.
int run_writer(const char* command, const EditSettings& o, Writer run)
{
    if (!o.output.empty() && !o.out_dir.empty())
        fail_usage(command, "give -o or --out-dir, not both");
    if (!o.output.empty() && o.files.size() > 1)
        fail_usage(command, "-o takes one input; use --out-dir DIR for several");
    if (o.output.empty() && o.out_dir.empty())
        fail_usage(command, "no output file given (-o OUT, or --out-dir DIR)");
    if (!o.format.empty() && o.out_dir.empty())
        fail_usage(command, "--format names the outputs of --out-dir; -o takes OUT's extension");
    std::vector<std::string> outputs;
    for (const std::string& file : o.files)
        outputs.push_back(o.output.empty() ? output_in(o.out_dir, file, o.format) : o.output);
    if (!o.out_dir.empty())
        prepare_outputs(command, o.out_dir, o.files, outputs);
    Batch batch(o.jobs, o.json);
    const size_t failed = batch.run(o.files, [&](size_t i) {
        Batch::summary()["output"] = outputs[i];
        const int status = run(o, o.files[i], outputs[i]);
        if (status != kExitOk)
            throw Exit{status};
    });
    return batch.finish(failed);
}

// Declares a command that reads FILE and writes OUT, with the options
// every such command takes; with `batch`, several FILEs and the options
// that place and pace them.
CLI::App& add_writer(CommandLine& kel, const char* name, const char* summary, const char* help,
                     std::shared_ptr<EditSettings> s, Writer run, bool batch = true)
{
    CLI::App& c = kel.add(name, summary, help, [s, run, name, batch] {
        return batch ? run_writer(name, *s, run) : run(*s, s->files[0], s->output);
    });
    CLI::Option* output;
    if (batch) {
        c.add_option("FILE", s->files, "the input files")->required();
        output = c.add_option("-o,--output", s->output,
                              "the file to write (one input); its extension picks the\n"
                              "format (.wav, .aif/.aiff, .caf, .mp3, .m4a); another format\n"
                              "than the input's is converted on the way");
        c.add_option("--out-dir", s->out_dir,
                     "write each result into DIR (made when missing) under its\n"
                     "input's name")
            ->type_name("DIR");
        c.add_option("--format", s->format,
                     "with --out-dir: the outputs' extension and so their format\n"
                     "(default: each input's own)")
            ->check(CLI::IsMember({"wav", "wave", "aif", "aiff", "caf", "mp3", "m4a"}))
            ->type_name("EXT");
        CommandLine::add_jobs(c, s->jobs);
        c.add_flag("--json", s->json,
                   "print one JSON array, one object per input with the keys\n"
                   "file, output, format, channels, sample_rate, bits_per_sample,\n"
                   "duration (of the written file) and the command's own\n"
                   "figures; a file that failed has file and error {code,\n"
                   "message} instead");
    } else {
        c.add_option("FILE", s->files, "the input file")->required()->expected(1);
        output = c.add_option("-o,--output", s->output,
                              "the file to write; its extension picks the format (.wav,\n"
                              ".aif/.aiff, .caf, .mp3, .m4a)")
                     ->required();
    }
    output->type_name("OUT");
    c.add_option("--codec", s->codec,
                 "the codec of an .m4a output (default: the input's when it\n"
                 "is AAC or Apple Lossless, else AAC)")
        ->type_name("aac|alac")
        ->check(CLI::IsMember({"aac", "alac"}));
    c.add_flag("--no-tags", s->no_tags,
               "write no tags; otherwise the input's tags (title, artist,\n"
               "cover picture and the rest) are carried into the output,\n"
               "the common ones across formats (none into .caf)");
    return c;
}

// What --codec and --no-tags ask of an output.
SaveSettings output_settings(const EditSettings& o)
{
    SaveSettings s;
    if (o.codec == "aac")
        s.codec = KEL_FORMAT_AAC;
    else if (o.codec == "alac")
        s.codec = KEL_FORMAT_ALAC;
    s.tags = !o.no_tags;
    return s;
}

int keep_or_remove(const EditSettings& o, const std::string& file, const std::string& out, bool keep)
{
    ToolClip clip = ToolClip::open(file);
    if (!o.range.packets) {
        // Frame-exact: the range as players hear the file.
        const FrameRange f = clip.frame_range(o.range);
        const long long begin = clip.start_trim(), end = clip.boundaries().back() - clip.end_trim();
        ToolClip piece(nullptr, clip.name());
        if (keep)
            piece = clip.exact_copy(f.start, f.end);
        else if (f.start <= begin)
            piece = clip.exact_copy(f.end, end);
        else if (f.end >= end)
            piece = clip.exact_copy(begin, f.start);
        if (piece.get() != nullptr) {
            piece.set_tag_source(clip.tag_source());
            const double rate = clip.info().sample_rate;
            Console::out("%s %.6f s to %.6f s (frames %lld to %lld); %.6f s left\n", keep ? "kept" : "removed",
                        (f.start - begin) / rate, (f.end - begin) / rate, f.start - begin, f.end - begin,
                        piece.heard_seconds());
            piece.save(out, output_settings(o));
            Console::out("wrote %s\n", out.c_str());
            return kExitOk;
        }
        // A cut inside the stream: MP3 frames in the middle cannot be
        // trimmed, so the removed range is rounded to whole packets.
    }
    const PacketRange r = clip.range(o.range);
    const std::string what = clip.describe(r);
    // The first frame that will be kept, while its predecessors are there.
    const ToolClip padding(clip.padding_frames(keep ? r.first : r.first == 0 ? r.last + 1 : -1), clip.name());
    int err = 0;
    ToolClip piece(keep ? kel_clip_copy(clip.get(), r.first, r.last, &err)
                        : kel_clip_cut(clip.get(), r.first, r.last, &err),
                   clip.name());
    if (piece.get() == nullptr)
        fail_library(err, clip.name());
    ToolClip& result = keep ? piece : clip;
    if (result.packet_count() == 0)
        fail(clip.name() + ": the cut takes every packet; nothing would remain");
    result.put_in_front(padding);
    if (keep)
        piece.set_tag_source(clip.tag_source());
    Console::out("%s %s; %d packets, %.3f s left\n", keep ? "kept" : "removed", what.c_str(),
                result.packet_count(), result.duration_seconds());
    result.save(out, output_settings(o));
    Console::out("wrote %s\n", out.c_str());
    return kExitOk;
}

int run_cut(const EditSettings& o, const std::string& file, const std::string& out)
{
    return keep_or_remove(o, file, out, false);
}

int run_copy(const EditSettings& o, const std::string& file, const std::string& out)
{
    return keep_or_remove(o, file, out, true);
}

int run_splice(const EditSettings& o, const std::string& file, const std::string& out)
{
    if (o.range.packets && !std::isnan(o.at) && o.at != std::floor(o.at))
        fail_usage("splice", "--at wants a whole number with --packets");
    ToolClip clip = ToolClip::open(file);
    ToolClip other = ToolClip::open(o.insert);
    int at = clip.packet_count();
    if (o.range.packets && !std::isnan(o.at)) {
        if (o.at < 0 || o.at > at)
            fail(strprintf("%s: packet %.0f is outside 0..%d", clip.name().c_str(), o.at, at));
        at = static_cast<int>(o.at);
    } else if (!std::isnan(o.at)) {
        at = clip.boundary_at(o.at);
    }
    const double at_seconds = clip.seconds_at(at);
    int err = 0;
    if (!kel_clip_will_accept(clip.get(), other.get(), &err))
        fail_library(err != 0 ? err : KEL_ERR_CLIP_MISMATCH, other.name());
    // At a seam inside the result, trims cannot be written; packets that
    // are trimmed whole (AAC's priming packet, say) are left out instead.
    // What remains of a trim within a packet (an MP3's encoder delay and
    // padding) plays at the seam.
    const auto whole_packets = [](ToolClip& c, int frames, bool from_start) {
        const std::vector<long long>& b = c.boundaries();
        int n = 0;
        const int count = c.packet_count();
        while (n < count - 1 && (from_start ? b[static_cast<size_t>(n) + 1] : b.back() - b[static_cast<size_t>(count - n - 1)]) <= frames)
            ++n;
        return n;
    };
    const int drop_front = at > 0 ? whole_packets(other, other.start_trim(), true) : 0;
    const int drop_back = at < clip.packet_count() ? whole_packets(other, other.end_trim(), false) : 0;
    if (drop_front + drop_back > 0) {
        const int start = other.start_trim(), end = other.end_trim();
        const std::vector<long long>& b = other.boundaries();
        const int count = other.packet_count();
        const long long front = b[static_cast<size_t>(drop_front)];
        const long long back = b.back() - b[static_cast<size_t>(count - drop_back)];
        ToolClip kept(kel_clip_copy(other.get(), drop_front, count - 1 - drop_back, &err), other.name());
        if (kept.get() == nullptr)
            fail_library(err, other.name());
        int unused = 0; // both trims lie within what is kept
        kel_clip_set_trims(kept.get(), static_cast<int>(start - front), static_cast<int>(end - back), &unused);
        Console::out("left out %d packets of %s that only its trims cover\n", drop_front + drop_back,
                    other.name().c_str());
        other = std::move(kept);
    }
    const int inserted = other.packet_count();
    kel_clip_insert(clip.get(), at, other.get(), &err);
    if (err != 0)
        fail_library(err, other.name());
    Console::out("inserted %d packets of %s before packet %d (%.3f s); %d packets, %.3f s in all\n", inserted,
                other.name().c_str(), at, at_seconds, clip.packet_count(), clip.duration_seconds());
    clip.save(out, output_settings(o));
    Console::out("wrote %s\n", out.c_str());
    return kExitOk;
}

int run_gain(const EditSettings& o, const std::string& file, const std::string& out)
{
    const double db = o.db;
    ToolClip clip = ToolClip::open(file);
    const PacketRange r = clip.range(o.range);
    const double factor = std::pow(10.0, db / 20.0);
    double lowest = INFINITY;
    double highest = -INFINITY;
    for (int p = r.first; p <= r.last; ++p) {
        int err = 0;
        // Stepped formats (MP3, AAC) land on the step nearest to the wish,
        // and what is reported is what the saved file carries.
        const float before = kel_clip_packet_applied_gain(clip.get(), p, &err);
        const float applied =
            err == 0 ? kel_clip_packet_set_gain_nearest(clip.get(), p, static_cast<float>(before * factor), &err)
                     : 0.0f;
        if (err != 0)
            fail_library(err, clip.name());
        const double change = before > 0.0f ? to_db(applied / before) : to_db(applied);
        lowest = std::min(lowest, change);
        highest = std::max(highest, change);
    }
    clip.note_edited(r);
    std::string applied = strprintf("%+.2f dB", lowest);
    if (highest - lowest > 0.005)
        applied = strprintf("%+.2f to %+.2f dB", lowest, highest);
    Batch::summary()["gain_db"] = lowest;
    Console::out("gain %+.2f dB asked, %s applied on %s\n", db, applied.c_str(), clip.describe(r).c_str());
    if (std::fabs(lowest - db) > 0.005 || std::fabs(highest - db) > 0.005)
        Console::out("(%s changes gain in steps; that is the nearest it can store)\n", format_name(clip.info().format));
    clip.save(out, output_settings(o));
    Console::out("wrote %s\n", out.c_str());
    return kExitOk;
}

// A fade over packets first..last from level `from` to level `to`. PCM and
// Apple Lossless take the library's envelope (the square of a straight
// ramp, frame by frame). MP3 and AAC can only step each packet's global
// gain, and the library would fold the envelope into gains truncated
// toward 1; each packet gets the step nearest to the ramp's value at its
// middle instead.
void fade(ToolClip& clip, PacketRange r, float from, float to)
{
    int err = 0;
    const int format = clip.info().format;
    if (format == KEL_FORMAT_MP3 || format == KEL_FORMAT_AAC) {
        const double n = r.last - r.first + 1;
        for (int p = r.first; p <= r.last && err == 0; ++p) {
            const double level = from + (to - from) * (p - r.first + 0.5) / n;
            const float before = kel_clip_packet_applied_gain(clip.get(), p, &err);
            if (err == 0)
                kel_clip_packet_set_gain_nearest(clip.get(), p, static_cast<float>(before * level * level), &err);
        }
        if (err != 0)
            fail_library(err, clip.name());
    } else if (!kel_clip_log_fade(clip.get(), r.first, r.last, from, to, &err)) {
        fail_library(err, clip.name());
    }
    clip.note_edited(r);
}

int run_fade(const EditSettings& o, const std::string& file, const std::string& out)
{
    const double in = o.fade_in;
    const double out_seconds = o.fade_out;
    ToolClip clip = ToolClip::open(file);
    const int count = clip.packet_count();
    if (in > 0.0) {
        const int last = std::min(count - 1, std::max(1, clip.boundary_at(in)) - 1);
        fade(clip, {0, last}, 0.0f, 1.0f);
        Console::out("fade in over %s\n", clip.describe({0, last}).c_str());
    }
    if (out_seconds > 0.0) {
        const double start = std::max(0.0, clip.duration_seconds() - out_seconds);
        const int first = std::max(0, std::min(count - 1, clip.boundary_at(start)));
        fade(clip, {first, count - 1}, 1.0f, 0.0f);
        Console::out("fade out over %s\n", clip.describe({first, count - 1}).c_str());
    }
    clip.save(out, output_settings(o));
    Console::out("wrote %s\n", out.c_str());
    return kExitOk;
}

int run_convert(const EditSettings& o, const std::string& file, const std::string& out)
{
    SaveSettings s = output_settings(o);
    s.sample_rate = static_cast<float>(o.rate);
    s.bits = o.bits;
    s.bit_rate = static_cast<int>(std::lround(o.bitrate * 1000.0));
    s.vbr = o.vbr;
    if (o.lossless) {
        if (s.codec == KEL_FORMAT_AAC)
            fail_usage("convert", "--lossless and --codec aac contradict each other");
        s.codec = KEL_FORMAT_ALAC;
    }
    ToolClip clip = ToolClip::open(file);
    const _kel_clip_info_t in = clip.info();
    clip.save(out, s);
    // Describe what was written from the file itself.
    _kel_clip_info_t written{};
    const int err = kel_file_info(out.c_str(), &written, nullptr);
    if (err != 0)
        fail_library(err, out);
    Console::out("converted %s (%s, %g Hz, %d bit) to %s (%s, %d ch, %g Hz, %d bit, %.1f kbit/s, %.3f s)\n",
                clip.name().c_str(), format_name(in.format), static_cast<double>(in.sample_rate), in.bits_per_sample,
                out.c_str(), format_name(written.format), written.channels, static_cast<double>(written.sample_rate),
                written.bits_per_sample, written.bit_rate / 1000.0, static_cast<double>(written.duration));
    return kExitOk;
}

} // namespace

void add_cut(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "cut", "remove a time range and write what remains", kCutHelp, s, run_cut);
    CommandLine::add_range(c, s->range);
}

void add_copy(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "copy", "keep a time range and write it", kCopyHelp, s, run_copy);
    CommandLine::add_range(c, s->range);
}

void add_splice(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "splice", "insert another file at a time", kSpliceHelp, s, run_splice, false);
    s->range.command = "splice";
    CommandLine::add_number(c, "--at", s->at,
                            "where to insert, in seconds, rounded to the nearest\n"
                            "packet boundary (default: the end)",
                            "T")
        ->check(CLI::NonNegativeNumber);
    c.add_flag("--packets", s->range.packets, "read --at as a packet index (OTHER goes before it)");
    c.add_option("--insert", s->insert, "the file to insert")->type_name("OTHER")->required();
}

void add_gain(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "gain", "change the loudness of a file or a range", kGainHelp, s, run_gain);
    CommandLine::add_number(c, "--db", s->db, "the change in decibels")->required();
    CommandLine::add_range(c, s->range);
}

void add_fade(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "fade", "fade in and/or out", kFadeHelp, s, run_fade);
    CLI::Option* in = CommandLine::add_number(c, "--in", s->fade_in, "length of the fade-in", "SEC");
    CLI::Option* out = CommandLine::add_number(c, "--out", s->fade_out, "length of the fade-out", "SEC");
    in->check(CLI::NonNegativeNumber);
    out->check(CLI::NonNegativeNumber);
    c.callback([in, out] {
        if (in->count() == 0 && out->count() == 0)
            throw CLI::ValidationError("give --in, --out or both");
    });
}

void add_convert(CommandLine& kel)
{
    auto s = std::make_shared<EditSettings>();
    CLI::App& c = add_writer(kel, "convert", "write a file in another format, rate or width", kConvertHelp, s,
                             run_convert);
    CommandLine::add_number(c, "--rate", s->rate, "sample rate of the result (default: the input's)", "HZ")
        ->check(CLI::Range(1.0, 1e7));
    c.add_option("--bits", s->bits,
                 "16 or 24 bits per sample for PCM and Apple Lossless\n"
                 "(default: the input's, 16 for CAF)")
        ->type_name("N")
        ->check(CLI::IsMember({16, 24}));
    CommandLine::add_number(c, "--bitrate", s->bitrate,
                            "bit rate in kbit/s for MP3 and AAC (default 128, or the\n"
                            "input's when it is coded)",
                            "K")
        ->check(CLI::Range(8.0, 640.0));
    c.add_flag("--vbr", s->vbr, "variable bit rate (MP3)");
    c.add_flag("--lossless", s->lossless, ".m4a as Apple Lossless (the same as --codec alac)");
}

} // namespace KEL::cli
