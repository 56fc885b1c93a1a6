#include "levelcache.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace KEL::cli {

namespace {

// File layout: the magic, the key, the packet count (int32), the levels
// (float32), all in the machine's byte order: the cache never leaves it.
constexpr char kMagic[8] = {'K', 'E', 'L', 'L', 'E', 'V', '0', '1'};

std::string cache_dir()
{
    if (const char* dir = std::getenv("KEL_CACHE_DIR"))
        return dir;
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && *xdg == '/')
        return std::string(xdg) + "/kel";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
        return std::string(home) + "/.cache/kel";
    return "";
}

// mkdir -p, quietly.
bool make_dirs(const std::string& dir)
{
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
        if (slash == std::string::npos)
            return true;
    }
}

// FNV-1a: spreads the cache files' names; the key inside decides.
unsigned long long hash(const void* data, size_t size)
{
    unsigned long long h = 1469598103934665603ULL;
    for (size_t i = 0; i < size; ++i) {
        h ^= static_cast<const unsigned char*>(data)[i];
        h *= 1099511628211ULL;
    }
    return h;
}

} // namespace

LevelCache::LevelCache(const std::string& source)
{
    struct stat st;
    const std::string dir = cache_dir();
    if (dir.empty() || stat(source.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return;
    key_.device = st.st_dev;
    key_.inode = st.st_ino;
    key_.size = st.st_size;
    key_.mtime_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    char name[40];
    std::snprintf(name, sizeof name, "/%016llx.levels", hash(&key_, sizeof key_));
    path_ = dir + name;
}

bool LevelCache::load(int packets, std::vector<float>& levels) const
{
    if (path_.empty() || packets < 0)
        return false;
    FILE* f = std::fopen(path_.c_str(), "rb");
    if (f == nullptr)
        return false;
    char magic[sizeof kMagic];
    Key key;
    int32_t count = -1;
    std::vector<float> values(static_cast<size_t>(packets));
    const bool ok = std::fread(magic, 1, sizeof magic, f) == sizeof magic &&
                    std::memcmp(magic, kMagic, sizeof magic) == 0 && std::fread(&key, sizeof key, 1, f) == 1 &&
                    std::memcmp(&key, &key_, sizeof key) == 0 && std::fread(&count, sizeof count, 1, f) == 1 &&
                    count == packets && std::fread(values.data(), sizeof(float), values.size(), f) == values.size() &&
                    std::fgetc(f) == EOF;
    std::fclose(f);
    if (ok)
        levels = std::move(values);
    return ok;
}

void LevelCache::store(const std::vector<float>& levels) const
{
    if (path_.empty() || !make_dirs(path_.substr(0, path_.rfind('/'))))
        return;
    const std::string scratch = path_ + ".new." + std::to_string(getpid());
    FILE* f = std::fopen(scratch.c_str(), "wb");
    if (f == nullptr)
        return;
    const int32_t count = static_cast<int32_t>(levels.size());
    bool ok = std::fwrite(kMagic, 1, sizeof kMagic, f) == sizeof kMagic && std::fwrite(&key_, sizeof key_, 1, f) == 1 &&
              std::fwrite(&count, sizeof count, 1, f) == 1 &&
              std::fwrite(levels.data(), sizeof(float), levels.size(), f) == levels.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(scratch.c_str(), path_.c_str()) != 0)
        std::remove(scratch.c_str());
}

} // namespace KEL::cli
