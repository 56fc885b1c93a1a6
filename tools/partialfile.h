// An output file written under a temporary name next to its final place
// and renamed over it only when complete, so that neither a failure nor a
// cancellation leaves a partial file, and an existing file survives both.
#ifndef KEL_TOOLS_PARTIALFILE_H
#define KEL_TOOLS_PARTIALFILE_H

#include <string>

namespace KEL::cli {

class PartialFile {
public:
    explicit PartialFile(std::string target);
    // Removes the temporary file unless commit() succeeded.
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    // The temporary name to write to.
    const std::string& path() const { return temporary_; }
    const std::string& target() const { return target_; }
    // Renames the temporary file to the target; reports a failure (with
    // the library's message for a directory in the way) and throws Exit.
    void commit();

private:
    std::string target_;
    std::string temporary_;
    bool committed_ = false;
};

} // namespace KEL::cli

#endif
