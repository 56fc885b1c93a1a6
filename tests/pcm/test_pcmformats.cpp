// WAVE, AIFF and CAF clips, one suite run over each format. Files written
// by ffmpeg and sox must open and decode to exactly the samples ffmpeg
// decodes; saved files must satisfy ffprobe and decode to the samples the
// gain rules predict; hand-made files with one fault each give their code;
// size limits, progress, failed saves and damaged files are handled.
#include "pcmformats.h"

#include "core/bshandlemem.h"
#include "core/clipdecoder.h"
#include "core/fourcc.h"
#include "overview/overview.h"
#include "pcm/clipwave.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

// A peer tool's file and the file whose ffmpeg decode it must equal.
struct Peer {
    std::string what, file, oracle;
    int channels, bits, rate;
};

struct Reports {
    std::vector<float> values;
    int cancel_after = -1;
    std::string watched; // a file whose header must still be zero
    int header_bytes = 0, looked = 0;
    bool nonzero = false;
    static int record(void* context, float percent)
    {
        auto* r = static_cast<Reports*>(context);
        r->values.push_back(percent);
        if (!r->watched.empty()) {
            const Bytes now = read_file(r->watched);
            if (now.size() >= static_cast<size_t>(r->header_bytes)) {
                ++r->looked;
                r->nonzero = r->nonzero || std::any_of(now.begin(), now.begin() + r->header_bytes,
                                                       [](unsigned char b) { return b != 0; });
            }
        }
        return r->cancel_after < 0 || static_cast<int>(r->values.size()) <= r->cancel_after;
    }
};

float largest(const Samples& s)
{
    float m = 0.0f;
    for (size_t i = 0; i < s.left.size(); ++i)
        m = std::max({m, std::fabs(s.left[i]), std::fabs(s.right[i])});
    return m;
}

class PcmFormatTest : public ::testing::TestWithParam<const PcmFormat*> {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(work.root().empty());
        ASSERT_EQ(run_tool({"sox", "--version"}), 0) << "sox is required";
        kel_set_raw_packet_size(0);
    }
    void TearDown() override { kel_set_raw_packet_size(0); }

    const PcmFormat& fmt() const { return *GetParam(); }
    std::string path(const std::string& name) const { return work.path(name + fmt().extension); }
    std::string put(const std::string& name, const Bytes& bytes)
    {
        write_file(path(name), bytes);
        return path(name);
    }
    // An ffmpeg tone of the channels (each its own expression, the first
    // one clipping); piped writes through standard output.
    std::string ffmpeg_file(const std::string& name, int channels, int rate, const char* seconds, const char* codec,
                            const std::vector<std::string>& more = {}, bool piped = false)
    {
        static const char* const kExprs[] = {"1.2*sin(2*PI*440*t)", "0.5*sin(2*PI*223*t+1)", "-0.5"};
        std::string exprs = "'" + std::string(kExprs[0]) + "'";
        for (int c = 1; c < channels; ++c)
            exprs += "|'" + std::string(kExprs[c]) + "'";
        std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                         "aevalsrc=exprs=" + exprs + ":s=" + std::to_string(rate) + ":d=" + seconds,
                                         "-c:a", codec};
        argv.insert(argv.end(), more.begin(), more.end());
        argv.insert(argv.end(), fmt().muxer.begin(), fmt().muxer.end());
        argv.push_back(piped ? "pipe:1" : path(name));
        EXPECT_EQ(run_tool(argv, piped ? path(name) : std::string()), 0) << name;
        return path(name);
    }
    std::string sox_file(const std::string& name, const char* type, int rate, int bits, int channels)
    {
        EXPECT_EQ(run_tool({"sox", "-n", "-r", std::to_string(rate), "-b", std::to_string(bits), "-c",
                            std::to_string(channels), "-t", type, path(name), "synth", "0.1", "sine", "300", "sine",
                            "470", "gain", "2"}),
                  0)
            << name;
        return path(name);
    }
    template <typename Edit>
    std::string respliced(const std::string& from, const std::string& name, Edit edit)
    {
        std::string form;
        std::vector<Chunk> chunks;
        EXPECT_TRUE(parse_chunks(fmt(), read_file(from), form, chunks)) << from;
        edit(chunks);
        return put(name, build_chunks(fmt(), form, chunks));
    }
    // Packets of the given sizes over memory that claims bytes but holds
    // none, so that only the sizes can decide.
    ClipPtr claiming_clip(int bytes_each, int frames_each)
    {
        int err = 0;
        ClipPtr clip(fmt().create_empty(2, 44100.0f, 16, &err));
        for (int i = 0; i < 2; ++i) {
            auto* h = new BSHandleMem(bytes_each);
            Packet* p = fmt().make_packet(frames_each, h);
            clip->add_packet(p);
            p->release();
            h->release();
        }
        return clip;
    }

    TempDir work;
};

TEST_P(PcmFormatTest, PeerFilesDecodeExactlyAsFfmpegDecodesThem)
{
    const bool wave = &fmt() == &kWave, aiff = &fmt() == &kAiff, caf = &fmt() == &kCaf;
    // ffmpeg marks WAVE files of 24 bits or more than two channels as
    // extensible, which KEL does not read: the plain tag is set here.
    const auto plain_tag = [](std::vector<Chunk>& c) {
        Bytes& body = c[static_cast<size_t>(find_chunk(c, "fmt "))].body;
        body[0] = 1;
        body[1] = 0;
    };
    const std::string stereo = ffmpeg_file("ff16s", 2, 44100, "0.25", fmt().codec16);
    const std::string mono = ffmpeg_file("ff16m", 1, 8000, "0.3", fmt().codec16, {"-metadata", "title=kel"});
    // AIFF: an "ID3 " chunk after the sound as well.
    std::string three = ffmpeg_file("ff3", 3, 16000, "0.1", fmt().codec16,
                                    aiff ? std::vector<std::string>{"-write_id3v2", "1"} : std::vector<std::string>{});
    if (wave)
        three = respliced(three, "ff3plain", plain_tag);
    std::vector<Peer> peers = {
        {"ffmpeg 16-bit stereo", stereo, stereo, 2, 16, 44100},
        {"ffmpeg 16-bit mono with a title", mono, mono, 1, 16, 8000},
        {"ffmpeg three channels", three, three, 3, 16, 16000},
        {"sox 16-bit stereo", sox_file("sox16", wave ? "wavpcm" : caf ? "caf" : "aiff", 22050, 16, 2), "", 2, 16,
         22050},
        {"extra chunks around the data", respliced(stereo, "spliced", fmt().splice), stereo, 2, 16, 44100},
        {"format chunk last", respliced(mono, "latefmt",
                                        [this](std::vector<Chunk>& c) {
                                            const int at = find_chunk(c, fmt().format_chunk);
                                            const Chunk moved = c[static_cast<size_t>(at)];
                                            c.erase(c.begin() + at);
                                            c.push_back(moved);
                                        }),
         mono, 1, 16, 8000},
    };
    if (fmt().swapped16 != nullptr) {
        const std::string swapped = ffmpeg_file("swapped", 2, 22050, "0.2", fmt().swapped16);
        peers.push_back({"ffmpeg 16-bit stereo in the other order", swapped, swapped, 2, 16, 22050});
    }
    if (fmt().codec24 != nullptr) {
        std::string ff24 = ffmpeg_file("ff24", 2, 48000, "0.1", fmt().codec24);
        if (wave)
            ff24 = respliced(ff24, "ff24plain", plain_tag);
        peers.push_back({"ffmpeg 24-bit stereo", ff24, ff24, 2, 24, 48000});
        peers.push_back({"sox 24-bit mono, odd data length", sox_file("sox24", wave ? "wavpcm" : "aifc", 22050, 24, 1),
                         "", 1, 24, 22050});
    }
    if (aiff) {
        const std::string twos = ffmpeg_file("twos", 1, 16000, "0.15", "pcm_s16be", {"-tag:a", "twos"});
        const std::string in24 = ffmpeg_file("in24", 2, 8000, "0.3", "pcm_s24be", {"-tag:a", "in24"});
        peers.push_back({"AIFF-C twos", twos, twos, 1, 16, 16000});
        peers.push_back({"AIFF-C in24", in24, in24, 2, 24, 8000});
    }
    if (caf) {
        const std::string piped = ffmpeg_file("piped", 2, 22050, "0.2", fmt().codec16, {}, true);
        peers.push_back({"ffmpeg piped, data of unknown size", piped, piped, 2, 16, 22050});
    }

    for (Peer& src : peers) {
        SCOPED_TRACE(src.what);
        if (src.oracle.empty())
            src.oracle = src.file;
        Decoded want;
        ASSERT_TRUE(ffmpeg_decode(src.oracle, want));
        ASSERT_EQ(want.channels, src.channels);
        const long long frames = static_cast<long long>(want.frames()), packets = (frames + 1023) / 1024;
        int err = -1;
        ClipPtr clip = open_clip(src.file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        ASSERT_EQ(clip->packet_count, packets);
        for (int i = 0; i < clip->packet_count; ++i) {
            EXPECT_EQ(clip->packet_frame_count(i, nullptr), 1024);
            EXPECT_EQ(clip->get_packet(i)->type(), fmt().packet_type);
        }
        EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames - (packets - 1) * 1024);

        // Every frame as ffmpeg decodes it, then silence to the packet's end.
        Samples expected = split(want);
        expected.left.resize(static_cast<size_t>(packets) * 1024, 0.0f);
        expected.right.resize(expected.left.size(), 0.0f);
        const Samples got = decode_clip(*clip);
        EXPECT_TRUE(same_bits(got.left, expected.left));
        EXPECT_TRUE(same_bits(got.right, expected.right));

        // The clip's figures and the file's, read from the headers alone.
        _kel_clip_info_t info{}, file{};
        clip->get_info(&info);
        EXPECT_EQ(Clip::file_info(src.file.c_str(), &file, nullptr), 0);
        for (const _kel_clip_info_t& i : {info, file}) {
            EXPECT_EQ(i.format, fmt().format);
            EXPECT_EQ(i.channels, src.channels);
            EXPECT_EQ(i.bits_per_sample, src.bits);
            EXPECT_EQ(i.sample_rate, static_cast<float>(src.rate));
            EXPECT_EQ(i.rate_mode, 0);
        }
        EXPECT_NEAR(file.duration, static_cast<double>(frames) / src.rate, 1e-6);
        EXPECT_NEAR(file.bit_rate, src.rate * src.channels * src.bits, 2);
    }

    // What ffmpeg writes but KEL does not read: the code survives the
    // dispatch, and the file information finds it in the headers.
    for (const std::string& codec : fmt().refused) {
        const std::string file = ffmpeg_file("refused", 1, 8000, "0.05", codec.c_str());
        int err = 0;
        EXPECT_FALSE(open_clip(file, err)) << codec;
        EXPECT_EQ(err, fourcc("Efms")) << codec;
        EXPECT_EQ(Clip::file_info(file.c_str(), nullptr, nullptr), fourcc("Efms")) << codec;
    }
}

TEST_P(PcmFormatTest, SavedFilesSatisfyFfprobeAndDecodeAsPredicted)
{
    std::vector<std::pair<std::string, int>> sources = {{ffmpeg_file("ff16", 2, 44100, "0.25", fmt().codec16), 16}};
    if (fmt().swapped16 != nullptr)
        sources.push_back({ffmpeg_file("swapped", 2, 22050, "0.2", fmt().swapped16), 16});
    if (fmt().codec24 != nullptr)
        sources.push_back({sox_file("sox24", &fmt() == &kWave ? "wavpcm" : "aifc", 22050, 24, 1), 24});
    // The caller's extra block: whole chunks, handed over formed.
    ByteWriter chunk;
    chunk.tag("free");
    fmt().size_bytes == 8 ? chunk.be64(4) : fmt().big_sizes ? chunk.be32(4) : chunk.le32(4);
    const Bytes extra = chunk.raw({1, 2, 3, 4}).bytes;

    for (const auto& [source, bits] : sources) {
        for (bool changed : {false, true}) {
            SCOPED_TRACE(source + (changed ? " with gains, envelopes and extra" : " plain"));
            Decoded original;
            ASSERT_TRUE(ffmpeg_decode(source, original));
            int err = 0;
            ClipPtr clip = open_clip(source, err);
            ASSERT_TRUE(clip);
            ASSERT_GE(clip->packet_count, 3);
            const GainPlan plan = changed ? apply_plan(*clip, {{0, 1.9f}, {1, 0.5f}, {-1, 0.3f}}, {1, -1})
                                          : apply_plan(*clip, {}, {});
            const std::vector<int32_t> want = predict(integers(original, bits), original.channels, bits, plan);

            const std::string out = path("saved");
            const Bytes block = changed ? extra : Bytes();
            err = -1;
            clip->save_to(out.c_str(), changed ? block.data() : nullptr, static_cast<int>(block.size()), nullptr, 0,
                          &err, nullptr);
            ASSERT_EQ(err, 0);

            // The canonical header, the samples, and the extra block right
            // after them (no pad byte after odd data).
            const Bytes file = read_file(out);
            const Bytes header = fmt().header(original.channels, bits, static_cast<int>(clip->sample_rate),
                                              static_cast<uint32_t>(original.frames()),
                                              static_cast<uint32_t>(block.size()));
            ASSERT_EQ(file.size(), header.size() + want.size() * static_cast<size_t>(bits / 8) + block.size());
            EXPECT_EQ(Bytes(file.begin(), file.begin() + static_cast<long>(header.size())), header);
            EXPECT_TRUE(std::equal(block.begin(), block.end(), file.end() - static_cast<long>(block.size())));

            Probe probe;
            ASSERT_TRUE(ffprobe(out, probe));
            EXPECT_EQ(probe.codec, bits == 16 ? fmt().saved16 : fmt().saved24);
            EXPECT_EQ(probe.channels, original.channels);
            // ffprobe estimates a CAF's length from the file size when the
            // data is not the last chunk; the decode counts exactly.
            if (block.empty() || fmt().size_bytes != 8) {
                EXPECT_EQ(probe.frames, static_cast<long long>(original.frames()));
            }
            Decoded saved;
            ASSERT_TRUE(ffmpeg_decode(out, saved));
            EXPECT_EQ(integers(saved, bits), want);

            // Reopened: the same packets, decoding as ffmpeg decodes the file.
            ClipPtr again = open_clip(out, err);
            ASSERT_TRUE(again);
            ASSERT_EQ(again->packet_count, clip->packet_count);
            for (int i = 0; i < clip->packet_count; ++i)
                EXPECT_EQ(again->get_packet(i)->disk_frame_count(), clip->get_packet(i)->disk_frame_count());
            const Samples decoded = decode_clip(*again), expected = split(saved);
            EXPECT_TRUE(same_bits(decoded.left, expected.left));
            EXPECT_TRUE(same_bits(decoded.right, expected.right));
        }
    }
}

// get_bytes applies the gain to the stored integers and hands them out in
// the format's one order; decoding scales the integers by the gain (an
// explicit one replaces the packet's own) and the floats by the envelope.
TEST_P(PcmFormatTest, PacketsApplyGainToIntegersAndEnvelopeToFloats)
{
    const std::string file =
        ffmpeg_file("m", 1, 8000, "0.2", fmt().swapped16 != nullptr ? fmt().swapped16 : fmt().codec16);
    Decoded decoded;
    ASSERT_TRUE(ffmpeg_decode(file, decoded));
    const std::vector<int32_t> ints = integers(decoded, 16);
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    ASSERT_TRUE(clip);
    Packet* p = clip->get_packet(0);
    const bool big = fmt().hands_out_big;
    const auto word = [big](const Bytes& b, size_t k) {
        return static_cast<int16_t>(big ? b[2 * k] << 8 | b[2 * k + 1] : b[2 * k + 1] << 8 | b[2 * k]);
    };
    for (float gain : {1.0f, 0.5f, 3.0f}) {
        Bytes bytes(2048);
        ASSERT_EQ(p->get_bytes(bytes.data(), gain), 2048);
        for (size_t k = 0; k < 1024; ++k)
            ASSERT_EQ(word(bytes, k), scaled(ints[k], 16, gain)) << "gain " << gain << " sample " << k;
    }

    p->gain = 1.5f;
    std::vector<float> env(1024);
    for (size_t k = 0; k < env.size(); ++k)
        env[k] = static_cast<float>(k % 7) / 6.0f;
    p->gain_envelope(env.data(), 1024);
    Bytes enveloped(2048);
    ASSERT_EQ(p->get_bytes_with_gain_and_envelope(enveloped.data()), 2048);
    for (size_t k = 0; k < 1024; ++k)
        ASSERT_EQ(word(enveloped, k), scaled(ints[k], 16, 1.5f, &env[k])) << k;

    Packet* twin = p->copy();
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin->handle, p->handle);
    EXPECT_EQ(fmt().little(twin), fmt().little(p));
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
    }
    // The copy keeps its own gain.
    twin->gain = 0.0f;
    EXPECT_EQ(p->gain, 1.5f);
    twin->release();
    for (int index : {clip->packet_count, -1}) {
        err = 0;
        EXPECT_EQ(clip->packet_decode_play(index, out, &err, -1.0f), 0);
        EXPECT_EQ(err, fourcc("EPnm"));
    }
}

TEST_P(PcmFormatTest, ClipParametersCompatibilityDecoderAndOverview)
{
    int err = 0;
    std::vector<std::tuple<int, float, int>> refused = {
        {3, 44100.0f, 16}, {0, 44100.0f, 16}, {2, -1.0f, 16}, {2, 44100.0f, 8}, {1, 8000.0f, 32}};
    if (fmt().widths.size() == 1)
        refused.push_back({2, 44100.0f, 24});
    for (auto [channels, rate, bits] : refused) {
        err = 0;
        EXPECT_EQ(fmt().create_empty(channels, rate, bits, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
        err = 0;
        EXPECT_EQ(kel_clip_create(fmt().format, channels, rate, bits, 0, 0, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
    }

    // Made clips have 1024-frame packets whatever the setting says; the
    // entry point makes the format asked for.
    kel_set_raw_packet_size(512);
    ClipPtr made(kel_clip_create(fmt().format, 2, 44100.0f, 16, 0, 0, &err));
    ASSERT_TRUE(made);
    EXPECT_EQ(fmt().packet_frames(made.get()), 1024);
    EXPECT_EQ(made->packet_count, 0);
    EXPECT_EQ(made->backing_file, nullptr);
    _kel_clip_info_t info{};
    made->get_info(&info);
    EXPECT_EQ(info.format, fmt().format);

    ClipPtr same(fmt().create_empty(2, 44100.0f, 16, &err));
    EXPECT_TRUE(made->will_accept(same.get(), &err));
    EXPECT_EQ(err, 0);
    std::vector<std::tuple<int, float, int>> others = {{1, 44100.0f, 16}, {2, 48000.0f, 16}};
    if (fmt().widths.size() > 1)
        others.push_back({2, 44100.0f, 24});
    for (auto [channels, rate, bits] : others) {
        ClipPtr other(fmt().create_empty(channels, rate, bits, &err));
        EXPECT_FALSE(made->will_accept(other.get(), &err));
        EXPECT_EQ(err, fourcc("Ecld"));
    }
    const int foreign = fmt().format == KEL_FORMAT_WAVE ? KEL_FORMAT_AIFF : KEL_FORMAT_WAVE;
    ClipPtr other_format(kel_clip_create(foreign, 2, 44100.0f, 16, 0, 0, &err));
    EXPECT_FALSE(made->will_accept(other_format.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));
    EXPECT_FALSE(other_format->will_accept(made.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));

    // Opened under the 512-frame setting: 2400 frames in four packets of
    // 512 and one holding 352, which a clip of 1024-frame packets refuses.
    const std::string file = ffmpeg_file("s", 2, 24000, "0.1", fmt().codec16);
    ClipPtr opened = open_clip(file, err);
    ASSERT_TRUE(opened);
    kel_set_raw_packet_size(0);
    EXPECT_EQ(fmt().packet_frames(opened.get()), 512);
    ASSERT_EQ(opened->packet_count, 5);
    EXPECT_EQ(opened->packet_frame_count(4, nullptr), 512);
    EXPECT_EQ(opened->get_packet(4)->disk_frame_count(), 352);
    ClipPtr same_rate(fmt().create_empty(2, 24000.0f, 16, &err));
    EXPECT_FALSE(opened->will_accept(same_rate.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));

    // Every packet carries bytes * rate * 8 / frames; the duration counts
    // whole packets.
    opened->get_info(&info);
    EXPECT_EQ(info.bit_rate, 24000 * 2 * 16);
    EXPECT_FLOAT_EQ(info.duration, 5 * 512 / 24000.0f);
    EXPECT_EQ(info.rate_mode, 0);
    std::unique_ptr<Clip> fresh(opened->NewClip(nullptr));
    ASSERT_TRUE(opened->will_accept(fresh.get(), &err));
    EXPECT_EQ(fmt().packet_frames(fresh.get()), 512);
    EXPECT_EQ(fresh->packet_count, 0);

    // The encoder takes its packet length from the first packet, and its
    // bit rate counts frames, channels, rate and 8 whatever the width.
    std::unique_ptr<ClipEncoder> from_opened(opened->create_encoder(24000.0f));
    EXPECT_EQ(fmt().encoder_frames(from_opened.get()), 512);
    std::unique_ptr<ClipEncoder> from_made(made->create_encoder(44100.0f));
    EXPECT_EQ(fmt().encoder_frames(from_made.get()), 1024);
    EXPECT_EQ(fmt().encoder_bit_rate(from_made.get()), 1024 * 2 * 44100 * 8);

    // The decoder and the overview decode through the clip.
    const Samples all = decode_clip(*opened);
    std::unique_ptr<ClipDecoder> decoder(opened->create_decoder());
    std::vector<float> l(512), r(512);
    float* out[2] = {l.data(), r.data()};
    ASSERT_EQ(decoder->packet_decode(2, out, &err, -1.0f), 512);
    EXPECT_TRUE(same_bits(r, std::vector<float>(all.right.begin() + 1024, all.right.begin() + 1536)));
    std::unique_ptr<Overview> overview(opened->create_overview(nullptr));
    EXPECT_EQ(overview->find_max_sample(0, opened->packet_count - 1, err), largest(all));
    EXPECT_EQ(err, 0);
}

// A 24-bit stereo WAVE in packets of 441 frames transcoded into every
// width of the format: 16 bits truncate each sample, 24 bits keep it; the
// result has whole packets of 1024, the last padded with silence, and goes
// back into WAVE unchanged. Nothing is left in the temporary folder.
TEST_P(PcmFormatTest, TranscodesIntoEveryWidthAndRate)
{
    const std::string source_file = work.path("src.wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "44100", "-b", "24", "-c", "2", "-t", "wavpcm", source_file, "synth",
                        "0.1", "sine", "440", "sine", "97", "gain", "3"}),
              0);
    const int descriptors = open_descriptors();
    {
        PrivateTmpdir tmp;
        int err = 0;
        kel_set_raw_packet_size(441);
        ClipPtr source = open_clip(source_file, err);
        kel_set_raw_packet_size(0);
        ASSERT_TRUE(source);
        const Samples from = decode_clip(*source);
        ASSERT_EQ(from.left.size(), 4410u);
        for (int bits : fmt().widths) {
            SCOPED_TRACE(bits);
            Samples want = from;
            if (bits == 16) {
                for (auto* lane : {&want.left, &want.right})
                    for (float& x : *lane)
                        x = to16(x) / 32768.0f;
            }
            want.left.resize(5 * 1024, 0.0f);
            want.right.resize(5 * 1024, 0.0f);
            ClipPtr target(fmt().create_empty(2, 44100.0f, bits, &err));
            ClipPtr result(target->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
            ASSERT_EQ(err, 0);
            ASSERT_TRUE(result);
            EXPECT_TRUE(target->will_accept(result.get(), &err));
            ASSERT_EQ(result->packet_count, 5);
            EXPECT_EQ(result->bits_per_sample, bits);
            const Samples got = decode_clip(*result);
            EXPECT_TRUE(same_bits(got.left, want.left));
            EXPECT_TRUE(same_bits(got.right, want.right));

            const std::string saved = path("transcoded");
            result->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
            ASSERT_EQ(err, 0);
            Decoded theirs;
            ASSERT_TRUE(ffmpeg_decode(saved, theirs));
            EXPECT_TRUE(same_bits(split(theirs).left, want.left));

            ClipPtr back_target(ClipWAVE::create_empty(2, 44100.0f, 24, &err));
            ClipPtr back(back_target->transcode(result.get(), 0, result->packet_count - 1, &err, nullptr));
            ASSERT_EQ(err, 0);
            EXPECT_TRUE(same_bits(decode_clip(*back).right, want.right));
        }

        // To mono at half the rate: the left channel, every other frame,
        // within the 16-bit step and the interpolation's error.
        ClipPtr narrow(fmt().create_empty(1, 22050.0f, 16, &err));
        ClipPtr half(narrow->transcode(source.get(), 0, source->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(half);
        EXPECT_EQ(half->channels, 1);
        EXPECT_NEAR(half->duration, 4410 / 44100.0, 1024.0 / 22050.0);
        const Samples down = decode_clip(*half);
        EXPECT_TRUE(same_bits(down.right, down.left));
        double best = 1e9;
        for (long shift = -3; shift <= 3; ++shift) {
            double worst = 0.0;
            for (size_t k = 8; k < 2200; ++k)
                worst = std::max(worst, std::fabs(static_cast<double>(down.left[k]) -
                                                  from.left[static_cast<size_t>(static_cast<long>(2 * k) + shift)]));
            best = std::min(best, worst);
        }
        EXPECT_LT(best, 2e-3);

        source.reset();
        EXPECT_TRUE(tmp.dir().entries().empty());
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(PcmFormatTest, EachHeaderFaultHasItsCode)
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
        EXPECT_EQ(Clip::file_info(file.c_str(), nullptr, nullptr), f.in_headers ? f.code : 0);
    }
    EXPECT_EQ(fmt().detect(put("short", Bytes(fmt().canonical.begin(), fmt().canonical.begin() + 7)).c_str()), efmu);
    EXPECT_EQ(fmt().detect(path("missing").c_str()), fourcc("Efor"));
    EXPECT_EQ(Clip::file_info(path("missing").c_str(), nullptr, nullptr), fourcc("Efor"));
    EXPECT_EQ(fmt().detect(put("ok", fmt().canonical).c_str()), 0);
}

TEST_P(PcmFormatTest, UnusualButValidLayoutsOpen)
{
    for (const Layout& g : fmt().layouts) {
        SCOPED_TRACE(g.what);
        const std::string file = put("good", g.file);
        FILE* in = std::fopen(file.c_str(), "r");
        ASSERT_NE(in, nullptr);
        long long length = -1, offset = -1;
        EXPECT_EQ(fmt().scan(in, nullptr, nullptr), 0); // every out-pointer may be null
        EXPECT_EQ(fmt().scan(in, &length, &offset), 0);
        std::fclose(in);
        if (g.offset >= 0) {
            EXPECT_EQ(offset, g.offset);
        }
        if (g.length >= 0) {
            EXPECT_EQ(length, g.length);
        }

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

TEST_P(PcmFormatTest, PartialLastPacketReportsAFullPacketAndDecodesSilence)
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
    EXPECT_FLOAT_EQ(clip->duration, 3072.0f / 44100.0f);
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

TEST_P(PcmFormatTest, SizeLimits)
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

TEST_P(PcmFormatTest, LoadReportsProgressAndCanBeCancelled)
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

TEST_P(PcmFormatTest, SavingWritesTheHeaderLastAndFailuresLeaveNoFile)
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

TEST_P(PcmFormatTest, DamagedFilesEndInAClipOrACode)
{
    size_t header_bytes = 0;
    const Bytes valid = fmt().damage_base(header_bytes);
    expect_damage_handled(valid, header_bytes, path("damaged"), 20240611u + static_cast<unsigned>(fmt().format));
}

INSTANTIATE_TEST_SUITE_P(Formats, PcmFormatTest, ::testing::Values(&kWave, &kAiff, &kCaf),
                         [](const ::testing::TestParamInfo<const PcmFormat*>& info) { return info.param->name; });

} // namespace
