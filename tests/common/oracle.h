// Clips as the tests handle them, and the peer tools (ffmpeg, ffprobe, sox,
// lame) as oracles: what ffprobe demuxes and ffmpeg decodes is what KEL's
// readers must find. The tools must be installed: a missing tool fails.
#ifndef KEL_TESTS_COMMON_ORACLE_H
#define KEL_TESTS_COMMON_ORACLE_H

#include "common/testsupport.h"
#include "core/clip.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace KEL {
namespace test {

// Closes and deletes a clip.
struct ClipCloser {
    void operator()(Clip* clip) const;
};
using ClipPtr = std::unique_ptr<Clip, ClipCloser>;

// FormatDispatch::standard().open with the code in err.
ClipPtr open_clip(const std::string& path, int& err);

// Two lanes of float samples, mono counting as both: the working form.
struct Samples {
    std::vector<float> left, right;
};
// Every packet decoded in order through packet_decode_play (gain as given,
// -1.0 for the packets' own); each must fill its frame count without error.
Samples decode_clip(Clip& clip, float gain = -1.0f);

uint32_t bits_of(float f);
// got[i] == want[i] bit for bit for every i of want.
::testing::AssertionResult same_bits(const std::vector<float>& got, const std::vector<float>& want);

// Samples as ffmpeg decodes them: interleaved 32-bit floats.
struct Decoded {
    int channels = 0;
    std::vector<float> samples;
    size_t frames() const { return channels > 0 ? samples.size() / static_cast<size_t>(channels) : 0; }
};
// The first two channels of a decoded file, mono counting as both.
Samples split(const Decoded& d);
// The integers behind a decoded file of 16 or 24 bits (ffmpeg's float is
// the integer over 2^(bits-1), exactly).
std::vector<int32_t> integers(const Decoded& d, int bits);
// Decodes path with ffmpeg to f32le at the file's own rate and channel
// count; input_options go before "-i". False when ffmpeg refuses the file.
bool ffmpeg_decode(const std::string& path, Decoded& out, const std::vector<std::string>& input_options = {});
// Every frame of a coded stream, nothing trimmed (MP3: "-flags2
// +skip_manual"; MPEG-4: "-ignore_editlist 1"), split in two lanes.
Samples ffmpeg_frames(const std::string& path, const std::vector<std::string>& input_options);
// ffmpeg decodes the whole file without an error.
bool ffmpeg_decodes_cleanly(const std::string& path);

// What ffprobe reports for the first audio stream.
struct Probe {
    std::string codec;
    int sample_rate = 0;
    int channels = 0;
    int bits = 0;
    long long frames = 0; // duration_ts: frames for PCM
};
bool ffprobe(const std::string& path, Probe& out);
double probe_duration(const std::string& path);

// The audio packets as ffprobe demuxes them.
struct ProbePacket {
    long long pos = 0;
    int size = 0;
    int duration = 0;
};
std::vector<ProbePacket> probe_packets(const std::string& path);
std::vector<Bytes> packet_bytes(const std::string& path);

// A WAVE file made by sox in the scratch folder (once per name): a 330 Hz
// sine on the left and pink noise on the right (the sine alone for one
// channel), behind 0.05 s of silence and with a fade, so that silent, quiet
// and loud stretches occur and an MP3 encoder uses its bit reservoir.
std::string test_wave(const std::string& name, int rate, int channels, double seconds = 1.5);
// test_wave encoded by lame with the options (once per name).
std::string lame_file(const std::string& name, int rate, int channels, const std::vector<std::string>& options);

} // namespace test
} // namespace KEL

#endif
