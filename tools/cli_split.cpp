// kel split: one file into pieces at given times, at regular intervals, in
// the silences between tracks, or along a cue sheet. Each piece is a
// frame-exact copy (ToolClip::exact_copy), so the pieces played one after
// the other are the source's samples, and none is decoded or encoded
// unless its name asks for another format.
#include "cli_commands.h"
#include "cli_common.h"
#include "clipoverview.h"
#include "cuesheet.h"
#include "levelcache.h"
#include "commandline.h"
#include "console.h"
#include "toolclip.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sys/stat.h>

namespace KEL::cli {

namespace {

const char* const kSplitHelp =
    "usage: kel split FILE --at T1,T2,... [-o PATTERN]\n"
    "       kel split FILE --every T [-o PATTERN]\n"
    "       kel split FILE --silence [--threshold DB] [--min-silence S] [--trim] [-o PATTERN]\n"
    "       kel split FILE --cue SHEET.cue [-o PATTERN]\n"
    "\n"
    "Writes FILE as pieces, each exact to the sample and lossless: MP3 and AAC\n"
    "pieces keep the frames around their ends and say to skip them (as kel copy\n"
    "does), PCM pieces hold exactly their frames. Played one after the other,\n"
    "the pieces are FILE. Times are in seconds of what players hear.\n"
    "\n"
    "--silence splits in the middle of every silence: a run of packets whose\n"
    "RMS level (the library's overview, of the mono mix) stays below\n"
    "--threshold for at least --min-silence; silence at the file's ends stays\n"
    "in the first and last piece; the levels are kept in a cache\n"
    "($KEL_CACHE_DIR, else ~/.cache/kel), so that splitting the same file again\n"
    "does not decode it again. --cue splits where the sheet's tracks start\n"
    "(INDEX 01); each piece gets its track's title, performer and number, and\n"
    "the first piece starts at track 1's start.\n"
    "\n"
    "The pattern of -o names the pieces: {n} the piece number from 1, {n:0W}\n"
    "the same zero-padded to W digits, {title} and {performer} from the cue\n"
    "sheet (empty otherwise; a '/' in them becomes '_'), {base} FILE's name\n"
    "without its directory and extension (default: {base}-{n:02} with FILE's\n"
    "extension, beside FILE). The extension picks the format; another than\n"
    "FILE's is converted. FILE's tags are carried into every piece, with its\n"
    "track number (and the cue sheet's title and performer) set.\n"
    "\n"
    "Nothing is written when the times, the sheet or the names are wrong: cue\n"
    "times past the end or out of order, two pieces of one name, a piece over\n"
    "FILE. Pieces are written under temporary names and renamed when\n"
    "complete: Ctrl-C keeps the finished ones and leaves no partial file.\n";

// What the options of kel split fill in.
struct SplitSettings {
    std::string file;
    std::string at;            // "T1,T2,..."
    double every = 0.0;
    bool silence = false;
    double threshold = -50.0;  // dBFS
    double min_silence = 2.0;  // seconds
    bool trim = false;
    std::string cue;
    std::string output;        // the pattern
    bool no_tags = false;
    std::string codec;
};


// One piece: frames [from, to) of the clip's decode, and its cue text.
struct Piece {
    long long from;
    long long to;
    std::string title;
    std::string performer;
};

// The heard frames of the clip: [begin, end) of its decode. A PCM clip
// counts its short last packet whole, and a piece that ends at `end` is
// saved up to the file's real end; `last` is that end as far as the
// file's description tells it (a float duration: to a few frames), for
// checking times and for messages.
struct Heard {
    long long begin;
    long long end;
    double rate;
    long long last;

    long long frame(double seconds) const { return begin + std::llround(seconds * rate); }
    double seconds(long long frame) const { return static_cast<double>(frame - begin) / rate; }
};

// Pieces between consecutive cut points (heard frames, increasing).
std::vector<Piece> between(const Heard& h, const std::vector<long long>& cuts)
{
    std::vector<Piece> pieces;
    long long from = h.begin;
    for (const long long cut : cuts) {
        pieces.push_back({from, cut, "", ""});
        from = cut;
    }
    pieces.push_back({from, h.end, "", ""});
    return pieces;
}

std::vector<Piece> at_times(const SplitSettings& o, const std::string& name, const Heard& h)
{
    std::vector<long long> cuts;
    const std::string& list = o.at;
    size_t pos = 0;
    while (pos <= list.size()) {
        const size_t comma = std::min(list.find(',', pos), list.size());
        const std::string word = list.substr(pos, comma - pos);
        char* end = nullptr;
        const double t = std::strtod(word.c_str(), &end);
        if (word.empty() || *end != '\0' || !std::isfinite(t))
            fail_usage("split", "--at takes times in seconds separated by commas, not '" + list + "'");
        const long long cut = h.frame(t);
        if (cut <= h.begin || cut >= h.last)
            fail(strprintf("%s: --at %s lies outside the file (0 to %.3f s)", name.c_str(), word.c_str(),
                           h.seconds(h.last)));
        if (!cuts.empty() && cut <= cuts.back())
            fail(strprintf("%s: --at %s does not come after the time before it", name.c_str(), word.c_str()));
        cuts.push_back(cut);
        pos = comma + 1;
    }
    return between(h, cuts);
}

std::vector<Piece> every(const SplitSettings& o, const std::string& name, const Heard& h)
{
    const double step = o.every;
    const long long frames = std::llround(step * h.rate);
    if (frames < 1)
        fail_usage("split", "--every needs a positive time");
    if (frames >= h.last - h.begin)
        fail(strprintf("%s: --every %g leaves one piece (the file is %.3f s long)", name.c_str(), step,
                       h.seconds(h.last)));
    std::vector<long long> cuts;
    for (long long cut = h.begin + frames; cut < h.last; cut += frames)
        cuts.push_back(cut);
    return between(h, cuts);
}

std::vector<Piece> at_silences(const SplitSettings& o, ToolClip& clip, const Heard& h)
{
    const double threshold_db = o.threshold;
    const double min_silence = o.min_silence;
    const bool trim = o.trim;
    const double threshold = std::pow(10.0, threshold_db / 20.0);
    const long long min_frames = std::llround(min_silence * h.rate);
    const std::vector<long long>& b = clip.boundaries();
    const int count = clip.packet_count();
    std::vector<float> rms;
    const LevelCache cache(clip.name());
    const bool cached = cache.load(count, rms);
    if (!cached) {
        ClipOverview overview(clip);
        rms = overview.rms({0, count - 1});
        cache.store(rms);
    }
    // Gaps: runs of quiet packets, as heard frames.
    std::vector<std::pair<long long, long long>> gaps;
    for (int p = 0; p < count;) {
        if (!(rms[static_cast<size_t>(p)] < threshold)) {
            ++p;
            continue;
        }
        int q = p;
        while (q + 1 < count && rms[static_cast<size_t>(q) + 1] < threshold)
            ++q;
        const long long from = std::max(h.begin, b[static_cast<size_t>(p)]);
        long long to = std::min(h.end, b[static_cast<size_t>(q) + 1]);
        if (to >= h.last)
            to = h.end; // silence to the end of the file
        if (to - from >= std::max(min_frames, 1LL))
            gaps.emplace_back(from, to);
        p = q + 1;
    }
    std::vector<Piece> pieces;
    if (trim) {
        long long from = h.begin;
        for (const auto& [gap_from, gap_to] : gaps) {
            if (gap_from > from)
                pieces.push_back({from, gap_from, "", ""});
            from = gap_to;
        }
        if (from < h.last)
            pieces.push_back({from, h.end, "", ""});
    } else {
        std::vector<long long> cuts;
        for (const auto& [gap_from, gap_to] : gaps)
            if (gap_from > h.begin && gap_to < h.end)
                cuts.push_back(gap_from + (gap_to - gap_from) / 2);
        pieces = between(h, cuts);
    }
    Console::out("found %zu silences of at least %g s below %g dBFS%s\n", gaps.size(), min_silence, threshold_db,
                 cached ? " (levels from the cache)" : "");
    if (pieces.empty() || (!trim && pieces.size() < 2))
        fail(strprintf("%s: %s; nothing was written", clip.name().c_str(),
                       pieces.empty() ? "the whole file is silence" : "no silence inside the file to split at"));
    return pieces;
}

std::vector<Piece> along_cue(const std::string& sheet_path, const std::string& name, const Heard& h)
{
    const CueSheet sheet = CueSheet::read(sheet_path);
    std::vector<Piece> pieces;
    for (size_t i = 0; i < sheet.tracks().size(); ++i) {
        const CueSheet::Track& t = sheet.tracks()[i];
        const long long from = h.begin + std::llround(static_cast<double>(t.start) * h.rate / CueSheet::kFramesPerSecond);
        if (from >= h.last)
            fail(strprintf("%s: track %zu starts at %.3f s, past the end of %s (%.3f s)", sheet_path.c_str(), i + 1,
                           static_cast<double>(t.start) / CueSheet::kFramesPerSecond, name.c_str(),
                           h.seconds(h.last)));
        if (!pieces.empty())
            pieces.back().to = from;
        pieces.push_back({from, h.end, t.title, t.performer});
    }
    return pieces;
}

// A piece's name from the pattern: {n}, {n:0W}, {title}, {performer}, {base}.
std::string expand(const std::string& pattern, int n, const Piece& piece, const std::string& base)
{
    const auto safe = [](std::string text) {
        std::replace(text.begin(), text.end(), '/', '_');
        return text;
    };
    std::string out;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '{') {
            out += pattern[i];
            continue;
        }
        const size_t close = pattern.find('}', i);
        if (close == std::string::npos)
            fail_usage("split", "the pattern '" + pattern + "' has a '{' without its '}'");
        const std::string key = pattern.substr(i + 1, close - i - 1);
        if (key == "n")
            out += std::to_string(n);
        else if (key.size() == 4 && key.compare(0, 3, "n:0") == 0 && key[3] >= '1' && key[3] <= '9')
            out += strprintf("%0*d", key[3] - '0', n);
        else if (key == "title")
            out += safe(piece.title);
        else if (key == "performer")
            out += safe(piece.performer);
        else if (key == "base")
            out += base;
        else
            fail_usage("split", "the pattern knows {n}, {n:0W}, {title}, {performer} and {base}, not {" + key + "}");
        i = close;
    }
    return out;
}

// Every name checked before anything is written: a format for each, no two
// alike, none the input itself.
void check_names(const std::vector<std::string>& names, const std::string& input)
{
    struct stat in;
    const bool have_input = stat(input.c_str(), &in) == 0;
    std::set<std::string> seen;
    for (const std::string& name : names) {
        if (format_for_path(name) == 0)
            fail(name + ": cannot tell the format from the piece's name; use " + writable_extensions());
        if (!seen.insert(name).second)
            fail("two pieces would be written to " + name + "; put {n} in the pattern. Nothing was written");
        struct stat st;
        if (have_input && stat(name.c_str(), &st) == 0 && st.st_dev == in.st_dev && st.st_ino == in.st_ino)
            fail("a piece would be written over the input " + input + ". Nothing was written");
    }
}

int run_split(const SplitSettings& o)
{
    SaveSettings settings;
    if (!o.codec.empty())
        settings.codec = o.codec == "aac" ? KEL_FORMAT_AAC : KEL_FORMAT_ALAC;
    settings.tags = !o.no_tags;
    const std::string& input = o.file;
    const size_t slash = input.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : input.substr(0, slash + 1);
    std::string base = input.substr(dir.size());
    const size_t dot = base.rfind('.');
    const std::string ext = dot == std::string::npos || dot == 0 ? "" : base.substr(dot);
    if (!ext.empty())
        base.erase(dot);
    const std::string pattern = o.output.empty() ? dir + "{base}-{n:02}" + ext : o.output;

    ToolClip clip = ToolClip::open(input);
    if (clip.packet_count() < 1)
        fail(input + ": the clip holds no packets");
    const long long end = clip.boundaries().back() - clip.end_trim();
    Heard heard{clip.start_trim(), end, clip.info().sample_rate, end};
    _kel_clip_info_t file{};
    const int format = clip.info().format;
    if ((format == KEL_FORMAT_WAVE || format == KEL_FORMAT_AIFF || format == KEL_FORMAT_CAF) &&
        kel_file_info(input.c_str(), &file, nullptr) == 0 && file.duration > 0.0f)
        heard.last = std::clamp(heard.frame(file.duration), heard.begin + 1, heard.end);
    std::vector<Piece> pieces;
    if (!o.at.empty())
        pieces = at_times(o, input, heard);
    else if (o.every > 0.0)
        pieces = every(o, input, heard);
    else if (o.silence)
        pieces = at_silences(o, clip, heard);
    else
        pieces = along_cue(o.cue, input, heard);

    std::vector<std::string> names;
    for (size_t i = 0; i < pieces.size(); ++i)
        names.push_back(expand(pattern, static_cast<int>(i) + 1, pieces[i], base));
    check_names(names, input);

    for (size_t i = 0; i < pieces.size(); ++i) {
        check_interrupt();
        const Piece& p = pieces[i];
        ToolClip piece = clip.exact_copy(p.from, p.to);
        piece.set_tag_source(clip.tag_source());
        SaveSettings s = settings;
        s.track = static_cast<int>(i) + 1;
        s.title = p.title;
        s.artist = p.performer;
        piece.save(names[i], s);
        const long long to = std::min(p.to, heard.last);
        Console::out("wrote %s: %.6f s to %.6f s (frames %lld to %lld)\n", names[i].c_str(), heard.seconds(p.from),
                    heard.seconds(to), p.from - heard.begin, to - heard.begin);
    }
    Console::out("split %s into %zu pieces\n", input.c_str(), pieces.size());
    return kExitOk;
}

} // namespace

void add_split(CommandLine& kel)
{
    auto s = std::make_shared<SplitSettings>();
    CLI::App& c = kel.add("split", "cut a file into pieces at times, silences or a cue sheet", kSplitHelp,
                          [s] { return run_split(*s); });
    c.add_option("FILE", s->file, "the input file")->required();
    CLI::Option* at = c.add_option("--at", s->at, "split at these times (increasing, inside the file)")
                          ->type_name("T1,T2,...");
    CLI::Option* every =
        CommandLine::add_number(c, "--every", s->every, "split every T seconds; the last piece takes the rest", "T")
            ->check(CLI::PositiveNumber);
    CLI::Option* silence = c.add_flag("--silence", s->silence, "split in the middle of every silence");
    CLI::Option* cue = c.add_option("--cue", s->cue, "split where the cue sheet's tracks start")->type_name("SHEET");
    CLI::Option* threshold =
        CommandLine::add_number(c, "--threshold", s->threshold, "the level of silence (default -50)", "DBFS");
    CLI::Option* min_silence = CommandLine::add_number(c, "--min-silence", s->min_silence,
                                                       "the shortest silence in seconds (default 2)", "S")
                                   ->check(CLI::NonNegativeNumber);
    CLI::Option* trim = c.add_flag("--trim", s->trim, "leave the silences out instead (the ends' too)");
    c.add_option("-o,--output", s->output, "the pieces' names (see above)")->type_name("PATTERN");
    c.add_flag("--no-tags", s->no_tags, "write no tags");
    c.add_option("--codec", s->codec, "the codec of .m4a pieces (default: FILE's)")
        ->type_name("aac|alac")
        ->check(CLI::IsMember({"aac", "alac"}));
    c.callback([at, every, silence, cue, threshold, min_silence, trim] {
        if (at->count() + every->count() + silence->count() + cue->count() != 1)
            throw CLI::ValidationError("give one of --at, --every, --silence and --cue");
        if (silence->count() == 0 && threshold->count() + min_silence->count() + trim->count() > 0)
            throw CLI::ValidationError("--threshold, --min-silence and --trim go with --silence");
    });
}

} // namespace KEL::cli
