#include "commandline.h"

#include "cli_common.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#ifndef KEL_TOOL_VERSION
#define KEL_TOOL_VERSION "0"
#endif

namespace KEL::cli {

namespace {

constexpr const char* kIntro = "usage: kel [COMMAND [OPTIONS] [FILES]]\n"
                               "\n"
                               "An audio clip editor on the command line: files are edited packet by\n"
                               "packet without decoding, so cuts, copies, splices and MP3 gain changes\n"
                               "lose nothing. Without a command kel runs its demo.\n";

constexpr const char* kClosing = "'kel COMMAND --help' explains a command's options. Long operations show a\n"
                                 "progress bar when stderr is a terminal; Ctrl-C cancels them and leaves no\n"
                                 "partial output file. Exit status: 0 done, 1 failed, 2 bad usage,\n"
                                 "130 cancelled.\n";

// Column where option descriptions start in "kel CMD --help".
constexpr size_t kColumn = 22;

// A command's help: its prose (usage lines first, kept in the footer),
// then its options as "  -o, --output OUT  description", one block each.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override
    {
        std::ostringstream out;
        out << app->get_footer();
        const auto options = app->get_options([](const CLI::Option* o) { return !o->get_group().empty(); });
        if (!options.empty())
            out << "\noptions:\n";
        for (const CLI::Option* o : options) {
            if (o->get_positional())
                continue;
            std::string names;
            for (const std::string& s : o->get_snames())
                names += "-" + s + ", ";
            for (const std::string& l : o->get_lnames())
                names += "--" + l + ", ";
            names.resize(names.size() - 2);
            // Validators append their own text after a colon; the name alone reads better.
            const std::string type = o->get_type_name().substr(0, o->get_type_name().find(':'));
            if (!type.empty())
                names += " " + type;
            CLI::detail::format_help(out, names, o->get_description(), kColumn);
        }
        return out.str();
    }
};

// Text as roff reads it literally: backslashes doubled, and a line that
// starts with a dot or quote not taken for a request.
std::string roff_escape(const std::string& text)
{
    std::string out;
    bool line_start = true;
    for (const char c : text) {
        if (line_start && (c == '.' || c == '\''))
            out += "\\&";
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else
            out += c;
        line_start = c == '\n';
    }
    return out;
}

} // namespace

CommandLine::CommandLine() : app_("", "kel")
{
    app_.formatter(std::make_shared<HelpFormatter>());
    app_.require_subcommand(0, 1);
    // Hidden (no group): the manual page, made at build time.
    app_.add_flag("--man")->group("");
}

CLI::App& CommandLine::add(const char* name, const char* summary, const char* help, std::function<int()> run)
{
    CLI::App* command = app_.add_subcommand(name, summary);
    command->footer(help);
    command->set_help_flag("-h,--help", "print this help");
    command->get_option("--help")->group("");
    commands_.push_back({command, summary, std::move(run)});
    return *command;
}

CLI::Option* CommandLine::add_number(CLI::App& command, const std::string& names, double& value,
                                     const std::string& description, const char* type)
{
    const std::string name = names.substr(names.rfind("--"));
    CLI::Option* option = command.add_option_function<std::string>(
        names,
        [&value, name](const std::string& text) {
            char* end = nullptr;
            errno = 0;
            const double v = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v))
                throw CLI::ValidationError(name + " wants a number, not '" + text + "'");
            value = v;
        },
        description);
    option->type_name(type);
    return option;
}

void CommandLine::add_range(CLI::App& command, RangeSettings& range)
{
    range.command = command.get_name().c_str(); // the App outlives every run
    add_number(command, "--start", range.start, "start of the range in seconds (default: the beginning)", "T");
    add_number(command, "--end", range.end, "end of the range in seconds (default: the end)", "T");
    command.add_flag("--packets", range.packets, "read --start and --end as packet indices, --end included");
}

void CommandLine::add_jobs(CLI::App& command, int& jobs)
{
    command.add_option("-j,--jobs", jobs, "files at once, each on its own thread (default: the cores)")
        ->check(CLI::Range(1, 1024))
        ->type_name("N");
}

void CommandLine::print_usage(FILE* out) const
{
    std::fputs(kIntro, out);
    std::fputs("\ncommands:\n", out);
    for (const Entry& c : commands_)
        std::fprintf(out, "  %-9s %s\n", c.app->get_name().c_str(), c.summary);
    std::fputs("\n", out);
    std::fputs(kClosing, out);
}

int CommandLine::fail_parse(const CLI::App* command, const std::string& message) const
{
    const std::string name = command->get_name();
    std::fprintf(stderr, "kel %s: %s\nTry 'kel %s --help'.\n", name.c_str(), message.c_str(), name.c_str());
    return kExitUsage;
}

int CommandLine::run(int argc, char** argv)
{
    const std::string first = argc < 2 ? "demo" : argv[1];
    if (first == "--help" || first == "-h" || first == "help") {
        print_usage(stdout);
        return kExitOk;
    }
    if (first == "--man") {
        std::fputs(man_page().c_str(), stdout);
        return kExitOk;
    }
    const Entry* entry = nullptr;
    for (const Entry& c : commands_)
        if (first == c.app->get_name())
            entry = &c;
    if (entry == nullptr) {
        std::fprintf(stderr, "kel: unknown command '%s'\n\n", first.c_str());
        print_usage(stderr);
        return kExitUsage;
    }
    try {
        if (argc >= 2)
            app_.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(entry->app->help().c_str(), stdout);
        return kExitOk;
    } catch (const CLI::ParseError& e) {
        return fail_parse(entry->app, e.what());
    }
    return entry->run();
}

std::string CommandLine::man_page() const
{
    std::string page = ".TH KEL 1 \"\" \"kel " KEL_TOOL_VERSION "\" \"User Commands\"\n"
                       ".SH NAME\n"
                       "kel \\- edit, measure and convert audio files packet by packet\n"
                       ".SH SYNOPSIS\n"
                       ".B kel\n"
                       "[\\fICOMMAND\\fR [\\fIOPTIONS\\fR] [\\fIFILES\\fR]]\n"
                       ".SH DESCRIPTION\n";
    std::string intro = kIntro;
    intro.erase(0, intro.find("\n\n") + 2);
    page += roff_escape(intro) + ".PP\n" + roff_escape(kClosing);
    page += ".SH COMMANDS\n";
    for (const Entry& c : commands_) {
        page += ".SS " + c.app->get_name() + "\n" + roff_escape(c.summary) + "\n.PP\n.nf\n";
        page += roff_escape(c.app->help()) + ".fi\n";
    }
    page += ".SH EXIT STATUS\n0 done, 1 failed, 2 bad usage, 130 cancelled (Ctrl-C).\n";
    return page;
}

} // namespace KEL::cli
