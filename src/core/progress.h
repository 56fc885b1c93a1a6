// Progress reporting shared by every long operation.
#ifndef KEL_CORE_PROGRESS_H
#define KEL_CORE_PROGRESS_H

#include "kel.h"

namespace KEL {

// Calls the caller's callback with percent (mapped onto base_percent..100
// when a sub-operation runs as the tail of a larger one). Returns false
// when the caller cancels; a null record or callback always continues.
KEL_API bool report_progress(_kel_progress_ext_t* progress, float percent);

// Reports percent only when it has grown by at least 0.5 since the last
// report, the throttling rule every loop of the library follows.
class ProgressThrottle {
public:
    explicit ProgressThrottle(_kel_progress_ext_t* progress) : progress_(progress) {}
    // Returns false when the callback asked to cancel.
    bool step(float percent)
    {
        if (percent - last_ < 0.5f)
            return true;
        last_ = percent;
        return report_progress(progress_, percent);
    }

private:
    _kel_progress_ext_t* progress_;
    float last_ = 0.0f;
};

} // namespace KEL

#endif
