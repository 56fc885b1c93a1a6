// Padding frames: their byte layout against the reservoir arithmetic worked
// out here from the frames' main-data areas, and, on a lame stream, a cut at
// a frame that borrows from the bit reservoir that decodes like the uncut
// stream once the padding frames stand in front of it.
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "mp3/clipmp3.h"
#include "mp3/packetmp3.h"

#include "mp3fixtures.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using namespace KEL;
using namespace KEL::test;

namespace {

const std::string kMarker = "KEL padding frame";

// Appends a frame: header bytes h0..h3, main_data_begin `begin` in the
// side information (MPEG-1: 9 bits, else 8), random main data up to
// `length` bytes; side is the side-information size. A negative length
// adds a packet of which only the first 8 bytes can be read.
Bytes add_frame(ClipMP3& clip, const std::array<unsigned char, 4>& h, int side, int begin, int length, int bit_rate,
                std::mt19937& rng)
{
    const bool mpeg1 = clip.type == 3;
    Bytes f(static_cast<size_t>(length < 0 ? -length : length), 0);
    std::copy(h.begin(), h.end(), f.begin());
    if (mpeg1) {
        f[4] = static_cast<unsigned char>(begin >> 1);
        f[5] = static_cast<unsigned char>((begin & 1) << 7);
    } else {
        f[4] = static_cast<unsigned char>(begin);
    }
    for (size_t i = 4 + static_cast<size_t>(side); i < f.size(); ++i)
        f[i] = static_cast<unsigned char>(rng());
    BSHandle* handle = nullptr;
    if (length > 0) {
        auto* mem = new BSHandleMem(static_cast<int>(f.size()));
        EXPECT_TRUE(mem->init_with_copy(f.data()));
        handle = mem;
    } else {
        handle = new ShortHandle(f, 8);
    }
    auto* p = new PacketMP3(bit_rate, clip.sample_rate, clip.channels, clip.frames_per_packet(), clip.type, handle);
    handle->release();
    clip.add_packet(p);
    p->release();
    return f;
}

struct Padding {
    std::vector<Bytes> frames;
    std::vector<int> begins;
};

Padding padding_of(ClipMP3& clip, int index, int& err)
{
    Padding out;
    err = -1;
    Clip* pad = clip.create_padding_clip(index, &err);
    if (pad == nullptr)
        return out;
    for (int i = 0; i < pad->packet_count; ++i) {
        auto* p = static_cast<PacketMP3*>(pad->get_packet(i));
        Bytes b(static_cast<size_t>(p->handle->size));
        EXPECT_EQ(p->get_bytes(b.data(), 1.0f), p->handle->size);
        int e = 0;
        out.begins.push_back(p->get_main_data_begin(e));
        out.frames.push_back(b);
    }
    pad->close(nullptr);
    delete pad;
    return out;
}

// The last n bytes of the main-data areas of frames, in stream order.
Bytes tail_of_main_data(const std::vector<Bytes>& frames, size_t static_part, size_t n)
{
    Bytes all;
    for (const Bytes& f : frames)
        all.insert(all.end(), f.begin() + static_cast<long>(static_part), f.end());
    EXPECT_GE(all.size(), n);
    return Bytes(all.end() - static_cast<long>(n), all.end());
}

bool has_marker(const Bytes& f, size_t at)
{
    return f.size() >= at + kMarker.size() && std::memcmp(&f[at], kMarker.data(), kMarker.size()) == 0;
}

// Bytes [from, to) of f are the marker followed by 0x55 filler, cut at to.
bool is_filler(const Bytes& f, size_t from, size_t to)
{
    for (size_t i = from; i < to; ++i) {
        const size_t k = i - from;
        const unsigned char want = k < kMarker.size() ? static_cast<unsigned char>(kMarker[k]) : 0x55;
        if (f[i] != want)
            return false;
    }
    return true;
}

} // namespace

TEST(MP3Padding, FramesCarryTheReservoirInTheirMainDataAreas)
{
    std::mt19937 rng(7);
    // MPEG-1 joint stereo, 44100 Hz: header FF FB, rate index << 4, 0x44.
    // 64 kbit/s frames are 208 bytes, 128 kbit/s 417; static part 36.
    ClipMP3 clip(2, 44100.0f, 3, KELClipStereoModeJointStereo, 64000, nullptr);
    std::vector<Bytes> earlier;
    for (int i = 0; i < 4; ++i)
        earlier.push_back(add_frame(clip, {0xFF, 0xFB, 0x50, 0x44}, 32, 0, 208, 64000, rng));
    add_frame(clip, {0xFF, 0xFB, 0x50, 0x44}, 32, 500, 208, 64000, rng); // packet 4
    add_frame(clip, {0xFF, 0xFB, 0x50, 0x44}, 32, 0, 208, 64000, rng);   // packet 5
    clip.update_stream_info();

    int err = 0;
    Padding pad = padding_of(clip, 4, err);
    ASSERT_EQ(err, 0);
    // Capacity 208 - 36 = 172 per frame: 500 = 156 + 172 + 172.
    ASSERT_EQ(pad.frames.size(), 3u);
    EXPECT_EQ(pad.begins, (std::vector<int>{0, 156, 328}));
    for (const Bytes& f : pad.frames) {
        ASSERT_EQ(f.size(), 208u);
        EXPECT_EQ(Bytes(f.begin(), f.begin() + 4), (Bytes{0xFF, 0xFB, 0x50, 0x64}));
        // Side information zero apart from main_data_begin.
        EXPECT_TRUE(std::all_of(f.begin() + 6, f.begin() + 36, [](unsigned char b) { return b == 0; }));
    }
    // The first frame keeps what of the marker fits before its 156
    // reservoir bytes (16 of its 17 characters); the others are all
    // reservoir.
    EXPECT_TRUE(is_filler(pad.frames[0], 36, 208 - 156));
    EXPECT_FALSE(has_marker(pad.frames[1], 36));
    EXPECT_FALSE(has_marker(pad.frames[2], 36));
    // What the decoder reads back from packet 4: the same 500 bytes.
    EXPECT_EQ(tail_of_main_data(pad.frames, 36, 500), tail_of_main_data(earlier, 36, 500));

    // No reservoir, no padding; out of range; the clip's start reached.
    EXPECT_EQ(clip.create_padding_clip(5, &err), nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip.create_padding_clip(6, &err), nullptr);
    EXPECT_EQ(err, fourcc("EPnm"));

    // 128 kbit/s, 300 bytes back: one frame of 417 bytes, begin 0.
    ClipMP3 wide(2, 44100.0f, 3, KELClipStereoModeStereo, 128000, nullptr);
    earlier = {add_frame(wide, {0xFF, 0xFB, 0x90, 0x04}, 32, 5, 417, 128000, rng)};
    add_frame(wide, {0xFF, 0xFB, 0x90, 0x04}, 32, 300, 417, 128000, rng);
    wide.update_stream_info();
    pad = padding_of(wide, 1, err);
    ASSERT_EQ(pad.frames.size(), 1u);
    EXPECT_EQ(pad.begins[0], 0);
    EXPECT_EQ(Bytes(pad.frames[0].begin(), pad.frames[0].begin() + 4), (Bytes{0xFF, 0xFB, 0x90, 0x04}));
    EXPECT_TRUE(has_marker(pad.frames[0], 36));
    EXPECT_TRUE(is_filler(pad.frames[0], 36, 417 - 300));
    EXPECT_EQ(tail_of_main_data(pad.frames, 417 - 300, 300), tail_of_main_data(earlier, 36, 300));
    EXPECT_EQ(wide.create_padding_clip(0, &err), nullptr);
    EXPECT_EQ(err, fourcc("Epre"));

    // Variable bit rate: 256 kbit/s padding frames (index 13, 835 bytes).
    ClipMP3 vbr(1, 44100.0f, 3, KELClipStereoModeSingleChannel, 0, nullptr);
    add_frame(vbr, {0xFF, 0xFB, 0x50, 0xC4}, 17, 0, 208, 64000, rng);
    add_frame(vbr, {0xFF, 0xFB, 0x90, 0xC4}, 17, 0, 417, 128000, rng);
    add_frame(vbr, {0xFF, 0xFB, 0x50, 0xC4}, 17, 40, 208, 64000, rng);
    vbr.update_stream_info();
    ASSERT_EQ(vbr.is_vbr(), 1);
    pad = padding_of(vbr, 2, err);
    ASSERT_EQ(pad.frames.size(), 1u);
    EXPECT_EQ(pad.frames[0].size(), 835u);
    EXPECT_EQ(Bytes(pad.frames[0].begin(), pad.frames[0].begin() + 4), (Bytes{0xFF, 0xFB, 0xD0, 0xC4}));
    EXPECT_TRUE(has_marker(pad.frames[0], 21));
    for (ClipMP3* c : {&clip, &wide, &vbr})
        c->close(nullptr);
}

TEST(MP3Padding, LowerVersionsAndDamagedPredecessors)
{
    std::mt19937 rng(9);
    // MPEG-2.5 mono 8000 Hz, 16 kbit/s: header FF E3 28 C4, 144-byte
    // frames, 9 bytes of side information, 8-bit main_data_begin.
    ClipMP3 low(1, 8000.0f, 5, KELClipStereoModeSingleChannel, 16000, nullptr);
    std::vector<Bytes> earlier;
    for (int i = 0; i < 2; ++i)
        earlier.push_back(add_frame(low, {0xFF, 0xE3, 0x28, 0xC4}, 9, 0, 144, 16000, rng));
    add_frame(low, {0xFF, 0xE3, 0x28, 0xC4}, 9, 200, 144, 16000, rng);
    low.update_stream_info();
    int err = 0;
    Padding pad = padding_of(low, 2, err);
    ASSERT_EQ(err, 0);
    // Capacity 131: 200 = 69 + 131; the sample-rate index stays 3.
    ASSERT_EQ(pad.frames.size(), 2u);
    EXPECT_EQ(pad.begins, (std::vector<int>{0, 69}));
    EXPECT_EQ(Bytes(pad.frames[1].begin(), pad.frames[1].begin() + 4), (Bytes{0xFF, 0xE3, 0x2C, 0xC4}));
    EXPECT_TRUE(has_marker(pad.frames[0], 13));
    EXPECT_EQ(tail_of_main_data(pad.frames, 13, 200), tail_of_main_data(earlier, 13, 200));

    // A predecessor of nothing but side information, and one whose bytes
    // cannot be read.
    ClipMP3 bad(2, 44100.0f, 3, KELClipStereoModeJointStereo, 128000, nullptr);
    add_frame(bad, {0xFF, 0xFB, 0x90, 0x44}, 32, 0, 417, 128000, rng);
    add_frame(bad, {0xFF, 0xFB, 0x90, 0x44}, 32, 0, 36, 128000, rng);
    add_frame(bad, {0xFF, 0xFB, 0x90, 0x44}, 32, 10, 417, 128000, rng);
    add_frame(bad, {0xFF, 0xFB, 0x90, 0x44}, 32, 0, -417, 128000, rng);
    add_frame(bad, {0xFF, 0xFB, 0x90, 0x44}, 32, 10, 417, 128000, rng);
    EXPECT_EQ(bad.create_padding_clip(2, &err), nullptr);
    EXPECT_EQ(err, fourcc("Ebps"));
    EXPECT_EQ(bad.create_padding_clip(4, &err), nullptr);
    EXPECT_EQ(err, fourcc("Ersz"));
    low.close(nullptr);
    bad.close(nullptr);
}

TEST(MP3Padding, CutAtAReservoirFrameDecodesLikeTheUncutStream)
{
    const std::string path = stream_file(lame_stream("cbr128"));
    int err = 0;
    ClipPtr clip = open_clip(path, err);
    ASSERT_NE(clip, nullptr);
    auto* mp3 = static_cast<ClipMP3*>(clip.get());
    int k = 20;
    for (; k < clip->packet_count - 10; ++k) {
        int e = 0;
        if (static_cast<PacketMP3*>(clip->get_packet(k))->get_main_data_begin(e) > 0)
            break;
    }
    ASSERT_LT(k, clip->packet_count - 10) << "lame used no bit reservoir";

    const Samples whole = ffmpeg_mp3_frames(path);
    const size_t n = 1152;
    auto save_from_k = [&](bool padded, const std::string& name, int& padding_frames) {
        ClipPtr piece(clip->copy(k, clip->packet_count - 1, &err));
        EXPECT_EQ(err, 0);
        padding_frames = 0;
        if (padded) {
            ClipPtr pad(mp3->create_padding_clip(k, &err));
            EXPECT_EQ(err, 0);
            EXPECT_NE(pad, nullptr);
            padding_frames = pad->packet_count;
            piece->insert(0, pad.get(), &err);
            EXPECT_EQ(err, 0);
        }
        const std::string out = scratch().path(name);
        EXPECT_EQ(piece->save_to(out.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
        return ffmpeg_mp3_frames(out);
    };

    // From frame k + 1 on (frame k's own output overlaps its predecessor),
    // sample for sample the uncut decode.
    int p = 0;
    const Samples cut = save_from_k(true, "cut-padded.mp3", p);
    ASSERT_GE(p, 1);
    ASSERT_EQ(cut.left.size(), (p + clip->packet_count - k) * n);
    const size_t from_cut = static_cast<size_t>(p + 1) * n;
    const size_t from_whole = static_cast<size_t>(k + 1) * n;
    const std::vector<float> got(cut.left.begin() + static_cast<long>(from_cut), cut.left.end());
    const std::vector<float> want(whole.left.begin() + static_cast<long>(from_whole), whole.left.end());
    EXPECT_TRUE(same_bits(got, want));
    const std::vector<float> got_r(cut.right.begin() + static_cast<long>(from_cut), cut.right.end());
    const std::vector<float> want_r(whole.right.begin() + static_cast<long>(from_whole), whole.right.end());
    EXPECT_TRUE(same_bits(got_r, want_r));

    // Without them the frame after the cut does not come out right.
    const Samples bare = save_from_k(false, "cut-bare.mp3", p);
    const std::vector<float> bare_next(bare.left.begin() + static_cast<long>(n),
                                       bare.left.begin() + static_cast<long>(2 * n));
    const std::vector<float> want_next(whole.left.begin() + static_cast<long>(from_whole),
                                       whole.left.begin() + static_cast<long>(from_whole + n));
    EXPECT_FALSE(same_bits(bare_next, want_next));
}
