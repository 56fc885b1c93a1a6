// A handle that owns its bytes in memory (encoder output, gained packets).
#ifndef KEL_CORE_BSHANDLEMEM_H
#define KEL_CORE_BSHANDLEMEM_H

#include "core/bshandle.h"

namespace KEL {

class KEL_API BSHandleMem : public BSHandle {
public:
    explicit BSHandleMem(int size);
    ~BSHandleMem() override;

    // Allocates size bytes and copies them from src; false when the
    // allocation fails.
    bool init_with_copy(const void* src);
    // Copies size bytes (all when 0); 0 when there is no block yet.
    int get_bytes(void* dest, int size) override;

    unsigned char* data = nullptr;
};

} // namespace KEL

#endif
