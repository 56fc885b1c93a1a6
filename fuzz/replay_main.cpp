// Replays fuzz inputs through every target's entry function without
// libFuzzer, so that every input that once hurt the library is run again by
// the test suite (normal and sanitizer builds): an input found by one
// parser's target often reaches another parser too. Arguments: files or
// folders of them (searched recursively). An input that takes longer than
// the time limit in a target fails the run; the targets themselves abort on
// a crash, a broken invariant or an oversized output.
#include "fuzz_targets.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

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
        // An input that aborts is the last one printed (the stack names the
        // target).
        std::printf("%s\n", file.c_str());
        std::fflush(stdout);
        for (const KEL::Fuzz::Target& target : KEL::Fuzz::kTargets) {
            const auto start = std::chrono::steady_clock::now();
            target.entry(bytes.data(), bytes.size());
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (seconds > limit) {
                std::fprintf(stderr, "%s took %.3f s in %s (limit %.1f s)\n", file.c_str(), seconds, target.name,
                             limit);
                ++slow;
            }
        }
    }
    std::printf("%zu inputs through %zu targets\n", files.size(), KEL::Fuzz::kTargets.size());
    return slow == 0 ? 0 : 1;
}
