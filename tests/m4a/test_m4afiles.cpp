// The reader on damaged copies of small files made by ffmpeg. (Offsets and
// sizes of real files are checked through the clips, whose decodes must be
// ffmpeg's bit for bit; the tables and parameters in test_atoms.)
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
    const long long moov_end = moov + get_be32(file, moov);

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
