// PCM benchmark: a long 16-bit stereo 44.1 kHz WAVE (one hour by default,
// generated here) opened, gained and saved, drawn and edited through the
// public API, each figure printed beside the peer tools' time for the same
// job in the same run.
//
// usage: bench_pcm [minutes] [folder]
#include "kel.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs a shell command and returns its wall time, or -1 when it fails.
double time_command(const std::string& command)
{
    const auto start = Clock::now();
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    const double t = seconds_since(start);
    return status == 0 ? t : -1.0;
}

void put_le(std::FILE* f, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        std::fputc(static_cast<int>((value >> (8 * i)) & 0xFF), f);
}

// A sine sweep with a little noise, written in large blocks.
bool write_wave(const std::string& path, long frames)
{
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    const uint32_t data = static_cast<uint32_t>(frames * 4);
    std::fwrite("RIFF", 1, 4, f);
    put_le(f, 36 + data, 4);
    std::fwrite("WAVEfmt ", 1, 8, f);
    put_le(f, 16, 4);
    put_le(f, 1, 2);
    put_le(f, 2, 2);
    put_le(f, 44100, 4);
    put_le(f, 44100 * 4, 4);
    put_le(f, 4, 2);
    put_le(f, 16, 2);
    std::fwrite("data", 1, 4, f);
    put_le(f, data, 4);
    std::vector<int16_t> block(2 * 65536);
    uint32_t noise = 1;
    double phase = 0.0;
    for (long done = 0; done < frames;) {
        const long n = std::min<long>(65536, frames - done);
        for (long i = 0; i < n; ++i) {
            noise = noise * 1664525u + 1013904223u;
            const double t = static_cast<double>(done + i) / 44100.0;
            phase += 2.0 * M_PI * (200.0 + 50.0 * std::sin(t * 0.1)) / 44100.0;
            const double s = 0.6 * std::sin(phase) + 0.05 * (static_cast<int>(noise >> 16) - 32768) / 32768.0;
            block[2 * i] = static_cast<int16_t>(s * 32767.0);
            block[2 * i + 1] = static_cast<int16_t>(-s * 32767.0);
        }
        std::fwrite(block.data(), 4, static_cast<size_t>(n), f);
        done += n;
    }
    return std::fclose(f) == 0;
}

size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc > 1 ? std::atof(argv[1]) : 60.0;
    const char* tmp = std::getenv("TMPDIR");
    std::string folder = argc > 2 ? argv[2] : std::string(tmp != nullptr ? tmp : "/tmp") + "/kel-bench-XXXXXX";
    if (argc <= 2 && mkdtemp(&folder[0]) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    // A folder that is named but not there yet is made (one level).
    if (argc > 2 && mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        std::perror(folder.c_str());
        return 1;
    }
    const std::string source = folder + "/hour.wav";
    const std::string saved = folder + "/saved.wav";
    const long frames = static_cast<long>(minutes * 60.0 * 44100.0);
    std::printf("generating %.1f minutes of 16-bit stereo 44.1 kHz WAVE in %s\n", minutes, folder.c_str());
    if (!write_wave(source, frames)) {
        std::fprintf(stderr, "cannot write %s\n", source.c_str());
        return 1;
    }
    struct stat st {};
    stat(source.c_str(), &st);
    std::printf("file: %.1f MB\n\n", st.st_size / 1e6);

    // Open.
    const double t_probe = time_command("ffprobe -v error -count_packets -show_entries stream=nb_read_packets " + source);
    int err = 0;
    const size_t heap_before = heap_in_use();
    auto start = Clock::now();
    kel_clip_t* clip = kel_clip_open(source.c_str(), &err, nullptr);
    const double t_open = seconds_since(start);
    if (clip == nullptr) {
        std::fprintf(stderr, "open failed: %d\n", err);
        return 1;
    }
    const int packets = kel_clip_packet_count(clip);
    const double per_packet = static_cast<double>(heap_in_use() - heap_before) / packets;
    std::printf("open:            %8.3f s  (%d packets, %.0f bytes of heap per packet)   ffprobe -count_packets %.3f s\n",
                t_open, packets, per_packet, t_probe);

    // Save with a gain of 0.5 on every packet. The page cache makes single
    // runs noisy (a write can be held up by the writeback of the previous
    // one), so cp and the save alternate, each after a sync, and the best of
    // three counts. The second pair of figures includes getting the file to
    // the disk (sync after the copy or the save).
    for (int i = 0; i < packets; ++i)
        kel_clip_packet_set_gain(clip, i, 0.5f, &err);
    const std::string copied = folder + "/copy.wav";
    const double t_ffvol = time_command("ffmpeg -y -v error -i " + source + " -af volume=0.5 " + folder + "/ff.wav");
    const double t_sox = time_command("sox " + source + " " + folder + "/sox.wav vol 0.5");
    std::remove((folder + "/ff.wav").c_str());
    std::remove((folder + "/sox.wav").c_str());
    double t_cp = 1e9;
    double t_save = 1e9;
    int save_err = 0;
    for (int round = 0; round < 3; ++round) {
        sync();
        t_cp = std::min(t_cp, time_command("cp " + source + " " + copied));
        std::remove(copied.c_str());
        sync();
        start = Clock::now();
        kel_clip_save_to(clip, saved.c_str(), nullptr, 0, nullptr, 0, &save_err, nullptr);
        t_save = std::min(t_save, seconds_since(start));
        std::remove(saved.c_str());
    }
    sync();
    const double t_cp_disk = time_command("cp " + source + " " + copied + " && sync");
    std::remove(copied.c_str());
    sync();
    start = Clock::now();
    kel_clip_save_to(clip, saved.c_str(), nullptr, 0, nullptr, 0, &save_err, nullptr);
    sync();
    const double t_save_disk = seconds_since(start);
    std::remove(saved.c_str());
    std::printf("save, gain 0.5:  %8.3f s  (err %d, %.2fx cp)   cp %.3f s, ffmpeg -af volume %.3f s, sox vol %.3f s\n",
                t_save, save_err, t_save / t_cp, t_cp, t_ffvol, t_sox);
    std::printf("  to the disk:   %8.3f s  (%.2fx)   cp + sync %.3f s\n", t_save_disk, t_save_disk / t_cp_disk,
                t_cp_disk);

    // Overview: the first one decodes every packet to build the caches, so
    // each round draws a freshly opened clip.
    double t_null = 1e9;
    double t_first = 1e9;
    double t_redraw = 1e9;
    std::vector<float> points(2 * 2000);
    for (int round = 0; round < 3; ++round) {
        t_null = std::min(t_null, time_command("ffmpeg -v error -i " + source + " -f null -"));
        kel_clip_t* fresh = kel_clip_open(source.c_str(), &err, nullptr);
        kel_overview_t* overview = kel_clip_overview_create(fresh, nullptr);
        start = Clock::now();
        kel_overview_generate(overview, 0, packets - 1, 2000, 0, points.data(), &err);
        t_first = std::min(t_first, seconds_since(start));
        start = Clock::now();
        kel_overview_generate(overview, 0, packets - 1, 2000, 0, points.data(), &err);
        t_redraw = std::min(t_redraw, seconds_since(start));
        kel_clip_overview_destroy(overview);
        kel_clip_close(fresh, nullptr);
    }
    std::printf("first overview:  %8.3f s  (%.2fx)   ffmpeg -f null %.3f s\n", t_first, t_first / t_null, t_null);
    std::printf("redraw overview: %8.3f ms\n", t_redraw * 1e3);

    // Editing the whole hour: copy it, cut a quarter out, insert the copy;
    // the cut piece goes back where it was so each round starts alike.
    double t_copy = 1e9;
    double t_cut = 1e9;
    double t_insert = 1e9;
    double t_info = 1e9;
    kel_clip_t* copy = nullptr;
    kel_clip_t* cut = nullptr;
    for (int round = 0; round < 3; ++round) {
        start = Clock::now();
        copy = kel_clip_copy(clip, 0, packets - 1, &err);
        t_copy = std::min(t_copy, seconds_since(start));
        start = Clock::now();
        cut = kel_clip_cut(clip, packets / 4, packets / 2, &err);
        t_cut = std::min(t_cut, seconds_since(start));
        start = Clock::now();
        kel_clip_insert(clip, packets / 8, copy, &err);
        t_insert = std::min(t_insert, seconds_since(start));
        // The stream statistics are recomputed on the first read after edits.
        _kel_clip_info_t info{};
        start = Clock::now();
        kel_clip_info(clip, &info);
        t_info = std::min(t_info, seconds_since(start));
        kel_clip_close(copy, nullptr);
        kel_clip_close(cut, nullptr);
        kel_clip_close(clip, nullptr);
        clip = kel_clip_open(source.c_str(), &err, nullptr);
    }
    std::printf("copy %.3f ms, cut %.3f ms, insert %.3f ms; first info after the edits %.3f ms\n", t_copy * 1e3,
                t_cut * 1e3, t_insert * 1e3, t_info * 1e3);

    kel_clip_close(clip, nullptr);
    std::remove(source.c_str());
    if (argc <= 2)
        rmdir(folder.c_str());
    return 0;
}
