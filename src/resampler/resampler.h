/*
 * resampler: a streaming sample-rate converter for two-channel float audio
 * (four-point third-order Lagrange interpolation; a second-order low-pass
 * at the source's Nyquist frequency when the rate goes up). Each call asks
 * for a number of output frames and must be given exactly
 * resampler_frames_in() input frames; position, history and filter state
 * carry over so that consecutive calls join without discontinuity.
 */
#ifndef KEL_RESAMPLER_RESAMPLER_H
#define KEL_RESAMPLER_RESAMPLER_H

#include "kel.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct resampler resampler;

KEL_API resampler* resampler_create(void);
KEL_API void resampler_destroy(resampler* r);
KEL_API void resampler_reset(resampler* r);
/* Input frames needed to produce out_frames output frames. */
KEL_API int resampler_frames_in(resampler* r, double src_rate, double dst_rate, int out_frames);
/* Output frames that in_frames input frames can produce. */
KEL_API int resampler_frames_out(resampler* r, double src_rate, double dst_rate, int in_frames);
/* Non-interleaved: in[0], in[1] and out[0], out[1] are the two channels. */
KEL_API int resampler_resample_ni2ch(resampler* r, const float* const* in, double src_rate,
                                     float* const* out, double dst_rate, int out_frames);
/* Interleaved two-channel frames on both sides. */
KEL_API int resampler_resample_i2ch(resampler* r, const float* in, double src_rate,
                                    float* out, double dst_rate, int out_frames);

#ifdef __cplusplus
}
#endif

#endif
