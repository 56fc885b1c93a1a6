// Two-lane byte ring buffer with one lock-free writer and one reader.
//
// Both lanes live in one page-aligned allocation: lane A at its start, lane
// B half-way through. The writer owns the write position, the reader owns
// the read position, and the two meet only in the free count, which each
// side changes by an atomic add. The writer's add releases the bytes it has
// just copied in, and the reader acquires them when it loads the count; in
// the other direction the reader's add releases the space it has finished
// copying out before the writer may fill it again.
//
// The read lock is a try-lock held by a read in progress or by a flush. A
// read that finds it taken gives up with 0 at once, so only the flush ever
// waits, sleeping between tries.

#include "rbuffer/rbuffer2.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

struct rbuffer2 {
    unsigned char* storage = nullptr;  // one allocation holding both lanes
    unsigned char* lane_a = nullptr;   // = storage
    unsigned char* lane_b = nullptr;   // = storage + alloc_size / 2
    int lock_result = 0;               // what mlock answered; 0: locked
    int capacity = 0;                  // bytes per lane that can be held
    int lock_memory = 0;               // lock the storage into memory
    int alloc_size = 0;                // (capacity + 3) * 2 rounded down to 8
    std::atomic<int32_t> free{0};      // bytes that can still be written
    int read_pos = 0;                  // 0 <= read_pos < capacity
    int write_pos = 0;                 // 0 <= write_pos < capacity
    std::atomic_flag read_lock = ATOMIC_FLAG_INIT;
};

namespace {

// Wait between two tries of the read lock while a flush waits for a read.
constexpr useconds_t kFlushRetryMicros = 20;

// Bytes allocated for both lanes of a buffer of the given capacity: each
// lane is the capacity rounded up to a multiple of 4. Returns -1 for a
// negative capacity or one whose allocation size would not fit an int.
int allocation_size(int capacity)
{
    if (capacity < 0)
        return -1;
    const int64_t doubled = (static_cast<int64_t>(capacity) + 3) * 2;
    if (doubled > INT_MAX)
        return -1;
    return static_cast<int>(doubled & ~static_cast<int64_t>(7));
}

size_t page_size()
{
    const long ps = sysconf(_SC_PAGESIZE);
    return ps > 0 ? static_cast<size_t>(ps) : 4096;
}

// Unlocks (when the lock had been asked for and had succeeded) and frees
// the storage, leaving the record with no storage and capacity 0.
void release_storage(rbuffer2* rb)
{
    if (rb->storage) {
        if (rb->lock_memory && rb->lock_result == 0)
            munlock(rb->storage, static_cast<size_t>(rb->alloc_size));
        std::free(rb->storage);
    }
    rb->storage = nullptr;
    rb->lane_a = nullptr;
    rb->lane_b = nullptr;
    rb->lock_result = 0;
    rb->capacity = 0;
    rb->alloc_size = 0;
    rb->free.store(0, std::memory_order_relaxed);
    rb->read_pos = 0;
    rb->write_pos = 0;
}

// Gives a record without storage size bytes per lane, zero-filled and, when
// asked for, locked into memory. false when the size is refused or the
// allocation fails; the record is then left without storage.
bool allocate_storage(rbuffer2* rb, int size)
{
    const int bytes = allocation_size(size);
    if (bytes < 0)
        return false;
    if (size == 0)
        return true;

    void* mem = nullptr;
    if (posix_memalign(&mem, page_size(), static_cast<size_t>(bytes)) != 0 || !mem)
        return false;
    std::memset(mem, 0, static_cast<size_t>(bytes));

    rb->storage = static_cast<unsigned char*>(mem);
    rb->alloc_size = bytes;
    rb->lane_a = rb->storage;
    rb->lane_b = rb->storage + bytes / 2;
    rb->lock_result = rb->lock_memory ? mlock(mem, static_cast<size_t>(bytes)) : 0;
    rb->capacity = size;
    rb->free.store(size, std::memory_order_release);
    rb->read_pos = 0;
    rb->write_pos = 0;
    return true;
}

} // namespace

namespace KEL {

void rbuffer2_lock_reader(rbuffer2* rb)
{
    while (rb->read_lock.test_and_set(std::memory_order_acquire))
        usleep(kFlushRetryMicros);
}

void rbuffer2_unlock_reader(rbuffer2* rb)
{
    rb->read_lock.clear(std::memory_order_release);
}

void rbuffer2_positions(rbuffer2* rb, int* read_pos, int* write_pos)
{
    *read_pos = rb ? rb->read_pos : 0;
    *write_pos = rb ? rb->write_pos : 0;
}

} // namespace KEL

extern "C" {

rbuffer2* rbuffer2_create(int size, int lock_memory)
{
    if (allocation_size(size) < 0)
        return nullptr;
    rbuffer2* rb = new (std::nothrow) rbuffer2;
    if (!rb)
        return nullptr;
    rb->lock_memory = lock_memory;
    if (!allocate_storage(rb, size)) {
        delete rb;
        return nullptr;
    }
    return rb;
}

void rbuffer2_destroy(rbuffer2* rb)
{
    if (!rb)
        return;
    release_storage(rb);
    delete rb;
}

int rbuffer2_set_size(rbuffer2* rb, int size)
{
    if (!rb)
        return -1;
    release_storage(rb);
    return allocate_storage(rb, size) ? 0 : -1;
}

int rbuffer2_write(rbuffer2* rb, const void* a, const void* b, int bytes)
{
    if (!rb || rb->capacity == 0 || !a || !b)
        return 0;
    int n = std::min(static_cast<int>(rb->free.load(std::memory_order_acquire)), bytes);
    if (n < 1)
        return 0;

    const int total = n;
    const int cap = rb->capacity;
    const unsigned char* src_a = static_cast<const unsigned char*>(a);
    const unsigned char* src_b = static_cast<const unsigned char*>(b);
    int pos = rb->write_pos;
    // Greater-or-equal: a write that ends exactly at the end of the lanes
    // wraps, so the write position never equals the capacity.
    while (pos + n >= cap) {
        const int chunk = cap - pos;
        std::memcpy(rb->lane_a + pos, src_a, static_cast<size_t>(chunk));
        std::memcpy(rb->lane_b + pos, src_b, static_cast<size_t>(chunk));
        src_a += chunk;
        src_b += chunk;
        n -= chunk;
        pos = 0;
    }
    std::memcpy(rb->lane_a + pos, src_a, static_cast<size_t>(n));
    std::memcpy(rb->lane_b + pos, src_b, static_cast<size_t>(n));
    rb->write_pos = pos + n;

    rb->free.fetch_sub(total, std::memory_order_acq_rel);
    return total;
}

int rbuffer2_read(rbuffer2* rb, void* a, void* b, int bytes)
{
    if (!rb || rb->capacity == 0)
        return 0;
    if (rb->read_lock.test_and_set(std::memory_order_acquire))
        return 0;

    const int cap = rb->capacity;
    int n = std::min(cap - static_cast<int>(rb->free.load(std::memory_order_acquire)), bytes);
    if (n <= 0) {
        rb->read_lock.clear(std::memory_order_release);
        return 0;
    }

    const int total = n;
    unsigned char* dst_a = static_cast<unsigned char*>(a);
    unsigned char* dst_b = static_cast<unsigned char*>(b);
    int pos = rb->read_pos;
    while (pos + n >= cap) {
        const int chunk = cap - pos;
        if (dst_a) {
            std::memcpy(dst_a, rb->lane_a + pos, static_cast<size_t>(chunk));
            dst_a += chunk;
        }
        if (dst_b) {
            std::memcpy(dst_b, rb->lane_b + pos, static_cast<size_t>(chunk));
            dst_b += chunk;
        }
        n -= chunk;
        pos = 0;
    }
    if (dst_a)
        std::memcpy(dst_a, rb->lane_a + pos, static_cast<size_t>(n));
    if (dst_b)
        std::memcpy(dst_b, rb->lane_b + pos, static_cast<size_t>(n));
    rb->read_pos = pos + n;

    rb->free.fetch_add(total, std::memory_order_acq_rel);
    rb->read_lock.clear(std::memory_order_release);
    return total;
}

void rbuffer2_flush(rbuffer2* rb)
{
    if (!rb)
        return;
    KEL::rbuffer2_lock_reader(rb);
    rb->read_pos = rb->write_pos;
    rb->free.store(rb->capacity, std::memory_order_release);
    KEL::rbuffer2_unlock_reader(rb);
}

void rbuffer2_flush_w(rbuffer2* rb)
{
    rbuffer2_flush(rb);
}

void rbuffer2_flush_sync(rbuffer2* rb)
{
    if (!rb)
        return;
    rb->free.store(rb->capacity, std::memory_order_release);
    rb->read_pos = 0;
    rb->write_pos = 0;
}

int rbuffer2_free_space(rbuffer2* rb)
{
    return rb ? static_cast<int>(rb->free.load(std::memory_order_acquire)) : 0;
}

int rbuffer2_used_space(rbuffer2* rb)
{
    return rb ? rb->capacity - static_cast<int>(rb->free.load(std::memory_order_acquire)) : 0;
}

int rbuffer2_size(rbuffer2* rb)
{
    return rb ? rb->capacity : 0;
}

} // extern "C"
