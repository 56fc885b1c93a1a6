#include "loudness/loudnessmeter.h"

#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/progress.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <cmath>
#include <ebur128.h>
#include <new>
#include <vector>

namespace KEL {

namespace {

// Everything a meter answers but the peaks; the histogram keeps its memory
// constant however long the programme.
constexpr int kMode = EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_HISTOGRAM;

} // namespace

// Blocks of decoded audio on their way from the decoding thread to the one
// that feeds libebur128 and the true-peak filters; three blocks circulate.
class LoudnessMeter::MeasurePipe {
public:
    static constexpr size_t kBlockFrames = 32768;

    struct Block {
        std::vector<float> left, right;
        size_t frames = 0;
    };

    MeasurePipe(LoudnessMeter& meter, int channels) : meter_(meter), channels_(channels)
    {
        for (Block& b : blocks_)
            free_.push_back(&b);
        worker_ = std::thread([this] { run(); });
    }
    ~MeasurePipe() { finish(); }
    MeasurePipe(const MeasurePipe&) = delete;
    MeasurePipe& operator=(const MeasurePipe&) = delete;

    // An empty block to fill; waits while the measuring thread holds them all.
    Block* take_free()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !free_.empty(); });
        Block* b = free_.front();
        free_.pop_front();
        b->frames = 0;
        b->left.clear();
        b->right.clear();
        return b;
    }

    void submit(Block* b)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            filled_.push_back(b);
        }
        changed_.notify_all();
    }

    // Waits until every submitted block is measured, and ends the thread.
    void finish()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        changed_.notify_all();
        if (worker_.joinable())
            worker_.join();
    }

private:
    void run()
    {
        std::vector<float> interleaved;
        for (;;) {
            Block* b = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return !filled_.empty() || closed_; });
                if (filled_.empty())
                    return;
                b = filled_.front();
                filled_.pop_front();
            }
            measure(*b, interleaved);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                free_.push_back(b);
            }
            changed_.notify_all();
        }
    }

    void measure(const Block& b, std::vector<float>& interleaved)
    {
        const size_t n = b.frames;
        if (n == 0)
            return;
        meter_.peaks_[0].add(b.left.data(), n);
        if (channels_ == 1) {
            ebur128_add_frames_float(meter_.state_, b.left.data(), n);
            return;
        }
        interleaved.resize(2 * n);
        for (size_t i = 0; i < n; ++i) {
            interleaved[2 * i] = b.left[i];
            interleaved[2 * i + 1] = b.right[i];
        }
        ebur128_add_frames_float(meter_.state_, interleaved.data(), n);
        meter_.peaks_[1].add(b.right.data(), n);
    }

    LoudnessMeter& meter_;
    const int channels_;
    std::array<Block, 3> blocks_;
    std::deque<Block*> free_, filled_;
    bool closed_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread worker_;
};

LoudnessMeter* LoudnessMeter::measure(Clip& clip, int first, int last, int* err, _kel_progress_ext_t* progress)
{
    *err = 0;
    if (first < 0 || last >= clip.packet_count || last < first) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    // The working form has two lanes; a single-channel clip delivers its
    // channel twice and is measured once, as the standard weighs channels.
    const int channels = clip.channels == 1 ? 1 : 2;
    const double rate = clip.sample_rate;
    if (!(rate >= 1.0 && rate <= 2822400.0)) {
        *err = kErrParameter;
        return nullptr;
    }
    ebur128_state* state = ebur128_init(static_cast<unsigned int>(channels), static_cast<unsigned long>(rate), kMode);
    if (state == nullptr) {
        *err = kErrUnknown;
        return nullptr;
    }
    auto* meter = new (std::nothrow) LoudnessMeter(state, channels, rate);
    if (meter == nullptr) {
        ebur128_destroy(&state);
        *err = kErrUnknown;
        return nullptr;
    }

    // Decoding stays on the caller's thread (the clip's), measuring runs on
    // a second one: the two overlap, as long as two blocks are in flight.
    MeasurePipe pipe(*meter, channels);
    ProgressThrottle throttle(progress);
    const float step = 100.0f / static_cast<float>(last - first + 1);
    MeasurePipe::Block* block = pipe.take_free();
    int failure = 0;
    for (int p = first; p <= last && failure == 0; ++p) {
        int code = 0;
        const int frames = clip.packet_frame_count(p, &code);
        if (code == 0 && frames > 0) {
            const size_t at = block->frames;
            block->left.resize(at + static_cast<size_t>(frames));
            block->right.resize(at + static_cast<size_t>(frames));
            std::fill(block->left.begin() + static_cast<std::ptrdiff_t>(at), block->left.end(), 0.0f);
            std::fill(block->right.begin() + static_cast<std::ptrdiff_t>(at), block->right.end(), 0.0f);
            float* lanes[2] = {block->left.data() + at, block->right.data() + at};
            // The packet's own gain and envelope: what the listener hears.
            const int got = clip.packet_decode_play(p, lanes, &code, -1.0f);
            if (code == 0 && got > 0)
                block->frames = at + static_cast<size_t>(std::min(got, frames));
            if (block->frames >= MeasurePipe::kBlockFrames) {
                pipe.submit(block);
                block = pipe.take_free();
            }
        }
        if (code != 0)
            failure = code;
        else if (!throttle.step(step * static_cast<float>(p - first + 1)))
            failure = kErrCancelled;
    }
    if (failure == 0)
        pipe.submit(block);
    pipe.finish();
    if (failure != 0) {
        delete meter;
        *err = failure;
        return nullptr;
    }
    report_progress(progress, 100.0f);
    return meter;
}

LoudnessMeter::~LoudnessMeter()
{
    ebur128_destroy(&state_);
}

void LoudnessMeter::result(kel_loudness_t* out) const
{
    const LoudnessMeter* self = this;
    album(&self, 1, out);
}

int LoudnessMeter::album(const LoudnessMeter* const* meters, int count, kel_loudness_t* out)
{
    if (meters == nullptr || count < 1 || out == nullptr)
        return kErrParameter;
    std::vector<ebur128_state*> states;
    kel_loudness_t r{-INFINITY, 0.0, 0.0, 0.0};
    for (int i = 0; i < count; ++i) {
        if (meters[i] == nullptr)
            return kErrParameter;
        states.push_back(meters[i]->state_);
        for (const TruePeak& channel : meters[i]->peaks_) {
            r.sample_peak = std::max(r.sample_peak, channel.sample_peak());
            r.true_peak = std::max(r.true_peak, channel.peak());
        }
    }
    double value = 0.0;
    // libebur128 answers -HUGE_VAL when no block passes the gates: the
    // programme is digital silence and has no integrated loudness.
    if (ebur128_loudness_global_multiple(states.data(), states.size(), &value) == EBUR128_SUCCESS)
        r.integrated_lufs = value;
    if (ebur128_loudness_range_multiple(states.data(), states.size(), &value) == EBUR128_SUCCESS)
        r.range_lu = value;
    *out = r;
    return 0;
}

} // namespace KEL
