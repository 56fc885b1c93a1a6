#include "cuesheet.h"

#include "cli_common.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libcue.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KEL::cli {

namespace {

// libcue reports syntax errors on stderr itself; the tool says in one line
// of its own that the sheet cannot be read, so the parser's are muted.
class QuietStderr {
public:
    QuietStderr() : saved_(dup(STDERR_FILENO))
    {
        std::fflush(stderr);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            ::close(null);
        }
    }
    ~QuietStderr()
    {
        std::fflush(stderr);
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            ::close(saved_);
        }
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int saved_;
};

std::string text_of(const Cdtext* cdtext, Pti field)
{
    const char* text = cdtext != nullptr ? cdtext_get(field, cdtext) : nullptr;
    return text != nullptr ? text : "";
}

// The whole sheet as text, its size checked against the file's before
// anything is allocated.
std::string slurp(const std::string& path)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        fail(path + ": the cue sheet cannot be read: " + std::strerror(errno));
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > CueSheet::kMaxBytes) {
        std::fclose(f);
        fail(strprintf("%s: not a cue sheet (not a regular file of at most %ld bytes)", path.c_str(),
                       CueSheet::kMaxBytes));
    }
    std::string text(static_cast<size_t>(st.st_size), '\0');
    const size_t got = std::fread(text.data(), 1, text.size(), f);
    std::fclose(f);
    if (got != text.size())
        fail(path + ": the cue sheet cannot be read whole");
    if (text.find('\0') != std::string::npos)
        fail(path + ": not a cue sheet (it holds binary data)");
    return text;
}

} // namespace

CueSheet CueSheet::read(const std::string& path)
{
    const std::string text = slurp(path);
    Cd* cd = nullptr;
    {
        QuietStderr quiet;
        cd = cue_parse_string(text.c_str());
    }
    if (cd == nullptr)
        fail(path + ": the cue sheet cannot be parsed");
    CueSheet sheet;
    const std::string album_performer = text_of(cd_get_cdtext(cd), PTI_PERFORMER);
    const int count = cd_get_ntrack(cd);
    for (int i = 1; i <= count; ++i) {
        const ::Track* track = cd_get_track(cd, i);
        if (track == nullptr)
            continue;
        CueSheet::Track t{track_get_start(track), text_of(track_get_cdtext(track), PTI_TITLE),
                          text_of(track_get_cdtext(track), PTI_PERFORMER)};
        if (t.performer.empty())
            t.performer = album_performer;
        sheet.tracks_.push_back(std::move(t));
    }
    cd_delete(cd);
    if (sheet.tracks_.empty())
        fail(path + ": the cue sheet names no track");
    for (size_t i = 0; i < sheet.tracks_.size(); ++i) {
        const long start = sheet.tracks_[i].start;
        if (start < 0)
            fail(strprintf("%s: track %zu has no INDEX 01", path.c_str(), i + 1));
        if (i > 0 && start <= sheet.tracks_[i - 1].start)
            fail(strprintf("%s: track %zu starts at %ld:%02ld:%02ld, not after track %zu", path.c_str(), i + 1,
                           start / (60 * kFramesPerSecond), start / kFramesPerSecond % 60, start % kFramesPerSecond,
                           i));
    }
    return sheet;
}

} // namespace KEL::cli
