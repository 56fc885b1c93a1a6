#include "m4a/m4a_parseraac.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "m4a/m4aatoms.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>

namespace KEL {


namespace {

constexpr const char* kEntryPath = "moov.trak-%d.mdia.minf.stbl.stsd;mp4a";

// Bytes of the sample entry before its child atoms: size, type, 6 reserved,
// data reference index, version, revision, vendor, channel count, sample
// size, compression id, packet size, 16.16 sample rate.
constexpr int kEntryHeader = 36;

// MPEG-4 descriptor tags inside "esds".
constexpr unsigned char kTagES = 3;
constexpr unsigned char kTagDecoderConfig = 4;
constexpr unsigned char kTagDecoderSpecific = 5;

// The first standard AAC bit rate (bits per second) not below value, or 0.
int standard_rate_at_least(int value)
{
    static constexpr std::array<int, 18> kRates = {
        16000, 20000, 24000, 28000, 32000, 40000, 48000, 56000, 64000,       // low rates
        80000, 96000, 112000, 128000, 160000, 192000, 224000, 256000, 320000}; // high rates
    for (int rate : kRates)
        if (rate >= value)
            return rate;
    return 0;
}

// The first byte equal to tag at or after from (length when there is none).
long long find_tag(const unsigned char* bytes, long long length, long long from, unsigned char tag)
{
    long long p = from;
    while (p < length && bytes[p] != tag)
        ++p;
    return p;
}

// The last byte of the size field that follows the tag at tag_at: bytes
// with the top bit set continue the field.
long long last_size_byte(const unsigned char* bytes, long long length, long long tag_at)
{
    long long p = tag_at + 1;
    while (p < length && (bytes[p] & 0x80) != 0)
        ++p;
    return p;
}

// Object type indications of the decoder configuration that carry AAC:
// MPEG-4 audio (refined by the AudioSpecificConfig) and the three MPEG-2
// AAC profiles.
constexpr std::array<unsigned char, 4> kAacIndications = {
    0x40, // MPEG-4 audio
    0x66, // MPEG-2 AAC Main
    0x67, // MPEG-2 AAC LC
    0x68, // MPEG-2 AAC SSR
};

// MSB-first reader over an AudioSpecificConfig; reads past the end give 0
// and set `over`.
struct ConfigBits {
    const unsigned char* bytes;
    long long length;
    long long bit = 0;
    bool over = false;

    unsigned read(int n)
    {
        unsigned value = 0;
        for (int i = 0; i < n; ++i, ++bit) {
            const long long byte = bit >> 3;
            if (byte >= length) {
                over = true;
                value <<= 1;
                continue;
            }
            value = (value << 1) | ((bytes[byte] >> (7 - (bit & 7))) & 1u);
        }
        return value;
    }
    long long left() const { return length * 8 - bit; }
};

// Audio object type: 5 bits, 31 escaping to 32 + the next 6 bits.
unsigned object_type(ConfigBits& bits)
{
    const unsigned type = bits.read(5);
    return type == 31 ? 32 + bits.read(6) : type;
}

// Whether an AudioSpecificConfig describes AAC without spectral band
// replication. Layout: object type, sampling frequency index (4 bits, 15
// followed by a 24-bit rate), channel configuration (4); object types 5
// (SBR) and 29 (parametric stereo) name SBR explicitly. For the plain AAC
// types the GASpecificConfig follows (frame length flag, core coder flag
// with a 14-bit delay, extension flag), and after it an optional
// backward-compatible extension: the 11-bit sync word 0x2B7, object type 5
// and a presence flag.
bool config_is_plain_aac(const unsigned char* asc, long long length)
{
    ConfigBits bits{asc, length};
    const unsigned type = object_type(bits);
    if (type < 1 || type > 4) // Main, LC, SSR, LTP
        return false;
    if (bits.read(4) == 15)
        bits.read(24);
    const unsigned channel_config = bits.read(4);
    bits.read(1);
    if (bits.read(1) != 0)
        bits.read(14);
    bits.read(1);
    // A program config element (channel configuration 0) has a length of
    // its own; no extension is looked for behind it.
    if (channel_config == 0 || bits.over || bits.left() < 16)
        return true;
    if (bits.read(11) != 0x2B7)
        return true;
    return !(object_type(bits) == 5 && bits.read(1) == 1);
}

} // namespace

int M4A_ParserAAC::detect(FILE* file)
{
    return detect_entry(file, kEntryPath);
}

int M4A_ParserAAC::round_bitrate_to_aac_standard(int value)
{
    return standard_rate_at_least(value);
}

int M4A_ParserAAC::parse(FILE* file)
{
    int track = 0;
    long long at = 0;
    if (file == nullptr || !find_atom_and_index(file, kEntryPath, &track, &at))
        return kErrCorruptAac;
    unsigned char entry[kEntryHeader];
    if (const int err = read_at(file, at, entry, sizeof entry))
        return err;
    channels = get_be16(entry + 24);
    sample_rate = static_cast<float>(get_be16(entry + 32)) + static_cast<float>(get_be16(entry + 34)) * 1.5258789e-5f;
    bit_rate = 0;
    bits_per_sample = 0;

    // The rest of the entry holds "esds". Its reading never fails the
    // parse: whatever cannot be read keeps the values of the entry.
    const long long rest_length = static_cast<long long>(get_be32(entry)) - kEntryHeader;
    if (rest_length > 12) {
        const long long here = ftello(file);
        long long end = -1;
        if (here >= 0 && fseeko(file, 0, SEEK_END) == 0)
            end = ftello(file);
        // Sized by what the file can hold before anything is allocated.
        if (end >= 0 && fseeko(file, here, SEEK_SET) == 0 && rest_length <= end - here) {
            auto* rest = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(rest_length)));
            if (rest != nullptr && read_next(file, rest, static_cast<size_t>(rest_length)) == 0)
                read_esds(rest, rest_length);
            std::free(rest);
        }
    }

    if (!plain_aac)
        return kErrFormatUnsupported;
    if (!load_tables(file, track))
        return kErrCorruptAac;
    return 0;
}

// The descriptors are found by their tag bytes, not by following their
// nesting: an ES descriptor (3) after the atom's header and version, a
// decoder configuration (4) after the ES id and flags, and a decoder
// specific information (5) after the configuration's fixed fields. Every
// search stops at the end of the rest; fields past it read as 0.
void M4A_ParserAAC::read_esds(const unsigned char* rest, long long length)
{
    long long p = find_tag(rest, length, 12, kTagES);
    p = last_size_byte(rest, length, p);
    // ES id (16 bits) and flags (8 bits) follow the size.
    p = find_tag(rest, length, p + 4, kTagDecoderConfig);
    const long long config = last_size_byte(rest, length, p);
    // Object type, stream type and the 24-bit buffer size precede the
    // maximum and average bit rates.
    const int max_rate = length > config + 10 ? static_cast<int32_t>(get_be32(rest + config + 6)) : 0;
    const int avg_rate = length > config + 14 ? static_cast<int32_t>(get_be32(rest + config + 10)) : 0;
    if (length > config + 1) {
        const unsigned char indication = rest[config + 1];
        plain_aac = std::find(kAacIndications.begin(), kAacIndications.end(), indication) != kAacIndications.end();
    }

    const long long specific = find_tag(rest, length, config + 14, kTagDecoderSpecific);
    p = last_size_byte(rest, length, specific);
    if (plain_aac && length > p + 1 && rest[config + 1] == 0x40) {
        // The descriptor's size: 7 bits per size byte, held at the bytes
        // the rest holds (a run of size bytes may be any length).
        long long size = 0;
        for (long long s = specific + 1; s <= p && s < length; ++s)
            size = std::min((size << 7) | (rest[s] & 0x7F), length);
        plain_aac = config_is_plain_aac(rest + p + 1, std::min(size, length - p - 1));
    }
    int frequency_index = 15;
    int channel_config = 0;
    if (length > p + 3) {
        // AudioSpecificConfig: object type (5 bits), sampling frequency
        // index (4), channel configuration (4).
        const unsigned word = get_be16(rest + p + 1);
        frequency_index = static_cast<int>((word >> 7) & 0xF);
        channel_config = static_cast<int>((word >> 3) & 0xF);
    }

    // The maximum bit rate decides whenever the table reaches it, even a
    // maximum of 0; the average only when the maximum is above the table.
    bit_rate = standard_rate_at_least(max_rate);
    if (bit_rate == 0)
        bit_rate = standard_rate_at_least(avg_rate);
    if (channel_config != 0)
        channels = channel_config;
    if (frequency_index < 12)
        sample_rate = static_cast<float>(kMpeg4SamplingFrequencies[static_cast<size_t>(frequency_index)]);
}

} // namespace KEL
