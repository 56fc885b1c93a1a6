// Shared pieces of the kel tool: exit statuses, how failures are reported,
// format names and extensions, number formatting.
#ifndef KEL_TOOLS_CLI_COMMON_H
#define KEL_TOOLS_CLI_COMMON_H

#include "kel.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace KEL::cli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCancelled = 130; // the shell's status for a SIGINT

// Thrown once the reason has been printed; main() returns the status. Every
// owner of a clip, overview or partial file cleans up on the way out.
struct Exit {
    int status;
};

// Prints "kel: FILE: description" and the recovery suggestion of a library
// error code (with the code's four characters), then throws Exit.
[[noreturn]] void fail_library(int code, const std::string& file);
// Prints the same and returns, for commands that go on with other files;
// a cancellation still stops (kExitCancelled).
void report_library(int code, const std::string& file);
// Prints the same for a warning code ("Egga") without stopping.
void warn_library(int code, const std::string& file);
// Prints "kel: MESSAGE" and throws Exit with kExitFailure.
[[noreturn]] void fail(const std::string& message);
// Prints "kel CMD: MESSAGE" and a pointer to the command's help; kExitUsage.
[[noreturn]] void fail_usage(const std::string& command, const std::string& message);
// Prints "kel: cancelled" and throws Exit with kExitCancelled.
[[noreturn]] void fail_cancelled();
// Throws the cancellation when Ctrl-C was pressed since the last check.
void check_interrupt();

// The four characters of an error code ("Ewav"), or its number when the
// bytes are not printable.
std::string code_text(int code);
// "WAVE", "AIFF", "CAF", "MP3", "AAC", "Apple Lossless"; "unknown" else.
const char* format_name(int format);
// The KEL_FORMAT_* code that a file name's extension asks for, 0 if none.
int format_for_path(const std::string& path);
// The extensions the tool writes, for messages.
const char* writable_extensions();
const char* stereo_mode_name(int mode);
const char* rate_mode_name(int mode);

// Prints a JSON array on stdout, one object per line. Numbers JSON cannot
// spell (infinities, NaN) print as null; bytes that are not UTF-8 (in a
// file name) as U+FFFD.
void print_json_array(const std::vector<nlohmann::ordered_json>& objects);

// Where --out-dir puts the output of `input`: DIR/NAME, with the extension
// replaced by `extension` when one is given.
std::string output_in(const std::string& dir, const std::string& input, const std::string& extension);
// Before a batch writes into dir: makes dir when missing, and refuses (bad
// usage) two inputs with one output name and an output that is its input.
void prepare_outputs(const std::string& command, const std::string& dir, const std::vector<std::string>& inputs,
                     const std::vector<std::string>& outputs);

// printf into a std::string.
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A linear factor in decibels; -inf for 0.
double to_db(double linear);
// "-6.02 dBFS" style text, "-inf" for silence.
std::string db_text(double linear, const char* unit);

} // namespace KEL::cli

#endif
