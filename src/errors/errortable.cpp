#include "errors/errortable.h"

#include "core/errorcodes.h"

#include <libintl.h>

#include <array>
#include <cstring>

#ifndef KEL_SUPPORT_EMAIL
#error "KEL_SUPPORT_EMAIL (the support address of the error messages) must be defined by the build"
#endif

namespace KEL {

namespace {

struct CodeText {
    int32_t code;
    const char* text;
};

// The English texts, as the lookup keys of the translations are made from
// them. The misspellings ("occured", "failue"), the stray "in" of "Ebef" and
// the missing full stop of "Egga" are part of the keys and stay as they are.
// A text ending in "\n\nPlease contact" is completed with the support
// address when the table is built.
static constexpr std::array<CodeText, 36> kMessages = {{
    // success, should an error object be asked for it
    {0, "A 'No error' error occured (Weird, huh?).\n\nPlease contact"},
    // "EUnk" unknown error or failed allocation
    {kErrUnknown, "An unknown error has occurred.\n\nPlease contact"},
    // "EILC" internal error
    {kErrInternal, "An unknown internal error occurred.\n\nPlease contact"},
    // "Efop" file cannot be opened for reading
    {kErrOpen, "The file could not be opened for reading.\n\nPlease contact"},
    // "EIO " input/output error
    {kErrIo, "An IO error occurred. Please check the file's permissions by selecting Get Info "
                     "in the Finder then try again."},
    // "Efor" file cannot be opened for reading (permissions)
    {kErrOpenRead, "The file could not be opened for reading. Please check the file's permissions by "
                     "selecting Get Info in the Finder then try again."},
    // "Efow" file cannot be saved there
    {kErrOpenWrite,
     "The file could not be saved to the selected location. Please select a new destination."},
    // "Efmu" unrecognised format
    {kErrFormatUnrecognized, "Unrecognized format."},
    // "Efms" unsupported format
    {kErrFormatUnsupported, "Unsupported format."},
    // "Eeof" unexpected end of file
    {kErrEof,
     "The end of the file was unexpectedly reached. This file is corrupt and can not be read."},
    // "Eaif" corrupt AIFF file
    {kErrCorruptAiff, "This AIFF file is corrupt and can not be read."},
    // "Eaac" corrupt AAC file
    {kErrCorruptAac, "This AAC file is corrupt and can not be read."},
    // "Emp3" corrupt MP3 file
    {kErrCorruptMp3, "This MP3 file is corrupt and can not be read."},
    // "Ealc" corrupt Apple Lossless file
    {kErrCorruptAlac, "This Apple Lossless file is corrupt and can not be read."},
    // "Ewav" corrupt WAVE file
    {kErrCorruptWave, "This WAVE file is corrupt and can not be read."},
    // "Ecaf" corrupt CAF file
    {kErrCorruptCaf, "This CAF file is corrupt and can not be read."},
    // "EPnm" packet number out of range
    {kErrPacketNumber, "An invalid packet number was reached.\n\nPlease contact"},
    // "Eclt" wrong clip type
    {kErrClipType, "An invalid clip type error occurred.\n\nPlease contact"},
    // "Ecld" clip formats do not match
    {kErrClipMismatch, "A clip format mismatch occurred.\n\nPlease contact"},
    // "Enot" not implemented
    {kErrNotImplemented, "This function is not properly implemented.\n\nPlease contact"},
    // "Ecod" codec initialisation
    {kErrCodec, "A codec initialization error occurred.\n\nPlease contact"},
    // "Empt" empty clip
    {kErrEmpty, "An empty clip error occurred.\n\nPlease contact"},
    // "Eprm" bad parameter
    {kErrParameter, "A bad parameter error occurred.\n\nPlease contact"},
    // "Escl" bad overview scale
    {kErrScale, "A bad overview scale factor error occurred.\n\nPlease contact"},
    // "Edec" packet decoding
    {kErrDecode, "An error in packet decoding occurred.\n\nPlease contact"},
    // "Esup" operation not supported
    {kErrUnsupported, "This operation is not supported.\n\nPlease contact"},
    // "Ebef" end of data inside the bitstream
    {kErrBitstreamEnd, "The end of the file in was unexpectedly reached in the bitstream. This file is "
                     "corrupt and can not be read."},
    // "Ebps" bitstream parse error
    {kErrBitstreamParse,
     "A parse error in the bitstream occurred. This file is corrupt and can not be read."},
    // "Ebrk" cancelled through the progress callback
    {kErrCancelled, "A 'User Canceled' error occured.\n\nPlease contact"},
    // "Epcp" packet copy
    {kErrPacketCopy, "A packet copy failue occurred.\n\nPlease contact"},
    // "Etrn" packet transcoding
    {kErrTranscode, "A packet transcode failure occurred.\n\nPlease contact"},
    // "Eenc" packet encoding
    {kErrEncode, "A packet encode failure occurred.\n\nPlease contact"},
    // "Esmp" too many frames for the save format
    {kErrTooLong, "The file could not be saved because it is too long for the chosen save format. "
                     "Reduce the size by splitting or cutting, then save again."},
    // "Ebyt" too many bytes for the save format
    {kErrTooLarge, "The file could not be saved because the resulting file would be larger than the "
                     "chosen save format allows. Reduce the size by splitting or cutting the audio, "
                     "then save again."},
    // "Egga" saved with errors: the one warning
    {kErrSavedWithErrors, "The file was saved with errors"},
    // EISDIR, passed through unchanged by the savers (not a four-character code)
    {kErrIsDirectory, "A directory with the same name already exists. Please use a different name."},
}};

// Recovery suggestions of their own. "__FILENAME__" is fused to its
// neighbours: the insert brings the blanks.
static constexpr std::array<CodeText, 1> kSuggestions = {{
    // "Egga" saved with errors
    {kErrSavedWithErrors, "The file__FILENAME__could not be correctly saved because the original file is "
                     "corrupt. The file may contain audio glitches."},
}};

// The codes that are not fatal: success, and the warning that a file was
// saved although some of its packets could not be carried over.
static constexpr std::array<int32_t, 2> kNonFatal = {{
    0,              // success
    kErrSavedWithErrors, // saved with errors
}};

constexpr char kContactSuffix[] = "\n\nPlease contact";

// A row left out of a table's declared size would be zero-filled silently;
// refuse rows without a text and codes listed twice.
template <size_t N>
constexpr bool rows_complete(const std::array<CodeText, N>& table)
{
    for (size_t i = 0; i < N; ++i) {
        if (table[i].text == nullptr)
            return false;
        for (size_t j = i + 1; j < N; ++j) {
            if (table[i].code == table[j].code)
                return false;
        }
    }
    return true;
}
static_assert(rows_complete(kMessages), "message table has a missing or repeated row");
static_assert(rows_complete(kSuggestions), "suggestion table has a missing or repeated row");

// The message rows are exactly 0 and the reported codes of errorcodes.h.
constexpr bool rows_match_reported_codes()
{
    if (kMessages.size() != kReportedErrors.size() + 1 || kMessages[0].code != 0)
        return false;
    for (const int32_t code : kReportedErrors) {
        bool found = false;
        for (const CodeText& row : kMessages)
            found = found || row.code == code;
        if (!found)
            return false;
    }
    return true;
}
static_assert(rows_match_reported_codes(), "the message table and errorcodes.h list different codes");

} // namespace

ErrorTable::ErrorTable()
{
    messages.reserve(kMessages.size());
    for (const CodeText& row : kMessages)
        messages.emplace(row.code, localized(displayed_english(row.text)));
    suggestions.reserve(kSuggestions.size());
    for (const CodeText& row : kSuggestions)
        suggestions.emplace(row.code, localized(displayed_english(row.text)));
}

const ErrorTable& ErrorTable::shared()
{
    // Never destroyed: an error object may still be made from another
    // static object's destructor at exit.
    static const ErrorTable* const table = new ErrorTable();
    return *table;
}

const char* ErrorTable::message(int32_t code) const
{
    const auto it = messages.find(code);
    return it == messages.end() ? nullptr : it->second.c_str();
}

const char* ErrorTable::suggestion(int32_t code) const
{
    const auto it = suggestions.find(code);
    return it == suggestions.end() ? nullptr : it->second.c_str();
}

bool ErrorTable::is_fatal(int32_t code)
{
    for (const int32_t non_fatal : kNonFatal) {
        if (code == non_fatal)
            return false;
    }
    return true;
}

const char* ErrorTable::support_email()
{
    return KEL_SUPPORT_EMAIL;
}

std::string ErrorTable::displayed_english(const char* text)
{
    std::string result(text);
    const size_t suffix_length = sizeof(kContactSuffix) - 1;
    if (result.size() >= suffix_length &&
        result.compare(result.size() - suffix_length, suffix_length, kContactSuffix) == 0) {
        result += ' ';
        result += support_email();
        result += '.';
    }
    return result;
}

std::string ErrorTable::localized(const std::string& english)
{
    // gettext("") would return the catalogue's header entry.
    if (english.empty())
        return english;
    // gettext hands back either the key itself or a string inside the
    // mapped catalogue; copy it before the key goes away.
    return std::string(::gettext(english.c_str()));
}

} // namespace KEL
