// Per-packet gain, fades and their conversion to plain gains.
//
// Gain and envelope are stored on the packets and applied when they are
// decoded or saved. Packets are shared between clips, so a change to a
// packet that someone else also holds first replaces it in this clip by a
// private copy (copy-on-write).
#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <climits>
#include <cstdint>
#include <cstdlib>

namespace KEL {

namespace {

void set_error(int* err, int code)
{
    if (err != nullptr)
        *err = code;
}

bool range_is_valid(int first, int last, int count)
{
    const long long n = static_cast<long long>(last) - first + 1;
    return first >= 0 && last < count && n >= 1;
}

bool level_is_valid(float level)
{
    // Written so that NaN fails as well.
    return level >= 0.0f && level <= 1.0f;
}

// Makes slot index of clip hold a packet that no other owner references:
// a shared packet is replaced by its copy and this clip's reference on the
// shared one is dropped. False with "Epcp" when the copy cannot be made.
bool copy_on_write(Clip* clip, int index, int* err)
{
    Packet* shared = clip->packets[index];
    if (shared->retain_count() <= 1)
        return true;
    Packet* own = shared->copy();
    if (own == nullptr) {
        set_error(err, kErrPacketCopy);
        return false;
    }
    clip->packets[index] = own;
    shared->release();
    return true;
}

// The factors of a fade over frames frames: the square of a straight
// amplitude ramp from `from` to `to`. The span is a single-precision
// difference; the ramp itself is evaluated in double precision. A single
// frame takes `from` unsquared.
void fill_fade_factors(float* factors, int frames, float from, float to)
{
    if (frames == 1) {
        factors[0] = from;
        return;
    }
    const float span = to - from;
    const double steps = static_cast<double>(frames - 1);
    for (int k = 0; k < frames; ++k) {
        const double amplitude = static_cast<double>(from) + static_cast<double>(k) * static_cast<double>(span) / steps;
        factors[k] = static_cast<float>(amplitude * amplitude);
    }
}

// Sum of the frame counts of packets first..last.
long long frames_in(const Clip* clip, int first, int last)
{
    long long total = 0;
    for (int i = first; i <= last; ++i)
        total += clip->packets[i]->frame_count;
    return total;
}

// The envelope factor at frame `frame` of the run of enveloped packets
// starting at run_first (frames counted from the run's first frame). False
// when the frame lies outside the run or in a packet without an envelope.
bool run_factor_at(const Clip* clip, int run_first, int run_last, long long frame, float* factor)
{
    if (frame < 0)
        return false;
    long long start = 0;
    for (int i = run_first; i <= run_last; ++i) {
        const Packet* p = clip->packets[i];
        if (frame < start + p->frame_count) {
            if (p->envelope == nullptr)
                return false;
            *factor = p->envelope[frame - start];
            return true;
        }
        start += p->frame_count;
    }
    return false;
}

// Multiplies one packet's gain in target by factor.
bool scale_gain(Clip* target, int packet, float factor, int* err)
{
    int code = 0;
    const float gain = target->packet_gain(packet, &code);
    if (code == 0)
        target->packet_gain(packet, gain * factor, &code);
    if (code != 0) {
        set_error(err, code);
        return false;
    }
    return true;
}

} // namespace

float Clip::packet_gain(int packet, int* err)
{
    const Packet* p = get_packet(packet);
    if (p == nullptr) {
        set_error(err, kErrPacketNumber);
        return 0.0f;
    }
    return p->gain;
}

void Clip::packet_gain(int packet, float gain, int* err)
{
    if (get_packet(packet) == nullptr) {
        set_error(err, kErrPacketNumber);
        return;
    }
    if (!(gain >= 0.0f)) {
        set_error(err, kErrParameter);
        return;
    }
    if (gain == packets[packet]->gain)
        return;
    if (!copy_on_write(this, packet, err))
        return;
    // The overview cache is kept at unity gain and stays valid.
    packets[packet]->gain = gain;
}

float Clip::packet_gain_quantize(int packet, int* err)
{
    Packet* p = get_packet(packet);
    if (p == nullptr) {
        set_error(err, kErrPacketNumber);
        return 0.0f;
    }
    const float stepped = p->quantized_gain();
    packet_gain(packet, stepped, err);
    return stepped;
}

float Clip::packet_gain_nearest(int packet, float wanted, int* err)
{
    Packet* p = get_packet(packet);
    if (p == nullptr) {
        set_error(err, kErrPacketNumber);
        return 0.0f;
    }
    if (!(wanted >= 0.0f)) {
        set_error(err, kErrParameter);
        return 0.0f;
    }
    packet_gain(packet, p->storable_gain(wanted), err);
    // Copy-on-write may have put another packet in the slot.
    return packets[packet]->quantized_gain();
}

float Clip::packet_gain_applied(int packet, int* err)
{
    Packet* p = get_packet(packet);
    if (p == nullptr) {
        set_error(err, kErrPacketNumber);
        return 0.0f;
    }
    return p->quantized_gain();
}

void Clip::log_fade(int first, int last, float from, float to, int* err)
{
    set_error(err, 0);
    if (!range_is_valid(first, last, packet_count)) {
        set_error(err, kErrPacketNumber);
        return;
    }
    if (!level_is_valid(from) || !level_is_valid(to)) {
        set_error(err, kErrParameter);
        return;
    }

    const long long total = frames_in(this, first, last);
    if (total < 0) {
        set_error(err, kErrInternal);
        return;
    }
    if (total > INT_MAX || static_cast<unsigned long long>(total) > SIZE_MAX / sizeof(float)) {
        set_error(err, kErrUnknown);
        return;
    }
    const int frames = static_cast<int>(total);
    // One spare element keeps the allocation non-empty for packets of no
    // frames.
    auto* factors = static_cast<float*>(std::malloc(sizeof(float) * (static_cast<size_t>(frames) + 1)));
    if (factors == nullptr) {
        set_error(err, kErrUnknown);
        return;
    }
    fill_fade_factors(factors, frames, from, to);

    // Packets already faded keep their envelopes when a later one fails.
    int used = 0;
    for (int i = first; i <= last; ++i) {
        const int length = packets[i]->frame_count;
        if (length < 0 || length > frames - used) {
            set_error(err, kErrInternal);
            break;
        }
        if (!copy_on_write(this, i, err))
            break;
        Packet* p = packets[i];
        const bool had_envelope = p->envelope != nullptr;
        p->gain_envelope(factors + used, length);
        // The envelope changes the packet's shape, which the cache holds.
        p->wave_cache_valid = 0;
        if (!had_envelope && length > 0 && p->envelope == nullptr) {
            set_error(err, kErrUnknown);
            break;
        }
        used += length;
    }
    std::free(factors);
}

void Clip::log_fade_remove(int first, int last, int* err)
{
    set_error(err, 0);
    if (!range_is_valid(first, last, packet_count)) {
        set_error(err, kErrPacketNumber);
        return;
    }
    for (int i = first; i <= last; ++i) {
        // A packet without an envelope is neither copied nor touched.
        if (packets[i]->envelope == nullptr)
            continue;
        if (!copy_on_write(this, i, err))
            return;
        packets[i]->wave_cache_valid = 0;
        packets[i]->gain_envelope(nullptr, 0);
    }
}

// Each run of consecutive enveloped packets becomes a stepped fade over a
// target range of packets, shifted and widened by the format's fudge
// factors. The first target packet takes the run's first factor, the last
// one the run's last factor, and each packet between takes the factor found
// by mapping its centre frame proportionally onto the run: with the target
// range's frames counted from 0 to T and the run's from 0 to R, the centre
// of a target packet starting at frame t with f frames is c = t + f / 2
// (integer division) and it reads the run at frame c * R / T, truncated,
// computed in 64 bits. Gains are read from and set on the copy, so targets
// of neighbouring runs that overlap multiply.
Clip* Clip::convert_gains_and_envelopes_to_gains(int* err)
{
    Clip* result = copy(0, packet_count - 1, err);
    if (result == nullptr)
        return nullptr;

    int code = 0;
    int s = 0;
    while (s < packet_count && code == 0) {
        if (packets[s]->envelope == nullptr) {
            ++s;
            continue;
        }
        int run_last = s;
        while (run_last + 1 < packet_count && packets[run_last + 1]->envelope != nullptr)
            ++run_last;
        const int n = run_last - s + 1;

        long long target_first = static_cast<long long>(s) + fade_start_fudge_factor();
        if (target_first < 0)
            target_first = 0;
        long long target_count = static_cast<long long>(fade_length_fudge_factor()) + n;
        if (run_last == packet_count - 1)
            target_count = packet_count - s;
        // A format that shifts fades later must not reach past the clip.
        if (target_first + target_count > packet_count)
            target_count = packet_count - target_first;

        if (target_count == 1) {
            scale_gain(result, static_cast<int>(target_first), packets[s]->envelope[0], &code);
        } else if (target_count > 1) {
            const int t_first = static_cast<int>(target_first);
            const int t_last = static_cast<int>(target_first + target_count - 1);
            const long long run_frames = frames_in(this, s, run_last);
            const long long target_frames = frames_in(this, t_first, t_last);
            const Packet* last_packet = packets[run_last];

            scale_gain(result, t_first, packets[s]->envelope[0], &code);
            long long offset = packets[t_first]->frame_count;
            for (int t = t_first + 1; t < t_last && code == 0; ++t) {
                const long long centre = offset + packets[t]->frame_count / 2;
                const long long frame = target_frames > 0 ? centre * run_frames / target_frames : 0;
                float factor = 0.0f;
                if (!run_factor_at(this, s, run_last, frame, &factor)) {
                    code = kErrInternal;
                    break;
                }
                if (!scale_gain(result, t, factor, &code))
                    break;
                offset += packets[t]->frame_count;
            }
            if (code == 0)
                scale_gain(result, t_last, last_packet->envelope[last_packet->frame_count - 1], &code);
        }
        s = run_last + 1;
    }

    if (code == 0)
        result->log_fade_remove(0, result->packet_count - 1, &code);
    if (code != 0) {
        set_error(err, code);
        result->close(nullptr);
        delete result;
        return nullptr;
    }
    return result;
}

} // namespace KEL
