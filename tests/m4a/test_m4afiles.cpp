// The reader on files made by ffmpeg, against ffprobe's view of them, and
// on damaged copies of small files.
#include "m4a/m4a_parseraac.h"
#include "m4a/m4a_parseralac.h"
#include "m4a/m4afixtures.h"

#include "core/fourcc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>

namespace KEL {
namespace test {
namespace {

std::unique_ptr<M4A_Parser> parser_for(bool alac)
{
    return alac ? std::unique_ptr<M4A_Parser>(new M4A_ParserALAC()) : std::unique_ptr<M4A_Parser>(new M4A_ParserAAC());
}

// Every packet's offset, size and frames as ffprobe demuxes them; the
// stream parameters from the sample entry (an Apple Lossless rate beyond
// 16.16 from its configuration); AAC's bit rate from the decoder
// configuration's maximum, rounded up to the standard rates.
TEST(M4AFiles, PacketsAndParametersMatchFfprobe)
{
    struct Case {
        bool alac;
        int rate, channels, bits, frames;
        int kbps;
    } cases[] = {{false, 22050, 1, 16, 0, 48}, {false, 48000, 2, 16, 0, 96}, {true, 44100, 2, 16, 10000, 0},
                 {true, 96000, 1, 24, 4096 * 2 + 5, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        const std::string name = (c.alac ? "alac" : "aac") + std::to_string(c.rate) + ".m4a";
        const std::string path = c.alac ? make_alac(name, c.rate, c.channels, c.bits, c.frames)
                                        : make_aac(name, c.rate, c.channels, c.kbps, 1.2, c.rate == 48000);
        ASSERT_FALSE(path.empty()) << "ffmpeg could not make the file";
        const Bytes file = read_file(path);
        MemFile f(file);
        EXPECT_EQ(M4A_ParserAAC::detect(f.get()), c.alac ? fourcc("Efms") : 0);
        EXPECT_EQ(M4A_ParserALAC::detect(f.get()), c.alac ? 0 : fourcc("Efms"));
        const auto parser = parser_for(c.alac);
        ASSERT_EQ(parser->parse(f.get()), 0);
        const std::vector<ProbePacket> probed = probe_packets(path);
        ASSERT_EQ(parser->get_packet_count(), static_cast<int>(probed.size()));
        for (size_t i = 0; i < probed.size(); ++i) {
            long long offset = -1;
            int size = -1, frames = -1;
            ASSERT_EQ(parser->get_packet_info(static_cast<int>(i), &offset, &size, &frames), 1) << i;
            EXPECT_EQ(offset, probed[i].pos) << i;
            EXPECT_EQ(size, probed[i].size) << i;
            EXPECT_EQ(frames, probed[i].duration) << i;
        }
        EXPECT_EQ(parser->channels, c.channels);
        EXPECT_EQ(parser->sample_rate, static_cast<float>(c.rate));
        if (c.alac) {
            EXPECT_EQ(parser->bit_rate, 0);
            EXPECT_EQ(parser->bits_per_sample, c.bits);
            continue;
        }
        // The maximum of the decoder configuration: ES descriptor (tag 3),
        // its flags' optional fields, then the configuration (tag 4:
        // object type, stream type, buffer size, maximum).
        size_t p = static_cast<size_t>(locate(file, "moov/trak/mdia/minf/stbl/stsd/mp4a/esds")) + 12;
        auto enter = [&](unsigned char tag) {
            EXPECT_EQ(file[p++], tag);
            while (file[p++] & 0x80) {
            }
        };
        enter(3);
        const unsigned char flags = file[p + 2];
        p += 3 + ((flags & 0x80) ? 2 : 0) + ((flags & 0x20) ? 2 : 0);
        if (flags & 0x40)
            p += 1 + file[p];
        enter(4);
        const int maximum = static_cast<int>(get32(file, static_cast<long long>(p) + 5));
        ASSERT_GT(maximum, 0);
        ASSERT_LE(maximum, 320000); // within the table, so the maximum decides alone
        EXPECT_EQ(parser->bit_rate, M4A_ParserAAC::round_bitrate_to_aac_standard(maximum));
    }
}
// Truncated and changed copies of a small file's "moov": every result is
// a code, never a crash (the sanitizer build checks the reads).
void damage(const Bytes& file, bool alac)
{
    const std::set<int> parse_codes = {0, fourcc("Eaac"), fourcc("Ealc"), fourcc("Efms"), fourcc("Eeof"),
                                       fourcc("EIO ")};
    const std::set<int> detect_codes = {0, fourcc("Efmu"), fourcc("Efms")};
    const long long moov = locate(file, "moov");
    const long long stco = locate(file, "moov/trak/mdia/minf/stbl/stco");
    ASSERT_GT(stco, moov);
    const long long moov_end = moov + get32(file, moov);

    auto run = [&](const Bytes& bytes, bool must_fail, long long what) {
        MemFile f(bytes);
        const int detected = alac ? M4A_ParserALAC::detect(f.get()) : M4A_ParserAAC::detect(f.get());
        EXPECT_TRUE(detect_codes.count(detected)) << what;
        auto parser = parser_for(alac);
        const int parsed = parser->parse(f.get());
        EXPECT_TRUE(parse_codes.count(parsed)) << what << ": " << parsed;
        EXPECT_TRUE(!must_fail || parsed != 0) << what;
        const int count = std::min(parser->get_packet_count(), 3000);
        long long offset;
        int size, frames;
        for (int i = 0; i < count; ++i)
            (void)parser->get_packet_info(i, &offset, &size, &frames);
    };
    // Cutting into the tables must fail the parse.
    for (long long length = moov; length < moov_end; length += 3)
        run(Bytes(file.begin(), file.begin() + length), length < stco + 16, length);
    std::mt19937 random(20240611u);
    std::uniform_int_distribution<long long> where(moov, moov_end - 1);
    std::uniform_int_distribution<int> value(1, 255);
    for (int round = 0; round < 1500; ++round) {
        Bytes changed = file;
        for (int k = 0; k <= round % 3; ++k)
            changed[static_cast<size_t>(where(random))] ^= static_cast<unsigned char>(value(random));
        run(changed, false, -round);
    }
}

TEST(M4AFiles, DamagedMoovGivesCodesNotCrashes)
{
    const std::string aac = make_aac("small_aac.m4a", 44100, 2, 64, 0.3, true);
    const std::string alac = make_alac("small_alac.m4a", 44100, 1, 16, 5000);
    ASSERT_FALSE(aac.empty());
    ASSERT_FALSE(alac.empty());
    damage(read_file(aac), false);
    damage(read_file(alac), true);
}

} // namespace
} // namespace test
} // namespace KEL
