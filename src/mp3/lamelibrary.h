// The LAME MP3 encoder library, loaded at run time.
//
// The library is not linked: the first lame_init() or get_lame_version()
// opens it with dlopen and binds every function the MP3 encoder uses by
// name into a slot. Where it is looked for is a property of the host: when
// the environment variable KEL_PRIVATE_FRAMEWORKS names the host's private
// library folder, only "$KEL_PRIVATE_FRAMEWORKS/libmp3lame.so.0" is tried;
// otherwise "libmp3lame.so.0" is found through the system loader's path.
//
// The functions below carry LAME's names and signatures inside namespace
// KEL and call through their slots; they never clash with the library's own
// C symbols. Only lame_init and get_lame_version load the library first;
// the others assume that one of those two has succeeded.
#ifndef KEL_MP3_LAMELIBRARY_H
#define KEL_MP3_LAMELIBRARY_H

#include "kel.h"

#include <cstdarg>
#include <cstdio>

namespace KEL {

// LAME's encoder state, opaque here.
struct lame_global_struct;
using lame_t = lame_global_struct*;
// LAME's report callback: a printf format and its arguments.
using lame_report_function = void (*)(const char* format, va_list args);

// LAME's values for lame_set_mode and lame_set_VBR.
enum LameMode { kLameStereo = 0, kLameJointStereo = 1, kLameDualChannel = 2, kLameMono = 3 };
enum LameVbr { kLameVbrOff = 0, kLameVbrRh = 2 };

// Loads the library and binds every function; 0 on success (also on every
// call after a success), otherwise a negative step number:
//   -1/-2  no folder to load from (KEL_PRIVATE_FRAMEWORKS set but empty),
//   -3..-6 the library's path cannot be formed (longer than 1024 bytes),
//   -7     dlopen failed,
//   -8     a function name did not resolve (slots bound so far stay filled,
//          the library counts as not loaded).
// Safe to call from several threads at once; the handle is never closed.
KEL_API int lame_load_from_main_bundle();
// True once lame_load_from_main_bundle has succeeded in this process.
KEL_API bool lame_is_loaded();

// Load first; null when loading fails.
KEL_API lame_t lame_init();
KEL_API const char* get_lame_version();

KEL_API int lame_close(lame_t gfp);
KEL_API int lame_init_params(lame_t gfp);
KEL_API int lame_init_bitstream(lame_t gfp);
KEL_API int lame_set_in_samplerate(lame_t gfp, int rate);
KEL_API int lame_set_out_samplerate(lame_t gfp, int rate);
KEL_API int lame_set_num_channels(lame_t gfp, int channels);
KEL_API int lame_set_mode(lame_t gfp, int mode);
KEL_API int lame_set_quality(lame_t gfp, int quality);
KEL_API int lame_set_brate(lame_t gfp, int kbps);
KEL_API int lame_set_VBR(lame_t gfp, int mode);
KEL_API int lame_set_VBR_q(lame_t gfp, int quality);
KEL_API int lame_set_VBR_mean_bitrate_kbps(lame_t gfp, int kbps);
KEL_API int lame_set_VBR_max_bitrate_kbps(lame_t gfp, int kbps);
KEL_API int lame_set_bWriteVbrTag(lame_t gfp, int write);
KEL_API int lame_set_lowpassfreq(lame_t gfp, int hz);
KEL_API int lame_get_encoder_delay(lame_t gfp);
KEL_API int lame_set_errorf(lame_t gfp, lame_report_function f);
KEL_API int lame_set_debugf(lame_t gfp, lame_report_function f);
KEL_API int lame_set_msgf(lame_t gfp, lame_report_function f);
KEL_API int lame_encode_buffer(lame_t gfp, const short left[], const short right[], int samples,
                               unsigned char* out, int out_size);
KEL_API int lame_encode_buffer_interleaved(lame_t gfp, short pcm[], int samples, unsigned char* out,
                                           int out_size);
KEL_API int lame_encode_flush(lame_t gfp, unsigned char* out, int out_size);
KEL_API int lame_encode_flush_nogap(lame_t gfp, unsigned char* out, int out_size);
KEL_API void lame_mp3_tags_fid(lame_t gfp, FILE* file);

} // namespace KEL

#endif
