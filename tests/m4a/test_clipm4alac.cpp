// Apple Lossless clips against ffmpeg: files that ffmpeg writes open with
// ffprobe's packets and decode bit for bit as ffmpeg decodes them; gains
// re-encode only the packets they touch, and ffmpeg reads the saved files;
// WAVE transcodes to Apple Lossless and back without loss; damaged files
// end in a clip or a code.
#include "m4a/alactranscoder.h"
#include "m4a/clipm4alac.h"
#include "m4a/m4afixtures.h"
#include "m4a/packetm4alac.h"

#include "core/bshandle.h"
#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/fourcc.h"
#include "kel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <unistd.h>

namespace KEL {
namespace test {
namespace {

// Three whole packets and a last one of 1000 frames.
constexpr int kFrames = 3 * 4096 + 1000;

// Noise written by ffmpeg's encoder; stereo gets a different noise on
// each side, so that a channel mix-up shows.
std::string fixture(int channels, int bits, bool wave = false)
{
    const std::string path = scratch().path("noise" + std::to_string(channels) + "x" + std::to_string(bits) +
                                            (wave ? ".wav" : ".m4a"));
    if (file_exists(path))
        return path;
    const std::string noise = "anoisesrc=sample_rate=44100:amplitude=0.4:seed=";
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", noise + "7"};
    const std::string trim = "atrim=end_sample=" + std::to_string(kFrames);
    if (channels == 2) {
        for (const std::string& a : {std::string("-f"), std::string("lavfi"), std::string("-i"), noise + "11",
                                     std::string("-filter_complex"), "amerge=inputs=2," + trim})
            args.push_back(a);
    } else {
        args.push_back("-af");
        args.push_back(trim);
    }
    if (wave) {
        // Raw samples, wrapped below in a plain PCM header (ffmpeg's own
        // 24-bit WAVE is of the extensible kind).
        args.push_back("-f");
        args.push_back(bits == 16 ? "s16le" : "s24le");
    } else {
        for (const char* a : {"-c:a", "alac", "-sample_fmt", bits == 16 ? "s16p" : "s32p"})
            args.push_back(a);
    }
    args.push_back(wave ? path + ".raw" : path);
    EXPECT_EQ(run_tool(args), 0);
    if (wave) {
        const Bytes data = read_file(path + ".raw");
        const uint32_t frame = static_cast<uint32_t>(channels * bits / 8);
        ByteWriter w;
        w.tag("RIFF").le32(static_cast<uint32_t>(36 + data.size())).tag("WAVE");
        w.tag("fmt ").le32(16).le16(1).le16(static_cast<uint32_t>(channels)).le32(44100).le32(44100 * frame);
        w.le16(frame).le16(static_cast<uint32_t>(bits));
        w.tag("data").le32(static_cast<uint32_t>(data.size())).raw(data);
        write_file(path, w.bytes);
    }
    return path;
}

ClipM4ALAC* as_alac(const ClipPtr& clip)
{
    return dynamic_cast<ClipM4ALAC*>(clip.get());
}

Bytes stored_bytes(Clip& clip, int index)
{
    Packet* p = clip.get_packet(index);
    Bytes b(static_cast<size_t>(p->handle->size));
    EXPECT_EQ(p->handle->get_bytes(b.data(), 0), p->handle->size);
    return b;
}

// The samples of channel c of a KEL decode as integers of the width.
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

struct Layout {
    int channels;
    int bits;
};
constexpr Layout kLayouts[] = {{1, 16}, {2, 16}, {1, 24}, {2, 24}};

TEST(ClipM4ALAC, OpensWithProbedPacketsAndDecodesLikeFfmpeg)
{
    for (const Layout& l : kLayouts) {
        SCOPED_TRACE(std::to_string(l.channels) + " channels, " + std::to_string(l.bits) + " bits");
        const std::string path = fixture(l.channels, l.bits);
        int err = -1;
        ClipPtr clip = open_clip(path, err);
        ASSERT_EQ(err, 0);
        ASSERT_NE(as_alac(clip), nullptr);

        const std::vector<ProbePacket> probe = probe_packets(path);
        ASSERT_EQ(probe.size(), 4u);
        ASSERT_EQ(clip->packet_count, 4);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(clip->get_packet(i)->handle->size, probe[static_cast<size_t>(i)].size);
            EXPECT_EQ(clip->packet_frame_count(i, nullptr), probe[static_cast<size_t>(i)].duration);
            EXPECT_EQ(clip->get_packet(i)->type(), Packet::TypeALAC);
        }

        _kel_clip_info_t info{};
        clip->get_info(&info);
        EXPECT_EQ(info.format, KEL_FORMAT_ALAC);
        EXPECT_EQ(info.channels, l.channels);
        EXPECT_EQ(info.bits_per_sample, l.bits);
        EXPECT_EQ(info.sample_rate, 44100.0f);
        EXPECT_FLOAT_EQ(info.duration, kFrames / 44100.0f);
        _kel_clip_info_t file{};
        EXPECT_EQ(Clip::file_info(path.c_str(), &file, nullptr), 0);
        EXPECT_EQ(file.format, KEL_FORMAT_ALAC);
        EXPECT_EQ(file.bits_per_sample, l.bits);
        EXPECT_FLOAT_EQ(file.duration, info.duration);

        Decoded ref;
        ASSERT_TRUE(ffmpeg_decode(path, ref));
        ASSERT_EQ(ref.frames(), static_cast<size_t>(kFrames));
        const Samples whole = split(ref);
        const std::vector<float>& left = whole.left;
        const std::vector<float>& right = whole.right;
        const Samples got = decode_clip(*clip);
        EXPECT_TRUE(same_bits(got.left, left));
        if (l.channels == 2 || l.bits == 16)
            EXPECT_TRUE(same_bits(got.right, right));
        else // mono 24-bit delivers the left output only
            EXPECT_TRUE(same_bits(got.right, std::vector<float>(kFrames, 0.0f)));

        // Packets decode alone, in any order: the short last one, then the
        // first, each equal to its stretch of the whole.
        std::vector<float> l3(1000), r3(1000), l0(4096), r0(4096);
        float* out3[2] = {l3.data(), r3.data()};
        float* out0[2] = {l0.data(), r0.data()};
        EXPECT_EQ(clip->packet_decode_play(3, out3, &err, -1.0f), 1000);
        EXPECT_EQ(clip->packet_decode_play(0, out0, &err, -1.0f), 4096);
        EXPECT_EQ(err, 0);
        EXPECT_TRUE(same_bits(l3, std::vector<float>(left.begin() + 3 * 4096, left.end())));
        EXPECT_TRUE(same_bits(l0, std::vector<float>(left.begin(), left.begin() + 4096)));
        EXPECT_EQ(clip->packet_decode_play(4, out0, &err, -1.0f), 0);
        EXPECT_EQ(err, fourcc("EPnm"));
    }
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
    while (b.size() % 8 != 0)
        b.push_back(0);
    Bytes out(b.size() / 8, 0);
    for (size_t i = 0; i < b.size(); ++i)
        out[i / 8] = static_cast<unsigned char>(out[i / 8] | (b[i] << (7 - i % 8)));
    return out;
}

int record_progress(void* context, float percent)
{
    static_cast<std::vector<float>*>(context)->push_back(percent);
    return 1;
}

TEST(ClipM4ALAC, GainReencodesOnlyTouchedPacketsAndSavesShortPacketUncompressed)
{
    for (const Layout& l : kLayouts) {
        SCOPED_TRACE(std::to_string(l.channels) + " channels, " + std::to_string(l.bits) + " bits");
        const std::string path = fixture(l.channels, l.bits);
        int err = -1;
        ClipPtr clip = open_clip(path, err);
        ASSERT_EQ(err, 0);
        Decoded ref;
        ASSERT_TRUE(ffmpeg_decode(path, ref));
        const std::vector<int32_t> original = integers(ref, l.bits);

        // Halved samples in packet 1, quartered in the short packet 3; with
        // these factors the float path is exact, so the kernels' truncation
        // toward zero is integer division.
        clip->packet_gain(1, 0.5f, &err);
        clip->packet_gain(3, 0.25f, &err);
        ASSERT_EQ(err, 0);
        std::vector<int32_t> want = original;
        const size_t per_packet = 4096u * static_cast<size_t>(l.channels);
        for (size_t i = per_packet; i < 2 * per_packet; ++i)
            want[i] = original[i] / 2;
        for (size_t i = 3 * per_packet; i < want.size(); ++i)
            want[i] = original[i] / 4;

        const std::string saved = scratch().path("gained.m4a");
        std::vector<float> reports;
        _kel_progress_ext_t progress{&record_progress, &reports, 0.0f};
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
        const Bytes frame = stored_bytes(*back, 3);
        EXPECT_EQ(frame.size(), 1000u * static_cast<size_t>(l.channels * l.bits / 8) + 3);
        EXPECT_EQ(frame, uncompressed_frame(tail, l.channels, l.bits));

        EXPECT_EQ(kel_integers(decode_clip(*back), l.channels, l.bits), want);
        Decoded theirs;
        ASSERT_TRUE(ffmpeg_decode(saved, theirs));
        // ffmpeg's decoder wants every frame closed by an END element, so it
        // drops the hand-made last one; the re-encoded and the untouched
        // packets before it must come out exactly.
        ASSERT_GE(theirs.frames(), 3u * 4096u);
        std::vector<int32_t> whole = integers(theirs, l.bits);
        whole.resize(3 * per_packet);
        EXPECT_EQ(whole, std::vector<int32_t>(want.begin(), want.begin() + static_cast<long>(3 * per_packet)));
    }
}

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
    ASSERT_EQ(err, 0);
    ASSERT_EQ(copy->packet_count, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(stored_bytes(*copy, i), stored_bytes(*clip, i)) << "packet " << i;

    // The source loses the end of its last packet after opening.
    Decoded ref;
    ASSERT_TRUE(ffmpeg_decode(path, ref));
    const std::vector<int32_t> original = integers(ref, 16);
    const std::vector<ProbePacket> probe = probe_packets(path);
    ASSERT_EQ(probe.size(), 4u);
    ASSERT_EQ(truncate(path.c_str(), probe[3].pos + 5), 0);
    clip->packet_gain(0, 0.5f, &err);
    clip->packet_gain(3, 0.5f, &err);

    const std::string saved = scratch().path("silenced.m4a");
    EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Egga"));
    EXPECT_EQ(err, fourcc("Egga"));
    ClipPtr back = open_clip(saved, err);
    ASSERT_EQ(err, 0);
    std::vector<int32_t> want = original;
    for (size_t i = 0; i < 2 * 4096; ++i)
        want[i] = original[i] / 2;
    std::fill(want.begin() + 2 * 3 * 4096, want.end(), 0);
    EXPECT_EQ(kel_integers(decode_clip(*back), 2, 16), want);

    // A save that fails leaves no file.
    ClipPtr empty(ClipM4ALAC::create_empty(2, 44100.0f, 16, &err));
    ASSERT_NE(empty, nullptr);
    const std::string none = scratch().path("none.m4a");
    EXPECT_EQ(empty->save_to(none.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Empt"));
    EXPECT_FALSE(file_exists(none));
}

TEST(ClipM4ALAC, TranscodesWaveLosslessly)
{
    for (const Layout& l : kLayouts) {
        SCOPED_TRACE(std::to_string(l.channels) + " channels, " + std::to_string(l.bits) + " bits");
        int err = -1;
        ClipPtr wave = open_clip(fixture(l.channels, l.bits, true), err);
        ASSERT_EQ(err, 0);
        const Samples source = decode_clip(*wave);
        ASSERT_GE(source.left.size(), static_cast<size_t>(kFrames));

        ClipPtr target(ClipM4ALAC::create_empty(l.channels, 44100.0f, l.bits, &err));
        ASSERT_NE(target, nullptr);
        ClipPtr alac(target->transcode(wave.get(), 0, wave->packet_count - 1, &err, nullptr));
        ASSERT_EQ(err, 0);
        ASSERT_NE(as_alac(alac), nullptr);
        // Whole packets only: the last one is padded with silence.
        ASSERT_EQ(alac->packet_count, 4);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(alac->packet_frame_count(i, nullptr), 4096);

        const Samples got = decode_clip(*alac);
        std::vector<float> left = source.left, right = source.right;
        left.resize(4 * 4096, 0.0f);
        right.resize(4 * 4096, 0.0f);
        if (l.channels == 1 && l.bits == 24)
            right.assign(right.size(), 0.0f);
        EXPECT_TRUE(same_bits(got.left, left));
        EXPECT_TRUE(same_bits(got.right, right));

        // ffmpeg reads the saved transcode as the WAVE's integers.
        const std::string saved = scratch().path("transcoded.m4a");
        EXPECT_EQ(alac->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
        Decoded theirs, wav;
        ASSERT_TRUE(ffmpeg_decode(saved, theirs));
        ASSERT_TRUE(ffmpeg_decode(fixture(l.channels, l.bits, true), wav));
        std::vector<int32_t> want = integers(wav, l.bits);
        want.resize(4 * 4096 * static_cast<size_t>(l.channels), 0);
        EXPECT_EQ(integers(theirs, l.bits), want);
    }
}

TEST(ClipM4ALAC, CreationCompatibilityAndCookie)
{
    int err = 0;
    EXPECT_EQ(ClipM4ALAC::create_empty(3, 44100.0f, 16, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipM4ALAC::create_empty(2, -1.0f, 16, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));
    err = 0;
    EXPECT_EQ(ClipM4ALAC::create_empty(2, 44100.0f, 20, &err), nullptr);
    EXPECT_EQ(err, fourcc("Eprm"));

    err = -1;
    ClipPtr a(kel_clip_create(KEL_FORMAT_ALAC, 2, 44100.0f, 24, 0, 0, &err));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(err, -1); // written only on failure
    ClipPtr b(ClipM4ALAC::create_empty(2, 44100.0f, 16, &err));
    ClipPtr c(ClipM4ALAC::create_empty(2, 44100.0f, 24, &err));
    ClipPtr wave = open_clip(fixture(2, 16, true), err);
    EXPECT_TRUE(a->will_accept(c.get(), &err));
    EXPECT_EQ(err, 0);
    EXPECT_FALSE(a->will_accept(b.get(), &err));
    EXPECT_EQ(err, fourcc("Ecld"));
    EXPECT_FALSE(a->will_accept(wave.get(), &err));
    EXPECT_EQ(err, fourcc("Eclt"));

    // The clip's width goes into a cookie of the expected layout (history
    // multiplier 40 at byte 30), and into no other.
    auto* deep = as_alac(a);
    auto* shallow = as_alac(b);
    ComponentInstanceRecord* codec = deep->create_codec();
    ASSERT_NE(codec, nullptr);
    unsigned char cookie[48] = {};
    uint32_t size = sizeof cookie;
    ASSERT_EQ(audio_codec_get_property(codec, kPropertyMagicCookie, &size, cookie), 0);
    ASSERT_EQ(size, 48u);
    EXPECT_EQ(cookie[29], 24);
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

// Opens a damaged file; a clip that opens is decoded and saved with a gain
// (which decodes and re-encodes its first packet).
void survive(const Bytes& bytes, const std::string& path)
{
    write_file(path, bytes);
    int err = 0;
    ClipPtr clip = open_clip(path, err);
    if (clip == nullptr) {
        EXPECT_NE(err, 0);
        return;
    }
    EXPECT_EQ(err, 0);
    std::vector<float> l(PacketM4ALAC::kFullFrames * 2), r(PacketM4ALAC::kFullFrames * 2);
    float* out[2] = {l.data(), r.data()};
    for (int i = 0; i < clip->packet_count; ++i) {
        if (clip->packet_frame_count(i, nullptr) <= static_cast<int>(l.size()))
            clip->packet_decode_play(i, out, &err, -1.0f);
    }
    clip->packet_gain(0, 0.5f, &err);
    const std::string saved = path + ".saved.m4a";
    clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, nullptr);
    std::remove(saved.c_str());
}

TEST(ClipM4ALAC, DamagedFilesEndInAClipOrACode)
{
    const Bytes good = read_file(fixture(2, 24));
    ASSERT_GT(good.size(), 2000u);
    const std::string path = scratch().path("bad.m4a");
    for (size_t cut = 0; cut < good.size(); cut += good.size() / 23 + 1)
        survive(Bytes(good.begin(), good.begin() + static_cast<long>(cut)), path);
    // The tables lie at the end of the file: flips there and anywhere.
    std::mt19937 random(20261121);
    for (int round = 0; round < 80; ++round) {
        Bytes bad = good;
        const size_t span = round % 2 == 0 ? 1200 : bad.size();
        for (int k = 0; k < 1 + round % 4; ++k)
            bad[bad.size() - 1 - random() % span] ^= static_cast<unsigned char>(1u << (random() % 8));
        survive(bad, path);
    }
}

} // namespace
} // namespace test
} // namespace KEL
