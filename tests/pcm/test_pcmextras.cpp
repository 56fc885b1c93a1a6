// What only one PCM format does: CAF as the engine's scratch format (clips
// from float buffers, its header writer), the AIFF sound data cut behind an
// "SSND" offset; and silence in the format of any clip.
#include "pcmformats.h"

#include "core/fourcc.h"
#include "core/silentclip.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"
#include "pcm/pcmpacket.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <typeinfo>

using namespace KEL;
using namespace KEL::test;

namespace {

TEST(CafScratch, ClipsFromFloatBuffersHoldTheSixteenBitSamples)
{
    // Edge values of the float-to-integer rule, then a ramp through the
    // whole range; 2500 frames make two full packets and a partial one.
    std::vector<float> a = {1.0f, -1.0f, 1.5f, -2.0f, 0.9999694f, 0.99997f, -0.99997f, 0.4f / 32768.0f,
                            -0.7f / 32768.0f, std::numeric_limits<float>::quiet_NaN(), 0.0f, -0.0f};
    while (a.size() < 2500)
        a.push_back(std::sin(static_cast<float>(a.size()) * 0.01f) * 1.1f);
    std::vector<float> b(a.size());
    for (size_t i = 0; i < b.size(); ++i)
        b[i] = -0.5f * a[b.size() - 1 - i];

    const int descriptors = open_descriptors();
    PrivateTmpdir tmp;
    for (std::vector<float>* right : {&a, &b}) {
        SCOPED_TRACE(right == &a ? "mono as two identical arrays" : "stereo");
        float* buffers[2] = {a.data(), right->data()};
        int err = -1;
        ClipPtr clip(kel_clip_create_from_buffer(buffers, 48000.0f, 2500, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        EXPECT_TRUE(tmp.dir().entries().empty()) << "the scratch file is unlinked once open";
        EXPECT_EQ(clip->channels, 2);
        EXPECT_EQ(clip->sample_rate, 48000.0f);
        ASSERT_EQ(clip->packet_count, 3);
        EXPECT_EQ(clip->get_packet(2)->disk_frame_count(), 452);
        EXPECT_FALSE(static_cast<PacketCAFF*>(clip->get_packet(0))->littleEndian);
        const Samples got = decode_clip(*clip);
        for (size_t i = 0; i < 2500; ++i) {
            ASSERT_EQ(bits_of(got.left[i]), bits_of(to16(a[i]) / 32768.0f)) << i;
            ASSERT_EQ(bits_of(got.right[i]), bits_of(to16((*right)[i]) / 32768.0f)) << i;
        }
    }
    int err = 0;
    float* missing[2] = {a.data(), nullptr};
    EXPECT_EQ(kel_clip_create_from_buffer(missing, 48000.0f, 10, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    float* buffers[2] = {a.data(), b.data()};
    EXPECT_EQ(ClipCAFF::create_from_buffer(buffers, 48000.0f, 0, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    // A rate the file cannot carry: the clip is refused and the file goes.
    EXPECT_EQ(ClipCAFF::create_from_buffer(buffers, 0.0f, 10, &err, nullptr), nullptr);
    EXPECT_EQ(err, fourcc("Ecaf"));
    EXPECT_TRUE(tmp.dir().entries().empty());
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(Silence, SilentClipsReferToOneSilentPacket)
{
    int err = -1;
    ClipPtr silent(SilentClip::create(32000.0f, 10, 1152, &err));
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(silent);
    ASSERT_EQ(silent->packet_count, 10);
    Packet* first = silent->get_packet(0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(silent->get_packet(i), first) << i;
        EXPECT_EQ(silent->packet_frame_count(i, nullptr), 1152);
    }
    EXPECT_EQ(first->retain_count(), 10);
    EXPECT_EQ(silent->channels, 1);
    EXPECT_FLOAT_EQ(silent->duration(), 11520.0f / 32000.0f);
    const Samples s = decode_clip(*silent);
    EXPECT_TRUE(same_bits(s.left, std::vector<float>(11520, 0.0f)));
    EXPECT_TRUE(same_bits(s.right, std::vector<float>(11520, 0.0f)));
    EXPECT_EQ(SilentClip::create(32000.0f, 0, 1152, &err), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    EXPECT_EQ(SilentClip::create(32000.0f, 1, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
}

TEST(Silence, SilenceInTheFormatOfAnyClip)
{
    const std::string wave_file = scratch().path("silence-source.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "44100", "-b", "24", "-c", "2", "-t", "wavpcm", wave_file, "synth", "0.1",
                        "sine", "440"}),
              0);
    PrivateTmpdir tmp;
    int err = 0;
    kel_set_raw_packet_size(441);
    ClipPtr wave = open_clip(wave_file, err);
    kel_set_raw_packet_size(0);
    ASSERT_TRUE(wave);
    ClipPtr silence(kel_clip_create_silent(wave.get(), 7, &err, nullptr));
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(silence);
    const Clip& made = *silence;
    EXPECT_EQ(typeid(made), typeid(ClipWAVE));
    EXPECT_EQ(silence->bits_per_sample, 24);
    ASSERT_EQ(silence->packet_count, 7);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(silence->packet_frame_count(i, nullptr), 441);
    const Samples s = decode_clip(*silence);
    EXPECT_TRUE(same_bits(s.left, std::vector<float>(7 * 441, 0.0f)));
    EXPECT_TRUE(same_bits(s.right, std::vector<float>(7 * 441, 0.0f)));
    EXPECT_TRUE(wave->will_accept(silence.get(), &err)) << "silence goes into its source unchanged";
    for (int count : {0, -3}) {
        err = 0;
        EXPECT_EQ(wave->create_silent(count, &err, nullptr), nullptr);
        EXPECT_EQ(err, fourcc("EPnm"));
    }
    ClipPtr empty(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    EXPECT_EQ(empty->create_silent(3, &err, nullptr), nullptr);
    wave.reset();
    silence.reset();
    EXPECT_TRUE(tmp.dir().entries().empty());
}

TEST(CafScratch, HeaderOfUnknownLengthAndLittleEndianFlag)
{
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    // Written over a longer file: only the first 68 bytes change.
    std::fwrite(Bytes(80, 0xEE).data(), 1, 80, f);
    write_caff_header(f, 8000.0f, 1, 16, -1, true);
    Bytes got(80);
    std::rewind(f);
    ASSERT_EQ(std::fread(got.data(), 1, got.size(), f), got.size());
    std::fclose(f);
    Bytes want = kCaf.header(1, 16, 8000, 0, 0);
    std::fill(want.begin() + 56, want.begin() + 64, 0xFF); // data size -1: to the end of the file
    want[35] = 2;                                          // flags: little-endian
    want.resize(80, 0xEE);
    EXPECT_EQ(got, want);
}

TEST(AiffOffset, TheDataLengthIsNotShortenedByTheOffset)
{
    // With an "SSND" offset of 4 the length is cut to the bytes behind the
    // two fields, not behind the offset: the packet claims 4 frames, finds
    // 3, and so decodes to nothing and saves as silence with a warning.
    Bytes skewed = kAiff.stereo16(3, 0x100000, false);
    skewed[49] = 4;
    skewed.insert(skewed.begin() + 54, {0xDE, 0xAD, 0xBE, 0xEF});
    const std::string file = scratch().path("skewed.aiff");
    write_file(file, skewed);
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    ASSERT_TRUE(clip);
    ASSERT_EQ(clip->packet_count, 1);
    EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), 4);
    std::vector<float> l(1024), r(1024);
    float* decoded[2] = {l.data(), r.data()};
    EXPECT_EQ(clip->packet_decode_play(0, decoded, &err, -1.0f), 0);
    EXPECT_EQ(err, 0);
    const std::string out = scratch().path("skewed-saved.aiff");
    clip->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    EXPECT_EQ(err, fourcc("Egga"));
    EXPECT_EQ(read_file(out).size(), 54u + 16u);
}

} // namespace
