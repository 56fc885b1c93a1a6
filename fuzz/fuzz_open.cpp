// The whole-file target: any byte string handed to the format dispatch must
// end in a clip or an error code. A clip that opens is also decoded, drawn
// and saved, so that the packet paths see the fuzzed headers too.
//
// Run: fuzz/run.sh open MINUTES (see the README's "Fuzzing" section). The
// test suite replays fuzz/corpus/*/ through this entry function
// (replay_main.cpp) in every build; inputs that once failed go there, named
// after the fault.
#include "fuzz_targets.h"
#include "kel.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
constexpr off_t kMaxOutputBytes = 16 << 20;
} // namespace

int KEL::Fuzz::open_file(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("kel-fuzz", 0);
    if (fd < 0)
        return 0;
    if (write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    int err = 0;
    _kel_clip_info_t info{};
    kel_file_info(path.c_str(), &info, nullptr);
    kel_clip_t* clip = kel_clip_open(path.c_str(), &err, nullptr);
    if (clip != nullptr) {
        const int packets = kel_clip_packet_count(clip);
        for (int i = 0; i < packets && i < 8; ++i) {
            const int frames = kel_clip_packet_frame_count(clip, i, &err);
            if (frames <= 0 || frames > (1 << 20))
                continue;
            std::vector<float> left(static_cast<size_t>(frames)), right(static_cast<size_t>(frames));
            float* buffers[2] = {left.data(), right.data()};
            kel_clip_packet_set_gain(clip, i, 0.5f, &err);
            kel_clip_packet_decode(clip, i, buffers, &err);
        }
        if (packets > 0) {
            kel_overview_t* overview = kel_clip_overview_create(clip, nullptr);
            if (overview != nullptr) {
                std::vector<float> out(2 * 64);
                // Drawing decodes every packet drawn. A 1 MB file may claim
                // 240,000 one-byte AAC packets, which take 30 s to decode;
                // that bound is not kept yet (README), so the harness draws
                // at most the first 4096.
                kel_overview_generate(overview, 0, std::min(packets, 4096) - 1, 64, 0, out.data(), &err);
                kel_clip_overview_destroy(overview);
            }
            char saved[] = "/tmp/kel-fuzz-XXXXXX";
            const int out_fd = mkstemp(saved);
            if (out_fd >= 0) {
                close(out_fd);
                kel_clip_save_to(clip, saved, nullptr, 0, nullptr, 0, &err, nullptr);
                // No input may make the library write more than 16 MB.
                struct stat st {};
                const bool oversized = stat(saved, &st) == 0 && st.st_size > kMaxOutputBytes;
                unlink(saved);
                if (oversized)
                    std::abort();
            }
        }
        kel_clip_close(clip, nullptr);
    }
    close(fd);
    return 0;
}
