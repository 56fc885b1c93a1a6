#include "mp3/lamelibrary.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <string>

namespace KEL {

namespace {

// The library's file name, looked for in the host's private folder or
// through the system loader's path.
constexpr const char* kLibraryName = "libmp3lame.so.0";
constexpr const char* kFolderVariable = "KEL_PRIVATE_FRAMEWORKS";
// The longest path handed to dlopen, terminating zero included.
constexpr size_t kMaxPath = 1024;

// One slot per bound function; each holds the library's address once bound.
void* slot_get_lame_version = nullptr;
void* slot_lame_init = nullptr;
void* slot_lame_close = nullptr;
void* slot_lame_init_bitstream = nullptr;
void* slot_lame_init_params = nullptr;
void* slot_lame_mp3_tags_fid = nullptr;
void* slot_lame_set_VBR = nullptr;
void* slot_lame_set_VBR_max_bitrate_kbps = nullptr;
void* slot_lame_set_VBR_mean_bitrate_kbps = nullptr;
void* slot_lame_set_VBR_q = nullptr;
void* slot_lame_set_bWriteVbrTag = nullptr;
void* slot_lame_set_brate = nullptr;
void* slot_lame_set_errorf = nullptr;
void* slot_lame_set_debugf = nullptr;
void* slot_lame_set_msgf = nullptr;
void* slot_lame_set_in_samplerate = nullptr;
void* slot_lame_set_num_channels = nullptr;
void* slot_lame_set_mode = nullptr;
void* slot_lame_set_quality = nullptr;
void* slot_lame_set_out_samplerate = nullptr;
void* slot_lame_encode_buffer = nullptr;
void* slot_lame_encode_buffer_interleaved = nullptr;
void* slot_lame_encode_flush_nogap = nullptr;
void* slot_lame_encode_flush = nullptr;
void* slot_lame_set_lowpassfreq = nullptr;
void* slot_lame_get_encoder_delay = nullptr;

struct LameBinding {
    const char* name;
    void** slot;
};

// Bound in this order; the null row ends the table.
static constexpr std::array<LameBinding, 27> kBindings = {{
    {"get_lame_version", &slot_get_lame_version},                             // version text
    {"lame_init", &slot_lame_init},                                           // new encoder state
    {"lame_close", &slot_lame_close},                                         // frees it
    {"lame_init_bitstream", &slot_lame_init_bitstream},                       // restarts a stream
    {"lame_init_params", &slot_lame_init_params},                             // checks the settings
    {"lame_mp3_tags_fid", &slot_lame_mp3_tags_fid},                           // writes the VBR tag
    {"lame_set_VBR", &slot_lame_set_VBR},                                     // rate mode
    {"lame_set_VBR_max_bitrate_kbps", &slot_lame_set_VBR_max_bitrate_kbps},   // VBR ceiling
    {"lame_set_VBR_mean_bitrate_kbps", &slot_lame_set_VBR_mean_bitrate_kbps}, // ABR target
    {"lame_set_VBR_q", &slot_lame_set_VBR_q},                                 // VBR quality
    {"lame_set_bWriteVbrTag", &slot_lame_set_bWriteVbrTag},                   // VBR tag on/off
    {"lame_set_brate", &slot_lame_set_brate},                                 // CBR rate
    {"lame_set_errorf", &slot_lame_set_errorf},                               // error reports
    {"lame_set_debugf", &slot_lame_set_debugf},                               // debug reports
    {"lame_set_msgf", &slot_lame_set_msgf},                                   // messages
    {"lame_set_in_samplerate", &slot_lame_set_in_samplerate},                 // input rate
    {"lame_set_num_channels", &slot_lame_set_num_channels},                   // input channels
    {"lame_set_mode", &slot_lame_set_mode},                                   // channel mode
    {"lame_set_quality", &slot_lame_set_quality},                             // algorithm quality
    {"lame_set_out_samplerate", &slot_lame_set_out_samplerate},               // output rate
    {"lame_encode_buffer", &slot_lame_encode_buffer},                         // two 16-bit lanes
    {"lame_encode_buffer_interleaved", &slot_lame_encode_buffer_interleaved}, // interleaved 16-bit
    {"lame_encode_flush_nogap", &slot_lame_encode_flush_nogap},               // flush, stream goes on
    {"lame_encode_flush", &slot_lame_encode_flush},                           // final flush
    {"lame_set_lowpassfreq", &slot_lame_set_lowpassfreq},                     // low-pass corner
    {"lame_get_encoder_delay", &slot_lame_get_encoder_delay},                 // frames it adds in front
    {nullptr, nullptr},                                                       // end
}};

std::atomic<bool> loaded{false};
std::mutex load_mutex;

// The path handed to dlopen, or a negative step number.
int library_path(std::string& path)
{
    const char* folder = std::getenv(kFolderVariable);
    if (folder == nullptr) {
        // No private folder: the system loader searches its own path.
        path = kLibraryName;
        return 0;
    }
    if (*folder == '\0')
        return -2;
    path = folder;
    if (path.back() != '/')
        path += '/';
    path += kLibraryName;
    if (path.size() + 1 > kMaxPath)
        return -6;
    return 0;
}

template <typename Fn>
Fn bound(void* slot)
{
    return reinterpret_cast<Fn>(slot);
}

} // namespace

int lame_load_from_main_bundle()
{
    if (loaded.load(std::memory_order_acquire))
        return 0;
    std::lock_guard<std::mutex> lock(load_mutex);
    if (loaded.load(std::memory_order_relaxed))
        return 0;
    std::string path;
    if (const int step = library_path(path))
        return step;
    void* library = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr)
        return -7;
    for (const LameBinding& b : kBindings) {
        if (b.name == nullptr)
            break;
        void* address = dlsym(library, b.name);
        if (address == nullptr)
            return -8;
        *b.slot = address;
    }
    loaded.store(true, std::memory_order_release);
    return 0;
}

bool lame_is_loaded()
{
    return loaded.load(std::memory_order_acquire);
}

lame_t lame_init()
{
    if (lame_load_from_main_bundle() != 0)
        return nullptr;
    return bound<lame_t (*)()>(slot_lame_init)();
}

const char* get_lame_version()
{
    if (lame_load_from_main_bundle() != 0)
        return nullptr;
    return bound<const char* (*)()>(slot_get_lame_version)();
}

int lame_close(lame_t gfp)
{
    return bound<int (*)(lame_t)>(slot_lame_close)(gfp);
}

int lame_init_params(lame_t gfp)
{
    return bound<int (*)(lame_t)>(slot_lame_init_params)(gfp);
}

int lame_init_bitstream(lame_t gfp)
{
    return bound<int (*)(lame_t)>(slot_lame_init_bitstream)(gfp);
}

int lame_set_in_samplerate(lame_t gfp, int rate)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_in_samplerate)(gfp, rate);
}

int lame_set_out_samplerate(lame_t gfp, int rate)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_out_samplerate)(gfp, rate);
}

int lame_set_num_channels(lame_t gfp, int channels)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_num_channels)(gfp, channels);
}

int lame_set_mode(lame_t gfp, int mode)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_mode)(gfp, mode);
}

int lame_set_quality(lame_t gfp, int quality)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_quality)(gfp, quality);
}

int lame_set_brate(lame_t gfp, int kbps)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_brate)(gfp, kbps);
}

int lame_set_VBR(lame_t gfp, int mode)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_VBR)(gfp, mode);
}

int lame_set_VBR_q(lame_t gfp, int quality)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_VBR_q)(gfp, quality);
}

int lame_set_VBR_mean_bitrate_kbps(lame_t gfp, int kbps)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_VBR_mean_bitrate_kbps)(gfp, kbps);
}

int lame_set_VBR_max_bitrate_kbps(lame_t gfp, int kbps)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_VBR_max_bitrate_kbps)(gfp, kbps);
}

int lame_set_bWriteVbrTag(lame_t gfp, int write)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_bWriteVbrTag)(gfp, write);
}

int lame_set_lowpassfreq(lame_t gfp, int hz)
{
    return bound<int (*)(lame_t, int)>(slot_lame_set_lowpassfreq)(gfp, hz);
}

int lame_get_encoder_delay(lame_t gfp)
{
    return bound<int (*)(lame_t)>(slot_lame_get_encoder_delay)(gfp);
}

int lame_set_errorf(lame_t gfp, lame_report_function f)
{
    return bound<int (*)(lame_t, lame_report_function)>(slot_lame_set_errorf)(gfp, f);
}

int lame_set_debugf(lame_t gfp, lame_report_function f)
{
    return bound<int (*)(lame_t, lame_report_function)>(slot_lame_set_debugf)(gfp, f);
}

int lame_set_msgf(lame_t gfp, lame_report_function f)
{
    return bound<int (*)(lame_t, lame_report_function)>(slot_lame_set_msgf)(gfp, f);
}

int lame_encode_buffer(lame_t gfp, const short left[], const short right[], int samples, unsigned char* out,
                       int out_size)
{
    using Fn = int (*)(lame_t, const short*, const short*, int, unsigned char*, int);
    return bound<Fn>(slot_lame_encode_buffer)(gfp, left, right, samples, out, out_size);
}

int lame_encode_buffer_interleaved(lame_t gfp, short pcm[], int samples, unsigned char* out, int out_size)
{
    using Fn = int (*)(lame_t, short*, int, unsigned char*, int);
    return bound<Fn>(slot_lame_encode_buffer_interleaved)(gfp, pcm, samples, out, out_size);
}

int lame_encode_flush(lame_t gfp, unsigned char* out, int out_size)
{
    return bound<int (*)(lame_t, unsigned char*, int)>(slot_lame_encode_flush)(gfp, out, out_size);
}

int lame_encode_flush_nogap(lame_t gfp, unsigned char* out, int out_size)
{
    return bound<int (*)(lame_t, unsigned char*, int)>(slot_lame_encode_flush_nogap)(gfp, out, out_size);
}

void lame_mp3_tags_fid(lame_t gfp, FILE* file)
{
    bound<void (*)(lame_t, FILE*)>(slot_lame_mp3_tags_fid)(gfp, file);
}

} // namespace KEL
