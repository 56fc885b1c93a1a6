// kel: the command-line face of the KEL audio clip engine. It uses only the
// public interface in kel.h and the shared library behind it.
#include "cli_commands.h"
#include "cli_common.h"
#include "progressbar.h"

#include <array>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <new>

namespace KEL::cli {

namespace {

// Every subcommand, in the order "kel --help" lists them.
// (const, not constexpr: the help texts live in the commands' own files.)
const std::array<Command, 15> kCommands{{
    {"info", "describe audio files (--json for scripts)", kInfoHelp, run_info},
    {"cut", "remove a time range and write what remains", kCutHelp, run_cut},
    {"copy", "keep a time range and write it", kCopyHelp, run_copy},
    {"splice", "insert another file at a time", kSpliceHelp, run_splice},
    {"split", "cut a file into pieces at times, silences or a cue sheet", kSplitHelp, run_split},
    {"join", "write several files of one format as one, gaplessly where it can", kJoinHelp, run_join},
    {"gain", "change the loudness of a file or a range", kGainHelp, run_gain},
    {"fade", "fade in and/or out", kFadeHelp, run_fade},
    {"convert", "write a file in another format, rate or width", kConvertHelp, run_convert},
    {"peak", "largest sample and RMS level in dBFS", kPeakHelp, run_peak},
    {"loudness", "EBU R128 loudness, range, true peak and ReplayGain 2.0 gain", kLoudnessHelp, run_loudness},
    {"normalize", "bring files to a loudness, MP3 and AAC without re-encoding", kNormalizeHelp, run_normalize},
    {"overview", "draw the waveform as a PNG picture (or --text)", kOverviewHelp, run_overview},
    {"demo", "the built-in demonstration (the default)", kDemoHelp, run_demo},
    {"explain", "what an error code means", kExplainHelp, run_explain},
}};

void print_usage(FILE* out)
{
    std::fputs("usage: kel [COMMAND [OPTIONS] [FILES]]\n"
               "\n"
               "An audio clip editor on the command line: files are edited packet by\n"
               "packet without decoding, so cuts, copies, splices and MP3 gain changes\n"
               "lose nothing. Without a command kel runs its demo.\n"
               "\n"
               "commands:\n",
               out);
    for (const Command& c : kCommands)
        std::fprintf(out, "  %-9s %s\n", c.name, c.summary);
    std::fputs("\n"
               "'kel COMMAND --help' explains a command's options. Long operations show a\n"
               "progress bar when stderr is a terminal; Ctrl-C cancels them and leaves no\n"
               "partial output file. Exit status: 0 done, 1 failed, 2 bad usage,\n"
               "130 cancelled.\n",
               out);
}

int dispatch(int argc, char** argv)
{
    if (argc < 2)
        return run_demo({});
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        print_usage(stdout);
        return kExitOk;
    }
    const Args args(argv + 2, argv + argc);
    for (const Command& c : kCommands)
        if (name == c.name)
            return c.run(args);
    std::fprintf(stderr, "kel: unknown command '%s'\n\n", name.c_str());
    print_usage(stderr);
    return kExitUsage;
}

} // namespace

int show_help(const char* help)
{
    std::fputs(help, stdout);
    return kExitOk;
}

} // namespace KEL::cli

int main(int argc, char** argv)
{
    using namespace KEL::cli;
    // Messages only: numbers keep the C locale, so JSON and text output
    // read the same everywhere. The library's error texts follow the user's
    // language where a translation is installed.
    std::setlocale(LC_MESSAGES, "");
    ProgressBar::install_interrupt_handler();
    try {
        return dispatch(argc, argv);
    } catch (const Exit& e) {
        return e.status;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kel: out of memory\n");
        return kExitFailure;
    }
}
