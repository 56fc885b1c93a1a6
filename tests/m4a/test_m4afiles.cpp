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
    if (alac)
        return std::unique_ptr<M4A_Parser>(new M4A_ParserALAC());
    return std::unique_ptr<M4A_Parser>(new M4A_ParserAAC());
}

// Opens, detects and parses path; every packet must equal ffprobe's.
std::unique_ptr<M4A_Parser> parse_like_ffprobe(const std::string& path, bool alac)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    EXPECT_NE(f, nullptr) << path;
    if (f == nullptr)
        return nullptr;
    EXPECT_EQ(M4A_ParserAAC::detect(f), alac ? fourcc("Efms") : 0);
    EXPECT_EQ(M4A_ParserALAC::detect(f), alac ? 0 : fourcc("Efms"));
    auto parser = parser_for(alac);
    EXPECT_EQ(parser->parse(f), 0) << path;
    std::fclose(f);

    const auto probed = probe_packets(path);
    EXPECT_FALSE(probed.empty()) << path;
    EXPECT_EQ(parser->get_packet_count(), static_cast<int>(probed.size())) << path;
    for (size_t i = 0; i < probed.size(); ++i) {
        long long offset = -1;
        int size = -1, frames = -1;
        EXPECT_EQ(parser->get_packet_info(static_cast<int>(i), &offset, &size, &frames), 1) << path << " " << i;
        EXPECT_EQ(offset, probed[i].pos) << path << " packet " << i;
        EXPECT_EQ(size, probed[i].size) << path << " packet " << i;
        EXPECT_EQ(frames, probed[i].duration) << path << " packet " << i;
    }
    return parser;
}

// The maximum bit rate of the decoder configuration, reached by following
// the descriptors' nesting: ES descriptor, its flags' optional fields, then
// the configuration (object type, stream type, buffer size, maximum).
int maximum_bit_rate(const Bytes& file)
{
    size_t p = static_cast<size_t>(locate(file, "moov/trak/mdia/minf/stbl/stsd/mp4a/esds")) + 12;
    auto enter = [&](unsigned char tag) {
        if (file[p++] != tag)
            return false;
        while (file[p++] & 0x80) {
        }
        return true;
    };
    if (!enter(3))
        return -1;
    const unsigned char flags = file[p + 2];
    p += 3 + ((flags & 0x80) ? 2 : 0) + ((flags & 0x20) ? 2 : 0);
    if (flags & 0x40)
        p += 1 + file[p];
    return enter(4) ? static_cast<int>(get32(file, static_cast<long long>(p) + 5)) : -1;
}

TEST(M4AFiles, AacPacketsAndParametersMatchFfprobe)
{
    struct Case {
        int rate, channels, kbps;
        bool faststart;
    } cases[] = {{22050, 1, 48, false}, {44100, 2, 128, true}, {48000, 2, 96, false}, {8000, 1, 16, true}};
    for (const Case& c : cases) {
        const std::string path =
            make_aac("aac" + std::to_string(c.rate) + ".m4a", c.rate, c.channels, c.kbps, 1.2, c.faststart);
        ASSERT_FALSE(path.empty()) << "ffmpeg could not make the file";
        auto parser = parse_like_ffprobe(path, false);
        ASSERT_TRUE(parser);
        Probe probe;
        ASSERT_TRUE(ffprobe(path, probe));
        EXPECT_EQ(parser->channels, probe.channels) << c.rate;
        EXPECT_EQ(parser->sample_rate, static_cast<float>(probe.sample_rate)) << c.rate;
        // ffmpeg's maxima lie within the table, so they decide alone.
        const int maximum = maximum_bit_rate(read_file(path));
        ASSERT_GT(maximum, 0);
        ASSERT_LE(maximum, 320000);
        EXPECT_EQ(parser->bit_rate, M4A_ParserAAC::round_bitrate_to_aac_standard(maximum)) << c.rate;
    }
}

TEST(M4AFiles, AlacPacketsAndParametersMatchFfprobe)
{
    struct Case {
        int rate, channels, bits, frames;
    } cases[] = {{44100, 2, 16, 10000}, {48000, 1, 24, 9000}, {96000, 2, 24, 4096 * 2 + 5}};
    for (const Case& c : cases) {
        const std::string path =
            make_alac("alac" + std::to_string(c.rate) + ".m4a", c.rate, c.channels, c.bits, c.frames);
        ASSERT_FALSE(path.empty()) << "ffmpeg could not make the file";
        auto parser = parse_like_ffprobe(path, true);
        ASSERT_TRUE(parser);
        EXPECT_EQ(parser->channels, c.channels);
        EXPECT_EQ(parser->sample_rate, static_cast<float>(c.rate)) << "from the configuration, beyond 16.16";
        EXPECT_EQ(parser->bit_rate, 0);
        EXPECT_EQ(parser->bits_per_sample, c.bits);
        const int packets = parser->get_packet_count();
        ASSERT_EQ(packets, (c.frames + 4095) / 4096);
        int last = 0;
        ASSERT_EQ(parser->get_packet_info(packets - 1, nullptr, nullptr, &last), 1);
        EXPECT_EQ(last, c.frames % 4096) << "a short last packet";
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
