// WAVE, AIFF and CAF clips against the peer tools, one suite run over each
// format: files written by ffmpeg and sox must open and decode to exactly
// the samples ffmpeg decodes; saved files must satisfy ffprobe and decode to
// the samples the gain rules predict; gains, parameters and transcodes.
#include "pcmformats.h"

#include "api/formatdispatch.h"
#include "core/clipdecoder.h"
#include "core/fourcc.h"
#include "overview/overview.h"
#include "pcm/clipwave.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

struct Peer {
    std::string what, file, oracle;
    int channels, bits, rate;
};

float largest(const Samples& s)
{
    float m = 0.0f;
    for (size_t i = 0; i < s.left.size(); ++i)
        m = std::max({m, std::fabs(s.left[i]), std::fabs(s.right[i])});
    return m;
}

class PcmPeerTest : public PcmFormatTest {};

TEST_P(PcmPeerTest, PeerFilesDecodeExactlyAsFfmpegDecodesThem)
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
        EXPECT_EQ(FormatDispatch::standard().file_info(src.file.c_str(), &file, nullptr), 0);
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
        EXPECT_EQ(FormatDispatch::standard().file_info(file.c_str(), nullptr, nullptr), fourcc("Efms")) << codec;
    }
}

TEST_P(PcmPeerTest, SavedFilesSatisfyFfprobeAndDecodeAsPredicted)
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
TEST_P(PcmPeerTest, PacketsApplyGainToIntegersAndEnvelopeToFloats)
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

TEST_P(PcmPeerTest, ClipParametersCompatibilityDecoderAndOverview)
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
    // A new clip of the same kind takes the opened clip's packets; the
    // encoder takes its packet length from the target's first packet.
    ClipPtr fresh(opened->NewClip(nullptr));
    ASSERT_TRUE(opened->will_accept(fresh.get(), &err));
    EXPECT_EQ(fresh->packet_count, 0);
    ClipPtr again(opened->transcode(opened.get(), 0, 4, &err, nullptr));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->packet_frame_count(0, nullptr), 512);

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
TEST_P(PcmPeerTest, TranscodesIntoEveryWidthAndRate)
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
            // The encoder's bit rate counts frames, channels, rate and 8,
            // whatever the width.
            EXPECT_EQ(result->get_packet(0)->bit_rate, 1024 * 2 * 44100 * 8);
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
        EXPECT_NEAR(half->duration(), 4410 / 44100.0, 1024.0 / 22050.0);
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

INSTANTIATE_TEST_SUITE_P(Formats, PcmPeerTest, ::testing::Values(&kWave, &kAiff, &kCaf),
                         [](const ::testing::TestParamInfo<const PcmFormat*>& info) { return info.param->name; });

} // namespace
