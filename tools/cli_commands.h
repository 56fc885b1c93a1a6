// The kel subcommands. Each takes the words after its name, prints its
// results on stdout, and returns the exit status (or throws Exit after
// printing why it stopped). Each has a help text shown by "kel CMD --help".
#ifndef KEL_TOOLS_CLI_COMMANDS_H
#define KEL_TOOLS_CLI_COMMANDS_H

#include <string>
#include <vector>

namespace KEL::cli {

using Args = std::vector<std::string>;

struct Command {
    const char* name;
    const char* summary; // one line for "kel --help"
    const char* help;    // the full text for "kel CMD --help"
    int (*run)(const Args& args);
};

int run_info(const Args& args);
int run_cut(const Args& args);
int run_copy(const Args& args);
int run_splice(const Args& args);
int run_gain(const Args& args);
int run_fade(const Args& args);
int run_convert(const Args& args);
int run_peak(const Args& args);
int run_loudness(const Args& args);
int run_normalize(const Args& args);
int run_overview(const Args& args);
int run_split(const Args& args);
int run_join(const Args& args);
int run_demo(const Args& args);
int run_explain(const Args& args);

extern const char* const kInfoHelp;
extern const char* const kCutHelp;
extern const char* const kCopyHelp;
extern const char* const kSpliceHelp;
extern const char* const kGainHelp;
extern const char* const kFadeHelp;
extern const char* const kConvertHelp;
extern const char* const kPeakHelp;
extern const char* const kLoudnessHelp;
extern const char* const kNormalizeHelp;
extern const char* const kOverviewHelp;
extern const char* const kSplitHelp;
extern const char* const kJoinHelp;
extern const char* const kDemoHelp;
extern const char* const kExplainHelp;

// Prints the help text on stdout and returns kExitOk.
int show_help(const char* help);

} // namespace KEL::cli

#endif
