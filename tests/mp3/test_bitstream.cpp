// Bit reader and MPEG audio headers: the field reads, bounds and in-place
// writes against an independent bit-by-bit model, the alignment quirk, and
// every header field combination against the published tables.
#include "mp3fixtures.h"

#include "core/fourcc.h"
#include "coded/bitstream.h"
#include "mp3/mpegheader.h"

#include <gtest/gtest.h>

#include <random>

namespace KEL {
namespace {

using test::Bytes;
const int kEbef = fourcc("Ebef");

// Bits consumed so far by the reader, from its start.
long consumed(const Bitstream& bs)
{
    return static_cast<long>(bs.current - bs.start) * 8 + bs.bit_offset;
}

TEST(Bitstream, EndOfData)
{
    // One spare byte: get_bits_le8 loads the byte after its field.
    Bytes b = {0xFF, 0xFB, 0x92, 0x64, 0x5A, 0xC3, 0xEE};
    Bitstream bs(b.data(), 6);
    int err = -1;
    ASSERT_EQ(bs.skip_bits(26), 0);
    // 22 bits are left: 23 fail without moving, 22 reach the end exactly.
    EXPECT_EQ(bs.skip_bits(23), kEbef);
    EXPECT_EQ(consumed(bs), 26);
    EXPECT_EQ(bs.bytes_left * 8 - bs.bit_offset, 22);
    EXPECT_EQ(bs.skip_bits(22), 0);
    EXPECT_EQ(bs.current, b.data() + 6);
    EXPECT_EQ(bs.bytes_left, 0);
    EXPECT_EQ(bs.bit_offset, 0);

    // At the end every bounded operation fails, gives 0 and stays put; a
    // 0-bit field still reads (as 0); negative and over-wide requests are
    // refused without moving.
    int e1 = 0, e2 = 0, e3 = 0;
    EXPECT_EQ(bs.get_bits_le8(1, e1) + bs.peek_8bits(e2) + bs.peek_bits_le8(3, e3), 0);
    EXPECT_EQ(e1, kEbef);
    EXPECT_EQ(e2, kEbef);
    EXPECT_EQ(e3, kEbef);
    EXPECT_EQ(bs.poke_8bits(0x00), kEbef);
    EXPECT_EQ(b[6], 0xEE);
    EXPECT_EQ(bs.get_bits_le8(0, err), 0);
    EXPECT_EQ(err, 0);
    bs.rewind();
    EXPECT_EQ(bs.skip_bits(-1), kEbef);
    EXPECT_EQ(bs.get_bits_le8(9, err), 0);
    EXPECT_EQ(consumed(bs), 0);
}

TEST(Bitstream, ByteAlignKeepsCurrentAndShortensBound)
{
    Bytes b = {0x12, 0x34, 0x56};
    Bitstream one(b.data() + 2, 1);
    EXPECT_EQ(one.byte_align(), 0);
    EXPECT_EQ(one.bytes_left, 1);
    EXPECT_EQ(one.current, b.data() + 2);

    one.skip_bits(5);
    EXPECT_EQ(one.byte_align(), kEbef);
    EXPECT_EQ(one.bit_offset, 0);
    EXPECT_EQ(one.bytes_left, 0);
    EXPECT_EQ(one.current, b.data() + 2);
    EXPECT_EQ(one.byte_align(), kEbef); // nothing left at all

    // Mid-buffer: the same byte is read again, with one byte less of bound.
    Bytes c = {0x12, 0x34, 0x56, 0x00};
    Bitstream bs(c.data(), 3);
    bs.skip_bits(3);
    EXPECT_EQ(bs.byte_align(), 0);
    EXPECT_EQ(bs.current, c.data());
    EXPECT_EQ(bs.bytes_left, 2);
    int err = -1;
    EXPECT_EQ(bs.get_bits_le8(8, err), 0x12);
    EXPECT_EQ(bs.get_bits_le8(8, err), 0x34);
    EXPECT_EQ(bs.get_bits_le8(1, err), 0);
    EXPECT_EQ(err, kEbef);
}

// Random fields written with the test's writer come back through every
// kind of read; pokes at random offsets match an independent bit model.
TEST(Bitstream, RandomFieldsRoundTrip)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        struct Field {
            int width;
            unsigned value;
            bool skip;
        };
        std::vector<Field> fields;
        test::BitWriter w;
        const int count = 1 + static_cast<int>(rng() % 40);
        for (int i = 0; i < count; ++i) {
            Field f{static_cast<int>(rng() % 9), 0, rng() % 4 == 0};
            if (f.skip)
                f.width = static_cast<int>(rng() % 24);
            f.value = rng() & ((1u << f.width) - 1u);
            w.put(f.value, f.width);
            fields.push_back(f);
        }
        Bytes b = w.bytes();
        const int len = static_cast<int>(b.size());
        b.push_back(static_cast<unsigned char>(rng())); // room for the look-ahead load
        Bitstream bs(b.data(), len);
        long pos = 0;
        for (const Field& f : fields) {
            int err = -1;
            if (f.skip) {
                ASSERT_EQ(bs.skip_bits(f.width), 0);
            } else {
                ASSERT_EQ(bs.peek_bits_le8(f.width, err), int(f.value));
                if (pos + 8 <= long(len) * 8) {
                    ASSERT_EQ(bs.peek_8bits(err), int(test::read_field(b, size_t(pos), 8)));
                    ASSERT_EQ(err, 0);
                }
                ASSERT_EQ(bs.get_bits_le8(f.width, err), int(f.value));
                ASSERT_EQ(err, 0);
            }
            pos += f.width;
            ASSERT_EQ(consumed(bs), pos);
            ASSERT_EQ(bs.bytes_left * 8 - bs.bit_offset, long(len) * 8 - pos);
        }
        // Beyond the written bits (plus zero padding) nothing reads.
        ASSERT_EQ(bs.skip_bits(int(long(len) * 8 - pos) + 1), kEbef);

        // Poke at a random position that leaves 8 bits.
        if (len * 8 >= 8) {
            const int at = static_cast<int>(rng() % static_cast<unsigned>(len * 8 - 7));
            const unsigned char v = static_cast<unsigned char>(rng());
            Bytes model = b;
            test::write_field(model, size_t(at), 8, v);
            bs.rewind();
            ASSERT_EQ(bs.skip_bits(at), 0);
            ASSERT_EQ(bs.poke_8bits(v), 0);
            ASSERT_EQ(b, model) << "poke at bit " << at;
            ASSERT_EQ(consumed(bs), at);
        }
    }
}

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

} // namespace
} // namespace KEL
