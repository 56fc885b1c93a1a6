// The commands that only read: kel info (what a file holds), kel explain
// (what an error code means), kel peak and kel overview (levels and
// pictures from the library's per-packet waveform caches).
#include "cli_commands.h"
#include "cli_common.h"
#include "clipoverview.h"
#include "commandline.h"
#include "console.h"
#include "pngwriter.h"
#include "progressbar.h"
#include "toolclip.h"
#include "waveformdata.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <nlohmann/json.hpp>

namespace KEL::cli {

namespace {

const char* const kInfoHelp =
    "usage: kel info [--json] FILE...\n"
    "\n"
    "Describes audio files: format, channels, sample rate, bits per sample,\n"
    "duration, bit rate, rate mode (PCM, constant or variable bit rate), the\n"
    "number of packets and their length, and for MP3 the MPEG version and\n"
    "stereo mode. A file that cannot be read is reported and the others are\n"
    "still described; the status is then 1.\n";

const char* const kPeakHelp =
    "usage: kel peak FILE [--start T --end T]\n"
    "\n"
    "Prints the largest sample magnitude and the RMS level, in dBFS (0 dBFS\n"
    "is full scale), read from the library's per-packet waveform caches. The\n"
    "RMS is that of the mono mix (left + right) / 2, each packet weighted by\n"
    "its length. Gains and fades stored in the file's packets count.\n";

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
    "With --format dat or json (or an output ending in .dat or .json) it\n"
    "writes waveform data for web players instead: version 2 of the binary\n"
    ".dat and the .json format that waveform-data, peaks.js and wavesurfer\n"
    "read, per pixel and channel the smallest and largest value as an integer\n"
    "of --bits bits (floor(sample x 32767 or x 127)). The pixels cover the\n"
    "decoded packets of the range, an MP3's or AAC's encoder delay (25 ms or\n"
    "less) included.\n";

const char* const kExplainHelp =
    "usage: kel explain CODE [FILE]\n"
    "\n"
    "Prints the description and recovery suggestion the library gives for an\n"
    "error code: four characters such as Efmu or Egga, or a number. FILE is\n"
    "quoted into the suggestion where the text has a place for it.\n";

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

nlohmann::ordered_json to_json(const Described& d)
{
    nlohmann::ordered_json out;
    out["file"] = d.file;
    if (d.error != 0) {
        kel_error_t* e = kel_error_create(d.error, d.file.c_str());
        out["error"] = {{"code", code_text(d.error)},
                        {"description", e ? kel_error_description(e) : ""},
                        {"suggestion", e ? kel_error_recovery_suggestion(e) : ""}};
        kel_error_free(e);
        return out;
    }
    const _kel_clip_info_t& i = d.info;
    const bool mp3 = i.format == KEL_FORMAT_MP3;
    out["format"] = format_name(i.format);
    out["format_code"] = i.format;
    out["channels"] = i.channels;
    out["sample_rate"] = i.sample_rate;
    out["bits_per_sample"] = i.bits_per_sample;
    out["duration"] = i.duration;
    out["bit_rate"] = i.bit_rate;
    out["rate_mode"] = rate_mode_name(i.rate_mode);
    out["packets"] = d.packets;
    out["packet_frames"] = d.packet_frames > 0 ? nlohmann::ordered_json(d.packet_frames) : nullptr;
    out["mpeg_version"] = mp3 ? nlohmann::ordered_json(i.mpeg_version) : nullptr;
    out["stereo_mode"] = mp3 ? nlohmann::ordered_json(stereo_mode_name(i.stereo_mode)) : nullptr;
    return out;
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

// What the options of the reading commands fill in.
struct ReadSettings {
    std::vector<std::string> files;
    bool json = false;
    RangeSettings range;
    std::string output;
    int width = 1200;
    int height = 300;
    bool text = false;
    // waveform data
    std::string format;
    long samples_per_pixel = 256;
    bool samples_per_pixel_given = false;
    double pixels_per_second = 0.0;
    int bits = 16;
    std::string channels = "mono";
};

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

int run_info(const ReadSettings& o)
{
    int status = kExitOk;
    std::vector<nlohmann::ordered_json> objects;
    for (const std::string& file : o.files) {
        const Described d = describe(file);
        if (d.error != 0) {
            status = kExitFailure;
            if (!o.json)
                report_library(d.error, d.file); // and carry on with the next file
        }
        if (o.json)
            objects.push_back(to_json(d));
        else if (d.error == 0)
            print_text(d);
    }
    if (o.json)
        print_json_array(objects);
    return status;
}

int run_explain(const ReadSettings& o)
{
    if (o.files.size() > 2)
        fail_usage("explain", "give one code and at most one file name");
    const int code = parse_code(o.files[0]);
    kel_error_t* error = kel_error_create(code, o.files.size() == 2 ? o.files[1].c_str() : nullptr);
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

int run_peak(const ReadSettings& o)
{
    ToolClip clip = ToolClip::open(o.files[0]);
    const PacketRange r = clip.range(o.range);
    ClipOverview overview(clip);
    const double peak = overview.max_sample(r);
    const double rms = overview.rms_total(r);
    std::printf("%s, %s\n", clip.name().c_str(), clip.describe(r).c_str());
    std::printf("  peak  %s (%.6f)\n", db_text(peak, "dBFS").c_str(), peak);
    std::printf("  RMS   %s (%.6f)\n", db_text(rms, "dBFS").c_str(), rms);
    return kExitOk;
}

int run_overview(const ReadSettings& o)
{
    const std::string format = !o.format.empty() ? o.format : o.text ? std::string() : data_format_of(o.output);
    const bool data = !o.text && !format.empty();
    if (!o.text && o.output.empty())
        fail_usage("overview", "no output file given (-o FILE)");
    if (o.samples_per_pixel_given && o.pixels_per_second > 0.0)
        fail_usage("overview", "give --samples-per-pixel or --pixels-per-second, not both");
    ToolClip clip = ToolClip::open(o.files[0]);
    const PacketRange r = clip.range(o.range);
    if (data) {
        const _kel_clip_info_t info = clip.info();
        const int rate = static_cast<int>(std::lround(info.sample_rate));
        long spp = o.samples_per_pixel;
        if (o.pixels_per_second > 0.0)
            spp = std::max(1L, std::lround(rate / o.pixels_per_second));
        const bool stereo = o.channels == "stereo";
        if (stereo && info.channels != 2)
            fail(clip.name() + ": --channels stereo needs a two-channel file");
        WaveformData wave(rate, static_cast<int>(spp), o.bits, stereo ? 2 : 1);
        if (stereo) {
            wave.fill_stereo(clip, r);
        } else {
            ClipOverview overview(clip);
            wave.fill_mono(overview, clip, r);
        }
        wave.write(o.output, format == "json");
        Console::out("wrote %s (%d pixels of %ld samples, %d-bit, %s) from %s\n", o.output.c_str(), wave.length(), spp,
                     o.bits, o.channels.c_str(), clip.describe(r).c_str());
        return kExitOk;
    }
    ClipOverview overview(clip);
    if (o.text) {
        overview.print_text(r, o.width);
        return kExitOk;
    }
    overview.draw_png(r, o.width, o.height, o.output);
    std::printf("drew %s (%d x %d) from %s\n", o.output.c_str(), o.width, o.height, clip.describe(r).c_str());
    return kExitOk;
}

} // namespace

void add_info(CommandLine& kel)
{
    auto s = std::make_shared<ReadSettings>();
    CLI::App& c = kel.add("info", "describe audio files (--json for scripts)", kInfoHelp, [s] { return run_info(*s); });
    c.add_option("FILE", s->files, "the files to describe")->required();
    c.add_flag("--json", s->json,
               "one JSON array on stdout, one object per file, with the keys\n"
               "file, format, format_code, channels, sample_rate,\n"
               "bits_per_sample, duration, bit_rate, rate_mode, packets,\n"
               "packet_frames (null when packets differ in length),\n"
               "mpeg_version and stereo_mode (null except for MP3);\n"
               "a file that failed has file and error {code, description,\n"
               "suggestion} instead");
}

void add_explain(CommandLine& kel)
{
    auto s = std::make_shared<ReadSettings>();
    CLI::App& c = kel.add("explain", "what an error code means", kExplainHelp, [s] { return run_explain(*s); });
    c.add_option("CODE", s->files, "the code, then optionally a file name")->required();
}

void add_peak(CommandLine& kel)
{
    auto s = std::make_shared<ReadSettings>();
    CLI::App& c = kel.add("peak", "largest sample and RMS level in dBFS", kPeakHelp, [s] { return run_peak(*s); });
    c.add_option("FILE", s->files, "the input file")->required()->expected(1);
    CommandLine::add_range(c, s->range);
}

void add_overview(CommandLine& kel)
{
    auto s = std::make_shared<ReadSettings>();
    CLI::App& c = kel.add("overview", "draw the waveform as a PNG picture (or --text)", kOverviewHelp,
                          [s] { return run_overview(*s); });
    c.add_option("FILE", s->files, "the input file")->required()->expected(1);
    c.add_option("-o,--output", s->output, "the PNG file to write")->type_name("FILE");
    c.add_option("--width", s->width, "columns (default 1200, at most " + std::to_string(PngWriter::kMaxSide) + ")")
        ->type_name("W")
        ->check(CLI::Range(1, PngWriter::kMaxSide));
    c.add_option("--height", s->height,
                 "rows (default 300, at most " + std::to_string(PngWriter::kMaxSide) +
                     "; below 48 there\nis no time axis)")
        ->type_name("H")
        ->check(CLI::Range(1, PngWriter::kMaxSide));
    CommandLine::add_range(c, s->range);
    c.add_flag("--text", s->text,
               "print the W (maximum, minimum) pairs instead, one\n"
               "line per column: column, time in seconds of the\n"
               "column's left edge, maximum, minimum");    c.add_option("--format", s->format,
                 "write waveform data instead of a picture (default:\n"
                 "taken from the extension of -o when it is .dat or .json)")
        ->type_name("dat|json")
        ->check(CLI::IsMember({"dat", "json"}));
    c.add_option_function<long>(
         "--samples-per-pixel",
         [s](const long& n) {
             s->samples_per_pixel = n;
             s->samples_per_pixel_given = true;
         },
         "frames per pixel (default 256); the last pixel\ntakes what remains")
        ->type_name("N")
        ->check(CLI::Range(1L, static_cast<long>(INT32_MAX)));
    CommandLine::add_number(c, "--pixels-per-second", s->pixels_per_second,
                            "the same as a rate: the file's sample rate / N,\nrounded", "N")
        ->check(CLI::PositiveNumber);
    c.add_option("--bits", s->bits, "width of the values (default 16)")->type_name("8|16")->check(CLI::IsMember({8, 16}));
    c.add_option("--channels", s->channels,
                 "mono (default): one channel, the library's overview\n"
                 "of (left + right) / 2, whose extent always spans zero,\n"
                 "the values of --text; stereo: two channels, each\n"
                 "one's own extremes from a decode (two-channel files\n"
                 "only)")
        ->type_name("mono|stereo")
        ->check(CLI::IsMember({"mono", "stereo"}));
}

} // namespace KEL::cli
