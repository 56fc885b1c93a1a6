// Helpers shared by the test programs of every area: descriptor counting
// for leak checks, and private temporary folders and files.
#ifndef KEL_TESTS_COMMON_TESTSUPPORT_H
#define KEL_TESTS_COMMON_TESTSUPPORT_H

#include <cstddef>
#include <string>
#include <vector>

namespace KEL {
namespace test {

// What the process's descriptors point at (the listing's own excluded).
std::vector<std::string> open_fd_targets();
// The number of entries in /proc/self/fd: compared before and after an
// operation, it shows a descriptor left open.
int open_descriptors();

// The folder for temporary files: $TMPDIR, else /tmp.
std::string temp_parent();

// A folder from mkdtemp, removed with its files when the object goes;
// root() is empty when it could not be made.
class TempFolder {
public:
    explicit TempFolder(const char* stem = "kel-test");
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& name) const { return root_ + "/" + name; }

private:
    std::string root_;
};

// A new file from mkstemp holding the bytes; its path, or "" on failure.
std::string temp_file_with(const void* data, size_t size, const char* stem = "kel-test");

} // namespace test
} // namespace KEL

#endif
