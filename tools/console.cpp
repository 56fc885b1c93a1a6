#include "console.h"

#include <cstdarg>
#include <cstdio>

namespace KEL::cli {

namespace {

thread_local Report* t_report = nullptr;

void emit(bool error, const char* format, va_list args)
{
    if (t_report == nullptr) {
        std::vfprintf(error ? stderr : stdout, format, args);
        return;
    }
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    // Consecutive text for the same stream joins one chunk.
    if (!t_report->chunks.empty() && t_report->chunks.back().error == error)
        t_report->chunks.back().text += text;
    else
        t_report->chunks.push_back({error, std::move(text)});
}

} // namespace

void Console::out(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    emit(false, format, args);
    va_end(args);
}

void Console::err(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    emit(true, format, args);
    va_end(args);
}

void Console::capture(Report* report)
{
    t_report = report;
}

Report* Console::report()
{
    return t_report;
}

void Console::print(const Report& report, bool with_stdout)
{
    for (const Report::Chunk& c : report.chunks) {
        if (c.error) {
            std::fflush(stdout);
            std::fputs(c.text.c_str(), stderr);
        } else if (with_stdout) {
            std::fputs(c.text.c_str(), stdout);
        }
    }
    std::fflush(stdout);
}

} // namespace KEL::cli
