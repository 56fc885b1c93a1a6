#include "codec/alaccookie.h"

#include "core/byteorder.h"

#include <cmath>

namespace KEL {

namespace {

// The 24-byte configuration starts at this offset of the atom.
constexpr size_t kConfigOffset = 12;
constexpr size_t kConfigBytes = ALACCookie::kAtomBytes - kConfigOffset;
constexpr size_t kFrmaBytes = 12;

bool is_atom(const uint8_t* p, uint32_t size, int32_t type)
{
    return get_be32(p) == size && get_be32(p + 4) == static_cast<uint32_t>(type);
}

} // namespace

ALACCookie ALACCookie::from_description(const AudioStreamBasicDescription& d)
{
    ALACCookie c;
    c.frame_length = d.frames_per_packet != 0 ? d.frames_per_packet : 4096;
    switch (d.format_flags) {
    case kALACFlag20Bit:
        c.bit_depth = 20;
        break;
    case kALACFlag24Bit:
        c.bit_depth = 24;
        break;
    case kALACFlag32Bit:
        c.bit_depth = 32;
        break;
    default:
        c.bit_depth = 16;
        break;
    }
    c.channels = static_cast<uint8_t>(d.channels_per_frame <= 255 ? d.channels_per_frame : 0);
    const double rate = std::isfinite(d.sample_rate) && d.sample_rate > 0.0 && d.sample_rate < 4294967296.0
                            ? std::round(d.sample_rate)
                            : 0.0;
    c.sample_rate = static_cast<uint32_t>(rate);
    return c;
}

bool ALACCookie::parse(const void* bytes, size_t size, ALACCookie* out)
{
    if (bytes == nullptr || out == nullptr)
        return false;
    const uint8_t* p = static_cast<const uint8_t*>(bytes);
    const uint8_t* config = nullptr;
    if (size >= kLayoutBytes && is_atom(p, kFrmaBytes, fourcc("frma")) &&
        get_be32(p + 8) == static_cast<uint32_t>(kFormatALAC) && is_atom(p + kFrmaBytes, kAtomBytes, kFormatALAC))
        config = p + kFrmaBytes + kConfigOffset;
    else if (size >= kAtomBytes && is_atom(p, kAtomBytes, kFormatALAC))
        config = p + kConfigOffset;
    else if (size == kConfigBytes)
        config = p;
    else
        return false;

    ALACCookie c;
    c.frame_length = get_be32(config);
    c.compatible_version = config[4];
    c.bit_depth = config[5];
    c.history_mult = config[6];
    c.initial_history = config[7];
    c.rice_limit = config[8];
    c.channels = config[9];
    c.max_run = static_cast<uint16_t>((config[10] << 8) | config[11]);
    c.max_frame_bytes = get_be32(config + 12);
    c.average_bit_rate = get_be32(config + 16);
    c.sample_rate = get_be32(config + 20);
    if (!c.usable())
        return false;
    *out = c;
    return true;
}

bool ALACCookie::usable() const
{
    return frame_length >= 1 && frame_length <= kMaxFrameLength &&
           (bit_depth == 16 || bit_depth == 20 || bit_depth == 24 || bit_depth == 32) && channels >= 1 &&
           channels <= 8;
}

std::array<uint8_t, ALACCookie::kAtomBytes> ALACCookie::atom() const
{
    std::array<uint8_t, kAtomBytes> a{};
    put_be32(a.data(), static_cast<uint32_t>(kAtomBytes));
    put_be32(a.data() + 4, static_cast<uint32_t>(kFormatALAC));
    uint8_t* config = a.data() + kConfigOffset;
    put_be32(config, frame_length);
    config[4] = compatible_version;
    config[5] = bit_depth;
    config[6] = history_mult;
    config[7] = initial_history;
    config[8] = rice_limit;
    config[9] = channels;
    config[10] = static_cast<uint8_t>(max_run >> 8);
    config[11] = static_cast<uint8_t>(max_run);
    put_be32(config + 12, max_frame_bytes);
    put_be32(config + 16, average_bit_rate);
    put_be32(config + 20, sample_rate);
    return a;
}

std::array<uint8_t, ALACCookie::kLayoutBytes> ALACCookie::layout() const
{
    std::array<uint8_t, kLayoutBytes> l{};
    put_be32(l.data(), static_cast<uint32_t>(kFrmaBytes));
    put_be32(l.data() + 4, static_cast<uint32_t>(fourcc("frma")));
    put_be32(l.data() + 8, static_cast<uint32_t>(kFormatALAC));
    const std::array<uint8_t, kAtomBytes> a = atom();
    for (size_t i = 0; i < kAtomBytes; ++i)
        l[kFrmaBytes + i] = a[i];
    return l;
}

} // namespace KEL
