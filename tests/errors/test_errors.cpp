#include "errors/errortable.h"
#include "kel.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <libintl.h>

#include <atomic>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace {

using ErrorPtr = std::unique_ptr<kel_error_t, decltype(&kel_error_free)>;

ErrorPtr make_error(int code, const char* filename = nullptr)
{
    return ErrorPtr(kel_error_create(code, filename), &kel_error_free);
}

// The documented code table: public constant, characters (null for the two
// numeric codes), value, and message as written.
struct Row {
    int constant;
    const char* chars;
    uint32_t value;
    const char* text;
};

const Row kRows[] = {
    {KEL_ERR_NONE, nullptr, 0x00000000, "A 'No error' error occured (Weird, huh?).\n\nPlease contact"},
    {KEL_ERR_UNKNOWN, "EUnk", 0x45556E6B, "An unknown error has occurred.\n\nPlease contact"},
    {KEL_ERR_INTERNAL, "EILC", 0x45494C43, "An unknown internal error occurred.\n\nPlease contact"},
    {KEL_ERR_OPEN, "Efop", 0x45666F70, "The file could not be opened for reading.\n\nPlease contact"},
    {KEL_ERR_IO, "EIO ", 0x45494F20, "An IO error occurred. Please check the file's permissions by selecting Get Info in the Finder then try again."},
    {KEL_ERR_OPEN_READ, "Efor", 0x45666F72, "The file could not be opened for reading. Please check the file's permissions by selecting Get Info in the Finder then try again."},
    {KEL_ERR_OPEN_WRITE, "Efow", 0x45666F77, "The file could not be saved to the selected location. Please select a new destination."},
    {KEL_ERR_FORMAT_UNRECOGNIZED, "Efmu", 0x45666D75, "Unrecognized format."},
    {KEL_ERR_FORMAT_UNSUPPORTED, "Efms", 0x45666D73, "Unsupported format."},
    {KEL_ERR_EOF, "Eeof", 0x45656F66, "The end of the file was unexpectedly reached. This file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_AIFF, "Eaif", 0x45616966, "This AIFF file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_AAC, "Eaac", 0x45616163, "This AAC file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_MP3, "Emp3", 0x456D7033, "This MP3 file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_ALAC, "Ealc", 0x45616C63, "This Apple Lossless file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_WAVE, "Ewav", 0x45776176, "This WAVE file is corrupt and can not be read."},
    {KEL_ERR_CORRUPT_CAF, "Ecaf", 0x45636166, "This CAF file is corrupt and can not be read."},
    {KEL_ERR_PACKET_NUMBER, "EPnm", 0x45506E6D, "An invalid packet number was reached.\n\nPlease contact"},
    {KEL_ERR_CLIP_TYPE, "Eclt", 0x45636C74, "An invalid clip type error occurred.\n\nPlease contact"},
    {KEL_ERR_CLIP_MISMATCH, "Ecld", 0x45636C64, "A clip format mismatch occurred.\n\nPlease contact"},
    {KEL_ERR_NOT_IMPLEMENTED, "Enot", 0x456E6F74, "This function is not properly implemented.\n\nPlease contact"},
    {KEL_ERR_CODEC, "Ecod", 0x45636F64, "A codec initialization error occurred.\n\nPlease contact"},
    {KEL_ERR_EMPTY, "Empt", 0x456D7074, "An empty clip error occurred.\n\nPlease contact"},
    {KEL_ERR_PARAMETER, "Eprm", 0x4570726D, "A bad parameter error occurred.\n\nPlease contact"},
    {KEL_ERR_SCALE, "Escl", 0x4573636C, "A bad overview scale factor error occurred.\n\nPlease contact"},
    {KEL_ERR_DECODE, "Edec", 0x45646563, "An error in packet decoding occurred.\n\nPlease contact"},
    {KEL_ERR_UNSUPPORTED, "Esup", 0x45737570, "This operation is not supported.\n\nPlease contact"},
    {KEL_ERR_BITSTREAM_END, "Ebef", 0x45626566, "The end of the file in was unexpectedly reached in the bitstream. This file is corrupt and can not be read."},
    {KEL_ERR_BITSTREAM_PARSE, "Ebps", 0x45627073, "A parse error in the bitstream occurred. This file is corrupt and can not be read."},
    {KEL_ERR_CANCELLED, "Ebrk", 0x4562726B, "A 'User Canceled' error occured.\n\nPlease contact"},
    {KEL_ERR_PACKET_COPY, "Epcp", 0x45706370, "A packet copy failue occurred.\n\nPlease contact"},
    {KEL_ERR_TRANSCODE, "Etrn", 0x4574726E, "A packet transcode failure occurred.\n\nPlease contact"},
    {KEL_ERR_ENCODE, "Eenc", 0x45656E63, "A packet encode failure occurred.\n\nPlease contact"},
    {KEL_ERR_TOO_LONG, "Esmp", 0x45736D70, "The file could not be saved because it is too long for the chosen save format. Reduce the size by splitting or cutting, then save again."},
    {KEL_ERR_TOO_LARGE, "Ebyt", 0x45627974, "The file could not be saved because the resulting file would be larger than the chosen save format allows. Reduce the size by splitting or cutting the audio, then save again."},
    {KEL_ERR_SAVED_WITH_ERRORS, "Egga", 0x45676761, "The file was saved with errors"},
    {KEL_ERR_IS_DIRECTORY, nullptr, 21, "A directory with the same name already exists. Please use a different name."},
};

const char kSuggestionNoName[] = "The file could not be correctly saved because the original file is corrupt. The file may contain audio glitches.";
const char kSuggestionSong[] = "The file \"Song.aif\" could not be correctly saved because the original file is corrupt. The file may contain audio glitches.";

const int kEgga = static_cast<int>(0x45676761);

// A text as displayed: the ones ending in "Please contact" go on with the
// support address and a full stop.
std::string displayed(const std::string& text)
{
    const std::string tail = "Please contact";
    if (text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail)
        return text + " " + KEL::ErrorTable::support_email() + ".";
    return text;
}

// The expected (description, recovery) of a table row.
std::pair<std::string, std::string> expected_texts(const Row& row, bool song)
{
    if (row.value == 0x45676761u)
        return {row.text, song ? kSuggestionSong : kSuggestionNoName};
    return {"An error occurred", displayed(row.text)};
}

std::string unknown_text(const std::string& inside)
{
    return displayed("An unknown error (" + inside + ") has occurred.\n\nPlease contact");
}

// Runs the rest of a test in a freshly started copy of this program, where
// no error object has been made yet and the tables are still unbuilt.
void use_fresh_processes()
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

// Compares one error object with the expected texts; returns a note of the
// difference, empty when they agree.
std::string check_error(int code, const char* filename, const std::string& description,
                        const std::string& recovery)
{
    ErrorPtr error = make_error(code, filename);
    if (!error)
        return "code " + std::to_string(code) + ": no object\n";
    if (description != kel_error_description(error.get()) ||
        recovery != kel_error_recovery_suggestion(error.get()))
        return "code " + std::to_string(code) + ": [" + kel_error_description(error.get()) + "] [" +
               kel_error_recovery_suggestion(error.get()) + "]\n";
    return std::string();
}

} // namespace

TEST(ErrorCodes, ConstantsAreTheirCharactersBigEndian)
{
    for (const Row& row : kRows) {
        EXPECT_EQ(static_cast<uint32_t>(row.constant), row.value) << row.text;
        if (row.chars == nullptr)
            continue;
        uint32_t network_order;
        std::memcpy(&network_order, row.chars, 4);
        EXPECT_EQ(ntohl(network_order), row.value) << row.chars;
    }
}

TEST(ErrorObjects, EveryCodeHasItsTexts)
{
    // Code 0 and code 21 included: both have a message of their own.
    for (const Row& row : kRows) {
        for (const char* filename : {static_cast<const char*>(nullptr), "Song.aif"}) {
            SCOPED_TRACE(row.text);
            ErrorPtr error = make_error(static_cast<int>(row.value), filename);
            ASSERT_NE(error, nullptr);
            const auto expected = expected_texts(row, filename != nullptr);
            EXPECT_STREQ(kel_error_domain(error.get()), "kQDKELErrorDomain");
            EXPECT_EQ(kel_error_code(error.get()), static_cast<int>(row.value));
            EXPECT_EQ(kel_error_description(error.get()), expected.first);
            EXPECT_EQ(kel_error_recovery_suggestion(error.get()), expected.second);
        }
    }
}

TEST(ErrorObjects, FileNameFillsThePlaceholderOnly)
{
    const std::string tail =
        " could not be correctly saved because the original file is corrupt. The file may contain audio glitches.";
    EXPECT_EQ(check_error(kEgga, "", "The file was saved with errors", "The file \"\"" + tail), "");
    // A name that looks like the placeholder is inserted once, not expanded again.
    EXPECT_EQ(check_error(kEgga, "__FILENAME__", "The file was saved with errors",
                          "The file \"__FILENAME__\"" + tail),
              "");
}

TEST(ErrorObjects, UnknownCodesShowCharactersAndValue)
{
    // Ezzz = 0x457A7A7A = 1165654650.
    EXPECT_EQ(check_error(0x457A7A7A, nullptr, "An error occurred", unknown_text("Ezzz / 1165654650")), "");
    EXPECT_EQ(check_error(0x457A7A7A, "x.wav", "An error occurred", unknown_text("Ezzz / 1165654650")), "");
    // Bytes that are not printable pass through; a zero byte ends the characters.
    EXPECT_EQ(check_error(-1, nullptr, "An error occurred", unknown_text("\xFF\xFF\xFF\xFF / -1")), "");
    EXPECT_EQ(check_error(static_cast<int>(0x80000000u), nullptr, "An error occurred",
                          unknown_text("\x80 / -2147483648")),
              "");
    EXPECT_EQ(check_error(0x45000041, nullptr, "An error occurred", unknown_text("E / 1157627969")), "");
    EXPECT_EQ(check_error(7, nullptr, "An error occurred", unknown_text(" / 7")), "");
}

TEST(ErrorObjects, NullObjectReadsAsUnknownAndFatality)
{
    EXPECT_EQ(kel_error_code(nullptr), KEL_ERR_UNKNOWN);
    EXPECT_STREQ(kel_error_description(nullptr), "");
    EXPECT_STREQ(kel_error_recovery_suggestion(nullptr), "");
    EXPECT_STREQ(kel_error_domain(nullptr), "kQDKELErrorDomain");
    kel_error_free(nullptr);

    // Only success and "saved with errors" are not fatal.
    for (const Row& row : kRows) {
        const bool warning = row.value == 0 || row.value == 0x45676761u;
        EXPECT_EQ(KELErrorIsFatal(static_cast<int>(row.value)), !warning) << row.text;
    }
    EXPECT_TRUE(KELErrorIsFatal(0x4562726B)); // a cancellation counts as fatal
    EXPECT_TRUE(KELErrorIsFatal(0x457A7A7A));
    EXPECT_TRUE(KELErrorIsFatal(-1));
    EXPECT_TRUE(KELErrorIsFatal(0x45676762)); // one off "Egga"
}

TEST(ErrorComposition, TextsFormattingAndPlaceholders)
{
    std::string description, recovery;
    testing::internal::CaptureStderr();
    KEL::compose_error_texts(1234, nullptr, "Retry__FILENAME__later", "a.wav", description, recovery);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: got recovery suggestion with no error description for error 1234\n");
    EXPECT_EQ(description, "An error occurred");
    EXPECT_EQ(recovery, "Retry \"a.wav\" later");

    // The other cases write nothing; only the recovery text gets the name.
    testing::internal::CaptureStderr();
    KEL::compose_error_texts(1234, "Msg__FILENAME__", "Sug__FILENAME__", nullptr, description, recovery);
    EXPECT_EQ(description, "Msg__FILENAME__");
    EXPECT_EQ(recovery, "Sug ");
    KEL::compose_error_texts(1234, "Msg__FILENAME__", nullptr, "b", description, recovery);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(description, "An error occurred");
    EXPECT_EQ(recovery, "Msg \"b\" ");

    // The unknown-code formatter knows two conversions and a literal '%';
    // others are left as they stand, a lone '%' too.
    using KEL::format_unknown_code;
    EXPECT_EQ(format_unknown_code("(%2$d / %1$.4s)", 0x457A7A7A), "(1165654650 / Ezzz)");
    EXPECT_EQ(format_unknown_code("100%% %.4s%d", 0x45494F20), "100% EIO 1162432288");
    EXPECT_EQ(format_unknown_code("%s %n %.4d %x %", 5), "%s %n %.4d %x %");
    EXPECT_EQ(format_unknown_code("", 5), "");
    // The placeholder is replaced where it stands whole, once per place.
    using KEL::replace_filename;
    EXPECT_EQ(replace_filename("__FILENAME____FILENAME__ and __FILENAME__", "<x>"), "<x><x> and <x>");
    EXPECT_EQ(replace_filename("__FILENAME_ __filename__", "<x>"), "__FILENAME_ __filename__");
    EXPECT_EQ(replace_filename("a__FILENAME__b", "__FILENAME__"), "a__FILENAME__b");
    EXPECT_EQ(replace_filename("", "<x>"), "");
}

namespace {

// Ends a fresh process: exit status 0 and the marker when notes is empty,
// otherwise the notes and status 1.
[[noreturn]] void finish_fresh_process(const std::string& notes, const char* marker)
{
    std::fputs(notes.empty() ? marker : notes.c_str(), stderr);
    std::fflush(stderr);
    std::_Exit(notes.empty() ? 0 : 1);
}

// In the fresh process: two threads released together each make error
// objects for every code (in opposite orders); both must see the same
// tables and the documented texts.
std::string run_concurrent_checks()
{
    std::atomic<int> waiting{2};
    std::string notes[2];
    const KEL::ErrorTable* seen[2] = {nullptr, nullptr};
    auto work = [&](int lane) {
        waiting.fetch_sub(1);
        while (waiting.load() > 0) {
        }
        seen[lane] = &KEL::ErrorTable::shared();
        const size_t count = sizeof(kRows) / sizeof(kRows[0]);
        for (size_t i = 0; i < count; ++i) {
            const Row& row = kRows[lane == 0 ? i : count - 1 - i];
            const auto expected = expected_texts(row, lane == 1);
            notes[lane] += check_error(static_cast<int>(row.value), lane == 1 ? "Song.aif" : nullptr,
                                       expected.first, expected.second);
        }
    };
    std::thread first(work, 0);
    std::thread second(work, 1);
    first.join();
    second.join();
    return notes[0] + notes[1] + (seen[0] == seen[1] ? "" : "two tables\n");
}

std::string po_quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\n')
            out += "\\n";
        else if (c == '"' || c == '\\')
            out += std::string("\\") + c;
        else
            out += c;
    }
    return out + "\"";
}

// In the fresh process: writes and compiles a catalogue, selects it the way
// a host would, and returns a note of every text that did not come out as
// expected.
std::string run_localised_checks()
{
    namespace fs = std::filesystem;
    const std::string email = KEL::ErrorTable::support_email();
    std::string pattern = (fs::temp_directory_path() / "kel-l10n-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        return "no temporary folder\n";
    const fs::path root(pattern);
    fs::create_directories(root / "de" / "LC_MESSAGES");

    const std::pair<std::string, std::string> entries[] = {
        {"The file was saved with errors", "Die Datei wurde mit Fehlern gesichert"},
        {"The file__FILENAME__could not be correctly saved because the original file is corrupt. The file may contain audio glitches.",
         "Die Datei__FILENAME__ist beschädigt."},
        {"An error occurred", "Ein Fehler ist aufgetreten"},
        {displayed("An unknown error has occurred.\n\nPlease contact"),
         "Unbekannter Fehler.\n\nBitte wenden Sie sich an " + email + "."},
        {displayed("An unknown error (%.4s / %d) has occurred.\n\nPlease contact"),
         "Fehler %2$d (%1$.4s).\n\nBitte an " + email + "."},
        // Keyed without the address: must not match anything.
        {"An invalid packet number was reached.\n\nPlease contact", "FALSCHER SCHLÜSSEL"},
    };
    {
        std::ofstream po(root / "keltest.po");
        po << "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n";
        for (const auto& entry : entries)
            po << "msgid " << po_quoted(entry.first) << "\nmsgstr " << po_quoted(entry.second) << "\n\n";
    }
    const std::string command = "msgfmt -o '" + (root / "de/LC_MESSAGES/keltest.mo").string() + "' '" +
                                (root / "keltest.po").string() + "'";
    std::string notes;
    if (std::system(command.c_str()) != 0)
        notes += "msgfmt failed\n";
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr)
        notes += "no C.UTF-8 locale\n";
    setenv("LANGUAGE", "de", 1);
    bindtextdomain("keltest", root.c_str());
    bind_textdomain_codeset("keltest", "UTF-8");
    textdomain("keltest");
    if (std::string(gettext("An error occurred")) != "Ein Fehler ist aufgetreten")
        notes += "catalogue not in effect\n";

    const std::string generic = "Ein Fehler ist aufgetreten";
    notes += check_error(kEgga, "Song.aif", "Die Datei wurde mit Fehlern gesichert",
                         "Die Datei \"Song.aif\" ist beschädigt.");
    notes += check_error(0x45556E6B, nullptr, generic, entries[3].second);
    notes += check_error(0x457A7A7A, nullptr, generic, "Fehler 1165654650 (Ezzz).\n\nBitte an " + email + ".");
    // Untranslated texts stay English.
    notes += check_error(0x45666D75, nullptr, generic, "Unrecognized format.");
    notes += check_error(0x45506E6D, nullptr, generic,
                         displayed("An invalid packet number was reached.\n\nPlease contact"));
    if (std::string(textdomain(nullptr)) != "keltest")
        notes += "text domain changed\n";
    fs::remove_all(root);
    return notes;
}

} // namespace

TEST(ErrorFreshProcess, TextsComeFromTheHostCatalogue)
{
    if (std::system("msgfmt --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "msgfmt (gettext) is not installed";
    use_fresh_processes();
    EXPECT_EXIT(finish_fresh_process(run_localised_checks(), "localised ok\n"), testing::ExitedWithCode(0),
                "localised ok");
}

TEST(ErrorFreshProcess, TwoThreadsMakeTheFirstObjectsTogether)
{
    use_fresh_processes();
    EXPECT_EXIT(finish_fresh_process(run_concurrent_checks(), "threads agree\n"), testing::ExitedWithCode(0),
                "threads agree");
}
