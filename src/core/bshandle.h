// A handle on the stored bytes of one packet.
#ifndef KEL_CORE_BSHANDLE_H
#define KEL_CORE_BSHANDLE_H

#include "core/refcounted.h"

namespace KEL {

class KEL_API BSHandle : public Refcounted {
public:
    explicit BSHandle(int size) : size(size) {}
    ~BSHandle() override;

    // Copies size bytes of the range (the whole range when size is 0) into
    // dest; returns the bytes copied.
    virtual int get_bytes(void* dest, int size) = 0;

    int size; // byte length of the range
};

} // namespace KEL

#endif
