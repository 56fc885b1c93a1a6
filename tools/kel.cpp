// kel: the command-line face of the KEL audio clip engine.
#include "kel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* const kUsage =
    "usage: kel COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  explain CODE [FILE]  print the description and recovery suggestion of an\n"
    "                       error code (four characters such as Efmu, or a number)\n"
    "  demo                 run the built-in demonstration\n"
    "  --help               this text\n";

int parse_code(const char* text)
{
    if (std::strlen(text) == 4 && text[0] == 'E') {
        return static_cast<int>((static_cast<unsigned>(static_cast<unsigned char>(text[0])) << 24) |
                                (static_cast<unsigned>(static_cast<unsigned char>(text[1])) << 16) |
                                (static_cast<unsigned>(static_cast<unsigned char>(text[2])) << 8) |
                                static_cast<unsigned>(static_cast<unsigned char>(text[3])));
    }
    return static_cast<int>(std::strtol(text, nullptr, 0));
}

void explain(int code, const char* file)
{
    kel_error_t* error = kel_error_create(code, file);
    if (error == nullptr) {
        std::fprintf(stderr, "kel: out of memory\n");
        return;
    }
    std::printf("%s (%s, code %d, %s)\n  %s\n", kel_error_description(error), kel_error_domain(error),
                kel_error_code(error), KELErrorIsFatal(code) ? "fatal" : "warning",
                kel_error_recovery_suggestion(error));
    kel_error_free(error);
}

int demo()
{
    std::printf("KEL demo: how the engine reports failures to a host\n\n");
    const struct {
        int code;
        const char* file;
    } samples[] = {
        {KEL_ERR_FORMAT_UNRECOGNIZED, nullptr},
        {KEL_ERR_CORRUPT_WAVE, nullptr},
        {KEL_ERR_SAVED_WITH_ERRORS, "Song.aif"},
        {KEL_ERR_SAVED_WITH_ERRORS, nullptr},
        {KEL_ERR_CANCELLED, nullptr},
        {KEL_ERR_IS_DIRECTORY, nullptr},
    };
    for (const auto& s : samples)
        explain(s.code, s.file);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        std::fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string command = argv[1];
    if (command == "explain" && argc >= 3) {
        explain(parse_code(argv[2]), argc >= 4 ? argv[3] : nullptr);
        return 0;
    }
    if (command == "demo")
        return demo();
    std::fprintf(stderr, "kel: unknown command or missing argument: %s\n\n%s", argv[1], kUsage);
    return 2;
}
