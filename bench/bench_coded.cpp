// Coded-format benchmark: MP3, AAC and Apple Lossless files of a given
// length (made here with lame and ffmpeg from a generated WAVE) opened,
// drawn, gained and saved, and the WAVE transcoded into each, every figure
// beside the peer tool's time for the same job in the same run. The first
// overview is set beside ffmpeg decoding to nothing twice: as ffmpeg runs
// by default and with the bit-exact flag, which our codec layer sets.
//
// usage: bench_coded [minutes] [folder] [only] [repeats]
//   folder   where the files go; "-" or none: a new folder under $TMPDIR
//   only     run the cases whose name contains this ("AAC", "MP3", "ALAC")
//   repeats  every figure, ours and the peers', is the best of this many
//            runs (default 1); a first overview reopens the clip each time
#include "kel.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs of every figure; each figure is the best of them.
int repeats = 1;

double run_once(const std::string& command)
{
    const auto start = Clock::now();
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return status == 0 ? since(start) : -1.0;
}

// The best time of repeats runs, -1 when a run fails.
double run(const std::string& command)
{
    double best = -1.0;
    for (int i = 0; i < repeats; ++i) {
        const double t = run_once(command);
        if (t < 0.0)
            return -1.0;
        best = best < 0.0 ? t : std::min(best, t);
    }
    return best;
}

struct Case {
    const char* name;
    const char* file;
    int format;
    const char* make;       // command making the file from $W (the WAVE) into $F
    const char* encode;     // the peer encoder for the transcode figure
    int bits_or_rate;       // bits for ALAC, bit rate for the others
    // The peer encoder at the settings KEL's encoder uses, where the peer's
    // defaults differ (LAME: KEL encodes at quality 2, lame's default is 3).
    const char* encode_alike = nullptr;
};

std::string fill(std::string text, const std::string& wave, const std::string& file)
{
    for (size_t at; (at = text.find("$W")) != std::string::npos;)
        text.replace(at, 2, wave);
    for (size_t at; (at = text.find("$F")) != std::string::npos;)
        text.replace(at, 2, file);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc > 1 ? std::atof(argv[1]) : 60.0;
    const char* tmp = std::getenv("TMPDIR");
    const bool own_folder = argc <= 2 || std::string(argv[2]) == "-";
    std::string folder = own_folder ? std::string(tmp != nullptr ? tmp : "/tmp") + "/kel-bench-XXXXXX" : argv[2];
    if (own_folder && mkdtemp(&folder[0]) == nullptr)
        return 1;
    // A folder that is named but not there yet is made (one level).
    if (!own_folder && mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        std::perror(folder.c_str());
        return 1;
    }
    const std::string only = argc > 3 ? argv[3] : "";
    repeats = argc > 4 ? std::max(1, std::atoi(argv[4])) : 1;
    const std::string wave = folder + "/source.wav";
    const std::string seconds = std::to_string(static_cast<int>(minutes * 60.0));
    std::printf("making %s s of stereo 44.1 kHz audio in %s\n", seconds.c_str(), folder.c_str());
    if (run_once("ffmpeg -y -v error -f lavfi -i \"sine=frequency=220:sample_rate=44100:duration=" + seconds +
            "\" -f lavfi -i \"anoisesrc=color=pink:sample_rate=44100:amplitude=0.1:duration=" + seconds +
            "\" -filter_complex \"[0][1]amix=inputs=2,aformat=channel_layouts=stereo\" -c:a pcm_s16le " + wave) < 0) {
        std::fprintf(stderr, "cannot make the source\n");
        return 1;
    }

    const Case cases[] = {
        {"MP3 128 kb/s", "f.mp3", KEL_FORMAT_MP3, "lame --quiet -b 128 $W $F", "lame --quiet -b 128 $W $F", 128000,
         "lame --quiet -q 2 -b 128 $W $F"},
        {"AAC 128 kb/s", "f.m4a", KEL_FORMAT_AAC, "ffmpeg -y -v error -i $W -c:a aac -b:a 128k $F",
         "ffmpeg -y -v error -i $W -c:a aac -b:a 128k $F", 128000},
        {"ALAC 16 bit", "a.m4a", KEL_FORMAT_ALAC, "ffmpeg -y -v error -i $W -c:a alac $F",
         "ffmpeg -y -v error -i $W -c:a alac $F", 16},
    };
    int err = 0;
    kel_clip_t* source = kel_clip_open(wave.c_str(), &err, nullptr);
    for (const Case& c : cases) {
        if (std::string(c.name).find(only) == std::string::npos)
            continue;
        const std::string file = folder + "/" + c.file;
        if (run_once(fill(c.make, wave, file)) < 0) {
            std::printf("%s: cannot make the file\n", c.name);
            continue;
        }
        std::printf("\n%s\n", c.name);
        const double t_probe = run("ffprobe -v error -count_packets -show_entries stream=nb_read_packets " + file);
        auto start = Clock::now();
        kel_clip_t* clip = kel_clip_open(file.c_str(), &err, nullptr);
        const double t_open = since(start);
        if (clip == nullptr) {
            std::printf("  open failed: %d\n", err);
            continue;
        }
        const int packets = kel_clip_packet_count(clip);
        std::printf("  open           %7.3f s (%d packets)   ffprobe -count_packets %.3f s\n", t_open, packets, t_probe);

        const double t_null = run("ffmpeg -threads 1 -v error -i " + file + " -f null -");
        const double t_exact = run("ffmpeg -flags bitexact -threads 1 -v error -i " + file + " -f null -");
        std::vector<float> out(2 * 2000);
        double t_overview = -1.0;
        for (int i = 0; i < repeats; ++i) {
            // A fresh clip, whose packets have no overview caches yet.
            if (i > 0) {
                kel_clip_close(clip, nullptr);
                clip = kel_clip_open(file.c_str(), &err, nullptr);
                if (clip == nullptr)
                    break;
            }
            kel_overview_t* overview = kel_clip_overview_create(clip, nullptr);
            start = Clock::now();
            if (overview != nullptr)
                kel_overview_generate(overview, 0, packets - 1, 2000, 0, out.data(), &err);
            const double t = since(start);
            t_overview = t_overview < 0.0 ? t : std::min(t_overview, t);
            kel_clip_overview_destroy(overview);
        }
        std::printf("  first overview %7.3f s   ffmpeg -threads 1 -f null %.3f s, with -flags bitexact %.3f s\n",
                    t_overview, t_null, t_exact);
        if (clip == nullptr)
            continue;

        for (int i = 0; i < packets; ++i)
            kel_clip_packet_set_gain(clip, i, 0.5f, &err);
        const std::string saved = folder + "/saved-" + c.file;
        const double t_cp = run("cp " + file + " " + folder + "/copy");
        double t_save = -1.0;
        for (int i = 0; i < repeats; ++i) {
            start = Clock::now();
            kel_clip_save_to(clip, saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
            const double t = since(start);
            t_save = t_save < 0.0 ? t : std::min(t_save, t);
        }
        std::printf("  save, gain 0.5 %7.3f s (err %d)   cp %.3f s\n", t_save, err, t_cp);
        kel_clip_close(clip, nullptr);

        const double t_peer = run(fill(c.encode, wave, folder + "/peer-" + c.file));
        kel_clip_t* target = kel_clip_create(c.format, 2, 44100.0f, c.bits_or_rate, c.bits_or_rate, 0, &err);
        if (source != nullptr && target != nullptr) {
            double t_transcode = -1.0;
            for (int i = 0; i < repeats; ++i) {
                start = Clock::now();
                kel_clip_t* result =
                    kel_clip_transcode(target, source, 0, kel_clip_packet_count(source) - 1, &err, nullptr);
                const double t = since(start);
                t_transcode = t_transcode < 0.0 ? t : std::min(t_transcode, t);
                if (result != nullptr)
                    kel_clip_close(result, nullptr);
            }
            std::printf("  transcode WAVE %7.3f s (err %d)   peer encoder %.3f s", t_transcode, err, t_peer);
            if (c.encode_alike != nullptr)
                std::printf(", at the same settings (%s) %.3f s", c.encode_alike,
                            run(fill(c.encode_alike, wave, folder + "/peer-" + c.file)));
            std::printf("\n");
        }
        if (target != nullptr)
            kel_clip_close(target, nullptr);
        for (const std::string& f : {file, saved, folder + "/copy", folder + "/peer-" + c.file})
            std::remove(f.c_str());
    }
    if (source != nullptr)
        kel_clip_close(source, nullptr);
    std::remove(wave.c_str());
    if (own_folder)
        rmdir(folder.c_str());
    return 0;
}
