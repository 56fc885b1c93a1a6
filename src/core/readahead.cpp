#include "core/readahead.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

namespace KEL {

namespace {

std::atomic<unsigned long long> next_source_id{1};

// One thread's block: bytes [start, start + length) of source `source`, and
// where that thread's last read of any source ended.
struct Block {
    std::unique_ptr<unsigned char[]> bytes;
    unsigned long long source = 0;
    long long start = 0;
    int length = 0;
    unsigned long long last_source = 0;
    long long last_end = -1;
};

thread_local Block block;

} // namespace

unsigned long long ReadAhead::new_source_id()
{
    return next_source_id.fetch_add(1, std::memory_order_relaxed);
}

int ReadAhead::read_direct(int fd, void* dest, long long offset, int size)
{
    if (fd == -1 || dest == nullptr || size <= 0 || offset < 0)
        return 0;
    unsigned char* out = static_cast<unsigned char*>(dest);
    int done = 0;
    while (done < size) {
        const ssize_t got = ::pread(fd, out + done, static_cast<size_t>(size - done),
                                    static_cast<off_t>(offset + done));
        if (got > 0) {
            done += static_cast<int>(got);
        } else if (got == 0) {
            break;
        } else if (errno != EINTR) {
            break;
        }
    }
    return done;
}

int ReadAhead::read(int fd, unsigned long long source, void* dest, long long offset, int size)
{
    if (fd == -1 || dest == nullptr || size <= 0 || offset < 0)
        return 0;
    Block& b = block;
    // Only a read that continues the previous one uses the block. Any other
    // read drops it, so that a new pass over a file that changed meanwhile
    // (truncated, say) sees the file as it is now.
    const bool sequential = source == b.last_source && offset == b.last_end;
    const bool in_block = sequential && source == b.source && offset >= b.start &&
                          offset - b.start + size <= static_cast<long long>(b.length);
    b.last_source = source;
    if (!sequential)
        b.source = 0;
    if (!in_block && !(sequential && size <= kBlockBytes / 4)) {
        const int got = read_direct(fd, dest, offset, size);
        b.last_end = offset + got;
        return got;
    }
    if (!in_block) {
        if (b.bytes == nullptr) {
            b.bytes.reset(new (std::nothrow) unsigned char[kBlockBytes]);
            if (b.bytes == nullptr) {
                const int got = read_direct(fd, dest, offset, size);
                b.last_end = offset + got;
                return got;
            }
        }
        // A short block means the file ended (or failed) inside it; the
        // request then gets what there is, as a direct read would.
        b.source = 0;
        b.length = read_direct(fd, b.bytes.get(), offset, kBlockBytes);
        b.start = offset;
        b.source = source;
    }
    const long long at = offset - b.start;
    const long long available = static_cast<long long>(b.length) - at;
    const int got = available < size ? static_cast<int>(available > 0 ? available : 0) : size;
    if (got > 0)
        std::memcpy(dest, b.bytes.get() + at, static_cast<size_t>(got));
    b.last_end = offset + got;
    return got;
}

} // namespace KEL
