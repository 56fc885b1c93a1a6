// Helpers shared by the test programs of every area: descriptor counting
// for leak checks, private temporary folders, whole-file byte access, byte
// builders for hand-made files, and peer programs run without a shell.
#ifndef KEL_TESTS_COMMON_TESTSUPPORT_H
#define KEL_TESTS_COMMON_TESTSUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KEL {
namespace test {

using Bytes = std::vector<unsigned char>;

// What the process's descriptors point at (the listing's own excluded).
std::vector<std::string> open_fd_targets();
// The number of open descriptors: compared before and after an operation,
// it shows a descriptor left open.
int open_descriptors();

// A folder from mkdtemp under $TMPDIR (or /tmp), removed with everything
// in it when the object goes; root() is empty when it could not be made.
class TempDir {
public:
    explicit TempDir(const char* stem = "kel-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& name) const { return root_ + "/" + name; }
    // Names of the entries in the folder (no "." or "..").
    std::vector<std::string> entries() const;

private:
    std::string root_;
};

// The program's scratch folder, removed at exit.
TempDir& scratch();

// Points TMPDIR at a fresh private folder for the life of the object and
// restores the previous value afterwards.
class PrivateTmpdir {
public:
    PrivateTmpdir();
    ~PrivateTmpdir();
    const TempDir& dir() const { return *dir_; }

private:
    TempDir* dir_;
    bool had_old_;
    std::string old_;
};

// A new file from mkstemp holding the bytes; its path, or "" on failure.
std::string temp_file_with(const void* data, size_t size, const char* stem = "kel-test");

Bytes read_file(const std::string& path);
void write_file(const std::string& path, const Bytes& bytes);
bool file_exists(const std::string& path);
Bytes concat(const Bytes& a, const Bytes& b);

// Runs argv[0] (looked up in PATH) with the arguments; standard output goes
// to stdout_path when given (else /dev/null), standard input and error to
// /dev/null. The exit status, or -1 when the program could not be started.
int run_tool(const std::vector<std::string>& argv, const std::string& stdout_path = std::string());
// Standard output of a program that must succeed.
std::string capture(const std::vector<std::string>& argv);

// Appends integers in a stated byte order, and four-character tags.
struct ByteWriter {
    Bytes bytes;
    ByteWriter& tag(const char* four);
    ByteWriter& le16(uint32_t v);
    ByteWriter& le32(uint32_t v);
    ByteWriter& be16(uint32_t v);
    ByteWriter& be32(uint32_t v);
    ByteWriter& be64(uint64_t v);
    ByteWriter& raw(const Bytes& more);
    ByteWriter& zeros(size_t n);
};

uint32_t get_be32(const Bytes& b, size_t at);

} // namespace test
} // namespace KEL

#endif
