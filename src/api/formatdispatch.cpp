#include "api/formatdispatch.h"

#include "core/clip.h"
#include "core/fourcc.h"
#include "m4a/clipm4aac.h"
#include "m4a/clipm4alac.h"
#include "mp3/clipmp3.h"
#include "pcm/clipaiff.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"

#include <utility>

namespace KEL {

namespace {

// Formats whose slots are still empty are skipped; a missing fallback
// leaves every unrecognised file as "Efmu".
bool present(const ClipFormat& format)
{
    return format.detect != nullptr;
}

} // namespace

FormatDispatch::FormatDispatch(std::vector<ClipFormat> containers, ClipFormat fallback)
    : containers_(std::move(containers)), fallback_(fallback)
{
}

const FormatDispatch& FormatDispatch::standard()
{
    // In asking order: AIFF, CAF, WAVE, AAC, Apple Lossless; MP3 last.
    // Formats not built yet hold empty rows.
    static const FormatDispatch dispatch(
        {
            ClipFormat{&ClipAIFF::detect,
                       [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                           return ClipAIFF::open(path, err, progress);
                       },
                       &ClipAIFF::get_file_info, fourcc("Eaif")}, // AIFF
            ClipFormat{&ClipCAFF::detect,
                       [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                           return ClipCAFF::open(path, err, progress);
                       },
                       &ClipCAFF::get_file_info, fourcc("Ecaf")}, // CAF
            ClipFormat{&ClipWAVE::detect,
                       [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                           return ClipWAVE::open(path, err, progress);
                       },
                       &ClipWAVE::get_file_info, fourcc("Ewav")}, // WAVE
            ClipFormat{&ClipM4AAC::detect,
                       [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                           return ClipM4AAC::open(path, err, progress);
                       },
                       &ClipM4AAC::get_file_info, 0}, // AAC in MPEG-4
            ClipFormat{&ClipM4ALAC::detect,
                       [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                           return ClipM4ALAC::open(path, err, progress);
                       },
                       &ClipM4ALAC::get_file_info, 0}, // Apple Lossless in MPEG-4
        },
        // MP3 has no signature to detect by: asked last, never "corrupt".
        ClipFormat{&ClipMP3::detect,
                   [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                       return ClipMP3::open(path, err, progress, false, false);
                   },
                   &ClipMP3::get_file_info, 0});
    return dispatch;
}

Clip* FormatDispatch::open(const char* path, int* err, _kel_progress_ext_t* progress) const
{
    *err = 0;
    Clip* clip = nullptr;
    for (const ClipFormat& format : containers_) {
        if (!present(format))
            continue;
        *err = format.detect(path);
        if (*err != 0)
            continue;
        clip = format.open(path, err, progress);
        // A PCM container that recognised the file but found it corrupt is
        // final: such a file is never retried as MP3.
        if (clip == nullptr && format.corrupt_code != 0 && *err == format.corrupt_code)
            return nullptr;
        break;
    }
    const int container_code = *err;

    if (clip == nullptr) {
        if (present(fallback_)) {
            *err = fallback_.detect(path);
            if (*err == 0)
                clip = fallback_.open(path, err, progress);
        } else {
            *err = fourcc("Efmu");
        }
        // "Unsupported format" from a container wins over the MP3 verdict.
        if (*err != 0 && container_code == fourcc("Efms"))
            *err = fourcc("Efms");
    }

    if (clip != nullptr && clip->packet_count == 0) {
        *err = fourcc("Empt");
        clip->close(nullptr);
        delete clip;
        return nullptr;
    }
    return clip;
}

int FormatDispatch::file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress) const
{
    _kel_clip_info_t scratch{};
    if (info == nullptr)
        info = &scratch;

    int err = 0;
    for (const ClipFormat& format : containers_) {
        if (!present(format))
            continue;
        err = format.detect(path);
        if (err != 0)
            continue;
        err = format.get_file_info(path, info, progress);
        // A detected PCM container answers for the file, right or wrong.
        if (format.corrupt_code != 0 || err == 0)
            return err;
        break;
    }
    const int container_code = err;

    if (present(fallback_)) {
        err = fallback_.detect(path);
        if (err == 0)
            err = fallback_.get_file_info(path, info, progress);
    } else {
        err = fourcc("Efmu");
    }
    if (err != 0 && container_code == fourcc("Efms"))
        err = fourcc("Efms");
    return err;
}

} // namespace KEL
