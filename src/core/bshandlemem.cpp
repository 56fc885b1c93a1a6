#include "core/bshandlemem.h"

#include <cstring>
#include <new>

namespace KEL {

BSHandleMem::BSHandleMem(int size) : BSHandle(size) {}

BSHandleMem::~BSHandleMem()
{
    delete[] data;
}

bool BSHandleMem::init_with_copy(const void* src)
{
    if (size < 0 || (src == nullptr && size > 0))
        return false;
    auto block = new (std::nothrow) unsigned char[size > 0 ? static_cast<size_t>(size) : 1];
    if (block == nullptr)
        return false;
    if (size > 0)
        std::memcpy(block, src, static_cast<size_t>(size));
    delete[] data;
    data = block;
    return true;
}

int BSHandleMem::get_bytes(void* dest, int size)
{
    // 0 asks for the whole block; a larger request is cut to the block.
    if (data == nullptr || dest == nullptr || size < 0)
        return 0;
    if (size == 0 || size > this->size)
        size = this->size;
    if (size > 0)
        std::memcpy(dest, data, static_cast<size_t>(size));
    return size;
}

} // namespace KEL
