// WAVE clips at their edges: hand-made files with one fault each, the
// packet cut of a partial last packet, the size limits, saving failures,
// progress, and damaged files (every truncation, seeded random bytes).
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "pcm/clipwave.h"
#include "pcm/packetwave.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

const int kEwav = fourcc("Ewav");
const int kEfms = fourcc("Efms");
const int kEfmu = fourcc("Efmu");

// Three frames of 16-bit stereo at 44100 Hz in the canonical layout.
const Bytes kCanonical = {
    'R', 'I', 'F', 'F', 48, 0, 0, 0, 'W', 'A', 'V', 'E', //  0: RIFF, 48 bytes follow, WAVE
    'f', 'm', 't', ' ', 16, 0, 0, 0,                     // 12: "fmt " of 16 bytes
    1, 0,                                                // 20: format tag 1, integer PCM
    2, 0,                                                // 22: 2 channels
    0x44, 0xAC, 0, 0,                                    // 24: 44100 frames per second
    0x10, 0xB1, 2, 0,                                    // 28: 176400 bytes per second
    4, 0,                                                // 32: block align 4
    16, 0,                                               // 34: 16 bits per sample
    'd', 'a', 't', 'a', 12, 0, 0, 0,                     // 36: "data" of 12 bytes
    0x00, 0x80, 0xFF, 0x7F,                              // 44: frame 0: -32768, 32767
    0x00, 0x40, 0x00, 0xC0,                              // 48: frame 1: 16384, -16384
    0x01, 0x00, 0xFF, 0xFF,                              // 52: frame 2: 1, -1
};
const std::vector<float> kCanonicalLeft = {-1.0f, 0.5f, 1.0f / 32768};
const std::vector<float> kCanonicalRight = {32767.0f / 32768, -0.5f, -1.0f / 32768};

// "fmt " after "data": two frames of 16-bit mono at 8000 Hz.
const Bytes kFormatLast = {
    'R', 'I', 'F', 'F', 40, 0, 0, 0, 'W', 'A', 'V', 'E', //  0
    'd', 'a', 't', 'a', 4, 0, 0, 0,                      // 12: "data" of 4 bytes
    0x00, 0x20, 0x00, 0xE0,                              // 20: 8192, -8192
    'f', 'm', 't', ' ', 16, 0, 0, 0,                     // 24: "fmt " of 16 bytes
    1, 0, 1, 0, 0x40, 0x1F, 0, 0,                        // 32: PCM, mono, 8000 Hz
    0x80, 0x3E, 0, 0, 2, 0, 16, 0,                       // 40: 16000 B/s, align 2, 16 bit
};

// An odd-sized chunk (with its pad byte) ahead of the format, and three
// channels of which the decoders read the first two: one frame, 16 bit.
const Bytes kThreeChannels = {
    'R', 'I', 'F', 'F', 54, 0, 0, 0, 'W', 'A', 'V', 'E', //  0
    'j', 'u', 'n', 'k', 3, 0, 0, 0, 9, 9, 9, 0,          // 12: 3 bytes and a pad byte
    'f', 'm', 't', ' ', 16, 0, 0, 0,                     // 24
    1, 0, 3, 0, 0x40, 0x1F, 0, 0,                        // 32: PCM, 3 channels, 8000 Hz
    0x80, 0xBB, 0, 0, 6, 0, 16, 0,                       // 40: 48000 B/s, align 6, 16 bit
    'd', 'a', 't', 'a', 6, 0, 0, 0,                      // 48: "data" of 6 bytes
    0x00, 0x10, 0x00, 0x30, 0x00, 0x70,                  // 56: 4096, 12288, 28672
};

// The canonical file with bytes replaced at one place.
Bytes patched(Bytes file, size_t at, const Bytes& bytes)
{
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<long>(at));
    return file;
}

using WaveEdges = PcmFiles;

TEST_F(WaveEdges, EachHeaderFaultHasItsCode)
{
    struct Fault {
        const char* what;
        size_t at;
        Bytes bytes;
        int code;
    };
    const std::vector<Fault> faults = {
        {"float format tag", 20, {3, 0}, kEfms},
        {"extensible format tag", 20, {0xFE, 0xFF}, kEfms},
        {"8-bit samples", 34, {8, 0}, kEfms},
        {"32-bit samples", 34, {32, 0}, kEfms},
        {"no channels", 22, {0, 0}, kEwav},
        {"sample rate 0", 24, {0, 0, 0, 0}, kEwav},
        {"no data chunk", 36, {'d', 'a', 't', 'b'}, kEwav},
        {"data shorter than one frame", 40, {3, 0, 0, 0}, kEwav},
        {"empty data", 40, {0, 0, 0, 0}, kEwav},
        {"nested RIFF", 36, {'R', 'I', 'F', 'F'}, kEwav},
        {"not RIFF", 0, {'R', 'I', 'F', 'X'}, kEfmu},
        {"not WAVE", 8, {'A', 'V', 'I', ' '}, kEfmu},
    };
    for (const Fault& f : faults) {
        SCOPED_TRACE(f.what);
        const std::string file = put("fault.wav", patched(kCanonical, f.at, f.bytes));
        int err = 0;
        EXPECT_EQ(ClipWAVE::open(file.c_str(), &err, nullptr), nullptr);
        EXPECT_EQ(err, f.code);
        // Through the dispatch the same code survives: "Ewav" is final,
        // "Efms" wins over the other readers, "Efmu" is nobody's file.
        err = 0;
        EXPECT_FALSE(open_clip(file, err));
        EXPECT_EQ(err, f.code);
    }

    // A "fmt " cut short by the end of the file.
    const std::string cut = put("cut.wav", Bytes(kCanonical.begin(), kCanonical.begin() + 30));
    FILE* f = std::fopen(cut.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ClipWAVE::scan(f, nullptr, nullptr, nullptr, nullptr, nullptr), fourcc("Eeof"));
    std::fclose(f);
    // The last chunk header has nothing after it.
    const std::string bare = put("bare.wav", Bytes(kCanonical.begin(), kCanonical.begin() + 44));
    int err = 0;
    EXPECT_EQ(ClipWAVE::open(bare.c_str(), &err, nullptr), nullptr);
    EXPECT_EQ(err, kEwav);

    EXPECT_EQ(ClipWAVE::detect(put("short.wav", Bytes(kCanonical.begin(), kCanonical.begin() + 11)).c_str()), kEfmu);
    EXPECT_EQ(ClipWAVE::detect(work.path("missing.wav").c_str()), fourcc("Efor"));
    EXPECT_EQ(ClipWAVE::get_file_info(work.path("missing.wav").c_str(), nullptr, nullptr), fourcc("Efor"));
    EXPECT_EQ(ClipWAVE::detect(put("ok.wav", kCanonical).c_str()), 0);
}

TEST_F(WaveEdges, UnusualButValidLayoutsOpen)
{
    struct Good {
        const char* what;
        Bytes file;
        std::vector<float> left, right;
        int channels;
    };
    const std::vector<Good> goods = {
        {"canonical", kCanonical, kCanonicalLeft, kCanonicalRight, 2},
        {"data claims more than the file holds", patched(kCanonical, 40, {0xE8, 0x03, 0, 0}), kCanonicalLeft,
         kCanonicalRight, 2},
        {"fmt after data", kFormatLast, {0.25f, -0.25f}, {0.25f, -0.25f}, 1},
        {"three channels", kThreeChannels, {0.125f}, {0.375f}, 3},
    };
    for (const Good& g : goods) {
        SCOPED_TRACE(g.what);
        const std::string file = put("good.wav", g.file);
        int err = -1;
        ClipPtr clip = open_clip(file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        EXPECT_EQ(clip->channels, g.channels);
        ASSERT_EQ(clip->packet_count, 1);
        EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), static_cast<int>(g.left.size()));
        const Samples s = decode_clip(*clip);
        EXPECT_TRUE(same_bits(s.left, g.left));
        EXPECT_TRUE(same_bits(s.right, g.right));
        EXPECT_TRUE(same_bits(std::vector<float>(s.left.begin() + static_cast<long>(g.left.size()), s.left.end()),
                              std::vector<float>(1024 - g.left.size(), 0.0f)));
    }

    // Every out-pointer of scan may be null.
    FILE* f = std::fopen(put("scan.wav", kCanonical).c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ClipWAVE::scan(f, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    unsigned int length = 0, offset = 0;
    EXPECT_EQ(ClipWAVE::scan(f, nullptr, nullptr, nullptr, &length, &offset), 0);
    EXPECT_EQ(length, 12u);
    EXPECT_EQ(offset, 44u);
    std::fclose(f);
}

// frames of pattern() as 16-bit stereo at 44100 Hz, "data" claiming
// claimed_data bytes.
Bytes stereo16(int frames, uint32_t claimed_data)
{
    ByteWriter w;
    w.tag("RIFF").le32(36 + claimed_data).tag("WAVE");
    w.tag("fmt ").le32(16).le16(1).le16(2).le32(44100).le32(176400).le16(4).le16(16);
    w.tag("data").le32(claimed_data);
    for (int i = 0; i < frames; ++i)
        w.le16(static_cast<uint16_t>(pattern(i, 0))).le16(static_cast<uint16_t>(pattern(i, 1)));
    return w.bytes;
}

TEST_F(WaveEdges, PartialLastPacketReportsAFullPacketAndDecodesSilence)
{
    // 10,000 bytes: 2,500 frames, so 1024 + 1024 + 452.
    int err = 0;
    ClipPtr clip = open_clip(put("2500.wav", stereo16(2500, 10000)), err);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->packet_count, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(clip->packet_frame_count(i, nullptr), 1024);
    EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 1024);
    EXPECT_EQ(clip->get_packet(2)->disk_frame_count(), 452);
    EXPECT_EQ(clip->get_packet(2)->handle->size, 452 * 4);
    EXPECT_FLOAT_EQ(clip->duration(), 3072.0f / 44100.0f);

    expect_pattern(decode_clip(*clip), 2500, 3072);

    // Saving writes the disk frames only: no silent tail in the file.
    const std::string out = work.path("out.wav");
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(read_file(out), stereo16(2500, 10000));
}

TEST_F(WaveEdges, FilesOfFourGibibytesAreRefused)
{
    const std::string file = put("huge.wav", stereo16(0, 0xFFFFFFFFu));
    ASSERT_EQ(truncate(file.c_str(), 4294967296LL), 0) << "sparse files needed";
    int err = 0;
    EXPECT_EQ(ClipWAVE::detect(file.c_str()), 0);
    EXPECT_FALSE(open_clip(file, err));
    EXPECT_EQ(err, kEfmu);

    // One byte less passes, the data cut to the bytes present.
    ASSERT_EQ(truncate(file.c_str(), 4294967295LL), 0);
    kel_set_raw_packet_size(1 << 20);
    ClipPtr clip = open_clip(file, err);
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(clip);
    const long long frames = (4294967295LL - 44) / 4;
    ASSERT_EQ(clip->packet_count, frames / (1 << 20) + 1);
    EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames % (1 << 20));
}

// Progress reports of a load, and a cancel.
struct Reports {
    std::vector<float> values;
    int cancel_after = -1;
};

int record(void* context, float percent)
{
    auto* r = static_cast<Reports*>(context);
    r->values.push_back(percent);
    return r->cancel_after < 0 || static_cast<int>(r->values.size()) <= r->cancel_after;
}

TEST_F(WaveEdges, LoadReportsProgressAndCanBeCancelled)
{
    const std::string file = put("long.wav", stereo16(400 * 1024, 400 * 4096));
    Reports reports;
    _kel_progress_ext_t progress{record, &reports, 0.0f};
    int err = 0;
    ClipWAVE* clip = ClipWAVE::open(file.c_str(), &err, &progress);
    ASSERT_NE(clip, nullptr);
    ClipPtr owned(clip);
    ASSERT_GE(reports.values.size(), 2u);
    EXPECT_GE(reports.values.front(), 0.5f);
    for (size_t i = 1; i + 1 < reports.values.size(); ++i)
        EXPECT_GE(reports.values[i] - reports.values[i - 1], 0.5f);
    EXPECT_EQ(reports.values.back(), 100.0f);
    EXPECT_LE(reports.values.size(), 202u);

    Reports cancel;
    cancel.cancel_after = 3;
    _kel_progress_ext_t stop{record, &cancel, 0.0f};
    EXPECT_EQ(ClipWAVE::open(file.c_str(), &err, &stop), nullptr);
    EXPECT_EQ(err, fourcc("Ebrk"));
    EXPECT_EQ(cancel.values.size(), 4u);
}

// A clip of packets over memory: one with its bytes, one whose handle has
// none and so reads short.
ClipPtr memory_clip(bool with_gap)
{
    int err = 0;
    ClipPtr clip(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    const Bytes file = stereo16(1024, 4096);
    auto* full = new BSHandleMem(4096);
    full->init_with_copy(file.data() + 44);
    auto* empty = new BSHandleMem(4096);
    for (BSHandleMem* h : {full, with_gap ? empty : full}) {
        auto* p = new PacketWAVE(16, 1411200, 44100.0f, 2, 1024, 1024, h);
        clip->add_packet(p);
        p->release();
    }
    full->release();
    empty->release();
    clip->update_stream_info();
    return clip;
}

TEST_F(WaveEdges, SavingFailuresLeaveNoFile)
{
    int err = 0;
    ClipPtr clip = memory_clip(false);
    const std::string missing_dir = work.path("no/such/dir.wav");
    clip->save_to(missing_dir.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Efow"));
    clip->save_to(work.root().c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, 21);

    ClipPtr empty(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    const std::string out = work.path("out.wav");
    empty->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Empt"));
    EXPECT_FALSE(file_exists(out));

    // Sizes alone decide the limits: handles that claim much and hold
    // nothing are never read.
    ClipPtr big(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    ClipPtr long_clip(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    for (int i = 0; i < 2; ++i) {
        auto* wide = new BSHandleMem(1100000000);
        auto* p = new PacketWAVE(16, 0, 44100.0f, 2, 1024, 1024, wide);
        big->add_packet(p);
        p->release();
        wide->release();
        auto* small = new BSHandleMem(4);
        auto* q = new PacketWAVE(16, 0, 44100.0f, 2, 1100000000, 1100000000, small);
        long_clip->add_packet(q);
        q->release();
        small->release();
    }
    big->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Ebyt"));
    EXPECT_FALSE(file_exists(out));
    long_clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Esmp"));
    EXPECT_FALSE(file_exists(out));

    // A write that fails part-way (the file size limit) removes the file.
    ClipPtr long_file = open_clip(put("long.wav", stereo16(20 * 1024, 20 * 4096)), err);
    ASSERT_TRUE(long_file);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = old;
    small.rlim_cur = 30000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    long_file->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(err, fourcc("EIO "));
    EXPECT_FALSE(file_exists(out));
}

TEST_F(WaveEdges, UnreadablePacketsSaveAsSilenceWithAWarning)
{
    int err = 0;
    ClipPtr clip = memory_clip(true);
    const std::string out = work.path("gap.wav");
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    Bytes want = stereo16(1024, 8192);
    want.resize(44 + 8192, 0);
    EXPECT_EQ(read_file(out), want);
    Probe probe;
    ASSERT_TRUE(ffprobe(out, probe, work.root()));
    EXPECT_EQ(probe.frames, 2048);
}

// While the audio is being written, the header on disk is still zero.
struct HeaderWatch {
    std::string path;
    int looked = 0;
    bool nonzero = false;
};

int watch_header(void* context, float)
{
    auto* w = static_cast<HeaderWatch*>(context);
    const Bytes now = read_file(w->path);
    if (now.size() >= 44) {
        ++w->looked;
        for (size_t i = 0; i < 44; ++i)
            w->nonzero = w->nonzero || now[i] != 0;
    }
    return 1;
}

TEST_F(WaveEdges, TheHeaderIsWrittenLast)
{
    int err = 0;
    ClipPtr clip = open_clip(put("long.wav", stereo16(40 * 1024, 40 * 4096)), err);
    ASSERT_TRUE(clip);
    HeaderWatch watch{work.path("out.wav")};
    _kel_progress_ext_t progress{watch_header, &watch, 0.0f};
    clip->save_to(watch.path.c_str(), nullptr, 0, nullptr, 0, &err, &progress);
    EXPECT_EQ(err, 0);
    EXPECT_GT(watch.looked, 10);
    EXPECT_FALSE(watch.nonzero);
    EXPECT_EQ(read_file(watch.path), stereo16(40 * 1024, 40 * 4096));
}

TEST_F(WaveEdges, DamagedFilesEndInAClipOrACode)
{
    // A valid file with chunks around the data: odd LIST, fact, 150 frames
    // of 16-bit mono.
    ByteWriter w;
    w.tag("RIFF").le32(0).tag("WAVE");
    w.tag("LIST").le32(5).tag("INFO").raw({'x', 0});
    w.tag("fmt ").le32(16).le16(1).le16(1).le32(8000).le32(16000).le16(2).le16(16);
    w.tag("fact").le32(4).le32(150);
    w.tag("data").le32(300);
    for (int i = 0; i < 150; ++i)
        w.le16(static_cast<uint16_t>(pattern(i, 0)));
    w.tag("LIST").le32(4).tag("INFO");
    Bytes valid = w.bytes;
    const uint32_t riff = static_cast<uint32_t>(valid.size() - 8);
    std::copy_n(ByteWriter().le32(riff).bytes.begin(), 4, valid.begin() + 4);
    // Random bytes go into the headers: everything up to the first samples.
    expect_damage_handled(valid, valid.size() - 300 - 12, work.path("damaged.wav"), 20240611);
}

} // namespace
