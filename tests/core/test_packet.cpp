// Packet caches, envelopes, state copying and the packet pool.
#include "core/bshandlemem.h"
#include "fakeformat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

struct Released {
    void operator()(Packet* p) const { p->release(); }
};
using PacketPtr = std::unique_ptr<Packet, Released>;

PacketPtr make_packet(int frames)
{
    auto* handle = new BSHandleMem(frames * 8);
    PacketPtr p(new FakePacket(44100.0f, frames, handle));
    handle->release();
    return p;
}

// Eight (maximum, minimum) pairs: pair j spans frames [j*seg, (j+1)*seg),
// the last pair also the frames left over; the extremes start at 0 and are
// clamped to full scale. RMS of the mono mix.
TEST(PacketWaveCache, EightSegmentsWithRemainderInLastPair)
{
    for (int frames : {1152, 4100, 64, 71}) {
        SCOPED_TRACE(frames);
        PacketPtr p = make_packet(frames);
        std::vector<float> l(frames), r(frames);
        for (int i = 0; i < frames; ++i) {
            l[i] = 0.9f * std::sin(0.013f * static_cast<float>(i * i % 977));
            r[i] = 0.5f * std::cos(0.021f * static_cast<float>(i));
        }
        l[frames - 1] = -0.999f; // a spike in the very last frame lands in the eighth pair
        float* ch[2] = {l.data(), r.data()};
        p->make_wave_cache(ch, frames, nullptr);
        ASSERT_EQ(p->wave_cache_valid, 1);
        const int seg = frames / 8;
        for (int pair = 0; pair < 8; ++pair) {
            double hi = 0.0, lo = 0.0;
            for (int i = pair * seg; i < (pair == 7 ? frames : (pair + 1) * seg); ++i) {
                hi = std::fmax(hi, std::fmax(l[i], r[i]));
                lo = std::fmin(lo, std::fmin(l[i], r[i]));
            }
            EXPECT_EQ(p->wave_cache[2 * pair], static_cast<float>(std::fmin(hi, 1.0))) << pair;
            EXPECT_EQ(p->wave_cache[2 * pair + 1], static_cast<float>(std::fmax(lo, -1.0))) << pair;
        }
        EXPECT_EQ(p->wave_cache[15], -0.999f);
        double sum = 0.0;
        for (int i = 0; i < frames; ++i)
            sum += (l[i] + r[i]) * 0.5 * ((l[i] + r[i]) * 0.5);
        EXPECT_NEAR(p->rms, std::sqrt(sum / frames), 1e-5);
    }
}

TEST(PacketWaveCache, ClampsZeroLineAndIgnoresSecondCallAndMismatch)
{
    PacketPtr p = make_packet(64);
    std::vector<float> up(64, 0.25f), big(64, 3.0f);
    float* positive[2] = {up.data(), up.data()};
    float* loud[2] = {big.data(), big.data()};
    p->make_wave_cache(positive, 63, nullptr); // wrong length: nothing
    EXPECT_EQ(p->wave_cache_valid, 0);
    p->make_wave_cache(positive, 64, nullptr);
    EXPECT_EQ(p->wave_cache[0], 0.25f);
    EXPECT_EQ(p->wave_cache[1], 0.0f) << "an all-positive segment keeps minimum 0";
    p->make_wave_cache(loud, 64, nullptr);
    EXPECT_EQ(p->wave_cache[0], 0.25f) << "a valid cache is never recomputed";
    PacketPtr q = make_packet(64);
    float caller[16];
    q->make_wave_cache(loud, 64, caller);
    EXPECT_EQ(q->wave_cache_valid, 0) << "a caller buffer leaves the packet's cache alone";
    EXPECT_EQ(caller[0], 1.0f) << "samples above full scale are stored as 1.0";
    PacketPtr tiny = make_packet(5);
    tiny->make_wave_cache(positive, 5, nullptr);
    EXPECT_EQ(tiny->wave_cache_valid, 0) << "fewer than 8 frames keep no cache";
}

TEST(PacketWaveCache, ReadsApplyGain)
{
    PacketPtr p = make_packet(64);
    for (int i = 0; i < 16; ++i)
        p->wave_cache[i] = (i % 2 ? -0.1f : 0.1f) * static_cast<float>(i + 1) / 16.0f;
    p->wave_cache[9] = -1.0f;
    p->wave_cache[12] = 1.5f; // after the first full-scale value: ignored
    p->rms = 0.3f;
    p->gain = 2.0f;
    float out[16];
    p->get_wave_cache(out);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(out[i], p->wave_cache[i] * 2.0f);
    p->get_wave_cache_raw(out);
    EXPECT_EQ(out[3], p->wave_cache[3]);
    float v = 0.0f;
    p->get_rms_cache(&v);
    EXPECT_EQ(v, 0.6f);
    p->get_rms_cache_raw(&v);
    EXPECT_EQ(v, 0.3f);
    p->get_max_sample_cache(&v);
    EXPECT_EQ(v, 2.0f) << "the scan stops at the first value reaching 1.0";
}

TEST(PacketEnvelope, AccumulatesAppliesOncePerBufferAndClearsOnMismatch)
{
    PacketPtr p = make_packet(4);
    const float a[4] = {1.0f, 0.5f, 0.25f, 0.0f}, b[4] = {0.5f, 0.5f, 2.0f, 3.0f};
    p->gain_envelope(a, 4);
    p->gain_envelope(b, 4);
    int frames = 0;
    const float* env = p->gain_envelope(frames);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(frames, 4);
    EXPECT_EQ(std::vector<float>(env, env + 4), (std::vector<float>{0.5f, 0.25f, 0.5f, 0.0f}));
    // Mono material comes as the same buffer twice: scaled once; a longer
    // buffer stops at the envelope's end.
    std::vector<float> mono = {0.8f, 0.8f, 0.8f, 0.8f, 0.7f};
    float* same[2] = {mono.data(), mono.data()};
    p->apply_gain_envelope(same, 5);
    EXPECT_EQ(mono, (std::vector<float>{0.4f, 0.2f, 0.4f, 0.0f, 0.7f}));
    p->gain_envelope(a, 3);
    EXPECT_EQ(p->gain_envelope(frames), nullptr);
    p->gain_envelope(a, 4);
    p->gain_envelope(nullptr, 4);
    EXPECT_EQ(p->envelope, nullptr);
}

TEST(PacketCopy, StateIsDuplicatedAndTheCachePrecedesTheEnvelope)
{
    PacketPtr p = make_packet(8);
    const float env[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    p->gain = 0.25f;
    p->gain_envelope(env, 8);
    p->wave_cache_valid = 1;
    p->wave_cache[5] = -0.5f;
    PacketPtr c(p->copy());
    EXPECT_EQ(c->handle, p->handle);
    EXPECT_EQ(p->handle->retain_count(), 2);
    EXPECT_EQ(c->gain, 0.25f);
    EXPECT_EQ(c->wave_cache_valid, 1);
    EXPECT_EQ(c->wave_cache[5], -0.5f);
    ASSERT_NE(c->envelope, nullptr);
    EXPECT_NE(c->envelope, p->envelope);
    EXPECT_EQ(c->envelope[7], 8.0f);

    // copy_packet_data: gain, envelopes combined by multiplication...
    PacketPtr from = make_packet(4), to = make_packet(4);
    const float half[4] = {0.5f, 0.5f, 0.5f, 0.5f};
    from->gain = 0.7f;
    from->gain_envelope(half, 4);
    to->copy_packet_data(from.get());
    to->copy_packet_data(from.get());
    EXPECT_EQ(to->gain, 0.7f);
    ASSERT_NE(to->envelope, nullptr);
    EXPECT_EQ(to->envelope[2], 0.25f);
    // ... but a valid cache is copied without its flag, and stops there.
    from->wave_cache_valid = 1;
    from->wave_cache[0] = 0.9f;
    from->rms = 0.4f;
    PacketPtr plain = make_packet(4);
    plain->copy_packet_data(from.get());
    EXPECT_EQ(plain->wave_cache[0], 0.9f);
    EXPECT_EQ(plain->wave_cache_valid, 0);
    EXPECT_EQ(plain->rms, 0.0f);
    EXPECT_EQ(plain->envelope, nullptr);
}

// Packets and handles of several sizes, created and released in a
// scrambled order, must never share storage.
TEST(PacketPool, ManyPacketsAndHandlesKeepTheirOwnMemory)
{
    std::vector<Packet*> packets;
    for (int i = 0; i < 20000; ++i) {
        auto* handle = new BSHandleMem(i % 7 + 1);
        Packet* p = new FakePacket(static_cast<float>(i), i, handle);
        handle->release();
        p->format_value = i;
        p->wave_cache[15] = static_cast<float>(-i);
        packets.push_back(p);
    }
    uint32_t seed = 12345;
    for (size_t i = packets.size() - 1; i > 0; --i) {
        seed = seed * 1664525u + 1013904223u;
        std::swap(packets[i], packets[seed % (i + 1)]);
    }
    for (size_t k = 0; k < packets.size(); ++k) {
        Packet* p = packets[k];
        const int i = p->format_value;
        ASSERT_EQ(p->frame_count, i);
        ASSERT_EQ(p->sample_rate, static_cast<float>(i));
        ASSERT_EQ(p->wave_cache[15], static_cast<float>(-i));
        ASSERT_EQ(p->handle->size, i % 7 + 1);
        p->release();
        if (k % 3 == 0) { // reuse freed memory at once
            auto* h = new BSHandleMem(99);
            Packet* q = new FakePacket(1.0f, -1, h);
            h->release();
            q->release();
        }
    }
}

} // namespace
