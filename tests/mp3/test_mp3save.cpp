// Saving edited MP3 clips, against mp3gain's rewrite of the same frames,
// FFmpeg's CRC check and ffprobe's reading of the information frame.
#include "core/fourcc.h"
#include "core/packet.h"
#include "mp3/clipmp3.h"
#include "mp3/packetmp3.h"

#include "mp3fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace KEL;
using namespace KEL::test;

namespace {

// An ID3v2.3 tag of 64 bytes (10-byte header, 54 bytes of body) and a
// 128-byte ID3v1 tag, as callers pass them.
Bytes leading_tag()
{
    Bytes t = {'I', 'D', '3', 3, 0, 0, 0, 0, 0, 54};
    t.resize(64, 0);
    std::memcpy(&t[10], "TIT2\0\0\0\5\0\0\0KEL!", 15);
    return t;
}

Bytes trailing_tag()
{
    Bytes t(128, 0);
    std::memcpy(t.data(), "TAGKEL trailing", 15);
    return t;
}

bool crc_check_passes(const std::string& path)
{
    return run_tool({"ffmpeg", "-nostdin", "-v", "error", "-err_detect", "crccheck+explode", "-i", path, "-f", "null",
                     "-"}) == 0;
}

double rms(const std::vector<float>& v, size_t from, size_t to)
{
    double sum = 0.0;
    for (size_t i = from; i < to; ++i)
        sum += static_cast<double>(v[i]) * v[i];
    return std::sqrt(sum / static_cast<double>(to - from));
}

} // namespace

TEST(MP3Save, GainedFramesEqualMp3gainsAndCarryValidCrcs)
{
    const std::string path = stream_file(lame_stream("crc"));
    const std::vector<Bytes> original = packet_bytes(path);
    const Bytes head = leading_tag();
    const Bytes tail = trailing_tag();

    for (const int steps : {0, 2, -3}) {
        SCOPED_TRACE(steps);
        int err = 0;
        ClipPtr clip = open_clip(path, err);
        ASSERT_NE(clip, nullptr);
        // Half a step beyond n, away from 1: n whole steps after rounding.
        const float gain = steps == 0 ? 1.0f : static_cast<float>(std::pow(2.0, (steps + (steps > 0 ? 0.5 : -0.5)) / 4));
        for (int i = 0; i < clip->packet_count; ++i)
            clip->packet_gain(i, gain, &err);
        ASSERT_EQ(err, 0);
        const std::string saved = scratch().path("gain" + std::to_string(steps) + ".mp3");
        ASSERT_EQ(clip->save_to(saved.c_str(), head.data(), static_cast<int>(head.size()), tail.data(),
                                static_cast<int>(tail.size()), &err, nullptr),
                  0);

        std::vector<Bytes> want = original;
        if (steps != 0) {
            const std::string other = scratch().path("mp3gain" + std::to_string(steps) + ".mp3");
            write_file(other, read_file(path));
            ASSERT_EQ(run_tool({"mp3gain", "-g", std::to_string(steps), "-c", "-q", "-s", "s", other}), 0);
            want = packet_bytes(other);
            ASSERT_NE(want, original);
        }
        const std::vector<Bytes> got = packet_bytes(saved);
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < got.size(); ++i)
            ASSERT_EQ(got[i], want[i]) << "frame " << i;
        EXPECT_TRUE(crc_check_passes(saved));

        // Caller's blocks around the stream; an "Info" frame right after the
        // leading one: 4-byte header, 32 bytes of side information, tag.
        const Bytes file = read_file(saved);
        ASSERT_GT(file.size(), head.size() + tail.size() + 200);
        EXPECT_TRUE(std::equal(head.begin(), head.end(), file.begin()));
        EXPECT_TRUE(std::equal(tail.begin(), tail.end(), file.end() - static_cast<long>(tail.size())));
        const size_t tag = head.size() + 36;
        EXPECT_EQ(std::string(file.begin() + static_cast<long>(tag), file.begin() + static_cast<long>(tag + 4)),
                  "Info");
        EXPECT_EQ(get_be32(file, tag + 8), static_cast<uint32_t>(clip->packet_count));
        EXPECT_EQ(get_be32(file, tag + 12), file.size() - head.size() - tail.size());
        EXPECT_NEAR(probe_duration(saved), clip->packet_count * 1152.0 / 44100.0, 1e-3);
    }
}

TEST(MP3Save, VariableRateStreamsGetAXingFrameAndFadesAreFoldedIntoGains)
{
    const std::string path = stream_file(lame_stream("vbr"));
    int err = 0;
    ClipPtr clip = open_clip(path, err);
    ASSERT_NE(clip, nullptr);
    ASSERT_EQ(clip->is_vbr(), 1);
    const std::string plain = scratch().path("vbr-saved.mp3");
    ASSERT_EQ(clip->save_to(plain.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
    const Bytes file = read_file(plain);
    EXPECT_EQ(std::string(file.begin() + 36, file.begin() + 40), "Xing");
    // The duration comes from the frame count; without it ffprobe would
    // estimate it from the first frame's bit rate.
    EXPECT_NEAR(probe_duration(plain), clip->packet_count * 1152.0 / 44100.0, 1e-3);
    // The seek table grows with the position and starts at the stream.
    for (size_t i = 1; i < 100; ++i)
        ASSERT_LE(file[36 + 16 + i - 1], file[36 + 16 + i]);
    EXPECT_EQ(packet_bytes(plain), packet_bytes(path));

    // A fade in over the first 20 packets: quieter there, untouched after
    // the packets the fade reaches (its gains may land up to one packet
    // late), and the frames still decode cleanly.
    clip->log_fade(0, 19, 0.0f, 1.0f, &err);
    ASSERT_EQ(err, 0);
    const std::string faded = scratch().path("vbr-faded.mp3");
    ASSERT_EQ(clip->save_to(faded.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 0);
    EXPECT_TRUE(crc_check_passes(faded));
    const std::vector<Bytes> before = packet_bytes(path);
    const std::vector<Bytes> after = packet_bytes(faded);
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 22; i < after.size(); ++i)
        ASSERT_EQ(after[i], before[i]) << i;
    const Samples loud = ffmpeg_mp3_frames(path);
    const Samples quiet = ffmpeg_mp3_frames(faded);
    EXPECT_LT(rms(quiet.right, 1152, 5 * 1152), 0.25 * rms(loud.right, 1152, 5 * 1152));
}

TEST(MP3Save, FailuresLeaveNoFileAndUnreadableFramesBecomeSilence)
{
    const std::string path = stream_file(lame_stream("crc"));
    int err = 0;
    ClipPtr clip = open_clip(path, err);
    ASSERT_NE(clip, nullptr);

    EXPECT_EQ(clip->save_to(scratch().root().c_str(), nullptr, 0, nullptr, 0, &err, nullptr), 21);
    EXPECT_EQ(err, 21);
    const std::string nowhere = scratch().path("missing/dir/x.mp3");
    EXPECT_EQ(clip->save_to(nowhere.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Efow"));
    ClipPtr empty(ClipMP3::create_empty(2, 44100.0f, 128000, false, &err));
    const std::string empty_path = scratch().path("empty.mp3");
    EXPECT_EQ(empty->save_to(empty_path.c_str(), nullptr, 0, nullptr, 0, &err, nullptr), fourcc("Empt"));
    EXPECT_FALSE(file_exists(empty_path));

    // A frame of which only the header and side information can be read:
    // saved as a silent frame of its length, header kept, CRC dropped.
    Bytes frame = packet_bytes(path)[10];
    auto* handle = new ShortHandle(frame, 8);
    auto* damaged = new PacketMP3(160000, 44100.0f, 2, 1152, 3, handle);
    handle->release();
    clip->add_packet(damaged);
    damaged->release();
    clip->update_stream_info();

    // Progress: rising by half a percent at least, 100 at the end, and a
    // cancel changes nothing.
    struct Log {
        std::vector<float> values;
        static int callback(void* self, float percent)
        {
            static_cast<Log*>(self)->values.push_back(percent);
            return 0;
        }
    } log;
    _kel_progress_ext_t progress{&Log::callback, &log, 0.0f};
    const std::string saved = scratch().path("damaged.mp3");
    EXPECT_EQ(clip->save_to(saved.c_str(), nullptr, 0, nullptr, 0, &err, &progress), fourcc("Egga"));
    ASSERT_TRUE(file_exists(saved));
    ASSERT_GE(log.values.size(), 10u);
    EXPECT_EQ(log.values.back(), 100.0f);
    for (size_t i = 1; i + 1 < log.values.size(); ++i)
        EXPECT_GE(log.values[i] - log.values[i - 1], 0.5f);

    const std::vector<Bytes> frames = packet_bytes(saved);
    ASSERT_EQ(frames.size(), static_cast<size_t>(clip->packet_count));
    const Bytes& silent = frames.back();
    ASSERT_EQ(silent.size(), frame.size());
    EXPECT_EQ(silent[1], frame[1] | 1); // protection bit set: no CRC
    EXPECT_TRUE(std::equal(silent.begin() + 2, silent.begin() + 4, frame.begin() + 2));
    EXPECT_TRUE(std::all_of(silent.begin() + 4, silent.end(), [](unsigned char b) { return b == 0; }));
    const Samples decoded = ffmpeg_mp3_frames(saved);
    ASSERT_EQ(decoded.left.size(), frames.size() * 1152);
}
