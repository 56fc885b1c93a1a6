// A progress bar on stderr, fed by the library's progress callbacks, and
// the Ctrl-C flag that turns into a cancellation through those callbacks.
#ifndef KEL_TOOLS_PROGRESSBAR_H
#define KEL_TOOLS_PROGRESSBAR_H

#include "kel.h"

#include <string>

namespace KEL::cli {

class ProgressBar {
public:
    // label names the work ("open", "save", "convert", "overview"). The bar
    // is drawn only when stderr is a terminal; the callbacks always run, so
    // that Ctrl-C cancels whether or not anything is drawn.
    explicit ProgressBar(std::string label);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Records to hand to the kel_* calls; they point into this object.
    const _kel_progress_t* record() { return &record_; }
    const _kel_overview_progress_t* overview_record() { return &overview_record_; }

    // Clears the bar's line (also done by the destructor).
    void finish();
    // Draws the bar at percent (0..100), as the library's callbacks do.
    void show(float percent) { update(percent); }

    // While set, no bar draws (the batch's overall bar draws itself
    // through show(), on the thread that prints).
    static void set_drawing(bool draw);

    // Test hook: raises SIGINT once when KEL_CLI_INTERRUPT names this
    // moment (as the bars do for theirs).
    static void interrupt_point(const char* moment);

    // Installs the SIGINT handler that sets the interrupt flag.
    static void install_interrupt_handler();
    // True once Ctrl-C was pressed.
    static bool interrupted();

private:
    static int on_progress(void* context, float percent);
    static int on_overview_progress(float percent, void* context, int packet);
    int update(float percent);

    std::string label_;
    bool draw_;
    bool drawn_ = false;
    bool hook_pending_;
    int shown_ = -1;
    _kel_progress_t record_;
    _kel_overview_progress_t overview_record_;
};

} // namespace KEL::cli

#endif
