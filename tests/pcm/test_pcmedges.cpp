// WAVE, AIFF and CAF clips at their edges, one suite run over each format:
// hand-made files with one fault each, unusual layouts that must open, the
// partial last packet, size limits, progress, failed saves, and damaged
// files (every truncation, seeded random bytes).
#include "pcmformats.h"

#include "api/formatdispatch.h"
#include "core/fourcc.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

class PcmEdgeTest : public PcmFormatTest {};

// Opens a damaged file: refused with a code, or a clip whose packets all
// decode to their length or not at all.
void open_damaged(const std::string& file)
{
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    if (!clip) {
        ASSERT_NE(err, 0);
        return;
    }
    ASSERT_EQ(err, 0);
    ASSERT_GT(clip->packet_count, 0);
    for (int i = 0; i < clip->packet_count; ++i) {
        const int n = clip->packet_frame_count(i, nullptr);
        std::vector<float> l(static_cast<size_t>(n)), r(static_cast<size_t>(n));
        float* out[2] = {l.data(), r.data()};
        const int got = clip->packet_decode_play(i, out, &err, -1.0f);
        ASSERT_TRUE(got == n || got == 0);
    }
}

// Writes every prefix (up to 512 bytes), the file less 1 to 16 bytes, and
// 3000 seeded variants with 1 to 4 random bytes in the first header_bytes:
// each must be refused with a code or open as a clip whose packets all
// decode within bounds.
void expect_damage_handled(const Bytes& valid, size_t header_bytes, const std::string& file, unsigned seed)
{
    write_file(file, valid);
    int err = 0;
    ASSERT_TRUE(open_clip(file, err)) << "the undamaged file must open";
    for (size_t n = 0; n <= std::min<size_t>(512, valid.size()); ++n) {
        write_file(file, Bytes(valid.begin(), valid.begin() + static_cast<long>(n)));
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "prefix " << n;
    }
    for (size_t cut = 1; cut <= 16; ++cut) {
        write_file(file, Bytes(valid.begin(), valid.end() - static_cast<long>(cut)));
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "minus " << cut;
    }
    std::mt19937 random(seed);
    std::uniform_int_distribution<size_t> where(0, header_bytes - 1);
    std::uniform_int_distribution<int> value(0, 255), how_many(1, 4);
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = valid;
        for (int k = how_many(random); k > 0; --k)
            damaged[where(random)] = static_cast<unsigned char>(value(random));
        write_file(file, damaged);
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "round " << round;
    }
}

TEST_P(PcmEdgeTest, EachHeaderFaultHasItsCode)
{
    const int efmu = fourcc("Efmu");
    for (const Fault& f : fmt().faults) {
        SCOPED_TRACE(f.what);
        const std::string file = put("fault", f.file);
        int err = 0;
        EXPECT_EQ(fmt().open(file.c_str(), &err, nullptr), nullptr);
        EXPECT_EQ(err, f.code);
        // Through the dispatch the format's own code and "Efms" survive;
        // anything else falls through to MP3, which knows nothing of it.
        err = 0;
        EXPECT_FALSE(open_clip(file, err));
        EXPECT_EQ(err, f.code == fourcc("Eeof") ? efmu : f.code);
        // The file information reads the headers alone, and a detected
        // format's answer is final.
        EXPECT_EQ(FormatDispatch::standard().file_info(file.c_str(), nullptr, nullptr), f.in_headers ? f.code : 0);
    }
    EXPECT_EQ(fmt().detect(put("short", Bytes(fmt().canonical.begin(), fmt().canonical.begin() + 7)).c_str()), efmu);
    EXPECT_EQ(fmt().detect(path("missing").c_str()), fourcc("Efor"));
    EXPECT_EQ(FormatDispatch::standard().file_info(path("missing").c_str(), nullptr, nullptr), fourcc("Efor"));
    EXPECT_EQ(fmt().detect(put("ok", fmt().canonical).c_str()), 0);
}

TEST_P(PcmEdgeTest, UnusualButValidLayoutsOpen)
{
    for (const Layout& g : fmt().layouts) {
        SCOPED_TRACE(g.what);
        const std::string file = put("good", g.file);
        int err = -1;
        ClipPtr clip = open_clip(file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        EXPECT_EQ(clip->channels, g.channels);
        EXPECT_EQ(clip->bits_per_sample, 16);
        ASSERT_EQ(clip->packet_count, 1);
        EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), static_cast<int>(g.left.size()));
        std::vector<float> left = g.left, right = g.right;
        left.resize(1024, 0.0f);
        right.resize(1024, 0.0f);
        const Samples s = decode_clip(*clip);
        EXPECT_TRUE(same_bits(s.left, left));
        EXPECT_TRUE(same_bits(s.right, right));

        // Half gain halves the stored words, truncating toward zero.
        std::vector<float> l(1024), r(1024);
        float* out[2] = {l.data(), r.data()};
        ASSERT_EQ(clip->packet_decode_play(0, out, &err, 0.5f), 1024);
        for (size_t i = 0; i < g.left.size(); ++i)
            EXPECT_EQ(l[i], static_cast<float>(static_cast<int>(g.left[i] * 32768.0f) / 2) / 32768.0f) << i;

        if (g.resaves) {
            const std::string saved = path("resaved");
            clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
            ASSERT_EQ(err, 0);
            EXPECT_EQ(read_file(saved), fmt().canonical);
        }
    }
}

TEST_P(PcmEdgeTest, PartialLastPacketReportsAFullPacketAndDecodesSilence)
{
    // 10,000 bytes: 2,500 frames, so 1024 + 1024 + 452; saving writes the
    // disk frames only, in the format's own order.
    int err = 0;
    ClipPtr clip = open_clip(put("2500", fmt().stereo16(2500, 10000, true)), err);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->packet_count, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(clip->packet_frame_count(i, nullptr), 1024);
    EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 1024);
    EXPECT_EQ(clip->get_packet(2)->disk_frame_count(), 452);
    EXPECT_EQ(clip->get_packet(2)->handle->size, 452 * 4);
    EXPECT_FLOAT_EQ(clip->duration(), 3072.0f / 44100.0f);
    Samples want;
    for (int i = 0; i < 3072; ++i) {
        want.left.push_back(i < 2500 ? pattern(i, 0) / 32768.0f : 0.0f);
        want.right.push_back(i < 2500 ? pattern(i, 1) / 32768.0f : 0.0f);
    }
    const Samples got = decode_clip(*clip);
    EXPECT_TRUE(same_bits(got.left, want.left));
    EXPECT_TRUE(same_bits(got.right, want.right));
    const std::string out = path("out");
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(read_file(out), fmt().stereo16(2500, 10000, false));
}

TEST_P(PcmEdgeTest, SizeLimits)
{
    // Reading: a file of the limit is refused before any chunk is read;
    // one byte less opens, the data cut to the bytes present.
    if (fmt().read_limit > 0) {
        const long long limit = fmt().read_limit, header = fmt().header_bytes;
        const std::string file = put("huge", fmt().stereo16(1, static_cast<uint32_t>(limit - header), false));
        ASSERT_EQ(truncate(file.c_str(), limit), 0) << "sparse files needed";
        int err = 0;
        EXPECT_EQ(fmt().detect(file.c_str()), 0);
        EXPECT_FALSE(open_clip(file, err));
        EXPECT_EQ(err, fourcc("Efmu"));
        ASSERT_EQ(truncate(file.c_str(), limit - 1), 0);
        kel_set_raw_packet_size(1 << 20);
        ClipPtr clip = open_clip(file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        const long long frames = (limit - 1 - header) / 4;
        ASSERT_EQ(clip->packet_count, frames / (1 << 20) + 1);
        EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames % (1 << 20));
    }

    // Saving: files beyond 2^31 - 1 bytes, header and extra block counted,
    // and more frames than that are refused; sizes alone decide, and the
    // handles that claim much and hold nothing are never read.
    const std::string out = path("out");
    const int over = static_cast<int>((2147483648LL - fmt().header_bytes) / 2);
    const Bytes extra(12, 0);
    int err = 0;
    claiming_clip(over, 1024)->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Ebyt"));
    claiming_clip(over - 6, 1024)->save_to(out.c_str(), extra.data(), 12, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Ebyt"));
    claiming_clip(4, 1100000000)->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Esmp"));
    ClipPtr(fmt().create_empty(2, 44100.0f, 16, &err))->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Empt"));
    EXPECT_FALSE(file_exists(out));
}

TEST_P(PcmEdgeTest, LoadReportsProgressAndCanBeCancelled)
{
    const std::string file = put("long", fmt().stereo16(400 * 1024, 400 * 4096, false));
    Reports reports;
    _kel_progress_ext_t progress{&Reports::record, &reports, 0.0f};
    int err = 0;
    ClipPtr clip(fmt().open(file.c_str(), &err, &progress));
    ASSERT_TRUE(clip);
    ASSERT_GE(reports.values.size(), 2u);
    EXPECT_GE(reports.values.front(), 0.5f);
    for (size_t i = 1; i + 1 < reports.values.size(); ++i)
        EXPECT_GE(reports.values[i] - reports.values[i - 1], 0.5f);
    EXPECT_EQ(reports.values.back(), 100.0f);
    EXPECT_LE(reports.values.size(), 202u);

    Reports cancel;
    cancel.cancel_after = 3;
    _kel_progress_ext_t stop{&Reports::record, &cancel, 0.0f};
    EXPECT_EQ(fmt().open(file.c_str(), &err, &stop), nullptr);
    EXPECT_EQ(err, fourcc("Ebrk"));
    EXPECT_EQ(cancel.values.size(), 4u);
}

TEST_P(PcmEdgeTest, SavingWritesTheHeaderLastAndFailuresLeaveNoFile)
{
    int err = 0;
    const Bytes long_file = fmt().stereo16(40 * 1024, 40 * 4096, false);
    ClipPtr clip = open_clip(put("long", long_file), err);
    ASSERT_TRUE(clip);
    // While the audio is being written, the header on disk is still zero;
    // progress rises by half a percent at least and a cancel is ignored.
    Reports watch;
    watch.watched = path("out");
    watch.header_bytes = fmt().header_bytes;
    watch.cancel_after = 0;
    _kel_progress_ext_t progress{&Reports::record, &watch, 0.0f};
    clip->save_to(watch.watched.c_str(), nullptr, 0, nullptr, 0, &err, &progress);
    EXPECT_EQ(err, 0);
    EXPECT_GT(watch.looked, 10);
    EXPECT_FALSE(watch.nonzero);
    EXPECT_EQ(watch.values.back(), 100.0f);
    EXPECT_EQ(read_file(watch.watched), long_file);

    const std::string missing_dir = work.path("no/such/dir");
    clip->save_to(missing_dir.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Efow"));
    clip->save_to(work.root().c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, 21); // the system's EISDIR

    // A write that fails part-way (the file size limit) removes the file.
    const std::string out = path("limited");
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = old;
    small.rlim_cur = 30000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(err, fourcc("EIO "));
    EXPECT_FALSE(file_exists(out));

    // A packet whose bytes cannot be read is saved as silence, with a
    // warning, and the file is kept.
    ClipPtr gap(fmt().create_empty(2, 44100.0f, 16, &err));
    const Bytes one = fmt().stereo16(1024, 4096, false);
    auto* full = new BSHandleMem(4096);
    full->init_with_copy(one.data() + fmt().header_bytes);
    auto* empty = new BSHandleMem(4096);
    for (BSHandleMem* h : {full, empty}) {
        Packet* p = fmt().make_packet(1024, h);
        gap->add_packet(p);
        p->release();
        h->release();
    }
    gap->update_stream_info();
    gap->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    Bytes want = fmt().stereo16(2048, 8192, false);
    std::fill(want.begin() + fmt().header_bytes + 4096, want.end(), 0);
    EXPECT_EQ(read_file(out), want);
}

TEST_P(PcmEdgeTest, DamagedFilesEndInAClipOrACode)
{
    size_t header_bytes = 0;
    const Bytes valid = fmt().damage_base(header_bytes);
    expect_damage_handled(valid, header_bytes, path("damaged"), 20240611u + static_cast<unsigned>(fmt().format));
}

INSTANTIATE_TEST_SUITE_P(Formats, PcmEdgeTest, ::testing::Values(&kWave, &kAiff, &kCaf),
                         [](const ::testing::TestParamInfo<const PcmFormat*>& info) { return info.param->name; });

} // namespace
