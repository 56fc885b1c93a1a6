#include "core/refcounted.h"

#include "core/objectpool.h"

namespace KEL {

Refcounted::~Refcounted() = default;

void* Refcounted::operator new(size_t size)
{
    return ObjectPool::allocate(size);
}

void* Refcounted::operator new(size_t size, const std::nothrow_t&) noexcept
{
    try {
        return ObjectPool::allocate(size);
    } catch (...) {
        return nullptr;
    }
}

void Refcounted::operator delete(void* p, size_t size) noexcept
{
    ObjectPool::deallocate(p, size);
}

void Refcounted::operator delete(void* p, size_t size, const std::nothrow_t&) noexcept
{
    ObjectPool::deallocate(p, size);
}

} // namespace KEL
