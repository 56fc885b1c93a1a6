// Replays fuzz inputs through a harness's entry function without libFuzzer,
// so that every input that once hurt the library is run again by the test
// suite (normal and sanitizer builds). Arguments: files or folders of them.
// An input that takes longer than the time limit fails the run; the
// harness itself aborts on a crash or an oversized output.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool read_file(const std::string& path, std::vector<uint8_t>& bytes)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    bytes.clear();
    uint8_t block[65536];
    size_t n = 0;
    while ((n = std::fread(block, 1, sizeof block, f)) > 0)
        bytes.insert(bytes.end(), block, block + n);
    std::fclose(f);
    return true;
}

void collect(const std::string& path, std::vector<std::string>& files)
{
    struct stat st{};
    if (stat(path.c_str(), &st) != 0)
        return;
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return;
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..")
            collect(path + "/" + name, files);
    }
    closedir(dir);
}

} // namespace

int main(int argc, char** argv)
{
    // Seconds per input: the bound a hostile file may cost, with room for
    // the sanitizers' slowdown (KEL_REPLAY_SECONDS overrides it).
    const char* limit_text = std::getenv("KEL_REPLAY_SECONDS");
    const double limit = limit_text != nullptr ? std::atof(limit_text) : 10.0;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i)
        collect(argv[i], files);
    if (files.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 2;
    }
    int slow = 0;
    for (const std::string& file : files) {
        std::vector<uint8_t> bytes;
        if (!read_file(file, bytes)) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 2;
        }
        const auto start = std::chrono::steady_clock::now();
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("%-60s %8zu bytes %7.3f s\n", file.c_str(), bytes.size(), seconds);
        if (seconds > limit) {
            std::fprintf(stderr, "%s took %.3f s (limit %.1f s)\n", file.c_str(), seconds, limit);
            ++slow;
        }
    }
    return slow == 0 ? 0 : 1;
}
