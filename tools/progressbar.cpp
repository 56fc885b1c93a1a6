#include "progressbar.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace KEL::cli {

namespace {

// Set by the handler, read by every thread: a lock-free atomic is safe in
// both places.
std::atomic<int> g_interrupted{0};
static_assert(std::atomic<int>::is_always_lock_free, "the SIGINT handler stores into it");

std::atomic<bool> g_drawing{true};

constexpr int kBarWidth = 32;

extern "C" void on_sigint(int)
{
    g_interrupted = 1;
}

// Test hook: KEL_CLI_INTERRUPT=LABEL raises SIGINT from inside the first
// progress callback of the bar with that label, so that a test can cancel
// a given step exactly as Ctrl-C would, without racing the clock.
// LABEL:N picks the Nth bar of that label (a command that saves several
// files), counted from 1.
bool hook_wanted(const std::string& label)
{
    const char* target = std::getenv("KEL_CLI_INTERRUPT");
    if (target == nullptr)
        return false;
    const std::string wanted = target;
    const size_t colon = wanted.find(':');
    if (wanted.compare(0, colon, label) != 0)
        return false;
    static int seen = 0;
    return colon == std::string::npos || ++seen == std::atoi(wanted.c_str() + colon + 1);
}

} // namespace

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)), draw_(g_drawing && isatty(STDERR_FILENO) == 1), hook_pending_(hook_wanted(label_)),
      record_{&ProgressBar::on_progress, this},
      // report_always: the overview reports even while it reads ready caches.
      overview_record_{&ProgressBar::on_overview_progress, this, 1}
{
}

ProgressBar::~ProgressBar()
{
    finish();
}

void ProgressBar::finish()
{
    if (drawn_) {
        // Carriage return and erase-to-end-of-line leave the line clean for
        // whatever the command prints next.
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        drawn_ = false;
    }
    shown_ = -1;
}

void ProgressBar::install_interrupt_handler()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = on_sigint;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

void ProgressBar::interrupt_point(const char* moment)
{
    static std::atomic<bool> done{false};
    if (hook_wanted(moment) && !done.exchange(true))
        std::raise(SIGINT);
}

void ProgressBar::set_drawing(bool draw)
{
    g_drawing = draw;
}

bool ProgressBar::interrupted()
{
    return g_interrupted != 0;
}

int ProgressBar::on_progress(void* context, float percent)
{
    return static_cast<ProgressBar*>(context)->update(percent);
}

int ProgressBar::on_overview_progress(float percent, void* context, int)
{
    return static_cast<ProgressBar*>(context)->update(percent);
}

int ProgressBar::update(float percent)
{
    if (hook_pending_) {
        hook_pending_ = false;
        std::raise(SIGINT);
    }
    if (g_interrupted != 0)
        return 0;
    if (!draw_)
        return 1;
    // NaN and out-of-range values draw as the nearest end.
    int whole = 0;
    if (percent > 0.0f)
        whole = percent >= 100.0f ? 100 : static_cast<int>(percent);
    if (whole == shown_)
        return 1;
    shown_ = whole;
    char bar[kBarWidth + 1];
    const int filled = whole * kBarWidth / 100;
    for (int i = 0; i < kBarWidth; ++i)
        bar[i] = i < filled ? '#' : '.';
    bar[kBarWidth] = '\0';
    std::fprintf(stderr, "\r%-9s [%s] %3d%%", label_.c_str(), bar, whole);
    std::fflush(stderr);
    drawn_ = true;
    return 1;
}

} // namespace KEL::cli
