#include "tags/scratchcopy.h"

#include <tbytevector.h>
#include <tbytevectorstream.h>
#include <tfilestream.h>

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
    mode_ = st.st_mode & 07777;
    if (st.st_size <= kMaxInMemory) {
        bytes_ = std::make_unique<TagLib::ByteVector>(static_cast<unsigned int>(st.st_size), '\0');
        size_t done = 0;
        while (done < bytes_->size()) {
            const ssize_t got = ::read(in, bytes_->data() + done, bytes_->size() - done);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break;
            done += static_cast<size_t>(got);
        }
        // A file that changed size while read is not edited.
        if (done == bytes_->size())
            stream_ = std::make_unique<TagLib::ByteVectorStream>(*bytes_);
        bytes_.reset();
    } else if (make_scratch(mode_)) {
        const int out = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
        const bool copied = out >= 0 && copy_bytes(in, out);
        if (out < 0 || ::close(out) != 0 || !copied) {
            discard();
        } else {
            stream_ = std::make_unique<TagLib::FileStream>(path_.c_str());
            if (!static_cast<TagLib::FileStream&>(*stream_).isOpen())
                discard();
        }
    }
    ::close(in);
}

ScratchCopy::~ScratchCopy()
{
    discard();
}

bool ScratchCopy::replace()
{
    if (stream_ == nullptr)
        return false;
    if (path_.empty()) {
        // Edited in memory: written out beside the target first.
        const TagLib::ByteVector& data = *static_cast<TagLib::ByteVectorStream&>(*stream_).data();
        if (!make_scratch(mode_))
            return false;
        const int out = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
        const bool written = out >= 0 && write_bytes(out, data.data(), data.size());
        if (out < 0 || ::close(out) != 0 || !written) {
            discard();
            return false;
        }
    }
    stream_.reset(); // a file stream writes its last bytes as it closes
    if (std::rename(path_.c_str(), target_.c_str()) != 0) {
        discard();
        return false;
    }
    path_.clear();
    return true;
}

bool ScratchCopy::make_scratch(unsigned int mode)
{
    std::string name = target_ + ".kel-tags-XXXXXX";
    const int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0)
        return false;
    path_ = name;
    if (fchmod(fd, mode) != 0 || ::close(fd) != 0) {
        discard();
        return false;
    }
    return true;
}

void ScratchCopy::discard()
{
    stream_.reset();
    if (!path_.empty())
        ::unlink(path_.c_str());
    path_.clear();
}

bool ScratchCopy::write_bytes(int out, const char* data, size_t size)
{
    for (size_t done = 0; done < size;) {
        const ssize_t put = ::write(out, data + done, size - done);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    return true;
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
        if (!write_bytes(out, buffer.data(), static_cast<size_t>(got)))
            return false;
    }
}

} // namespace KEL
