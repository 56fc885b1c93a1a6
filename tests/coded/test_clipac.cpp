// The codec-component clip contract, driven through the MP3 decoder with a
// test clip whose packets log every read of their bytes: which packets are
// fed for warm-up and ahead, when the codec is reset, how output reaches
// the two float channels (float and integer paths), and the failures.
#include "codec/codectypes.h"
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "coded/clipac.h"
#include "coded/packetac.h"
#include "common/oracle.h"

#include <gtest/gtest.h>


using namespace KEL;
using namespace KEL::test;

namespace {

// A lame stream of test_wave() and ffmpeg's decode of all its frames.
std::string mp3_file(int channels)
{
    return lame_file(channels == 1 ? "mono" : "stereo", 44100, channels, {"-b", channels == 1 ? "64" : "128"});
}

Samples ffmpeg_decode_mp3(int channels)
{
    return ffmpeg_frames(mp3_file(channels), {"-flags2", "+skip_manual"});
}

std::vector<float> slice(const std::vector<float>& v, int packet, int frames = 1152)
{
    return std::vector<float>(v.begin() + packet * frames, v.begin() + (packet + 1) * frames);
}

// Logs its index whenever its bytes are read (once per feed to the codec).
class LoggedPacket : public PacketAC {
public:
    LoggedPacket(int index, std::vector<int>* log, BSHandle* handle, int channels, int frames, bool inline_gain)
        : PacketAC(128000, 44100.0f, channels, frames, handle), index_(index), log_(log), inline_(inline_gain)
    {
    }
    Type type() const override { return TypeMP3v1; }
    int get_bytes(void* dest, float gain) override
    {
        log_->push_back(index_);
        return Packet::get_bytes(dest, gain);
    }
    Packet* copy() override { return nullptr; }
    bool can_change_gain_inline() override { return inline_; }

private:
    int index_;
    std::vector<int>* log_;
    bool inline_;
};

// Not a codec packet at all.
class ForeignPacket : public Packet {
public:
    ForeignPacket() : Packet(0, 44100.0f, 2, 1152, nullptr) {}
    Type type() const override { return TypeWAVE; }
    Packet* copy() override { return nullptr; }
};

struct ProbeSetup {
    int channels = 2;
    int bits = 16;
    int back = 3;
    int fwd = 2;
    bool integer = false;
    int setup_result = 0;
    int32_t subtype = kFormatMP3;
};

class ProbeClip : public ClipAC {
public:
    explicit ProbeClip(const ProbeSetup& s) : ClipAC(s.channels, 44100.0f, s.bits, nullptr), s_(s) {}
    ~ProbeClip() override { close(nullptr); }

    int32_t component_subtype() override { return s_.subtype; }
    int32_t format_id() override { return kFormatMP3; }
    int frames_per_packet() override { return 1152; }
    int nbackpackets() override { return s_.back; }
    int nfwdpackets() override { return s_.fwd; }
    bool codec_outputs_integer_samples() override { return s_.integer; }
    int specific_codec_setup(ComponentInstanceRecord*) override { return s_.setup_result; }

    int save_to(const char*, const void*, int, const void*, int, int*, _kel_progress_ext_t*) override { return 0; }
    void get_info(_kel_clip_info_t*) override {}
    ClipEncoder* create_encoder(float) override { return nullptr; }
    bool will_accept(Clip*, int*) override { return false; }
    Clip* NewClip(BSFile*) override { return nullptr; }

    // Appends a logged packet over handle; null gives one with no bytes.
    LoggedPacket* add(BSHandle* handle, int frames = 1152, bool inline_gain = true)
    {
        BSHandleMem* none = nullptr;
        if (handle == nullptr) {
            none = new BSHandleMem(0);
            none->init_with_copy(nullptr);
            handle = none;
        }
        auto* p = new LoggedPacket(packet_count, &log, handle, s_.channels, frames, inline_gain);
        if (none != nullptr)
            none->release();
        add_packet(p);
        p->release();
        return p;
    }
    // Decodes index for playback and returns the packets fed meanwhile.
    std::vector<int> play(int index, float** out, int& frames, int& err)
    {
        log.clear();
        err = 0;
        frames = packet_decode_play(index, out, &err, -1.0f);
        return log;
    }

    std::vector<int> log;

private:
    ProbeSetup s_;
};

struct Buffers {
    explicit Buffers(int frames = 1152) : l(static_cast<size_t>(frames), 7.0f), r(static_cast<size_t>(frames), 7.0f) {}
    float** get() { return ptrs; }
    std::vector<float> l, r;
    float* ptrs[2] = {l.data(), r.data()};
};

} // namespace

TEST(ClipACDecode, WarmUpResetsUntilPrimedThenRunsOn)
{
    int err = 0;
    ClipPtr source = open_clip(mp3_file(2), err);
    ASSERT_NE(source, nullptr);
    const Samples ref = ffmpeg_decode_mp3(2);
    ProbeClip clip(ProbeSetup{});
    for (int i = 0; i < 20; ++i)
        clip.add(source->get_packet(i)->handle);

    // index: packets fed (warm-up first, then the wanted one).
    const std::vector<std::pair<int, std::vector<int>>> steps = {
        {0, {0}},          {1, {0, 1}},  {2, {0, 1, 2}}, {3, {3}}, {4, {4}},
        {10, {7, 8, 9, 10}}, {11, {11}}, {11, {8, 9, 10, 11}}, {12, {12}},
    };
    Buffers b;
    for (const auto& [index, fed] : steps) {
        SCOPED_TRACE(index);
        int frames = 0;
        EXPECT_EQ(clip.play(index, b.get(), frames, err), fed);
        EXPECT_EQ(frames, 1152);
        EXPECT_EQ(err, 0);
        // From the start the codec has the whole history: exact.
        if (index <= 4) {
            EXPECT_TRUE(same_bits(b.l, slice(ref.left, index)));
            EXPECT_TRUE(same_bits(b.r, slice(ref.right, index)));
        }
    }

    // Without output buffers the packet still goes through the codec and
    // counts as delivered: the next index follows on without a reset.
    int frames = 0;
    EXPECT_EQ(clip.play(13, nullptr, frames, err), std::vector<int>{13});
    EXPECT_EQ(frames, 1152);
    float* half[2] = {b.l.data(), nullptr};
    EXPECT_EQ(clip.play(14, half, frames, err), std::vector<int>{14});
    EXPECT_EQ(frames, 1152);

    // The envelope scales the delivered frames.
    std::vector<float> env(1152);
    for (size_t i = 0; i < env.size(); ++i)
        env[i] = static_cast<float>(i) / 1152.0f;
    Buffers plain, shaped;
    clip.play(2, plain.get(), frames, err);
    clip.get_packet(2)->gain_envelope(env.data(), 1152);
    clip.play(2, shaped.get(), frames, err);
    for (size_t i = 0; i < env.size(); ++i)
        ASSERT_EQ(shaped.r[i], plain.r[i] * env[i]) << i;
}

TEST(ClipACDecode, InputHungerShortOutputAndBadIndexes)
{
    int err = 0;
    ClipPtr source = open_clip(mp3_file(2), err);
    ASSERT_NE(source, nullptr);
    ProbeSetup setup;
    setup.back = 1;
    setup.fwd = 2;
    ProbeClip clip(setup);
    for (int i = 0; i < 5; ++i)
        clip.add(source->get_packet(i)->handle);
    for (int i = 5; i < 9; ++i)
        clip.add(nullptr);           // 5..8 feed nothing
    clip.add(source->get_packet(9)->handle);
    clip.add(source->get_packet(10)->handle, 1200); // decodes short
    clip.add(nullptr);               // 11, the last

    Buffers b(1200);
    int frames = -1;
    // The codec asks for more through the wanted packet and nfwdpackets
    // more: "Edec".
    EXPECT_EQ(clip.play(5, b.get(), frames, err), (std::vector<int>{4, 5, 6, 7}));
    EXPECT_EQ(frames, 0);
    EXPECT_EQ(err, fourcc("Edec"));
    // Within reach of a real frame the output comes from it.
    EXPECT_EQ(clip.play(7, b.get(), frames, err), (std::vector<int>{6, 7, 8, 9}));
    EXPECT_EQ(frames, 1152);
    EXPECT_EQ(err, 0);
    // Short output: the packet's whole length, silent.
    EXPECT_EQ(clip.play(10, b.get(), frames, err), (std::vector<int>{9, 10}));
    EXPECT_EQ(frames, 1200);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(b.l, std::vector<float>(1200, 0.0f));
    EXPECT_EQ(b.r, std::vector<float>(1200, 0.0f));
    // The clip ends before any output (10 was delivered and the codec is
    // primed: no reset).
    EXPECT_EQ(clip.play(11, b.get(), frames, err), std::vector<int>{11});
    EXPECT_EQ(err, fourcc("Edec"));

    for (int bad : {-1, clip.packet_count}) {
        EXPECT_EQ(clip.play(bad, b.get(), frames, err), std::vector<int>{});
        EXPECT_EQ(err, fourcc("EPnm"));
    }
    // A packet of another kind in the array, as the wanted one or for warm-up.
    auto* foreign = new ForeignPacket;
    clip.add_packet(foreign);
    foreign->release();
    clip.add(source->get_packet(11)->handle);
    EXPECT_EQ(clip.play(12, b.get(), frames, err), std::vector<int>{11});
    EXPECT_EQ(err, fourcc("EILC"));
    EXPECT_EQ(clip.play(13, b.get(), frames, err), std::vector<int>{});
    EXPECT_EQ(err, fourcc("EILC"));
}

TEST(ClipACDecode, IntegerOutputKeepsTheMonoDifference)
{
    for (int channels : {1, 2}) {
        for (int bits : {16, 24}) {
            SCOPED_TRACE(channels * 100 + bits);
            int err = 0;
            ClipPtr source = open_clip(mp3_file(channels), err);
            ASSERT_NE(source, nullptr);
            const Samples ref = ffmpeg_decode_mp3(channels);
            ProbeSetup setup;
            setup.channels = channels;
            setup.bits = bits;
            setup.integer = true;
            ProbeClip clip(setup);
            for (int i = 0; i < 8; ++i) {
                // Packets that cannot change gain in their bytes are scaled
                // when their samples are converted.
                LoggedPacket* p = clip.add(source->get_packet(i)->handle, 1152, i < 4);
                p->gain = 0.5f;
            }
            const double step = bits == 16 ? 1.0 / 32768.0 : 1.0 / 8388608.0;
            for (int i = 0; i < 8; ++i) {
                Buffers b;
                int frames = 0;
                clip.play(i, b.get(), frames, err);
                ASSERT_EQ(frames, 1152);
                const double scale = i < 4 ? 1.0 : 0.5;
                const std::vector<float> want_l = slice(ref.left, i);
                const std::vector<float> want_r = slice(ref.right, i);
                for (size_t k = 0; k < 1152; ++k) {
                    ASSERT_NEAR(b.l[k], want_l[k] * scale, step) << i << ":" << k;
                    if (channels == 2)
                        ASSERT_NEAR(b.r[k], want_r[k] * scale, step) << i << ":" << k;
                    else if (bits == 16)
                        ASSERT_EQ(b.r[k], b.l[k]);
                    else
                        ASSERT_EQ(b.r[k], 0.0f); // 24-bit mono: left only
                }
            }
        }
    }
}

TEST(ClipACCodecs, WithoutACodecNothingIsCreated)
{
    int err = 0;
    ClipPtr source = open_clip(mp3_file(2), err);
    ASSERT_NE(source, nullptr);
    // A component that does not exist, and one the clip's setup refuses.
    for (bool unknown : {false, true}) {
        ProbeSetup setup;
        if (unknown)
            setup.subtype = fourcc("none");
        else
            setup.setup_result = 1;
        ProbeClip broken(setup);
        broken.add(source->get_packet(0)->handle);
        EXPECT_EQ(broken.create_codec(), nullptr);
        EXPECT_FALSE(broken.init_codec());
        EXPECT_EQ(broken.create_overview(nullptr), nullptr);
        EXPECT_EQ(broken.create_decoder(), nullptr);
        Buffers b;
        int frames = -1;
        EXPECT_EQ(broken.play(0, b.get(), frames, err), std::vector<int>{});
        EXPECT_EQ(frames, 0);
        EXPECT_EQ(err, fourcc("Ecod"));
    }
}
