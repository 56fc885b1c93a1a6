// The commands that only read: kel info (what a file holds), kel explain
// (what an error code means), kel peak and kel overview (levels and
// pictures from the library's per-packet waveform caches).
#include "cli_commands.h"
#include "cli_common.h"
#include "clipoverview.h"
#include "options.h"
#include "pngwriter.h"
#include "progressbar.h"
#include "toolclip.h"
#include "waveformdata.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace KEL::cli {

const char* const kInfoHelp =
    "usage: kel info [--json] FILE...\n"
    "\n"
    "Describes audio files: format, channels, sample rate, bits per sample,\n"
    "duration, bit rate, rate mode (PCM, constant or variable bit rate), the\n"
    "number of packets and their length, and for MP3 the MPEG version and\n"
    "stereo mode. A file that cannot be read is reported and the others are\n"
    "still described; the status is then 1.\n"
    "\n"
    "  --json   one JSON array on stdout, one object per file, with the keys\n"
    "           file, format, format_code, channels, sample_rate,\n"
    "           bits_per_sample, duration, bit_rate, rate_mode, packets,\n"
    "           packet_frames (null when packets differ in length),\n"
    "           mpeg_version and stereo_mode (null except for MP3);\n"
    "           a file that failed has file and error {code, description,\n"
    "           suggestion} instead\n";

const char* const kPeakHelp =
    "usage: kel peak FILE [--start T --end T]\n"
    "\n"
    "Prints the largest sample magnitude and the RMS level, in dBFS (0 dBFS\n"
    "is full scale), read from the library's per-packet waveform caches. The\n"
    "RMS is that of the mono mix (left + right) / 2, each packet weighted by\n"
    "its length. Gains and fades stored in the file's packets count.\n"
    "\n"
    "  --start T, --end T   a range in seconds (default: the whole file)\n"
    "  --packets            read --start and --end as packet indices\n";

const char* const kOverviewHelp =
    "usage: kel overview FILE -o wave.png [--width W --height H] [--start T --end T]\n"
    "       kel overview FILE --text [--width W] [--start T --end T]\n"
    "       kel overview FILE --format dat|json [--samples-per-pixel N |\n"
    "                    --pixels-per-second N] [--bits 8|16] [--channels mono|stereo] -o OUT\n"
    "\n"
    "Draws the waveform of a file or a range as a PNG picture: per column the\n"
    "extent from the smallest to the largest sample, the RMS level as a\n"
    "lighter band inside it, and a time axis along the bottom.\n"
    "\n"
    "  -o, --output FILE    the PNG file to write\n"
    "  --width W            columns (default 1200, at most 16384)\n"
    "  --height H           rows (default 300, at most 16384; below 48 there\n"
    "                       is no time axis)\n"
    "  --start T, --end T   a range in seconds (default: the whole file)\n"
    "  --packets            read --start and --end as packet indices\n"
    "  --text               print the W (maximum, minimum) pairs instead, one\n"
    "                       line per column: column, time in seconds of the\n"
    "                       column's left edge, maximum, minimum\n"
    "\n"
    "Waveform data for web players (version 2 of the binary .dat and the .json\n"
    "format that waveform-data, peaks.js and wavesurfer read): per pixel and\n"
    "channel the smallest and largest value as an integer of --bits bits\n"
    "(floor(sample x 32767 or x 127)).\n"
    "\n"
    "  --format dat|json    write waveform data instead of a picture (default:\n"
    "                       taken from the extension of -o when it is .dat\n"
    "                       or .json)\n"
    "  --samples-per-pixel N  frames per pixel (default 256); the last pixel\n"
    "                       takes what remains\n"
    "  --pixels-per-second N  the same as a rate: the file's sample rate / N,\n"
    "                       rounded\n"
    "  --bits 8|16          width of the values (default 16)\n"
    "  --channels mono|stereo\n"
    "                       mono (default): one channel, the library's\n"
    "                       overview of (left + right) / 2, whose extent always\n"
    "                       spans zero, the values of --text; stereo: two\n"
    "                       channels, each one's own extremes from a decode\n"
    "                       (two-channel files only)\n"
    "The pixels cover the decoded packets of the range, an MP3's or AAC's\n"
    "encoder delay (25 ms or less) included.\n";

const char* const kExplainHelp =
    "usage: kel explain CODE [FILE]\n"
    "\n"
    "Prints the description and recovery suggestion the library gives for an\n"
    "error code: four characters such as Efmu or Egga, or a number. FILE is\n"
    "quoted into the suggestion where the text has a place for it.\n";

namespace {

struct Described {
    std::string file;
    _kel_clip_info_t info{};
    int packets = 0;
    int packet_frames = 0; // 0 when the packets differ in length
    int error = 0;
};

Described describe(const std::string& path)
{
    Described d;
    d.file = path;
    ToolClip clip = ToolClip::try_open(path, d.error);
    if (clip.get() == nullptr)
        return d;
    d.info = clip.info();
    // The clip counts whole packets, and a PCM file's last packet is
    // counted full; the file's own description has its real length.
    _kel_clip_info_t file{};
    if (kel_file_info(path.c_str(), &file, nullptr) == 0)
        d.info.duration = file.duration;
    d.packets = clip.packet_count();
    const std::vector<long long>& b = clip.boundaries();
    d.packet_frames = d.packets > 0 ? static_cast<int>(b[1] - b[0]) : 0;
    for (size_t i = 1; i < b.size(); ++i)
        if (b[i] - b[i - 1] != d.packet_frames)
            d.packet_frames = 0;
    return d;
}

void print_text(const Described& d)
{
    const _kel_clip_info_t& i = d.info;
    std::printf("%s\n", d.file.c_str());
    std::printf("  format        %s\n", format_name(i.format));
    std::printf("  channels      %d\n", i.channels);
    std::printf("  sample rate   %g Hz\n", static_cast<double>(i.sample_rate));
    std::printf("  bits          %d\n", i.bits_per_sample);
    const double seconds = i.duration;
    const int minutes = static_cast<int>(seconds / 60.0);
    std::printf("  duration      %.3f s (%d:%06.3f)\n", seconds, minutes, seconds - 60.0 * minutes);
    std::printf("  bit rate      %.1f kbit/s\n", i.bit_rate / 1000.0);
    std::printf("  rate mode     %s\n", rate_mode_name(i.rate_mode));
    if (d.packet_frames > 0)
        std::printf("  packets       %d of %d frames\n", d.packets, d.packet_frames);
    else
        std::printf("  packets       %d of varying length\n", d.packets);
    if (i.format == KEL_FORMAT_MP3) {
        // Names of the mpeg_version values 1..3; 0 for anything else.
        static constexpr std::array<const char*, 4> kVersions{{
            "unknown",  // not a value the library reports
            "MPEG-1",   // 1
            "MPEG-2",   // 2
            "MPEG-2.5", // 3
        }};
        const int v = i.mpeg_version >= 1 && i.mpeg_version <= 3 ? i.mpeg_version : 0;
        std::printf("  MPEG version  %s Layer III\n", kVersions[static_cast<size_t>(v)]);
        std::printf("  stereo mode   %s\n", stereo_mode_name(i.stereo_mode));
    }
}

std::string to_json(const Described& d)
{
    std::string out = "  {\"file\": " + json_string(d.file);
    if (d.error != 0) {
        kel_error_t* e = kel_error_create(d.error, d.file.c_str());
        out += ", \"error\": {\"code\": " + json_string(code_text(d.error)) +
               ", \"description\": " + json_string(e ? kel_error_description(e) : "") +
               ", \"suggestion\": " + json_string(e ? kel_error_recovery_suggestion(e) : "") + "}}";
        kel_error_free(e);
        return out;
    }
    const _kel_clip_info_t& i = d.info;
    const bool mp3 = i.format == KEL_FORMAT_MP3;
    out += ", \"format\": " + json_string(format_name(i.format));
    out += strprintf(", \"format_code\": %d, \"channels\": %d", i.format, i.channels);
    out += ", \"sample_rate\": " + json_number(i.sample_rate);
    out += strprintf(", \"bits_per_sample\": %d", i.bits_per_sample);
    out += ", \"duration\": " + json_number(i.duration);
    out += strprintf(", \"bit_rate\": %d, \"rate_mode\": ", i.bit_rate) + json_string(rate_mode_name(i.rate_mode));
    out += strprintf(", \"packets\": %d, \"packet_frames\": ", d.packets);
    out += d.packet_frames > 0 ? std::to_string(d.packet_frames) : "null";
    out += ", \"mpeg_version\": " + (mp3 ? std::to_string(i.mpeg_version) : std::string("null"));
    out += ", \"stereo_mode\": " + (mp3 ? json_string(stereo_mode_name(i.stereo_mode)) : std::string("null"));
    return out + "}";
}

// Codes without a message of their own, and what they mean.
struct InternalCode {
    int code;
    const char* meaning;
};
static constexpr std::array<InternalCode, 2> kInternalCodes{{
    {KEL_ERR_PACKET_SIZE, "a packet's bytes could not be read whole"},                  // Ersz
    {KEL_ERR_PREROLL, "an MP3 frame reaches back past the first frame of the clip"}, // Epre
}};

int parse_code(const std::string& text)
{
    if (text.size() == 4 && text[0] == 'E') {
        unsigned value = 0;
        for (const char c : text)
            value = (value << 8) | static_cast<unsigned char>(c);
        return static_cast<int>(value);
    }
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0')
        fail_usage("explain", "'" + text + "' is neither a four-character code nor a number");
    return static_cast<int>(value);
}

// The range options of peak and overview.
constexpr Options::Known kStart{"start", true};
constexpr Options::Known kEnd{"end", true};
constexpr Options::Known kPacketsFlag{"packets", false};

// A picture side from --width or --height.
int side(const Options& o, const char* name, long fallback)
{
    const long value = o.integer(name, fallback);
    if (value < 1 || value > PngWriter::kMaxSide)
        fail_usage(o.command(), strprintf("--%s must lie in 1..%d", name, PngWriter::kMaxSide));
    return static_cast<int>(value);
}

// "dat" or "json" for an output of that extension, else empty (a picture).
std::string data_format_of(const std::string& path)
{
    for (const char* ext : {"dat", "json"}) {
        const std::string suffix = std::string(".") + ext;
        if (path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
            return ext;
    }
    return "";
}

} // namespace

int run_info(const Args& args)
{
    const Options o("info", args, {{"json", false}});
    if (o.help())
        return show_help(kInfoHelp);
    if (o.positional().empty())
        fail_usage("info", "no file given");
    const bool json = o.has("json");
    int status = kExitOk;
    if (json)
        std::printf("[\n");
    for (size_t n = 0; n < o.positional().size(); ++n) {
        const Described d = describe(o.positional()[n]);
        if (d.error != 0) {
            status = kExitFailure;
            if (!json)
                report_library(d.error, d.file); // and carry on with the next file
        }
        if (json)
            std::printf("%s%s\n", to_json(d).c_str(), n + 1 < o.positional().size() ? "," : "");
        else if (d.error == 0)
            print_text(d);
    }
    if (json)
        std::printf("]\n");
    return status;
}

int run_explain(const Args& args)
{
    const Options o("explain", args, {});
    if (o.help())
        return show_help(kExplainHelp);
    if (o.positional().empty() || o.positional().size() > 2)
        fail_usage("explain", "give one code and at most one file name");
    const int code = parse_code(o.positional()[0]);
    kel_error_t* error = kel_error_create(code, o.positional().size() == 2 ? o.positional()[1].c_str() : nullptr);
    if (error == nullptr)
        fail("out of memory");
    std::string suggestion = kel_error_recovery_suggestion(error);
    while (!suggestion.empty() && suggestion.back() == '\n')
        suggestion.pop_back();
    std::printf("%s (%s, %s, %s)\n  %s\n", kel_error_description(error), code_text(code).c_str(),
                kel_error_domain(error), KELErrorIsFatal(code) ? "fatal" : "warning", suggestion.c_str());
    // Codes the library raises internally have no message of their own.
    for (const InternalCode& c : kInternalCodes)
        if (c.code == code)
            std::printf("  (%s is raised inside the library: %s)\n", code_text(code).c_str(), c.meaning);
    kel_error_free(error);
    return kExitOk;
}

int run_peak(const Args& args)
{
    const Options o("peak", args, {kStart, kEnd, kPacketsFlag});
    if (o.help())
        return show_help(kPeakHelp);
    o.expect_positional(1, "input file");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    const PacketRange r = clip.range(o);
    ClipOverview overview(clip);
    const double peak = overview.max_sample(r);
    const double rms = overview.rms_total(r);
    std::printf("%s, %s\n", clip.name().c_str(), clip.describe(r).c_str());
    std::printf("  peak  %s (%.6f)\n", db_text(peak, "dBFS").c_str(), peak);
    std::printf("  RMS   %s (%.6f)\n", db_text(rms, "dBFS").c_str(), rms);
    return kExitOk;
}

int run_overview(const Args& args)
{
    const Options o("overview", args,
                    {kStart, kEnd, kPacketsFlag, {"output", true}, {"width", true}, {"height", true},
                     {"text", false}, {"format", true}, {"samples-per-pixel", true}, {"pixels-per-second", true},
                     {"bits", true}, {"channels", true}});
    if (o.help())
        return show_help(kOverviewHelp);
    o.expect_positional(1, "input file");
    const bool text = o.has("text");
    const std::string out = text ? std::string() : o.required("output");
    const int width = side(o, "width", 1200);
    const int height = side(o, "height", 300);
    const std::string format = o.has("format") ? o.text("format") : data_format_of(out);
    if (!format.empty() && format != "dat" && format != "json")
        fail_usage("overview", "--format must be dat or json");
    const bool data = !text && !format.empty();
    const long bits = o.integer("bits", 16);
    if (bits != 8 && bits != 16)
        fail_usage("overview", "--bits must be 8 or 16");
    const std::string channels = o.text("channels", "mono");
    if (channels != "mono" && channels != "stereo")
        fail_usage("overview", "--channels must be mono or stereo");
    if (o.has("samples-per-pixel") && o.has("pixels-per-second"))
        fail_usage("overview", "give --samples-per-pixel or --pixels-per-second, not both");
    const long samples_per_pixel = o.integer("samples-per-pixel", 256);
    const double pixels_per_second = o.number("pixels-per-second", 0.0);
    if (samples_per_pixel < 1 || samples_per_pixel > INT32_MAX || pixels_per_second < 0.0)
        fail_usage("overview", "samples or pixels per second must be positive");
    ToolClip clip = ToolClip::open(o.positional()[0]);
    const PacketRange r = clip.range(o);
    if (data) {
        const _kel_clip_info_t info = clip.info();
        const int rate = static_cast<int>(std::lround(info.sample_rate));
        long spp = samples_per_pixel;
        if (pixels_per_second > 0.0)
            spp = std::max(1L, std::lround(rate / pixels_per_second));
        const bool stereo = channels == "stereo";
        if (stereo && info.channels != 2)
            fail(clip.name() + ": --channels stereo needs a two-channel file");
        WaveformData wave(rate, static_cast<int>(spp), static_cast<int>(bits), stereo ? 2 : 1);
        if (stereo) {
            wave.fill_stereo(clip, r);
        } else {
            ClipOverview overview(clip);
            wave.fill_mono(overview, clip, r);
        }
        wave.write(out, format == "json");
        std::printf("wrote %s (%d pixels of %ld samples, %ld-bit, %s) from %s\n", out.c_str(), wave.length(), spp,
                    bits, channels.c_str(), clip.describe(r).c_str());
        return kExitOk;
    }
    ClipOverview overview(clip);
    if (text) {
        overview.print_text(r, width);
        return kExitOk;
    }
    overview.draw_png(r, width, height, out);
    std::printf("drew %s (%d x %d) from %s\n", out.c_str(), width, height, clip.describe(r).c_str());
    return kExitOk;
}

} // namespace KEL::cli
