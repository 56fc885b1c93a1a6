// Atom paths, the table loaders' acceptance rules, packet lookups in
// hand-made tables and the stream parameters of hand-made sample entries.
#include "m4a/m4a_parseraac.h"
#include "m4a/m4a_parseralac.h"
#include "m4a/m4aatoms.h"
#include "m4a/m4afixtures.h"

#include "core/fourcc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>

namespace KEL {
namespace test {
namespace {

// A small tree; offsets on the left.
const Bytes kTree = {
    /*   0 */ 0, 0, 0, 16, 'f', 't', 'y', 'p', 'M', '4', 'A', ' ', 0, 0, 0, 0,
    /*  16 */ 0, 0, 0, 88, 'm', 'o', 'o', 'v',
    /*  24 */ 0, 0, 0, 20, 't', 'r', 'a', 'k',                  // first trak
    /*  32 */ 0, 0, 0, 12, 't', 'k', 'h', 'd', 'A', 'A', 'A', 'A',
    /*  44 */ 0, 0, 0, 8, 'f', 'r', 'e', 'e',
    /*  52 */ 0, 0, 0, 28, 't', 'r', 'a', 'k',                  // second trak
    /*  60 */ 0, 0, 0, 12, 't', 'k', 'h', 'd', 'B', 'B', 'B', 'B',
    /*  72 */ 0, 0, 0, 8, 'u', 'd', 't', 'a',
    /*  80 */ 0, 0, 0, 24, 'm', 'e', 't', 'a', 0, 0, 0, 0,      // full box
    /*  92 */ 0, 0, 0, 12, 'h', 'd', 'l', 'r', 'h', 'h', 'h', 'h',
    /* 104 */ 0, 0, 0, 16, 'm', 'd', 'a', 't', 1, 2, 3, 4, 5, 6, 7, 8,
};

// Offset found in a file (and where the file was left), -1 if not found.
long long in_file(const Bytes& bytes, const char* path, long long* position = nullptr)
{
    MemFile f(bytes);
    long long at = -1;
    if (!find_atom(f.get(), reinterpret_cast<const unsigned char*>(path), &at))
        return -1;
    if (position != nullptr)
        *position = ftello(f.get());
    return at;
}

long long in_mem(const Bytes& bytes, const char* path)
{
    int at = -1;
    return find_atom_mem(bytes.data(), static_cast<int>(bytes.size()), reinterpret_cast<const unsigned char*>(path),
                         &at)
               ? at
               : -1;
}

TEST(AtomPath, ComponentsIndexesAndSeparators)
{
    struct Case {
        const char* path;
        long long want, want_mem; // -1: not found
    } cases[] = {
        {"moov.trak.tkhd", 32, 32}, // no index is index 0
        {"moov.trak-0.tkhd", 32, 32},
        {"moov.trak-1.tkhd", 60, 60}, // skips the first trak although it matches
        {"moov.trak-2.tkhd", -1, -1},
        {"moov.free", 44, 44},
        {"moovtrak-1", 52, 52},     // a non-separator starts the next component
        {"moov.meta,hdlr", 92, 92}, // "," steps over version and flags
        {"moov.meta.hdlr", -1, -1}, // "." reads them as a header
        {"mdat", 104, 104},
        {"moo", -1, -1},
        {"", -1, -1},
        // An 8-byte atom that ends its range: memory wants more than 8
        // bytes left for a candidate.
        {"moov.trak-1.udta", 72, -1},
    };
    for (const Case& c : cases) {
        long long position = -1;
        EXPECT_EQ(in_file(kTree, c.path, &position), c.want) << c.path;
        if (c.want >= 0) {
            EXPECT_EQ(position, c.want + 8) << c.path << ": the file is left after the header";
        }
        EXPECT_EQ(in_mem(kTree, c.path), c.want_mem) << c.path;
    }

    // ";" skips 8 bytes in a file; in memory ";mp4" is the next component.
    const Bytes file = m4a_file({{mp4a_entry(2, 44100u << 16, esds_body(0, 0, 4, 2)), Bytes()}});
    EXPECT_EQ(in_file(file, "moov.trak.mdia.minf.stbl.stsd;mp4a"), locate(file, "moov/trak/mdia/minf/stbl/stsd/mp4a"));
    EXPECT_EQ(in_mem(file, "moov.trak.mdia.minf.stbl.stsd;mp4a"), -1);

    const Bytes overshoot = {
        /*  0 */ 0, 0, 0, 20, 'c', 'o', 'n', 't', 0, 0, 0, 0, // full box, one child
        /* 12 */ 0, 0, 0, 8, 'a', 'a', 'a', 'a',
        /* 20 */ 0, 0, 0, 12, 'b', 'b', 'b', 'b', 9, 9, 9, 9, // a sibling of cont
    };
    EXPECT_EQ(in_file(overshoot, "cont,aaaa"), 12);
    // The child range ends 4 bytes past cont: the file walk reads the
    // sibling's header as a child; in memory 4 bytes are too few.
    EXPECT_EQ(in_file(overshoot, "cont,bbbb"), 20);
    EXPECT_EQ(in_mem(overshoot, "cont,bbbb"), -1);
}

TEST(AtomPath, SizeZeroSizeOneAndBadSizes)
{
    const Bytes head(kTree.begin(), kTree.begin() + 16);
    const Bytes big = cat({head,
                           /* 16: size 1, 64-bit size 24, one child */ be32(1), tag("wide"), be32(0), be32(24),
                           atom("chld", Bytes()),
                           /* 40 */ atom("moov", Bytes()),
                           /* 48: size 0, holding what looks like an mdat */ be32(0), tag("zero"),
                           atom("mdat", Bytes(4, 0))});
    EXPECT_EQ(in_file(big, "wide"), 16);
    EXPECT_EQ(in_file(big, "wide.chld"), 32);
    EXPECT_EQ(in_file(big, "moov"), 40);
    EXPECT_EQ(in_file(big, "zero"), 48);
    EXPECT_EQ(in_file(big, "mdat"), -1) << "a size-0 atom runs to the end of the file";
    EXPECT_EQ(in_mem(big, "moov"), -1) << "memory refuses a 64-bit size at once";
    EXPECT_EQ(in_mem(cat({be32(0), tag("zero"), atom("mdat", Bytes(4, 0))}), "mdat"), -1);

    Bytes small64 = big;
    small64[27] = 15; // a 64-bit size below 16
    EXPECT_EQ(in_file(small64, "moov"), -1);
    const Bytes tiny = cat({head, be32(7), tag("free"), atom("moov", Bytes())});
    EXPECT_EQ(in_file(tiny, "moov"), -1);
    EXPECT_EQ(in_mem(tiny, "moov"), -1);
}

TEST(AtomPath, FindAtomAndIndexTriesTrackNumbersInOrder)
{
    const Bytes tables = stts_atom({{1, 1024}});
    const Bytes file = m4a_file({{Bytes(), tables},
                                 {mp4a_entry(2, 44100u << 16, esds_body(0, 0, 4, 2)), tables},
                                 {alac_entry(0, 0, 16, 2, 44100), tables}});
    MemFile f(file);
    int track = -1;
    long long at = -1;
    ASSERT_EQ(find_atom_and_index(f.get(), "moov.trak-%d.mdia.minf.stbl.stsd;alac", &track, &at), 1);
    EXPECT_EQ(track, 2);
    EXPECT_EQ(at, static_cast<long long>(std::string(file.begin(), file.end()).find("alac")) - 4);
    EXPECT_EQ(find_atom_and_index(f.get(), "moov.trak-%d.mdia.minf.stbl.stsd;mp4a", nullptr, &at), 1);
    EXPECT_EQ(find_atom_and_index(f.get(), "moov.trak-%d.mdia.minf.stbl.stco", &track, &at), 0);
}

struct Loader {
    const char* name;
    std::function<void*(FILE*, int)> load;
    uint32_t minimum;
    long count_at;
    uint32_t width;
    Bytes table; // valid, two entries
};

const std::vector<Loader>& loaders()
{
    static const std::vector<Loader> all = {
        {"stts", load_stts, 16, 12, 8, stts_atom({{3, 1024}, {1, 512}})},
        {"stsc", load_stsc, 16, 12, 12, stsc_atom({{1, 2, 1}, {2, 1, 1}})},
        {"stsz", load_stsz, 20, 16, 4, stsz_atom(0, 2, {100, 200})},
        {"stco", load_stco, 16, 12, 4, stco_atom({1000, 2000})},
    };
    return all;
}

// Loads the table of a file whose only track holds it.
bool loads(const Loader& l, const Bytes& table)
{
    MemFile f(m4a_file({{Bytes(), table}}));
    void* block = l.load(f.get(), 0);
    std::free(block);
    return block != nullptr;
}

TEST(TableLoaders, SizeChecks)
{
    for (const Loader& l : loaders()) {
        MemFile f(m4a_file({{Bytes(), l.table}}));
        auto* block = static_cast<unsigned char*>(l.load(f.get(), 0));
        ASSERT_NE(block, nullptr) << l.name;
        EXPECT_EQ(std::memcmp(block, l.table.data(), l.table.size()), 0) << l.name << " stays as in the file";
        // Entries the check lets stand past the atom read as zeros.
        for (size_t i = 0; i < static_cast<size_t>(kTablePadding); ++i)
            EXPECT_EQ(block[l.table.size() + i], 0) << l.name;
        std::free(block);

        // A count is accepted while count * width + 4 <= size: looser than
        // the true extent by the header's length minus 4.
        for (uint32_t count : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0x40000000u}) {
            Bytes t = l.table;
            const Bytes c = be32(count);
            std::copy(c.begin(), c.end(), t.begin() + l.count_at);
            EXPECT_EQ(loads(l, t), uint64_t{l.width} * count + 4 <= l.table.size()) << l.name << " count " << count;
        }
        EXPECT_TRUE(loads(l, atom(l.name, Bytes(l.minimum - 8, 0)))) << l.name;
        EXPECT_FALSE(loads(l, atom(l.name, Bytes(l.minimum - 12, 0)))) << l.name << " below the minimum";

        // Last in the file (no "mdat"), with a size running past its end.
        Bytes file = m4a_file({{Bytes(), l.table}});
        file.resize(file.size() - 72);
        const Bytes grown = be32(static_cast<uint32_t>(l.table.size() + 100));
        std::copy(grown.begin(), grown.end(), file.end() - static_cast<long>(l.table.size()));
        MemFile past(file);
        EXPECT_EQ(l.load(past.get(), 0), nullptr) << l.name;
    }
}

TEST(TableLoaders, ConstantSizeTableHoldsAtMostFourSamples)
{
    const Bytes rest = cat({stts_atom({{5, 1024}}), stsc_atom({{1, 5, 1}}), stco_atom({1000})});
    const Bytes aac = mp4a_entry(2, 44100u << 16, esds_body(128000, 128000, 4, 2));
    const Bytes alac = alac_entry(0, 0, 16, 2, 44100);
    for (uint32_t samples : {4u, 5u}) {
        const Bytes tables = cat({rest, stsz_atom(300, samples, {})});
        EXPECT_EQ(loads(loaders()[2], stsz_atom(300, samples, {})), samples == 4);
        MemFile a(m4a_file({{aac, tables}})), b(m4a_file({{alac, tables}}));
        M4A_ParserAAC pa;
        M4A_ParserALAC pb;
        EXPECT_EQ(pa.parse(a.get()), samples == 4 ? 0 : fourcc("Eaac"));
        EXPECT_EQ(pb.parse(b.get()), samples == 4 ? 0 : fourcc("Ealc"));
    }
}

void install(M4A_Parser& p, const Bytes& stts, const Bytes& stsc, const Bytes& stsz, const Bytes& stco)
{
    unsigned char** fields[] = {&p.stts, &p.stsc, &p.stsz, &p.stco};
    const Bytes* atoms[] = {&stts, &stsc, &stsz, &stco};
    for (int i = 0; i < 4; ++i) {
        *fields[i] = static_cast<unsigned char*>(std::calloc(atoms[i]->size() + kTablePadding, 1));
        std::memcpy(*fields[i], atoms[i]->data(), atoms[i]->size());
    }
}

TEST(PacketInfo, OffsetsSizesAndFramesFollowTheTables)
{
    // Chunks of 3, 3, 2, 4, 4 samples; laid out here chunk by chunk.
    const std::vector<std::vector<uint32_t>> runs = {{1, 3, 1}, {3, 2, 1}, {4, 4, 1}};
    const std::vector<uint32_t> chunks = {1000, 5000, 9000, 20000, 30000};
    const int per_chunk[] = {3, 3, 2, 4, 4};
    for (uint32_t constant : {0u, 200u}) {
        std::vector<uint32_t> sizes;
        std::vector<long long> offsets;
        for (size_t c = 0; c < chunks.size(); ++c) {
            long long at = chunks[c];
            for (int k = 0; k < per_chunk[c]; ++k) {
                sizes.push_back(constant != 0 ? constant : 100 + 7 * static_cast<uint32_t>(sizes.size()));
                offsets.push_back(at);
                at += sizes.back();
            }
        }
        M4A_ParserAAC p;
        install(p, stts_atom({{10, 1024}, {5, 960}, {1, 300}}), stsc_atom(runs),
                stsz_atom(constant, 16, constant != 0 ? std::vector<uint32_t>() : sizes), stco_atom(chunks));
        ASSERT_EQ(p.get_packet_count(), 16);
        for (int i = 0; i < 16; ++i) {
            long long offset = -1;
            int size = -1, frames = -1;
            ASSERT_EQ(p.get_packet_info(i, &offset, &size, &frames), 1) << i;
            EXPECT_EQ(offset, offsets[static_cast<size_t>(i)]) << i;
            EXPECT_EQ(size, static_cast<int>(sizes[static_cast<size_t>(i)])) << i;
            EXPECT_EQ(frames, i < 10 ? 1024 : i < 15 ? 960 : 300) << i;
        }
        long long offset = 0;
        int frames = 0;
        EXPECT_EQ(p.get_packet_info(16, &offset, nullptr, &frames), 0) << "index equal to the count";
    }

    // Chunk offsets are signed 32-bit numbers.
    M4A_ParserAAC s;
    install(s, stts_atom({{4, 1024}}), stsc_atom({{1, 2, 1}}), stsz_atom(0, 4, {10, 20, 30, 40}),
            stco_atom({0x80000000u, 0xFFFFFF00u}));
    const long long want[] = {-2147483648LL, -2147483648LL + 10, -256, -256 + 30};
    for (int i = 0; i < 4; ++i) {
        long long offset = 0;
        ASSERT_EQ(s.get_packet_info(i, &offset, nullptr, nullptr), 1);
        EXPECT_EQ(offset, want[i]) << i;
    }
}

TEST(PacketInfo, OnlyWhatIsAskedIsComputedAndBadTablesGiveZero)
{
    // Three samples, two listed sizes, the third duration 0xFFFFFFFF.
    M4A_ParserAAC p;
    install(p, stts_atom({{2, 1024}, {1, 0xFFFFFFFFu}}), stsc_atom({{1, 1, 1}}), stsz_atom(0, 2, {10, 20}),
            stco_atom({100, 200, 300}));
    long long offset = 0;
    int size = 0, frames = 0;
    EXPECT_EQ(p.get_packet_info(2, &offset, nullptr, nullptr), 1);
    EXPECT_EQ(offset, 300);
    EXPECT_EQ(p.get_packet_info(2, nullptr, &size, nullptr), 0);
    EXPECT_EQ(p.get_packet_info(2, nullptr, nullptr, &frames), 0);

    // Runs naming a chunk beyond "stco"; 0 samples per chunk; no "stco".
    M4A_ParserAAC q;
    install(q, stts_atom({{8, 1024}}), stsc_atom({{1, 2, 1}, {5, 2, 1}}), stsz_atom(50, 8, {}),
            stco_atom({100, 200, 300}));
    EXPECT_EQ(q.get_packet_info(5, &offset, nullptr, nullptr), 1);
    EXPECT_EQ(offset, 300 + 50);
    EXPECT_EQ(q.get_packet_info(6, &offset, nullptr, nullptr), 0);
    M4A_ParserAAC z;
    install(z, stts_atom({{8, 1024}}), stsc_atom({{1, 0, 1}}), stsz_atom(50, 8, {}), stco_atom({100}));
    EXPECT_EQ(z.get_packet_info(0, &offset, nullptr, nullptr), 0);
    std::free(q.stco);
    q.stco = nullptr;
    EXPECT_EQ(q.get_packet_info(0, nullptr, nullptr, &frames), 0);
    EXPECT_EQ(M4A_ParserALAC().get_packet_count(), 0);
}

const Bytes kTables = cat({stts_atom({{1, 1024}}), stsc_atom({{1, 1, 1}}), stsz_atom(0, 1, {8}), stco_atom({64})});

TEST(StreamParameters, AacBitRateRateAndChannels)
{
    struct Case {
        uint32_t max, avg;
        int want;
    } rates[] = {
        {130000, 50000, 160000},  // the maximum decides within the table
        {400000, 100000, 112000}, // above the table: the average
        {400000, 330000, 0},      // both above
        {0, 100000, 16000},       // a maximum of 0 gives the lowest rate
        {0x80000000u, 0, 16000},  // compared as signed numbers
    };
    for (const Case& c : rates) {
        MemFile f(m4a_file({{mp4a_entry(2, 44100u << 16, esds_body(c.max, c.avg, 4, 2)), kTables}}));
        M4A_ParserAAC p;
        ASSERT_EQ(p.parse(f.get()), 0);
        EXPECT_EQ(p.bit_rate, c.want) << c.max << " " << c.avg;
    }
    for (const auto& r : std::initializer_list<std::pair<int, int>>{
             {-5, 16000}, {16000, 16000}, {16001, 20000}, {64001, 80000}, {320000, 320000}, {320001, 0}})
        EXPECT_EQ(M4A_ParserAAC::round_bitrate_to_aac_standard(r.first), r.second) << r.first;

    struct Override {
        uint32_t entry_rate;
        int index, config;
        float rate;
        int channels;
    } overrides[] = {
        {44100u << 16, 7, 1, 22050.0f, 1},             // both replaced
        {44100u << 16, 12, 0, 44100.0f, 2},            // index 12, config 0: the entry's
        {(22050u << 16) | 0x8000, 15, 0, 22050.5f, 2}, // with the 16.16 fraction
        {48000u << 16, 11, 2, 8000.0f, 2},
    };
    for (const Override& o : overrides) {
        MemFile f(m4a_file({{mp4a_entry(2, o.entry_rate, esds_body(64000, 64000, o.index, o.config)), kTables}}));
        M4A_ParserAAC p;
        ASSERT_EQ(p.parse(f.get()), 0);
        int channels = 0, bits = -1;
        float rate = 0;
        p.get_m4a_info(&channels, &rate, nullptr, &bits);
        EXPECT_EQ(rate, o.rate);
        EXPECT_EQ(channels, o.channels);
        EXPECT_EQ(bits, 0);
    }
    // An "esds" of 12 bytes or less is not read: no bit rate.
    MemFile bare(m4a_file({{mp4a_entry(1, 32000u << 16, Bytes()), kTables}}));
    M4A_ParserAAC p;
    ASSERT_EQ(p.parse(bare.get()), 0);
    EXPECT_EQ(p.bit_rate, 0);
}

TEST(StreamParameters, AlacConfigurationAndFailures)
{
    // Compatible version and depth are read as one 16-bit number.
    for (const auto& c : std::initializer_list<std::pair<int, int>>{{0, 24}, {1, 16}}) {
        MemFile f(m4a_file({{alac_entry(0, static_cast<uint8_t>(c.first), static_cast<uint8_t>(c.second), 1, 96000),
                             kTables}}));
        M4A_ParserALAC p;
        ASSERT_EQ(p.parse(f.get()), 0);
        int channels = 0, bit_rate = -1, bits = 0;
        float rate = 0;
        p.get_m4a_info(&channels, &rate, &bit_rate, &bits);
        EXPECT_EQ(channels, 1);
        EXPECT_EQ(rate, 96000.0f);
        EXPECT_EQ(bit_rate, 0);
        EXPECT_EQ(bits, c.first * 256 + c.second);
    }
    MemFile v1(m4a_file({{alac_entry(1, 0, 16, 2, 44100), kTables}}));
    EXPECT_EQ(M4A_ParserALAC().parse(v1.get()), fourcc("Efms"));
    Bytes cut = m4a_file({{alac_entry(0, 0, 16, 2, 44100), kTables}});
    cut.resize(std::string(cut.begin(), cut.end()).find("alac") + 40); // ends inside the entry
    MemFile f(cut);
    EXPECT_EQ(M4A_ParserALAC().parse(f.get()), fourcc("Eeof"));
    EXPECT_EQ(M4A_ParserAAC().parse(f.get()), fourcc("Eaac"));
}

TEST(Detect, BrandsAndCodecs)
{
    const Bytes aac = mp4a_entry(2, 44100u << 16, esds_body(0, 0, 4, 2));
    for (const char* brand : {"M4A ", "M4B ", "mp42"}) {
        MemFile f(m4a_file({{aac, kTables}}, brand));
        EXPECT_EQ(M4A_ParserAAC::detect(f.get()), 0) << brand;
        EXPECT_EQ(M4A_ParserALAC::detect(f.get()), fourcc("Efms")) << brand;
    }
    // Only the major brand counts, not "M4A " among the compatible ones.
    MemFile iso(m4a_file({{aac, kTables}}, "isom"));
    EXPECT_EQ(M4A_ParserAAC::detect(iso.get()), fourcc("Efmu"));
    MemFile junk(cat({be32(8), tag("free"), tag("M4A ")}));
    EXPECT_EQ(M4A_ParserAAC::detect(junk.get()), fourcc("Efmu"));
    MemFile empty(Bytes{});
    EXPECT_EQ(M4A_ParserALAC::detect(empty.get()), fourcc("Efmu"));
    EXPECT_EQ(M4A_ParserAAC::detect(nullptr), fourcc("Efor"));
    MemFile alac(m4a_file({{alac_entry(0, 0, 16, 2, 44100), kTables}}));
    EXPECT_EQ(M4A_ParserALAC::detect(alac.get()), 0);
}

} // namespace
} // namespace test
} // namespace KEL
