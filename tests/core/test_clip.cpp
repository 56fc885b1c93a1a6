// The clip's packet array, stream statistics and closing.
#include "common/testsupport.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/bshandlemem.h"
#include "core/fourcc.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

// A packet of `frames` frames whose handle claims `bytes` bytes.
Packet* sized_packet(float rate, int frames, int bytes, int bit_rate)
{
    auto* handle = new BSHandleMem(bytes);
    auto* p = new FakePacket(rate, frames, handle);
    p->bit_rate = bit_rate;
    handle->release();
    return p;
}

void add(Clip& clip, Packet* p)
{
    clip.add_packet(p);
    p->release();
}

} // namespace

TEST(ClipArray, BoundsCheckedAccess)
{
    FakeClip clip(44100.0f, 1024, nullptr);
    add(clip, sized_packet(44100.0f, 100, 10, 0));
    add(clip, sized_packet(44100.0f, 200, 10, 0));
    EXPECT_EQ(clip.get_packet(-1), nullptr);
    EXPECT_EQ(clip.get_packet(2), nullptr);
    EXPECT_NE(clip.get_packet(1), nullptr);
    int err = 0;
    EXPECT_EQ(clip.packet_frame_count(1, &err), 200);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(clip.packet_frame_count(2, &err), 0);
    EXPECT_EQ(err, fourcc("EPnm"));
    EXPECT_EQ(clip.packet_frame_count(-1, nullptr), 0);
    float v = 7.0f;
    clip.packet_get_rms_cache(5, &v);
    EXPECT_EQ(v, 7.0f);
    EXPECT_EQ(clip.packet_is_wave_cache_valid(9), 0);
}

TEST(ClipArray, CopyPacketsAndUsePacketsRetain)
{
    FakeClip source(44100.0f, 1024, nullptr);
    for (int i = 0; i < 3; ++i)
        add(source, sized_packet(44100.0f, 441, 100, 0));
    auto* array = new Packet*[3];
    source.copy_packets(array);
    EXPECT_EQ(source.packets[0]->retain_count(), 2);
    FakeClip copy(44100.0f, 1024, nullptr);
    copy.UsePackets(array, 3);
    EXPECT_EQ(source.packets[0]->retain_count(), 3);
    EXPECT_FLOAT_EQ(copy.duration(), 0.03f);
    for (int i = 0; i < 3; ++i)
        array[i]->release(); // the references copy_packets handed out
    copy.close(nullptr);
    EXPECT_EQ(source.packets[2]->retain_count(), 1);
    source.close(nullptr);
}

// Constant rate: the common packet rate; variable: bytes * 8 over the
// seconds, rounded half to even (the PCM cases land exactly on .5).
TEST(ClipStats, BitRateDurationAndRateMode)
{
    struct Packets {
        int count, frames, bytes, bit_rate;
    };
    struct Case {
        float rate;
        std::vector<Packets> packets;
        int vbr, bit_rate;
        double duration;
    };
    const Case cases[] = {
        {44100.0f, {{4, 1152, 417, 128000}}, 0, 128000, 4 * 1152 / 44100.0},
        {1000.0f, {{1, 1000, 1000, 320000}, {3, 1000, 1000, 128000}}, 1, 8000, 4.0}, // only the first differs
        {1.0f, {{1, 16, 1, 0}}, 0, 0, 16.0},
        {1.0f, {{1, 16, 3, 0}}, 0, 2, 16.0},
        {1.0f, {{1, 16, 5, 0}}, 0, 2, 16.0},
        {1.0f, {{1, 16, 7, 0}}, 0, 4, 16.0},
        {44100.0f, {}, 0, 0, 0.0},
    };
    for (const Case& c : cases) {
        FakeClip clip(c.rate, 1024, nullptr);
        for (const Packets& p : c.packets)
            for (int i = 0; i < p.count; ++i)
                add(clip, sized_packet(c.rate, p.frames, p.bytes, p.bit_rate));
        clip.update_stream_info();
        EXPECT_EQ(clip.is_vbr(), c.vbr);
        EXPECT_EQ(clip.bit_rate(), c.bit_rate);
        EXPECT_FLOAT_EQ(clip.duration(), static_cast<float>(c.duration));
    }
}

TEST(ClipStore, CopyOutlivesSourceClipAndSourceFile)
{
    // A file of 4 packets of 256 interleaved stereo float frames.
    const int frames = 256, packets = 4;
    std::vector<float> samples(static_cast<size_t>(frames) * 2 * packets);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(static_cast<int>(i * 7919 % 2001) - 1000) / 1000.0f;
    const std::string path = temp_file_with(samples.data(), samples.size() * 4, "kel-clip");
    ASSERT_FALSE(path.empty());

    const int before = open_descriptors();
    auto* store = new BSFile;
    ASSERT_TRUE(store->open(path.c_str()));
    auto* source = new FakeClip(44100.0f, frames, store);
    for (int p = 0; p < packets; ++p) {
        BSHandleFile* h = store->NewHandle(static_cast<long long>(p) * frames * 8, frames * 8);
        auto* packet = new FakePacket(44100.0f, frames, h);
        h->release();
        source->add_packet(packet);
        packet->release();
    }
    source->update_stream_info();

    Clip* copy = source->NewClip(nullptr);
    auto* shared = new Packet*[2];
    for (int i = 0; i < 2; ++i)
        shared[i] = source->packets[i + 2];
    copy->UsePackets(shared, 2);

    source->close(nullptr);
    delete source;
    EXPECT_EQ(open_descriptors(), before + 1) << "the source is closed, the scratch file open";
    ASSERT_EQ(unlink(path.c_str()), 0);

    const FakeClip::Lanes d = static_cast<FakeClip*>(copy)->decode_all();
    ASSERT_EQ(d.left.size(), static_cast<size_t>(2 * frames));
    for (int i = 0; i < 2 * frames; ++i) {
        ASSERT_EQ(d.left[i], samples[(2 * frames + i) * 2]) << i;
        ASSERT_EQ(d.right[i], samples[(2 * frames + i) * 2 + 1]) << i;
    }
    copy->close(nullptr);
    delete copy;
    EXPECT_EQ(open_descriptors(), before) << "the last packet gone, the scratch file goes";
}
