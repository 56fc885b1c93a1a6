// Clip::copy, Clip::cut and Clip::insert: editing by moving packet
// references between clips. No audio byte is read or written; each clip
// holds one reference on every packet in its array, so an edit is a matter
// of pointer moves and retain/release pairs.
#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <algorithm>
#include <climits>
#include <new>

namespace KEL {

namespace {

// Above this ratio of slots to packets a cut gives the unused tail of the
// array back; at or below it the array is kept and compacted in place.
constexpr float kShrinkRatio = 1.05f;

void set_error(int* err, int code)
{
    if (err != nullptr)
        *err = code;
}

// Inclusive packet range first..last inside a clip of count packets.
bool range_is_valid(int first, int last, int count)
{
    const long long n = static_cast<long long>(last) - first + 1;
    return first >= 0 && last < count && n >= 1;
}

} // namespace

Clip* Clip::copy(int first, int last, int* err)
{
    if (!range_is_valid(first, last, packet_count)) {
        set_error(err, kErrPacketNumber);
        return nullptr;
    }
    const int count = last - first + 1;

    // The copy gets no store of its own: its packets keep their handles into
    // this clip's store, and closing the copy must not make that store
    // relocate anything.
    Clip* result = NewClip(nullptr);
    if (result == nullptr) {
        set_error(err, kErrUnknown);
        return nullptr;
    }
    Packet** array = new (std::nothrow) Packet*[static_cast<size_t>(count)];
    if (array == nullptr) {
        result->close(nullptr);
        delete result;
        set_error(err, kErrUnknown);
        return nullptr;
    }
    std::copy(packets + first, packets + last + 1, array);
    result->UsePackets(array, count);
    result->start_trim = first == 0 ? start_trim : 0;
    result->end_trim = last == packet_count - 1 ? end_trim : 0;
    return result;
}

Clip* Clip::cut(int first, int last, int* err)
{
    Clip* result = copy(first, last, err);
    if (result == nullptr)
        return nullptr;
    const int count = last - first + 1;
    const int old_count = packet_count;
    const int remaining = old_count - count;

    for (int i = first; i <= last; ++i) {
        packets[i]->release();
        packets[i] = nullptr;
    }
    packet_count = remaining;
    if (first == 0)
        start_trim = 0;
    if (last == old_count - 1)
        end_trim = 0;

    // An emptied clip gets a zero-length array: the ratio is infinite.
    const bool trim = remaining == 0 ||
                      static_cast<float>(packet_capacity) / static_cast<float>(remaining) >= kShrinkRatio;
    Packet** trimmed = trim ? new (std::nothrow) Packet*[static_cast<size_t>(remaining)] : nullptr;
    if (trimmed != nullptr) {
        std::copy(packets, packets + first, trimmed);
        std::copy(packets + last + 1, packets + old_count, trimmed + first);
        delete[] packets;
        packets = trimmed;
        packet_capacity = remaining;
    } else {
        // Kept array (or no memory for a smaller one): close the gap and
        // clear the slots it leaves at the end.
        std::copy(packets + last + 1, packets + old_count, packets + first);
        std::fill(packets + remaining, packets + old_count, nullptr);
    }
    update_stream_info();
    return result;
}

void Clip::insert(int at, Clip* other, int* err)
{
    if (!will_accept(other, err))
        return;
    const int added = other->packet_count;
    const long long total = static_cast<long long>(packet_count) + added;
    if (total > INT_MAX) {
        set_error(err, kErrUnknown);
        return;
    }
    at = std::min(std::max(at, 0), packet_count);
    if (added == 0) {
        update_stream_info();
        return;
    }
    // The ends that now belong to the inserted packets take their trims
    // (read before the array changes: other may be this clip).
    const bool at_start = at == 0;
    const bool at_end = at == packet_count;
    const int other_start = other->start_trim;
    const int other_end = other->end_trim;

    // Inserting a clip into itself: the source array is rebuilt below, so
    // take a snapshot of its pointers first. The references for the gap are
    // taken only once the array is in its final shape.
    Packet** snapshot = nullptr;
    if (other == this) {
        snapshot = new (std::nothrow) Packet*[static_cast<size_t>(added)];
        if (snapshot == nullptr) {
            set_error(err, kErrUnknown);
            return;
        }
        std::copy(packets, packets + added, snapshot);
    }

    const int new_count = static_cast<int>(total);
    if (packet_capacity < new_count) {
        // Exactly the new total: inserts are rare, and a clip that grows by
        // insertion should not carry a step of unused slots.
        Packet** grown = new (std::nothrow) Packet*[static_cast<size_t>(new_count)];
        if (grown == nullptr) {
            delete[] snapshot;
            set_error(err, kErrUnknown);
            return;
        }
        std::copy(packets, packets + at, grown);
        std::fill(grown + at, grown + at + added, nullptr);
        std::copy(packets + at, packets + packet_count, grown + at + added);
        delete[] packets;
        packets = grown;
        packet_capacity = new_count;
    } else {
        std::copy_backward(packets + at, packets + packet_count, packets + new_count);
    }

    if (snapshot != nullptr) {
        for (int i = 0; i < added; ++i) {
            packets[at + i] = snapshot[i];
            snapshot[i]->retain();
        }
        delete[] snapshot;
    } else {
        other->copy_packets(packets + at);
    }
    packet_count = new_count;
    if (at_start)
        start_trim = other_start;
    if (at_end)
        end_trim = other_end;
    update_stream_info();
}

long long Clip::total_frames() const
{
    long long frames = 0;
    for (int i = 0; i < packet_count; ++i)
        frames += packets[i]->frame_count;
    return frames;
}

void Clip::set_trims(int start, int end, int* err)
{
    if (start < 0 || end < 0 || static_cast<long long>(start) + end >= total_frames()) {
        set_error(err, kErrParameter);
        return;
    }
    start_trim = start;
    end_trim = end;
}

} // namespace KEL
