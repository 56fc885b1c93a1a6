// Test helpers for the PCM formats: peer tools (ffmpeg, ffprobe, sox) run
// as oracles without a shell, private temporary folders, whole-file byte
// access, and a small chunk model for splicing and hand-building container
// files. The tools must be installed: a missing tool is a test failure.
#ifndef KEL_TESTS_PCM_ORACLE_H
#define KEL_TESTS_PCM_ORACLE_H

#include "core/clip.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KEL {
namespace test {

using Bytes = std::vector<unsigned char>;

// ---- clips ----

// Closes and deletes a clip.
struct ClipCloser {
    void operator()(Clip* clip) const;
};
using ClipPtr = std::unique_ptr<Clip, ClipCloser>;

// Clip::open with the code in err.
ClipPtr open_clip(const std::string& path, int& err);

// Every packet of a clip decoded in order through packet_decode_play (gain
// as given, -1.0 for the packets' own); each packet must decode to its full
// frame count without an error.
struct Samples {
    std::vector<float> left, right;
};
Samples decode_clip(Clip& clip, float gain = -1.0f);

uint32_t bits_of(float f);
// got[i] == want[i] bit for bit for every i of want.
::testing::AssertionResult same_bits(const std::vector<float>& got, const std::vector<float>& want);

// A folder made with mkdtemp under $TMPDIR (or /tmp), removed with its
// contents when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& name) const { return root_ + "/" + name; }
    // Names of the entries in the folder (no "." or "..").
    std::vector<std::string> entries() const;

private:
    std::string root_;
};

// Points TMPDIR at a fresh private folder for the life of the object and
// restores the previous value afterwards.
class PrivateTmpdir {
public:
    PrivateTmpdir();
    ~PrivateTmpdir();
    const TempDir& dir() const { return *dir_; }

private:
    TempDir* dir_;
    bool had_old_;
    std::string old_;
};

// Runs argv[0] (looked up in PATH) with the arguments; standard output goes
// to stdout_path when given (else /dev/null), standard error to /dev/null.
// Returns the exit status, or -1 when the program could not be started.
int run_tool(const std::vector<std::string>& argv, const std::string& stdout_path = std::string());

// True when the program runs and exits with status 0 for the argument.
bool tool_runs(const std::string& name, const std::string& arg);

// Samples as ffmpeg decodes them: interleaved 32-bit floats.
struct Decoded {
    int channels = 0;
    std::vector<float> samples;
    size_t frames() const { return channels > 0 ? samples.size() / static_cast<size_t>(channels) : 0; }
    float at(size_t frame, int channel) const { return samples[frame * static_cast<size_t>(channels) + channel]; }
};

// The first two channels of a decoded file, mono counting as both: the
// working form every KEL decoder delivers.
void split(const Decoded& d, std::vector<float>& left, std::vector<float>& right);
// The integers behind a decoded file of 16 or 24 bits (ffmpeg's float is
// the integer over 2^(bits-1), exactly).
std::vector<int32_t> integers(const Decoded& d, int bits);

// Decodes path with ffmpeg to f32le at the file's own rate and channel
// count. False when ffmpeg refuses the file.
bool ffmpeg_decode(const std::string& path, Decoded& out, const std::string& scratch_dir);

// What ffprobe reports for the first audio stream.
struct Probe {
    std::string codec;
    int sample_rate = 0;
    int channels = 0;
    int bits = 0;
    long long frames = 0; // duration_ts: frames for PCM
};

// False when ffprobe refuses the file.
bool ffprobe(const std::string& path, Probe& out, const std::string& scratch_dir);

Bytes read_file(const std::string& path);
void write_file(const std::string& path, const Bytes& bytes);
bool file_exists(const std::string& path);

// Appends integers in a stated byte order, and four-character tags.
struct ByteWriter {
    Bytes bytes;
    ByteWriter& tag(const char* four);
    ByteWriter& le16(uint32_t v);
    ByteWriter& le32(uint32_t v);
    ByteWriter& be16(uint32_t v);
    ByteWriter& be32(uint32_t v);
    ByteWriter& be64(uint64_t v);
    ByteWriter& raw(const Bytes& more);
    ByteWriter& zeros(size_t n);
};

uint32_t get_le32(const Bytes& b, size_t at);
uint16_t get_le16(const Bytes& b, size_t at);

// A chunk of a RIFF file: its id and its body (without the pad byte).
struct Chunk {
    std::string id;
    Bytes body;
};

// Splits a RIFF file into its form type and chunks (a chunk cut off by the
// end of the file keeps the bytes present). False when it is not RIFF.
bool parse_riff(const Bytes& file, std::string& form, std::vector<Chunk>& chunks);
// Builds a RIFF file with pad bytes after odd chunks and a correct size.
Bytes build_riff(const std::string& form, const std::vector<Chunk>& chunks);
// Index of the first chunk with the id, or -1.
int find_chunk(const std::vector<Chunk>& chunks, const std::string& id);

} // namespace test
} // namespace KEL

#endif
