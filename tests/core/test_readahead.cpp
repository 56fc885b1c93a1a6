// Sequential read-ahead under the backing stores: what a block may serve and
// when it must be dropped.
#include "common/testsupport.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/readahead.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace KEL;

namespace {

std::vector<unsigned char> pattern(size_t n, uint32_t seed)
{
    std::vector<unsigned char> out(n);
    uint32_t x = seed;
    for (auto& b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<unsigned char>(x >> 24);
    }
    return out;
}

struct TempFile {
    std::vector<unsigned char> bytes;
    std::string path;
    TempFile(size_t n, uint32_t seed)
        : bytes(pattern(n, seed)), path(KEL::test::temp_file_with(bytes.data(), n, "kel-ra"))
    {
    }
    ~TempFile() { ::unlink(path.c_str()); }
};

// Reads [offset, offset + size) through the read-ahead and compares it with
// the expected bytes (as many as the file still holds).
::testing::AssertionResult reads_as(int fd, unsigned long long source, long long offset, int size,
                                    const std::vector<unsigned char>& expected)
{
    std::vector<unsigned char> got(static_cast<size_t>(size), 0xEE);
    const int n = ReadAhead::read(fd, source, got.data(), offset, size);
    const long long left = static_cast<long long>(expected.size()) - offset;
    const int want = left < size ? static_cast<int>(left > 0 ? left : 0) : size;
    if (n != want)
        return ::testing::AssertionFailure() << "read " << n << " bytes at " << offset << ", expected " << want;
    for (int i = 0; i < n; ++i)
        if (got[static_cast<size_t>(i)] != expected[static_cast<size_t>(offset + i)])
            return ::testing::AssertionFailure() << "byte " << offset + i << " differs";
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(ReadAhead, SequentialPassesSeeTheFileAsItIsWhenThePassStarts)
{
    // Packets of an odd size, so that blocks end inside packets, then a
    // last packet that runs past the end of the file.
    TempFile file(700 * 1000 + 123, 1);
    const int fd = ::open(file.path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    const unsigned long long source = ReadAhead::new_source_id();
    long long at = 0;
    for (; at + 3001 <= static_cast<long long>(file.bytes.size()); at += 3001)
        ASSERT_TRUE(reads_as(fd, source, at, 3001, file.bytes));
    ASSERT_TRUE(reads_as(fd, source, at, 3001, file.bytes));

    // Reads jumping about, larger than a block, and of nothing.
    ASSERT_TRUE(reads_as(fd, source, 5, 100, file.bytes));
    ASSERT_TRUE(reads_as(fd, source, 105, 400 * 1000, file.bytes));
    ASSERT_TRUE(reads_as(fd, source, 400105, 7, file.bytes));
    EXPECT_EQ(ReadAhead::read(fd, source, file.bytes.data(), 0, 0), 0);
    EXPECT_EQ(ReadAhead::read(fd, source, file.bytes.data(), -1, 10), 0);

    ::close(fd);

    // A file small enough for one block is rewritten behind the reader: the
    // next pass from the start must not be served from the old block.
    TempFile small(100 * 1000, 2);
    const int sfd = ::open(small.path.c_str(), O_RDWR);
    ASSERT_GE(sfd, 0);
    for (at = 0; at < 100 * 1000; at += 4000)
        ASSERT_TRUE(reads_as(sfd, source, at, 4000, small.bytes));
    const std::vector<unsigned char> rewritten = pattern(60 * 1000, 9);
    ASSERT_EQ(::pwrite(sfd, rewritten.data(), rewritten.size(), 0), static_cast<ssize_t>(rewritten.size()));
    ASSERT_EQ(::ftruncate(sfd, static_cast<off_t>(rewritten.size())), 0);
    for (at = 0; at < 64 * 1000; at += 4000)
        ASSERT_TRUE(reads_as(sfd, source, at, 4000, rewritten));
    ::close(sfd);
}

TEST(ReadAhead, RelocatedStoreIsNotServedFromTheOldFilesBlock)
{
    // A 4096-byte header, then packets of 4096 bytes. After relocation the
    // packets sit 4096 bytes earlier, so packet 3's new offset is exactly
    // where the last read of packet 1 ended in the old file.
    TempFile file(4096 * 9, 3);
    BSFile store;
    ASSERT_TRUE(store.open(file.path.c_str()));
    std::vector<BSHandleFile*> handles;
    for (int i = 0; i < 8; ++i)
        handles.push_back(store.NewHandle(4096 + 4096LL * i, 4096));
    std::vector<unsigned char> got(4096);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(store.get_handle_bytes(handles[static_cast<size_t>(i)], got.data(), 4096), 4096);
        ASSERT_EQ(got, std::vector<unsigned char>(file.bytes.begin() + 4096 * (i + 1),
                                                  file.bytes.begin() + 4096 * (i + 2)));
    }
    ASSERT_TRUE(store.clip_gone(nullptr));
    ASSERT_EQ(handles[3]->offset, 4096 * 3);
    ASSERT_EQ(store.get_handle_bytes(handles[3], got.data(), 4096), 4096);
    EXPECT_EQ(got, std::vector<unsigned char>(file.bytes.begin() + 4096 * 4, file.bytes.begin() + 4096 * 5));
    for (BSHandleFile* h : handles)
        h->release();
}

TEST(ReadAhead, ThreadsKeepTheirOwnBlocks)
{
    TempFile file(2 * 1000 * 1000, 4);
    const int fd = ::open(file.path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    const unsigned long long source = ReadAhead::new_source_id();
    // Two readers interleave passes over the two halves of one file.
    std::vector<int> failures(2, 0);
    auto pass = [&](int half) {
        const long long start = half * 1000 * 1000LL;
        for (long long at = start; at < start + 1000 * 1000; at += 1000)
            if (!reads_as(fd, source, at, 1000, file.bytes))
                ++failures[static_cast<size_t>(half)];
    };
    std::thread a(pass, 0);
    std::thread b(pass, 1);
    a.join();
    b.join();
    EXPECT_EQ(failures, std::vector<int>(2, 0));
    ::close(fd);
}
