// Backing store: handle table, reads, relocation into a temporary file,
// progress and concurrent readers.
#include "common/testsupport.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/bshandlemem.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

using namespace KEL;
using namespace KEL::test;

namespace {

Bytes random_bytes(size_t n, uint64_t seed)
{
    Bytes out(n);
    uint64_t x = seed | 1;
    for (auto& b : out) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        b = static_cast<unsigned char>(x >> 32);
    }
    return out;
}

// A source file of known pseudo-random bytes, removed at the end.
struct SourceFile {
    Bytes bytes;
    std::string path;
    SourceFile(size_t n, uint64_t seed) : bytes(random_bytes(n, seed)), path(temp_file_with(bytes.data(), n, "kel-bs"))
    {
        EXPECT_FALSE(path.empty());
    }
    ~SourceFile() { unlink(path.c_str()); }
    // Replaces the contents in place (same inode) with other bytes.
    void overwrite(uint64_t seed) const
    {
        const Bytes junk = random_bytes(bytes.size(), seed);
        FILE* f = std::fopen(path.c_str(), "r+");
        std::fwrite(junk.data(), 1, junk.size(), f);
        std::fclose(f);
    }
    bool is_open() const
    {
        for (const std::string& t : open_fd_targets())
            if (t == path || t == path + " (deleted)")
                return true;
        return false;
    }
};

struct Range {
    long long offset;
    int size;
};

// Ranges in shuffled file order, some overlapping, none past the end.
std::vector<Range> random_ranges(int count, int max_size, size_t file_size, uint64_t seed)
{
    const Bytes r = random_bytes(static_cast<size_t>(count) * 8, seed);
    std::vector<Range> out;
    for (int i = 0; i < count; ++i) {
        uint32_t a, b;
        std::memcpy(&a, &r[i * 8], 4);
        std::memcpy(&b, &r[i * 8 + 4], 4);
        const int size = 1 + static_cast<int>(a % static_cast<uint32_t>(max_size));
        out.push_back({static_cast<long long>(b % (file_size - static_cast<size_t>(size) + 1)), size});
    }
    return out;
}

bool handle_reads(BSHandle* h, const unsigned char* expected, int size)
{
    Bytes got(static_cast<size_t>(size) + 1, 0xA5);
    return h->get_bytes(got.data(), 0) == size && std::memcmp(got.data(), expected, static_cast<size_t>(size)) == 0;
}

struct Recorder {
    std::vector<float> values;
    int answer = 1;
    static int callback(void* ctx, float percent)
    {
        auto self = static_cast<Recorder*>(ctx);
        self->values.push_back(percent);
        return self->answer;
    }
};

TEST(BSFileTable, GrowsPastOneBlockOfSlotsAndTheLastHandleClosesTheSource)
{
    SourceFile src(4096, 1);
    const int base = open_descriptors();
    BSFile store;
    EXPECT_FALSE(store.open((src.path + ".missing").c_str()));
    EXPECT_EQ(store.NewHandle(0, 10), nullptr);
    ASSERT_TRUE(store.open(src.path.c_str()));
    EXPECT_EQ(open_descriptors(), base + 1);
    std::vector<BSHandleFile*> made;
    for (int i = 0; i < 8192; ++i)
        made.push_back(store.NewHandle(i % 4000, 16));
    made.push_back(store.NewHandle(100, 16));
    EXPECT_EQ(store.handle_count, 8193);
    for (int i = 0; i < 8193; ++i) {
        ASSERT_EQ(made[i]->index, i);
        ASSERT_EQ(store.handles[i], made[i]);
    }
    EXPECT_EQ(store.handles[8193], nullptr);
    EXPECT_TRUE(handle_reads(made[8192], &src.bytes[100], 16));
    for (size_t i = 1; i < made.size(); ++i)
        made[i]->release();
    EXPECT_TRUE(src.is_open());
    made[0]->release();
    EXPECT_FALSE(src.is_open());
    EXPECT_EQ(open_descriptors(), base);
    EXPECT_EQ(store.file, nullptr);
    EXPECT_EQ(store.handles, nullptr);
    EXPECT_EQ(store.NewHandle(0, 10), nullptr);
}

// A new handle is numbered from the live count, so it can land on a slot
// still held; relocation packs and renumbers the table.
TEST(BSFileTable, NewHandleReusesLiveCountAsSlot)
{
    SourceFile src(1000, 2);
    BSFile store;
    ASSERT_TRUE(store.open(src.path.c_str()));
    BSHandleFile* a = store.NewHandle(10, 100);
    BSHandleFile* b = store.NewHandle(200, 50);
    BSHandleFile* c = store.NewHandle(500, 70);
    b->release();
    EXPECT_EQ(store.handles[1], nullptr);
    EXPECT_EQ(store.handle_count, 2);
    BSHandleFile* d = store.NewHandle(700, 30);
    EXPECT_EQ(d->index, 2);
    EXPECT_EQ(store.handles[2], d);
    EXPECT_EQ(store.handle_count, 3);
    // C no longer owns its slot: releasing it leaves D's entry and the count.
    c->release();
    EXPECT_EQ(store.handles[2], d);
    EXPECT_EQ(store.handle_count, 3);
    EXPECT_TRUE(store.clip_gone(nullptr));
    EXPECT_EQ(store.handles[0], a);
    EXPECT_EQ(store.handles[1], d);
    EXPECT_EQ(store.handles[2], nullptr);
    EXPECT_EQ(d->index, 1);
    EXPECT_EQ(d->offset, 100);
    EXPECT_TRUE(handle_reads(a, &src.bytes[10], 100));
    EXPECT_TRUE(handle_reads(d, &src.bytes[700], 30));
    // The overwritten handle kept one count: the store stays open.
    a->release();
    d->release();
    EXPECT_EQ(store.handle_count, 1);
    EXPECT_NE(store.file, nullptr);
}

TEST(BSFileRead, RangesAreClampedAndSizeZeroReadsAll)
{
    SourceFile src(5000, 4);
    BSFile store;
    ASSERT_TRUE(store.open(src.path.c_str()));
    BSHandleFile* h = store.NewHandle(1234, 300);
    Bytes buf(400, 0xEE);
    EXPECT_EQ(h->get_bytes(buf.data(), 17), 17);
    EXPECT_EQ(0, std::memcmp(buf.data(), &src.bytes[1234], 17));
    EXPECT_EQ(buf[17], 0xEE);
    // A request beyond the range stops at its end; 0 reads it all.
    for (int size : {400, 0}) {
        std::fill(buf.begin(), buf.end(), 0xEE);
        EXPECT_EQ(h->get_bytes(buf.data(), size), 300);
        EXPECT_EQ(0, std::memcmp(buf.data(), &src.bytes[1234], 300));
        EXPECT_EQ(buf[300], 0xEE);
    }
    EXPECT_EQ(h->get_bytes(buf.data(), -5), 0);
    // Raw reads: short at the end of file, nothing for bad arguments.
    EXPECT_EQ(store.get_bytes(buf.data(), 4900, 400), 100);
    EXPECT_EQ(0, std::memcmp(buf.data(), &src.bytes[4900], 100));
    EXPECT_EQ(store.get_bytes_private(buf.data(), 4950, 400), 50);
    EXPECT_EQ(store.get_bytes(buf.data(), 0, -1), 0);
    EXPECT_EQ(store.get_bytes(buf.data(), 6000, 10), 0);
    // A range running past the end yields what exists.
    BSHandleFile* tail = store.NewHandle(4990, 100);
    EXPECT_EQ(tail->get_bytes(buf.data(), 0), 10);
    tail->release();
    h->release();

    // A memory handle reads nothing before its block is filled.
    BSHandleMem* m = new BSHandleMem(777);
    EXPECT_EQ(m->get_bytes(buf.data(), 0), 0);
    ASSERT_TRUE(m->init_with_copy(src.bytes.data()));
    EXPECT_TRUE(handle_reads(m, src.bytes.data(), 777));
    EXPECT_EQ(m->get_bytes(buf.data(), 5), 5);
    m->release();
    BSHandleMem* bad = new BSHandleMem(-1);
    EXPECT_FALSE(bad->init_with_copy(src.bytes.data()));
    bad->release();
}

TEST(BSFileRelocation, LiveHandlesMoveIntoAnAnonymousTempFile)
{
    SourceFile src(256 * 1024, 6);
    const int base = open_descriptors();
    BSFile store;
    ASSERT_TRUE(store.open(src.path.c_str()));
    std::vector<Range> ranges = random_ranges(300, 3000, src.bytes.size(), 7);
    ranges.insert(ranges.begin() + 1, Range{5, 0}); // an empty range packs to nothing
    std::vector<BSHandleFile*> hs;
    for (const Range& r : ranges)
        hs.push_back(store.NewHandle(r.offset, r.size));
    EXPECT_TRUE(store.clip_gone(nullptr));
    EXPECT_EQ(open_descriptors(), base + 1);
    EXPECT_FALSE(src.is_open());
    char target[4096] = {};
    ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(store.fd)).c_str(), target, sizeof target - 1), 0);
    EXPECT_NE(std::strstr(target, "(deleted)"), nullptr);
    // The source can now be rewritten and removed without affecting reads.
    src.overwrite(99);
    unlink(src.path.c_str());
    long long packed = 0;
    for (size_t i = 0; i < hs.size(); ++i) {
        ASSERT_EQ(hs[i]->offset, packed);
        packed += ranges[i].size;
        ASSERT_TRUE(handle_reads(hs[i], &src.bytes[ranges[i].offset], ranges[i].size));
    }
    // Drop every other handle; the next relocation repacks the survivors.
    std::vector<size_t> kept;
    for (size_t i = 0; i < hs.size(); ++i) {
        if (i % 2 == 0)
            hs[i]->release();
        else
            kept.push_back(i);
    }
    EXPECT_TRUE(store.clip_gone(nullptr));
    EXPECT_EQ(open_descriptors(), base + 1);
    packed = 0;
    for (size_t k = 0; k < kept.size(); ++k) {
        const size_t i = kept[k];
        ASSERT_EQ(hs[i]->index, static_cast<int>(k));
        ASSERT_EQ(hs[i]->offset, packed);
        packed += ranges[i].size;
        ASSERT_TRUE(handle_reads(hs[i], &src.bytes[ranges[i].offset], ranges[i].size));
    }
    for (size_t i : kept)
        hs[i]->release();
    EXPECT_EQ(open_descriptors(), base);
}

TEST(BSFileRelocation, ProgressEveryHalfPercentEndingAt100)
{
    // Without handles the file just closes, with one report of 100.
    SourceFile src(64 * 1024, 9);
    const int base = open_descriptors();
    Recorder rec;
    _kel_progress_ext_t progress{&Recorder::callback, &rec, 0.0f};
    {
        BSFile empty;
        ASSERT_TRUE(empty.open(src.path.c_str()));
        EXPECT_TRUE(empty.clip_gone(&progress));
        EXPECT_EQ(empty.file, nullptr);
        EXPECT_EQ(open_descriptors(), base);
        EXPECT_EQ(rec.values, std::vector<float>{100.0f});
    }
    BSFile store;
    ASSERT_TRUE(store.open(src.path.c_str()));
    const int n = 997;
    const std::vector<Range> ranges = random_ranges(n, 200, src.bytes.size(), 10);
    std::vector<BSHandleFile*> hs;
    for (const Range& r : ranges)
        hs.push_back(store.NewHandle(r.offset, r.size));
    rec.values.clear();
    EXPECT_TRUE(store.clip_gone(&progress));
    ASSERT_GE(rec.values.size(), 2u);
    EXPECT_EQ(rec.values.back(), 100.0f);
    const double per_handle = 100.0 / n;
    double last = 0.0;
    for (size_t i = 0; i + 1 < rec.values.size(); ++i) {
        EXPECT_GE(rec.values[i] - last, 0.5 - 1e-4) << "report " << i;
        EXPECT_LT(rec.values[i] - last, 0.5 + per_handle + 1e-4) << "report " << i;
        last = rec.values[i];
    }
    EXPECT_GT(last, 100.0 - 0.5 - per_handle);
    EXPECT_NEAR(static_cast<double>(rec.values.size()), 200.0, 10.0);
    // A callback that asks to stop cannot cancel the copy; only the final
    // report's answer comes back.
    rec.values.clear();
    rec.answer = 0;
    EXPECT_FALSE(store.clip_gone(&progress));
    EXPECT_EQ(rec.values.back(), 100.0f);
    for (int i = 0; i < n; ++i)
        ASSERT_TRUE(handle_reads(hs[i], &src.bytes[ranges[i].offset], ranges[i].size));
    for (BSHandleFile* h : hs)
        h->release();
}

// A second thread reads through the handles without pause while the owning
// thread relocates the store twice; every read must see the original bytes
// in full.
TEST(BSFileConcurrency, ReadsDuringRelocationSeeOriginalBytes)
{
    for (int round = 0; round < 4; ++round) {
        SourceFile src(4 * 1024 * 1024, 100 + round);
        BSFile store;
        ASSERT_TRUE(store.open(src.path.c_str()));
        const std::vector<Range> ranges = random_ranges(1500, 8000, src.bytes.size(), 200 + round);
        std::vector<BSHandleFile*> hs;
        for (const Range& r : ranges)
            hs.push_back(store.NewHandle(r.offset, r.size));
        std::atomic<bool> stop{false};
        std::atomic<long> reads{0}, failures{0};
        std::thread reader([&] {
            Bytes buf(8000);
            for (size_t i = 0; !stop.load(); i = (i + 1) % hs.size()) {
                const Range& r = ranges[i];
                if (hs[i]->get_bytes(buf.data(), 0) != r.size ||
                    std::memcmp(buf.data(), &src.bytes[r.offset], r.size) != 0)
                    failures.fetch_add(1);
                reads.fetch_add(1);
            }
        });
        auto wait_reads = [&](long more) {
            const long target = reads.load() + more;
            while (reads.load() < target && failures.load() == 0)
                std::this_thread::yield();
        };
        wait_reads(200);
        store.clip_gone(nullptr);
        src.overwrite(300 + round); // stale reads of the source now show up
        wait_reads(200);
        store.clip_gone(nullptr);
        wait_reads(200);
        stop.store(true);
        reader.join();
        EXPECT_EQ(failures.load(), 0) << "round " << round;
        EXPECT_FALSE(src.is_open());
        for (BSHandleFile* h : hs)
            h->release();
    }
}

} // namespace
