// MP3 clips against peer tools: streams made by lame are opened and their
// packets compared with ffprobe's, decoded and compared with ffmpeg's decode
// of the same frames; damaged and foreign files give a clip or a code.
// (Gained frames are compared with mp3gain's in the frame and save tests.)
#include "mp3fixtures.h"

#include "api/formatdispatch.h"
#include "core/bshandlefile.h"
#include "core/clipdecoder.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "mp3/clipmp3.h"
#include "overview/overview.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace KEL;
using namespace KEL::test;

namespace {

// An ID3v2.3 tag of total bytes: one title frame, then zero padding.
Bytes id3_tag(size_t total)
{
    const size_t body = total - 10;
    ByteWriter w;
    w.raw({'I', 'D', '3', 3, 0, 0}); // version 2.3, no flags; the size in four 7-bit groups
    for (int shift : {21, 14, 7, 0})
        w.raw({static_cast<unsigned char>((body >> shift) & 0x7F)});
    w.tag("TIT2").be32(5).be16(0).raw({0}).tag("KEL!");
    return w.zeros(total - w.bytes.size()).bytes;
}

std::string put(const std::string& name, const Bytes& bytes)
{
    write_file(scratch().path(name), bytes);
    return scratch().path(name);
}

ClipMP3* as_mp3(const ClipPtr& clip)
{
    return dynamic_cast<ClipMP3*>(clip.get());
}

long long offset_of(Clip& clip, int index)
{
    return static_cast<BSHandleFile*>(clip.get_packet(index)->handle)->offset;
}

TEST(ClipMP3Streams, PacketsInfoAndDecodingMatchThePeerTools)
{
    std::vector<LameStream> all = lame_streams();
    // The 128 kbit/s stream again behind a hand-made tag of 4096 bytes.
    all.push_back(all[0]);
    all.back().name = "tag4096";
    const std::string tagged = put("tag4096.mp3", concat(id3_tag(4096), read_file(stream_file(all[0]))));

    for (const LameStream& v : all) {
        SCOPED_TRACE(v.name);
        const std::string path = all.back().name == v.name ? tagged : stream_file(v);
        EXPECT_EQ(ClipMP3::detect(path.c_str()), 0);
        int err = -1;
        ClipPtr clip = open_clip(path, err);
        ASSERT_EQ(err, 0);
        ASSERT_NE(as_mp3(clip), nullptr);

        // Packet for packet what ffprobe demuxes: information frames and
        // tags are never packets.
        const std::vector<ProbePacket> probed = probe_packets(path);
        ASSERT_EQ(static_cast<size_t>(clip->packet_count), probed.size());
        for (int i = 0; i < clip->packet_count; ++i) {
            ASSERT_EQ(offset_of(*clip, i), probed[static_cast<size_t>(i)].pos) << i;
            ASSERT_EQ(clip->get_packet(i)->handle->size, probed[static_cast<size_t>(i)].size) << i;
            ASSERT_EQ(clip->packet_frame_count(i, nullptr), v.frames);
            ASSERT_EQ(static_cast<int>(clip->get_packet(i)->type()), 2 + v.mpeg_version);
        }

        _kel_clip_info_t info{};
        clip->get_info(&info);
        EXPECT_EQ(info.format, KEL_FORMAT_MP3);
        EXPECT_EQ(info.channels, v.channels);
        EXPECT_EQ(info.sample_rate, static_cast<float>(v.rate));
        EXPECT_EQ(info.bits_per_sample, 16);
        EXPECT_EQ(info.mpeg_version, v.mpeg_version);
        EXPECT_EQ(info.stereo_mode, v.stereo_mode);
        EXPECT_EQ(info.rate_mode, v.rate_mode);
        EXPECT_FLOAT_EQ(info.duration, static_cast<float>(clip->packet_count * v.frames) / v.rate);
        EXPECT_EQ(as_mp3(clip)->frames_per_packet(), v.frames);

        // Same decoder, same frames, no trimming: exact.
        const Samples ours = decode_clip(*clip), ref = ffmpeg_mp3_frames(path);
        ASSERT_EQ(ours.left.size(), ref.left.size());
        EXPECT_TRUE(same_bits(ours.left, ref.left));
        EXPECT_TRUE(same_bits(ours.right, ref.right));
    }
}

// Playback, a transcoding decoder and an overview, interleaved, each with
// its own codec: packet 5, then 20, each equal to sequential decoding.
TEST(ClipMP3Streams, RandomAccessAfterWarmUpEqualsSequentialDecoding)
{
    for (const char* name : {"vbr", "mpeg25"}) {
        SCOPED_TRACE(name);
        const LameStream& v = lame_stream(name);
        int err = 0;
        ClipPtr clip = open_clip(stream_file(v), err);
        ASSERT_NE(clip, nullptr);
        const Samples seq = decode_clip(*clip);
        const size_t n = static_cast<size_t>(v.frames);
        ClipPtr fresh = open_clip(stream_file(v), err);
        std::unique_ptr<ClipDecoder> decoder(fresh->create_decoder());
        std::unique_ptr<Overview> overview(fresh->create_overview(nullptr));
        ASSERT_TRUE(decoder && overview);
        std::vector<float> l(n), r(n);
        float* out[2] = {l.data(), r.data()};
        for (int index : {5, 20}) {
            const std::vector<float> want(seq.left.begin() + index * n, seq.left.begin() + (index + 1) * n);
            for (int owner = 0; owner < 3; ++owner) {
                const int frames = owner == 0   ? fresh->packet_decode_play(index, out, &err, -1.0f)
                                   : owner == 1 ? decoder->packet_decode(index, out, &err, -1.0f)
                                                : overview->packet_decode(index, out, &err, 1.0f);
                ASSERT_EQ(frames, v.frames);
                ASSERT_EQ(err, 0);
                EXPECT_TRUE(same_bits(l, want)) << "owner " << owner << " packet " << index;
            }
        }
    }
}

// A stereo stream with one frame re-headered as single channel (same
// length): the scan skips it, and the next frame's bit reservoir then lies
// in bytes the clip does not hold. That frame and those after it must
// decode as a fresh decoder decodes them from there, not from the main data
// of the frames before the gap (which gives noise beyond full scale).
TEST(ClipMP3Streams, ReservoirInSkippedFramesDecodesAsAFreshDecoder)
{
    const Bytes source = read_file(stream_file(lame_stream("cbr128")));
    const FrameWalk walk = walk_frames(source);
    size_t k = 20;
    while (k + 1 < walk.frames.size() && parse_side_info(frame_bytes(source, walk.frames[k + 1])).main_data_begin == 0)
        ++k;
    ASSERT_LT(k + 1, walk.frames.size());
    Bytes damaged = source;
    damaged[walk.frames[k].offset + 3] |= 0xC0; // channel mode 11: single channel
    const std::string path = put("mono-frame-in-stereo.mp3", damaged);
    Bytes rest;
    for (size_t i = k + 1; i < walk.frames.size(); ++i)
        rest = concat(rest, frame_bytes(source, walk.frames[i]));
    const Samples fresh = ffmpeg_mp3_frames(put("after-the-gap.mp3", rest));
    const Samples whole = ffmpeg_mp3_frames(stream_file(lame_stream("cbr128")));

    int err = 0;
    ClipPtr clip = open_clip(path, err);
    ASSERT_NE(clip, nullptr);
    ASSERT_EQ(static_cast<size_t>(clip->packet_count), walk.frames.size() - 1);
    const Samples ours = decode_clip(*clip);
    const auto lanes = [](const Samples& s, size_t from, size_t n) {
        return std::vector<float>(s.left.begin() + static_cast<long>(from), s.left.begin() + static_cast<long>(from + n));
    };
    const size_t before = k * 1152, after = 6 * 1152;
    EXPECT_TRUE(same_bits(lanes(ours, 0, before), lanes(whole, 0, before)));
    // The codec is reset in place rather than made anew, which keeps its
    // synthesis window's position: sums may round differently, by up to
    // about 1e-4 seen. Noise from foreign main data is off by 0.1 and more.
    const std::vector<float> got = lanes(ours, before, after), want = lanes(fresh, 0, after);
    for (size_t i = 0; i < after; ++i)
        ASSERT_NEAR(got[i], want[i], 2e-3) << "frame " << k + i / 1152 << " sample " << i % 1152;
    float peak = 0.0f;
    for (float v : ours.left)
        peak = std::max(peak, std::fabs(v));
    EXPECT_LE(peak, 1.0f);
}

TEST(ClipMP3Streams, FileInfoScansEveryFrameFromTheFileStart)
{
    for (const char* name : {"cbr128", "vbr", "noxing"}) {
        SCOPED_TRACE(name);
        const LameStream& v = lame_stream(name);
        const std::string path = stream_file(v);
        // Every frame from byte 0, the information frame included.
        const std::vector<ProbePacket> probed = probe_packets(path);
        const long long info_frame = probed[0].pos;
        const long long frames = static_cast<long long>(probed.size()) + (info_frame > 0 ? 1 : 0);
        long long bytes = info_frame;
        for (const ProbePacket& p : probed)
            bytes += p.size;
        _kel_clip_info_t info{};
        ASSERT_EQ(ClipMP3::get_file_info(path.c_str(), &info, nullptr), 0);
        EXPECT_EQ(info.format, KEL_FORMAT_MP3);
        EXPECT_EQ(info.mpeg_version, 1);
        EXPECT_EQ(info.rate_mode, v.rate_mode);
        const double duration = static_cast<double>(frames * 1152) / 44100.0;
        EXPECT_FLOAT_EQ(info.duration, static_cast<float>(duration));
        if (v.rate_mode == 1) {
            EXPECT_EQ(info.bit_rate, std::atoi(v.options[1].c_str()) * 1000);
        } else {
            EXPECT_NEAR(info.bit_rate, static_cast<double>(bytes) * 8.0 / duration, 1.0);
        }
        EXPECT_EQ(FormatDispatch::standard().file_info(path.c_str(), nullptr, nullptr), 0);
    }
}

TEST(ClipMP3Gain, QuantizedGainIsTheScaleDecodingApplies)
{
    int err = 0;
    ClipPtr clip = open_clip(stream_file(lame_stream("cbr128")), err);
    ASSERT_NE(clip, nullptr);
    const Samples unity = decode_clip(*clip, 1.0f);
    // 1.2 is one step of 2^(1/4) up; 0.5 lies on -4 steps but goes to -3.
    for (const auto& [gain, steps] : {std::pair<float, int>{1.2f, 1}, {0.5f, -3}}) {
        for (int i = 0; i < clip->packet_count; ++i)
            clip->get_packet(i)->gain = gain;
        const float q = clip->get_packet(0)->quantized_gain();
        EXPECT_NEAR(q, std::pow(2.0, steps / 4.0), 1e-6);
        const Samples scaled = decode_clip(*clip);
        for (size_t i = 0; i < unity.left.size(); ++i)
            ASSERT_NEAR(scaled.left[i], unity.left[i] * q, 2e-5) << gain << " at " << i;
    }
    // A copy shares the frame and carries gain and envelope.
    Packet* p = clip->get_packet(1);
    std::vector<float> env(1152, 0.5f);
    p->gain_envelope(env.data(), 1152);
    Packet* twin = p->copy();
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin->handle, p->handle);
    EXPECT_EQ(twin->type(), p->type());
    EXPECT_EQ(twin->gain, 0.5f);
    int frames = 0;
    ASSERT_NE(twin->gain_envelope(frames), nullptr);
    EXPECT_EQ(twin->gain_envelope(frames)[100], 0.5f);
    twin->release();
}

TEST(ClipMP3Open, DamagedAndForeignFilesGiveAClipOrACode)
{
    const std::string path = stream_file(lame_stream("cbr128"));
    const Bytes file = read_file(path);
    const std::vector<ProbePacket> probed = probe_packets(path);
    int err = 0;

    // Cut at either end: exactly the frames wholly inside what is left.
    for (const bool head : {true, false}) {
        const long long begin = head ? 2048 : 0, end = static_cast<long long>(file.size()) - (head ? 0 : 2048);
        ClipPtr clip = open_clip(put("cut.mp3", Bytes(file.begin() + begin, file.begin() + end)), err);
        ASSERT_NE(clip, nullptr);
        std::vector<long long> kept;
        for (const ProbePacket& p : probed)
            if (p.pos >= begin && p.pos + p.size <= end)
                kept.push_back(p.pos - begin);
        ASSERT_EQ(static_cast<size_t>(clip->packet_count), kept.size());
        EXPECT_EQ(offset_of(*clip, 0), kept[0]);
        EXPECT_EQ(decode_clip(*clip).left.size(), kept.size() * 1152);
    }

    // Zeros ahead of the frames: beyond what an unsure search accepts,
    // but fine behind a tag, which makes it confident.
    const Bytes plain = read_file(stream_file(lame_stream("noxing")));
    const Bytes zeros(20000, 0);
    const std::string zeroed = put("zeros.mp3", concat(zeros, plain));
    ClipPtr clip = open_clip(zeroed, err);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(ClipMP3::detect(zeroed.c_str()), fourcc("Efmu"));
    clip = open_clip(put("tagzeros.mp3", concat(id3_tag(64), concat(zeros, plain))), err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(static_cast<size_t>(clip->packet_count), probe_packets(stream_file(lame_stream("noxing"))).size());

    // Two Layer II frames agree with each other but are not taken.
    const std::string mp2 = scratch().path("layer2.mp2");
    ASSERT_EQ(run_tool({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "sine=f=440:d=0.5", "-c:a", "mp2",
                        "-b:a", "128k", "-f", "mp2", mp2}),
              0);
    const std::vector<ProbePacket> layer2 = probe_packets(mp2);
    ASSERT_GE(layer2.size(), 2u);
    const Bytes mp2_bytes = read_file(mp2);
    clip = open_clip(put("two.mp2", Bytes(mp2_bytes.begin(), mp2_bytes.begin() + layer2[1].pos + layer2[1].size)), err);
    EXPECT_EQ(err, fourcc("Efms"));

    // Neighbours of another sample rate: the search starts again one byte
    // after the first of them, twelve times at most.
    auto frame = [](unsigned char rate_byte, size_t length) {
        Bytes f(length, 0);
        f[0] = 0xFF, f[1] = 0xFB, f[2] = rate_byte, f[3] = 0x44; // MPEG-1 Layer III, 128 kbit/s
        return f;
    };
    const Bytes at44 = frame(0x90, 417), at48 = frame(0x94, 384);
    Bytes alternating;
    for (int k = 0; k < 6; ++k)
        alternating = concat(alternating, concat(at44, at48));
    clip = open_clip(put("twelve.mp3", concat(alternating, concat(at44, at44))), err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->packet_count, 2);
    clip = open_clip(put("thirteen.mp3", concat(alternating, concat(at44, concat(at48, at48)))), err);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(ClipMP3::detect(scratch().path("missing.mp3").c_str()), fourcc("Efor"));

    // Flipped header bits: whatever opens decodes without harm.
    for (unsigned seed = 1; seed <= 12; ++seed) {
        std::mt19937 flips(seed);
        Bytes bad = file;
        for (int k = 0; k < 10; ++k) {
            const ProbePacket& f = probed[flips() % probed.size()];
            bad[static_cast<size_t>(f.pos) + flips() % 4] ^= static_cast<unsigned char>(1u << (flips() % 8));
        }
        clip = open_clip(put("flipped.mp3", bad), err);
        EXPECT_TRUE(clip != nullptr || err != 0) << seed;
        std::vector<float> l(1152), r(1152);
        float* out[2] = {l.data(), r.data()};
        for (int i = 0; clip && i < clip->packet_count; ++i)
            EXPECT_LE(clip->packet_decode_play(i, out, &err, -1.0f), 1152) << seed;
    }

    // A load cancelled through its progress gives no clip.
    _kel_progress_ext_t cancel{[](void*, float percent) { return percent < 1.0f ? 1 : 0; }, nullptr, 0.0f};
    EXPECT_EQ(ClipMP3::open(path.c_str(), &err, &cancel, false, false), nullptr);
    EXPECT_EQ(err, fourcc("Ebrk"));
}

TEST(ClipMP3Empty, CreatedClipsAcceptMatchingPacketsAndDecodeThem)
{
    int err = 1234;
    ClipPtr empty(kel_clip_create(KEL_FORMAT_MP3, 2, 44100.0f, 0, 128000, 1, &err));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(err, 1234); // written only on failure
    _kel_clip_info_t info{};
    empty->get_info(&info);
    EXPECT_EQ(info.mpeg_version, 1);
    EXPECT_EQ(info.stereo_mode, KELClipStereoModeJointStereo);
    EXPECT_EQ(as_mp3(empty)->nominal_bit_rate, 128000);
    EXPECT_EQ(kel_clip_create(KEL_FORMAT_MP3, 3, 44100.0f, 16, 0, 0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipMP3::create_empty(2, -1.0f, 0, false, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    ClipPtr mono(ClipMP3::create_empty(1, 8000.0f, 16000, false, &err));
    mono->get_info(&info);
    EXPECT_EQ(info.stereo_mode, KELClipStereoModeSingleChannel);

    // Compatibility is channels, rate, version and stereo mode; not bit rate.
    ClipPtr cbr = open_clip(stream_file(lame_stream("cbr128")), err);
    ClipPtr vbr = open_clip(stream_file(lame_stream("vbr")), err);
    ClipPtr mpeg2 = open_clip(stream_file(lame_stream("mpeg2")), err);
    ASSERT_TRUE(cbr && vbr && mpeg2);
    EXPECT_TRUE(empty->will_accept(vbr.get(), &err));
    EXPECT_EQ(err, 0);
    EXPECT_FALSE(empty->will_accept(mono.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_FALSE(cbr->will_accept(mpeg2.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_FALSE(cbr->will_accept(nullptr, &err));
    EXPECT_EQ(err, fourcc("Eclt"));
    ClipPtr wave(kel_clip_create(KEL_FORMAT_WAVE, 2, 44100.0f, 16, 0, 0, &err));
    EXPECT_FALSE(cbr->will_accept(wave.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));

    // The empty clip has no codec until its first decode.
    ASSERT_EQ(as_mp3(empty)->codec, nullptr);
    empty->insert(0, cbr.get(), &err);
    ASSERT_EQ(err, 0);
    EXPECT_TRUE(same_bits(decode_clip(*empty).left, decode_clip(*cbr).left));

    ClipPtr twin(cbr->NewClip(nullptr));
    ASSERT_NE(twin, nullptr);
    EXPECT_NE(as_mp3(twin)->codec, nullptr);
    EXPECT_TRUE(twin->will_accept(cbr.get(), &err));
    EXPECT_EQ(as_mp3(twin)->nominal_bit_rate, 128000);
    EXPECT_EQ(twin->fade_start_fudge_factor(), -2);
    EXPECT_EQ(twin->fade_length_fudge_factor(), 1);
}

} // namespace
