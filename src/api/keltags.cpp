// The flat entry point of the tag copier. It never lets an exception
// through to a C caller: TagLib allocates freely, and a failed allocation
// becomes the library's code for one.
#include "kel.h"

#include "tags/tagcopier.h"

#include <new>

extern "C" {

int kel_tags_copy(const char* from, const char* to, int* err)
{
    int scratch = 0;
    int* code = err != nullptr ? err : &scratch;
    *code = 0;
    if (from == nullptr || to == nullptr || *from == '\0' || *to == '\0') {
        *code = KEL_ERR_PARAMETER;
        return *code;
    }
    try {
        *code = KEL::TagCopier::copy(from, to);
    } catch (const std::bad_alloc&) {
        *code = KEL_ERR_UNKNOWN;
    } catch (...) {
        *code = KEL_ERR_INTERNAL;
    }
    return *code;
}

} // extern "C"
