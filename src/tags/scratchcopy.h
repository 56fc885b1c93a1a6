// A copy of a file beside it, to be edited in its place: it replaces the
// file only through replace(), and is removed when it goes otherwise.
//
// TagLib inserts and removes bytes inside the file it edits; a failure half
// way through that (a full disk, a write error) would leave the file itself
// neither as it was nor as it should be. Edited as a copy, the file is
// either replaced whole or not at all.
#ifndef KEL_TAGS_SCRATCHCOPY_H
#define KEL_TAGS_SCRATCHCOPY_H

#include <string>

namespace KEL {

class ScratchCopy {
public:
    // Copies `target` to "<target>.kel-tags-XXXXXX" with the same
    // permissions; ok() tells whether that succeeded.
    explicit ScratchCopy(std::string target);
    ~ScratchCopy();
    ScratchCopy(const ScratchCopy&) = delete;
    ScratchCopy& operator=(const ScratchCopy&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

    // Renames the copy over the target (atomically, in one directory).
    bool replace();

private:
    static bool copy_bytes(int in, int out);
    void discard();

    std::string target_;
    std::string path_;
};

} // namespace KEL

#endif
