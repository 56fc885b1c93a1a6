// Test helpers for the MP3 frame code: an MSB-first bit writer and a
// bit-by-bit reader written independently of KEL::Bitstream, a scratch
// folder, peer tools (sox, lame, mp3gain) run without a shell, and a small
// frame walker that cuts an MP3 file into frames.
#ifndef KEL_TESTS_MP3_MP3FIXTURES_H
#define KEL_TESTS_MP3_MP3FIXTURES_H

#include "common/testsupport.h"
#include "mp3/mpegheader.h"

#include <cstddef>
#include <string>
#include <vector>

namespace KEL {
namespace test {

using Bytes = std::vector<unsigned char>;

// Appends fields most significant bit first.
class BitWriter {
public:
    void put(unsigned value, int bits);
    // Pads the last byte with zero bits.
    Bytes finish() const { return bytes_; }
    size_t bit_count() const { return bits_; }

private:
    Bytes bytes_;
    size_t bits_ = 0;
};

// The n-bit field (n <= 32) starting at bit `pos` of b, bit 0 being the most
// significant bit of b[0].
unsigned read_field(const Bytes& b, size_t pos, int n);
void write_field(Bytes& b, size_t pos, int n, unsigned value);

// A folder made with mkdtemp, removed with its contents when the object goes.
using ScratchDir = TempFolder;

// Runs argv[0] from PATH with stdin, stdout and stderr on /dev/null; the
// exit status, or -1 when it could not run.
int run_tool(const std::vector<std::string>& argv);

Bytes read_file(const std::string& path);
void write_file(const std::string& path, const Bytes& bytes);

// Encodes a 1.5-second test signal (a chord plus pink noise, quiet
// passages included so that granules of very different loudness occur) at
// the sample rate and channel count with lame and the extra lame options.
// Returns the MP3 file's path in dir, or "" when sox or lame failed.
std::string encode_test_mp3(const ScratchDir& dir, const std::string& name, int sample_rate,
                            int channels, const std::vector<std::string>& lame_options);

// One frame of a file: where it starts, its decoded header.
struct FrameAt {
    size_t offset = 0;
    mpeg_frame_t header{};
};

// The audio frames of an MP3 file: an ID3v2 tag at the start is skipped,
// then frames are followed by their lengths from the first sync; the first
// frame is dropped when it is a "Xing"/"Info" information frame. Walking
// stops at the first position that holds no valid header or where the
// frame would run past the end; `stop` says where.
struct FrameWalk {
    std::vector<FrameAt> frames;
    size_t audio_start = 0; // first byte after the tag
    size_t stop = 0;
};
FrameWalk walk_frames(const Bytes& file);

// ---- Layer III side information, read independently of KEL ----

struct SideInfo {
    bool protection_absent = true;
    int main_data_begin = 0;
    int static_bytes = 0;          // header, CRC word and side information
    std::vector<size_t> gain_bits; // bit position of each global_gain
    int part2_3_bits = 0;          // sum of part2_3_length
};

// Field by field, as the audio standards lay the side information out.
SideInfo parse_side_info(const Bytes& frame);

// CRC-16 of MPEG audio over header bytes 2 and 3 and the side information
// (bytes 6 .. static_bytes - 1), written the way the reference encoders do.
unsigned reference_crc(const Bytes& frame, int static_bytes);

// KEL's adjust_gain over a copy of the frame (held with one spare byte,
// which must stay untouched); its status in *status when given.
Bytes adjusted(const Bytes& frame, float gain, int* status = nullptr);

// What adjust_gain must produce: each nonzero global_gain moved by `steps`
// and clamped to 0..255, and a fresh CRC for a protected frame.
Bytes expected_after(const Bytes& frame, int steps);

} // namespace test
} // namespace KEL

#endif
