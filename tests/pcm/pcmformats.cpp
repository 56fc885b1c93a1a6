#include "pcmformats.h"

#include "core/fourcc.h"
#include "pcm/clipaiff.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"
#include "pcm/pcmpacket.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace KEL {
namespace test {

namespace {

const int kEfms = fourcc("Efms");
const int kEfmu = fourcc("Efmu");

const std::vector<float> kLeft = {-1.0f, 0.5f, 1.0f / 32768};
const std::vector<float> kRight = {32767.0f / 32768, -0.5f, -1.0f / 32768};

void put_pattern(ByteWriter& w, int frames, bool big)
{
    for (int i = 0; i < frames; ++i) {
        for (int c = 0; c < 2; ++c) {
            const uint16_t s = static_cast<uint16_t>(pattern(i, c));
            big ? w.be16(s) : w.le16(s);
        }
    }
}

// An integer rate as an 80-bit extended number: the highest set bit is the
// explicit integer bit, the exponent counts the bits below it.
Bytes extended(uint32_t rate)
{
    int top = 31;
    while ((rate >> top) == 0)
        --top;
    ByteWriter w;
    w.be16(16383u + static_cast<uint32_t>(top)).be64(static_cast<uint64_t>(rate) << (63 - top));
    return w.bytes;
}

uint64_t double_bits(double v)
{
    uint64_t u;
    std::memcpy(&u, &v, 8);
    return u;
}

// ---- WAVE ----

const Bytes kWaveCanonical = {
    'R', 'I', 'F', 'F', 48, 0, 0, 0, 'W', 'A', 'V', 'E', //  0: RIFF, 48 bytes follow, WAVE
    'f', 'm', 't', ' ', 16, 0, 0, 0,                     // 12: "fmt " of 16 bytes
    1, 0, 2, 0,                                          // 20: integer PCM, 2 channels
    0x44, 0xAC, 0, 0, 0x10, 0xB1, 2, 0,                  // 24: 44100 Hz, 176400 bytes/s
    4, 0, 16, 0,                                         // 32: block align 4, 16 bits
    'd', 'a', 't', 'a', 12, 0, 0, 0,                     // 36: "data" of 12 bytes
    0x00, 0x80, 0xFF, 0x7F, 0x00, 0x40, 0x00, 0xC0, 0x01, 0x00, 0xFF, 0xFF, // 44: three frames
};

// "fmt " after "data": two frames of 16-bit mono at 8000 Hz.
const Bytes kWaveFormatLast = {
    'R', 'I', 'F', 'F', 40, 0, 0, 0, 'W', 'A', 'V', 'E', 'd', 'a', 't', 'a', 4, 0, 0, 0, //  0: "data" of 4
    0x00, 0x20, 0x00, 0xE0,                                                             // 20: 8192, -8192
    'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x40, 0x1F, 0, 0,                      // 24: mono, 8000 Hz
    0x80, 0x3E, 0, 0, 2, 0, 16, 0,                                                      // 40
};

// An odd "junk" chunk with its pad byte ahead of the format, and three
// channels of which the decoders read the first two: one frame.
const Bytes kWaveThree = {
    'R', 'I', 'F', 'F', 54, 0, 0, 0, 'W', 'A', 'V', 'E', 'j', 'u', 'n', 'k', 3, 0, 0, 0, 9, 9, 9, 0, //  0
    'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 3, 0, 0x40, 0x1F, 0, 0,                                  // 24: 3 ch
    0x80, 0xBB, 0, 0, 6, 0, 16, 0, 'd', 'a', 't', 'a', 6, 0, 0, 0,                                  // 40
    0x00, 0x10, 0x00, 0x30, 0x00, 0x70,                                                             // 56
};

Bytes wave_stereo16(int frames, uint32_t claimed, bool)
{
    ByteWriter w;
    w.tag("RIFF").le32(36 + claimed).tag("WAVE");
    w.tag("fmt ").le32(16).le16(1).le16(2).le32(44100).le32(176400).le16(4).le16(16);
    w.tag("data").le32(claimed);
    put_pattern(w, frames, false);
    return w.bytes;
}

Bytes wave_header(int channels, int bits, int rate, uint32_t frames, uint32_t extra)
{
    const uint32_t align = static_cast<uint32_t>(channels * bits / 8), data = frames * align;
    ByteWriter w;
    w.tag("RIFF").le32(36 + data + extra).tag("WAVE").tag("fmt ").le32(16).le16(1);
    w.le16(static_cast<uint32_t>(channels)).le32(static_cast<uint32_t>(rate)).le32(static_cast<uint32_t>(rate) * align);
    w.le16(align).le16(static_cast<uint32_t>(bits)).tag("data").le32(data);
    return w.bytes;
}

// An odd LIST, fmt, fact, 150 frames of 16-bit mono, LIST.
Bytes wave_damage_base(size_t& header_bytes)
{
    ByteWriter w;
    w.tag("RIFF").le32(0).tag("WAVE").tag("LIST").le32(5).tag("INFO").raw({'x', 0});
    w.tag("fmt ").le32(16).le16(1).le16(1).le32(8000).le32(16000).le16(2).le16(16);
    w.tag("fact").le32(4).le32(150).tag("data").le32(300);
    for (int i = 0; i < 150; ++i)
        w.le16(static_cast<uint16_t>(pattern(i, 0)));
    w.tag("LIST").le32(4).tag("INFO");
    std::copy_n(ByteWriter().le32(static_cast<uint32_t>(w.bytes.size() - 8)).bytes.begin(), 4, w.bytes.begin() + 4);
    header_bytes = w.bytes.size() - 300 - 12;
    return w.bytes;
}

// "fact" and an odd "PEAK" before the data, "LIST" and an odd "junk" after.
void wave_splice(std::vector<Chunk>& c)
{
    const auto data = c.begin() + find_chunk(c, "data");
    const auto after = c.insert(data, {{"fact", {0x11, 0x2B, 0, 0}}, {"PEAK", Bytes(23, 0x3F)}}) + 3;
    c.insert(after, {{"LIST", {'I', 'N', 'F', 'O', 'I', 'C', 'M', 'T', 3, 0, 0, 0, 'k', 'e', 'l', 0}},
                     {"junk", {1, 2, 3}}});
}

PcmFormat make_wave()
{
    const int ewav = fourcc("Ewav");
    return PcmFormat{
        "WAVE", KEL_FORMAT_WAVE, Packet::TypeWAVE, ".wav", 44, 4294967296LL, {16, 24}, false,
        {}, "pcm_s16le", "pcm_s24le", nullptr, "pcm_s16le", "pcm_s24le", {"pcm_f32le", "pcm_u8", "pcm_s32le"},
        "RIFF", 4, false, true, "fmt ", "data", kWaveCanonical,
        {
            {"float format tag", patched(kWaveCanonical, {{20, {3, 0}}}), kEfms},
            {"extensible format tag", patched(kWaveCanonical, {{20, {0xFE, 0xFF}}}), kEfms},
            {"8-bit samples", patched(kWaveCanonical, {{34, {8, 0}}}), kEfms},
            {"32-bit samples", patched(kWaveCanonical, {{34, {32, 0}}}), kEfms},
            {"no channels", patched(kWaveCanonical, {{22, {0, 0}}}), ewav},
            {"sample rate 0", patched(kWaveCanonical, {{24, {0, 0, 0, 0}}}), ewav},
            {"no data chunk", patched(kWaveCanonical, {{36, {'d', 'a', 't', 'b'}}}), ewav},
            {"data shorter than one frame", patched(kWaveCanonical, {{40, {3, 0, 0, 0}}}), ewav, false},
            {"empty data", patched(kWaveCanonical, {{40, {0, 0, 0, 0}}}), ewav, false},
            {"nested RIFF", patched(kWaveCanonical, {{36, {'R', 'I', 'F', 'F'}}}), ewav},
            {"the last chunk header has nothing after it", Bytes(kWaveCanonical.begin(), kWaveCanonical.begin() + 44),
                 ewav},
            {"fmt cut short", Bytes(kWaveCanonical.begin(), kWaveCanonical.begin() + 30), fourcc("Eeof")},
            {"not RIFF", patched(kWaveCanonical, {{0, {'R', 'I', 'F', 'X'}}}), kEfmu},
            {"not WAVE", patched(kWaveCanonical, {{8, {'A', 'V', 'I', ' '}}}), kEfmu},
        },
        {
            {"canonical", kWaveCanonical, kLeft, kRight, 2, true},
            {"data claims more than the file holds", patched(kWaveCanonical, {{40, {0xE8, 0x03, 0, 0}}}), kLeft, kRight, 2, true},
            {"fmt after data", kWaveFormatLast, {0.25f, -0.25f}, {0.25f, -0.25f}, 1, false},
            {"three channels after a padded chunk", kWaveThree, {0.125f}, {0.375f}, 3, false},
        },
        wave_stereo16, wave_header, wave_damage_base, wave_splice, ClipWAVE::detect,
        [](const char* p, int* e, _kel_progress_ext_t* g) -> Clip* { return ClipWAVE::open(p, e, g); },
        [](int c, float r, int b, int* e) -> Clip* { return ClipWAVE::create_empty(c, r, b, e); },
        [](int frames, BSHandle* h) -> Packet* { return new PacketWAVE(16, 0, 44100.0f, 2, frames, frames, h); },
    };
}

// ---- AIFF ----

// The canonical three frames as plain AIFF: exactly what the saver writes.
const Bytes kAiffPlain = {
    'F', 'O', 'R', 'M', 0, 0, 0, 58, 'A', 'I', 'F', 'F', //  0: FORM, 58 bytes follow, AIFF
    'C', 'O', 'M', 'M', 0, 0, 0, 18, 0, 2, 0, 0, 0, 3,   // 12: "COMM" of 18: 2 channels, 3 frames
    0, 16, 0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0,     // 26: 16 bits, 44100 Hz as 80-bit extended
    'S', 'S', 'N', 'D', 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0, // 38: "SSND" of 20: offset 0, block 0
    0x80, 0x00, 0x7F, 0xFF, 0x40, 0x00, 0xC0, 0x00, 0x00, 0x01, 0xFF, 0xFF, // 54: three frames
};

// The same frames as AIFF-C "sowt": little-endian samples.
const Bytes kAiffSowt = {
    'F', 'O', 'R', 'M', 0, 0, 0, 76, 'A', 'I', 'F', 'C', 'F', 'V', 'E', 'R', 0, 0, 0, 4, 0xA2, 0x80, 0x51, 0x40, //  0
    'C', 'O', 'M', 'M', 0, 0, 0, 24, 0, 2, 0, 0, 0, 3, 0, 16,          // 24: "COMM" of 24: 2 ch, 3 frames, 16 bits
    0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0, 's', 'o', 'w', 't', 0, 0, // 40: 44100 Hz; "sowt", empty name, pad
    'S', 'S', 'N', 'D', 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0,           // 56: "SSND" of 20
    0x00, 0x80, 0xFF, 0x7F, 0x00, 0x40, 0x00, 0xC0, 0x01, 0x00, 0xFF, 0xFF, // 72: three frames
};

Bytes aiff_stereo16(int frames, uint32_t claimed, bool sowt)
{
    ByteWriter w;
    w.tag("FORM").be32(0).tag(sowt ? "AIFC" : "AIFF");
    w.tag("COMM").be32(sowt ? 24 : 18).be16(2).be32(static_cast<uint32_t>(frames)).be16(16).raw(extended(44100));
    if (sowt)
        w.tag("sowt").be16(0);
    w.tag("SSND").be32(claimed + 8).be32(0).be32(0);
    put_pattern(w, frames, !sowt);
    std::copy_n(ByteWriter().be32(static_cast<uint32_t>(w.bytes.size() - 8)).bytes.begin(), 4, w.bytes.begin() + 4);
    return w.bytes;
}

Bytes aiff_header(int channels, int bits, int rate, uint32_t frames, uint32_t extra)
{
    const uint32_t data = frames * static_cast<uint32_t>(channels * bits / 8);
    ByteWriter w;
    w.tag("FORM").be32(46 + data + extra).tag("AIFF").tag("COMM").be32(18).be16(static_cast<uint32_t>(channels));
    w.be32(frames).be16(static_cast<uint32_t>(bits)).raw(extended(static_cast<uint32_t>(rate)));
    w.tag("SSND").be32(data + 8).be32(0).be32(0);
    return w.bytes;
}

// AIFF-C "NONE" with a named compression, an odd "ANNO" before and a "COMT"
// after the sound: 150 frames of 16-bit mono.
Bytes aiff_damage_base(size_t& header_bytes)
{
    ByteWriter w;
    w.tag("FORM").be32(0).tag("AIFC").tag("FVER").be32(4).be32(0xA2805140).tag("ANNO").be32(3).raw({'k', 'e', 'l', 0});
    w.tag("COMM").be32(38).be16(1).be32(150).be16(16).raw(extended(8000));
    w.tag("NONE").raw({14, 'n', 'o', 't', ' ', 'c', 'o', 'm', 'p', 'r', 'e', 's', 's', 'e', 'd', 0});
    w.tag("SSND").be32(308).be32(0).be32(0);
    for (int i = 0; i < 150; ++i)
        w.be16(static_cast<uint16_t>(pattern(i, 0)));
    w.tag("COMT").be32(2).be16(0);
    std::copy_n(ByteWriter().be32(static_cast<uint32_t>(w.bytes.size() - 8)).bytes.begin(), 4, w.bytes.begin() + 4);
    header_bytes = w.bytes.size() - 300 - 10;
    return w.bytes;
}

// An odd "MARK" first, "INST" before the sound, the samples behind a 4-byte
// "SSND" offset, "ANNO" (odd) and "COMT" after.
void aiff_splice(std::vector<Chunk>& c)
{
    c.insert(c.begin(), {"MARK", {0, 0, 0}});
    const int sound = find_chunk(c, "SSND");
    Bytes& body = c[static_cast<size_t>(sound)].body;
    body[3] = 4;
    body.insert(body.begin() + 8, {0xDE, 0xAD, 0xBE, 0xEF});
    c.insert(c.begin() + sound, {"INST", Bytes(20, 0x11)});
    c.push_back({"ANNO", {'k', 'e', 'l'}});
    c.push_back({"COMT", {0, 0}});
}

PcmFormat make_aiff()
{
    const int eaif = fourcc("Eaif");
    const Bytes& p = kAiffPlain;
    return PcmFormat{
        "AIFF", KEL_FORMAT_AIFF, Packet::TypeAIFF, ".aiff", 54, 2147483648LL, {16, 24}, true,
        {}, "pcm_s16be", "pcm_s24be", "pcm_s16le", "pcm_s16be", "pcm_s24be",
        {"pcm_s8", "pcm_s32be", "pcm_f32be", "pcm_mulaw", "pcm_alaw"},
        "FORM", 4, true, true, "COMM", "SSND", kAiffPlain,
        {
            {"not FORM", patched(p, {{0, {'F', 'O', 'R', 'N'}}}), kEfmu},
            {"other form type", patched(p, {{8, {'A', 'I', 'F', 'X'}}}), kEfmu},
            {"negative FORM size", patched(p, {{4, {0x80, 0, 0, 0}}}), eaif},
            {"no channels", patched(p, {{20, {0, 0}}}), eaif},
            {"negative channels", patched(p, {{20, {0x80, 0}}}), eaif},
            {"no frames, though SSND holds some", patched(p, {{22, {0, 0, 0, 0}}}), eaif},
            {"negative frames", patched(p, {{22, {0x80, 0, 0, 0}}}), eaif},
            {"rate 0", patched(p, {{28, Bytes(10, 0)}}), eaif},
            {"rate -44100", patched(p, {{28, {0xC0}}}), eaif},
            {"rate 2^-511, zero as a float", patched(p, {{28, {0x3E, 0x00, 0x80}}}), eaif},
            {"rate NaN", patched(p, {{28, {0x7F, 0xFF, 0xC0}}}), eaif},
            {"8-bit samples", patched(p, {{26, {0, 8}}}), kEfms},
            {"32-bit samples", patched(p, {{26, {0, 32}}}), kEfms},
            {"no channels wins over 8 bits", patched(p, {{20, {0, 0}}, {26, {0, 8}}}), eaif},
            {"negative chunk size", patched(p, {{16, {0xFF, 0xFF, 0xFF, 0xFE}}}), eaif},
            {"nested FORM", patched(p, {{12, {'F', 'O', 'R', 'M'}}}), eaif},
            {"no COMM", patched(p, {{12, {'C', 'O', 'M', 'X'}}}), eaif},
            {"no SSND", patched(p, {{38, {'S', 'S', 'N', 'E'}}}), eaif},
            {"negative SSND offset", patched(p, {{46, {0xFF, 0xFF, 0xFF, 0xFF}}}), eaif},
            {"SSND offset at the end of the file", patched(p, {{42, {0, 0, 0x10, 0}}, {46, {0, 0, 0, 12}}}), eaif},
            {"SSND holds only its fields", patched(p, {{42, {0, 0, 0, 8}}}), eaif},
            {"SSND shorter than a frame", patched(p, {{42, {0, 0, 0, 11}}}), eaif, false},
            {"COMM cut short", Bytes(p.begin(), p.begin() + 30), fourcc("Eeof")},
            {"compression ulaw at 16 bits", patched(kAiffSowt, {{50, {'u', 'l', 'a', 'w'}}}), kEfms},
            {"compression fl32", patched(kAiffSowt, {{50, {'f', 'l', '3', '2'}}}), kEfms},
            {"NONE at 8 bits", patched(kAiffSowt, {{50, {'N', 'O', 'N', 'E'}}, {38, {0, 8}}}), kEfms},
            {"AIFF-C without channels", patched(kAiffSowt, {{32, {0, 0}}}), eaif},
        },
        {
            {"plain AIFF", kAiffPlain, kLeft, kRight, 2, true},
            {"AIFF-C sowt", kAiffSowt, kLeft, kRight, 2, true},
            {"sowt means 16 bits whatever the sample size says", patched(kAiffSowt, {{38, {0, 24}}}), kLeft, kRight, 2, true},
            {"SSND claims more than the file holds", patched(p, {{42, {0, 0, 0x10, 0}}}), kLeft, kRight, 2, true},
                // A plain "COMM" is read as 18 bytes: its size field is not followed.
            {"plain COMM with a wrong size", patched(p, {{16, {0, 0, 0, 26}}}), kLeft, kRight, 2, true},
            {"AIFF-C COMM of odd size with its pad byte", patched(kAiffSowt, {{28, {0, 0, 0, 23}}}), kLeft, kRight, 2, true},
            {"rate 2^-100, tiny but above zero as a float", patched(p, {{28, {0x3F, 0x9B, 0x80, 0, 0, 0}}}), kLeft, kRight,
                 2, false},
        },
        aiff_stereo16, aiff_header, aiff_damage_base, aiff_splice, ClipAIFF::detect,
        [](const char* p, int* e, _kel_progress_ext_t* g) -> Clip* { return ClipAIFF::open(p, e, g); },
        [](int c, float r, int b, int* e) -> Clip* { return ClipAIFF::create_empty(c, r, b, e); },
        [](int frames, BSHandle* h) -> Packet* { return new PacketAIFF(16, 0, 44100.0f, 2, false, frames, frames, h); },
    };
}

// ---- CAF ----

// The canonical three frames, laid out as the engine writes its files.
const Bytes kCafCanonical = {
    'c', 'a', 'f', 'f', 0, 1, 0, 0,              //  0: "caff", version 1, flags 0
    'd', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, 32, //  8: "desc" of 32 bytes
    0x40, 0xE5, 0x88, 0x80, 0, 0, 0, 0,          // 20: 44100.0 as a double
    'l', 'p', 'c', 'm', 0, 0, 0, 0,              // 28: linear PCM; flags: integer, big-endian
    0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 16, // 36: 4 bytes per packet, 1 frame, 2 channels, 16 bits
    'd', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 0, // 52: "data" of 16 bytes, edit count
    0x80, 0x00, 0x7F, 0xFF, 0x40, 0x00, 0xC0, 0x00, 0x00, 0x01, 0xFF, 0xFF, // 68: three frames
};

// Chunk builders: "desc" of 16-bit PCM at 8000 Hz; "data" with its edit
// count and the samples in the order asked.
ByteWriter& desc(ByteWriter& w, uint32_t channels, uint32_t flags, uint64_t size = 32)
{
    w.tag("desc").be64(size).be64(double_bits(8000.0)).tag("lpcm").be32(flags);
    w.be32(channels * 2).be32(1).be32(channels).be32(16);
    return w.zeros(size > 32 ? size - 32 : 0);
}

ByteWriter& data(ByteWriter& w, uint64_t size, const std::vector<int16_t>& samples, bool little = false)
{
    w.tag("data").be64(size).be32(0);
    for (int16_t s : samples)
        little ? w.le16(static_cast<uint16_t>(s)) : w.be16(static_cast<uint16_t>(s));
    return w;
}

ByteWriter caff()
{
    ByteWriter w;
    w.tag("caff").be16(1).be16(0);
    return w;
}

const std::vector<int16_t> kMono = {8192, -8192, 32767, -32768, 3};
const std::vector<float> kMonoFloats = {0.25f, -0.25f, 32767.0f / 32768, -1.0f, 3.0f / 32768};

Bytes caf_stereo16(int frames, uint32_t claimed, bool little)
{
    ByteWriter w = caff();
    w.tag("desc").be64(32).be64(double_bits(44100.0)).tag("lpcm").be32(little ? 2 : 0);
    w.be32(4).be32(1).be32(2).be32(16).tag("data").be64(claimed + 4ull).be32(0);
    put_pattern(w, frames, !little);
    return w.bytes;
}

Bytes caf_header(int channels, int, int rate, uint32_t frames, uint32_t)
{
    const uint32_t bytes = static_cast<uint32_t>(channels) * 2;
    ByteWriter w = caff();
    w.tag("desc").be64(32).be64(double_bits(rate)).tag("lpcm").be32(0).be32(bytes).be32(1);
    w.be32(static_cast<uint32_t>(channels)).be32(16).tag("data").be64(uint64_t{frames} * bytes + 4).be32(0);
    return w.bytes;
}

// chan, desc, info, data of 150 frames of stereo, free after the data.
Bytes caf_damage_base(size_t& header_bytes)
{
    std::vector<int16_t> samples;
    for (int i = 0; i < 300; ++i)
        samples.push_back(static_cast<int16_t>(i * 977));
    ByteWriter w = caff();
    w.tag("chan").be64(12).be32(0x00650002).zeros(8);
    desc(w, 2, 0);
    w.tag("info").be64(9).be32(1).raw({'k', 0, 'v', 0, 0});
    data(w, 4 + 600, samples);
    w.tag("free").be64(16).zeros(16);
    header_bytes = w.bytes.size() - 600 - 28;
    return w.bytes;
}

void caf_splice(std::vector<Chunk>& c)
{
    c.insert(c.begin() + find_chunk(c, "data"), {"free", Bytes(9, 0)});
    c.push_back({"uuid", Bytes(16, 0xAB)});
}

PcmFormat make_caf()
{
    const int ecaf = fourcc("Ecaf");
    const Bytes& k = kCafCanonical;
    ByteWriter ends_early = caff(), two_desc = caff(), unknown_first = caff(), two_data = caff(), huge = caff();
    desc(ends_early, 1, 0);
    data(desc(desc(two_desc, 1, 0), 1, 0), 14, kMono);
    desc(data(unknown_first, UINT64_MAX, kMono), 1, 0);
    desc(data(data(two_data, 14, kMono), 14, kMono), 1, 0);
    data(desc(huge.tag("free").be64(1ull << 62).zeros(8), 1, 0), 14, kMono);
    ByteWriter to_end = caff(), little = caff(), data_first = caff(), long_desc = caff(), short_desc = caff();
    data(desc(to_end, 1, 0), UINT64_MAX, kMono).zeros(1); // a stray byte is no frame
    data(desc(little.tag("chan").be64(12).zeros(12), 1, 2), 14, kMono, true).tag("free").be64(3).zeros(3);
    desc(data(data_first, 14, kMono), 1, 0);
    data(desc(long_desc, 1, 0, 40), 14, kMono);
    data(desc(short_desc, 1, 0, 0), 14, kMono); // 32 bytes are read whatever the size says
    return PcmFormat{
        "CAF", KEL_FORMAT_CAF, Packet::TypeCAF, ".caf", 68, 0, {16}, false,
        {"-f", "caf"}, "pcm_s16le", nullptr, "pcm_s16be", "pcm_s16be", nullptr, {"pcm_s24be", "pcm_f32be", "pcm_alaw"},
        "caff", 8, true, false, "desc", "data", kCafCanonical,
        {
            {"floating point flag", patched(k, {{32, {0, 0, 0, 1}}}), kEfms},
            {"little-endian float", patched(k, {{32, {0, 0, 0, 3}}}), kEfms},
            {"24-bit samples", patched(k, {{48, {0, 0, 0, 24}}}), kEfms},
            {"8-bit samples", patched(k, {{48, {0, 0, 0, 8}}}), kEfms},
            {"not linear PCM", patched(k, {{28, {'u', 'l', 'a', 'w'}}}), kEfms},
            {"no channels", patched(k, {{44, {0, 0, 0, 0}}}), ecaf},
            {"rate 0", patched(k, {{20, Bytes(8, 0)}}), ecaf},
            {"negative rate", patched(k, {{20, {0xC0, 0xE5, 0x88, 0x80}}}), ecaf},
            {"infinite rate", patched(k, {{20, {0x7F, 0xF0, 0, 0}}}), ecaf},
            {"not a number as rate", patched(k, {{20, {0x7F, 0xF8, 0, 0}}}), ecaf},
            {"data size 0", patched(k, {{56, Bytes(8, 0)}}), ecaf},
            {"data smaller than its edit count", patched(k, {{56, {0, 0, 0, 0, 0, 0, 0, 3}}}), ecaf},
            {"data size -2", patched(k, {{56, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}}}), ecaf},
            {"data beyond the end of the file", patched(k, {{63, {17}}}), ecaf},
            {"negative desc size", patched(k, {{12, {0x80}}}), ecaf},
            {"no data chunk", patched(k, {{52, {'d', 'a', 't', 'b'}}}), ecaf},
            {"nothing after desc", ends_early.bytes, ecaf},
            {"two desc chunks", two_desc.bytes, ecaf},
            {"data of unknown size before desc", unknown_first.bytes, ecaf},
            {"two data chunks", two_data.bytes, ecaf},
            {"a chunk that claims 2^62 bytes", huge.bytes, ecaf},
            {"not caff", patched(k, {{0, {'c', 'a', 'f', 'e'}}}), kEfmu},
            {"file version 2", patched(k, {{4, {0, 2}}}), kEfmu},
        },
        {
            {"engine layout", kCafCanonical, kLeft, kRight, 2, true},
            {"data to the end of the file", to_end.bytes, kMonoFloats, kMonoFloats, 1, false},
            {"little-endian between chan and free", little.bytes, kMonoFloats, kMonoFloats, 1, false},
            {"data of known size before desc", data_first.bytes, kMonoFloats, kMonoFloats, 1, false},
            {"desc longer than 32 bytes", long_desc.bytes, kMonoFloats, kMonoFloats, 1, false},
            {"desc shorter than 32 bytes", short_desc.bytes, kMonoFloats, kMonoFloats, 1, false},
        },
        caf_stereo16, caf_header, caf_damage_base, caf_splice, ClipCAFF::detect,
        [](const char* p, int* e, _kel_progress_ext_t* g) -> Clip* { return ClipCAFF::open(p, e, g); },
        [](int c, float r, int b, int* e) -> Clip* { return ClipCAFF::create_empty(c, r, b, e); },
        [](int frames, BSHandle* h) -> Packet* { return new PacketCAFF(16, 0, 44100.0f, 2, false, frames, frames, h); },
    };
}

} // namespace

const PcmFormat kWave = make_wave();
const PcmFormat kAiff = make_aiff();
const PcmFormat kCaf = make_caf();

Bytes patched(Bytes file, const std::vector<Patch>& patches)
{
    for (const Patch& p : patches)
        std::copy(p.bytes.begin(), p.bytes.end(), file.begin() + static_cast<long>(p.at));
    return file;
}

bool parse_chunks(const PcmFormat& f, const Bytes& file, std::string& form, std::vector<Chunk>& chunks)
{
    const size_t head = f.size_bytes == 4 ? 12 : 8;
    if (file.size() < head || std::memcmp(file.data(), f.magic, 4) != 0)
        return false;
    form.assign(file.begin() + static_cast<long>(head) - 4, file.begin() + static_cast<long>(head));
    chunks.clear();
    for (size_t at = head; at + 4 + static_cast<size_t>(f.size_bytes) <= file.size();) {
        uint64_t size = 0;
        for (int k = 0; k < f.size_bytes; ++k) {
            const int i = f.big_sizes ? k : f.size_bytes - 1 - k;
            size = size << 8 | file[at + 4 + static_cast<size_t>(i)];
        }
        const size_t begin = at + 4 + static_cast<size_t>(f.size_bytes);
        const size_t end = size > file.size() - begin ? file.size() : begin + size;
        chunks.push_back({std::string(file.begin() + static_cast<long>(at), file.begin() + static_cast<long>(at) + 4),
                          Bytes(file.begin() + static_cast<long>(begin), file.begin() + static_cast<long>(end))});
        at = end + (f.padded && (end - begin) % 2 != 0 ? 1 : 0);
    }
    return true;
}

Bytes build_chunks(const PcmFormat& f, const std::string& form, const std::vector<Chunk>& chunks)
{
    ByteWriter body;
    body.tag(form.c_str());
    for (const Chunk& c : chunks) {
        body.tag(c.id.c_str());
        const uint64_t n = c.body.size();
        if (f.size_bytes == 8)
            body.be64(n);
        else
            f.big_sizes ? body.be32(static_cast<uint32_t>(n)) : body.le32(static_cast<uint32_t>(n));
        body.raw(c.body).zeros(f.padded && n % 2 != 0 ? 1 : 0);
    }
    ByteWriter file;
    file.tag(f.magic);
    if (f.size_bytes == 4)
        f.big_sizes ? file.be32(static_cast<uint32_t>(body.bytes.size())) : file.le32(static_cast<uint32_t>(body.bytes.size()));
    return file.raw(body.bytes).bytes;
}

int find_chunk(const std::vector<Chunk>& chunks, const std::string& id)
{
    for (size_t i = 0; i < chunks.size(); ++i) {
        if (chunks[i].id == id)
            return static_cast<int>(i);
    }
    return -1;
}

int16_t pattern(int i, int c)
{
    return static_cast<int16_t>(static_cast<uint16_t>(i * 977 + c * 12345));
}

int32_t scaled(int32_t s, int bits, float gain, const float* envelope)
{
    float v = static_cast<float>(s) * (bits == 16 ? 1.0f : 256.0f) * gain;
    if (envelope != nullptr)
        v = *envelope * v;
    if (bits == 16)
        return static_cast<int32_t>(std::min(std::max(v, -32768.0f), 32767.0f));
    const double d = std::min(std::max(static_cast<double>(v), -2147483648.0), 2147483647.0);
    return static_cast<int32_t>(std::floor(std::trunc(d) / 256.0));
}

int16_t to16(float x)
{
    if (std::isnan(x) || static_cast<double>(x) < -1.0)
        return -32768;
    if (static_cast<double>(x) > 0.9999694)
        return 32767;
    return static_cast<int16_t>(std::trunc(static_cast<double>(x) * 32768.0));
}

GainPlan apply_plan(Clip& clip, const std::vector<std::pair<int, float>>& gains, const std::vector<int>& falling)
{
    GainPlan plan;
    plan.gains.assign(static_cast<size_t>(clip.packet_count), 1.0f);
    plan.envelopes.assign(static_cast<size_t>(clip.packet_count), {});
    const auto at = [&](int index) { return static_cast<size_t>(index < 0 ? clip.packet_count + index : index); };
    for (auto [index, gain] : gains) {
        clip.get_packet(static_cast<int>(at(index)))->gain = gain;
        plan.gains[at(index)] = gain;
    }
    for (int index : falling) {
        Packet* p = clip.get_packet(static_cast<int>(at(index)));
        std::vector<float> ramp(static_cast<size_t>(p->frame_count));
        for (size_t k = 0; k < ramp.size(); ++k)
            ramp[k] = 1.0f - static_cast<float>(k) / static_cast<float>(ramp.size());
        p->gain_envelope(ramp.data(), p->frame_count);
        plan.envelopes[at(index)] = ramp;
    }
    return plan;
}

std::vector<int32_t> predict(const std::vector<int32_t>& original, int channels, int bits, const GainPlan& plan)
{
    std::vector<int32_t> out(original.size());
    for (size_t i = 0; i < original.size(); ++i) {
        const size_t frame = i / static_cast<size_t>(channels);
        const auto& envelope = plan.envelopes[frame / 1024];
        out[i] = scaled(original[i], bits, plan.gains[frame / 1024], envelope.empty() ? nullptr : &envelope[frame % 1024]);
    }
    return out;
}

} // namespace test
} // namespace KEL
