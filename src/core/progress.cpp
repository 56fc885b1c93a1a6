#include "core/progress.h"

#include <cmath>

namespace KEL {

bool report_progress(_kel_progress_ext_t* progress, float percent)
{
    if (progress == nullptr || progress->callback == nullptr)
        return true;
    float value = percent;
    const float base = progress->base_percent;
    if (base > 0.0f && base < 100.0f) {
        // base + percent * (1 - base/100), as two fused multiply-adds.
        const float remaining = std::fma(-base, 0.01f, 1.0f);
        value = std::fma(percent, remaining, base);
    }
    return progress->callback(progress->context, value) != 0;
}

} // namespace KEL
