#include "overview/overview.h"

#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <sys/time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace KEL {

namespace {

// Cache pairs per packet, and floats per packet in the coarse scratch buffer.
constexpr int kPairs = Packet::kWaveCacheValues / 2;
constexpr int kBlockFloats = Packet::kWaveCacheValues;
static_assert(sizeof(float) * kBlockFloats == 64, "one cache block is eight pairs of two floats");

// Work units behind the progress throttle: a packet looked at, a cache
// built (a decode), and the amount after which the clock is read.
constexpr int kWorkPerPacket = 10;
constexpr int kWorkPerBuild = 1000;
constexpr int kWorkPerDirtyBuild = 5000;
constexpr int kWorkBetweenClockReads = 10000;
constexpr double kReportInterval = 0.1;
constexpr float kPercentStep = 0.5f;

// A run of the dirty redraw spans at least this many packets; closer
// steps are drawn normally.
constexpr float kDirtyMinStep = 10.0f;
constexpr int kDirtyMaxRun = 10;

// The first fault of a drawing request: "EPnm" for a packet range outside
// the clip, then "Escl" for fewer than one point; 0 when there is none.
int request_fault(const Clip* clip, int first, int last, int points)
{
    if (first < 0 || last >= clip->packet_count || last < first)
        return kErrPacketNumber;
    return points < 1 ? kErrScale : 0;
}

double wall_clock()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
}

void zero_points(float* out, int from, int points)
{
    for (int i = from; i < points; ++i) {
        out[2 * i] = 0.0f;
        out[2 * i + 1] = 0.0f;
    }
}

// Throttles the progress reports of one call. Reports are made only when
// the caller gave a callback, and only when the caller asked for them
// always or the call has had to decode, so a redraw entirely from valid
// caches stays silent.
class WorkMeter {
public:
    WorkMeter(const Overview& overview, int build_cost, int total, bool by_percent)
        : callback_(overview.progress_callback), context_(overview.progress_context),
          always_(overview.report_always != 0), build_cost_(build_cost),
          step_(100.0f / static_cast<float>(total)), by_percent_(by_percent)
    {
        if (callback_ != nullptr)
            last_time_ = wall_clock();
    }

    // One packet looked at; built when its cache had to be made. Reports
    // when the work since the last clock reading took long enough. Returns
    // false when the caller cancels.
    bool packet(int packet, bool built)
    {
        if (callback_ == nullptr)
            return true;
        counter_ += kWorkPerPacket + (built ? build_cost_ : 0);
        built_any_ = built_any_ || built;
        if (counter_ <= kWorkBetweenClockReads)
            return true;
        counter_ = 0;
        const double now = wall_clock();
        if (now - last_time_ <= kReportInterval)
            return true;
        last_time_ = now;
        return allowed() ? report(packet) : true;
    }

    // done units of the total are complete. Where the percentage counts, a
    // report is due whenever it has grown by half a percent.
    bool advance(int done, int packet)
    {
        percent_ = step_ * static_cast<float>(done);
        if (callback_ == nullptr || !by_percent_ || !allowed())
            return true;
        if (percent_ - last_percent_ >= kPercentStep)
            return report(packet);
        return true;
    }

private:
    bool allowed() const { return always_ || built_any_; }

    bool report(int packet)
    {
        last_percent_ = percent_;
        return callback_(percent_, context_, packet) != 0;
    }

    int (*callback_)(float, void*, int);
    void* context_;
    bool always_;
    int build_cost_;
    float step_;
    bool by_percent_;
    int counter_ = 0;
    bool built_any_ = false;
    double last_time_ = 0.0;
    float percent_ = 0.0f;
    float last_percent_ = 0.0f;
};

// Stand-in for the caches of a packet too short to keep them (fewer frames
// than pairs): pair j takes the extremes of frame j * frames / 8, which
// covers every frame of such a packet. Values at unity gain, clamped like
// the cache, then scaled by gain as the cache readers do.
void summarize_short_packet(const float* left, const float* right, int frames, float gain, float* pairs,
                            float& rms, float& max_sample)
{
    std::fill(pairs, pairs + kBlockFloats, 0.0f);
    rms = 0.0f;
    max_sample = 0.0f;
    if (frames <= 0)
        return;
    float largest = 0.0f;
    for (int j = 0; j < kPairs; ++j) {
        const int f = j * frames / kPairs;
        const float hi = std::min(std::max(0.0f, std::max(left[f], right[f])), 1.0f);
        const float lo = std::max(std::min(0.0f, std::min(left[f], right[f])), -1.0f);
        largest = std::max(largest, std::max(hi, -lo));
        pairs[2 * j] = hi * gain;
        pairs[2 * j + 1] = lo * gain;
    }
    float sum = 0.0f;
    for (int i = 0; i < frames; ++i) {
        const float mono = (left[i] + right[i]) * 0.5f;
        sum += mono * mono;
    }
    rms = std::sqrt(sum * (1.0f / static_cast<float>(frames))) * gain;
    max_sample = largest * gain;
}

} // namespace

Overview::Overview(Clip* clip, _kel_overview_progress_t* progress)
    : progress_callback(progress != nullptr ? progress->callback : nullptr),
      progress_context(progress != nullptr ? progress->context : nullptr),
      report_always(progress != nullptr ? progress->report_always : 0), clip(clip)
{
}

Overview::~Overview()
{
    std::free(scratch_left_);
    std::free(scratch_right_);
}

void Overview::reserved_slot_1() {}

void Overview::reserved_slot_2() {}

bool Overview::reserve_scratch(int frames)
{
    const size_t wanted = static_cast<size_t>(frames);
    if (wanted <= scratch_frames_)
        return true;
    if (wanted > SIZE_MAX / sizeof(float))
        return false;
    std::free(scratch_left_);
    std::free(scratch_right_);
    scratch_left_ = static_cast<float*>(std::malloc(wanted * sizeof(float)));
    scratch_right_ = static_cast<float*>(std::malloc(wanted * sizeof(float)));
    if (scratch_left_ == nullptr || scratch_right_ == nullptr) {
        std::free(scratch_left_);
        std::free(scratch_right_);
        scratch_left_ = scratch_right_ = nullptr;
        scratch_frames_ = 0;
        return false;
    }
    scratch_frames_ = wanted;
    return true;
}

int Overview::decode_scratch(int packet, float gain)
{
    const int frames = clip->packet_frame_count(packet, nullptr);
    if (frames <= 0)
        return 0;
    if (!reserve_scratch(frames))
        return -1;
    float* buffers[2] = {scratch_left_, scratch_right_};
    int err = 0;
    const int got = packet_decode(packet, buffers, &err, gain);
    if (err != 0 || got != frames) {
        // A broken packet draws as silence; its error is not passed on.
        std::memset(scratch_left_, 0, sizeof(float) * static_cast<size_t>(frames));
        std::memset(scratch_right_, 0, sizeof(float) * static_cast<size_t>(frames));
    }
    return frames;
}

int Overview::summarize(int packet, PacketSummary& summary)
{
    int built = 0;
    if (!clip->packet_is_wave_cache_valid(packet)) {
        built = 1;
        // The caches are kept at unity gain.
        const int frames = decode_scratch(packet, 1.0f);
        if (frames < 0)
            return -1;
        if (frames > 0) {
            float* buffers[2] = {scratch_left_, scratch_right_};
            clip->packet_make_wave_cache(packet, buffers, frames, nullptr);
        }
        if (!clip->packet_is_wave_cache_valid(packet)) {
            const Packet* p = clip->get_packet(packet);
            summarize_short_packet(scratch_left_, scratch_right_, frames, p != nullptr ? p->gain : 1.0f,
                                   summary.pairs, summary.rms, summary.max_sample);
            return built;
        }
    }
    clip->packet_get_wave_cache(packet, summary.pairs);
    clip->packet_get_rms_cache(packet, &summary.rms);
    clip->packet_get_max_sample_cache(packet, &summary.max_sample);
    return built;
}

int Overview::next_sample(MonoCursor& cursor, float& value)
{
    while (cursor.pos >= cursor.frames) {
        if (cursor.packet >= cursor.last)
            return 0;
        ++cursor.packet;
        // Drawn as heard: with the packet's own gain and envelope.
        const int frames = decode_scratch(cursor.packet, -1.0f);
        if (frames < 0)
            return -1;
        for (int i = 0; i < frames; ++i)
            scratch_left_[i] = (scratch_left_[i] + scratch_right_[i]) * 0.5f;
        cursor.frames = frames;
        cursor.pos = 0;
    }
    value = scratch_left_[cursor.pos++];
    return 1;
}

int Overview::generate(int first, int last, int points, int dirtyRun, float* out, int& err)
{
    if (dirtyRun == 0)
        return generate_normal(first, last, points, out, err);
    return generate_dirty(first, last, points, dirtyRun, out, err);
}

int Overview::generate_normal(int first, int last, int points, float* out, int& err)
{
    err = request_fault(clip, first, last, points);
    if (err != 0)
        return 0;
    const int n = last - first + 1;
    // Every packet is taken to have the first packet's length.
    const int frames = clip->packet_frame_count(first, nullptr);
    const int seg = frames / kPairs;
    if (seg == 0)
        return generate_fine(first, last, points, out, err);
    const double samples_per_point =
        std::floor(static_cast<double>(frames) * static_cast<double>(n) / static_cast<double>(points));
    const int64_t spp = static_cast<int64_t>(samples_per_point);
    const int64_t pairs_per_point = spp / seg;
    if (pairs_per_point == 0)
        return generate_fine(first, last, points, out, err);
    const int64_t packets_per_point = (spp + frames - 1) / frames;

    // One 8-pair block per packet a point can reach.
    const uint64_t blocks = static_cast<uint64_t>(packets_per_point) + 1;
    if (blocks > SIZE_MAX / (kBlockFloats * sizeof(float))) {
        err = kErrUnknown;
        return 0;
    }
    float* scratch = static_cast<float*>(std::malloc(blocks * kBlockFloats * sizeof(float)));
    if (scratch == nullptr) {
        err = kErrUnknown;
        return 0;
    }

    WorkMeter meter(*this, kWorkPerBuild, points, true);
    PacketSummary summary;
    for (int i = 0; i < points; ++i) {
        const int64_t start_sample = static_cast<int64_t>(samples_per_point * static_cast<double>(i));
        const int64_t start_packet = std::min<int64_t>(
            last, first + static_cast<int64_t>(samples_per_point / frames * static_cast<double>(i)));
        const int64_t start_pair = (start_sample % frames) / seg;
        const int64_t end_pair = start_pair + pairs_per_point;
        const int64_t wanted = packets_per_point + (end_pair > kPairs ? 1 : 0);
        const int64_t count = std::min<int64_t>(wanted, last - start_packet + 1);

        for (int64_t b = 0; b < count; ++b) {
            const int packet = static_cast<int>(start_packet + b);
            const int built = summarize(packet, summary);
            if (built < 0) {
                std::free(scratch);
                err = kErrUnknown;
                return 0;
            }
            std::memcpy(scratch + b * kBlockFloats, summary.pairs, sizeof summary.pairs);
            if (!meter.packet(packet, built != 0)) {
                std::free(scratch);
                return i;
            }
        }

        // Pairs past the packets read (the clip's end) contribute nothing.
        const int64_t stop = std::min<int64_t>(end_pair, count * kPairs);
        float hi = 0.0f;
        float lo = 0.0f;
        for (int64_t pair = start_pair; pair < stop; ++pair) {
            hi = std::max(hi, scratch[2 * pair]);
            lo = std::min(lo, scratch[2 * pair + 1]);
        }
        out[2 * i] = hi;
        out[2 * i + 1] = lo;
        if (!meter.advance(i + 1, static_cast<int>(start_packet))) {
            std::free(scratch);
            return i + 1;
        }
    }
    std::free(scratch);
    return points;
}

int Overview::generate_dirty(int first, int last, int points, int dirtyRun, float* out, int& err)
{
    err = request_fault(clip, first, last, 1);
    if (err != 0)
        return 0;
    if (dirtyRun < 1 || dirtyRun > kDirtyMaxRun) {
        err = kErrParameter;
        return 0;
    }
    if (points < 1) {
        err = kErrScale;
        return 0;
    }
    const int n = last - first + 1;
    const float step = static_cast<float>(n) * static_cast<float>(dirtyRun) / static_cast<float>(points);
    if (step < kDirtyMinStep)
        return generate_normal(first, last, points, out, err);

    WorkMeter meter(*this, kWorkPerDirtyBuild, points, true);
    PacketSummary summary;
    float position = static_cast<float>(first);
    int done = 0;
    // The last packet itself is never sampled.
    while (done < points && static_cast<double>(position) < static_cast<double>(last)) {
        const int packet = std::min(static_cast<int>(position), last);
        const int built = summarize(packet, summary);
        if (built < 0) {
            err = kErrUnknown;
            return 0;
        }
        if (!meter.packet(packet, built != 0))
            return done;
        float hi = 0.0f;
        float lo = 0.0f;
        for (int pair = 0; pair < kPairs; ++pair) {
            hi = std::max(hi, summary.pairs[2 * pair]);
            lo = std::min(lo, summary.pairs[2 * pair + 1]);
        }
        const int run = std::min(dirtyRun, points - done);
        for (int k = 0; k < run; ++k) {
            out[2 * (done + k)] = hi;
            out[2 * (done + k) + 1] = lo;
        }
        done += run;
        if (!meter.advance(done, packet))
            return done;
        position += step;
    }
    // Runs the walk did not reach (it stops before the last packet) draw
    // as silence.
    zero_points(out, done, points);
    return points;
}

int Overview::generate_fine(int first, int last, int points, float* out, int& err)
{
    err = request_fault(clip, first, last, points);
    if (err != 0)
        return 0;
    const int n = last - first + 1;
    const int64_t total = static_cast<int64_t>(clip->packet_frame_count(first, nullptr)) * n;
    const int64_t spp = total / points;
    if (spp < 1)
        return generate_extra_fine(first, last, points, out, err);
    // When the points do not divide the samples evenly each run takes one
    // sample more: the first sample of the next run.
    const bool overlap = total % points != 0;

    MonoCursor cursor{first - 1, last, 0, 0};
    for (int i = 0; i < points; ++i) {
        float hi = 0.0f;
        float lo = 0.0f;
        float value = 0.0f;
        for (int64_t s = 0; s < spp; ++s) {
            const int got = next_sample(cursor, value);
            if (got <= 0) {
                err = got < 0 ? kErrUnknown : 0;
                return got < 0 ? 0 : i;
            }
            hi = std::max(hi, value);
            lo = std::min(lo, value);
        }
        if (overlap) {
            const int got = next_sample(cursor, value);
            if (got <= 0) {
                err = got < 0 ? kErrUnknown : 0;
                return got < 0 ? 0 : i;
            }
            hi = std::max(hi, value);
            lo = std::min(lo, value);
            // Left for the next run: the sample is still in the decoded packet.
            --cursor.pos;
        }
        out[2 * i] = std::min(hi, 1.0f);
        out[2 * i + 1] = std::max(lo, -1.0f);
    }
    return points;
}

int Overview::generate_extra_fine(int first, int last, int points, float* out, int& err)
{
    err = request_fault(clip, first, last, points);
    if (err != 0)
        return 0;
    const int n = last - first + 1;
    const int64_t total = static_cast<int64_t>(clip->packet_frame_count(first, nullptr)) * n;
    if (total == 0) {
        zero_points(out, 0, points);
        return points;
    }
    const int64_t points_per_sample = points / total;
    if (points_per_sample < 1)
        return generate_fine(first, last, points, out, err);

    MonoCursor cursor{first - 1, last, 0, 0};
    int done = 0;
    for (int64_t s = 0; s < total && done < points; ++s) {
        float value = 0.0f;
        const int got = next_sample(cursor, value);
        if (got < 0) {
            err = kErrUnknown;
            return 0;
        }
        if (got == 0)
            return done;
        value = std::max(std::min(value, 1.0f), -1.0f);
        const float hi = value > 0.0f ? value : 0.0f;
        const float lo = value > 0.0f ? 0.0f : value;
        const int run = static_cast<int>(std::min<int64_t>(points_per_sample, points - done));
        for (int k = 0; k < run; ++k) {
            out[2 * (done + k)] = hi;
            out[2 * (done + k) + 1] = lo;
        }
        done += run;
    }
    // Points beyond the last whole share of samples draw as silence.
    zero_points(out, done, points);
    return points;
}

int Overview::generate_rms(int first, int last, float* out, int& err)
{
    err = request_fault(clip, first, last, 1);
    if (err != 0)
        return 0;
    const int n = last - first + 1;
    WorkMeter meter(*this, kWorkPerBuild, n, false);
    PacketSummary summary;
    for (int packet = first; packet <= last; ++packet) {
        const int built = summarize(packet, summary);
        if (built < 0) {
            err = kErrUnknown;
            return 0;
        }
        out[packet - first] = summary.rms;
        const int done = packet - first + 1;
        meter.advance(done, packet);
        if (!meter.packet(packet, built != 0))
            return done;
    }
    return n;
}

float Overview::find_max_sample(int first, int last, int& err)
{
    err = request_fault(clip, first, last, 1);
    if (err != 0)
        return 0.0f;
    const int n = last - first + 1;
    WorkMeter meter(*this, kWorkPerBuild, n, false);
    PacketSummary summary;
    float largest = 0.0f;
    for (int packet = first; packet <= last; ++packet) {
        const int built = summarize(packet, summary);
        if (built < 0) {
            err = kErrUnknown;
            return 0.0f;
        }
        largest = std::max(largest, summary.max_sample);
        meter.advance(packet - first + 1, packet);
        // A cancelled search answers with the largest sample found so far.
        if (!meter.packet(packet, built != 0))
            return largest;
    }
    return largest;
}

} // namespace KEL
