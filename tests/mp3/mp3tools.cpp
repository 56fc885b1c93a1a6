#include "mp3/mp3tools.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace KEL {
namespace test {

ShortHandle::ShortHandle(const Bytes& frame, int readable)
    : BSHandle(static_cast<int>(frame.size())), frame_(frame), readable_(readable)
{
}

int ShortHandle::get_bytes(void* dest, int n)
{
    if (n <= 0 || n > size)
        n = size;
    n = std::min(n, readable_);
    std::memcpy(dest, frame_.data(), static_cast<size_t>(n));
    return n;
}

TempDir& mp3_scratch()
{
    static TempDir dir;
    return dir;
}

std::string capture(const std::vector<std::string>& argv)
{
    const std::string out = mp3_scratch().path("stdout.txt");
    EXPECT_EQ(run_tool(argv, out), 0) << argv[0];
    std::ifstream in(out);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string test_wave(const std::string& name, int rate, int channels, double seconds)
{
    const std::string wav = mp3_scratch().path(name + ".wav");
    if (file_exists(wav))
        return wav;
    std::vector<std::string> sox = {"sox", "-n", "-r", std::to_string(rate), "-c", std::to_string(channels),
                                    "-b", "16", wav, "synth", std::to_string(seconds), "sine", "330"};
    if (channels == 2)
        sox.push_back("pinknoise");
    for (const char* s : {"gain", "-6"})
        sox.push_back(s);
    EXPECT_EQ(run_tool(sox), 0);
    return wav;
}

std::string lame_file(const std::string& name, int rate, int channels, const std::vector<std::string>& options)
{
    const std::string mp3 = mp3_scratch().path(name + ".mp3");
    if (file_exists(mp3))
        return mp3;
    std::vector<std::string> lame = {"lame", "--quiet"};
    lame.insert(lame.end(), options.begin(), options.end());
    lame.push_back(test_wave(name, rate, channels, 2.0));
    lame.push_back(mp3);
    EXPECT_EQ(run_tool(lame), 0);
    return mp3;
}

std::vector<std::pair<long long, int>> probe_frames(const std::string& path)
{
    std::istringstream lines(capture({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                                      "packet=pos,size", "-of", "compact=p=0", path}));
    std::vector<std::pair<long long, int>> frames;
    for (std::string line; std::getline(lines, line);) {
        const size_t size = line.find("size=");
        const size_t pos = line.find("pos=");
        if (size != std::string::npos && pos != std::string::npos)
            frames.emplace_back(std::atoll(line.c_str() + pos + 4), std::atoi(line.c_str() + size + 5));
    }
    return frames;
}

double probe_duration(const std::string& path)
{
    return std::atof(
        capture({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path}).c_str());
}

Samples ffmpeg_all_frames(const std::string& path)
{
    const std::string raw = mp3_scratch().path("decoded.f32");
    const int channels = std::atoi(capture({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                                            "stream=channels", "-of", "csv=p=0", path})
                                       .c_str());
    EXPECT_EQ(run_tool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-flags2", "+skip_manual", "-i", path, "-f",
                        "f32le", raw}),
              0);
    const Bytes bytes = read_file(raw);
    Samples s;
    if (channels < 1 || channels > 2)
        return s;
    const size_t stride = 4 * static_cast<size_t>(channels);
    for (size_t at = 0; at + stride <= bytes.size(); at += stride) {
        float v[2];
        std::memcpy(v, &bytes[at], stride);
        s.left.push_back(v[0]);
        s.right.push_back(v[channels - 1]);
    }
    return s;
}

std::vector<Bytes> frames_of(const std::string& path)
{
    const Bytes file = read_file(path);
    std::vector<Bytes> frames;
    for (const auto& [pos, size] : probe_frames(path)) {
        EXPECT_LE(static_cast<size_t>(pos + size), file.size());
        frames.emplace_back(file.begin() + pos, file.begin() + pos + size);
    }
    return frames;
}

} // namespace test
} // namespace KEL
