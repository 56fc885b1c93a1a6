#include "api/formatdispatch.h"

#include "core/clip.h"
#include "core/errorcodes.h"
#include "m4a/clipm4aac.h"
#include "m4a/clipm4alac.h"
#include "mp3/clipmp3.h"
#include "pcm/clipaiff.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"

#include <utility>

namespace KEL {

namespace {

// The table's open for a format whose open returns its own clip class.
template <class ClipT>
Clip* open_as(const char* path, int* err, _kel_progress_ext_t* progress)
{
    return ClipT::open(path, err, progress);
}

} // namespace

FormatDispatch::FormatDispatch(std::vector<ClipFormat> containers, ClipFormat fallback)
    : containers_(std::move(containers)), fallback_(fallback)
{
}

const FormatDispatch& FormatDispatch::standard()
{
    // In asking order: AIFF, CAF, WAVE, AAC, Apple Lossless; MP3 last.
    static const FormatDispatch dispatch(
        {
            ClipFormat{&ClipAIFF::detect, &open_as<ClipAIFF>, &ClipAIFF::get_file_info, kErrCorruptAiff, KEL_FORMAT_AIFF,
                       [](int channels, float rate, int bits, int, int, int* err) -> Clip* {
                           return ClipAIFF::create_empty(channels, rate, bits, err);
                       }},
            ClipFormat{&ClipCAFF::detect, &open_as<ClipCAFF>, &ClipCAFF::get_file_info, kErrCorruptCaf, KEL_FORMAT_CAF,
                       [](int channels, float rate, int bits, int, int, int* err) -> Clip* {
                           return ClipCAFF::create_empty(channels, rate, bits, err);
                       }},
            ClipFormat{&ClipWAVE::detect, &open_as<ClipWAVE>, &ClipWAVE::get_file_info, kErrCorruptWave, KEL_FORMAT_WAVE,
                       [](int channels, float rate, int bits, int, int, int* err) -> Clip* {
                           return ClipWAVE::create_empty(channels, rate, bits, err);
                       }},
            ClipFormat{&ClipM4AAC::detect, &open_as<ClipM4AAC>, &ClipM4AAC::get_file_info, 0, KEL_FORMAT_AAC,
                       [](int channels, float rate, int, int bit_rate, int, int* err) -> Clip* {
                           return ClipM4AAC::create_empty(channels, rate, bit_rate, err);
                       }},
            ClipFormat{&ClipM4ALAC::detect, &open_as<ClipM4ALAC>, &ClipM4ALAC::get_file_info, 0, KEL_FORMAT_ALAC,
                       [](int channels, float rate, int bits, int, int, int* err) -> Clip* {
                           return ClipM4ALAC::create_empty(channels, rate, bits, err);
                       }},
        },
        // MP3 has no signature to detect by: asked last, never "corrupt".
        ClipFormat{&ClipMP3::detect,
                   [](const char* path, int* err, _kel_progress_ext_t* progress) -> Clip* {
                       return ClipMP3::open(path, err, progress, false, false);
                   },
                   &ClipMP3::get_file_info, 0, KEL_FORMAT_MP3,
                   [](int channels, float rate, int, int bit_rate, int flag, int* err) -> Clip* {
                       return ClipMP3::create_empty(channels, rate, bit_rate, flag != 0, err);
                   }});
    return dispatch;
}

Clip* FormatDispatch::open(const char* path, int* err, _kel_progress_ext_t* progress) const
{
    *err = 0;
    Clip* clip = nullptr;
    for (const ClipFormat& format : containers_) {
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
        *err = fallback_.detect(path);
        if (*err == 0)
            clip = fallback_.open(path, err, progress);
        // "Unsupported format" from a container wins over the MP3 verdict.
        if (*err != 0 && container_code == kErrFormatUnsupported)
            *err = kErrFormatUnsupported;
    }

    if (clip != nullptr && clip->packet_count == 0) {
        *err = kErrEmpty;
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

    err = fallback_.detect(path);
    if (err == 0)
        err = fallback_.get_file_info(path, info, progress);
    if (err != 0 && container_code == kErrFormatUnsupported)
        err = kErrFormatUnsupported;
    return err;
}

Clip* FormatDispatch::create_empty(int format, int channels, float sample_rate, int bits_per_sample, int bit_rate,
                                   int flag, int* err) const
{
    // The caller's error word is written only on failure.
    int code = kErrClipType;
    Clip* clip = nullptr;
    std::vector<const ClipFormat*> rows;
    for (const ClipFormat& row : containers_)
        rows.push_back(&row);
    rows.push_back(&fallback_);
    for (const ClipFormat* row : rows) {
        if (row->number == format && row->create_empty != nullptr) {
            code = 0;
            clip = row->create_empty(channels, sample_rate, bits_per_sample, bit_rate, flag, &code);
            break;
        }
    }
    if (clip == nullptr && err != nullptr)
        *err = code != 0 ? code : kErrUnknown;
    return clip;
}

} // namespace KEL
