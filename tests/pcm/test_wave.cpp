// WAVE clips against the peer tools. Files written by ffmpeg and sox must
// open and decode to exactly the samples ffmpeg decodes; every file KEL
// saves must satisfy ffprobe and decode in ffmpeg to the samples predicted
// from the gain rules; transcoded clips must keep their samples.
#include "core/clipdecoder.h"
#include "core/clipencoder.h"
#include "core/fakeformat.h"
#include "core/fourcc.h"
#include "overview/overview.h"
#include "pcm/clipencoderwave.h"
#include "pcm/clipwave.h"
#include "pcm/packetwave.h"
#include "oracle.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

// The rule for scaling a stored sample: 16 bit clamps and truncates toward
// zero; 24 bit works on the sample placed in the top of a 32-bit word and
// drops the low byte, so it rounds toward minus infinity.
int32_t scaled(int32_t s, int bits, float gain, float envelope, bool with_envelope)
{
    if (bits == 16) {
        float v = static_cast<float>(s) * gain;
        if (with_envelope)
            v = envelope * v;
        v = std::min(std::max(v, -32768.0f), 32767.0f);
        return static_cast<int32_t>(v);
    }
    float v = static_cast<float>(s * 256) * gain;
    if (with_envelope)
        v = envelope * v;
    v = std::min(std::max(v, -2147483648.0f), 2147483648.0f);
    const int64_t w = v >= 2147483648.0f ? 2147483647 : static_cast<int64_t>(v);
    return static_cast<int32_t>(w >= 0 ? w / 256 : -((-w + 255) / 256));
}

class WaveTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(work.root().empty());
        ASSERT_TRUE(tool_runs("ffmpeg", "-version")) << "ffmpeg is required";
        ASSERT_TRUE(tool_runs("ffprobe", "-version")) << "ffprobe is required";
        ASSERT_TRUE(tool_runs("sox", "--version")) << "sox is required";
        kel_set_raw_packet_size(0);
    }
    void TearDown() override { kel_set_raw_packet_size(0); }

    std::string path(const std::string& name) const { return work.path(name); }

    // ffmpeg's own sine sources; exprs has one expression per channel.
    std::string ffmpeg_file(const std::string& name, const std::string& exprs, int rate, const char* seconds,
                            const char* codec, std::vector<std::string> more = {})
    {
        std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                         "aevalsrc=exprs=" + exprs + ":s=" + std::to_string(rate) + ":d=" + seconds,
                                         "-c:a", codec};
        argv.insert(argv.end(), more.begin(), more.end());
        argv.push_back(path(name));
        EXPECT_EQ(run_tool(argv), 0) << name;
        return path(name);
    }

    Decoded ffmpeg_samples(const std::string& file)
    {
        Decoded d;
        EXPECT_TRUE(ffmpeg_decode(file, d, work.root())) << file;
        return d;
    }

    // Rewrites a file's chunks through edit and returns the new file's path.
    template <typename Edit>
    std::string respliced(const std::string& from, const std::string& name, Edit edit)
    {
        std::string form;
        std::vector<Chunk> chunks;
        EXPECT_TRUE(parse_riff(read_file(from), form, chunks));
        edit(chunks);
        write_file(path(name), build_riff(form, chunks));
        return path(name);
    }

    TempDir work;
};

// A file with its "fmt " format tag set to integer PCM (ffmpeg writes the
// extensible tag for 24 bits and for more than two channels).
void force_pcm_tag(std::vector<Chunk>& chunks)
{
    const int fmt = find_chunk(chunks, "fmt ");
    ASSERT_GE(fmt, 0);
    chunks[static_cast<size_t>(fmt)].body[0] = 1;
    chunks[static_cast<size_t>(fmt)].body[1] = 0;
}

struct Source {
    const char* what;
    std::string file;     // what KEL opens
    std::string oracle;   // what ffmpeg decodes for the expectation
    int channels;
    int bits;
    int rate;
};

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
    const std::string sox16 = path("sox16s.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "22050", "-b", "16", "-c", "2", sox16, "synth", "0.1", "sine", "300",
                        "sine", "500"}),
              0);
    const std::string sox24 = path("sox24m.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "22050", "-b", "24", "-c", "1", "-t", "wavpcm", sox24, "synth", "0.1",
                        "sine", "300"}),
              0);

    const std::string ff24 = respliced(ff24x, "ff24s.wav", force_pcm_tag);
    const std::string ff3 = respliced(ff3x, "ff3.wav", force_pcm_tag);
    // Extra chunks on both sides of "data", one of odd length (pad byte).
    const std::string spliced = respliced(ff16s, "spliced.wav", [](std::vector<Chunk>& c) {
        const auto data = c.begin() + find_chunk(c, "data");
        const auto after = c.insert(data, {{"fact", {0x11, 0x2B, 0, 0}}, {"PEAK", Bytes(24, 0x3F)}}) + 2;
        c.insert(after + 1, {{"LIST", {'I', 'N', 'F', 'O', 'I', 'C', 'M', 'T', 3, 0, 0, 0, 'k', 'e', 'l', 0}},
                             {"junk", {1, 2, 3}}});
    });
    // "fmt " after "data": ffmpeg refuses that order, so the original is
    // the oracle.
    const std::string late_fmt = respliced(ff16m, "latefmt.wav", [](std::vector<Chunk>& c) {
        const int fmt = find_chunk(c, "fmt ");
        const Chunk moved = c[static_cast<size_t>(fmt)];
        c.erase(c.begin() + fmt);
        c.push_back(moved);
    });

    const std::vector<Source> sources = {
        {"ffmpeg 16-bit stereo", ff16s, ff16s, 2, 16, 44100},
        {"ffmpeg 16-bit mono with LIST", ff16m, ff16m, 1, 16, 8000},
        {"ffmpeg 24-bit stereo", ff24, ff24, 2, 24, 48000},
        {"ffmpeg 16-bit three channels", ff3, ff3, 3, 16, 16000},
        {"sox 16-bit stereo", sox16, sox16, 2, 16, 22050},
        {"sox 24-bit mono, odd data length", sox24, sox24, 1, 24, 22050},
        {"chunks before and after data", spliced, ff16s, 2, 16, 44100},
        {"fmt after data", late_fmt, ff16m, 1, 16, 8000},
    };
    for (const Source& src : sources) {
        SCOPED_TRACE(src.what);
        const Decoded want = ffmpeg_samples(src.oracle);
        ASSERT_EQ(want.channels, src.channels);
        const long long frames = static_cast<long long>(want.frames());
        ASSERT_GT(frames, 0);

        int err = -1;
        ClipPtr clip = open_clip(src.file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        _kel_clip_info_t info{};
        clip->get_info(&info);
        EXPECT_EQ(info.format, KEL_FORMAT_WAVE);
        EXPECT_EQ(info.channels, src.channels);
        EXPECT_EQ(info.bits_per_sample, src.bits);
        EXPECT_EQ(info.sample_rate, static_cast<float>(src.rate));

        // Whole packets of 1024 frames; the last holds the rest on disk.
        const long long packets = (frames + 1023) / 1024;
        ASSERT_EQ(clip->packet_count, packets);
        for (int i = 0; i < clip->packet_count; ++i)
            EXPECT_EQ(clip->packet_frame_count(i, nullptr), 1024);
        EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames - (packets - 1) * 1024);

        std::vector<float> left, right;
        split(want, left, right);
        const Samples got = decode_clip(*clip);
        EXPECT_TRUE(same_bits(got.left, left));
        EXPECT_TRUE(same_bits(got.right, right));
        for (size_t i = static_cast<size_t>(frames); i < got.left.size(); ++i) {
            ASSERT_EQ(bits_of(got.left[i]), 0u) << "silent tail at " << i;
            ASSERT_EQ(bits_of(got.right[i]), 0u) << "silent tail at " << i;
        }

        _kel_clip_info_t file{};
        EXPECT_EQ(Clip::file_info(src.file.c_str(), &file, nullptr), 0);
        EXPECT_EQ(file.format, KEL_FORMAT_WAVE);
        EXPECT_EQ(file.channels, src.channels);
        EXPECT_EQ(file.bits_per_sample, src.bits);
        EXPECT_NEAR(file.duration, static_cast<double>(frames) / src.rate, 1e-6);
        EXPECT_NEAR(file.bit_rate, src.rate * src.channels * src.bits, 2);
    }

    // What ffmpeg and sox write but KEL does not read: extensible, float,
    // 8- and 32-bit PCM.
    const std::vector<std::string> refused = {
        ff24x, ff3x, ffmpeg_file("f32.wav", "'0.5'", 8000, "0.05", "pcm_f32le"),
        ffmpeg_file("u8.wav", "'0.5'", 8000, "0.05", "pcm_u8"),
        ffmpeg_file("s32.wav", "'0.5'", 8000, "0.05", "pcm_s32le")};
    for (const std::string& file : refused) {
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
    EXPECT_EQ(static_cast<ClipWAVE*>(clip.get())->packetFrames, 441);
    const Samples got = decode_clip(*clip);
    std::vector<float> left, right;
    split(ffmpeg_samples(file), left, right);
    EXPECT_TRUE(same_bits(got.left, left));
}

// Packet gains and envelopes on a clip, and what saving must make of them.
struct GainPlan {
    std::vector<float> gains;                   // per packet
    std::vector<std::vector<float>> envelopes;  // per packet, empty for none
};

void apply_plan(Clip& clip, GainPlan& plan)
{
    plan.gains.assign(static_cast<size_t>(clip.packet_count), 1.0f);
    plan.envelopes.assign(static_cast<size_t>(clip.packet_count), {});
    const int last = clip.packet_count - 1;
    const std::vector<std::pair<int, float>> gains = {{1, 0.5f}, {2, 1.7f}, {4, 0.8f}, {last, 0.3f}};
    for (auto [index, gain] : gains) {
        clip.get_packet(index)->gain = gain;
        plan.gains[static_cast<size_t>(index)] = gain;
    }
    for (int index : {3, 4, last}) {
        Packet* p = clip.get_packet(index);
        std::vector<float> ramp(static_cast<size_t>(p->frame_count));
        for (size_t k = 0; k < ramp.size(); ++k)
            ramp[k] = 1.0f - static_cast<float>(k) / static_cast<float>(ramp.size());
        p->gain_envelope(ramp.data(), p->frame_count);
        plan.envelopes[static_cast<size_t>(index)] = ramp;
    }
}

// The stored integers after the plan, frame-interleaved as in the file.
std::vector<int32_t> predict(const std::vector<int32_t>& original, int channels, int bits, const GainPlan& plan)
{
    std::vector<int32_t> out(original.size());
    for (size_t i = 0; i < original.size(); ++i) {
        const size_t frame = i / static_cast<size_t>(channels);
        const size_t packet = frame / 1024;
        const auto& envelope = plan.envelopes[packet];
        const bool with = !envelope.empty();
        out[i] = scaled(original[i], bits, plan.gains[packet], with ? envelope[frame % 1024] : 1.0f, with);
    }
    return out;
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

    struct Case {
        const char* what;
        std::string source;
        int bits;
        bool gains;
        bool with_extra;
    };
    const std::vector<Case> cases = {{"plain 16-bit", ff16, 16, false, false},
                                     {"16-bit with gains, envelopes, extra", ff16, 16, true, true},
                                     {"plain 24-bit mono, odd length", sox24, 24, false, false},
                                     {"24-bit with gains, envelopes, extra", sox24, 24, true, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Decoded original = ffmpeg_samples(c.source);
        int err = 0;
        ClipPtr clip = open_clip(c.source, err);
        ASSERT_TRUE(clip);
        GainPlan plan;
        plan.gains.assign(static_cast<size_t>(clip->packet_count), 1.0f);
        plan.envelopes.assign(static_cast<size_t>(clip->packet_count), {});
        if (c.gains)
            apply_plan(*clip, plan);
        const std::vector<int32_t> want = predict(integers(original, c.bits), original.channels, c.bits, plan);

        const std::string out = path("saved.wav");
        err = -1;
        const Bytes& block = c.with_extra ? extra : Bytes();
        clip->save_to(out.c_str(), c.with_extra ? block.data() : nullptr, static_cast<int>(block.size()), nullptr,
                      0, &err, nullptr);
        ASSERT_EQ(err, 0);

        // The canonical header, field by field, and nothing after the data
        // but the extra block (no pad byte after odd data).
        const Bytes file = read_file(out);
        const uint32_t data_bytes = static_cast<uint32_t>(want.size()) * static_cast<uint32_t>(c.bits / 8);
        ASSERT_EQ(file.size(), 44 + data_bytes + block.size());
        const uint32_t rate = static_cast<uint32_t>(clip->sample_rate);
        const uint32_t align = static_cast<uint32_t>(original.channels * c.bits / 8);
        EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "RIFF");
        EXPECT_EQ(get_le32(file, 4), 36 + data_bytes + block.size());
        EXPECT_EQ(std::string(file.begin() + 8, file.begin() + 16), "WAVEfmt ");
        EXPECT_EQ(get_le32(file, 16), 16u);
        EXPECT_EQ(get_le16(file, 20), 1u);
        EXPECT_EQ(get_le16(file, 22), original.channels);
        EXPECT_EQ(get_le32(file, 24), rate);
        EXPECT_EQ(get_le32(file, 28), rate * align);
        EXPECT_EQ(get_le16(file, 32), align);
        EXPECT_EQ(get_le16(file, 34), c.bits);
        EXPECT_EQ(std::string(file.begin() + 36, file.begin() + 40), "data");
        EXPECT_EQ(get_le32(file, 40), data_bytes);
        EXPECT_TRUE(std::equal(block.begin(), block.end(), file.end() - static_cast<long>(block.size())));

        Probe probe;
        ASSERT_TRUE(ffprobe(out, probe, work.root()));
        EXPECT_EQ(probe.codec, c.bits == 16 ? "pcm_s16le" : "pcm_s24le");
        EXPECT_EQ(probe.channels, original.channels);
        EXPECT_EQ(probe.sample_rate, static_cast<int>(rate));
        EXPECT_EQ(probe.frames, static_cast<long long>(original.frames()));

        const Decoded saved = ffmpeg_samples(out);
        EXPECT_EQ(integers(saved, c.bits), want);

        // Reopened: the same packets, decoding to the stored integers.
        ClipPtr again = open_clip(out, err);
        ASSERT_TRUE(again);
        ASSERT_EQ(again->packet_count, clip->packet_count);
        for (int i = 0; i < clip->packet_count; ++i) {
            EXPECT_EQ(again->packet_frame_count(i, nullptr), clip->packet_frame_count(i, nullptr));
            EXPECT_EQ(again->get_packet(i)->disk_frame_count(), clip->get_packet(i)->disk_frame_count());
        }
        std::vector<float> left, right;
        split(saved, left, right);
        const Samples decoded = decode_clip(*again);
        EXPECT_TRUE(same_bits(decoded.left, left));
        EXPECT_TRUE(same_bits(decoded.right, right));
    }
}

// Decoding applies the gain to the integers and the envelope to the floats;
// an explicit gain (the overview's 1.0) replaces the packet's own.
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

    for (float gain : {-1.0f, 1.0f, 0.25f}) {
        std::vector<float> l(1024), r(1024);
        float* out[2] = {l.data(), r.data()};
        ASSERT_EQ(clip->packet_decode_play(0, out, &err, gain), 1024);
        const float g = gain < 0.0f ? 1.5f : gain;
        for (size_t k = 0; k < 1024; ++k) {
            const float want = static_cast<float>(scaled(ints[k], 16, g, 1.0f, false)) / 32768.0f * env[k];
            ASSERT_EQ(bits_of(l[k]), bits_of(want)) << "gain " << gain << " frame " << k;
            ASSERT_EQ(bits_of(r[k]), bits_of(want));
        }
    }

    // A copy decodes the same, and keeps its own gain afterwards.
    Packet* twin = p->copy();
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin->type(), Packet::TypeWAVE);
    EXPECT_EQ(twin->gain, 1.5f);
    ASSERT_NE(twin->envelope, nullptr);
    EXPECT_EQ(twin->handle, p->handle);
    std::vector<float> a(1024), b(1024), c(1024), d(1024);
    float* from_clip[2] = {a.data(), b.data()};
    float* from_twin[2] = {c.data(), d.data()};
    clip->packet_decode_play(0, from_clip, &err, -1.0f);
    static_cast<PacketWAVE*>(twin)->decode(from_twin, &err, -1.0f);
    EXPECT_TRUE(same_bits(c, a));
    twin->gain = 0.0f;
    EXPECT_EQ(p->gain, 1.5f);
    twin->release();

    float* out[2] = {a.data(), b.data()};
    EXPECT_EQ(clip->packet_decode_play(clip->packet_count, out, &err, -1.0f), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
    err = 0;
    EXPECT_EQ(clip->packet_decode_play(-1, out, &err, -1.0f), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
}

TEST_F(WaveTest, DecoderAndOverviewDecodeThroughTheClip)
{
    const std::string file = ffmpeg_file("s.wav", "'0.9*sin(2*PI*100*t)|-0.4*sin(2*PI*100*t)'", 8000, "0.5",
                                         "pcm_s16le");
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    ASSERT_TRUE(clip);
    const Samples all = decode_clip(*clip);

    std::unique_ptr<ClipDecoder> decoder(clip->create_decoder());
    std::vector<float> l(1024), r(1024);
    float* out[2] = {l.data(), r.data()};
    ASSERT_EQ(decoder->packet_decode(2, out, &err, -1.0f), 1024);
    EXPECT_TRUE(same_bits(l, std::vector<float>(all.left.begin() + 2048, all.left.begin() + 3072)));

    // The largest sample the overview finds is the largest decoded one.
    std::unique_ptr<Overview> overview(clip->create_overview(nullptr));
    float largest = 0.0f;
    for (size_t i = 0; i < all.left.size(); ++i)
        largest = std::max({largest, std::fabs(all.left[i]), std::fabs(all.right[i])});
    EXPECT_EQ(overview->find_max_sample(0, clip->packet_count - 1, err), largest);
    EXPECT_EQ(err, 0);
}

TEST_F(WaveTest, ClipParametersAndCompatibility)
{
    int err = 0;
    EXPECT_EQ(ClipWAVE::create_empty(3, 44100.0f, 16, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipWAVE::create_empty(0, 44100.0f, 16, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipWAVE::create_empty(2, -1.0f, 16, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipWAVE::create_empty(2, 44100.0f, 8, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));

    // Empty clips have 1024-frame packets whatever the setting says.
    kel_set_raw_packet_size(512);
    ClipPtr a(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
    ASSERT_TRUE(a);
    EXPECT_EQ(err, 0);
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
    const std::string file = ffmpeg_file("s.wav", "'0.1'|'0.2'", 44100, "0.1", "pcm_s16le");
    ClipPtr opened = open_clip(file, err);
    ASSERT_TRUE(opened);
    EXPECT_FALSE(opened->will_accept(same.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    kel_set_raw_packet_size(0);

    // Stream figures: every packet carries bytes * rate * 8 / frames.
    _kel_clip_info_t info{};
    opened->get_info(&info);
    EXPECT_EQ(info.bit_rate, 1411200);
    EXPECT_FLOAT_EQ(info.duration, static_cast<float>(opened->packet_count * 512) / 44100.0f);
    EXPECT_EQ(info.rate_mode, 0);
    EXPECT_EQ(opened->is_vbr, 0);

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
    auto* enc = static_cast<ClipEncoderWAVE*>(encoder.get());
    EXPECT_EQ(enc->packetFrames, 1024);
    EXPECT_EQ(enc->bitRate, 1024 * 2 * 44100 * 8);
    std::unique_ptr<ClipEncoder> from_opened(opened->create_encoder(44100.0f));
    EXPECT_EQ(static_cast<ClipEncoderWAVE*>(from_opened.get())->packetFrames, 512);
}

// Counts the descriptors the process holds.
int open_descriptors()
{
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr)
            ++n;
        closedir(d);
    }
    return n;
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
        EXPECT_EQ(result->packet_count, source->packet_count);
        EXPECT_FLOAT_EQ(result->duration, source->duration);
        const Samples wide_samples = decode_clip(*result);
        EXPECT_TRUE(same_bits(wide_samples.left, from.left));
        EXPECT_TRUE(same_bits(wide_samples.right, from.right));

        const std::string saved = work.path("wide.wav");
        result->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
        ASSERT_EQ(err, 0);
        const Decoded back = ffmpeg_samples(saved);
        std::vector<float> left, right;
        split(back, left, right);
        EXPECT_TRUE(same_bits(left, from.left));

        // To mono at half the rate: the left channel, every other frame,
        // within the 16-bit step and the interpolation's error.
        ClipPtr narrow(ClipWAVE::create_empty(1, 22050.0f, 16, &err));
        ClipPtr half(narrow->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(half);
        EXPECT_EQ(half->channels, 1);
        EXPECT_NEAR(half->duration, source->duration, 1024.0 / 22050.0);
        const Samples down = decode_clip(*half);
        EXPECT_TRUE(same_bits(down.right, down.left));
        const size_t n = std::min(down.left.size(), from.left.size() / 2) - 8;
        double best = 1e9;
        for (int shift = -3; shift <= 3; ++shift) {
            double worst = 0.0;
            for (size_t k = 8; k < n; ++k)
                worst = std::max(worst, static_cast<double>(std::fabs(
                                            down.left[k] - from.left[static_cast<size_t>(static_cast<long>(2 * k) + shift)])));
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
