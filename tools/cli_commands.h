// The kel subcommands. Each command's file has one registration function
// add_X that declares the subcommand (summary, help prose, options bound to
// the command's settings) and hands it run_X, which prints the command's
// results on stdout and returns the exit status (or throws Exit after
// printing why it stopped).
#ifndef KEL_TOOLS_CLI_COMMANDS_H
#define KEL_TOOLS_CLI_COMMANDS_H

namespace KEL::cli {

class CommandLine;

void add_info(CommandLine& kel);
void add_cut(CommandLine& kel);
void add_copy(CommandLine& kel);
void add_splice(CommandLine& kel);
void add_gain(CommandLine& kel);
void add_fade(CommandLine& kel);
void add_convert(CommandLine& kel);
void add_peak(CommandLine& kel);
void add_loudness(CommandLine& kel);
void add_normalize(CommandLine& kel);
void add_overview(CommandLine& kel);
void add_split(CommandLine& kel);
void add_join(CommandLine& kel);
void add_demo(CommandLine& kel);
void add_explain(CommandLine& kel);

} // namespace KEL::cli

#endif
