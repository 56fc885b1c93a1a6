// Test helpers for the MP3 code: an MSB-first bit writer and field access
// written independently of KEL::Bitstream, a frame walker and a Layer III
// side-information parser written from the standards, the reference CRC,
// the lame streams every MP3 test uses, and a handle that reads short.
#ifndef KEL_TESTS_MP3_MP3FIXTURES_H
#define KEL_TESTS_MP3_MP3FIXTURES_H

#include "common/oracle.h"
#include "core/bshandle.h"
#include "mp3/mpegheader.h"

#include <ostream>
#include <string>
#include <vector>

namespace KEL {
namespace test {

// Appends fields most significant bit first; the last byte is padded with
// zero bits.
class BitWriter {
public:
    void put(unsigned value, int bits);
    const Bytes& bytes() const { return bytes_; }

private:
    Bytes bytes_;
    size_t bits_ = 0;
};

// The n-bit field (n <= 32) starting at bit pos of b, bit 0 being the most
// significant bit of b[0].
unsigned read_field(const Bytes& b, size_t pos, int n);
void write_field(Bytes& b, size_t pos, int n, unsigned value);

// The audio frames of an MP3 file: an ID3v2 tag at the start is skipped,
// then frames are followed by their lengths from the first sync; the first
// frame is dropped when it is a "Xing"/"Info" information frame. Walking
// stops at the first position that holds no valid header or where the
// frame would run past the end; stop says where.
struct FrameAt {
    size_t offset = 0;
    mpeg_frame_t header{};
};
struct FrameWalk {
    std::vector<FrameAt> frames;
    size_t stop = 0;
};
FrameWalk walk_frames(const Bytes& file);
Bytes frame_bytes(const Bytes& file, const FrameAt& f);

// Layer III side information, field by field as the standards lay it out.
struct SideInfo {
    bool protection_absent = true;
    int main_data_begin = 0;
    int static_bytes = 0;          // header, CRC word and side information
    std::vector<size_t> gain_bits; // bit position of each global_gain
    int part2_3_bits = 0;          // sum of part2_3_length
};
SideInfo parse_side_info(const Bytes& frame);

// CRC-16 of MPEG audio over header bytes 2 and 3 and the side information,
// written the way the reference encoders do it.
unsigned reference_crc(const Bytes& frame, int static_bytes);

// KEL's adjust_gain over a copy of the frame (held with one spare byte,
// which must stay untouched); its status in *status when given.
Bytes adjusted(const Bytes& frame, float gain, int* status = nullptr);
// What adjust_gain must produce: each nonzero global_gain moved by steps
// and clamped to 0..255, and a fresh CRC for a protected frame.
Bytes expected_after(const Bytes& frame, int steps);
// A gain halfway between n and n + 1 steps of 2^(1/4) away from 1, so that
// it lands on n steps whatever the rounding of the last bits.
float gain_for_steps(int n);

// A stream lame makes of test_wave(), and what a clip must make of it.
struct LameStream {
    const char* name;
    int rate, channels;
    std::vector<std::string> options;
    int mpeg_version, stereo_mode, rate_mode, frames;
    bool protected_frames;
};
inline void PrintTo(const LameStream& s, std::ostream* os)
{
    *os << s.name;
}
const std::vector<LameStream>& lame_streams();
const LameStream& lame_stream(const std::string& name);
std::string stream_file(const LameStream& s);
// ffmpeg's decode of every frame, its gapless trimming off.
Samples ffmpeg_mp3_frames(const std::string& path);

// A handle on a frame of which only the first readable bytes can be read
// back, as from a damaged backing store.
class ShortHandle : public BSHandle {
public:
    ShortHandle(const Bytes& frame, int readable);
    int get_bytes(void* dest, int size) override;

private:
    Bytes frame_;
    int readable_;
};

} // namespace test
} // namespace KEL

#endif
