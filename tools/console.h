// Where the tool's messages go: straight to stdout and stderr, or, on a
// batch's worker thread, into that file's report, printed as one block
// once the file is done so that parallel files never mix their lines.
#ifndef KEL_TOOLS_CONSOLE_H
#define KEL_TOOLS_CONSOLE_H

#include <string>
#include <vector>

namespace KEL::cli {

// What one file's work printed, in order, and how it ended.
struct Report {
    struct Chunk {
        bool error; // stderr rather than stdout
        std::string text;
    };
    std::vector<Chunk> chunks;
    int code = 0; // the last library error code reported, 0 if none
};

class Console {
public:
    // printf to stdout, or into the calling thread's report.
    static void out(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // printf to stderr, or into the calling thread's report.
    static void err(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Sends the calling thread's messages into report (nullptr: print).
    static void capture(Report* report);
    // The calling thread's report, or nullptr.
    static Report* report();
    // Prints a report's chunks in order; stdout ones only when with_stdout.
    static void print(const Report& report, bool with_stdout);
};

} // namespace KEL::cli

#endif
