#include "core/objectpool.h"

#include <array>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KEL_POOL_BYPASS 1
#else
#define KEL_POOL_BYPASS 0
#endif

namespace KEL {

namespace {

constexpr size_t kGranule = 8;
constexpr size_t kClasses = ObjectPool::kLargestPooled / kGranule;
constexpr size_t kSlabBytes = 64 * 1024;

struct FreeSlot {
    FreeSlot* next;
};

struct SizeClass {
    std::mutex lock;
    FreeSlot* free = nullptr;
    std::vector<void*> slabs;
    size_t live = 0;
};

std::array<SizeClass, kClasses>& classes()
{
    // Never destroyed: objects may be freed during static destruction.
    static auto* all = new std::array<SizeClass, kClasses>;
    return *all;
}

size_t class_index(size_t size)
{
    return (size + kGranule - 1) / kGranule - 1;
}

} // namespace

void* ObjectPool::allocate(size_t size)
{
    if (KEL_POOL_BYPASS || size == 0 || size > kLargestPooled)
        return ::operator new(size);
    const size_t index = class_index(size);
    const size_t slot = (index + 1) * kGranule;
    SizeClass& sc = classes()[index];
    std::lock_guard<std::mutex> guard(sc.lock);
    if (sc.free == nullptr) {
        void* slab = std::malloc(kSlabBytes);
        if (slab == nullptr)
            throw std::bad_alloc();
        sc.slabs.push_back(slab);
        auto* bytes = static_cast<unsigned char*>(slab);
        for (size_t offset = 0; offset + slot <= kSlabBytes; offset += slot) {
            auto* s = reinterpret_cast<FreeSlot*>(bytes + offset);
            s->next = sc.free;
            sc.free = s;
        }
    }
    FreeSlot* s = sc.free;
    sc.free = s->next;
    ++sc.live;
    return s;
}

void ObjectPool::deallocate(void* p, size_t size) noexcept
{
    if (p == nullptr)
        return;
    if (KEL_POOL_BYPASS || size == 0 || size > kLargestPooled) {
        ::operator delete(p);
        return;
    }
    SizeClass& sc = classes()[class_index(size)];
    std::lock_guard<std::mutex> guard(sc.lock);
    auto* s = static_cast<FreeSlot*>(p);
    s->next = sc.free;
    sc.free = s;
    // The last object of the class gone: give the memory back.
    if (--sc.live == 0) {
        for (void* slab : sc.slabs)
            std::free(slab);
        sc.slabs.clear();
        sc.free = nullptr;
    }
}

} // namespace KEL
