#include "mp3fixtures.h"

#include "mp3/mp3framegain.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

extern char** environ;

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

int run_tool(const std::vector<std::string>& argv)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string encode_test_mp3(const ScratchDir& dir, const std::string& name, int sample_rate,
                            int channels, const std::vector<std::string>& lame_options)
{
    const std::string wav = dir.path(name + ".wav");
    const std::string mp3 = dir.path(name + ".mp3");
    // Left a chord, right pink noise (mono: the chord), behind 0.2 s of
    // silence and with a fade, so that silent, quiet and loud granules occur.
    std::vector<std::string> sox = {"sox", "-n", "-r", std::to_string(sample_rate), "-c",
                                    std::to_string(channels), "-b", "16", wav, "synth", "1.5",
                                    "sine", "330"};
    if (channels == 2)
        sox.push_back("pinknoise");
    for (const char* s : {"gain", "-8", "pad", "0.2", "fade", "t", "0.1", "1.7", "0.6"})
        sox.push_back(s);
    if (run_tool(sox) != 0)
        return "";
    std::vector<std::string> lame = {"lame", "--quiet"};
    lame.insert(lame.end(), lame_options.begin(), lame_options.end());
    lame.push_back(wav);
    lame.push_back(mp3);
    return run_tool(lame) == 0 ? mp3 : "";
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
    walk.audio_start = pos;
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

} // namespace test
} // namespace KEL
