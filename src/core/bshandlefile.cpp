#include "core/bshandlefile.h"

#include "core/bsfile.h"

namespace KEL {

BSHandleFile::BSHandleFile(BSFile* file, long long offset, int size, int index)
    : BSHandle(size), file(file), offset(offset), index(index)
{
}

BSHandleFile::~BSHandleFile()
{
    if (file != nullptr)
        file->remove_handle(this);
}

int BSHandleFile::get_bytes(void* dest, int size)
{
    // 0 asks for the whole range; a larger request is cut to the range so
    // that a read never strays into the bytes of the next packet.
    if (size < 0 || file == nullptr || dest == nullptr)
        return 0;
    if (size == 0 || size > this->size)
        size = this->size;
    return file->get_handle_bytes(this, dest, size);
}

} // namespace KEL
