// The editing commands: cut, copy, splice, gain, fade, and convert. Edits
// move packets and set gains without decoding; only writing the result in
// another format decodes.
#include "cli_commands.h"
#include "cli_common.h"
#include "options.h"
#include "toolclip.h"

#include <algorithm>
#include <cstdint>
#include <cmath>
#include <cstdio>

namespace KEL::cli {

#define KEL_CODEC_HELP                                                            \
    "  --codec aac|alac\n"                                                        \
    "              the codec of an .m4a output (default: the input's when it\n"   \
    "              is AAC or Apple Lossless, else AAC)\n"                         \
    "  --no-tags   write no tags; otherwise the input's tags (title, artist,\n"   \
    "              cover picture and the rest) are carried into the output,\n"  \
    "              the common ones across formats (none into .caf)\n"

#define KEL_RANGE_HELP                                                            \
    "  --start T   start of the range in seconds (default: the beginning)\n"      \
    "  --end T     end of the range in seconds (default: the end)\n"              \
    "  --packets   read --start and --end as packet indices, --end included\n"   \
    "  -o, --output OUT\n"                                                        \
    "              the file to write; its extension picks the format (.wav,\n"    \
    "              .aif/.aiff, .caf, .mp3, .m4a); another format than the\n"      \
    "              input's is converted on the way\n"                             \
    KEL_CODEC_HELP                                                                \
    "\n"                                                                          \
    "Times are rounded to the nearest packet boundary: a packet is the\n"         \
    "smallest piece the file's coding can cut without decoding (1024 frames\n"    \
    "for PCM files, 1152 for most MP3). The command prints the packets taken.\n"

const char* const kCutHelp =
    "usage: kel cut FILE --start T --end T -o OUT\n"
    "\n"
    "Removes a range and writes what remains.\n"
    "\n" KEL_RANGE_HELP;

const char* const kCopyHelp =
    "usage: kel copy FILE --start T --end T -o OUT\n"
    "\n"
    "Keeps a range and writes it alone.\n"
    "\n" KEL_RANGE_HELP;

const char* const kSpliceHelp =
    "usage: kel splice FILE --at T --insert OTHER -o OUT\n"
    "\n"
    "Inserts all of OTHER into FILE and writes the result. The two files must\n"
    "have the same format, channels, sample rate and sample width. The\n"
    "result carries the tags of FILE.\n"
    "\n"
    "  --at T          where to insert, in seconds, rounded to the nearest\n"
    "                  packet boundary (default: the end)\n"
    "  --packets       read --at as a packet index (OTHER goes before it)\n"
    "  --insert OTHER  the file to insert\n"
    "  -o, --output OUT  the file to write (extension picks the format)\n" KEL_CODEC_HELP;

const char* const kGainHelp =
    "usage: kel gain FILE --db X [--start T --end T] -o OUT\n"
    "\n"
    "Changes the loudness of the whole file or of a range by X decibels\n"
    "(negative is quieter). MP3 gain moves in steps of 1.5 dB and is changed\n"
    "without re-encoding; the command reports the gain really applied.\n"
    "\n"
    "  --db X      the change in decibels\n" KEL_RANGE_HELP;

const char* const kFadeHelp =
    "usage: kel fade FILE [--in SEC] [--out SEC] -o OUT\n"
    "\n"
    "Fades in from silence over the first SEC seconds and/or out to silence\n"
    "over the last SEC seconds, rounded to whole packets (at least one).\n"
    "\n"
    "  --in SEC    length of the fade-in\n"
    "  --out SEC   length of the fade-out\n"
    "  -o, --output OUT  the file to write (extension picks the format)\n" KEL_CODEC_HELP;

const char* const kConvertHelp =
    "usage: kel convert FILE -o OUT.ext [--rate HZ] [--bits N] [--bitrate K]\n"
    "\n"
    "Writes FILE in the format of OUT's extension: .wav (WAVE), .aif or .aiff\n"
    "(AIFF), .caf (CAF, 16 bit), .mp3 (MP3), .m4a (AAC, or Apple Lossless with\n"
    "--lossless). Formats the library cannot encode are refused with a clear\n"
    "message. Channels beyond the first two are dropped.\n"
    "\n"
    "  --rate HZ      sample rate of the result (default: the input's)\n"
    "  --bits N       16 or 24 bits per sample for PCM and Apple Lossless\n"
    "                 (default: the input's, 16 for CAF)\n"
    "  --bitrate K    bit rate in kbit/s for MP3 and AAC (default 128, or the\n"
    "                 input's when it is coded)\n"
    "  --vbr          variable bit rate (MP3)\n"
    "  --lossless     .m4a as Apple Lossless (the same as --codec alac)\n"
    "  -o, --output OUT  the file to write\n" KEL_CODEC_HELP;

namespace {

// The range options every range command takes.
constexpr Options::Known kStart{"start", true};
constexpr Options::Known kEnd{"end", true};
constexpr Options::Known kPacketsFlag{"packets", false};
constexpr Options::Known kOutput{"output", true};
constexpr Options::Known kCodec{"codec", true};
constexpr Options::Known kNoTags{"no-tags", false};

// What --codec and --no-tags ask of an output.
SaveSettings output_settings(const Options& o)
{
    SaveSettings s;
    const std::string codec = o.text("codec");
    if (codec == "aac")
        s.codec = KEL_FORMAT_AAC;
    else if (codec == "alac")
        s.codec = KEL_FORMAT_ALAC;
    else if (!codec.empty())
        fail_usage(o.command(), "--codec must be aac or alac");
    s.tags = !o.has("no-tags");
    return s;
}

int keep_or_remove(const char* command, const char* help, const Args& args, bool keep)
{
    const Options o(command, args, {kStart, kEnd, kPacketsFlag, kOutput, kCodec, kNoTags});
    if (o.help())
        return show_help(help);
    o.expect_positional(1, "input file");
    const std::string out = o.required("output");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    if (!o.has("packets")) {
        // Frame-exact: the range as players hear the file.
        const FrameRange f = clip.frame_range(o);
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
            std::printf("%s %.6f s to %.6f s (frames %lld to %lld); %.6f s left\n", keep ? "kept" : "removed",
                        (f.start - begin) / rate, (f.end - begin) / rate, f.start - begin, f.end - begin,
                        piece.heard_seconds());
            piece.save(out, output_settings(o));
            std::printf("wrote %s\n", out.c_str());
            return kExitOk;
        }
        // A cut inside the stream: MP3 frames in the middle cannot be
        // trimmed, so the removed range is rounded to whole packets.
    }
    const PacketRange r = clip.range(o);
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
    std::printf("%s %s; %d packets, %.3f s left\n", keep ? "kept" : "removed", what.c_str(),
                result.packet_count(), result.duration_seconds());
    result.save(out, output_settings(o));
    std::printf("wrote %s\n", out.c_str());
    return kExitOk;
}

} // namespace

int run_cut(const Args& args)
{
    return keep_or_remove("cut", kCutHelp, args, false);
}

int run_copy(const Args& args)
{
    return keep_or_remove("copy", kCopyHelp, args, true);
}

int run_splice(const Args& args)
{
    const Options o("splice", args, {{"at", true}, {"insert", true}, kPacketsFlag, kOutput, kCodec, kNoTags});
    if (o.help())
        return show_help(kSpliceHelp);
    o.expect_positional(1, "input file");
    const std::string other_path = o.required("insert");
    const std::string out = o.required("output");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    ToolClip other = ToolClip::open(other_path);
    int at = clip.packet_count();
    if (o.has("packets")) {
        const long index = o.integer("at", at);
        if (index < 0 || index > at)
            fail(strprintf("%s: packet %ld is outside 0..%d", clip.name().c_str(), index, at));
        at = static_cast<int>(index);
    } else if (o.has("at")) {
        at = clip.boundary_at(o.number_at_least("at", 0.0, 0.0));
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
        std::printf("left out %d packets of %s that only its trims cover\n", drop_front + drop_back,
                    other.name().c_str());
        other = std::move(kept);
    }
    const int inserted = other.packet_count();
    kel_clip_insert(clip.get(), at, other.get(), &err);
    if (err != 0)
        fail_library(err, other.name());
    std::printf("inserted %d packets of %s before packet %d (%.3f s); %d packets, %.3f s in all\n", inserted,
                other.name().c_str(), at, at_seconds, clip.packet_count(), clip.duration_seconds());
    clip.save(out, output_settings(o));
    std::printf("wrote %s\n", out.c_str());
    return kExitOk;
}

int run_gain(const Args& args)
{
    const Options o("gain", args, {{"db", true}, kStart, kEnd, kPacketsFlag, kOutput, kCodec, kNoTags});
    if (o.help())
        return show_help(kGainHelp);
    o.expect_positional(1, "input file");
    o.required("db");
    const double db = o.number("db", 0.0);
    const std::string out = o.required("output");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    const PacketRange r = clip.range(o);
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
    std::printf("gain %+.2f dB asked, %s applied on %s\n", db, applied.c_str(), clip.describe(r).c_str());
    if (std::fabs(lowest - db) > 0.005 || std::fabs(highest - db) > 0.005)
        std::printf("(%s changes gain in steps; that is the nearest it can store)\n", format_name(clip.info().format));
    clip.save(out, output_settings(o));
    std::printf("wrote %s\n", out.c_str());
    return kExitOk;
}

namespace {

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

} // namespace

int run_fade(const Args& args)
{
    const Options o("fade", args, {{"in", true}, {"out", true}, kOutput, kCodec, kNoTags});
    if (o.help())
        return show_help(kFadeHelp);
    o.expect_positional(1, "input file");
    if (!o.has("in") && !o.has("out"))
        fail_usage("fade", "give --in, --out or both");
    const double in = o.number_at_least("in", 0.0, 0.0);
    const double out_seconds = o.number_at_least("out", 0.0, 0.0);
    const std::string out = o.required("output");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    const int count = clip.packet_count();
    if (in > 0.0) {
        const int last = std::min(count - 1, std::max(1, clip.boundary_at(in)) - 1);
        fade(clip, {0, last}, 0.0f, 1.0f);
        std::printf("fade in over %s\n", clip.describe({0, last}).c_str());
    }
    if (out_seconds > 0.0) {
        const double start = std::max(0.0, clip.duration_seconds() - out_seconds);
        const int first = std::max(0, std::min(count - 1, clip.boundary_at(start)));
        fade(clip, {first, count - 1}, 1.0f, 0.0f);
        std::printf("fade out over %s\n", clip.describe({first, count - 1}).c_str());
    }
    clip.save(out, output_settings(o));
    std::printf("wrote %s\n", out.c_str());
    return kExitOk;
}

int run_convert(const Args& args)
{
    const Options o("convert", args,
                    {{"rate", true}, {"bits", true}, {"bitrate", true}, {"vbr", false}, {"lossless", false}, kOutput,
                     kCodec, kNoTags});
    if (o.help())
        return show_help(kConvertHelp);
    o.expect_positional(1, "input file");
    const std::string out = o.required("output");
    SaveSettings s = output_settings(o);
    s.sample_rate = static_cast<float>(o.number_at_least("rate", 0.0, 1.0));
    const long bits = o.integer("bits", 0);
    if (bits != 0 && bits != 16 && bits != 24)
        fail_usage("convert", "--bits must be 16 or 24");
    s.bits = static_cast<int>(bits);
    const double kbps = o.number_at_least("bitrate", 0.0, 8.0);
    if (kbps > 640.0)
        fail_usage("convert", "--bitrate is in kbit/s and at most 640");
    s.bit_rate = static_cast<int>(std::lround(kbps * 1000.0));
    s.vbr = o.has("vbr");
    if (o.has("lossless")) {
        if (s.codec == KEL_FORMAT_AAC)
            fail_usage("convert", "--lossless and --codec aac contradict each other");
        s.codec = KEL_FORMAT_ALAC;
    }
    ToolClip clip = ToolClip::open(o.positional()[0]);
    const _kel_clip_info_t in = clip.info();
    clip.save(out, s);
    // Describe what was written from the file itself.
    _kel_clip_info_t written{};
    const int err = kel_file_info(out.c_str(), &written, nullptr);
    if (err != 0)
        fail_library(err, out);
    std::printf("converted %s (%s, %g Hz, %d bit) to %s (%s, %d ch, %g Hz, %d bit, %.1f kbit/s, %.3f s)\n",
                clip.name().c_str(), format_name(in.format), static_cast<double>(in.sample_rate), in.bits_per_sample,
                out.c_str(), format_name(written.format), written.channels, static_cast<double>(written.sample_rate),
                written.bits_per_sample, written.bit_rate / 1000.0, static_cast<double>(written.duration));
    return kExitOk;
}

} // namespace KEL::cli
