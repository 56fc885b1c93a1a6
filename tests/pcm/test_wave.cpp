// WAVE clips against the peer tools. Files written by ffmpeg and sox must
// open and decode to exactly the samples ffmpeg decodes; every file KEL
// saves must satisfy ffprobe and decode in ffmpeg to the samples predicted
// from the gain rules; transcoded clips must keep their samples.
#include "common/testsupport.h"
#include "core/clipdecoder.h"
#include "core/clipencoder.h"
#include "core/fakeformat.h"
#include "core/fourcc.h"
#include "overview/overview.h"
#include "pcm/clipencoderwave.h"
#include "pcm/clipwave.h"
#include "pcm/packetwave.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

using WaveTest = PcmFiles;

// Rewrites a RIFF file's chunks through edit into a new file.
template <typename Edit>
std::string respliced(const std::string& from, const std::string& to, Edit edit)
{
    std::string form;
    std::vector<Chunk> chunks;
    EXPECT_TRUE(parse_riff(read_file(from), form, chunks));
    edit(chunks);
    write_file(to, build_riff(form, chunks));
    return to;
}

// Sets the "fmt " format tag to integer PCM (ffmpeg writes the extensible
// tag for 24 bits and for more than two channels).
void force_pcm_tag(std::vector<Chunk>& chunks)
{
    const int fmt = find_chunk(chunks, "fmt ");
    ASSERT_GE(fmt, 0);
    chunks[static_cast<size_t>(fmt)].body[0] = 1;
    chunks[static_cast<size_t>(fmt)].body[1] = 0;
}

std::string sox_wave(const std::string& path, int bits, int channels, const char* seconds)
{
    std::vector<std::string> argv = {"sox", "-n", "-r", "22050", "-b", std::to_string(bits), "-c",
                                     std::to_string(channels), "-t", "wavpcm", path, "synth", seconds, "sine", "300"};
    if (channels == 2)
        argv.insert(argv.end(), {"sine", "500"});
    EXPECT_EQ(run_tool(argv), 0) << path;
    return path;
}

TEST_F(WaveTest, FilesFromPeerToolsDecodeExactlyAsFfmpegDecodesThem)
{
    const std::string ff16s = ffmpeg_file("ff16s.wav", "'1.2*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                          "0.25", "pcm_s16le");
    const std::string ff16m = ffmpeg_file("ff16m.wav", "'0.7*sin(2*PI*300*t)'", 8000, "0.3", "pcm_s16le",
                                          {"-metadata", "title=kel"});
    const std::string ff24x = ffmpeg_file("ff24x.wav", "'sin(2*PI*1000*t)|-0.9*cos(2*PI*50*t)'", 48000, "0.1",
                                          "pcm_s24le");
    const std::string ff3x = ffmpeg_file("ff3x.wav", "'0.3*sin(2*PI*100*t)|0.6*sin(2*PI*200*t)|-0.5'", 16000,
                                         "0.1", "pcm_s16le");
    const std::string sox16 = sox_wave(path("sox16s.wav"), 16, 2, "0.1");
    const std::string sox24 = sox_wave(path("sox24m.wav"), 24, 1, "0.1");
    const std::string ff24 = respliced(ff24x, path("ff24s.wav"), force_pcm_tag);
    const std::string ff3 = respliced(ff3x, path("ff3.wav"), force_pcm_tag);
    // Extra chunks on both sides of "data", one of odd length (pad byte).
    const std::string spliced = respliced(ff16s, path("spliced.wav"), [](std::vector<Chunk>& c) {
        const auto data = c.begin() + find_chunk(c, "data");
        const auto after = c.insert(data, {{"fact", {0x11, 0x2B, 0, 0}}, {"PEAK", Bytes(24, 0x3F)}}) + 2;
        c.insert(after + 1, {{"LIST", {'I', 'N', 'F', 'O', 'I', 'C', 'M', 'T', 3, 0, 0, 0, 'k', 'e', 'l', 0}},
                             {"junk", {1, 2, 3}}});
    });
    // "fmt " after "data": ffmpeg refuses that order, so the original is
    // the oracle.
    const std::string late_fmt = respliced(ff16m, path("latefmt.wav"), [](std::vector<Chunk>& c) {
        const int fmt = find_chunk(c, "fmt ");
        const Chunk moved = c[static_cast<size_t>(fmt)];
        c.erase(c.begin() + fmt);
        c.push_back(moved);
    });

    for (const PeerSource& src : std::vector<PeerSource>{
             {"ffmpeg 16-bit stereo", ff16s, ff16s, 2, 16, 44100},
             {"ffmpeg 16-bit mono with LIST", ff16m, ff16m, 1, 16, 8000},
             {"ffmpeg 24-bit stereo", ff24, ff24, 2, 24, 48000},
             {"ffmpeg 16-bit three channels", ff3, ff3, 3, 16, 16000},
             {"sox 16-bit stereo", sox16, sox16, 2, 16, 22050},
             {"sox 24-bit mono, odd data length", sox24, sox24, 1, 24, 22050},
             {"chunks before and after data", spliced, ff16s, 2, 16, 44100},
             {"fmt after data", late_fmt, ff16m, 1, 16, 8000},
         })
        expect_decodes_as_ffmpeg(src, KEL_FORMAT_WAVE, Packet::TypeWAVE, work.root());

    // What ffmpeg and sox write but KEL does not read: extensible, float,
    // 8- and 32-bit PCM.
    for (const std::string& file :
         {ff24x, ff3x, ffmpeg_file("f32.wav", "'0.5'", 8000, "0.05", "pcm_f32le"),
          ffmpeg_file("u8.wav", "'0.5'", 8000, "0.05", "pcm_u8"),
          ffmpeg_file("s32.wav", "'0.5'", 8000, "0.05", "pcm_s32le")}) {
        int err = 0;
        EXPECT_FALSE(open_clip(file, err)) << file;
        EXPECT_EQ(err, fourcc("Efms")) << file;
    }
}

TEST_F(WaveTest, RawPacketSizeSetsThePacketLengthAtOpen)
{
    const std::string file = ffmpeg_file("m.wav", "'0.5*sin(2*PI*50*t)'", 8000, "0.3", "pcm_s16le");
    kel_set_raw_packet_size(441);
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    ASSERT_TRUE(clip);
    kel_set_raw_packet_size(0);
    // 2400 frames: five packets of 441 and one holding 195.
    ASSERT_EQ(clip->packet_count, 6);
    EXPECT_EQ(clip->packet_frame_count(5, nullptr), 441);
    EXPECT_EQ(clip->get_packet(5)->disk_frame_count(), 195);
    std::vector<float> left, right;
    split(ffmpeg_samples(file), left, right);
    EXPECT_TRUE(same_bits(decode_clip(*clip).left, left));
}

TEST_F(WaveTest, SavedFilesSatisfyFfprobeAndDecodeAsPredicted)
{
    const std::string ff16 = ffmpeg_file("ff16s.wav", "'1.2*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                         "0.25", "pcm_s16le");
    const std::string sox24 = path("sox24m.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "22050", "-b", "24", "-c", "1", "-t", "wavpcm", sox24, "synth", "0.3",
                        "sine", "300", "gain", "3"}),
              0);
    // A whole chunk for the extra block: the caller hands chunks over formed.
    const Bytes extra = {'L', 'I', 'S', 'T', 12, 0, 0, 0, 'I', 'N', 'F', 'O', 'I', 'C', 'M', 'T', 0, 0, 0, 0};

    for (const auto& [source, bits] : {std::pair<std::string, int>{ff16, 16}, {sox24, 24}}) {
        for (bool changed : {false, true}) {
            SCOPED_TRACE(source + (changed ? " with gains, envelopes and extra" : " plain"));
            const Decoded original = ffmpeg_samples(source);
            int err = 0;
            ClipPtr clip = open_clip(source, err);
            ASSERT_TRUE(clip);
            const GainPlan plan = changed ? apply_plan(*clip, {{1, 0.5f}, {2, 1.7f}, {4, 0.8f}, {-1, 0.3f}}, {3, 4, -1})
                                          : apply_plan(*clip, {}, {});
            const std::vector<int32_t> want = predict(integers(original, bits), original.channels, bits, plan);

            const std::string out = path("saved.wav");
            const Bytes block = changed ? extra : Bytes();
            err = -1;
            clip->save_to(out.c_str(), changed ? block.data() : nullptr, static_cast<int>(block.size()), nullptr, 0,
                          &err, nullptr);
            ASSERT_EQ(err, 0);

            // The canonical header, and nothing after the data but the extra
            // block (no pad byte after odd data).
            const Bytes file = read_file(out);
            const uint32_t data = static_cast<uint32_t>(want.size() * static_cast<size_t>(bits / 8));
            const uint32_t rate = static_cast<uint32_t>(clip->sample_rate);
            const uint32_t align = static_cast<uint32_t>(original.channels * bits / 8);
            ASSERT_EQ(file.size(), 44 + data + block.size());
            ByteWriter header;
            header.tag("RIFF").le32(36 + data + static_cast<uint32_t>(block.size())).tag("WAVE");
            header.tag("fmt ").le32(16).le16(1).le16(static_cast<uint32_t>(original.channels)).le32(rate);
            header.le32(rate * align).le16(align).le16(static_cast<uint32_t>(bits)).tag("data").le32(data);
            EXPECT_EQ(Bytes(file.begin(), file.begin() + 44), header.bytes);
            EXPECT_TRUE(std::equal(block.begin(), block.end(), file.end() - static_cast<long>(block.size())));

            Probe probe;
            ASSERT_TRUE(ffprobe(out, probe, work.root()));
            EXPECT_EQ(probe.codec, bits == 16 ? "pcm_s16le" : "pcm_s24le");
            EXPECT_EQ(probe.frames, static_cast<long long>(original.frames()));
            const Decoded saved = ffmpeg_samples(out);
            EXPECT_EQ(integers(saved, bits), want);
            expect_reopens_as(out, *clip, saved);
        }
    }
}

// Decoding applies the gain to the integers and the envelope to the floats;
// an explicit gain (the overview's 1.0) replaces the packet's own. A copy
// decodes the same and keeps its own gain afterwards.
TEST_F(WaveTest, DecodeAppliesGainToIntegersAndEnvelopeToFloats)
{
    const std::string file = ffmpeg_file("m.wav", "'1.1*sin(2*PI*700*t)'", 8000, "0.2", "pcm_s16le");
    const std::vector<int32_t> ints = integers(ffmpeg_samples(file), 16);
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    ASSERT_TRUE(clip);
    Packet* p = clip->get_packet(0);
    p->gain = 1.5f;
    std::vector<float> env(1024);
    for (size_t k = 0; k < env.size(); ++k)
        env[k] = static_cast<float>(k % 7) / 6.0f;
    p->gain_envelope(env.data(), 1024);
    Packet* twin = p->copy();
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin->handle, p->handle);

    std::vector<float> l(1024), r(1024);
    float* out[2] = {l.data(), r.data()};
    for (float gain : {-1.0f, 1.0f, 0.25f}) {
        ASSERT_EQ(clip->packet_decode_play(0, out, &err, gain), 1024);
        const float g = gain < 0.0f ? 1.5f : gain;
        for (size_t k = 0; k < 1024; ++k) {
            const float want = static_cast<float>(scaled(ints[k], 16, g)) / 32768.0f * env[k];
            ASSERT_EQ(bits_of(l[k]), bits_of(want)) << "gain " << gain << " frame " << k;
            ASSERT_EQ(bits_of(r[k]), bits_of(want));
        }
        std::vector<float> tl(1024), tr(1024);
        float* twin_out[2] = {tl.data(), tr.data()};
        static_cast<PacketWAVE*>(twin)->decode(twin_out, &err, gain);
        EXPECT_TRUE(same_bits(tl, l));
    }
    twin->gain = 0.0f;
    EXPECT_EQ(p->gain, 1.5f);
    twin->release();

    for (int index : {clip->packet_count, -1}) {
        err = 0;
        EXPECT_EQ(clip->packet_decode_play(index, out, &err, -1.0f), 0);
        EXPECT_EQ(err, fourcc("EPnm"));
    }
}

TEST_F(WaveTest, ClipParametersCompatibilityDecoderAndOverview)
{
    int err = 0;
    for (auto [channels, rate, bits] : std::vector<std::tuple<int, float, int>>{
             {3, 44100.0f, 16}, {0, 44100.0f, 16}, {2, -1.0f, 16}, {2, 44100.0f, 8}}) {
        err = 0;
        EXPECT_EQ(ClipWAVE::create_empty(channels, rate, bits, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
    }

    // Empty clips have 1024-frame packets whatever the setting says.
    kel_set_raw_packet_size(512);
    ClipPtr a(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    ASSERT_TRUE(a);
    EXPECT_EQ(static_cast<ClipWAVE*>(a.get())->packetFrames, 1024);
    EXPECT_EQ(a->backing_file, nullptr);
    EXPECT_EQ(a->packet_count, 0);

    ClipPtr same(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    ClipPtr other_bits(ClipWAVE::create_empty(2, 44100.0f, 24, &err));
    ClipPtr other_rate(ClipWAVE::create_empty(2, 48000.0f, 16, &err));
    ClipPtr mono(ClipWAVE::create_empty(1, 44100.0f, 16, &err));
    ClipPtr fake(new FakeClip(44100.0f, 1024, nullptr));
    EXPECT_TRUE(a->will_accept(same.get(), &err));
    EXPECT_EQ(err, 0);
    for (Clip* refused : {other_bits.get(), other_rate.get(), mono.get()}) {
        EXPECT_FALSE(a->will_accept(refused, &err));
        EXPECT_EQ(err, fourcc("Ecld"));
    }
    EXPECT_FALSE(a->will_accept(fake.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));

    // A clip opened under the 512-frame setting does not take 1024-frame
    // packets.
    const std::string file = ffmpeg_file("s.wav", "'0.9*sin(2*PI*100*t)|-0.4*sin(2*PI*100*t)'", 44100, "0.1",
                                         "pcm_s16le");
    ClipPtr opened = open_clip(file, err);
    ASSERT_TRUE(opened);
    kel_set_raw_packet_size(0);
    EXPECT_FALSE(opened->will_accept(same.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));

    // Stream figures: every packet carries bytes * rate * 8 / frames.
    _kel_clip_info_t info{};
    opened->get_info(&info);
    EXPECT_EQ(info.bit_rate, 1411200);
    EXPECT_FLOAT_EQ(info.duration, static_cast<float>(opened->packet_count * 512) / 44100.0f);
    EXPECT_EQ(info.rate_mode, 0);
    EXPECT_EQ(opened->is_vbr(), 0);

    std::unique_ptr<Clip> made(opened->NewClip(nullptr));
    auto* wave = dynamic_cast<ClipWAVE*>(made.get());
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave->packetFrames, 512);
    EXPECT_EQ(wave->channels, 2);
    EXPECT_EQ(wave->bits_per_sample, 16);
    EXPECT_EQ(wave->packet_count, 0);

    // The encoder takes its packet length from the first packet, and its
    // bit rate counts frames, channels, rate and 8 whatever the width.
    std::unique_ptr<ClipEncoder> encoder(other_bits->create_encoder(44100.0f));
    EXPECT_EQ(static_cast<ClipEncoderWAVE*>(encoder.get())->packetFrames, 1024);
    EXPECT_EQ(static_cast<ClipEncoderWAVE*>(encoder.get())->bitRate, 1024 * 2 * 44100 * 8);
    std::unique_ptr<ClipEncoder> from_opened(opened->create_encoder(44100.0f));
    EXPECT_EQ(static_cast<ClipEncoderWAVE*>(from_opened.get())->packetFrames, 512);

    // The decoder and the overview decode through the clip.
    const Samples all = decode_clip(*opened);
    std::unique_ptr<ClipDecoder> decoder(opened->create_decoder());
    std::vector<float> l(512), r(512);
    float* out[2] = {l.data(), r.data()};
    ASSERT_EQ(decoder->packet_decode(2, out, &err, -1.0f), 512);
    EXPECT_TRUE(same_bits(l, std::vector<float>(all.left.begin() + 1024, all.left.begin() + 1536)));
    std::unique_ptr<Overview> overview(opened->create_overview(nullptr));
    EXPECT_EQ(overview->find_max_sample(0, opened->packet_count - 1, err), largest(all));
    EXPECT_EQ(err, 0);
}

TEST_F(WaveTest, TranscodesIntoOtherWidthsAndRates)
{
    const std::string file = ffmpeg_file("src.wav", "'0.8*sin(2*PI*440*t)|0.3*sin(2*PI*97*t)'", 44100, "0.5",
                                         "pcm_s16le");
    const int descriptors = open_descriptors();
    {
        PrivateTmpdir tmp;
        int err = 0;
        ClipPtr source = open_clip(file, err);
        ASSERT_TRUE(source);
        const Samples from = decode_clip(*source);

        // 16 to 24 bits at the same rate: the resampler passes the frames
        // through, and s / 32768 == (s * 256) / 8388608 exactly.
        ClipPtr wide(ClipWAVE::create_empty(2, 44100.0f, 24, &err));
        ClipPtr result(wide->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->bits_per_sample, 24);
        EXPECT_FLOAT_EQ(result->duration(), source->duration());
        const Samples wide_samples = decode_clip(*result);
        EXPECT_TRUE(same_bits(wide_samples.left, from.left));
        EXPECT_TRUE(same_bits(wide_samples.right, from.right));

        const std::string saved = work.path("wide.wav");
        result->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
        ASSERT_EQ(err, 0);
        std::vector<float> left, right;
        split(ffmpeg_samples(saved), left, right);
        EXPECT_TRUE(same_bits(left, from.left));

        // To mono at half the rate: the left channel, every other frame,
        // within the 16-bit step and the interpolation's error.
        ClipPtr narrow(ClipWAVE::create_empty(1, 22050.0f, 16, &err));
        ClipPtr half(narrow->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(half);
        EXPECT_EQ(half->channels, 1);
        EXPECT_NEAR(half->duration(), source->duration(), 1024.0 / 22050.0);
        const Samples down = decode_clip(*half);
        EXPECT_TRUE(same_bits(down.right, down.left));
        const size_t n = std::min(down.left.size(), from.left.size() / 2) - 8;
        double best = 1e9;
        for (long shift = -3; shift <= 3; ++shift) {
            double worst = 0.0;
            for (size_t k = 8; k < n; ++k)
                worst = std::max(worst, std::fabs(static_cast<double>(down.left[k]) -
                                                  from.left[static_cast<size_t>(static_cast<long>(2 * k) + shift)]));
            best = std::min(best, worst);
        }
        EXPECT_LT(best, 2e-3);

        source.reset();
        result.reset();
        half.reset();
        EXPECT_TRUE(tmp.dir().entries().empty());
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
