// Tests of the two-lane ring buffer: sizing, null lanes, flushing, a random
// walk against a simple queue model (which also crosses the wrap at every
// size), and one writer and one reader on two threads.

#include "rbuffer/rbuffer2.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

struct Destroy {
    void operator()(rbuffer2* rb) const { rbuffer2_destroy(rb); }
};
using Buffer = std::unique_ptr<rbuffer2, Destroy>;

// Bytes start, start+1, ... (mod 256) for lane A and their complements
// for lane B, so that a swap of lanes or a stray byte shows.
std::vector<unsigned char> ramp(int n, int start)
{
    std::vector<unsigned char> v(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k)
        v[static_cast<size_t>(k)] = static_cast<unsigned char>(start + k);
    return v;
}

std::vector<unsigned char> complement(std::vector<unsigned char> v)
{
    for (auto& c : v)
        c = static_cast<unsigned char>(~c);
    return v;
}

int write_ramp(rbuffer2* rb, int n, int start)
{
    const auto a = ramp(n, start);
    const auto b = complement(a);
    return rbuffer2_write(rb, a.data(), b.data(), n);
}

std::pair<int, int> positions(rbuffer2* rb)
{
    int r = -1, w = -1;
    KEL::rbuffer2_positions(rb, &r, &w);
    return {r, w};
}

// Reads up to n bytes and checks both lanes against the ramp from start.
void expect_read_ramp(rbuffer2* rb, int n, int expected, int start)
{
    std::vector<unsigned char> a(static_cast<size_t>(n) + 1, 0xEE), b(a);
    ASSERT_EQ(rbuffer2_read(rb, a.data(), b.data(), n), expected);
    a.resize(static_cast<size_t>(expected));
    b.resize(static_cast<size_t>(expected));
    EXPECT_EQ(a, ramp(expected, start));
    EXPECT_EQ(b, complement(ramp(expected, start)));
}

// Any size from 1 up holds exactly that many bytes; sizes whose lanes would
// overflow an int are refused.
TEST(RBuffer2Size, CapacityIsTheSizeAskedFor)
{
    for (int size = 1; size <= 70; ++size) {
        Buffer rb(rbuffer2_create(size, 0));
        ASSERT_TRUE(rb);
        EXPECT_EQ(rbuffer2_size(rb.get()), size);
        EXPECT_EQ(rbuffer2_free_space(rb.get()), size);
        EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);
    }
    EXPECT_EQ(rbuffer2_create(-1, 0), nullptr);
    EXPECT_EQ(rbuffer2_create(INT_MIN, 0), nullptr);
    EXPECT_EQ(rbuffer2_create(INT_MAX, 0), nullptr);
    // (size + 3) * 2 is INT_MAX + 1 here.
    EXPECT_EQ(rbuffer2_create(INT_MAX / 2 - 2, 0), nullptr);

    Buffer rb(rbuffer2_create(16, 0));
    ASSERT_TRUE(rb);
    ASSERT_EQ(write_ramp(rb.get(), 8, 0), 8);
    EXPECT_EQ(rbuffer2_set_size(rb.get(), -4), -1);
    EXPECT_EQ(rbuffer2_size(rb.get()), 0);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);
    EXPECT_EQ(write_ramp(rb.get(), 8, 0), 0);
}

TEST(RBuffer2Size, ZeroSizeMovesNothing)
{
    Buffer rb(rbuffer2_create(12, 0));
    ASSERT_TRUE(rb);
    ASSERT_EQ(write_ramp(rb.get(), 5, 0), 5);
    ASSERT_EQ(rbuffer2_set_size(rb.get(), 0), 0);
    EXPECT_EQ(rbuffer2_size(rb.get()), 0);
    EXPECT_EQ(rbuffer2_free_space(rb.get()), 0);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);
    EXPECT_EQ(write_ramp(rb.get(), 5, 0), 0);
    unsigned char a[8], b[8];
    EXPECT_EQ(rbuffer2_read(rb.get(), a, b, 8), 0);
    rbuffer2_flush(rb.get());
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);

    // A new size drops what was there and starts empty.
    ASSERT_EQ(rbuffer2_set_size(rb.get(), 6), 0);
    EXPECT_EQ(rbuffer2_free_space(rb.get()), 6);
    EXPECT_EQ(write_ramp(rb.get(), 9, 40), 6);
    expect_read_ramp(rb.get(), 9, 6, 40);

    Buffer empty(rbuffer2_create(0, 1));
    ASSERT_TRUE(empty);
    EXPECT_EQ(write_ramp(empty.get(), 4, 0), 0);
}

TEST(RBuffer2Lanes, NullSourcesAndDestinations)
{
    Buffer rb(rbuffer2_create(32, 0));
    ASSERT_TRUE(rb);
    const auto a = ramp(8, 0);
    EXPECT_EQ(rbuffer2_write(rb.get(), a.data(), nullptr, 8), 0);
    EXPECT_EQ(rbuffer2_write(rb.get(), nullptr, a.data(), 8), 0);
    EXPECT_EQ(rbuffer2_write(rb.get(), a.data(), a.data(), -3), 0);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);

    ASSERT_EQ(write_ramp(rb.get(), 12, 0), 12);
    // Both destinations null: the bytes are consumed all the same.
    EXPECT_EQ(rbuffer2_read(rb.get(), nullptr, nullptr, 4), 4);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 8);
    // One lane only.
    std::vector<unsigned char> b(4);
    EXPECT_EQ(rbuffer2_read(rb.get(), nullptr, b.data(), 4), 4);
    EXPECT_EQ(b, complement(ramp(4, 4)));
    expect_read_ramp(rb.get(), 4, 4, 8);
}

TEST(RBuffer2Flush, DropsUnreadDataAndKeepsTheWritePosition)
{
    Buffer rb(rbuffer2_create(10, 0));
    ASSERT_TRUE(rb);
    ASSERT_EQ(write_ramp(rb.get(), 7, 0), 7);
    expect_read_ramp(rb.get(), 2, 2, 0);
    rbuffer2_flush(rb.get());
    EXPECT_EQ(positions(rb.get()), std::make_pair(7, 7));
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);
    EXPECT_EQ(rbuffer2_free_space(rb.get()), 10);
    // Reading resumes where the writer stands, across the wrap.
    EXPECT_EQ(write_ramp(rb.get(), 10, 50), 10);
    expect_read_ramp(rb.get(), 10, 10, 50);

    ASSERT_EQ(write_ramp(rb.get(), 6, 0), 6);
    rbuffer2_flush_w(rb.get());
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);

    ASSERT_EQ(write_ramp(rb.get(), 4, 0), 4);
    rbuffer2_flush_sync(rb.get());
    EXPECT_EQ(positions(rb.get()), std::make_pair(0, 0));
    EXPECT_EQ(rbuffer2_free_space(rb.get()), 10);
    EXPECT_EQ(write_ramp(rb.get(), 10, 70), 10);
    expect_read_ramp(rb.get(), 10, 10, 70);
}

TEST(RBuffer2Flush, ReadGivesUpWhileTheLockIsHeld)
{
    Buffer rb(rbuffer2_create(16, 0));
    ASSERT_TRUE(rb);
    ASSERT_EQ(write_ramp(rb.get(), 6, 0), 6);
    KEL::rbuffer2_lock_reader(rb.get());
    unsigned char a[6], b[6];
    EXPECT_EQ(rbuffer2_read(rb.get(), a, b, 6), 0);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 6);
    KEL::rbuffer2_unlock_reader(rb.get());
    expect_read_ramp(rb.get(), 6, 6, 0);
}

TEST(RBuffer2Model, RandomWalkMatchesAQueue)
{
    std::mt19937 rng(1234);
    for (int capacity : {1, 3, 4, 10, 13, 64}) {
        for (int locked = 0; locked < 2; ++locked) {
            Buffer rb(rbuffer2_create(capacity, locked));
            ASSERT_TRUE(rb);
            std::deque<std::pair<unsigned char, unsigned char>> model;
            unsigned char next = 0;
            for (int step = 0; step < 3000; ++step) {
                const int want = static_cast<int>(rng() % static_cast<unsigned>(capacity + 3));
                if (rng() % 2) {
                    std::vector<unsigned char> a(static_cast<size_t>(want) + 1), b(a);
                    for (int k = 0; k < want; ++k) {
                        a[static_cast<size_t>(k)] = next;
                        b[static_cast<size_t>(k)] = static_cast<unsigned char>(next * 7 + 1);
                        ++next;
                    }
                    const int expected = std::min(want, capacity - static_cast<int>(model.size()));
                    ASSERT_EQ(rbuffer2_write(rb.get(), a.data(), b.data(), want), expected);
                    for (int k = 0; k < expected; ++k)
                        model.emplace_back(a[static_cast<size_t>(k)], b[static_cast<size_t>(k)]);
                    next = static_cast<unsigned char>(next - (want - expected));
                } else {
                    std::vector<unsigned char> a(static_cast<size_t>(want) + 1), b(a);
                    const int expected = std::min(want, static_cast<int>(model.size()));
                    ASSERT_EQ(rbuffer2_read(rb.get(), a.data(), b.data(), want), expected);
                    for (int k = 0; k < expected; ++k) {
                        ASSERT_EQ(a[static_cast<size_t>(k)], model.front().first);
                        ASSERT_EQ(b[static_cast<size_t>(k)], model.front().second);
                        model.pop_front();
                    }
                }
                ASSERT_EQ(rbuffer2_used_space(rb.get()), static_cast<int>(model.size()));
                // A transfer ending at the end of the lanes wraps: a position
                // equal to the capacity would point into the other lane.
                ASSERT_LT(std::max(positions(rb.get()).first, positions(rb.get()).second), capacity);
            }
        }
    }
}

// One writer thread and one reader thread stream a counter through both
// lanes (lane B carries the complement) in byte chunks of random size, so
// that values straddle the wrap and chunk boundaries.
TEST(RBuffer2Threads, CounterStreamsThroughInOrder)
{
    constexpr uint32_t kValues = 1u << 20;
    Buffer rb(rbuffer2_create(1001, 0));
    ASSERT_TRUE(rb);

    std::thread writer([&] {
        std::mt19937 rng(7);
        std::vector<uint32_t> a(kValues), b(kValues);
        for (uint32_t v = 0; v < kValues; ++v) {
            a[v] = v;
            b[v] = ~v;
        }
        const auto* pa = reinterpret_cast<const unsigned char*>(a.data());
        const auto* pb = reinterpret_cast<const unsigned char*>(b.data());
        size_t done = 0;
        const size_t total = kValues * sizeof(uint32_t);
        while (done < total) {
            const int want = static_cast<int>(std::min<size_t>(1 + rng() % 700, total - done));
            const int n = rbuffer2_write(rb.get(), pa + done, pb + done, want);
            if (n == 0)
                std::this_thread::yield();
            done += static_cast<size_t>(n);
        }
    });

    std::mt19937 rng(11);
    std::vector<uint32_t> a(kValues), b(kValues);
    auto* pa = reinterpret_cast<unsigned char*>(a.data());
    auto* pb = reinterpret_cast<unsigned char*>(b.data());
    size_t done = 0;
    const size_t total = kValues * sizeof(uint32_t);
    while (done < total) {
        const int want = static_cast<int>(std::min<size_t>(1 + rng() % 900, total - done));
        const int n = rbuffer2_read(rb.get(), pa + done, pb + done, want);
        if (n == 0)
            std::this_thread::yield();
        done += static_cast<size_t>(n);
    }
    writer.join();

    uint32_t bad = 0;
    for (uint32_t v = 0; v < kValues; ++v)
        bad += (a[v] != v) + (b[v] != ~v);
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(rbuffer2_used_space(rb.get()), 0);
}

// The writing thread flushes now and then while the reader keeps reading
// whole values. A flush may drop values but never tears one, repeats one or
// lets an older one through after a newer; the values written after the
// last flush all arrive.
TEST(RBuffer2Threads, FlushRacesAReader)
{
    constexpr uint32_t kFlushed = 200000;
    constexpr uint32_t kTail = 5000;
    constexpr uint32_t kEnd = kFlushed + kTail;
    Buffer rb(rbuffer2_create(4096, 0));
    ASSERT_TRUE(rb);

    std::atomic<bool> failed{false};
    std::vector<uint32_t> tail_seen;
    std::thread reader([&] {
        uint32_t last = 0;
        bool any = false;
        uint32_t a[37], b[37];
        for (;;) {
            const int n = rbuffer2_read(rb.get(), a, b, static_cast<int>(sizeof a));
            if (n % 4 != 0)
                failed = true;
            for (int k = 0; k < n / 4; ++k) {
                if (b[k] != ~a[k] || (any && a[k] <= last))
                    failed = true;
                last = a[k];
                any = true;
                if (a[k] >= kFlushed)
                    tail_seen.push_back(a[k]);
            }
            if (any && last == kEnd - 1)
                return;
            if (n == 0)
                std::this_thread::yield();
        }
    });

    std::mt19937 rng(3);
    uint32_t v = 0;
    while (v < kEnd) {
        uint32_t a[64], b[64];
        const uint32_t count = std::min<uint32_t>(1 + rng() % 64, kEnd - v);
        for (uint32_t k = 0; k < count; ++k) {
            a[k] = v + k;
            b[k] = ~(v + k);
        }
        const int n = rbuffer2_write(rb.get(), a, b, static_cast<int>(count * 4));
        v += static_cast<uint32_t>(n) / 4;
        if (n == 0)
            std::this_thread::yield();
        if (v < kFlushed && rng() % 16 == 0)
            rbuffer2_flush(rb.get());
    }
    reader.join();

    EXPECT_FALSE(failed);
    ASSERT_EQ(tail_seen.size(), kTail);
    for (uint32_t k = 0; k < kTail; ++k)
        ASSERT_EQ(tail_seen[k], kFlushed + k);
}

} // namespace
