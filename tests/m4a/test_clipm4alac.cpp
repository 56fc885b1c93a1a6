// Apple Lossless clips against ffmpeg, for each channel count and width:
// files that ffmpeg writes open with ffprobe's packets and decode bit for
// bit as ffmpeg decodes them; gains re-encode only the packets they touch,
// and ffmpeg reads the saved files; WAVE transcodes without loss; damaged
// files end in a clip or a code.
#include "api/formatdispatch.h"
#include "m4a/clipm4alac.h"
#include "m4a/m4afixtures.h"
#include "m4a/packetm4alac.h"

#include "codec/codectypes.h"
#include "core/bshandle.h"
#include "codec/component.h"
#include "core/fourcc.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <random>

namespace KEL {
namespace test {
namespace {

// Three whole packets and a last one of 1000 frames.
constexpr int kFrames = 3 * 4096 + 1000;

// Noise written by ffmpeg's encoder; stereo gets a different noise on
// each side, so that a channel mix-up shows.
std::string fixture(int channels, int bits)
{
    const std::string path = scratch().path("noise" + std::to_string(channels) + "x" + std::to_string(bits) + ".m4a");
    if (file_exists(path))
        return path;
    const std::string noise = "anoisesrc=sample_rate=44100:amplitude=0.4:seed=";
    const std::string trim = "atrim=end_sample=" + std::to_string(kFrames);
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", noise + "7"};
    if (channels == 2)
        args.insert(args.end(), {"-f", "lavfi", "-i", noise + "11", "-filter_complex", "amerge=inputs=2," + trim});
    else
        args.insert(args.end(), {"-af", trim});
    args.insert(args.end(), {"-c:a", "alac", "-sample_fmt", bits == 16 ? "s16p" : "s32p", path});
    EXPECT_EQ(run_tool(args), 0);
    return path;
}

Bytes stored_bytes(Clip& clip, int index)
{
    Packet* p = clip.get_packet(index);
    Bytes b(static_cast<size_t>(p->handle->size));
    EXPECT_EQ(p->handle->get_bytes(b.data(), 0), p->handle->size);
    return b;
}

// A KEL decode as interleaved integers of the width.
std::vector<int32_t> kel_integers(const Samples& s, int channels, int bits)
{
    std::vector<int32_t> out;
    const double scale = bits == 16 ? 32768.0 : 8388608.0;
    for (size_t i = 0; i < s.left.size(); ++i) {
        out.push_back(static_cast<int32_t>(s.left[i] * scale));
        if (channels == 2)
            out.push_back(static_cast<int32_t>(s.right[i] * scale));
    }
    return out;
}

// The uncompressed frame a short packet is saved as, built bit by bit: the
// element tag (single channel or channel pair), instance 0, 12 unused bits,
// no frame count, the byte shift (one byte for 24 bits), "uncompressed",
// then every sample as a field of the bit depth, padded to a byte.
Bytes uncompressed_frame(const std::vector<int32_t>& samples, int channels, int bits)
{
    std::vector<int> b;
    auto field = [&b](uint32_t value, int width) {
        for (int i = width - 1; i >= 0; --i)
            b.push_back(static_cast<int>((value >> i) & 1u));
    };
    field(channels == 2 ? 1 : 0, 3);
    field(0, 4 + 12 + 1);
    field(bits == 24 ? 1 : 0, 2);
    field(1, 1);
    for (int32_t s : samples)
        field(static_cast<uint32_t>(s) & ((1u << bits) - 1u), bits);
    b.resize((b.size() + 7) / 8 * 8, 0);
    Bytes out(b.size() / 8, 0);
    for (size_t i = 0; i < b.size(); ++i)
        out[i / 8] = static_cast<unsigned char>(out[i / 8] | (b[i] << (7 - i % 8)));
    return out;
}

struct Layout {
    int channels, bits;
};

void PrintTo(const Layout& l, std::ostream* os)
{
    *os << l.channels << " channels, " << l.bits << " bits";
}

class AlacLayout : public ::testing::TestWithParam<Layout> {
protected:
    int channels() const { return GetParam().channels; }
    int bits() const { return GetParam().bits; }
    // Mono 24-bit delivers the left output only.
    bool right_silent() const { return channels() == 1 && bits() == 24; }
};

TEST_P(AlacLayout, OpensWithProbedPacketsAndDecodesLikeFfmpeg)
{
    const std::string path = fixture(channels(), bits());
    int err = -1;
    ClipPtr clip = open_clip(path, err);
    ASSERT_EQ(err, 0);
    ASSERT_NE(dynamic_cast<ClipM4ALAC*>(clip.get()), nullptr);
    const std::vector<ProbePacket> probe = probe_packets(path);
    ASSERT_EQ(probe.size(), 4u);
    ASSERT_EQ(clip->packet_count, 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(clip->get_packet(i)->handle->size, probe[static_cast<size_t>(i)].size);
        EXPECT_EQ(clip->packet_frame_count(i, nullptr), probe[static_cast<size_t>(i)].duration);
        EXPECT_EQ(clip->get_packet(i)->type(), Packet::TypeALAC);
    }
    _kel_clip_info_t info{}, file{};
    clip->get_info(&info);
    EXPECT_EQ(FormatDispatch::standard().file_info(path.c_str(), &file, nullptr), 0);
    for (const _kel_clip_info_t& i : {info, file}) {
        EXPECT_EQ(i.format, KEL_FORMAT_ALAC);
        EXPECT_EQ(i.channels, channels());
        EXPECT_EQ(i.bits_per_sample, bits());
        EXPECT_EQ(i.sample_rate, 44100.0f);
        EXPECT_FLOAT_EQ(i.duration, kFrames / 44100.0f);
    }

    Decoded ref;
    ASSERT_TRUE(ffmpeg_decode(path, ref));
    ASSERT_EQ(ref.frames(), static_cast<size_t>(kFrames));
    Samples want = split(ref);
    if (right_silent())
        want.right.assign(kFrames, 0.0f);
    const Samples got = decode_clip(*clip);
    EXPECT_TRUE(same_bits(got.left, want.left));
    EXPECT_TRUE(same_bits(got.right, want.right));
    // Packets decode alone, in any order: the short last one, then the first.
    std::vector<float> l(4096), r(4096);
    float* out[2] = {l.data(), r.data()};
    EXPECT_EQ(clip->packet_decode_play(3, out, &err, -1.0f), 1000);
    EXPECT_TRUE(same_bits(std::vector<float>(l.begin(), l.begin() + 1000),
                          std::vector<float>(want.left.begin() + 3 * 4096, want.left.end())));
    EXPECT_EQ(clip->packet_decode_play(0, out, &err, -1.0f), 4096);
    EXPECT_TRUE(same_bits(l, std::vector<float>(want.left.begin(), want.left.begin() + 4096)));
    EXPECT_EQ(clip->packet_decode_play(4, out, &err, -1.0f), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
}

TEST_P(AlacLayout, GainReencodesOnlyTouchedPacketsAndSavesShortPacketUncompressed)
{
    const std::string path = fixture(channels(), bits());
    int err = -1;
    ClipPtr clip = open_clip(path, err);
    ASSERT_EQ(err, 0);
    Decoded ref;
    ASSERT_TRUE(ffmpeg_decode(path, ref));
    const std::vector<int32_t> original = integers(ref, bits());
    // Halved samples in packet 1, quartered in the short packet 3; with
    // these factors the float path is exact, so the kernels' truncation
    // toward zero is integer division.
    clip->packet_gain(1, 0.5f, &err);
    clip->packet_gain(3, 0.25f, &err);
    ASSERT_EQ(err, 0);
    std::vector<int32_t> want = original;
    const size_t per_packet = 4096u * static_cast<size_t>(channels());
    for (size_t i = per_packet; i < want.size(); ++i)
        want[i] = i < 2 * per_packet ? original[i] / 2 : i >= 3 * per_packet ? original[i] / 4 : original[i];
    const std::string saved = scratch().path("gained.m4a");
    std::vector<float> reports;
    _kel_progress_ext_t progress{[](void* c, float p) {
                                     static_cast<std::vector<float>*>(c)->push_back(p);
                                     return 1;
                                 },
                                 &reports, 0.0f};
    EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, &progress), 0);
    ASSERT_FALSE(reports.empty());
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_EQ(reports.back(), 100.0f);

    ClipPtr back = open_clip(saved, err);
    ASSERT_EQ(err, 0);
    ASSERT_EQ(back->packet_count, 4);
    EXPECT_EQ(stored_bytes(*back, 0), stored_bytes(*clip, 0));
    EXPECT_EQ(stored_bytes(*back, 2), stored_bytes(*clip, 2));
    EXPECT_NE(stored_bytes(*back, 1), stored_bytes(*clip, 1));
    const std::vector<int32_t> tail(want.begin() + static_cast<long>(3 * per_packet), want.end());
    EXPECT_EQ(stored_bytes(*back, 3), uncompressed_frame(tail, channels(), bits()));
    EXPECT_EQ(kel_integers(decode_clip(*back), channels(), bits()), want);
    // ffmpeg's decoder wants every frame closed by an END element, so it
    // drops the hand-made last one; the packets before it come out exactly.
    Decoded theirs;
    ASSERT_TRUE(ffmpeg_decode(saved, theirs));
    std::vector<int32_t> whole = integers(theirs, bits());
    ASSERT_GE(whole.size(), 3 * per_packet);
    whole.resize(3 * per_packet);
    EXPECT_EQ(whole, std::vector<int32_t>(want.begin(), want.begin() + static_cast<long>(3 * per_packet)));
}

TEST_P(AlacLayout, TranscodesWaveLosslessly)
{
    const std::string wav = scratch().path("source" + std::to_string(channels() * bits()) + ".wav");
    ASSERT_EQ(run_tool({"sox", "-n", "-r", "44100", "-b", std::to_string(bits()), "-c", std::to_string(channels()),
                        "-t", "wavpcm", wav, "synth", "0.32", "whitenoise", "gain", "-3"}),
              0);
    int err = -1;
    ClipPtr wave = open_clip(wav, err);
    ASSERT_EQ(err, 0);
    ClipPtr target(ClipM4ALAC::create_empty(channels(), 44100.0f, bits(), &err));
    ClipPtr alac(target->transcode(wave.get(), 0, wave->packet_count - 1, &err, nullptr));
    ASSERT_EQ(err, 0);
    ASSERT_NE(dynamic_cast<ClipM4ALAC*>(alac.get()), nullptr);
    // 14112 frames in whole packets only: the last one padded with silence.
    ASSERT_EQ(alac->packet_count, 4);
    Samples want = decode_clip(*wave);
    want.left.resize(4 * 4096, 0.0f);
    want.right.resize(4 * 4096, 0.0f);
    if (right_silent())
        want.right.assign(want.right.size(), 0.0f);
    const Samples got = decode_clip(*alac);
    EXPECT_TRUE(same_bits(got.left, want.left));
    EXPECT_TRUE(same_bits(got.right, want.right));
    // ffmpeg reads the saved transcode as the WAVE's integers.
    const std::string saved = scratch().path("transcoded.m4a");
    EXPECT_EQ(alac->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
    Decoded theirs, source;
    ASSERT_TRUE(ffmpeg_decode(saved, theirs));
    ASSERT_TRUE(ffmpeg_decode(wav, source));
    std::vector<int32_t> expected = integers(source, bits());
    expected.resize(4 * 4096 * static_cast<size_t>(channels()), 0);
    EXPECT_EQ(integers(theirs, bits()), expected);
}

INSTANTIATE_TEST_SUITE_P(Layouts, AlacLayout, ::testing::Values(Layout{1, 16}, Layout{2, 16}, Layout{1, 24}, Layout{2, 24}),
                         [](const ::testing::TestParamInfo<Layout>& info) {
                             return std::to_string(info.param.channels) + "ch" + std::to_string(info.param.bits);
                         });

TEST(ClipM4ALAC, SavesUntouchedBytesAndUnreadablePacketsAsSilenceWithGga)
{
    const std::string path = scratch().path("damaged.m4a");
    write_file(path, read_file(fixture(2, 16)));
    int err = -1;
    ClipPtr clip = open_clip(path, err);
    ASSERT_EQ(err, 0);
    // Without gain changes every packet keeps its bytes.
    const std::string plain = scratch().path("plain.m4a");
    EXPECT_EQ(clip->save_to(plain.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
    ClipPtr copy = open_clip(plain, err);
    ASSERT_EQ(copy->packet_count, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(stored_bytes(*copy, i), stored_bytes(*clip, i)) << "packet " << i;
    // The source loses the end of its last packet after opening.
    Decoded ref;
    ASSERT_TRUE(ffmpeg_decode(path, ref));
    const std::vector<int32_t> original = integers(ref, 16);
    const std::vector<ProbePacket> probe = probe_packets(path);
    ASSERT_EQ(truncate(path.c_str(), probe[3].pos + 5), 0);
    clip->packet_gain(0, 0.5f, &err);
    clip->packet_gain(3, 0.5f, &err);
    const std::string saved = scratch().path("silenced.m4a");
    EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Egga"));
    ClipPtr back = open_clip(saved, err);
    ASSERT_EQ(err, 0);
    std::vector<int32_t> want = original;
    for (size_t i = 0; i < 2 * 4096; ++i)
        want[i] = original[i] / 2;
    std::fill(want.begin() + 2 * 3 * 4096, want.end(), 0);
    EXPECT_EQ(kel_integers(decode_clip(*back), 2, 16), want);
    // A save that fails leaves no file.
    ClipPtr empty(ClipM4ALAC::create_empty(2, 44100.0f, 16, &err));
    const std::string none = scratch().path("none.m4a");
    EXPECT_EQ(empty->save_to(none.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Empt"));
    EXPECT_FALSE(file_exists(none));
}

TEST(ClipM4ALAC, CreationCompatibilityAndCookie)
{
    for (auto [channels, rate, bits] : {std::tuple<int, float, int>{3, 44100.0f, 16}, {2, -1.0f, 16}, {2, 44100.0f, 20}}) {
        int err = 0;
        EXPECT_EQ(ClipM4ALAC::create_empty(channels, rate, bits, &err), nullptr);
        EXPECT_EQ(err, fourcc("Eprm"));
    }
    int err = 0;
    ClipPtr a(kel_clip_create(KEL_FORMAT_ALAC, 2, 44100.0f, 24, 0, 0, &err));
    ClipPtr b(ClipM4ALAC::create_empty(2, 44100.0f, 16, &err));
    ClipPtr c(ClipM4ALAC::create_empty(2, 44100.0f, 24, &err));
    ClipPtr wave(kel_clip_create(KEL_FORMAT_WAVE, 2, 44100.0f, 24, 0, 0, &err));
    ASSERT_TRUE(a && b && c && wave);
    EXPECT_TRUE(a->will_accept(c.get(), &err));
    EXPECT_EQ(err, 0);
    EXPECT_FALSE(a->will_accept(b.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_FALSE(a->will_accept(wave.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));
    // The clip's width goes into the codec's cookie (history multiplier 40
    // at byte 30 marks the layout), and into no other.
    ComponentInstanceRecord* codec = static_cast<ClipM4ALAC*>(a.get())->create_codec();
    ASSERT_NE(codec, nullptr);
    unsigned char cookie[48] = {};
    uint32_t size = sizeof cookie;
    ASSERT_EQ(audio_codec_get_property(codec, kPropertyMagicCookie, &size, cookie), 0);
    ASSERT_EQ(size, 48u);
    EXPECT_EQ(cookie[29], 24);
    auto* shallow = static_cast<ClipM4ALAC*>(b.get());
    EXPECT_EQ(shallow->specific_codec_setup(codec), 0);
    ASSERT_EQ(audio_codec_get_property(codec, kPropertyMagicCookie, &size, cookie), 0);
    EXPECT_EQ(cookie[29], 16);
    cookie[29] = 24;
    cookie[30] = 41;
    ASSERT_EQ(audio_codec_set_property(codec, kPropertyMagicCookie, size, cookie), 0);
    EXPECT_EQ(shallow->specific_codec_setup(codec), 0);
    ASSERT_EQ(audio_codec_get_property(codec, kPropertyMagicCookie, &size, cookie), 0);
    EXPECT_EQ(cookie[29], 24);
    close_component(codec);
}

// Cut and flipped copies: a clip that opens is decoded and saved with a
// gain, which decodes and re-encodes its first packet.
TEST(ClipM4ALAC, DamagedFilesEndInAClipOrACode)
{
    const Bytes good = read_file(fixture(2, 24));
    ASSERT_GT(good.size(), 2000u);
    const std::string path = scratch().path("bad.m4a");
    std::mt19937 random(20261121);
    for (int round = 0; round < 104; ++round) {
        Bytes bad(good.begin(), good.begin() + static_cast<long>(std::min(good.size(), (good.size() / 23 + 1) * round)));
        if (round >= 24) { // the tables lie at the end of the file: flips there and anywhere
            bad = good;
            const size_t span = round % 2 == 0 ? 1200 : bad.size();
            for (int k = 0; k < 1 + round % 4; ++k)
                bad[bad.size() - 1 - random() % span] ^= static_cast<unsigned char>(1u << (random() % 8));
        }
        write_file(path, bad);
        int err = 0;
        ClipPtr clip = open_clip(path, err);
        if (clip == nullptr) {
            EXPECT_NE(err, 0);
            continue;
        }
        std::vector<float> l(PacketM4ALAC::kFullFrames * 2), r(l.size());
        float* out[2] = {l.data(), r.data()};
        for (int i = 0; i < clip->packet_count; ++i)
            if (clip->packet_frame_count(i, nullptr) <= static_cast<int>(l.size()))
                clip->packet_decode_play(i, out, &err, -1.0f);
        clip->packet_gain(0, 0.5f, &err);
        clip->save_to((path + ".saved.m4a").c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    }
}

} // namespace
} // namespace test
} // namespace KEL
