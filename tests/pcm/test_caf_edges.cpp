// CAF clips at their edges: hand-made files with one fault each, the chunk
// orders the walk accepts and refuses, the header the engine writes, and
// damaged files (every truncation, seeded random bytes).
#include "core/fourcc.h"
#include "core/packet.h"
#include "pcm/clipcaff.h"
#include "pcm/packetcaff.h"
#include "pcmcases.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace KEL;
using namespace KEL::test;

namespace {

const int kEcaf = fourcc("Ecaf");
const int kEfms = fourcc("Efms");
const int kEfmu = fourcc("Efmu");

// Three frames of 16-bit big-endian stereo at 44100 Hz, laid out as the
// engine writes its own files.
const Bytes kStereoBE = {
    'c', 'a', 'f', 'f', 0, 1, 0, 0,                  //  0: "caff", version 1, flags 0
    'd', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, 32,     //  8: "desc" of 32 bytes
    0x40, 0xE5, 0x88, 0x80, 0, 0, 0, 0,              // 20: 44100.0 as a double
    'l', 'p', 'c', 'm',                              // 28: linear PCM
    0, 0, 0, 0,                                      // 32: flags: integer, big-endian
    0, 0, 0, 4,                                      // 36: 4 bytes per packet
    0, 0, 0, 1,                                      // 40: 1 frame per packet
    0, 0, 0, 2,                                      // 44: 2 channels
    0, 0, 0, 16,                                     // 48: 16 bits
    'd', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 16,     // 52: "data" of 16 bytes
    0, 0, 0, 0,                                      // 64: edit count
    0x80, 0x00, 0x7F, 0xFF,                          // 68: frame 0: -32768, 32767
    0x40, 0x00, 0xC0, 0x00,                          // 72: frame 1: 16384, -16384
    0x00, 0x01, 0xFF, 0xFF,                          // 76: frame 2: 1, -1
};
const std::vector<float> kLeft = {-1.0f, 0.5f, 1.0f / 32768};
const std::vector<float> kRight = {32767.0f / 32768, -0.5f, -1.0f / 32768};

// The file with bytes replaced at one place.
Bytes patched(Bytes file, size_t at, const Bytes& bytes)
{
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<long>(at));
    return file;
}

// Chunk builders for the layouts below. desc() has 16-bit PCM at 8000 Hz.
ByteWriter& desc(ByteWriter& w, uint32_t channels, uint32_t flags, uint64_t size = 32)
{
    w.tag("desc").be64(size).be64(0x40BF400000000000u).tag("lpcm").be32(flags);
    w.be32(channels * 2).be32(1).be32(channels).be32(16);
    return w.zeros(size > 32 ? size - 32 : 0);
}

// "data" with its edit count and the 16-bit samples in the order asked.
ByteWriter& data(ByteWriter& w, uint64_t size, const std::vector<int16_t>& samples, bool little = false)
{
    w.tag("data").be64(size).be32(0);
    for (int16_t s : samples) {
        if (little)
            w.le16(static_cast<uint16_t>(s));
        else
            w.be16(static_cast<uint16_t>(s));
    }
    return w;
}

ByteWriter caff()
{
    ByteWriter w;
    w.tag("caff").be16(1).be16(0);
    return w;
}

const std::vector<int16_t> kMono = {8192, -8192, 32767, -32768, 3};
const std::vector<float> kMonoFloats = {0.25f, -0.25f, 32767.0f / 32768, -1.0f, 3.0f / 32768};

using CafEdges = PcmFiles;

TEST_F(CafEdges, EachHeaderFaultHasItsCode)
{
    struct Fault {
        const char* what;
        Bytes file;
        int code;
    };
    ByteWriter ends_early = caff();
    desc(ends_early, 1, 0);
    ByteWriter two_desc = caff();
    desc(desc(two_desc, 1, 0), 1, 0);
    data(two_desc, 14, kMono);
    ByteWriter to_end_first = caff();
    data(to_end_first, UINT64_MAX, kMono);
    desc(to_end_first, 1, 0);
    ByteWriter two_data = caff();
    data(data(two_data, 14, kMono), 14, kMono);
    desc(two_data, 1, 0);
    ByteWriter huge_skip = caff();
    huge_skip.tag("free").be64(1ull << 62).zeros(8);
    desc(huge_skip, 1, 0);
    data(huge_skip, 14, kMono);

    const std::vector<Fault> faults = {
        {"floating point flag", patched(kStereoBE, 32, {0, 0, 0, 1}), kEfms},
        {"little-endian float", patched(kStereoBE, 32, {0, 0, 0, 3}), kEfms},
        {"24-bit samples", patched(kStereoBE, 48, {0, 0, 0, 24}), kEfms},
        {"8-bit samples", patched(kStereoBE, 48, {0, 0, 0, 8}), kEfms},
        {"not linear PCM", patched(kStereoBE, 28, {'u', 'l', 'a', 'w'}), kEfms},
        {"no channels", patched(kStereoBE, 44, {0, 0, 0, 0}), kEcaf},
        {"rate 0", patched(kStereoBE, 20, {0, 0, 0, 0, 0, 0, 0, 0}), kEcaf},
        {"negative rate", patched(kStereoBE, 20, {0xC0, 0xE5, 0x88, 0x80}), kEcaf},
        {"infinite rate", patched(kStereoBE, 20, {0x7F, 0xF0, 0, 0}), kEcaf},
        {"not a number as rate", patched(kStereoBE, 20, {0x7F, 0xF8, 0, 0}), kEcaf},
        {"data size 0", patched(kStereoBE, 56, {0, 0, 0, 0, 0, 0, 0, 0}), kEcaf},
        {"data smaller than its edit count", patched(kStereoBE, 56, {0, 0, 0, 0, 0, 0, 0, 3}), kEcaf},
        {"data size -2", patched(kStereoBE, 56, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}), kEcaf},
        {"data beyond the end of the file", patched(kStereoBE, 63, {17}), kEcaf},
        {"negative desc size", patched(kStereoBE, 12, {0x80}), kEcaf},
        {"no data chunk", patched(kStereoBE, 52, {'d', 'a', 't', 'b'}), kEcaf},
        {"nothing after desc", ends_early.bytes, kEcaf},
        {"two desc chunks", two_desc.bytes, kEcaf},
        {"data of unknown size before desc", to_end_first.bytes, kEcaf},
        {"two data chunks", two_data.bytes, kEcaf},
        {"a chunk that claims 2^62 bytes", huge_skip.bytes, kEcaf},
        {"not caff", patched(kStereoBE, 0, {'c', 'a', 'f', 'e'}), kEfmu},
        {"file version 2", patched(kStereoBE, 4, {0, 2}), kEfmu},
    };
    for (const Fault& f : faults) {
        SCOPED_TRACE(f.what);
        const std::string file = put("fault.caf", f.file);
        FILE* in = std::fopen(file.c_str(), "r");
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(ClipCAFF::scan(in, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), f.code);
        std::fclose(in);
        int err = 0;
        EXPECT_FALSE(open_clip(file, err));
        EXPECT_EQ(err, f.code);
        _kel_clip_info_t info{};
        EXPECT_EQ(Clip::file_info(file.c_str(), &info, nullptr), f.code);
    }
}

TEST_F(CafEdges, AcceptedLayoutsDecodeTheirSamples)
{
    struct Good {
        const char* what;
        Bytes file;
        std::vector<float> left, right;
        long long offset, length;
    };
    ByteWriter to_end = caff();
    desc(to_end, 1, 0);
    data(to_end, UINT64_MAX, kMono).zeros(1); // a stray byte is no frame
    ByteWriter little = caff();
    little.tag("chan").be64(12).zeros(12);
    desc(little, 1, 2);
    data(little, 14, kMono, true).tag("free").be64(3).zeros(3);
    ByteWriter data_first = caff();
    data(data_first, 14, kMono);
    desc(data_first, 1, 0);
    ByteWriter long_desc = caff();
    desc(long_desc, 1, 0, 40);
    data(long_desc, 14, kMono);
    ByteWriter short_desc = caff(); // 32 bytes are read whatever the size says
    desc(short_desc, 1, 0, 0);
    data(short_desc, 14, kMono);

    const std::vector<Good> goods = {
        {"engine layout", kStereoBE, kLeft, kRight, 68, 12},
        {"data to the end of the file", to_end.bytes, kMonoFloats, kMonoFloats, 68, 11},
        {"little-endian between chan and free", little.bytes, kMonoFloats, kMonoFloats, 92, 10},
        {"data of known size before desc", data_first.bytes, kMonoFloats, kMonoFloats, 24, 10},
        {"desc longer than 32 bytes", long_desc.bytes, kMonoFloats, kMonoFloats, 76, 10},
        {"desc shorter than 32 bytes", short_desc.bytes, kMonoFloats, kMonoFloats, 68, 10},
    };
    for (const Good& g : goods) {
        SCOPED_TRACE(g.what);
        const std::string file = put("good.caf", g.file);
        FILE* in = std::fopen(file.c_str(), "r");
        ASSERT_NE(in, nullptr);
        long long length = -1, offset = -1;
        EXPECT_EQ(ClipCAFF::scan(in, nullptr, nullptr, nullptr, nullptr, &length, &offset), 0);
        EXPECT_EQ(offset, g.offset);
        EXPECT_EQ(length, g.length);
        std::fclose(in);

        int err = -1;
        ClipPtr clip = open_clip(file, err);
        ASSERT_EQ(err, 0);
        ASSERT_TRUE(clip);
        ASSERT_EQ(clip->packet_count, 1);
        EXPECT_EQ(clip->get_packet(0)->disk_frame_count(), static_cast<int>(g.left.size()));
        const Samples s = decode_clip(*clip);
        EXPECT_TRUE(same_bits(s.left, g.left));
        EXPECT_TRUE(same_bits(s.right, g.right));
        EXPECT_TRUE(same_bits(std::vector<float>(s.left.begin() + static_cast<long>(g.left.size()), s.left.end()),
                              std::vector<float>(1024 - g.left.size(), 0.0f)));

        // A gain scales the stored words before they are handed out
        // little-endian: 0.5 halves them, truncating toward zero.
        std::vector<float> l(1024), r(1024);
        float* out[2] = {l.data(), r.data()};
        ASSERT_EQ(clip->packet_decode_play(0, out, &err, 0.5f), 1024);
        for (size_t i = 0; i < g.left.size(); ++i) {
            const float halved = static_cast<float>(static_cast<int>(g.left[i] * 32768.0f * 0.5f)) / 32768.0f;
            EXPECT_EQ(bits_of(l[i]), bits_of(halved)) << i;
        }
    }
}

TEST_F(CafEdges, HeaderWrittenByTheEngine)
{
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    // Written over a longer file: only the first 68 bytes change.
    std::fwrite(Bytes(80, 0xEE).data(), 1, 80, f);
    write_caff_header(f, 44100.0f, 2, 16, 12, false);
    Bytes got(80);
    std::rewind(f);
    ASSERT_EQ(std::fread(got.data(), 1, got.size(), f), got.size());
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 68), Bytes(kStereoBE.begin(), kStereoBE.begin() + 68));
    EXPECT_EQ(got[68], 0xEE);

    // Unknown length, mono, little-endian flag, another rate.
    write_caff_header(f, 8000.0f, 1, 16, -1, true);
    std::rewind(f);
    ASSERT_EQ(std::fread(got.data(), 1, 68, f), 68u);
    EXPECT_EQ(Bytes(got.begin() + 20, got.begin() + 28), Bytes({0x40, 0xBF, 0x40, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Bytes(got.begin() + 32, got.begin() + 48), Bytes({0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1}));
    EXPECT_EQ(Bytes(got.begin() + 56, got.begin() + 64), Bytes(8, 0xFF));
    std::fclose(f);
}

TEST_F(CafEdges, DamagedFilesEndInAClipOrACode)
{
    // chan, desc, info, data of 150 frames of stereo, free after the data.
    std::vector<int16_t> samples;
    for (int i = 0; i < 300; ++i)
        samples.push_back(static_cast<int16_t>(i * 977));
    ByteWriter w = caff();
    w.tag("chan").be64(12).be32(0x00650002).zeros(8);
    desc(w, 2, 0);
    w.tag("info").be64(9).be32(1).raw({'k', 0, 'v', 0, 0});
    data(w, 4 + 600, samples);
    w.tag("free").be64(16).zeros(16);
    const Bytes valid = w.bytes;
    // Random bytes go into the headers: everything before the first sample.
    expect_damage_handled(valid, valid.size() - 600 - 28, work.path("damaged.caf"), 20240612);
}

} // namespace
