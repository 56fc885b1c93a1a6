// Error objects: the readable form of an error code that the host shows to
// its user. An object holds the code, a short description and a recovery
// text; the module's domain is the same for all of them.
//
// Which text goes where:
//   code with message and suggestion ("Egga"): description = message,
//       recovery = suggestion;
//   code with a message only (all other known codes): description =
//       "An error occurred", recovery = message;
//   code with a suggestion only (none in the fixed tables): logged, then
//       description = "An error occurred", recovery = suggestion;
//   unknown code: description = "An error occurred", recovery = the
//       unknown-code text with the code's characters and value.
// The file name, quoted, then replaces "__FILENAME__" in the recovery text.
#include "errors/errortable.h"

#include <array>
#include <cstdio>
#include <memory>
#include <new>
#include <string>

struct kel_error {
    int code;
    std::string description;
    std::string recovery;
};

namespace KEL {

namespace {

constexpr char kGenericDescription[] = "An error occurred";
constexpr char kUnknownCodeFormat[] = "An unknown error (%.4s / %d) has occurred.\n\nPlease contact";
constexpr char kFilenamePlaceholder[] = "__FILENAME__";

// The code's four bytes in big-endian order, as "%.4s" prints them: at most
// four characters, ending early at a zero byte. Other bytes, printable or
// not, pass through unchanged.
std::string code_characters(int32_t code)
{
    const uint32_t value = static_cast<uint32_t>(code);
    std::string chars;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char byte = static_cast<char>((value >> shift) & 0xFFu);
        if (byte == '\0')
            break;
        chars += byte;
    }
    return chars;
}

// True when text continues at pos with the literal pattern.
bool continues_with(const std::string& text, size_t pos, const char* pattern)
{
    return text.compare(pos, std::char_traits<char>::length(pattern), pattern) == 0;
}

// The blank-framed insert that takes the place of "__FILENAME__": the name
// in double quotes with a blank each side, or one blank without a name.
std::string filename_insert(const char* filename)
{
    if (filename == nullptr)
        return " ";
    std::string insert(" \"");
    insert += filename;
    insert += "\" ";
    return insert;
}

} // namespace

std::string format_unknown_code(const std::string& format, int32_t code)
{
    // The conversions the unknown-code text may use, and their expansions.
    struct Conversion {
        const char* pattern;
        int argument; // 0 code characters, 1 decimal value, 2 per cent sign
    };
    static constexpr std::array<Conversion, 5> kConversions = {{
        {"%%", 2},     // literal per cent sign
        {"%.4s", 0},   // the code's characters
        {"%1$.4s", 0}, // the same, positional form for reordered translations
        {"%d", 1},     // the code in signed decimal
        {"%2$d", 1},   // the same, positional form
    }};

    const std::string arguments[3] = {code_characters(code), std::to_string(code), "%"};
    std::string result;
    result.reserve(format.size() + 16);
    size_t pos = 0;
    while (pos < format.size()) {
        const size_t percent = format.find('%', pos);
        if (percent == std::string::npos) {
            result.append(format, pos, std::string::npos);
            break;
        }
        result.append(format, pos, percent - pos);
        pos = percent;
        bool converted = false;
        for (const Conversion& conversion : kConversions) {
            if (continues_with(format, pos, conversion.pattern)) {
                result += arguments[conversion.argument];
                pos += std::char_traits<char>::length(conversion.pattern);
                converted = true;
                break;
            }
        }
        if (!converted) {
            result += '%';
            ++pos;
        }
    }
    return result;
}

std::string replace_filename(const std::string& text, const std::string& insert)
{
    const size_t placeholder_length = sizeof(kFilenamePlaceholder) - 1;
    std::string result;
    result.reserve(text.size() + insert.size());
    size_t pos = 0;
    for (;;) {
        const size_t found = text.find(kFilenamePlaceholder, pos);
        if (found == std::string::npos) {
            result.append(text, pos, std::string::npos);
            return result;
        }
        result.append(text, pos, found - pos);
        result += insert;
        pos = found + placeholder_length;
    }
}

void compose_error_texts(int32_t code, const char* message, const char* suggestion,
                         const char* filename, std::string& description, std::string& recovery)
{
    if (message != nullptr && suggestion != nullptr) {
        description = message;
        recovery = suggestion;
    } else if (message != nullptr) {
        description = ErrorTable::localized(kGenericDescription);
        recovery = message;
    } else if (suggestion != nullptr) {
        std::fprintf(stderr, "Error: got recovery suggestion with no error description for error %d\n",
                     static_cast<int>(code));
        description = ErrorTable::localized(kGenericDescription);
        recovery = suggestion;
    } else {
        const std::string format =
            ErrorTable::localized(ErrorTable::displayed_english(kUnknownCodeFormat));
        recovery = format_unknown_code(format, code);
        // A text that formats to nothing leaves the object without any text.
        if (recovery.empty())
            description.clear();
        else
            description = ErrorTable::localized(kGenericDescription);
    }
    recovery = replace_filename(recovery, filename_insert(filename));
}

} // namespace KEL

extern "C" {

bool KELErrorIsFatal(int code)
{
    return KEL::ErrorTable::is_fatal(code);
}

kel_error_t* kel_error_create(int code, const char* filename)
{
    try {
        const KEL::ErrorTable& table = KEL::ErrorTable::shared();
        std::unique_ptr<kel_error_t> error(new kel_error_t{code, std::string(), std::string()});
        KEL::compose_error_texts(code, table.message(code), table.suggestion(code), filename,
                                 error->description, error->recovery);
        return error.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void kel_error_free(kel_error_t* error)
{
    delete error;
}

const char* kel_error_domain(const kel_error_t* error)
{
    (void)error;
    return KEL_ERROR_DOMAIN;
}

int kel_error_code(const kel_error_t* error)
{
    // A null object stands for an error object that could not be allocated.
    return error == nullptr ? KEL_ERR_UNKNOWN : error->code;
}

const char* kel_error_description(const kel_error_t* error)
{
    return error == nullptr ? "" : error->description.c_str();
}

const char* kel_error_recovery_suggestion(const kel_error_t* error)
{
    return error == nullptr ? "" : error->recovery.c_str();
}

} // extern "C"
