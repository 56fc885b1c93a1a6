// The kel command line: one CLI11 subcommand per command, each with its
// help prose, its options bound to the command's own settings, and the
// function that runs it. Parse errors become "kel CMD: why" and status 2;
// "--help" prints the command's prose and its options.
#ifndef KEL_TOOLS_COMMANDLINE_H
#define KEL_TOOLS_COMMANDLINE_H

#include "toolclip.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace KEL::cli {

class CommandLine {
public:
    CommandLine();

    // Declares a command. summary is its line in "kel --help"; help is the
    // prose of "kel NAME --help" (its usage lines first), printed before
    // the options; run is called after a successful parse and returns the
    // exit status (or throws Exit).
    CLI::App& add(const char* name, const char* summary, const char* help, std::function<int()> run);

    // Parses argv and runs the command it names ("kel" alone runs `demo`).
    // Returns the exit status.
    int run(int argc, char** argv);

    // The manual page (roff) made from the same texts as the help.
    std::string man_page() const;

    // An option holding a finite number; "nan", "inf" and words are usage
    // errors. `value` keeps its initial value when the option is absent.
    static CLI::Option* add_number(CLI::App& command, const std::string& names, double& value,
                                   const std::string& description, const char* type = "X");

    // --start, --end and --packets into `range`, which also learns the
    // command's name for messages.
    static void add_range(CLI::App& command, RangeSettings& range);

    // -j/--jobs N: files at once (0, the default, for the cores).
    static void add_jobs(CLI::App& command, int& jobs);

private:
    void print_usage(FILE* out) const;
    int fail_parse(const CLI::App* command, const std::string& message) const;

    struct Entry {
        CLI::App* app;
        const char* summary;
        std::function<int()> run;
    };

    CLI::App app_;
    std::vector<Entry> commands_;
};

} // namespace KEL::cli

#endif
