#include "api/formatdispatch.h"
#include "common/oracle.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace KEL {
namespace test {

void ClipCloser::operator()(Clip* clip) const
{
    if (clip != nullptr) {
        clip->close(nullptr);
        delete clip;
    }
}

ClipPtr open_clip(const std::string& path, int& err)
{
    return ClipPtr(FormatDispatch::standard().open(path.c_str(), &err, nullptr));
}

Samples decode_clip(Clip& clip, float gain)
{
    Samples s;
    for (int i = 0; i < clip.packet_count; ++i) {
        const int n = clip.packet_frame_count(i, nullptr);
        // Filled with a value no decoder produces, so that gaps show.
        std::vector<float> l(static_cast<size_t>(n), 7.0f), r(static_cast<size_t>(n), 7.0f);
        float* out[2] = {l.data(), r.data()};
        int err = 0;
        EXPECT_EQ(clip.packet_decode_play(i, out, &err, gain), n) << "packet " << i;
        EXPECT_EQ(err, 0) << "packet " << i;
        s.left.insert(s.left.end(), l.begin(), l.end());
        s.right.insert(s.right.end(), r.begin(), r.end());
    }
    return s;
}

uint32_t bits_of(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

::testing::AssertionResult same_bits(const std::vector<float>& got, const std::vector<float>& want)
{
    if (got.size() < want.size())
        return ::testing::AssertionFailure() << "only " << got.size() << " of " << want.size() << " samples";
    for (size_t i = 0; i < want.size(); ++i) {
        if (bits_of(got[i]) != bits_of(want[i]))
            return ::testing::AssertionFailure() << "sample " << i << ": " << got[i] << " != " << want[i];
    }
    return ::testing::AssertionSuccess();
}

Samples split(const Decoded& d)
{
    Samples s;
    for (size_t f = 0; f < d.frames(); ++f) {
        s.left.push_back(d.samples[f * static_cast<size_t>(d.channels)]);
        s.right.push_back(d.samples[f * static_cast<size_t>(d.channels) + (d.channels > 1 ? 1 : 0)]);
    }
    return s;
}

std::vector<int32_t> integers(const Decoded& d, int bits)
{
    const double scale = bits == 16 ? 32768.0 : 8388608.0;
    std::vector<int32_t> v;
    for (float f : d.samples)
        v.push_back(static_cast<int32_t>(static_cast<double>(f) * scale));
    return v;
}

bool ffmpeg_decode(const std::string& path, Decoded& out, const std::vector<std::string>& input_options)
{
    Probe probe;
    if (!ffprobe(path, probe) || probe.channels <= 0)
        return false;
    const std::string raw = scratch().path("ffmpeg-decoded.f32");
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
    argv.insert(argv.end(), input_options.begin(), input_options.end());
    argv.insert(argv.end(), {"-i", path, "-f", "f32le", "-c:a", "pcm_f32le", raw});
    if (run_tool(argv) != 0)
        return false;
    const Bytes bytes = read_file(raw);
    std::remove(raw.c_str());
    out.channels = probe.channels;
    out.samples.resize(bytes.size() / 4);
    if (!out.samples.empty())
        std::memcpy(out.samples.data(), bytes.data(), out.samples.size() * 4);
    return true;
}

Samples ffmpeg_frames(const std::string& path, const std::vector<std::string>& input_options)
{
    Decoded d;
    EXPECT_TRUE(ffmpeg_decode(path, d, input_options)) << path;
    return split(d);
}

bool ffmpeg_decodes_cleanly(const std::string& path)
{
    return run_tool({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path, "-f", "null", "-"}) == 0;
}

bool ffprobe(const std::string& path, Probe& out)
{
    const std::string text = scratch().path("ffprobe.txt");
    const int rc = run_tool({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                             "stream=codec_name,sample_rate,channels,bits_per_sample,duration_ts", "-of",
                             "default=noprint_wrappers=1", path},
                            text);
    const Bytes bytes = read_file(text);
    std::remove(text.c_str());
    if (rc != 0)
        return false;
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    for (std::string line; std::getline(lines, line);) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq);
        const char* value = line.c_str() + eq + 1;
        if (key == "codec_name")
            out.codec = value;
        else if (key == "sample_rate")
            out.sample_rate = std::atoi(value);
        else if (key == "channels")
            out.channels = std::atoi(value);
        else if (key == "bits_per_sample")
            out.bits = std::atoi(value);
        else if (key == "duration_ts")
            out.frames = std::atoll(value);
    }
    return !out.codec.empty();
}

double probe_duration(const std::string& path)
{
    return std::atof(
        capture({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path}).c_str());
}

std::vector<ProbePacket> probe_packets(const std::string& path)
{
    std::istringstream lines(capture({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                                      "packet=pos,size,duration", "-of", "compact", path}));
    std::vector<ProbePacket> out;
    // Lines such as "packet|duration=1024|size=338|pos=44".
    for (std::string line, field; std::getline(lines, line);) {
        if (line.compare(0, 7, "packet|") != 0)
            continue;
        ProbePacket p;
        std::istringstream fields(line);
        while (std::getline(fields, field, '|')) {
            const long long value = std::atoll(field.c_str() + field.find('=') + 1);
            if (field.compare(0, 4, "pos=") == 0)
                p.pos = value;
            else if (field.compare(0, 5, "size=") == 0)
                p.size = static_cast<int>(value);
            else if (field.compare(0, 9, "duration=") == 0)
                p.duration = static_cast<int>(value);
        }
        out.push_back(p);
    }
    return out;
}

std::vector<Bytes> packet_bytes(const std::string& path)
{
    const Bytes file = read_file(path);
    std::vector<Bytes> out;
    for (const ProbePacket& p : probe_packets(path)) {
        EXPECT_LE(static_cast<size_t>(p.pos + p.size), file.size());
        out.emplace_back(file.begin() + p.pos, file.begin() + p.pos + p.size);
    }
    return out;
}

std::string test_wave(const std::string& name, int rate, int channels, double seconds)
{
    const std::string wav = scratch().path(name + ".wav");
    if (file_exists(wav))
        return wav;
    std::vector<std::string> sox = {"sox", "-n", "-r", std::to_string(rate), "-c", std::to_string(channels),
                                    "-b", "16", wav, "synth", std::to_string(seconds), "sine", "330"};
    if (channels == 2)
        sox.push_back("pinknoise");
    for (const char* s : {"gain", "-8", "pad", "0.05", "fade", "t", "0.1"})
        sox.push_back(s);
    sox.insert(sox.end(), {std::to_string(seconds + 0.05), "0.3"});
    EXPECT_EQ(run_tool(sox), 0) << name;
    return wav;
}

std::string lame_file(const std::string& name, int rate, int channels, const std::vector<std::string>& options)
{
    const std::string mp3 = scratch().path(name + ".mp3");
    if (file_exists(mp3))
        return mp3;
    std::vector<std::string> lame = {"lame", "--quiet"};
    lame.insert(lame.end(), options.begin(), options.end());
    lame.push_back(test_wave(name, rate, channels));
    lame.push_back(mp3);
    EXPECT_EQ(run_tool(lame), 0) << name;
    return mp3;
}

} // namespace test
} // namespace KEL
