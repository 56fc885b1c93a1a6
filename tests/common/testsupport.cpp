#include "common/testsupport.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace KEL {
namespace test {

namespace {

std::string temp_parent()
{
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

void remove_tree(const std::string& path)
{
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name == "." || name == "..")
                continue;
            const std::string child = path + "/" + name;
            struct stat st;
            if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                remove_tree(child);
            else
                unlink(child.c_str());
        }
        closedir(d);
    }
    rmdir(path.c_str());
}

} // namespace

std::vector<std::string> open_fd_targets()
{
    std::vector<std::string> out;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return out;
    const int own = dirfd(dir);
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.' || std::atoi(e->d_name) == own)
            continue;
        char buf[4096];
        const std::string link = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t n = readlink(link.c_str(), buf, sizeof(buf) - 1);
        out.emplace_back(buf, n > 0 ? static_cast<size_t>(n) : 0);
    }
    closedir(dir);
    return out;
}

int open_descriptors()
{
    return static_cast<int>(open_fd_targets().size());
}

TempDir::TempDir(const char* stem)
{
    std::string pattern = temp_parent() + "/" + stem + "-XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr)
        root_ = pattern;
}

TempDir::~TempDir()
{
    if (!root_.empty())
        remove_tree(root_);
}

std::vector<std::string> TempDir::entries() const
{
    std::vector<std::string> names;
    if (DIR* d = opendir(root_.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(d);
    }
    return names;
}

TempDir& scratch()
{
    static TempDir dir;
    return dir;
}

PrivateTmpdir::PrivateTmpdir() : dir_(new TempDir)
{
    const char* old = std::getenv("TMPDIR");
    had_old_ = old != nullptr;
    if (had_old_)
        old_ = old;
    setenv("TMPDIR", dir_->root().c_str(), 1);
}

PrivateTmpdir::~PrivateTmpdir()
{
    if (had_old_)
        setenv("TMPDIR", old_.c_str(), 1);
    else
        unsetenv("TMPDIR");
    delete dir_;
}

std::string temp_file_with(const void* data, size_t size, const char* stem)
{
    std::string path = temp_parent() + "/" + stem + "-XXXXXX";
    const int fd = mkstemp(&path[0]);
    if (fd < 0)
        return std::string();
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(fd, p + done, size - done);
        if (n <= 0) {
            close(fd);
            unlink(path.c_str());
            return std::string();
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
    return path;
}

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

Bytes concat(const Bytes& a, const Bytes& b)
{
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

int run_tool(const std::vector<std::string>& argv, const std::string& stdout_path)
{
    if (argv.empty())
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const char* out = stdout_path.empty() ? "/dev/null" : stdout_path.c_str();
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string capture(const std::vector<std::string>& argv)
{
    const std::string out = scratch().path("stdout.txt");
    EXPECT_EQ(run_tool(argv, out), 0) << argv[0];
    const Bytes bytes = read_file(out);
    std::remove(out.c_str());
    return std::string(bytes.begin(), bytes.end());
}

ByteWriter& ByteWriter::tag(const char* four)
{
    bytes.insert(bytes.end(), four, four + 4);
    return *this;
}

ByteWriter& ByteWriter::le16(uint32_t v)
{
    bytes.insert(bytes.end(), {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)});
    return *this;
}

ByteWriter& ByteWriter::be16(uint32_t v)
{
    bytes.insert(bytes.end(), {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)});
    return *this;
}

ByteWriter& ByteWriter::le32(uint32_t v) { return le16(v & 0xFFFF).le16(v >> 16); }
ByteWriter& ByteWriter::be32(uint32_t v) { return be16(v >> 16).be16(v & 0xFFFF); }
ByteWriter& ByteWriter::be64(uint64_t v) { return be32(static_cast<uint32_t>(v >> 32)).be32(static_cast<uint32_t>(v)); }

ByteWriter& ByteWriter::raw(const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
}

ByteWriter& ByteWriter::zeros(size_t n)
{
    bytes.insert(bytes.end(), n, 0);
    return *this;
}

uint32_t get_be32(const Bytes& b, size_t at)
{
    return static_cast<uint32_t>(b.at(at)) << 24 | static_cast<uint32_t>(b.at(at + 1)) << 16 |
           static_cast<uint32_t>(b.at(at + 2)) << 8 | b.at(at + 3);
}

} // namespace test
} // namespace KEL
