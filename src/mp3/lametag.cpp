#include "mp3/lametag.h"

#include "core/byteorder.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace KEL {

namespace {

// Flags of the "Xing" block: which 32-bit fields follow it.
constexpr uint32_t kFramesFlag = 1;
constexpr uint32_t kBytesFlag = 2;
constexpr uint32_t kTableFlag = 4;
constexpr uint32_t kQualityFlag = 8;

// Offsets inside the extension.
constexpr int kDelayAt = 21;
constexpr int kMusicLengthAt = 28;
constexpr int kCrcAt = 34;

// Version texts whose delay and padding players honour.
static constexpr std::array<const char*, 3> kTrustedVersions = {
    "LAME", // the LAME encoder and tools that write its layout
    "Lavc", // ffmpeg's encoder
    "Lavf", // ffmpeg's muxer
};

} // namespace

bool LameTag::read(const unsigned char* frame, int length, int tag_offset)
{
    if (frame == nullptr || tag_offset < 0 || tag_offset + 8 > length)
        return false;
    const uint32_t flags = get_be32(frame + tag_offset + 4);
    int at = tag_offset + 8;
    at += (flags & kFramesFlag) != 0 ? 4 : 0;
    at += (flags & kBytesFlag) != 0 ? 4 : 0;
    at += (flags & kTableFlag) != 0 ? 100 : 0;
    at += (flags & kQualityFlag) != 0 ? 4 : 0;
    if (at + kExtensionBytes > length)
        return false;
    const bool trusted = std::any_of(kTrustedVersions.begin(), kTrustedVersions.end(),
                                     [&](const char* v) { return std::memcmp(frame + at, v, 4) == 0; });
    if (!trusted)
        return false;
    const uint32_t fields = get_be24(frame + at + kDelayAt);
    delay = static_cast<int>(fields >> 12);
    padding = static_cast<int>(fields & 0xFFF);
    return true;
}

void LameTag::write(unsigned char* frame, int tag_offset, int delay, int padding, uint32_t music_length)
{
    put_be32(frame + tag_offset + 4, kFramesFlag | kBytesFlag | kTableFlag | kQualityFlag);
    unsigned char* ext = frame + tag_offset + kXingBytes;
    std::memset(ext, 0, kExtensionBytes);
    std::memcpy(ext, "LAME3.100", 9);
    const uint32_t d = static_cast<uint32_t>(std::clamp(delay, 0, kFieldMax));
    const uint32_t p = static_cast<uint32_t>(std::clamp(padding, 0, kFieldMax));
    put_be24(ext + kDelayAt, d << 12 | p);
    put_be32(ext + kMusicLengthAt, music_length);
    const int crc_at = tag_offset + kXingBytes + kCrcAt;
    put_be16(frame + crc_at, crc16(frame, crc_at));
}

uint16_t LameTag::crc16(const unsigned char* bytes, int count)
{
    // Reflected form of 0x8005, one bit at a time: the frame is read once
    // per save.
    uint32_t crc = 0;
    for (int i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xA001u : crc >> 1;
    }
    return static_cast<uint16_t>(crc);
}

} // namespace KEL
