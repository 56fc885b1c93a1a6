// The table of formats: which format a file on disk is, and which format
// makes a new empty clip of a KEL_FORMAT_* number.
//
// The container formats are asked in a fixed order (AIFF, CAF, WAVE, AAC in
// MPEG-4, Apple Lossless in MPEG-4) whether a file is theirs, and MP3, which
// has no reliable signature, is asked last. The order and the rules about
// which error survives are fixed here; each format decides for itself in
// its detect function. This is the one place that names every format: the
// core below knows none of them.
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
    // The KEL_FORMAT_* number and kel_clip_create's maker for it: each
    // format takes the parameters it uses (PCM the sample width, the coded
    // formats the bit rate, MP3 also the variable-rate flag). The maker
    // leaves *err 0 on success and may leave it 0 on failure too.
    int number;
    Clip* (*create_empty)(int channels, float sample_rate, int bits_per_sample, int bit_rate, int flag, int* err);
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
    // A new empty clip of the format numbered format; null with the code in
    // *err otherwise ("Eclt" for a number no format has, "EUnk" when the
    // format failed without saying why).
    Clip* create_empty(int format, int channels, float sample_rate, int bits_per_sample, int bit_rate, int flag,
                       int* err) const;

private:
    std::vector<ClipFormat> containers_;
    ClipFormat fallback_;
};

} // namespace KEL

#endif
