#include "core/clipencoder.h"

#include "rbuffer/rbuffer2.h"
#include "resampler/resampler.h"

#include <algorithm>
#include <climits>

namespace KEL {

ClipEncoder::ClipEncoder(float source_rate) : source_rate(source_rate) {}

ClipEncoder::~ClipEncoder()
{
    if (buffer != nullptr)
        rbuffer2_destroy(buffer);
    if (resampler != nullptr)
        resampler_destroy(resampler);
}

int ClipEncoder::put_data(float** channels, int frames)
{
    if (buffer == nullptr) {
        buffer = rbuffer2_create(kBufferBytes, 0);
        if (buffer == nullptr)
            return 0;
    }
    if (resampler == nullptr) {
        resampler = resampler_create();
        if (resampler == nullptr)
            return 0;
    }
    if (frames <= 0 || frames > INT_MAX / 4)
        return 0;
    const int written = rbuffer2_write(buffer, channels[0], channels[1], frames * 4);
    return written / 4;
}

int ClipEncoder::get_data(float** out, int frames, float rate, bool flush)
{
    if (buffer == nullptr || resampler == nullptr || frames <= 0)
        return 0;
    const int needed = resampler_frames_in(resampler, source_rate, rate, frames);
    if (needed <= 0 || needed > INT_MAX / 4 - 16)
        return 0;
    if (!flush && rbuffer2_used_space(buffer) / 4 < needed)
        return 0;

    const size_t staged = static_cast<size_t>(needed) + 16;
    for (std::vector<float>& lane : scratch_) {
        if (lane.size() < staged)
            lane.resize(staged);
    }
    // When flushing, the last short read is padded with silence.
    if (flush) {
        std::fill_n(scratch_[0].begin(), staged, 0.0f);
        std::fill_n(scratch_[1].begin(), staged, 0.0f);
    }
    const int read = rbuffer2_read(buffer, scratch_[0].data(), scratch_[1].data(), needed * 4);
    if (read <= 0)
        return 0;
    const float* in[2] = {scratch_[0].data(), scratch_[1].data()};
    return resampler_resample_ni2ch(resampler, in, source_rate, out, rate, frames);
}

} // namespace KEL
