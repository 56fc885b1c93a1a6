// MP3 clips against peer tools: streams made by lame are opened and their
// packets compared with ffprobe's, decoded and compared with ffmpeg's decode
// of the same frames, gained and compared with mp3gain's rewrite; damaged
// and foreign files give a clip or a code.
#include "core/bshandlefile.h"
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "m4a/clipdecoderac.h"
#include "m4a/overviewac.h"
#include "mp3/clipmp3.h"
#include "mp3/packetmp3.h"
#include "pcm/oracle.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

using namespace KEL;
using namespace KEL::test;

namespace {

TempDir& scratch()
{
    static TempDir dir;
    return dir;
}

std::string capture(const std::vector<std::string>& argv)
{
    const std::string out = scratch().path("stdout.txt");
    EXPECT_EQ(run_tool(argv, out), 0);
    std::ifstream in(out);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

long long probe_packet_count(const std::string& path)
{
    return std::atoll(capture({"ffprobe", "-v", "error", "-select_streams", "a:0", "-count_packets",
                               "-show_entries", "stream=nb_read_packets", "-of", "csv=p=0", path})
                          .c_str());
}

// (position, size) of every packet as ffprobe demuxes the file.
std::vector<std::pair<long long, int>> probe_packets(const std::string& path)
{
    std::istringstream lines(capture({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                                      "packet=pos,size", "-of", "compact=p=0", path}));
    std::vector<std::pair<long long, int>> packets;
    for (std::string line; std::getline(lines, line);) {
        const size_t size = line.find("size=");
        const size_t pos = line.find("pos=");
        if (size != std::string::npos && pos != std::string::npos)
            packets.emplace_back(std::atoll(line.c_str() + pos + 4), std::atoi(line.c_str() + size + 5));
    }
    return packets;
}

// ffmpeg's decode of every frame, its gapless trimming off.
Samples ffmpeg_frames(const std::string& path, int channels)
{
    const std::string raw = scratch().path("ref.f32");
    EXPECT_EQ(run_tool({"ffmpeg", "-v", "error", "-y", "-flags2", "+skip_manual", "-i", path, "-f", "f32le", raw}), 0);
    const Bytes bytes = read_file(raw);
    Samples s;
    const size_t stride = 4 * static_cast<size_t>(channels);
    for (size_t at = 0; at + stride <= bytes.size(); at += stride) {
        float v[2];
        std::memcpy(v, &bytes[at], stride);
        s.left.push_back(v[0]);
        s.right.push_back(v[channels - 1]);
    }
    return s;
}

// An ID3v2.3 tag of `total` bytes: one title frame, then zero padding.
Bytes id3_tag(size_t total)
{
    ByteWriter w;
    const size_t body = total - 10;
    w.raw({'I', 'D', '3', 3, 0, 0}); // version 2.3, no flags
    w.raw({static_cast<unsigned char>((body >> 21) & 0x7F), static_cast<unsigned char>((body >> 14) & 0x7F),
           static_cast<unsigned char>((body >> 7) & 0x7F), static_cast<unsigned char>(body & 0x7F)});
    w.tag("TIT2").be32(5).be16(0).raw({0}).tag("KEL!");
    w.zeros(total - w.bytes.size());
    return w.bytes;
}

std::string write_variant(const std::string& name, const Bytes& bytes)
{
    const std::string path = scratch().path(name);
    write_file(path, bytes);
    return path;
}

Bytes concat(const Bytes& a, const Bytes& b)
{
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

ClipMP3* as_mp3(const ClipPtr& clip)
{
    return dynamic_cast<ClipMP3*>(clip.get());
}

long long offset_of(Clip& clip, int index)
{
    return static_cast<BSHandleFile*>(clip.get_packet(index)->handle)->offset;
}

struct Variant {
    std::string name;
    int rate, channels;
    std::vector<std::string> lame;
    int mpeg_version, stereo_mode, rate_mode, frames;
};

const std::vector<Variant>& variants()
{
    static const std::vector<Variant> all = {
        {"cbr128", 44100, 2, {"-b", "128"}, 1, KELClipStereoModeJointStereo, 1, 1152},
        {"vbr", 44100, 2, {"-V2"}, 1, KELClipStereoModeJointStereo, 2, 1152},
        {"mono", 44100, 1, {"-b", "64", "-m", "m"}, 1, KELClipStereoModeSingleChannel, 1, 1152},
        {"mpeg2", 22050, 2, {"-b", "64", "-m", "s"}, 2, KELClipStereoModeStereo, 1, 576},
        {"mpeg25", 8000, 1, {"-b", "16"}, 3, KELClipStereoModeSingleChannel, 1, 576},
        {"crc", 44100, 2, {"-b", "160", "-p", "-m", "d"}, 1, KELClipStereoModeDualChannel, 1, 1152},
        {"id3", 44100, 2, {"-b", "128", "--id3v2-only", "--tt", "KEL"}, 1, KELClipStereoModeJointStereo, 1, 1152},
        {"noxing", 44100, 2, {"-b", "96", "--resample", "44.1", "-t"}, 1, KELClipStereoModeJointStereo, 1, 1152},
    };
    return all;
}

const Variant& variant(const std::string& name)
{
    for (const Variant& v : variants())
        if (v.name == name)
            return v;
    throw std::runtime_error(name);
}

// A test signal (a chord on the left, pink noise on the right, behind
// silence and with a fade) encoded by lame with the variant's options.
std::string variant_file(const Variant& v)
{
    const std::string wav = scratch().path(v.name + ".wav");
    const std::string mp3 = scratch().path(v.name + ".mp3");
    if (file_exists(mp3))
        return mp3;
    std::vector<std::string> sox = {"sox", "-n", "-r", std::to_string(v.rate), "-c", std::to_string(v.channels),
                                    "-b", "16", wav, "synth", "1.5", "sine", "330"};
    if (v.channels == 2)
        sox.push_back("pinknoise");
    for (const char* s : {"gain", "-8", "pad", "0.2", "fade", "t", "0.1", "1.7", "0.6"})
        sox.push_back(s);
    std::vector<std::string> lame = {"lame", "--quiet"};
    lame.insert(lame.end(), v.lame.begin(), v.lame.end());
    lame.push_back(wav);
    lame.push_back(mp3);
    EXPECT_EQ(run_tool(sox), 0);
    EXPECT_EQ(run_tool(lame), 0);
    return mp3;
}

} // namespace

TEST(ClipMP3Streams, PacketsInfoAndDecodingMatchThePeerTools)
{
    std::vector<Variant> all = variants();
    // The 128 kbit/s stream again behind a hand-made tag of 4096 bytes.
    all.push_back(all[0]);
    all.back().name = "tag4096";
    const std::string tagged = write_variant("tag4096.mp3", concat(id3_tag(4096), read_file(variant_file(all[0]))));

    for (const Variant& v : all) {
        SCOPED_TRACE(v.name);
        const std::string path = v.name == "tag4096" ? tagged : variant_file(v);
        EXPECT_EQ(ClipMP3::detect(path.c_str()), 0);
        int err = -1;
        ClipPtr clip = open_clip(path, err);
        ASSERT_EQ(err, 0);
        ClipMP3* mp3 = as_mp3(clip);
        ASSERT_NE(mp3, nullptr);

        // Packet for packet what ffprobe demuxes: information frames and
        // tags are never packets.
        const auto probed = probe_packets(path);
        EXPECT_EQ(clip->packet_count, probe_packet_count(path));
        ASSERT_EQ(static_cast<size_t>(clip->packet_count), probed.size());
        for (int i = 0; i < clip->packet_count; ++i) {
            ASSERT_EQ(offset_of(*clip, i), probed[static_cast<size_t>(i)].first) << i;
            ASSERT_EQ(clip->get_packet(i)->handle->size, probed[static_cast<size_t>(i)].second) << i;
            ASSERT_EQ(clip->packet_frame_count(i, nullptr), v.frames);
            ASSERT_EQ(static_cast<int>(clip->get_packet(i)->type()), 2 + v.mpeg_version);
        }
        if (v.name == "tag4096") {
            // Behind the tag and the information frame.
            EXPECT_EQ(offset_of(*clip, 0), 4096 + probe_packets(variant_file(all[0]))[0].first);
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
        EXPECT_EQ(mp3->frames_per_packet(), v.frames);

        // Same decoder, same frames, no trimming: exact.
        const Samples ours = decode_clip(*clip);
        const Samples ref = ffmpeg_frames(path, v.channels);
        ASSERT_EQ(ours.left.size(), ref.left.size());
        EXPECT_TRUE(same_bits(ours.left, ref.left));
        EXPECT_TRUE(same_bits(ours.right, ref.right));
    }
}

TEST(ClipMP3Streams, RandomAccessAfterWarmUpEqualsSequentialDecoding)
{
    for (const char* name : {"vbr", "mpeg25"}) {
        SCOPED_TRACE(name);
        const Variant& v = variant(name);
        int err = 0;
        ClipPtr clip = open_clip(variant_file(v), err);
        ASSERT_NE(clip, nullptr);
        const Samples seq = decode_clip(*clip);
        const size_t n = static_cast<size_t>(v.frames);
        const std::vector<float> want(seq.left.begin() + 20 * n, seq.left.begin() + 21 * n);

        // Playback, a transcoding decoder and an overview, interleaved, each
        // with its own codec: 5, then 20.
        ClipPtr fresh = open_clip(variant_file(v), err);
        std::unique_ptr<ClipDecoder> decoder(as_mp3(fresh)->create_decoder());
        std::unique_ptr<Overview> overview(as_mp3(fresh)->create_overview(nullptr));
        ASSERT_TRUE(decoder && overview);
        std::vector<std::vector<float>> got(3, std::vector<float>(n)), right(3, std::vector<float>(n));
        for (int index : {5, 20}) {
            for (int owner = 0; owner < 3; ++owner) {
                float* out[2] = {got[owner].data(), right[owner].data()};
                const int frames = owner == 0   ? fresh->packet_decode_play(index, out, &err, -1.0f)
                                   : owner == 1 ? decoder->packet_decode(index, out, &err, -1.0f)
                                                : overview->packet_decode(index, out, &err, 1.0f);
                ASSERT_EQ(frames, v.frames);
                ASSERT_EQ(err, 0);
            }
        }
        for (int owner = 0; owner < 3; ++owner)
            EXPECT_TRUE(same_bits(got[owner], want)) << "owner " << owner;
    }
}

TEST(ClipMP3Streams, FileInfoScansEveryFrameFromTheFileStart)
{
    for (const char* name : {"cbr128", "vbr", "noxing"}) {
        SCOPED_TRACE(name);
        const Variant& v = variant(name);
        const std::string path = variant_file(v);
        // Every frame from byte 0, the information frame included.
        const auto probed = probe_packets(path);
        const long long info_frame = probed[0].first;
        const long long frames = static_cast<long long>(probed.size()) + (info_frame > 0 ? 1 : 0);
        long long bytes = info_frame;
        for (const auto& p : probed)
            bytes += p.second;

        _kel_clip_info_t info{};
        ASSERT_EQ(ClipMP3::get_file_info(path.c_str(), &info, nullptr), 0);
        EXPECT_EQ(info.format, KEL_FORMAT_MP3);
        EXPECT_EQ(info.mpeg_version, 1);
        EXPECT_EQ(info.rate_mode, v.rate_mode);
        const double duration = static_cast<double>(frames * 1152) / 44100.0;
        EXPECT_FLOAT_EQ(info.duration, static_cast<float>(duration));
        if (v.rate_mode == 1) {
            EXPECT_EQ(info.bit_rate, std::atoi(v.lame[1].c_str()) * 1000);
        } else {
            EXPECT_NEAR(info.bit_rate, static_cast<double>(bytes) * 8.0 / duration, 1.0);
        }
        EXPECT_EQ(Clip::file_info(path.c_str(), nullptr, nullptr), 0);
    }
}

TEST(ClipMP3Gain, PacketGainMatchesMp3gainBytesAndDecoding)
{
    for (const char* name : {"crc", "mpeg2"}) {
        SCOPED_TRACE(name);
        const Variant& v = variant(name);
        const std::string path = variant_file(v);
        const std::string gained = write_variant(std::string(name) + "-gain.mp3", read_file(path));
        ASSERT_EQ(run_tool({"mp3gain", "-g", "2", "-c", "-q", "-s", "s", gained}), 0);
        const Bytes original = read_file(path);
        const Bytes rewritten = read_file(gained);
        ASSERT_NE(original, rewritten);

        int err = 0;
        ClipPtr clip = open_clip(path, err);
        ASSERT_NE(clip, nullptr);
        const float two_steps = std::sqrt(2.0f); // 2^(2/4)
        Bytes buf(4096);
        for (int i = 0; i < clip->packet_count; ++i) {
            Packet* p = clip->get_packet(i);
            const size_t at = static_cast<size_t>(offset_of(*clip, i));
            const size_t n = static_cast<size_t>(p->get_bytes(buf.data(), 1.0f));
            ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + n, original.begin() + at)) << i;
            ASSERT_EQ(p->get_bytes(buf.data(), two_steps), static_cast<int>(n));
            ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + n, rewritten.begin() + at)) << i;
            p->gain = two_steps;
        }
        // The packets' own gain, on playback, is the rewritten stream.
        const Samples ours = decode_clip(*clip);
        const Samples ref = ffmpeg_frames(gained, v.channels);
        ASSERT_EQ(ours.left.size(), ref.left.size());
        EXPECT_TRUE(same_bits(ours.left, ref.left));
        EXPECT_TRUE(same_bits(ours.right, ref.right));
    }
}

TEST(ClipMP3Gain, QuantizedGainIsTheScaleDecodingApplies)
{
    int err = 0;
    ClipPtr clip = open_clip(variant_file(variant("cbr128")), err);
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
    std::unique_ptr<Packet, void (*)(Packet*)> twin(p->copy(), [](Packet* x) { x->release(); });
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin->handle, p->handle);
    EXPECT_EQ(twin->type(), p->type());
    EXPECT_EQ(twin->gain, 0.5f);
    int frames = 0;
    ASSERT_NE(twin->gain_envelope(frames), nullptr);
    EXPECT_EQ(twin->gain_envelope(frames)[100], 0.5f);
}

TEST(ClipMP3Gain, PrerollCountWalksThePacketsBytes)
{
    // MPEG-1 frames: header, 32 bytes of side information starting with
    // the 9-bit main_data_begin, then main data.
    ClipMP3 clip(2, 44100.0f, 3, KELClipStereoModeJointStereo, 128000, nullptr);
    const std::vector<std::pair<int, int>> frames = {{10, 300}, {0, 300}, {500, 300}, {9, 0}, {1, 9}};
    for (const auto& [begin, main] : frames) {
        Bytes f = {0xFF, 0xFB, 0x90, 0x44, static_cast<unsigned char>(begin >> 1),
                   static_cast<unsigned char>((begin & 1) << 7)};
        f.resize(36 + static_cast<size_t>(main), 0);
        auto* h = new BSHandleMem(static_cast<int>(f.size()));
        ASSERT_TRUE(h->init_with_copy(f.data()));
        auto* p = new PacketMP3(128000, 44100.0f, 2, 1152, 3, h);
        h->release();
        clip.add_packet(p);
        p->release();
    }
    // packet: (count, code)
    const std::vector<std::pair<int, int>> want = {{0, fourcc("Epre")}, {0, 0}, {2, 0}, {1, 0}, {0, fourcc("Ebps")},
                                                   {0, fourcc("EPnm")}};
    for (int i = 0; i < 6; ++i) {
        int err = -1;
        EXPECT_EQ(clip.packet_preroll_count(i, &err), want[static_cast<size_t>(i)].first) << i;
        EXPECT_EQ(err, want[static_cast<size_t>(i)].second) << i;
    }
    int err = -1;
    EXPECT_EQ(static_cast<PacketMP3*>(clip.get_packet(2))->static_part_size(err), 36);
    EXPECT_EQ(static_cast<PacketMP3*>(clip.get_packet(2))->get_main_data_begin(err), 500);
    clip.close(nullptr);
}

TEST(ClipMP3Open, DamagedAndForeignFilesGiveAClipOrACode)
{
    const std::string path = variant_file(variant("cbr128"));
    const Bytes file = read_file(path);
    const auto probed = probe_packets(path);
    int err = 0;

    // Cut at either end: exactly the frames wholly inside what is left.
    for (const bool head : {true, false}) {
        const long long begin = head ? 2048 : 0;
        const long long end = static_cast<long long>(file.size()) - (head ? 0 : 2048);
        ClipPtr clip = open_clip(write_variant("cut.mp3", Bytes(file.begin() + begin, file.begin() + end)), err);
        ASSERT_NE(clip, nullptr);
        std::vector<long long> kept;
        for (const auto& p : probed)
            if (p.first >= begin && p.first + p.second <= end)
                kept.push_back(p.first - begin);
        ASSERT_EQ(static_cast<size_t>(clip->packet_count), kept.size());
        EXPECT_EQ(offset_of(*clip, 0), kept[0]);
        EXPECT_EQ(decode_clip(*clip).left.size(), kept.size() * 1152);
    }

    // Zeros ahead of the frames: beyond what an unsure search accepts,
    // but fine behind a tag, which makes it confident.
    const Bytes plain = read_file(variant_file(variant("noxing")));
    const Bytes zeros(20000, 0);
    const std::string zeroed = write_variant("zeros.mp3", concat(zeros, plain));
    ClipPtr clip = open_clip(zeroed, err);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(ClipMP3::detect(zeroed.c_str()), fourcc("Efmu"));
    clip = open_clip(write_variant("tagzeros.mp3", concat(id3_tag(64), concat(zeros, plain))), err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->packet_count, probe_packet_count(variant_file(variant("noxing"))));

    // Two Layer II frames agree with each other but are not taken.
    const std::string mp2 = scratch().path("layer2.mp2");
    ASSERT_EQ(run_tool({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "sine=f=440:d=0.5", "-c:a", "mp2",
                        "-b:a", "128k", "-f", "mp2", mp2}),
              0);
    const auto layer2 = probe_packets(mp2);
    ASSERT_GE(layer2.size(), 2u);
    const Bytes mp2_bytes = read_file(mp2);
    clip = open_clip(write_variant("two.mp2", Bytes(mp2_bytes.begin(), mp2_bytes.begin() + layer2[1].first +
                                                                          layer2[1].second)),
                     err);
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
    clip = open_clip(write_variant("twelve.mp3", concat(alternating, concat(at44, at44))), err);
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->packet_count, 2);
    clip = open_clip(write_variant("thirteen.mp3", concat(alternating, concat(at44, concat(at48, at48)))), err);
    EXPECT_EQ(err, fourcc("Efmu"));
    EXPECT_EQ(ClipMP3::detect(scratch().path("missing.mp3").c_str()), fourcc("Efor"));

    // Flipped header bits: whatever opens decodes without harm.
    for (unsigned seed = 1; seed <= 12; ++seed) {
        std::mt19937 flips(seed);
        Bytes bad = file;
        for (int k = 0; k < 10; ++k) {
            const auto& f = probed[flips() % probed.size()];
            bad[static_cast<size_t>(f.first) + flips() % 4] ^= static_cast<unsigned char>(1u << (flips() % 8));
        }
        clip = open_clip(write_variant("flipped.mp3", bad), err);
        EXPECT_TRUE(clip != nullptr || err != 0) << seed;
        std::vector<float> l(1152), r(1152);
        float* out[2] = {l.data(), r.data()};
        for (int i = 0; clip && i < clip->packet_count; ++i)
            EXPECT_LE(clip->packet_decode_play(i, out, &err, -1.0f), 1152) << seed;
    }
}

TEST(ClipMP3Open, CancelledLoadGivesNoClip)
{
    struct Cancel {
        static int callback(void*, float percent) { return percent < 1.0f ? 1 : 0; }
    };
    _kel_progress_ext_t progress{&Cancel::callback, nullptr, 0.0f};
    int err = 0;
    Clip* clip = ClipMP3::open(variant_file(variant("cbr128")).c_str(), &err, &progress, false, false);
    EXPECT_EQ(clip, nullptr);
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
    EXPECT_EQ(empty->packet_count, 0);
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
    ClipPtr cbr = open_clip(variant_file(variant("cbr128")), err);
    ClipPtr vbr = open_clip(variant_file(variant("vbr")), err);
    ClipPtr mpeg2 = open_clip(variant_file(variant("mpeg2")), err);
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
    // A folder in the way of the saved file: the system's EISDIR.
    EXPECT_EQ(cbr->save_to(scratch().root().c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 21);
}
