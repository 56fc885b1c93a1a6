#include "core/refcounted.h"

namespace KEL {

Refcounted::~Refcounted() = default;

void Refcounted::release()
{
    if (--refcount == 0)
        delete this;
}

} // namespace KEL
