// kel join: several files of one stream's parameters written as one, their
// packets moved without decoding. Each seam is made as exact as the
// format allows:
//  - where the next file begins with the very packet (or, at a packet
//    boundary, the packet after the one) that ends the result so far, as
//    the pieces of one source cut by `kel split` or `kel copy` do, the
//    packet is kept once and the seam plays the source's samples unchanged;
//  - otherwise packets that a trim covers whole (an MP3 piece's lead and
//    padding frames, AAC's priming packet) are left out, what remains of
//    the trims plays at the seam, and an MP3 frame whose bit reservoir
//    reaches back gets synthetic frames carrying it in front, so that no
//    decoder reads another file's bytes as its main data.
// The result keeps the first file's start trim and the last one's end trim.
#include "cli_commands.h"
#include "cli_common.h"
#include "commandline.h"
#include "console.h"
#include "progressbar.h"
#include "toolclip.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

namespace KEL::cli {

namespace {

const char* const kJoinHelp =
    "usage: kel join FILE1 FILE2... -o OUT [--convert]\n"
    "\n"
    "Writes the files one after the other as one file, without re-encoding. They\n"
    "must share the format, sample rate and channels (PCM: the sample width;\n"
    "MP3: the MPEG version and stereo mode, bit rates may differ); the first\n"
    "that does not is named.\n"
    "\n"
    "Pieces that kel split (or kel copy) cut from one file join back into\n"
    "exactly its samples (the packet a cut went through is recognised by its\n"
    "decode; an AAC packet with noise substitution decodes differently in\n"
    "each piece and is not, so that seam joins as other files do). Elsewhere\n"
    "an MP3's encoder delay and end padding (about 25 ms each) play where the\n"
    "files meet, as with kel splice, and an MP3 frame that keeps part of its\n"
    "data in the frames before it (the bit reservoir) gets silent frames\n"
    "carrying that data in front. The result has the first file's tags.\n";

// What the options of kel join fill in.
struct JoinSettings {
    std::vector<std::string> files;
    std::string output;
    bool convert = false;
    bool no_tags = false;
    std::string codec;
};


// Why `other` cannot follow `first` packet for packet; empty when it can.
std::string misfit(const ToolClip& first, const ToolClip& other)
{
    const _kel_clip_info_t a = first.info();
    const _kel_clip_info_t b = other.info();
    if (a.format != b.format)
        return strprintf("%s, not %s", format_name(b.format), format_name(a.format));
    if (a.sample_rate != b.sample_rate)
        return strprintf("%g Hz, not %g Hz", static_cast<double>(b.sample_rate), static_cast<double>(a.sample_rate));
    if (a.channels != b.channels)
        return strprintf("%d channels, not %d", b.channels, a.channels);
    if (a.format != KEL_FORMAT_MP3 && a.format != KEL_FORMAT_AAC && a.bits_per_sample != b.bits_per_sample)
        return strprintf("%d-bit, not %d-bit", b.bits_per_sample, a.bits_per_sample);
    if (a.format == KEL_FORMAT_MP3 && a.mpeg_version != b.mpeg_version)
        return strprintf("MPEG version %d, not %d", b.mpeg_version, a.mpeg_version);
    if (a.format == KEL_FORMAT_MP3 && a.stereo_mode != b.stereo_mode)
        return strprintf("%s, not %s", stereo_mode_name(b.stereo_mode), stereo_mode_name(a.stereo_mode));
    int err = 0;
    if (!kel_clip_will_accept(first.get(), other.get(), &err))
        return "parameters the first file's stream cannot take (" + code_text(err) + ")";
    return "";
}

// `other` transcoded into the parameters of `first`.
ToolClip convert_to(const ToolClip& first, const ToolClip& other)
{
    const _kel_clip_info_t a = first.info();
    int err = 0;
    ToolClip empty(kel_clip_create(a.format, a.channels, a.sample_rate, a.bits_per_sample,
                                   a.bit_rate > 0 ? a.bit_rate : 128000, 0, &err),
                   other.name());
    if (empty.get() == nullptr)
        fail_library(err != 0 ? err : KEL_ERR_UNKNOWN, other.name());
    kel_clip_t* result = nullptr;
    {
        ProgressBar bar("convert");
        result = kel_clip_transcode(empty.get(), other.get(), 0, other.packet_count() - 1, &err, bar.record());
    }
    ToolClip converted(result, other.name());
    check_interrupt();
    if (result == nullptr)
        fail_library(err != 0 ? err : KEL_ERR_TRANSCODE, other.name());
    return converted;
}

// Decoded samples of one packet, both channels one after the other.
std::vector<float> decoded(ToolClip& clip, int packet)
{
    int err = 0;
    const int frames = kel_clip_packet_frame_count(clip.get(), packet, &err);
    std::vector<float> out(2 * static_cast<size_t>(std::max(frames, 1)), 0.0f);
    float* buffers[2] = {out.data(), out.data() + out.size() / 2};
    kel_clip_packet_decode(clip.get(), packet, buffers, &err);
    if (err != 0)
        fail_library(err, clip.name());
    return out;
}

// Whether two decodes are of one packet. A packet decodes the same after
// the frames before it in its source as after a lead packet alone, but for
// AAC not to the bit: 1e-3 of full scale is far below what two different
// packets of sound differ by. (AAC's noise substitution draws from the
// decoder's random state, so such a packet is not recognised at all.)
bool alike(const std::vector<float>& a, const std::vector<float>& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (!(std::fabs(a[i] - b[i]) <= 1e-3f))
            return false;
    return true;
}

// Appends `next` to `result`, the seam made as the file's header says.
// Returns whether the seam plays exactly the samples of both sides.
bool append(ToolClip& result, ToolClip& next)
{
    const std::vector<long long>& a = result.boundaries();
    const std::vector<long long> b = next.boundaries();
    const int m = result.packet_count() - 1;
    const long long end_trim = result.end_trim();
    const long long start_trim = next.start_trim();
    // The next file's first heard packet k, and the frames of it trimmed.
    int k = 0;
    while (k + 1 < next.packet_count() && b[static_cast<size_t>(k) + 1] <= start_trim)
        ++k;
    const long long skip = start_trim - b[static_cast<size_t>(k)];
    const long long kept = a[static_cast<size_t>(m) + 1] - a[static_cast<size_t>(m)] - end_trim;
    int from = -1; // the next file's first packet to take, when the seam is exact
    if (end_trim > 0 && skip == kept && alike(decoded(result, m), decoded(next, k)))
        from = k + 1; // both hold the packet the cut went through
    else if (end_trim == 0 && skip == 0 && k >= 1 && alike(decoded(result, m), decoded(next, k - 1)))
        from = k; // cut at a boundary: the lead packet repeats the last one
    int err = 0;
    if (from >= 0) {
        if (from >= next.packet_count()) {
            // All that is heard of the next file lies in the shared packet.
            kel_clip_set_trims(result.get(), result.start_trim(), next.end_trim(), &err);
            return true;
        }
        ToolClip rest(kel_clip_copy(next.get(), from, next.packet_count() - 1, &err), next.name());
        if (rest.get() == nullptr)
            fail_library(err, next.name());
        kel_clip_insert(result.get(), result.packet_count(), rest.get(), &err);
        if (err != 0)
            fail_library(err, next.name());
        return true;
    }
    // Packets the end trim covers whole go; the rest of it will play.
    int drop = 0;
    while (drop < m && a.back() - a[static_cast<size_t>(m - drop)] <= end_trim)
        ++drop;
    const long long heard_end_trim = end_trim - (a.back() - a[static_cast<size_t>(m - drop) + 1]);
    if (drop > 0) {
        ToolClip gone(kel_clip_cut(result.get(), m - drop + 1, m, &err), result.name());
        if (gone.get() == nullptr)
            fail_library(err, result.name());
    }
    ToolClip padding(next.padding_frames(k), next.name());
    ToolClip rest(kel_clip_copy(next.get(), k, next.packet_count() - 1, &err), next.name());
    if (rest.get() == nullptr)
        fail_library(err, next.name());
    rest.put_in_front(padding);
    const int start = result.start_trim();
    kel_clip_insert(result.get(), result.packet_count(), rest.get(), &err);
    if (err != 0)
        fail_library(err, next.name());
    // Inserting at the end takes the inserted clip's end trim; the start
    // stays the first file's.
    kel_clip_set_trims(result.get(), start, next.end_trim(), &err);
    // PCM files, and coded ones cut at packet boundaries, meet gaplessly.
    return heard_end_trim == 0 && skip == 0 && padding.get() == nullptr;
}

int run_join(const JoinSettings& o)
{
    const std::string& out = o.output;
    const bool convert = o.convert;
    SaveSettings settings;
    if (!o.codec.empty())
        settings.codec = o.codec == "aac" ? KEL_FORMAT_AAC : KEL_FORMAT_ALAC;
    settings.tags = !o.no_tags;

    std::vector<ToolClip> clips;
    for (const std::string& path : o.files) {
        clips.push_back(ToolClip::open(path));
        if (clips.back().packet_count() < 1)
            fail(path + ": the file holds no packets");
        const std::string why = misfit(clips.front(), clips.back());
        if (why.empty())
            continue;
        if (!convert)
            fail(strprintf("%s does not fit %s: %s (--convert transcodes it)", path.c_str(),
                           clips.front().name().c_str(), why.c_str()));
        Console::out("converting %s (%s)\n", path.c_str(), why.c_str());
        clips.back() = convert_to(clips.front(), clips.back());
    }
    int err = 0;
    ToolClip result(kel_clip_copy(clips.front().get(), 0, clips.front().packet_count() - 1, &err), out);
    if (result.get() == nullptr)
        fail_library(err, clips.front().name());
    result.set_tag_source(clips.front().tag_source());
    int exact = 0;
    for (size_t i = 1; i < clips.size(); ++i) {
        check_interrupt();
        if (append(result, clips[i]))
            ++exact;
        else
            Console::out("seam %zu (%s): not gapless; what its trims leave out plays there\n", i,
                        clips[i].name().c_str());
    }
    Console::out("joined %zu files, %d of %zu seams sample-exact; %.6f s\n", clips.size(), exact, clips.size() - 1,
                result.heard_seconds());
    result.save(out, settings);
    Console::out("wrote %s\n", out.c_str());
    return kExitOk;
}

} // namespace

void add_join(CommandLine& kel)
{
    auto s = std::make_shared<JoinSettings>();
    CLI::App& c = kel.add("join", "write several files of one format as one, gaplessly where it can", kJoinHelp,
                          [s] { return run_join(*s); });
    c.add_option("FILE", s->files, "the files, in order")->required()->expected(2, 1 << 20);
    c.add_option("-o,--output", s->output, "the file to write; its extension picks the format")
        ->type_name("OUT")
        ->required();
    c.add_flag("--convert", s->convert, "transcode the files that do not fit the first instead\nof refusing them");
    c.add_flag("--no-tags", s->no_tags, "write no tags; otherwise those of the first file");
    c.add_option("--codec", s->codec, "the codec of an .m4a output")
        ->type_name("aac|alac")
        ->check(CLI::IsMember({"aac", "alac"}));
}

} // namespace KEL::cli
