// Base of the objects that clips share: packets and backing-store handles.
#ifndef KEL_CORE_REFCOUNTED_H
#define KEL_CORE_REFCOUNTED_H

#include "kel.h"

#include <cstddef>
#include <new>

namespace KEL {

// A reference count that starts at 1. The count is a plain int: packets and
// handles are shared only among clips used from one thread at a time.
class KEL_API Refcounted {
public:
    Refcounted() = default;
    virtual ~Refcounted();
    Refcounted(const Refcounted&) = delete;
    Refcounted& operator=(const Refcounted&) = delete;

    void retain() { ++refcount; }
    // Drops one reference and deletes the object when none is left.
    void release()
    {
        if (--refcount == 0)
            delete this;
    }
    int retain_count() const { return refcount; }

    // Packets and handles come from the small-object pool; the sized
    // delete receives the dynamic type's size through the virtual
    // destructor.
    static void* operator new(size_t size);
    static void* operator new(size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* p, size_t size) noexcept;
    static void operator delete(void* p, size_t size, const std::nothrow_t&) noexcept;

protected:
    int refcount = 1;
};

} // namespace KEL

#endif
