#include "tags/scratchcopy.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace KEL {

ScratchCopy::ScratchCopy(std::string target) : target_(std::move(target))
{
    const int in = ::open(target_.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return;
    struct stat st;
    if (fstat(in, &st) != 0) {
        ::close(in);
        return;
    }
    std::string name = target_ + ".kel-tags-XXXXXX";
    const int out = mkostemp(name.data(), O_CLOEXEC);
    if (out >= 0) {
        path_ = name;
        const bool copied = copy_bytes(in, out) && fchmod(out, st.st_mode & 07777) == 0;
        if (::close(out) != 0 || !copied)
            discard();
    }
    ::close(in);
}

ScratchCopy::~ScratchCopy()
{
    discard();
}

bool ScratchCopy::replace()
{
    if (path_.empty() || std::rename(path_.c_str(), target_.c_str()) != 0)
        return false;
    path_.clear();
    return true;
}

void ScratchCopy::discard()
{
    if (!path_.empty())
        ::unlink(path_.c_str());
    path_.clear();
}

bool ScratchCopy::copy_bytes(int in, int out)
{
    std::vector<char> buffer(1 << 20);
    for (;;) {
        const ssize_t got = ::read(in, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(out, buffer.data() + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                return false;
            done += put;
        }
    }
}

} // namespace KEL
