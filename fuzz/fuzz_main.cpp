// The libFuzzer entry of one target: KEL_FUZZ_ENTRY names its function in
// fuzz_targets.h, set by fuzz/CMakeLists.txt for each executable.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KEL::Fuzz::KEL_FUZZ_ENTRY(data, size);
}
