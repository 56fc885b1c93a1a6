// The byte-order helpers: every width in both orders against fixed bytes,
// and that a store writes exactly its own bytes.
#include "core/byteorder.h"

#include <gtest/gtest.h>

#include <array>

using namespace KEL;

namespace {

TEST(ByteOrder, EveryWidthInBothOrders)
{
    const std::array<unsigned char, 8> bytes = {0x81, 0x02, 0x83, 0x04, 0x85, 0x06, 0x87, 0x08};
    EXPECT_EQ(get_be16(bytes.data()), 0x8102u);
    EXPECT_EQ(get_be24(bytes.data()), 0x810283u);
    EXPECT_EQ(get_be32(bytes.data()), 0x81028304u);
    EXPECT_EQ(get_be64(bytes.data()), 0x8102830485068708ull);
    EXPECT_EQ(get_le16(bytes.data()), 0x0281u);
    EXPECT_EQ(get_le24(bytes.data()), 0x830281u);
    EXPECT_EQ(get_le32(bytes.data()), 0x04830281u);
    EXPECT_EQ(get_le64(bytes.data()), 0x0887068504830281ull);

    // Each store into a buffer of 0xEE: the value's bytes, nothing beyond.
    struct Store {
        void (*put)(unsigned char*, uint64_t);
        int width;
        bool big;
    } const stores[] = {
        {[](unsigned char* p, uint64_t v) { put_be16(p, static_cast<uint32_t>(v)); }, 2, true},
        {[](unsigned char* p, uint64_t v) { put_be24(p, static_cast<uint32_t>(v)); }, 3, true},
        {[](unsigned char* p, uint64_t v) { put_be32(p, static_cast<uint32_t>(v)); }, 4, true},
        {[](unsigned char* p, uint64_t v) { put_be64(p, v); }, 8, true},
        {[](unsigned char* p, uint64_t v) { put_le16(p, static_cast<uint32_t>(v)); }, 2, false},
        {[](unsigned char* p, uint64_t v) { put_le24(p, static_cast<uint32_t>(v)); }, 3, false},
        {[](unsigned char* p, uint64_t v) { put_le32(p, static_cast<uint32_t>(v)); }, 4, false},
        {[](unsigned char* p, uint64_t v) { put_le64(p, v); }, 8, false},
    };
    const uint64_t value = 0x0102030405060708ull;
    for (const Store& s : stores) {
        SCOPED_TRACE(s.width * (s.big ? 1 : -1));
        std::array<unsigned char, 10> out;
        out.fill(0xEE);
        s.put(out.data(), value);
        for (int i = 0; i < s.width; ++i) {
            const int shift = 8 * (s.big ? s.width - 1 - i : i);
            EXPECT_EQ(out[static_cast<size_t>(i)], static_cast<unsigned char>(value >> shift)) << i;
        }
        EXPECT_EQ(out[static_cast<size_t>(s.width)], 0xEE);
    }
}

} // namespace
