// kel: the command-line face of the KEL audio clip engine. It uses only the
// public interface in kel.h and the shared library behind it.
//
// Adding a command takes one registration function in the command's own
// file, declared in cli_commands.h and listed in kRegistrations below:
//
//     namespace {
//     struct SplitSettings {              // what the options fill in
//         std::string file;
//         double at = 0.0;
//     };
//     int run_split(const SplitSettings& s) { ...; return kExitOk; }
//     } // namespace
//
//     void add_split(CommandLine& kel)
//     {
//         auto s = std::make_shared<SplitSettings>();
//         CLI::App& c = kel.add("split", "one line for kel --help", kSplitHelp, [s] { return run_split(*s); });
//         c.add_option("FILE", s->file, "the input file")->required();
//         CommandLine::add_number(c, "--at", s->at, "where to split, in seconds", "T");
//     }
//
// kSplitHelp is the prose of "kel split --help": the usage lines first,
// then what the command does; CLI11 appends the options with their
// descriptions. Options keep their values in the settings object, which
// the run function reads once parsing succeeded; usage errors found later
// go through fail_usage(). Status: 0 done, 1 failed, 2 bad usage, 130
// cancelled.
#include "cli_commands.h"
#include "cli_common.h"
#include "commandline.h"
#include "progressbar.h"

#include <array>
#include <clocale>
#include <cstdio>
#include <new>

namespace {

using namespace KEL::cli;

// Every subcommand, in the order "kel --help" lists them.
static constexpr std::array<void (*)(CommandLine&), 15> kRegistrations{{
    add_info,      // describe files
    add_cut,       // remove a range
    add_copy,      // keep a range
    add_splice,    // insert a file
    add_split,     // pieces at times, silences or a cue sheet
    add_join,      // several files as one
    add_gain,      // loudness of a file or range
    add_fade,      // fades in and out
    add_convert,   // another format, rate or width
    add_peak,      // largest sample and RMS
    add_loudness,  // EBU R128 and ReplayGain
    add_normalize, // files to a loudness
    add_overview,  // waveform pictures
    add_demo,      // the built-in tour
    add_explain,   // error codes
}};

} // namespace

int main(int argc, char** argv)
{
    // Messages only: numbers keep the C locale, so JSON and text output
    // read the same everywhere. The library's error texts follow the user's
    // language where a translation is installed.
    std::setlocale(LC_MESSAGES, "");
    ProgressBar::install_interrupt_handler();
    try {
        CommandLine kel;
        for (const auto add : kRegistrations)
            add(kel);
        return kel.run(argc, argv);
    } catch (const Exit& e) {
        return e.status;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kel: out of memory\n");
        return kExitFailure;
    }
}
