// Picks the format of a file on disk.
//
// The container formats are asked in a fixed order (AIFF, CAF, WAVE, AAC in
// MPEG-4, Apple Lossless in MPEG-4) whether a file is theirs, and MP3, which
// has no reliable signature, is asked last. The order and the rules about
// which error survives are fixed here; each format decides for itself in
// its detect function.
#ifndef KEL_API_FORMATDISPATCH_H
#define KEL_API_FORMATDISPATCH_H

#include "kel.h"

#include <vector>

namespace KEL {

class Clip;

struct ClipFormat {
    // 0 when the file is of this format, an error code otherwise.
    int (*detect)(const char* path);
    Clip* (*open)(const char* path, int* err, _kel_progress_ext_t* progress);
    int (*get_file_info)(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress);
    // For the PCM containers: the code that means "recognised but corrupt".
    // When open leaves it, the file is not offered to the MP3 reader, and a
    // detected file's get_file_info result is final. 0 for the others.
    int corrupt_code;
};

class KEL_API FormatDispatch {
public:
    FormatDispatch(std::vector<ClipFormat> containers, ClipFormat fallback);

    // The formats the library knows, in their fixed order.
    static const FormatDispatch& standard();

    // Opens path with the first format that recognises it; null with the
    // code in *err otherwise. A clip without packets is refused ("Empt").
    Clip* open(const char* path, int* err, _kel_progress_ext_t* progress) const;
    // The same dispatch with each format's get_file_info; returns the code.
    int file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress) const;

private:
    std::vector<ClipFormat> containers_;
    ClipFormat fallback_;
};

} // namespace KEL

#endif
