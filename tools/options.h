// Command-line options of one kel subcommand: "--name value",
// "--name=value", flags, "-o FILE" for "--output FILE", positional
// arguments, and "--" to end the options.
#ifndef KEL_TOOLS_OPTIONS_H
#define KEL_TOOLS_OPTIONS_H

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace KEL::cli {

class Options {
public:
    // An option the command accepts.
    struct Known {
        const char* name; // without the leading dashes
        bool takes_value;
    };

    // Parses args (the words after the command name). Unknown options and
    // missing values are usage errors reported against `command`; "--help"
    // and "-h" are always accepted.
    Options(std::string command, const std::vector<std::string>& args, std::initializer_list<Known> known);

    bool help() const { return help_; }
    bool has(const std::string& name) const;
    const std::vector<std::string>& positional() const { return positional_; }

    // The option's text; `fallback` when absent.
    std::string text(const std::string& name, const std::string& fallback = "") const;
    // The option's text, required.
    std::string required(const std::string& name) const;
    // A finite number; a usage error when the text is not one.
    double number(const std::string& name, double fallback) const;
    // A whole number.
    long integer(const std::string& name, long fallback) const;
    // As number(), refusing values below `minimum`.
    double number_at_least(const std::string& name, double fallback, double minimum) const;

    // Exactly `count` positional arguments named `what`, or a usage error.
    void expect_positional(size_t count, const char* what) const;

    const std::string& command() const { return command_; }

private:
    std::string command_;
    bool help_ = false;
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

} // namespace KEL::cli

#endif
