// MPEG audio header decoding: every field combination against the
// published tables and frame-size rule, and the frames lame writes.
#include "mp3fixtures.h"

#include "mp3/mpegheader.h"

#include <gtest/gtest.h>

#include <random>

namespace KEL {
namespace {

// kbit/s by bit-rate index 1..14, as the MPEG-1 and MPEG-2 audio standards
// list them.
int standard_kbps(bool mpeg1, int layer, int index)
{
    static const int mpeg1_l2[] = {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    static const int mpeg1_l3[] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
    static const int mpeg2_l1[] = {32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256};
    static const int mpeg2_l23[] = {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
    if (mpeg1)
        return layer == 1 ? 32 * index : layer == 2 ? mpeg1_l2[index - 1] : mpeg1_l3[index - 1];
    return layer == 1 ? mpeg2_l1[index - 1] : mpeg2_l23[index - 1];
}

TEST(MpegHeader, EveryFieldCombination)
{
    std::mt19937 rng(7);
    int valid = 0;
    for (unsigned ver = 0; ver < 4; ++ver)
        for (unsigned lay = 0; lay < 4; ++lay)
            for (unsigned bri = 0; bri < 16; ++bri)
                for (unsigned sri = 0; sri < 4; ++sri)
                    for (unsigned pad = 0; pad < 2; ++pad)
                        for (unsigned mode = 0; mode < 4; ++mode) {
                            // Protection, private, extension, copyright,
                            // original and emphasis bits play no part: random.
                            const unsigned word = 0xFFE00000u | ver << 19 | lay << 17 |
                                                  bri << 12 | sri << 10 | pad << 9 | mode << 6 |
                                                  (rng() & 0x1013Fu);
                            mpeg_frame_t f{};
                            const bool expect = ver != 1 && lay != 0 && bri != 0 && bri != 15 && sri != 3;
                            ASSERT_EQ(decode_header(word, &f), expect) << std::hex << word;
                            // A word that lacks one sync bit never decodes.
                            EXPECT_FALSE(decode_header(word & ~(1u << (21 + rng() % 11)), &f));
                            if (!expect)
                                continue;
                            decode_header(word, &f);
                            ++valid;
                            const bool mpeg1 = ver == 3;
                            const int layer = 4 - int(lay);
                            const int base[] = {44100, 48000, 32000};
                            const int rate = base[sri] / (mpeg1 ? 1 : ver == 2 ? 2 : 4);
                            const int bps = standard_kbps(mpeg1, layer, int(bri)) * 1000;
                            const int spf = mpeg1 ? 1152 : 576;
                            EXPECT_EQ(f.version, mpeg1 ? 1 : 2);
                            EXPECT_EQ(f.is_mpeg25, ver == 0 ? 1 : 0);
                            EXPECT_EQ(f.layer, layer);
                            EXPECT_EQ(f.sample_rate, rate);
                            EXPECT_EQ(f.bit_rate, bps);
                            EXPECT_EQ(f.samples_per_frame, spf);
                            // Layer III frame: samples x bits per sample
                            // period / 8 bits, whole bytes, plus the padding
                            // byte; used for every layer.
                            EXPECT_EQ(f.frame_length,
                                      int((long long)spf * bps / (8LL * rate)) + int(pad));
                            EXPECT_EQ(f.stereo, mode == 3 ? 0 : 1);
                            const int modes[] = {1, 2, 3, 0};
                            EXPECT_EQ(f.stereo_mode, modes[mode]);
                            EXPECT_EQ(mpeg_packet_type(f), mpeg1 ? 3 : ver == 2 ? 4 : 5);
                        }
    EXPECT_EQ(valid, 3 * 3 * 14 * 3 * 2 * 4);
    EXPECT_EQ(mpeg_bit_rate(true, 3, 0), 0);
    EXPECT_EQ(mpeg_bit_rate(false, 3, 15), 0);
    EXPECT_EQ(mpeg_bit_rate(true, 4, 1), 0);
    EXPECT_EQ(mpeg_sample_rate(1, false, 3), 0);
}

// lame's frames: each header gives the rate lame was asked for, and the
// frame lengths (padding included) chain from the first frame exactly to
// the end of the file.
TEST(MpegHeader, LameFramesChainToTheEnd)
{
    test::ScratchDir dir;
    struct Case {
        int rate;
        int version;
        int first_index, last_index;
    };
    // Every bit rate at the rate whose frames need padding; two bit rates at
    // the other rates of each version. lame writes MPEG-2.5 up to 64 kbit/s.
    const Case cases[] = {
        {44100, 1, 1, 14}, {48000, 1, 3, 4}, {32000, 1, 13, 14},
        {22050, 2, 1, 14}, {24000, 2, 5, 6}, {16000, 2, 13, 14},
        {11025, 3, 1, 8},  {12000, 3, 7, 8}, {8000, 3, 1, 2},
    };
    for (const Case& c : cases) {
        for (int index = c.first_index; index <= c.last_index; ++index) {
            const int bps = standard_kbps(c.version == 1, 3, index) * 1000;
            const std::string name = std::to_string(c.rate) + "-" + std::to_string(bps);
            const std::string path = test::encode_test_mp3(
                dir, name, c.rate, 2, {"-b", std::to_string(bps / 1000), "--resample", std::to_string(c.rate / 1000.0)});
            ASSERT_FALSE(path.empty()) << name;
            const test::Bytes file = test::read_file(path);
            const test::FrameWalk walk = test::walk_frames(file);
            SCOPED_TRACE(name);
            ASSERT_GT(walk.frames.size(), 10u);
            EXPECT_EQ(walk.stop, file.size());
            bool padded = false;
            for (const test::FrameAt& f : walk.frames) {
                EXPECT_EQ(f.header.sample_rate, c.rate);
                EXPECT_EQ(f.header.bit_rate, bps);
                EXPECT_EQ(f.header.layer, 3);
                EXPECT_EQ(f.header.version, c.version == 1 ? 1 : 2);
                EXPECT_EQ(f.header.is_mpeg25, c.version == 3 ? 1 : 0);
                padded = padded || ((file[f.offset + 2] >> 1) & 1) != 0;
            }
            // The 44.1 kHz family cannot hold whole-byte frames without
            // padding, so the chain crossed padded frames.
            if (c.rate % 11025 == 0) {
                EXPECT_TRUE(padded);
            }
        }
    }
}

} // namespace
} // namespace KEL
