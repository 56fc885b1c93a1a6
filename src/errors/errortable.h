// The error module: the code table with each code's message, the one
// recovery suggestion, the non-fatal codes, and the building of the texts
// that kel_error_create hands to the host.
//
// Localisation. Every user-visible text is looked up with gettext() in the
// host's current text domain; the library never selects or binds a domain
// itself. The lookup key is the complete English text exactly as the user
// would read it: a message ending in "\n\nPlease contact" is keyed with the
// support address and the full stop already appended, for instance
//   "An unknown error has occurred.\n\nPlease contact support@example.org."
// so a host's catalogue carries the address inside its translations. The
// unknown-code text is keyed by its format string in the same way; its
// translation may use "%.4s" and "%d" or the positional "%1$.4s" and
// "%2$d" (see format_unknown_code). With the C locale, or without a
// catalogue, gettext returns the key and the texts stay English.
#ifndef KEL_ERRORS_ERRORTABLE_H
#define KEL_ERRORS_ERRORTABLE_H

#include "kel.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace KEL {

// The localized message and suggestion tables. The one instance is built on
// first use (thread-safe: two threads asking first get the same instance,
// built once) and kept until the process ends; it is never rebuilt, so a
// change of language takes effect only in a new process.
class KEL_API ErrorTable {
public:
    static const ErrorTable& shared();

    // The localized message of a code, or null when the code has none.
    const char* message(int32_t code) const;
    // The localized recovery suggestion of a code, or null when it has none
    // (every code but "Egga").
    const char* suggestion(int32_t code) const;

    // False exactly for 0 and "Egga", the warning that leaves a saved file
    // in place; every other value, unknown ones included, is fatal.
    static bool is_fatal(int32_t code);

    // The support address completing the texts that end in "Please contact"
    // (the build setting KEL_SUPPORT_EMAIL).
    static const char* support_email();

    // The English text as displayed and as looked up: the table text, with
    // " ADDRESS." appended when it ends in "\n\nPlease contact".
    static std::string displayed_english(const char* text);

    // The localized form of an English text (gettext in the current domain).
    static std::string localized(const std::string& english);

    ErrorTable(const ErrorTable&) = delete;
    ErrorTable& operator=(const ErrorTable&) = delete;

private:
    ErrorTable();

    std::unordered_map<int32_t, std::string> messages;
    std::unordered_map<int32_t, std::string> suggestions;
};

// ---- Building an error object's texts (kelerror.cpp) --------------------

// The texts an error object shows for `code`, given the localized message
// and suggestion found for it (either may be null). filename may be null.
// Writes the log line "Error: got recovery suggestion with no error
// description for error %d" to stderr when only a suggestion is given.
KEL_API void compose_error_texts(int32_t code, const char* message, const char* suggestion,
                                 const char* filename, std::string& description,
                                 std::string& recovery);

// Fills the unknown-code text: "%.4s" (or "%1$.4s") becomes the code's
// big-endian bytes up to the first zero byte, "%d" (or "%2$d") the code in
// signed decimal, "%%" a per cent sign. Any other '%' sequence is copied as
// it stands, so a faulty translation cannot read missing arguments.
KEL_API std::string format_unknown_code(const std::string& format, int32_t code);

// Replaces every "__FILENAME__" of text, left to right and without looking
// again at what was inserted, by insert.
KEL_API std::string replace_filename(const std::string& text, const std::string& insert);

} // namespace KEL

#endif
