// AIFF clips against the peer tools. AIFF and AIFF-C files written by
// ffmpeg and sox must open and decode to exactly the samples ffmpeg decodes;
// every file KEL saves must satisfy ffprobe and decode in ffmpeg to the
// samples predicted from the gain rules; transcoding keeps the samples.
#include "core/clipdecoder.h"
#include "core/clipencoder.h"
#include "core/fourcc.h"
#include "overview/overview.h"
#include "pcm/clipaiff.h"
#include "pcm/clipencoderaiff.h"
#include "pcm/clipwave.h"
#include "pcm/packetaiff.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

uint32_t be32(const Bytes& b, size_t at)
{
    return static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
           static_cast<uint32_t>(b[at + 2]) << 8 | b[at + 3];
}

// An AIFF file as a form type and its chunks (bodies without pad bytes).
bool parse_aiff(const Bytes& file, std::string& form, std::vector<Chunk>& chunks)
{
    if (file.size() < 12 || std::string(file.begin(), file.begin() + 4) != "FORM")
        return false;
    form.assign(file.begin() + 8, file.begin() + 12);
    chunks.clear();
    for (size_t at = 12; at + 8 <= file.size();) {
        const size_t size = be32(file, at + 4);
        const size_t end = std::min(file.size(), at + 8 + size);
        chunks.push_back({std::string(file.begin() + static_cast<long>(at), file.begin() + static_cast<long>(at) + 4),
                          Bytes(file.begin() + static_cast<long>(at) + 8, file.begin() + static_cast<long>(end))});
        at += 8 + size + (size & 1);
    }
    return true;
}

Bytes build_aiff(const std::string& form, const std::vector<Chunk>& chunks)
{
    ByteWriter body;
    body.tag(form.c_str());
    for (const Chunk& c : chunks) {
        body.tag(c.id.c_str()).be32(static_cast<uint32_t>(c.body.size())).raw(c.body);
        if (c.body.size() % 2 != 0)
            body.zeros(1);
    }
    ByteWriter file;
    file.tag("FORM").be32(static_cast<uint32_t>(body.bytes.size())).raw(body.bytes);
    return file.bytes;
}

class AiffTest : public PcmFiles {
protected:
    std::string sox_file(const std::string& name, const char* type, int rate, int bits, int channels,
                         const char* seconds)
    {
        EXPECT_EQ(run_tool({"sox", "-n", "-r", std::to_string(rate), "-b", std::to_string(bits), "-c",
                            std::to_string(channels), "-t", type, path(name), "synth", seconds, "sine", "300", "sine",
                            "470", "gain", "2"}),
                  0)
            << name;
        return path(name);
    }

    // Rewrites a file's chunks through edit and returns the new file's path.
    template <typename Edit>
    std::string respliced(const std::string& from, const std::string& name, Edit edit)
    {
        std::string form;
        std::vector<Chunk> chunks;
        EXPECT_TRUE(parse_aiff(read_file(from), form, chunks));
        edit(chunks);
        write_file(path(name), build_aiff(form, chunks));
        return path(name);
    }
};

TEST_F(AiffTest, FilesFromPeerToolsDecodeExactlyAsFfmpegDecodesThem)
{
    const std::string ff16 = ffmpeg_file("ff16s.aiff", "'1.2*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                         "0.25", "pcm_s16be");
    const std::string ff24 = ffmpeg_file("ff24m.aiff", "'sin(2*PI*1000*t)'", 48000, "0.1", "pcm_s24be");
    const std::string sowt = ffmpeg_file("sowt.aiff", "'0.9*sin(2*PI*300*t)|-1.1*cos(2*PI*70*t)'", 22050, "0.2",
                                         "pcm_s16le");
    const std::string twos = ffmpeg_file("twos.aiff", "'0.7*sin(2*PI*300*t)'", 16000, "0.15", "pcm_s16be",
                                         {"-tag:a", "twos"});
    const std::string in24 = ffmpeg_file("in24.aiff", "'0.6*sin(2*PI*50*t)|-sin(2*PI*90*t)'", 8000, "0.3",
                                         "pcm_s24be", {"-tag:a", "in24"});
    // A "NAME" chunk before "COMM", an "ID3 " chunk after "SSND", and a
    // "CHAN" chunk for the third channel, which the decoders leave out.
    const std::string tagged = ffmpeg_file("tagged.aiff", "'0.3*sin(2*PI*100*t)|0.6*sin(2*PI*200*t)|-0.5'", 16000,
                                           "0.1", "pcm_s16be", {"-write_id3v2", "1", "-metadata", "title=kel"});
    const std::string sox16 = sox_file("sox16s.aiff", "aiff", 22050, 16, 2, "0.1");
    const std::string sox24 = sox_file("sox24m.aifc", "aifc", 22050, 24, 1, "0.1");
    const std::string sox16c = sox_file("sox16s.aifc", "aifc", 11025, 16, 2, "0.2");

    // Chunks on both sides of "SSND", one of odd length (pad byte), and
    // sound data behind a 4-byte "SSND" offset.
    const std::string spliced = respliced(ff16, "spliced.aiff", [](std::vector<Chunk>& c) {
        c.insert(c.begin(), {"MARK", {0, 0, 0}});
        const int sound = find_chunk(c, "SSND");
        ASSERT_GE(sound, 0);
        Bytes& body = c[static_cast<size_t>(sound)].body;
        body[3] = 4;
        body.insert(body.begin() + 8, {0xDE, 0xAD, 0xBE, 0xEF});
        c.insert(c.begin() + sound, {"INST", Bytes(20, 0x11)});
        c.push_back({"ANNO", {'k', 'e', 'l'}});
        c.push_back({"COMT", {0, 0}});
    });
    // "SSND" ahead of "COMM" in an AIFF-C file.
    const std::string late_comm = respliced(twos, "latecomm.aiff", [](std::vector<Chunk>& c) {
        const int comm = find_chunk(c, "COMM");
        ASSERT_GE(comm, 0);
        const Chunk moved = c[static_cast<size_t>(comm)];
        c.erase(c.begin() + comm);
        c.push_back(moved);
    });

    for (const PeerSource& src : std::vector<PeerSource>{
             {"ffmpeg AIFF 16-bit stereo", ff16, ff16, 2, 16, 44100},
             {"ffmpeg AIFF 24-bit mono", ff24, ff24, 1, 24, 48000},
             {"ffmpeg AIFF-C sowt stereo", sowt, sowt, 2, 16, 22050},
             {"ffmpeg AIFF-C twos mono", twos, twos, 1, 16, 16000},
             {"ffmpeg AIFF-C in24 stereo", in24, in24, 2, 24, 8000},
             {"ffmpeg AIFF three channels with NAME and ID3", tagged, tagged, 3, 16, 16000},
             {"sox AIFF 16-bit stereo with COMT", sox16, sox16, 2, 16, 22050},
             {"sox AIFF-C NONE 24-bit mono, odd length", sox24, sox24, 1, 24, 22050},
             {"sox AIFF-C NONE 16-bit stereo", sox16c, sox16c, 2, 16, 11025},
             {"chunks around SSND, SSND offset", spliced, ff16, 2, 16, 44100},
             {"SSND before COMM", late_comm, twos, 1, 16, 16000},
         })
        expect_decodes_as_ffmpeg(src, KEL_FORMAT_AIFF, Packet::TypeAIFF, work.root());

    // What ffmpeg writes but KEL does not read: 8- and 32-bit AIFF, float
    // and companded AIFF-C. The code survives the dispatch.
    for (const char* codec : {"pcm_s8", "pcm_s32be", "pcm_f32be", "pcm_mulaw", "pcm_alaw"}) {
        const std::string file = ffmpeg_file(std::string(codec) + ".aiff", "'0.5'", 8000, "0.05", codec);
        int err = 0;
        EXPECT_FALSE(open_clip(file, err)) << codec;
        EXPECT_EQ(err, fourcc("Efms")) << codec;
        EXPECT_EQ(Clip::file_info(file.c_str(), nullptr, nullptr), fourcc("Efms")) << codec;
    }
}

TEST_F(AiffTest, SavedFilesSatisfyFfprobeAndDecodeAsPredicted)
{
    const std::string ff16 = ffmpeg_file("ff16s.aiff", "'1.2*sin(2*PI*440*t)|0.5*sin(2*PI*223*t+1)'", 44100,
                                         "0.1", "pcm_s16be");
    // Little-endian samples in, plain big-endian AIFF out.
    const std::string sowt = ffmpeg_file("sowt.aiff", "'0.9*sin(2*PI*300*t)|-1.1*cos(2*PI*70*t)'", 22050, "0.2",
                                         "pcm_s16le");
    const std::string sox24 = sox_file("sox24m.aifc", "aifc", 22050, 24, 1, "0.1"); // 2205 frames
    const Bytes extra = {'A', 'N', 'N', 'O', 0, 0, 0, 4, 'k', 'e', 'l', '!'};

    for (const std::string& source : {ff16, sowt, sox24}) {
        for (bool changed : {false, true}) {
            SCOPED_TRACE(source + (changed ? " with gains, envelopes and extra" : " plain"));
            const Decoded original = ffmpeg_samples(source);
            std::string form;
            std::vector<Chunk> chunks;
            ASSERT_TRUE(parse_aiff(read_file(source), form, chunks));
            const Bytes& comm = chunks[static_cast<size_t>(find_chunk(chunks, "COMM"))].body;
            const int bits = comm[7] == 24 ? 24 : 16;

            int err = 0;
            ClipPtr clip = open_clip(source, err);
            ASSERT_TRUE(clip);
            const GainPlan plan =
                changed ? apply_plan(*clip, {{0, 1.9f}, {1, 0.35f}, {-1, 0.6f}}, {1, 2}) : apply_plan(*clip, {}, {});
            const std::vector<int32_t> want = predict(integers(original, bits), original.channels, bits, plan);

            const std::string out = path("saved.aiff");
            const Bytes block = changed ? extra : Bytes();
            err = -1;
            clip->save_to(out.c_str(), changed ? block.data() : nullptr, static_cast<int>(block.size()), nullptr, 0,
                          &err, nullptr);
            ASSERT_EQ(err, 0);

            // The 54-byte header field by field; the rate bytes are the
            // ones the peer tool wrote; nothing follows the sound data but
            // the extra block, not even a pad byte.
            const Bytes file = read_file(out);
            const uint32_t data = static_cast<uint32_t>(want.size()) * static_cast<uint32_t>(bits / 8);
            ASSERT_EQ(file.size(), 54 + data + block.size());
            ByteWriter header;
            header.tag("FORM").be32(data + static_cast<uint32_t>(block.size()) + 46).tag("AIFF").tag("COMM").be32(18);
            header.raw(Bytes(comm.begin(), comm.begin() + 2)).be32(static_cast<uint32_t>(original.frames()));
            header.be16(static_cast<uint32_t>(bits)).raw(Bytes(comm.begin() + 8, comm.begin() + 18));
            header.tag("SSND").be32(data + 8).be32(0).be32(0);
            EXPECT_EQ(Bytes(file.begin(), file.begin() + 54), header.bytes);
            EXPECT_TRUE(std::equal(block.begin(), block.end(), file.end() - static_cast<long>(block.size())));

            Probe probe;
            ASSERT_TRUE(ffprobe(out, probe, work.root()));
            EXPECT_EQ(probe.codec, bits == 16 ? "pcm_s16be" : "pcm_s24be");
            EXPECT_EQ(probe.channels, original.channels);
            EXPECT_EQ(probe.frames, static_cast<long long>(original.frames()));
            const Decoded saved = ffmpeg_samples(out);
            EXPECT_EQ(integers(saved, bits), want);

            expect_reopens_as(out, *clip, saved);
            ClipPtr again = open_clip(out, err);
            ASSERT_TRUE(again);
            EXPECT_FALSE(static_cast<PacketAIFF*>(again->get_packet(again->packet_count - 1))->littleEndian);
        }
    }
}

// A little-endian packet applies its gain to the bytes as stored and only
// then turns them round; decoding scales the integers by the gain and the
// floats by the envelope.
TEST_F(AiffTest, LittleEndianPacketsHandOutBigEndianBytes)
{
    const std::string sowt = ffmpeg_file("sowt.aiff", "'1.1*sin(2*PI*700*t)'", 8000, "0.2", "pcm_s16le");
    const std::vector<int32_t> ints = integers(ffmpeg_samples(sowt), 16);
    int err = 0;
    ClipPtr clip = open_clip(sowt, err);
    ASSERT_TRUE(clip);
    auto* p = static_cast<PacketAIFF*>(clip->get_packet(0));
    ASSERT_TRUE(p->littleEndian);
    ASSERT_EQ(p->bits, 16);

    for (float gain : {1.0f, 0.5f, 3.0f}) {
        Bytes bytes(2048);
        ASSERT_EQ(p->get_bytes(bytes.data(), gain), 2048);
        for (size_t k = 0; k < 1024; ++k) {
            const int16_t s = static_cast<int16_t>(bytes[2 * k] << 8 | bytes[2 * k + 1]);
            ASSERT_EQ(s, scaled(ints[k], 16, gain)) << "gain " << gain << " sample " << k;
        }
    }

    p->gain = 1.5f;
    std::vector<float> env(1024);
    for (size_t k = 0; k < env.size(); ++k)
        env[k] = static_cast<float>(k % 5) / 4.0f;
    p->gain_envelope(env.data(), 1024);
    for (float gain : {-1.0f, 0.25f}) {
        std::vector<float> l(1024), r(1024);
        float* out[2] = {l.data(), r.data()};
        ASSERT_EQ(clip->packet_decode_play(0, out, &err, gain), 1024);
        const float g = gain < 0.0f ? 1.5f : gain;
        for (size_t k = 0; k < 1024; ++k) {
            const float want = static_cast<float>(scaled(ints[k], 16, g)) / 32768.0f * env[k];
            ASSERT_EQ(bits_of(l[k]), bits_of(want)) << "gain " << gain << " frame " << k;
            ASSERT_EQ(bits_of(r[k]), bits_of(want));
        }
    }
    Bytes enveloped(2048);
    ASSERT_EQ(p->get_bytes_with_gain_and_envelope(enveloped.data()), 2048);
    for (size_t k = 0; k < 1024; ++k)
        ASSERT_EQ(static_cast<int16_t>(enveloped[2 * k] << 8 | enveloped[2 * k + 1]),
                  scaled(ints[k], 16, 1.5f, &env[k]));

    // A copy keeps the flag.
    Packet* twin = p->copy();
    ASSERT_NE(twin, nullptr);
    EXPECT_TRUE(static_cast<PacketAIFF*>(twin)->littleEndian);
    EXPECT_EQ(twin->handle, p->handle);
    twin->release();

    std::vector<float> a(1024), b(1024);
    float* out[2] = {a.data(), b.data()};
    EXPECT_EQ(clip->packet_decode_play(clip->packet_count, out, &err, -1.0f), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
}

TEST_F(AiffTest, ClipParametersCompatibilityAndEntryPoint)
{
    int err = 0;
    for (auto [channels, rate, bits] : std::vector<std::tuple<int, float, int>>{
             {3, 44100.0f, 16}, {0, 44100.0f, 16}, {2, -1.0f, 16}, {2, 44100.0f, 8}, {1, 8000.0f, 32}}) {
        err = 0;
        EXPECT_EQ(ClipAIFF::create_empty(channels, rate, bits, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
        err = 0;
        EXPECT_EQ(kel_clip_create(KEL_FORMAT_AIFF, channels, rate, bits, 0, 0, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
    }

    // The entry point builds the format asked for, with 1024-frame packets
    // whatever the setting says.
    kel_set_raw_packet_size(512);
    ClipPtr a(kel_clip_create(KEL_FORMAT_AIFF, 2, 44100.0f, 16, 0, 0, &err));
    ClipPtr wave(kel_clip_create(KEL_FORMAT_WAVE, 2, 44100.0f, 16, 0, 0, &err));
    ASSERT_NE(dynamic_cast<ClipAIFF*>(a.get()), nullptr);
    ASSERT_NE(dynamic_cast<ClipWAVE*>(wave.get()), nullptr);
    EXPECT_EQ(static_cast<ClipAIFF*>(a.get())->packetFrames, 1024);
    EXPECT_EQ(static_cast<ClipWAVE*>(wave.get())->packetFrames, 1024);
    EXPECT_EQ(a->packet_count, 0);
    _kel_clip_info_t info{};
    a->get_info(&info);
    EXPECT_EQ(info.format, KEL_FORMAT_AIFF);

    ClipPtr same(ClipAIFF::create_empty(2, 44100.0f, 16, &err));
    EXPECT_TRUE(a->will_accept(same.get(), &err));
    EXPECT_EQ(err, 0);
    EXPECT_FALSE(a->will_accept(wave.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));
    EXPECT_FALSE(wave->will_accept(a.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));
    for (auto [channels, rate, bits] : std::vector<std::tuple<int, float, int>>{
             {1, 44100.0f, 16}, {2, 48000.0f, 16}, {2, 44100.0f, 24}}) {
        ClipPtr other(ClipAIFF::create_empty(channels, rate, bits, &err));
        EXPECT_FALSE(a->will_accept(other.get(), &err));
        EXPECT_EQ(err, fourcc("Ecld"));
    }

    // Opened under the 512-frame setting: packets of 512, which a clip of
    // 1024-frame packets does not take.
    const std::string file = ffmpeg_file("s.aiff", "'0.1'|'0.2'", 44100, "0.1", "pcm_s16be");
    ClipPtr opened = open_clip(file, err);
    ASSERT_TRUE(opened);
    kel_set_raw_packet_size(0);
    EXPECT_EQ(static_cast<ClipAIFF*>(opened.get())->packetFrames, 512);
    EXPECT_FALSE(opened->will_accept(same.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    opened->get_info(&info);
    EXPECT_EQ(info.bit_rate, 44100 * 2 * 16); // every packet: bytes * rate * 8 / frames
    EXPECT_FLOAT_EQ(info.duration, static_cast<float>(opened->packet_count * 512) / 44100.0f);

    std::unique_ptr<Clip> made(opened->NewClip(nullptr));
    auto* aiff = dynamic_cast<ClipAIFF*>(made.get());
    ASSERT_NE(aiff, nullptr);
    EXPECT_EQ(aiff->packetFrames, 512);
    EXPECT_EQ(aiff->channels, 2);

    // The encoder's packet length comes from the first packet; its bit rate
    // counts frames, channels, rate and 8 whatever the width.
    std::unique_ptr<ClipEncoder> from_opened(opened->create_encoder(44100.0f));
    EXPECT_EQ(static_cast<ClipEncoderAIFF*>(from_opened.get())->packetFrames, 512);
    ClipPtr wide(ClipAIFF::create_empty(2, 44100.0f, 24, &err));
    std::unique_ptr<ClipEncoder> encoder(wide->create_encoder(44100.0f));
    EXPECT_EQ(static_cast<ClipEncoderAIFF*>(encoder.get())->bitRate, 1024 * 2 * 44100 * 8);

    // The decoder and the overview decode through the clip.
    const Samples all = decode_clip(*opened);
    std::unique_ptr<ClipDecoder> decoder(opened->create_decoder());
    std::vector<float> l(512), r(512);
    float* out[2] = {l.data(), r.data()};
    ASSERT_EQ(decoder->packet_decode(2, out, &err, -1.0f), 512);
    EXPECT_TRUE(same_bits(r, std::vector<float>(all.right.begin() + 1024, all.right.begin() + 1536)));
    std::unique_ptr<Overview> overview(opened->create_overview(nullptr));
    EXPECT_EQ(overview->find_max_sample(0, opened->packet_count - 1, err), largest(all));
    EXPECT_GT(largest(all), 0.19f);
}

TEST_F(AiffTest, TranscodesBetweenWidthsAndFormats)
{
    const std::string source_file = ffmpeg_file("src.wav", "'0.8*sin(2*PI*440*t)|-1.3*sin(2*PI*97*t)'", 44100,
                                                "0.3", "pcm_s16le");
    PrivateTmpdir tmp;
    int err = 0;
    ClipPtr source = open_clip(source_file, err);
    ASSERT_TRUE(source);
    const Samples from = decode_clip(*source);

    // WAVE to AIFF 16 and 24 bits at the same rate keeps every sample
    // (s / 32768 == s * 256 / 8388608), and the saved files say so too.
    for (int bits : {16, 24}) {
        SCOPED_TRACE(bits);
        ClipPtr target(ClipAIFF::create_empty(2, 44100.0f, bits, &err));
        ClipPtr result(target->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(result);
        ASSERT_NE(dynamic_cast<ClipAIFF*>(result.get()), nullptr);
        EXPECT_EQ(result->packet_count, source->packet_count);
        const Samples got = decode_clip(*result);
        EXPECT_TRUE(same_bits(got.left, from.left));
        EXPECT_TRUE(same_bits(got.right, from.right));

        const std::string saved = work.path("out.aiff");
        result->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
        ASSERT_EQ(err, 0);
        std::vector<float> left, right;
        split(ffmpeg_samples(saved), left, right);
        EXPECT_TRUE(same_bits(left, std::vector<float>(from.left.begin(), from.left.begin() + 13230)));
        EXPECT_TRUE(same_bits(right, std::vector<float>(from.right.begin(), from.right.begin() + 13230)));

        // And back to WAVE through the AIFF decoder.
        ClipPtr back_target(ClipWAVE::create_empty(2, 44100.0f, 16, &err));
        ClipPtr back(back_target->transcode(result.get(), 0, result->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(back);
        EXPECT_TRUE(same_bits(decode_clip(*back).left, from.left));
    }
    source.reset();
    EXPECT_TRUE(tmp.dir().entries().empty());
}

} // namespace
