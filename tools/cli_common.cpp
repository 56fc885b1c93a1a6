#include "cli_common.h"
#include "console.h"

#include "progressbar.h"

#include <array>
#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <set>
#include <strings.h>
#include <sys/stat.h>

namespace KEL::cli {

namespace {

struct Extension {
    const char* suffix;
    int format;
};

// File name endings and the format each one selects; matched case-blind.
static constexpr std::array<Extension, 8> kExtensions{{
    {".wav", KEL_FORMAT_WAVE},  // RIFF WAVE
    {".wave", KEL_FORMAT_WAVE}, // RIFF WAVE, long spelling
    {".aif", KEL_FORMAT_AIFF},  // AIFF
    {".aiff", KEL_FORMAT_AIFF}, // AIFF
    {".aifc", KEL_FORMAT_AIFF}, // AIFF-C is read; the saver writes plain AIFF
    {".caf", KEL_FORMAT_CAF},   // Core Audio Format
    {".mp3", KEL_FORMAT_MP3},   // MPEG audio Layer III
    {".m4a", KEL_FORMAT_AAC},   // AAC in MPEG-4 (Apple Lossless with --lossless)
}};

void print_error_object(const char* kind, int code, const std::string& file)
{
    if (Report* report = Console::report(); report != nullptr && *kind == '\0')
        report->code = code;
    kel_error_t* error = kel_error_create(code, file.empty() ? nullptr : file.c_str());
    const std::string where = file.empty() ? "" : file + ": ";
    if (error == nullptr) {
        Console::err("kel: %s%s%s (%s)\n", kind, where.c_str(), "out of memory", code_text(code).c_str());
        return;
    }
    // The texts may run over several lines; each is indented under the
    // first.
    std::string recovery;
    for (const char* c = kel_error_recovery_suggestion(error); *c != '\0'; ++c) {
        recovery += *c;
        if (*c == '\n' && c[1] != '\n' && c[1] != '\0')
            recovery += "  ";
    }
    Console::err("kel: %s%s%s\n  %s (%s)\n", kind, where.c_str(), kel_error_description(error),
                 recovery.c_str(), code_text(code).c_str());
    kel_error_free(error);
}

} // namespace

void fail_library(int code, const std::string& file)
{
    // A cancelled operation may end in another code (a load that stopped
    // half-way); the user asked for the stop, so that is what is said.
    if (ProgressBar::interrupted() || code == KEL_ERR_CANCELLED)
        fail_cancelled();
    print_error_object("", code, file);
    throw Exit{kExitFailure};
}

void report_library(int code, const std::string& file)
{
    if (ProgressBar::interrupted() || code == KEL_ERR_CANCELLED)
        fail_cancelled();
    print_error_object("", code, file);
}

void warn_library(int code, const std::string& file)
{
    print_error_object("warning: ", code, file);
}

void fail(const std::string& message)
{
    Console::err("kel: %s\n", message.c_str());
    throw Exit{kExitFailure};
}

void fail_usage(const std::string& command, const std::string& message)
{
    Console::err("kel %s: %s\nTry 'kel %s --help'.\n", command.c_str(), message.c_str(), command.c_str());
    throw Exit{kExitUsage};
}

void fail_cancelled()
{
    Console::err("kel: cancelled\n");
    throw Exit{kExitCancelled};
}

void check_interrupt()
{
    if (ProgressBar::interrupted())
        fail_cancelled();
}

std::string code_text(int code)
{
    const auto value = static_cast<unsigned>(code);
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned char c = static_cast<unsigned char>((value >> shift) & 0xFFu);
        if (!std::isprint(c))
            return std::to_string(code);
        text += static_cast<char>(c);
    }
    return text;
}

const char* format_name(int format)
{
    switch (format) {
    case KEL_FORMAT_AIFF:
        return "AIFF";
    case KEL_FORMAT_AAC:
        return "AAC";
    case KEL_FORMAT_MP3:
        return "MP3";
    case KEL_FORMAT_ALAC:
        return "Apple Lossless";
    case KEL_FORMAT_WAVE:
        return "WAVE";
    case KEL_FORMAT_CAF:
        return "CAF";
    default:
        return "unknown";
    }
}

int format_for_path(const std::string& path)
{
    for (const Extension& e : kExtensions) {
        const size_t n = std::char_traits<char>::length(e.suffix);
        if (path.size() > n && strcasecmp(path.c_str() + path.size() - n, e.suffix) == 0)
            return e.format;
    }
    return 0;
}

const char* writable_extensions()
{
    return ".wav, .aif/.aiff, .caf (and .mp3, .m4a where the library can encode them)";
}

const char* stereo_mode_name(int mode)
{
    switch (mode) {
    case KELClipStereoModeSingleChannel:
        return "single channel";
    case KELClipStereoModeStereo:
        return "stereo";
    case KELClipStereoModeJointStereo:
        return "joint stereo";
    case KELClipStereoModeDualChannel:
        return "dual channel";
    default:
        return "unknown";
    }
}

const char* rate_mode_name(int mode)
{
    switch (mode) {
    case 0:
        return "PCM";
    case 1:
        return "constant";
    case 2:
        return "variable";
    default:
        return "unknown";
    }
}

std::string strprintf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

double to_db(double linear)
{
    return linear > 0.0 ? 20.0 * std::log10(linear) : -INFINITY;
}

std::string db_text(double linear, const char* unit)
{
    if (!(linear > 0.0))
        return strprintf("-inf %s", unit);
    return strprintf("%.2f %s", to_db(linear), unit);
}

std::string output_in(const std::string& dir, const std::string& input, const std::string& extension)
{
    const size_t slash = input.find_last_of('/');
    std::string name = slash == std::string::npos ? input : input.substr(slash + 1);
    if (!extension.empty()) {
        const size_t dot = name.find_last_of('.');
        name = (dot == std::string::npos || dot == 0 ? name : name.substr(0, dot)) + "." + extension;
    }
    return dir + "/" + name;
}

void prepare_outputs(const std::string& command, const std::string& dir, const std::vector<std::string>& inputs,
                     const std::vector<std::string>& outputs)
{
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST)
        fail(dir + ": cannot create the directory: " + std::strerror(errno));
    std::set<std::string> seen;
    for (size_t i = 0; i < outputs.size(); ++i) {
        if (!seen.insert(outputs[i]).second)
            fail_usage(command, "two inputs would both be written to " + outputs[i]);
        struct stat in, out;
        if (stat(inputs[i].c_str(), &in) == 0 && stat(outputs[i].c_str(), &out) == 0 && in.st_dev == out.st_dev &&
            in.st_ino == out.st_ino)
            fail_usage(command, outputs[i] + " is its own input; choose another --out-dir");
    }
}

void print_json_array(const std::vector<nlohmann::ordered_json>& objects)
{
    std::string out = "[\n";
    for (size_t n = 0; n < objects.size(); ++n) {
        out += "  " + objects[n].dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        out += n + 1 < objects.size() ? ",\n" : "\n";
    }
    out += "]\n";
    std::fputs(out.c_str(), stdout);
}

} // namespace KEL::cli
