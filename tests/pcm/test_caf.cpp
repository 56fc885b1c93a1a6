// CAF clips against the peer tools, and the clips CAF makes as the engine's
// scratch format. Files written by ffmpeg and sox must decode exactly as
// ffmpeg decodes them; saved files must satisfy ffprobe and decode to the
// samples the gain rules predict; clips from float buffers and silent clips
// must hold the expected samples and leave no temporary file behind.
#include "common/testsupport.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"
#include "pcm/packetcaff.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <typeinfo>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

// A float sample as the 16-bit integer the buffer clips store.
int16_t to16(float x)
{
    if (std::isnan(x) || static_cast<double>(x) < -1.0)
        return -32768;
    if (static_cast<double>(x) > 0.9999694)
        return 32767;
    return static_cast<int16_t>(std::trunc(static_cast<double>(x) * 32768.0));
}

class CafTest : public PcmFiles {
protected:
    std::string caf_file(const std::string& name, const std::string& exprs, int rate, const char* seconds,
                         const char* codec, bool piped = false)
    {
        return ffmpeg_file(name, exprs, rate, seconds, codec, {"-f", "caf"}, piped);
    }
};

TEST_F(CafTest, FilesFromPeerToolsDecodeExactlyAsFfmpegDecodesThem)
{
    const std::string be_stereo = caf_file("be2.caf", "'1.2*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                              "0.25", "pcm_s16be");
    const std::string le_mono = caf_file("le1.caf", "'0.7*sin(2*PI*300*t)'", 8000, "0.3", "pcm_s16le");
    const std::string le_piped = caf_file("pipe.caf", "'0.6*sin(2*PI*50*t)|-0.6*sin(2*PI*51*t)'", 22050,
                                             "0.2", "pcm_s16le", true);
    const std::string sox_stereo = path("sox2.caf");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "22050", "-b", "16", "-c", "2", sox_stereo, "synth", "0.1", "sine", "300",
                        "sine", "500"}),
              0);
    // Chunks on both sides of "data": ffmpeg writes "chan" and "info"
    // before it, and "free" and "uuid" are appended after it.
    Bytes spliced_bytes = read_file(le_mono);
    ByteWriter after;
    after.tag("free").be64(10).zeros(10).tag("uuid").be64(16).raw(Bytes(16, 0xAB));
    spliced_bytes.insert(spliced_bytes.end(), after.bytes.begin(), after.bytes.end());
    const std::string spliced = path("spliced.caf");
    write_file(spliced, spliced_bytes);

    for (const PeerSource& src : std::vector<PeerSource>{
             {"ffmpeg big-endian stereo", be_stereo, be_stereo, 2, 16, 44100},
             {"ffmpeg little-endian mono", le_mono, le_mono, 1, 16, 8000},
             {"ffmpeg piped, data size unknown", le_piped, le_piped, 2, 16, 22050},
             {"sox big-endian stereo with free chunk", sox_stereo, sox_stereo, 2, 16, 22050},
             {"chunks after data", spliced, le_mono, 1, 16, 8000},
         })
        expect_decodes_as_ffmpeg(src, KEL_FORMAT_CAF, Packet::TypeCAF, work.root());

    // What ffmpeg writes into CAF but KEL does not read.
    for (const char* codec : {"pcm_s24be", "pcm_f32be", "pcm_alaw"}) {
        int err = 0;
        EXPECT_FALSE(open_clip(caf_file("refused.caf", "'0.5'", 8000, "0.05", codec), err)) << codec;
        EXPECT_EQ(err, fourcc("Efms")) << codec;
    }
}

TEST_F(CafTest, SavedFilesSatisfyFfprobeAndDecodeAsPredicted)
{
    const std::string le_stereo = caf_file("le2.caf", "'1.1*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                              "0.2", "pcm_s16le");
    // A whole chunk as the extra block: "free" of 4 bytes.
    const Bytes extra = {'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 4, 1, 2, 3, 4};

    struct Case {
        const char* what;
        bool gains, envelopes, with_extra;
    };
    for (const Case& c : {Case{"plain", false, false, false}, Case{"gained", true, false, false},
                          Case{"gained with envelopes", true, true, false},
                          Case{"gained with extra block", true, false, true}}) {
        SCOPED_TRACE(c.what);
        const Decoded original = ffmpeg_samples(le_stereo);
        const std::vector<int32_t> ints = integers(original, 16);
        int err = 0;
        ClipPtr clip = open_clip(le_stereo, err);
        ASSERT_TRUE(clip);
        const int packets = clip->packet_count;
        ASSERT_GE(packets, 5);

        // Gains on some packets, falling ramps on others.
        const GainPlan plan = apply_plan(*clip, c.gains ? std::vector<std::pair<int, float>>{{1, 0.5f}, {2, 1.7f}, {-1, 0.3f}}
                                                         : std::vector<std::pair<int, float>>{},
                                         c.envelopes ? std::vector<int>{2, 3} : std::vector<int>{});
        const std::vector<int32_t> want = predict(ints, 2, 16, plan);

        const std::string out = path("saved.caf");
        const Bytes block = c.with_extra ? extra : Bytes();
        err = -1;
        clip->save_to(out.c_str(), c.with_extra ? block.data() : nullptr, static_cast<int>(block.size()), nullptr,
                      0, &err, nullptr);
        ASSERT_EQ(err, 0);

        // The 68-byte header: big-endian samples whatever the source held.
        const Bytes file = read_file(out);
        const uint64_t data_bytes = want.size() * 2;
        ASSERT_EQ(file.size(), 68 + data_bytes + block.size());
        ByteWriter header;
        header.tag("caff").be16(1).be16(0).tag("desc").be64(32).be64(0x40E5888000000000u); // 44100.0
        header.tag("lpcm").be32(0).be32(4).be32(1).be32(2).be32(16).tag("data").be64(data_bytes + 4).be32(0);
        EXPECT_EQ(Bytes(file.begin(), file.begin() + 68), header.bytes);
        EXPECT_TRUE(std::equal(block.begin(), block.end(), file.end() - static_cast<long>(block.size())));

        Probe probe;
        ASSERT_TRUE(ffprobe(out, probe, work.root()));
        EXPECT_EQ(probe.codec, "pcm_s16be");
        EXPECT_EQ(probe.channels, 2);
        EXPECT_EQ(probe.sample_rate, 44100);
        // ffprobe estimates the length from the file size when the data is
        // not the last chunk; the decode below counts the frames exactly.
        if (!c.with_extra) {
            EXPECT_EQ(probe.frames, static_cast<long long>(original.frames()));
        }
        const Decoded saved = ffmpeg_samples(out);
        EXPECT_EQ(integers(saved, 16), want);

        expect_reopens_as(out, *clip, saved);
        ClipPtr again = open_clip(out, err);
        ASSERT_TRUE(again);
        EXPECT_FALSE(static_cast<PacketCAFF*>(again->get_packet(0))->littleEndian);
    }
}

TEST_F(CafTest, ClipsFromFloatBuffersHoldTheSixteenBitSamples)
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
    struct Case {
        const char* what;
        std::vector<float>*left, *right;
    };
    for (const Case& c : {Case{"mono as two identical arrays", &a, &a}, Case{"stereo", &a, &b}}) {
        SCOPED_TRACE(c.what);
        float* buffers[2] = {c.left->data(), c.right->data()};
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
            ASSERT_EQ(bits_of(got.left[i]), bits_of(to16((*c.left)[i]) / 32768.0f)) << i;
            ASSERT_EQ(bits_of(got.right[i]), bits_of(to16((*c.right)[i]) / 32768.0f)) << i;
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

TEST_F(CafTest, SilentClipsReferToOneSilentPacket)
{
    const int descriptors = open_descriptors();
    PrivateTmpdir tmp;
    kel_set_raw_packet_size(256); // not used: the silence is one packet
    int err = -1;
    ClipPtr silent(ClipCAFF::create_silent(32000.0f, 10, 1152, &err));
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(silent);
    EXPECT_TRUE(tmp.dir().entries().empty());
    ASSERT_EQ(silent->packet_count, 10);
    Packet* first = silent->get_packet(0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(silent->get_packet(i), first) << i;
        EXPECT_EQ(silent->packet_frame_count(i, nullptr), 1152);
    }
    EXPECT_EQ(first->retain_count(), 10);
    EXPECT_EQ(silent->channels, 1);
    EXPECT_EQ(silent->sample_rate, 32000.0f);
    EXPECT_FLOAT_EQ(silent->duration(), 11520.0f / 32000.0f);
    const Samples s = decode_clip(*silent);
    EXPECT_TRUE(same_bits(s.left, std::vector<float>(11520, 0.0f)));
    EXPECT_TRUE(same_bits(s.right, std::vector<float>(11520, 0.0f)));
    kel_set_raw_packet_size(0);

    EXPECT_EQ(ClipCAFF::create_silent(32000.0f, 0, 1152, &err), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));
    silent.reset();
    EXPECT_TRUE(tmp.dir().entries().empty());
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(CafTest, SilenceAndTranscodesInTheFormatOfAnyClip)
{
    const std::string wave_file = path("s.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "44100", "-b", "24", "-c", "2", "-t", "wavpcm", wave_file, "synth", "0.1",
                        "sine", "440", "sine", "220"}),
              0);
    const std::string caf_path = caf_file("m.caf", "'0.5'", 8000, "0.2", "pcm_s16le");
    const int descriptors = open_descriptors();
    {
        PrivateTmpdir tmp;
        int err = 0;
        kel_set_raw_packet_size(441);
        ClipPtr wave = open_clip(wave_file, err);
        ClipPtr caf = open_clip(caf_path, err);
        kel_set_raw_packet_size(0);
        ASSERT_TRUE(wave);
        ASSERT_TRUE(caf);

        struct Case {
            const char* what;
            Clip* source;
            int channels, bits, frames;
        };
        for (const Case& c : {Case{"WAVE, 24-bit stereo", wave.get(), 2, 24, 441},
                              Case{"CAF, mono", caf.get(), 1, 16, 441}}) {
            SCOPED_TRACE(c.what);
            err = -1;
            ClipPtr silence(kel_clip_create_silent(c.source, 7, &err, nullptr));
            ASSERT_EQ(err, 0);
            ASSERT_TRUE(silence);
            const Clip& made = *silence;
            EXPECT_EQ(typeid(made), typeid(*c.source));
            EXPECT_EQ(silence->channels, c.channels);
            EXPECT_EQ(silence->bits_per_sample, c.bits);
            EXPECT_EQ(silence->sample_rate, c.source->sample_rate);
            ASSERT_EQ(silence->packet_count, 7);
            for (int i = 0; i < 7; ++i)
                EXPECT_EQ(silence->packet_frame_count(i, nullptr), c.frames);
            const Samples s = decode_clip(*silence);
            EXPECT_TRUE(same_bits(s.left, std::vector<float>(7u * c.frames, 0.0f)));
            EXPECT_TRUE(same_bits(s.right, std::vector<float>(7u * c.frames, 0.0f)));
            // Silence goes into the source clip unchanged.
            EXPECT_TRUE(c.source->will_accept(silence.get(), &err));
        }

        for (int count : {0, -3}) {
            err = 0;
            EXPECT_EQ(wave->create_silent(count, &err, nullptr), nullptr);
            EXPECT_EQ(err, fourcc("EPnm"));
        }
        ClipPtr empty(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
        EXPECT_EQ(empty->create_silent(3, &err, nullptr), nullptr);

        // Into CAF: big-endian 16-bit packets of the source's samples, each
        // truncated to 16 bits.
        ClipPtr target(kel_clip_create(KEL_FORMAT_CAF, 2, 44100.0f, 16, 0, 0, &err));
        ASSERT_TRUE(target);
        ClipPtr as_caf(target->transcode(wave.get(), 0, wave->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(as_caf);
        // 4410 frames in packets of 441 become packets of 1024, the last
        // padded with silence.
        const Samples from = decode_clip(*wave);
        ASSERT_EQ(from.left.size(), 4410u);
        ASSERT_EQ(as_caf->packet_count, 5);
        EXPECT_FALSE(static_cast<PacketCAFF*>(as_caf->get_packet(0))->littleEndian);
        const Samples got = decode_clip(*as_caf);
        for (size_t i = 0; i < from.left.size(); ++i) {
            ASSERT_EQ(bits_of(got.left[i]), bits_of(to16(from.left[i]) / 32768.0f)) << i;
            ASSERT_EQ(bits_of(got.right[i]), bits_of(to16(from.right[i]) / 32768.0f)) << i;
        }
        EXPECT_TRUE(same_bits(std::vector<float>(got.left.begin() + 4410, got.left.end()),
                              std::vector<float>(5 * 1024 - 4410, 0.0f)));
        EXPECT_TRUE(target->will_accept(as_caf.get(), &err));
        EXPECT_FALSE(target->will_accept(wave.get(), &err));
        EXPECT_EQ(err, fourcc("Eclt"));
        EXPECT_FALSE(target->will_accept(caf.get(), &err));
        EXPECT_EQ(err, fourcc("Ecld"));
        EXPECT_EQ(kel_clip_create(KEL_FORMAT_CAF, 2, 44100.0f, 24, 0, 0, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));

        wave.reset();
        caf.reset();
        as_caf.reset();
        EXPECT_TRUE(tmp.dir().entries().empty());
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
