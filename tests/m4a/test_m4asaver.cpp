// The writer: its tables, its "moov" templates byte for byte, the caller's
// blocks, reading written files back, and ffprobe's view of them.
#include "m4a/m4a_parseraac.h"
#include "m4a/m4a_parseralac.h"
#include "m4a/m4a_saveraac.h"
#include "m4a/m4a_saveralac.h"
#include "m4a/m4afixtures.h"

#include "core/fourcc.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>

namespace KEL {
namespace test {
namespace {

// Packets of 50..449 random bytes, 1024 frames each but the last.
void fill(PacketSet& set, int count, int last_frames, uint32_t seed = 5)
{
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
        Bytes b(50 + random() % 400);
        for (auto& x : b)
            x = static_cast<unsigned char>(random());
        set.add(b, i + 1 < count ? 1024 : last_frames);
    }
}

struct Saved {
    int code = -1;
    Bytes file;
};

Saved save(PacketSet& set, bool alac, int channels, float rate, int rate_or_bits, const Bytes& first = Bytes(),
           const Bytes& second = Bytes(), _kel_progress_ext_t* progress = nullptr)
{
    Saved out;
    FILE* f = std::tmpfile();
    const void* b1 = first.empty() ? nullptr : first.data();
    const void* b2 = second.empty() ? nullptr : second.data();
    const int n1 = static_cast<int>(first.size()), n2 = static_cast<int>(second.size());
    if (alac)
        out.code = M4A_SaverALAC(f).save(set.get(), set.count(), channels, rate, rate_or_bits, b1, n1, b2, n2, progress);
    else
        out.code = M4A_SaverAAC(f).save(set.get(), set.count(), channels, rate, rate_or_bits, b1, n1, b2, n2, progress);
    out.file.resize(static_cast<size_t>(ftello(f)));
    std::rewind(f);
    EXPECT_EQ(std::fread(out.file.data(), 1, out.file.size(), f), out.file.size());
    std::fclose(f);
    return out;
}

// Reads the file back: every packet's bytes and frames as written.
void expect_packets_back(const Saved& saved, PacketSet& set, bool alac)
{
    MemFile f(saved.file);
    std::unique_ptr<M4A_Parser> parser(alac ? static_cast<M4A_Parser*>(new M4A_ParserALAC())
                                            : static_cast<M4A_Parser*>(new M4A_ParserAAC()));
    ASSERT_EQ(parser->parse(f.get()), 0);
    ASSERT_EQ(parser->get_packet_count(), set.count());
    for (int i = 0; i < set.count(); ++i) {
        long long offset = 0;
        int size = 0, frames = 0;
        ASSERT_EQ(parser->get_packet_info(i, &offset, &size, &frames), 1) << i;
        EXPECT_EQ(frames, set.get()[i]->frame_count) << i;
        ASSERT_EQ(size, static_cast<int>(set.bytes(i).size())) << i;
        ASSERT_LE(offset + size, static_cast<long long>(saved.file.size()));
        EXPECT_TRUE(std::equal(set.bytes(i).begin(), set.bytes(i).end(), saved.file.begin() + offset)) << i;
    }
}

TEST(SaverTables, RunsSizesAndChunksOfTwentyOne)
{
    M4A_Saver saver(nullptr);
    PacketSet runs;
    for (int frames : {1024, 1024, 960})
        runs.add(Bytes(10, 1), frames);
    const Bytes stts = stts_atom({{2, 1024}, {1, 960}});
    ASSERT_NE(saver.create_stts(runs.get(), runs.count()), nullptr);
    EXPECT_TRUE(std::equal(stts.begin(), stts.end(), saver.stts));

    for (int count : {1, 20, 21, 22, 42, 43, 64}) {
        PacketSet set;
        fill(set, count, 1024, static_cast<uint32_t>(count));
        std::vector<uint32_t> sizes;
        for (int i = 0; i < count; ++i)
            sizes.push_back(static_cast<uint32_t>(set.bytes(i).size()));
        // Chunk c starts after the 21 * c packets before it.
        std::vector<uint32_t> offsets(count < 21 ? 1 : static_cast<size_t>((count + 20) / 21), 0);
        for (size_t c = 1; c < offsets.size(); ++c)
            for (size_t i = 0; i < c * 21; ++i)
                offsets[c] += sizes[i];
        const Bytes stsz = stsz_atom(0, static_cast<uint32_t>(count), sizes);
        ASSERT_NE(saver.create_stsz(set.get(), count), nullptr);
        EXPECT_TRUE(std::equal(stsz.begin(), stsz.end(), saver.stsz)) << count;

        int per = -1, last = -1, last_samples = 77;
        ASSERT_NE(saver.create_stco(&per, &last, &last_samples), nullptr);
        const Bytes stco = stco_atom(offsets);
        EXPECT_TRUE(std::equal(stco.begin(), stco.end(), saver.stco)) << count;
        const bool partial = count > 21 && count % 21 != 0;
        EXPECT_EQ(per, std::min(count, 21)) << count;
        EXPECT_EQ(last, partial ? static_cast<int>(offsets.size()) : 0) << count;
        EXPECT_EQ(last_samples, partial ? count % 21 : 77) << count << ": left alone without a partial chunk";
        ASSERT_NE(saver.create_stsc(per, last, last_samples), nullptr);
        const uint32_t n = static_cast<uint32_t>(offsets.size());
        const Bytes stsc = partial ? stsc_atom({{1, 21, 1}, {n, static_cast<uint32_t>(count % 21), 1}})
                                   : stsc_atom({{1, static_cast<uint32_t>(per), 1}});
        EXPECT_TRUE(std::equal(stsc.begin(), stsc.end(), saver.stsc)) << count;
    }

    // 1904 to 1970 is 2082844800 s; the clock used is four hours ahead.
    // Read the same clock as the saver: time() may run on a coarser one that
    // lags it by a tick across a second's edge.
    const auto seconds = [] {
        timeval now{};
        gettimeofday(&now, nullptr);
        return static_cast<long long>(now.tv_sec);
    };
    const long long before = seconds();
    const long long carbon = M4A_Saver::_get_carbon_time();
    const long long after = seconds();
    EXPECT_GE(carbon, before + 2082844800LL + 14400);
    EXPECT_LE(carbon, after + 2082844800LL + 14400);
}

Bytes matrix()
{
    return cat({be32(0x10000), be32(0), be32(0), be32(0), be32(0x10000), be32(0), be32(0), be32(0), be32(0x40000000)});
}

// The "moov" template for template size z, tables s, extra atoms, creation
// time, time scale, frames, next track id and chapter ids; entry follows.
Bytes expected_template(uint32_t z, uint32_t s, uint32_t extra, uint32_t t, uint32_t rate, uint32_t frames,
                        uint32_t next, const std::vector<uint32_t>& chapter_ids, const Bytes& entry)
{
    return cat({
        be32(z + s + extra), tag("moov"),
        be32(108), tag("mvhd"), be32(0), be32(t), be32(t), be32(rate), be32(frames), be32(0x10000), be16(0x100),
        Bytes(10, 0), matrix(), Bytes(24, 0), be32(next),
        be32(z - 116 + s), tag("trak"),
        be32(92), tag("tkhd"), be32(7), be32(t), be32(t), be32(1), be32(0), be32(frames), Bytes(12, 0), be16(0x100),
        be16(0), matrix(), be32(0), be32(0),
        be32(28), tag("tref"), be32(20), tag("chap"), be32(chapter_ids[0]), be32(chapter_ids[1]), be32(chapter_ids[2]),
        be32(z - 244 + s), tag("mdia"),
        be32(32), tag("mdhd"), be32(0), be32(t), be32(t), be32(rate), be32(frames), be32(0),
        be32(36), tag("hdlr"), be32(0), be32(0), tag("soun"), Bytes(16, 0),
        be32(z - 320 + s), tag("minf"),
        be32(16), tag("smhd"), Bytes(8, 0),
        be32(36), tag("dinf"), be32(28), tag("dref"), be32(0), be32(1), be32(12), tag("url "), be32(1),
        be32(z - 380 + s), tag("stbl"),
        be32(z - 388), tag("stsd"), be32(0), be32(1),
        entry,
    });
}

// Sum of the four table atoms behind a template of z bytes.
uint32_t tables_after(const Bytes& file, uint32_t z)
{
    uint32_t s = 0;
    for (int i = 0; i < 4; ++i)
        s += get_be32(file, 32 + z + s);
    return s;
}

TEST(SaverFiles, AacTemplateByteForByteAndPacketsReadBack)
{
    for (const auto& r : std::initializer_list<std::pair<float, uint32_t>>{
             {44100.0f, 4}, {22050.0f, 7}, {8000.0f, 11}, {92100.0f, 0}, {92099.0f, 1}, {9513.0f, 10}}) {
        PacketSet set;
        fill(set, 47, 960);
        const uint32_t rate = static_cast<uint32_t>(r.first);
        const Saved saved = save(set, false, 2, r.first, 128000);
        ASSERT_EQ(saved.code, 0);
        const Bytes ftyp = cat({be32(32), tag("ftyp"), tag("M4A "), be32(0), tag("M4A "), tag("mp42"), tag("isom"), be32(0)});
        EXPECT_TRUE(std::equal(ftyp.begin(), ftyp.end(), saved.file.begin()));

        const long long frames = 46 * 1024 + 960;
        const uint32_t time = get_be32(saved.file, 32 + 20);
        EXPECT_NEAR(time, M4A_Saver::_get_carbon_time(), 5.0);
        const uint32_t s = tables_after(saved.file, 500);
        EXPECT_EQ(s, 32u + 40u + (20u + 4u * 47u) + (16u + 4u * 3u)) << "2 runs, 2 stsc entries, 3 chunks";
        // Bits per second over the duration, exact up to rounding.
        const long long average = set.total_bytes() * 8 * rate / frames;
        const uint32_t written_average = get_be32(saved.file, 32 + 474);
        EXPECT_LE(std::llabs(written_average - average), 1);
        const Bytes entry = cat({
            be32(96), tag("mp4a"), Bytes(6, 0), be16(1), be32(0), be32(0), be16(2), be16(16), be32(0),
            be32(rate << 16), be32(51), tag("esds"), be32(0),
            Bytes{3, 0x80, 0x80, 0x80, 0x22, 0, 0, 0},                // ES descriptor, 34 bytes
            Bytes{4, 0x80, 0x80, 0x80, 0x14, 0x40, 0x15, 0, 0x18, 0}, // decoder configuration, 20 bytes
            be32(128000), be32(written_average),
            Bytes{5, 0x80, 0x80, 0x80, 0x02},                         // AudioSpecificConfig, 2 bytes
            be16((2u << 11) | (r.second << 7) | (2u << 3)),
            Bytes{6, 0x80, 0x80, 0x80, 0x01, 0x02},                   // SL configuration
            be32(9), tag("free"), Bytes{0},
        });
        const Bytes want = expected_template(500, s, 0, time, rate, frames, 2, {0, 0, 0}, entry);
        ASSERT_EQ(want.size(), 500u);
        for (size_t i = 0; i < want.size(); ++i)
            ASSERT_EQ(saved.file[32 + i], want[i]) << "template byte " << i << " at " << rate;

        // The first chunk starts right after ftyp, moov and the mdat header.
        const uint32_t moov = get_be32(saved.file, 32);
        EXPECT_EQ(get_be32(saved.file, locate(saved.file, "moov/trak/mdia/minf/stbl/stco") + 16), moov + 40);
        EXPECT_EQ(get_be32(saved.file, 32 + moov), set.total_bytes() + 8) << "mdat size";
        expect_packets_back(saved, set, false);
    }
}

TEST(SaverFiles, AlacTemplateByteForByteAndPacketsReadBack)
{
    PacketSet set;
    fill(set, 4, 1000);
    for (int i = 0; i < 3; ++i)
        set.get()[i]->frame_count = 4096;
    const Bytes user = atom("udta", atom("xtra", tag("abcd")));
    const Saved saved = save(set, true, 2, 48000.0f, 24, user, atom("trak", Bytes(8, 0)));
    ASSERT_EQ(saved.code, 0);
    uint32_t largest = 0;
    for (int i = 0; i < 4; ++i)
        largest = std::max(largest, static_cast<uint32_t>(set.bytes(i).size()));
    const uint32_t time = get_be32(saved.file, 32 + 20);
    const uint32_t s = tables_after(saved.file, 476);
    const long long average = set.total_bytes() * 8 * 48000 / (4096 * 4);
    const uint32_t written_average = get_be32(saved.file, 32 + 468);
    EXPECT_LE(std::llabs(written_average - average), 1);
    const Bytes entry = cat({be32(72), tag("alac"), Bytes(6, 0), be16(1), be32(0), be32(0), be16(2), be16(24), be32(0),
                             be32(48000u << 16), be32(36), tag("alac"), be32(0), be32(4096), Bytes{0, 24, 40, 10, 14, 2},
                             be16(255), be32(largest), be32(written_average), be32(48000)});
    // The second block is ignored; the first counts in "moov".
    const Bytes want = expected_template(476, s, static_cast<uint32_t>(user.size()), time, 48000, 3 * 4096 + 1000, 2,
                                         {0, 0, 0}, entry);
    ASSERT_EQ(want.size(), 476u);
    for (size_t i = 0; i < want.size(); ++i)
        ASSERT_EQ(saved.file[32 + i], want[i]) << "template byte " << i;
    const uint32_t moov = get_be32(saved.file, 32);
    EXPECT_EQ(locate(saved.file, "moov/udta"), 32 + moov - static_cast<long long>(user.size())) << "the last child";
    EXPECT_EQ(get_be32(saved.file, 32 + moov), set.total_bytes() + 8);
    expect_packets_back(saved, set, true);
}

TEST(SaverFiles, ChapterTracksAreRescaledAndMoved)
{
    // Durations in 1/10000 s, chunk offsets from the block's mdat payload.
    auto trak = [](uint32_t duration, const std::vector<uint32_t>& chunks) {
        const Bytes tkhd = full_atom("tkhd", cat({be32(0), be32(0), be32(2), be32(0), be32(duration), Bytes(60, 0)}));
        return atom("trak", cat({tkhd, atom("mdia", atom("minf", atom("stbl", stco_atom(chunks))))}));
    };
    const Bytes t0 = trak(25000, {0, 10}), t1 = trak(5000, {15});
    const Bytes media = tag("chapter one, two....");
    const Bytes second = cat({t0, t1, atom("mdat", media)});
    const Bytes unchanged = second;
    const Bytes user = atom("udta", atom("xtra", tag("abcd")));
    PacketSet set;
    fill(set, 30, 1024);
    const Saved saved = save(set, false, 2, 44100.0f, 96000, user, second);
    ASSERT_EQ(saved.code, 0);
    EXPECT_EQ(second, unchanged) << "the caller's block is not changed";

    const uint32_t s = tables_after(saved.file, 500);
    const uint32_t moov = get_be32(saved.file, 32);
    ASSERT_EQ(moov, 500 + s + t0.size() + t1.size() + user.size());
    EXPECT_EQ(get_be32(saved.file, 32 + 112), 4u) << "next track id";
    EXPECT_EQ(get_be32(saved.file, 32 + 232), 2u);
    EXPECT_EQ(get_be32(saved.file, 32 + 236), 3u);
    EXPECT_EQ(get_be32(saved.file, 32 + 240), 0u);
    // The tracks follow the tables; the caller's atoms end "moov".
    const long long at = 32 + 500 + s;
    EXPECT_EQ(get_be32(saved.file, at + 4), static_cast<uint32_t>(fourcc("trak")));
    EXPECT_EQ(get_be32(saved.file, at + 8 + 28), 110250u) << "2.5 s at 44100";
    EXPECT_EQ(get_be32(saved.file, at + t0.size() + 8 + 28), 22050u);
    EXPECT_TRUE(std::equal(user.begin(), user.end(), saved.file.begin() + 32 + moov - user.size()));
    // Their media lead the mdat; their chunk offsets point at them.
    const uint32_t media_at = moov + 40;
    EXPECT_TRUE(std::equal(media.begin(), media.end(), saved.file.begin() + media_at));
    EXPECT_EQ(get_be32(saved.file, at + t0.size() - 8), media_at);
    EXPECT_EQ(get_be32(saved.file, at + t0.size() - 4), media_at + 10);
    EXPECT_EQ(get_be32(saved.file, at + t0.size() + t1.size() - 4), media_at + 15);
    EXPECT_EQ(get_be32(saved.file, 32 + moov), set.total_bytes() + media.size() + 8);
    expect_packets_back(saved, set, false);
}

TEST(SaverFiles, UnreadablePacketsLongClipsAndWriteFailures)
{
    PacketSet set;
    fill(set, 5, 1024);
    set.add_unreadable(123, 1024);
    fill(set, 3, 1024, 9);
    std::vector<float> reports;
    _kel_progress_ext_t progress = {[](void* context, float percent) {
                                        static_cast<std::vector<float>*>(context)->push_back(percent);
                                        return 0; // a cancel is ignored while saving
                                    },
                                    &reports, 0.0f};
    const Saved saved = save(set, false, 2, 44100.0f, 128000, Bytes(), Bytes(), &progress);
    EXPECT_EQ(saved.code, fourcc("Egga"));
    expect_packets_back(saved, set, false); // the unreadable one as 123 zeros
    ASSERT_GE(reports.size(), 2u);
    EXPECT_EQ(reports.front(), 0.0f);
    EXPECT_EQ(reports.back(), 100.0f);
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));

    PacketSet huge;
    for (int i = 0; i < 3; ++i)
        huge.add(Bytes(4, 0), 1000000000);
    EXPECT_EQ(save(huge, false, 2, 44100.0f, 128000).code, fourcc("Esmp"));
    EXPECT_EQ(save(huge, true, 2, 44100.0f, 16).code, fourcc("Esmp"));

    TempDir dir;
    write_file(dir.path("ro.m4a"), Bytes{1});
    FILE* read_only = std::fopen(dir.path("ro.m4a").c_str(), "rb");
    EXPECT_EQ(M4A_SaverALAC(read_only).save(set.get(), set.count(), 2, 44100.0f, 16, nullptr, 0, nullptr, 0, nullptr),
              fourcc("EIO "));
    std::fclose(read_only);
}

} // namespace
} // namespace test
} // namespace KEL
