#include "mp3fixtures.h"

#include "mp3/mp3framegain.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace KEL {
namespace test {

void BitWriter::put(unsigned value, int bits)
{
    for (int i = bits - 1; i >= 0; --i) {
        if (bits_ % 8 == 0)
            bytes_.push_back(0);
        if ((value >> i) & 1u)
            bytes_.back() |= static_cast<unsigned char>(0x80u >> (bits_ % 8));
        ++bits_;
    }
}

unsigned read_field(const Bytes& b, size_t pos, int n)
{
    unsigned v = 0;
    for (int i = 0; i < n; ++i, ++pos)
        v = (v << 1) | ((b.at(pos / 8) >> (7 - pos % 8)) & 1u);
    return v;
}

void write_field(Bytes& b, size_t pos, int n, unsigned value)
{
    for (int i = n - 1; i >= 0; --i, ++pos) {
        const unsigned char bit = static_cast<unsigned char>(0x80u >> (pos % 8));
        if ((value >> i) & 1u)
            b.at(pos / 8) |= bit;
        else
            b.at(pos / 8) &= static_cast<unsigned char>(~bit);
    }
}

FrameWalk walk_frames(const Bytes& file)
{
    FrameWalk walk;
    size_t pos = 0;
    if (file.size() >= 10 && std::memcmp(file.data(), "ID3", 3) == 0) {
        // Tag size: four bytes of 7 bits each, after the 10-byte tag header.
        pos = 10 + ((size_t(file[6] & 0x7F) << 21) | (size_t(file[7] & 0x7F) << 14) |
                    (size_t(file[8] & 0x7F) << 7) | size_t(file[9] & 0x7F));
    }
    while (pos + 4 <= file.size()) {
        FrameAt f;
        f.offset = pos;
        if (!decode_header(mpeg_header_word(&file[pos]), &f.header) ||
            pos + static_cast<size_t>(f.header.frame_length) > file.size())
            break;
        walk.frames.push_back(f);
        pos += static_cast<size_t>(f.header.frame_length);
    }
    walk.stop = pos;
    if (!walk.frames.empty()) {
        // The information frame carries its tag right after the side
        // information, with or without a CRC word before it.
        const FrameAt& first = walk.frames.front();
        const size_t side = static_cast<size_t>(
            mpeg_side_info_size(first.header.version == 1, first.header.stereo == 0));
        for (size_t at : {first.offset + 4 + side, first.offset + 6 + side}) {
            if (at + 4 <= file.size() &&
                (std::memcmp(&file[at], "Xing", 4) == 0 || std::memcmp(&file[at], "Info", 4) == 0)) {
                walk.frames.erase(walk.frames.begin());
                break;
            }
        }
    }
    return walk;
}

Bytes frame_bytes(const Bytes& file, const FrameAt& f)
{
    return Bytes(file.begin() + long(f.offset), file.begin() + long(f.offset + size_t(f.header.frame_length)));
}

SideInfo parse_side_info(const Bytes& f)
{
    SideInfo s;
    const bool mpeg1 = read_field(f, 11, 2) == 3;
    const int nch = read_field(f, 24, 2) == 3 ? 1 : 2;
    s.protection_absent = read_field(f, 15, 1) == 1;
    size_t pos = s.protection_absent ? 32 : 48;
    s.main_data_begin = int(read_field(f, pos, mpeg1 ? 9 : 8));
    pos += mpeg1 ? 9 : 8;
    pos += mpeg1 ? (nch == 1 ? 5 : 3) : nch; // private bits
    if (mpeg1)
        pos += 4 * nch; // scfsi
    for (int gr = 0; gr < (mpeg1 ? 2 : 1); ++gr) {
        for (int ch = 0; ch < nch; ++ch) {
            s.part2_3_bits += int(read_field(f, pos, 12));
            pos += 12 + 9; // part2_3_length, big_values
            s.gain_bits.push_back(pos);
            pos += 8 + (mpeg1 ? 4 : 9); // global_gain, scalefac_compress
            const bool window_switching = read_field(f, pos, 1) != 0;
            pos += 1;
            pos += window_switching ? 2 + 1 + 2 * 5 + 3 * 3 // block type, mixed, tables, subblock gains
                                    : 3 * 5 + 4 + 3;        // tables, region counts
            pos += (mpeg1 ? 1 : 0) + 1 + 1; // preflag, scalefac_scale, count1table_select
        }
    }
    s.static_bytes = int((pos + 7) / 8);
    return s;
}

// The data byte is placed above the register and both are shifted together.
unsigned reference_crc(const Bytes& f, int static_bytes)
{
    unsigned crc = 0xFFFF;
    auto fold = [&crc](unsigned value) {
        value <<= 8;
        for (int i = 0; i < 8; ++i) {
            value <<= 1;
            crc <<= 1;
            if ((crc ^ value) & 0x10000)
                crc ^= 0x8005;
        }
        crc &= 0xFFFF;
    };
    fold(f[2]);
    fold(f[3]);
    for (int i = 6; i < static_bytes; ++i)
        fold(f[size_t(i)]);
    return crc;
}

Bytes adjusted(const Bytes& frame, float gain, int* status)
{
    Bytes b = frame;
    b.push_back(0xA5);
    Bitstream bs(b.data(), int(frame.size()));
    const int st = adjust_gain(bs, gain);
    if (status != nullptr)
        *status = st;
    EXPECT_EQ(b.back(), 0xA5);
    b.pop_back();
    return b;
}

Bytes expected_after(const Bytes& frame, int steps)
{
    Bytes b = frame;
    const SideInfo s = parse_side_info(frame);
    for (size_t at : s.gain_bits) {
        const int g = int(read_field(frame, at, 8));
        if (g != 0)
            test::write_field(b, at, 8, unsigned(std::min(255, std::max(0, g + steps))));
    }
    if (!s.protection_absent) {
        const unsigned crc = reference_crc(b, s.static_bytes);
        b[4] = static_cast<unsigned char>(crc >> 8);
        b[5] = static_cast<unsigned char>(crc);
    }
    return b;
}

float gain_for_steps(int n)
{
    return float(std::pow(2.0, (n + (n < 0 ? -0.5 : 0.5)) / 4.0));
}

const std::vector<LameStream>& lame_streams()
{
    static const std::vector<LameStream> all = {
        {"cbr128", 44100, 2, {"-b", "128"}, 1, KELClipStereoModeJointStereo, 1, 1152, false},
        {"vbr", 44100, 2, {"-V2"}, 1, KELClipStereoModeJointStereo, 2, 1152, false},
        {"mono", 44100, 1, {"-b", "64", "-m", "m"}, 1, KELClipStereoModeSingleChannel, 1, 1152, false},
        {"mpeg2", 22050, 2, {"-b", "64", "-m", "s"}, 2, KELClipStereoModeStereo, 1, 576, false},
        {"mpeg25", 8000, 1, {"-b", "16"}, 3, KELClipStereoModeSingleChannel, 1, 576, false},
        {"crc", 44100, 2, {"-b", "160", "-p", "-m", "d"}, 1, KELClipStereoModeDualChannel, 1, 1152, true},
        {"crc_mpeg2_mono", 16000, 1, {"-p", "-m", "m", "-b", "32"}, 2, KELClipStereoModeSingleChannel, 1, 576, true},
        {"id3", 44100, 2, {"-b", "128", "--id3v2-only", "--tt", "KEL"}, 1, KELClipStereoModeJointStereo, 1, 1152, false},
        {"noxing", 44100, 2, {"-b", "96", "--resample", "44.1", "-t"}, 1, KELClipStereoModeJointStereo, 1, 1152, false},
    };
    return all;
}

const LameStream& lame_stream(const std::string& name)
{
    for (const LameStream& s : lame_streams())
        if (name == s.name)
            return s;
    throw std::runtime_error(name);
}

std::string stream_file(const LameStream& s)
{
    return lame_file(s.name, s.rate, s.channels, s.options);
}

Samples ffmpeg_mp3_frames(const std::string& path)
{
    return ffmpeg_frames(path, {"-flags2", "+skip_manual"});
}

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

} // namespace test
} // namespace KEL
