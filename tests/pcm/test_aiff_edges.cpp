// AIFF clips at their edges: hand-made files with one fault each, the
// layouts that must still open, the sound-data cut, the 2 GiB limits of
// reading and saving, and damaged files (every truncation, seeded bytes).
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "pcm/clipaiff.h"
#include "pcm/packetaiff.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

const int kEaif = fourcc("Eaif");
const int kEfms = fourcc("Efms");
const int kEfmu = fourcc("Efmu");

// Three frames of 16-bit stereo at 44100 Hz as plain AIFF: exactly the
// file the saver writes for them.
const Bytes kPlain = {
    'F', 'O', 'R', 'M', 0, 0, 0, 58, 'A', 'I', 'F', 'F', //  0: FORM, 58 bytes follow, AIFF
    'C', 'O', 'M', 'M', 0, 0, 0, 18,                     // 12: "COMM" of 18 bytes
    0, 2,                                                // 20: 2 channels
    0, 0, 0, 3,                                          // 22: 3 frames
    0, 16,                                               // 26: 16 bits
    0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0,            // 28: 44100 Hz, 80-bit extended
    'S', 'S', 'N', 'D', 0, 0, 0, 20,                     // 38: "SSND" of 20 bytes
    0, 0, 0, 0, 0, 0, 0, 0,                              // 46: offset 0, block size 0
    0x80, 0x00, 0x7F, 0xFF,                              // 54: frame 0: -32768, 32767
    0x40, 0x00, 0xC0, 0x00,                              // 58: frame 1: 16384, -16384
    0x00, 0x01, 0xFF, 0xFF,                              // 62: frame 2: 1, -1
};
const std::vector<float> kLeft = {-1.0f, 0.5f, 1.0f / 32768};
const std::vector<float> kRight = {32767.0f / 32768, -0.5f, -1.0f / 32768};

// The same three frames as AIFF-C "sowt": little-endian samples.
const Bytes kSowt = {
    'F', 'O', 'R', 'M', 0, 0, 0, 76, 'A', 'I', 'F', 'C', //  0: FORM, 76 bytes follow, AIFC
    'F', 'V', 'E', 'R', 0, 0, 0, 4, 0xA2, 0x80, 0x51, 0x40, // 12: format version
    'C', 'O', 'M', 'M', 0, 0, 0, 24,                     // 24: "COMM" of 24 bytes
    0, 2, 0, 0, 0, 3, 0, 16,                             // 32: 2 channels, 3 frames, 16 bits
    0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0,            // 40: 44100 Hz
    's', 'o', 'w', 't', 0, 0,                            // 50: little-endian; empty name, pad
    'S', 'S', 'N', 'D', 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0, // 56: "SSND" of 20 bytes
    0x00, 0x80, 0xFF, 0x7F,                              // 72: frame 0: -32768, 32767
    0x00, 0x40, 0x00, 0xC0,                              // 76: frame 1: 16384, -16384
    0x01, 0x00, 0xFF, 0xFF,                              // 80: frame 2: 1, -1
};

struct Patch {
    size_t at;
    Bytes bytes;
};

Bytes patched(Bytes file, const std::vector<Patch>& patches)
{
    for (const Patch& p : patches)
        std::copy(p.bytes.begin(), p.bytes.end(), file.begin() + static_cast<long>(p.at));
    return file;
}

using AiffEdges = PcmFiles;

TEST_F(AiffEdges, EachHeaderFaultHasItsCode)
{
    struct Fault {
        const char* what;
        const Bytes& file;
        std::vector<Patch> patches;
        int code;
        bool in_headers = true; // false: found only when the data is cut
    };
    const std::vector<Fault> faults = {
        {"not FORM", kPlain, {{0, {'F', 'O', 'R', 'N'}}}, kEfmu},
        {"other form type", kPlain, {{8, {'A', 'I', 'F', 'X'}}}, kEfmu},
        {"negative FORM size", kPlain, {{4, {0x80, 0, 0, 0}}}, kEaif},
        {"no channels", kPlain, {{20, {0, 0}}}, kEaif},
        {"negative channels", kPlain, {{20, {0x80, 0}}}, kEaif},
        {"no frames, though SSND holds some", kPlain, {{22, {0, 0, 0, 0}}}, kEaif},
        {"negative frames", kPlain, {{22, {0x80, 0, 0, 0}}}, kEaif},
        {"rate 0", kPlain, {{28, Bytes(10, 0)}}, kEaif},
        {"rate -44100", kPlain, {{28, {0xC0}}}, kEaif},
        {"rate 2^-511, zero as a float", kPlain, {{28, {0x3E, 0x00, 0x80}}}, kEaif},
        {"rate NaN", kPlain, {{28, {0x7F, 0xFF, 0xC0}}}, kEaif},
        {"8-bit samples", kPlain, {{26, {0, 8}}}, kEfms},
        {"32-bit samples", kPlain, {{26, {0, 32}}}, kEfms},
        {"no channels wins over 8 bits", kPlain, {{20, {0, 0}}, {26, {0, 8}}}, kEaif},
        {"negative chunk size", kPlain, {{16, {0xFF, 0xFF, 0xFF, 0xFE}}}, kEaif},
        {"nested FORM", kPlain, {{12, {'F', 'O', 'R', 'M'}}}, kEaif},
        {"no COMM", kPlain, {{12, {'C', 'O', 'M', 'X'}}}, kEaif},
        {"no SSND", kPlain, {{38, {'S', 'S', 'N', 'E'}}}, kEaif},
        {"negative SSND offset", kPlain, {{46, {0xFF, 0xFF, 0xFF, 0xFF}}}, kEaif},
        {"SSND offset at the end of the file", kPlain, {{42, {0, 0, 0x10, 0}}, {46, {0, 0, 0, 12}}}, kEaif},
        {"SSND holds only its fields", kPlain, {{42, {0, 0, 0, 8}}}, kEaif},
        {"SSND shorter than a frame", kPlain, {{42, {0, 0, 0, 11}}}, kEaif, false},
        {"compression ulaw at 16 bits", kSowt, {{50, {'u', 'l', 'a', 'w'}}}, kEfms},
        {"compression fl32", kSowt, {{50, {'f', 'l', '3', '2'}}}, kEfms},
        {"NONE at 8 bits", kSowt, {{50, {'N', 'O', 'N', 'E'}}, {38, {0, 8}}}, kEfms},
        {"AIFF-C without channels", kSowt, {{32, {0, 0}}}, kEaif},
    };
    for (const Fault& f : faults) {
        SCOPED_TRACE(f.what);
        const std::string file = put("fault.aiff", patched(f.file, f.patches));
        int err = 0;
        EXPECT_EQ(ClipAIFF::open(file.c_str(), &err, nullptr), nullptr);
        EXPECT_EQ(err, f.code);
        // Through the dispatch the code survives: "Eaif" is final, "Efms"
        // wins over the other readers, "Efmu" is nobody's file.
        err = 0;
        EXPECT_FALSE(open_clip(file, err));
        EXPECT_EQ(err, f.code);
        // The file information reads the headers alone.
        if (f.code != kEfmu) {
            EXPECT_EQ(Clip::file_info(file.c_str(), nullptr, nullptr), f.in_headers ? f.code : 0);
        }
    }

    // A "COMM" cut short by the end of the file.
    FILE* f = std::fopen(put("cut.aiff", Bytes(kPlain.begin(), kPlain.begin() + 30)).c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ClipAIFF::scan(f, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), fourcc("Eeof"));
    std::fclose(f);

    EXPECT_EQ(ClipAIFF::detect(put("short.aiff", Bytes(kPlain.begin(), kPlain.begin() + 11)).c_str()), kEfmu);
    EXPECT_EQ(ClipAIFF::detect(work.path("missing.aiff").c_str()), fourcc("Efor"));
    EXPECT_EQ(ClipAIFF::detect(put("ok.aiff", kSowt).c_str()), 0);
}

TEST_F(AiffEdges, UnusualButValidLayoutsOpenAndSaveAsPlainAiff)
{
    struct Good {
        const char* what;
        Bytes file;
    };
    const std::vector<Good> goods = {
        {"plain AIFF", kPlain},
        {"AIFF-C sowt", kSowt},
        {"sowt means 16 bits whatever the sample size says", patched(kSowt, {{38, {0, 24}}})},
        {"SSND claims more than the file holds", patched(kPlain, {{42, {0, 0, 0x10, 0}}})},
        // A plain "COMM" is read as 18 bytes: its size field is not followed.
        {"plain COMM with a wrong size", patched(kPlain, {{16, {0, 0, 0, 26}}})},
        {"AIFF-C COMM of odd size with its pad byte", patched(kSowt, {{28, {0, 0, 0, 23}}})},
        {"rate 2^-100, tiny but above zero as a float", patched(kPlain, {{28, {0x3F, 0x9B, 0x80, 0, 0, 0}}})},
    };
    for (const Good& g : goods) {
        SCOPED_TRACE(g.what);
        const std::string file = put("good.aiff", g.file);
        int err = -1;
        ClipPtr clip = open_clip(file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        EXPECT_EQ(clip->bits_per_sample, 16);
        ASSERT_EQ(clip->packet_count, 1);
        EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 3);
        const Samples s = decode_clip(*clip);
        EXPECT_TRUE(same_bits(s.left, kLeft));
        EXPECT_TRUE(same_bits(s.right, kRight));
        EXPECT_TRUE(same_bits(std::vector<float>(s.left.begin() + 3, s.left.end()), std::vector<float>(1021, 0.0f)));

        if (clip->sample_rate == 44100.0f) {
            const std::string out = work.path("out.aiff");
            clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
            ASSERT_EQ(err, 0);
            EXPECT_EQ(read_file(out), kPlain);
        }
    }

    // Every out-pointer of scan may be null; the sound data starts after
    // the offset.
    FILE* f = std::fopen(put("scan.aiff", patched(kSowt, {{63, {22}}, {64, {0, 0, 0, 2}}})).c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ClipAIFF::scan(f, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    int length = 0, offset = 0;
    bool little = false;
    EXPECT_EQ(ClipAIFF::scan(f, nullptr, nullptr, nullptr, &little, &length, &offset), 0);
    EXPECT_EQ(length, 12);
    EXPECT_EQ(offset, 74);
    EXPECT_TRUE(little);
    std::fclose(f);
}

// frames of the pattern as plain AIFF (big-endian) or AIFF-C "sowt", with
// "SSND" claiming claimed bytes of samples.
Bytes stereo16(int frames, uint32_t claimed, bool sowt)
{
    ByteWriter w;
    w.tag("FORM").be32(0).tag(sowt ? "AIFC" : "AIFF");
    w.tag("COMM").be32(sowt ? 24 : 18).be16(2).be32(static_cast<uint32_t>(frames)).be16(16);
    w.raw({0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}); // 44100 Hz
    if (sowt)
        w.tag("sowt").be16(0);
    w.tag("SSND").be32(claimed + 8).be32(0).be32(0);
    for (int i = 0; i < frames; ++i) {
        for (int c = 0; c < 2; ++c) {
            const uint16_t s = static_cast<uint16_t>(pattern(i, c));
            sowt ? w.le16(s) : w.be16(s);
        }
    }
    const uint32_t form = static_cast<uint32_t>(w.bytes.size() - 8);
    std::copy_n(ByteWriter().be32(form).bytes.begin(), 4, w.bytes.begin() + 4);
    return w.bytes;
}

TEST_F(AiffEdges, SoundDataIsCutIntoEqualPackets)
{
    // 10,000 bytes: 2,500 frames, so 1024 + 1024 + 452; saving a "sowt"
    // clip writes the same frames as plain AIFF.
    int err = 0;
    ClipPtr clip = open_clip(put("2500.aiff", stereo16(2500, 10000, true)), err);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->packet_count, 3);
    EXPECT_EQ(clip->packet_frame_count(2, nullptr), 1024);
    EXPECT_EQ(clip->get_packet(2)->disk_frame_count(), 452);
    expect_pattern(decode_clip(*clip), 2500, 3072);
    const std::string out = work.path("out.aiff");
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(read_file(out), stereo16(2500, 10000, false));

    // With an offset, the length is cut to the bytes behind the two fields,
    // not behind the offset: the packet claims 4 frames, finds 3, and so
    // decodes to nothing and saves as silence with a warning.
    Bytes skewed = stereo16(3, 0x100000, false);
    skewed[49] = 4;                                               // offset 4
    skewed.insert(skewed.begin() + 54, {0xDE, 0xAD, 0xBE, 0xEF}); // the 4 bytes skipped
    clip = open_clip(put("skewed.aiff", skewed), err);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->packet_count, 1);
    EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 4);
    std::vector<float> l(1024), r(1024);
    float* decoded[2] = {l.data(), r.data()};
    err = 0;
    EXPECT_EQ(clip->packet_decode_play(0, decoded, &err, -1.0f), 0);
    EXPECT_EQ(err, 0);
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    EXPECT_EQ(read_file(out).size(), 54u + 16u);
}

TEST_F(AiffEdges, TwoGibibyteLimits)
{
    // Reading: a file of 2 GiB is refused before any chunk is read; one
    // byte less opens, the sound data cut to the bytes present.
    const std::string file = put("huge.aiff", stereo16(1, 0x7FFFFFF0u, false));
    ASSERT_EQ(truncate(file.c_str(), 2147483648LL), 0) << "sparse files needed";
    int err = 0;
    EXPECT_EQ(ClipAIFF::detect(file.c_str()), 0);
    EXPECT_FALSE(open_clip(file, err));
    EXPECT_EQ(err, kEfmu);
    ASSERT_EQ(truncate(file.c_str(), 2147483647LL), 0);
    kel_set_raw_packet_size(1 << 20);
    ClipPtr clip = open_clip(file, err);
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(clip);
    const long long frames = (2147483647LL - 54) / 4;
    ASSERT_EQ(clip->packet_count, frames / (1 << 20) + 1);
    EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames % (1 << 20));

    // Saving: the 54-byte header and the extra block count towards the
    // limit. Handles that claim much and hold nothing are never read.
    auto clip_of = [](int bytes_each, int frames_each) {
        int e = 0;
        ClipPtr c(ClipAIFF::create_empty(2, 44100.0f, 16, &e));
        for (int i = 0; i < 2; ++i) {
            auto* h = new BSHandleMem(bytes_each);
            auto* p = new PacketAIFF(16, 0, 44100.0f, 2, false, frames_each, frames_each, h);
            c->add_packet(p);
            p->release();
            h->release();
        }
        return c;
    };
    const std::string out = work.path("out.aiff");
    const Bytes extra(12, 0);
    // 2 * 1073741797 + 54 = 2147483648: one byte over.
    ClipPtr big = clip_of(1073741797, 1024);
    big->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Ebyt"));
    EXPECT_FALSE(file_exists(out));
    // 2 * 1073741791 + 54 + 12 = 2147483648 as well.
    ClipPtr with_extra = clip_of(1073741791, 1024);
    with_extra->save_to(out.c_str(), extra.data(), 12, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Ebyt"));
    EXPECT_FALSE(file_exists(out));
    ClipPtr long_clip = clip_of(4, 1100000000);
    long_clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Esmp"));
    EXPECT_FALSE(file_exists(out));
    ClipPtr empty(ClipAIFF::create_empty(2, 44100.0f, 16, &err));
    empty->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Empt"));
    EXPECT_FALSE(file_exists(out));
}

TEST_F(AiffEdges, DamagedFilesEndInAClipOrACode)
{
    // AIFF-C "NONE" with a named compression, an odd "ANNO" before and a
    // "COMT" after the sound: 150 frames of 16-bit mono.
    ByteWriter w;
    w.tag("FORM").be32(0).tag("AIFC");
    w.tag("FVER").be32(4).be32(0xA2805140);
    w.tag("ANNO").be32(3).raw({'k', 'e', 'l', 0});
    w.tag("COMM").be32(38).be16(1).be32(150).be16(16).raw({0x40, 0x0B, 0xFA, 0, 0, 0, 0, 0, 0, 0}); // 8000 Hz
    w.tag("NONE").raw({14, 'n', 'o', 't', ' ', 'c', 'o', 'm', 'p', 'r', 'e', 's', 's', 'e', 'd', 0});
    w.tag("SSND").be32(308).be32(0).be32(0);
    for (int i = 0; i < 150; ++i)
        w.be16(static_cast<uint16_t>(pattern(i, 0)));
    w.tag("COMT").be32(2).be16(0);
    Bytes valid = w.bytes;
    std::copy_n(ByteWriter().be32(static_cast<uint32_t>(valid.size() - 8)).bytes.begin(), 4, valid.begin() + 4);
    const std::string file = work.path("damaged.aiff");
    {
        write_file(file, valid);
        int err = 0;
        ClipPtr clip = open_clip(file, err);
        ASSERT_TRUE(clip);
        EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 150);
    }
    // Random bytes go into the headers: everything up to the first samples.
    expect_damage_handled(valid, valid.size() - 300 - 10, file, 20240612);
}

} // namespace
