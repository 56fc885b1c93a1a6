#include "partialfile.h"

#include "cli_common.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace KEL::cli {

namespace {

// "dir/.name.kel-partial-PID" for "dir/name": same directory, so that the
// final rename stays on one file system; hidden, and unique per process.
std::string temporary_name(const std::string& target)
{
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    return dir + "." + base + ".kel-partial-" + std::to_string(static_cast<long>(getpid()));
}

} // namespace

PartialFile::PartialFile(std::string target) : target_(std::move(target)), temporary_(temporary_name(target_))
{
    struct stat st;
    // A directory in the way is refused before any work is spent; the
    // library's savers pass EISDIR through as this code.
    if (stat(target_.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        fail_library(KEL_ERR_IS_DIRECTORY, target_);
}

PartialFile::~PartialFile()
{
    if (!committed_)
        std::remove(temporary_.c_str());
}

void PartialFile::commit()
{
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary_.c_str());
        if (error == EISDIR)
            fail_library(KEL_ERR_IS_DIRECTORY, target_);
        fail(target_ + ": cannot be written: " + std::strerror(error));
    }
    committed_ = true;
}

} // namespace KEL::cli
