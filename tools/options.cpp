#include "options.h"

#include "cli_common.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace KEL::cli {

Options::Options(std::string command, const std::vector<std::string>& args, std::initializer_list<Known> known)
    : command_(std::move(command))
{
    auto find = [&](const std::string& name) -> const Known* {
        for (const Known& option : known)
            if (name == option.name)
                return &option;
        return nullptr;
    };
    bool options_done = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (options_done || word.size() < 2 || word[0] != '-') {
            positional_.push_back(word);
            continue;
        }
        if (word == "--") {
            options_done = true;
            continue;
        }
        if (word == "--help" || word == "-h") {
            help_ = true;
            continue;
        }
        std::string name;
        std::string value;
        bool inline_value = false;
        if (word == "-o") {
            name = "output";
        } else if (word.compare(0, 2, "--") == 0) {
            name = word.substr(2);
            const size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name.erase(eq);
                inline_value = true;
            }
        } else {
            fail_usage(command_, "unknown option '" + word + "'");
        }
        const Known* option = find(name);
        if (option == nullptr)
            fail_usage(command_, "unknown option '--" + name + "'");
        if (option->takes_value && !inline_value) {
            // The next word is the value even when it starts with a dash,
            // so that "--db -6" means minus six.
            if (i + 1 >= args.size())
                fail_usage(command_, "option '--" + name + "' needs a value");
            value = args[++i];
        } else if (!option->takes_value && inline_value) {
            fail_usage(command_, "option '--" + name + "' takes no value");
        }
        values_[name] = value;
    }
}

bool Options::has(const std::string& name) const
{
    return values_.count(name) != 0;
}

std::string Options::text(const std::string& name, const std::string& fallback) const
{
    const auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

std::string Options::required(const std::string& name) const
{
    if (!has(name) || text(name).empty())
        fail_usage(command_, name == "output" ? "no output file given (-o FILE)" : "missing --" + name);
    return text(name);
}

double Options::number(const std::string& name, double fallback) const
{
    if (!has(name))
        return fallback;
    const std::string t = text(name);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(t.c_str(), &end);
    if (t.empty() || end == nullptr || *end != '\0' || errno != 0 || !std::isfinite(value))
        fail_usage(command_, "--" + name + " wants a number, not '" + t + "'");
    return value;
}

long Options::integer(const std::string& name, long fallback) const
{
    if (!has(name))
        return fallback;
    const std::string t = text(name);
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(t.c_str(), &end, 10);
    if (t.empty() || end == nullptr || *end != '\0' || errno != 0)
        fail_usage(command_, "--" + name + " wants a whole number, not '" + t + "'");
    return value;
}

double Options::number_at_least(const std::string& name, double fallback, double minimum) const
{
    const double value = number(name, fallback);
    if (has(name) && value < minimum)
        fail_usage(command_, "--" + name + " must not be below " + strprintf("%g", minimum));
    return value;
}

void Options::expect_positional(size_t count, const char* what) const
{
    if (positional_.size() < count)
        fail_usage(command_, std::string("missing ") + what);
    if (positional_.size() > count)
        fail_usage(command_, "unexpected argument '" + positional_[count] + "'");
}

} // namespace KEL::cli
