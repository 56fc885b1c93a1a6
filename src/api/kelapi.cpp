// The flat kel_* entry points: thin shims over the clip classes. Each one
// supplies a scratch error word when the caller passed none, wraps the
// caller's progress record into the internal one and forwards.
#include "kel.h"

#include "api/formatdispatch.h"
#include "core/clip.h"
#include "loudness/gainproposal.h"
#include "loudness/loudnessmeter.h"
#include "overview/overview.h"
#include "pcm/clipcaff.h"

#include <cmath>

using KEL::Clip;
using KEL::FormatDispatch;
using KEL::Overview;

namespace {

// Frames per PCM packet for the loaders; 0 means 1024.
int raw_packet_size = 0;

// The internal progress record an entry point hands down: null when the
// caller gave none, otherwise the caller's callback at base 0.
class ProgressRecord {
public:
    explicit ProgressRecord(const _kel_progress_t* progress)
    {
        if (progress != nullptr) {
            record_ = {progress->callback, progress->context, 0.0f};
            pointer_ = &record_;
        }
    }
    _kel_progress_ext_t* get() { return pointer_; }

private:
    _kel_progress_ext_t record_{};
    _kel_progress_ext_t* pointer_ = nullptr;
};

// A valid error word for the class operations: the caller's, or scratch.
class ErrorWord {
public:
    explicit ErrorWord(int* err) : pointer_(err != nullptr ? err : &scratch_) {}
    int* get() const { return pointer_; }
    int* cleared() const
    {
        *pointer_ = 0;
        return pointer_;
    }

private:
    int scratch_ = 0;
    int* pointer_;
};

} // namespace

extern "C" {

kel_clip_t* kel_clip_open(const char* path, int* err, const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return FormatDispatch::standard().open(path, e.get(), p.get());
}

int kel_file_info(const char* path, _kel_clip_info_t* info, const _kel_progress_t* progress)
{
    ProgressRecord p(progress);
    return FormatDispatch::standard().file_info(path, info, p.get());
}

void kel_clip_close(kel_clip_t* clip, const _kel_progress_t* progress)
{
    ProgressRecord p(progress);
    clip->close(p.get());
    delete clip;
}

int kel_clip_save_to(kel_clip_t* clip, const char* path, const void* block1, int block1_len,
                     const void* block2, int block2_len, int* err, const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return clip->save_to(path, block1, block1_len, block2, block2_len, e.get(), p.get());
}

void kel_clip_info(kel_clip_t* clip, _kel_clip_info_t* info)
{
    clip->get_info(info);
}

kel_clip_t* kel_clip_copy(kel_clip_t* clip, int first, int last, int* err)
{
    return clip->copy(first, last, ErrorWord(err).cleared());
}

kel_clip_t* kel_clip_cut(kel_clip_t* clip, int first, int last, int* err)
{
    return clip->cut(first, last, ErrorWord(err).cleared());
}

void kel_clip_insert(kel_clip_t* clip, int at, kel_clip_t* other, int* err)
{
    clip->insert(at, other, ErrorWord(err).cleared());
}

bool kel_clip_will_accept(kel_clip_t* clip, kel_clip_t* other, int* err)
{
    return clip->will_accept(other, ErrorWord(err).cleared());
}

kel_clip_t* kel_clip_transcode(kel_clip_t* target, kel_clip_t* source, int first, int last, int* err,
                               const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return target->transcode(source, first, last, e.cleared(), p.get());
}

kel_clip_t* kel_clip_transcode_exact(kel_clip_t* target, kel_clip_t* source, int* err,
                                     const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    Clip* result = target->transcode(source, 0, source->packet_count - 1, e.cleared(), p.get());
    if (result != nullptr)
        result->trim_transcoded(*source);
    return result;
}

kel_clip_t* kel_clip_create_silent(kel_clip_t* clip, int packets, int* err, const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return clip->create_silent(packets, e.cleared(), p.get());
}

kel_clip_t* kel_clip_create(int format, int channels, float sample_rate, int bits_per_sample, int bit_rate,
                            int flag, int* err)
{
    return FormatDispatch::standard().create_empty(format, channels, sample_rate, bits_per_sample, bit_rate, flag,
                                                   err);
}

kel_clip_t* kel_clip_create_from_buffer(float** buffers, float sample_rate, int frames, int* err,
                                        const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return KEL::ClipCAFF::create_from_buffer(buffers, sample_rate, frames, e.cleared(), p.get());
}

int kel_clip_packet_count(kel_clip_t* clip)
{
    return clip->packet_count;
}

int kel_clip_packet_frame_count(kel_clip_t* clip, int packet, int* err)
{
    return clip->packet_frame_count(packet, ErrorWord(err).cleared());
}

kel_overview_t* kel_clip_overview_create(kel_clip_t* clip, const _kel_overview_progress_t* progress)
{
    return clip->create_overview(const_cast<_kel_overview_progress_t*>(progress));
}

void kel_clip_overview_destroy(kel_overview_t* overview)
{
    delete overview;
}

int kel_overview_generate(kel_overview_t* overview, int first, int last, int points, int dirty_run, float* out,
                          int* err)
{
    return overview->generate(first, last, points, dirty_run, out, *ErrorWord(err).cleared());
}

int kel_rms_generate(kel_overview_t* overview, int first, int last, float* out, int* err)
{
    return overview->generate_rms(first, last, out, *ErrorWord(err).cleared());
}

float kel_max_sample_find(kel_overview_t* overview, int first, int last, int* err)
{
    return overview->find_max_sample(first, last, *ErrorWord(err).cleared());
}

int kel_clip_packet_decode(kel_clip_t* clip, int packet, float** buffers, int* err)
{
    // -1.0: the host always gets the packet with its own gain and envelope.
    return clip->packet_decode_play(packet, buffers, ErrorWord(err).cleared(), -1.0f);
}

int kel_clip_packet_set_gain(kel_clip_t* clip, int packet, float gain, int* err)
{
    ErrorWord e(err);
    clip->packet_gain(packet, gain, e.cleared());
    return *e.get() == 0;
}

float kel_clip_packet_get_gain(kel_clip_t* clip, int packet, int* err)
{
    return clip->packet_gain(packet, ErrorWord(err).cleared());
}

float kel_clip_packet_quantize_gain(kel_clip_t* clip, int packet, int* err)
{
    return clip->packet_gain_quantize(packet, ErrorWord(err).cleared());
}

kel_loudness_meter_t* kel_clip_measure_loudness(kel_clip_t* clip, int first, int last, int* err,
                                                const _kel_progress_t* progress)
{
    ErrorWord e(err);
    ProgressRecord p(progress);
    return KEL::LoudnessMeter::measure(*clip, first, last, e.cleared(), p.get());
}

void kel_loudness_meter_result(const kel_loudness_meter_t* meter, kel_loudness_t* out)
{
    meter->result(out);
}

int kel_loudness_album(const kel_loudness_meter_t* const* meters, int count, kel_loudness_t* out)
{
    return KEL::LoudnessMeter::album(meters, count, out);
}

void kel_loudness_meter_free(kel_loudness_meter_t* meter)
{
    delete meter;
}

double kel_clip_propose_gains(kel_clip_t* clip, int first, int last, const kel_loudness_t* measured,
                              double target_lufs, double max_true_peak_dbtp, float* gains, int* err)
{
    ErrorWord e(err);
    if (measured == nullptr) {
        *e.cleared() = KEL::kErrParameter;
        return NAN;
    }
    return KEL::GainProposal::propose(*clip, first, last, *measured, target_lufs, max_true_peak_dbtp, gains,
                                      e.cleared());
}

void kel_clip_get_trims(kel_clip_t* clip, int* start, int* end)
{
    if (start != nullptr)
        *start = clip->start_trim;
    if (end != nullptr)
        *end = clip->end_trim;
}

int kel_clip_set_trims(kel_clip_t* clip, int start, int end, int* err)
{
    ErrorWord e(err);
    clip->set_trims(start, end, e.cleared());
    return *e.get() == 0;
}

float kel_clip_packet_set_gain_nearest(kel_clip_t* clip, int packet, float gain, int* err)
{
    return clip->packet_gain_nearest(packet, gain, ErrorWord(err).cleared());
}

float kel_clip_packet_applied_gain(kel_clip_t* clip, int packet, int* err)
{
    return clip->packet_gain_applied(packet, ErrorWord(err).cleared());
}

int kel_clip_log_fade(kel_clip_t* clip, int first, int last, float from, float to, int* err)
{
    ErrorWord e(err);
    clip->log_fade(first, last, from, to, e.cleared());
    return *e.get() == 0;
}

void kel_clip_log_fade_remove(kel_clip_t* clip, int first, int last, int* err)
{
    clip->log_fade_remove(first, last, ErrorWord(err).cleared());
}

int kel_clip_packet_preroll_count(kel_clip_t* clip, int packet, int* err)
{
    return clip->packet_preroll_count(packet, ErrorWord(err).cleared());
}

kel_clip_t* kel_clip_create_padding_clip(kel_clip_t* clip, int packet, int* err)
{
    return clip->create_padding_clip(packet, ErrorWord(err).cleared());
}

void kel_set_raw_packet_size(int size)
{
    raw_packet_size = size;
}

int kel_get_raw_packet_size(void)
{
    return raw_packet_size;
}

} // extern "C"
