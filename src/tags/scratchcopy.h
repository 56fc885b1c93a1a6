// A file's bytes to be edited by TagLib in its place: they replace the file
// only through replace(), and are dropped when it goes otherwise.
//
// TagLib inserts and removes bytes inside the file it edits; a failure half
// way through that (a full disk, a write error) would leave the file itself
// neither as it was nor as it should be. Edited as a copy, the file is
// either replaced whole or not at all. A file up to kMaxInMemory is edited
// in memory and written out once: TagLib moves the bytes behind a tag that
// grows through its stream a kilobyte at a time, four system calls each,
// which on disk costs more than writing the whole file.
#ifndef KEL_TAGS_SCRATCHCOPY_H
#define KEL_TAGS_SCRATCHCOPY_H

#include <memory>
#include <string>

namespace TagLib {
class IOStream;
class ByteVector;
} // namespace TagLib

namespace KEL {

class ScratchCopy {
public:
    static constexpr long long kMaxInMemory = 256LL << 20;

    // Reads `target` into memory, or (when larger) copies it to
    // "<target>.kel-tags-XXXXXX"; ok() tells whether that succeeded.
    explicit ScratchCopy(std::string target);
    ~ScratchCopy();
    ScratchCopy(const ScratchCopy&) = delete;
    ScratchCopy& operator=(const ScratchCopy&) = delete;

    bool ok() const { return stream_ != nullptr; }

    // The bytes to edit; TagLib seeks where it reads.
    TagLib::IOStream& stream() { return *stream_; }

    // Puts the edited bytes in place of the target (written beside it with
    // its permissions, then renamed over it, atomically in one directory).
    bool replace();

private:
    static bool copy_bytes(int in, int out);
    static bool write_bytes(int out, const char* data, size_t size);
    bool make_scratch(unsigned int mode);
    void discard();

    std::string target_;
    std::string path_; // the scratch file, while it exists
    unsigned int mode_ = 0;
    std::unique_ptr<TagLib::ByteVector> bytes_;
    std::unique_ptr<TagLib::IOStream> stream_;
};

} // namespace KEL

#endif
