// Allocation of the many small shared objects (packets and their handles).
//
// A long file opens into hundreds of thousands of packets, each with a
// handle. Taking them from size-classed slabs instead of the general heap
// drops the heap's per-block header and rounding, which is a sizeable part
// of a packet's memory. A size class gives its slabs back once its last
// object is freed. Under the address and thread sanitizers the pool steps
// aside so that every object keeps its own heap block.
#ifndef KEL_CORE_OBJECTPOOL_H
#define KEL_CORE_OBJECTPOOL_H

#include <cstddef>

namespace KEL {

class ObjectPool {
public:
    // Objects above this size go to the general heap.
    static constexpr size_t kLargestPooled = 256;

    static void* allocate(size_t size);
    static void deallocate(void* p, size_t size) noexcept;
};

} // namespace KEL

#endif
