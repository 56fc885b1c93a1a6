// Sequential read-ahead for the backing stores' positioned reads.
//
// Saving, drawing and playing read a clip's packets in file order, a few
// kilobytes each. Instead of one system call per packet, a thread whose read
// starts where its previous read of the same source ended gets a whole block
// read at once and is served from it until it leaves the block. Any other
// read goes straight to the file and drops the block.
//
// Each thread has its own block, so readers never share state. A block is
// tied to a source id, not to a store's address or descriptor: a store takes
// a fresh id whenever the file under it changes (open, relocation, close),
// which makes every block of the old file unreachable. A block lives only
// as long as one sequential pass, so bytes that change in a file under an
// open store (which the library never does itself) are seen from the next
// pass on.
#ifndef KEL_CORE_READAHEAD_H
#define KEL_CORE_READAHEAD_H

#include "kel.h"

namespace KEL {

class KEL_API ReadAhead {
public:
    // Bytes fetched per block; reads larger than a quarter of it bypass the
    // block.
    static constexpr int kBlockBytes = 256 * 1024;

    // A source id never handed out before (0 is never one).
    static unsigned long long new_source_id();

    // Reads size bytes at offset of the file fd (source id `source`) into
    // dest, through this thread's block when the read continues the
    // thread's previous one. Returns the bytes read: fewer than size only at
    // the end of the file or on an error, as with read_direct.
    static int read(int fd, unsigned long long source, void* dest, long long offset, int size);

    // Positioned read of up to size bytes that retries on EINTR and on
    // short reads until the request is complete, the file ends or an error
    // occurs. Returns the bytes read.
    static int read_direct(int fd, void* dest, long long offset, int size);
};

} // namespace KEL

#endif
