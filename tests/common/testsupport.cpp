#include "common/testsupport.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace KEL {
namespace test {

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

std::string temp_parent()
{
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

TempFolder::TempFolder(const char* stem)
{
    std::string pattern = temp_parent() + "/" + stem + "-XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr)
        root_ = pattern;
}

TempFolder::~TempFolder()
{
    if (root_.empty())
        return;
    if (DIR* d = opendir(root_.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                unlink((root_ + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    rmdir(root_.c_str());
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

} // namespace test
} // namespace KEL
