// A handle on a byte range of a backing-store file.
#ifndef KEL_CORE_BSHANDLEFILE_H
#define KEL_CORE_BSHANDLEFILE_H

#include "core/bshandle.h"

namespace KEL {

class BSFile;

class KEL_API BSHandleFile : public BSHandle {
public:
    BSHandleFile(BSFile* file, long long offset, int size, int index);
    // Removes itself from its store's handle table.
    ~BSHandleFile() override;

    int get_bytes(void* dest, int size) override;

    BSFile* file;     // not retained
    long long offset; // in the store's current file
    int index;        // slot in the store's handle table
};

} // namespace KEL

#endif
