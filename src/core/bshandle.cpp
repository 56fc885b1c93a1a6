#include "core/bshandle.h"

namespace KEL {

BSHandle::~BSHandle() = default;

} // namespace KEL
