// The per-parser fuzz targets: each hands its bytes straight to one parser
// (through fmemopen where the parser reads a FILE*), so that a mutation
// reaches the parser's deep branches in a few microseconds instead of
// through a whole open, decode and save. Besides the sanitizers, each
// target checks the invariants its parser promises and aborts when one
// breaks. Inputs are copied into buffers of exactly their size (plus the
// one spare byte that Bitstream::get_bits_le8 asks of its callers), so that
// the address sanitizer sees any read past them.
#include "fuzz_targets.h"

#include "codec/alaccookie.h"
#include "codec/codecdecoderalac.h"
#include "codec/codectypes.h"
#include "coded/bitstream.h"
#include "core/byteorder.h"
#include "m4a/aacgain.h"
#include "m4a/alactranscoder.h"
#include "m4a/m4a_parseraac.h"
#include "m4a/m4a_parseralac.h"
#include "m4a/m4aatoms.h"
#include "mp3/clipmp3.h"
#include "mp3/lametag.h"
#include "mp3/mp3framegain.h"
#include "mp3/mpegheader.h"
#include "pcm/clipaiff.h"
#include "pcm/clipcaff.h"
#include "pcm/clipwave.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace KEL::Fuzz {

namespace {

// Aborts when a promised invariant breaks; libFuzzer saves the input.
void check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

// A read-only stream over the bytes, for the parsers that take a FILE*.
struct MemFile {
    std::vector<uint8_t> bytes;
    FILE* f = nullptr;
    MemFile(const uint8_t* data, size_t size) : bytes(data, data + size)
    {
        // fmemopen refuses a zero-length buffer: one byte, none of it
        // visible, stands in for it.
        if (bytes.empty())
            bytes.push_back(0);
        f = size == 0 ? fmemopen(bytes.data(), 1, "r") : fmemopen(bytes.data(), size, "r");
        if (f != nullptr && size == 0)
            std::fgetc(f); // at the end at once
    }
    ~MemFile()
    {
        if (f != nullptr)
            std::fclose(f);
    }
    MemFile(const MemFile&) = delete;
    MemFile& operator=(const MemFile&) = delete;
};

// A named file over the bytes for the few readers that open a path; it
// lives in memory and goes when closed.
struct MemPath {
    int fd = -1;
    std::string path;
    MemPath(const uint8_t* data, size_t size)
    {
        fd = memfd_create("kel-fuzz", 0);
        if (fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size))
            path = "/proc/self/fd/" + std::to_string(fd);
    }
    ~MemPath()
    {
        if (fd >= 0)
            close(fd);
    }
    MemPath(const MemPath&) = delete;
    MemPath& operator=(const MemPath&) = delete;
};

// A gain from one byte: 2^((b - 128) / 8), from about -96 dB to +95 dB, 0
// and NaN for two of the values so that those edges are reached too.
float gain_of(uint8_t b)
{
    if (b == 0)
        return 0.0f;
    if (b == 255)
        return std::nanf("");
    return std::exp2f((static_cast<float>(b) - 128.0f) / 8.0f);
}

// The reader's fields describe a position inside its buffer.
void check_bitstream(const Bitstream& bs)
{
    check(bs.bit_offset >= 0 && bs.bit_offset <= 7, "bit offset within a byte");
    check(bs.bytes_left >= 0 && bs.bytes_left <= bs.length, "bytes left within the buffer");
    check(bs.current >= bs.start && bs.current <= bs.start + bs.length, "cursor within the buffer");
}

// Whether bit (counted from the frame's first bit, most significant first)
// of a Layer III frame lies in one of its global_gain fields that the frame
// holds whole, or in its CRC word: the only bits a gain change may touch.
// The field positions follow the side-information layout of mp3framegain.h.
bool is_gain_or_crc_bit(const uint8_t* frame, int length, int bit)
{
    if (length < 4)
        return false;
    const bool mpeg1 = (frame[1] & 0x18) == 0x18;
    const bool crc = (frame[1] & 1) == 0;
    const int nch = (frame[3] >> 6) == 3 ? 1 : 2;
    if (crc && bit >= 32 && bit < 48)
        return true;
    int at = 32 + (crc ? 16 : 0) + (mpeg1 ? 9 + (nch == 1 ? 5 : 3) + (nch == 1 ? 4 : 8) : 8 + nch);
    const int blocks = (mpeg1 ? 2 : 1) * nch;
    for (int b = 0; b < blocks; ++b, at += mpeg1 ? 59 : 63) {
        const int gain = at + 21;
        if (gain + 8 <= length * 8 && bit >= gain && bit < gain + 8)
            return true;
    }
    return false;
}

// MP3 frames lying one after another in memory, for the reservoir walk.
class MemFrames : public Mp3FrameSource {
public:
    std::vector<std::vector<uint8_t>> frames;
    int frame_count() override { return static_cast<int>(frames.size()); }
    int frame_length(int index) override { return static_cast<int>(frames[static_cast<size_t>(index)].size()); }
    int main_data_begin(int index, int& err) override
    {
        const std::vector<uint8_t>& f = frames[static_cast<size_t>(index)];
        return mp3_get_main_data_begin(f.data(), static_cast<int>(f.size()), err);
    }
    int static_part_size(int index, int& err) override
    {
        const std::vector<uint8_t>& f = frames[static_cast<size_t>(index)];
        return mp3_static_part_size(f.data(), static_cast<int>(f.size()), err);
    }
};

// The Apple Lossless decoder with its hand decoder in reach.
class HandDecoder : public CodecDecoderALAC {
public:
    using CodecDecoderALAC::decode_by_hand;
};

} // namespace

int bitstream(const uint8_t* data, size_t size)
{
    // The first quarter drives the operations, the rest is the buffer (one
    // spare byte after it, which get_bits_le8 may load).
    const size_t ops = size / 4;
    std::vector<uint8_t> buffer(data + ops, data + size);
    const int length = static_cast<int>(buffer.size());
    buffer.push_back(0);
    Bitstream bs(buffer.data(), length);
    for (size_t i = 0; i < ops; ++i) {
        const int op = data[i] >> 5;
        const int n = data[i] & 31;
        int err = 0;
        const int32_t before = static_cast<int32_t>((bs.current - bs.start) * 8 + bs.bit_offset);
        switch (op) {
        case 0:
            err = bs.skip_bits(n);
            break;
        case 1:
            bs.get_bits_le8(n & 15, err);
            break;
        case 2:
            bs.peek_8bits(err);
            break;
        case 3:
            bs.peek_bits_le8(n & 15, err);
            break;
        case 4:
            err = bs.poke_8bits(static_cast<unsigned char>(n * 8));
            break;
        case 5:
            err = bs.byte_align();
            break;
        case 6:
            err = bs.skip_bits(n * 64 - 1000);
            break;
        default:
            bs.rewind();
            break;
        }
        check_bitstream(bs);
        const int32_t after = static_cast<int32_t>((bs.current - bs.start) * 8 + bs.bit_offset);
        // Only byte_align moves (or shortens its bound) on an error.
        if (err != 0 && op != 5)
            check(after == before, "a failed operation does not move");
    }
    return 0;
}

int mp3_frame(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const float gain = gain_of(data[0]);
    data += 1;
    size -= 1;
    // Cut the rest into frames by their headers; a byte without a valid
    // header ends the walk with the rest as one last frame.
    MemFrames source;
    size_t pos = 0;
    while (pos < size && source.frames.size() < 64) {
        size_t length = size - pos;
        mpeg_frame_t frame{};
        if (size - pos >= 4 && decode_header(mpeg_header_word(data + pos), &frame)) {
            check(frame.frame_length > 0, "frame length positive");
            check(frame.samples_per_frame == 1152 || frame.samples_per_frame == 576, "samples per frame");
            length = std::min(length, static_cast<size_t>(frame.frame_length));
        }
        source.frames.emplace_back(data + pos, data + pos + length);
        pos += length;
    }
    for (int i = 0; i < source.frame_count(); ++i) {
        int err = 0;
        const int preroll = mp3_preroll_count(source, i, err);
        check(preroll >= 0 && preroll <= i, "preroll within the frames before");
        std::vector<uint8_t> frame = source.frames[static_cast<size_t>(i)];
        const int length = static_cast<int>(frame.size());
        const std::vector<uint8_t> before = frame;
        frame.push_back(0); // the one byte get_bits_le8 may load past the end
        Bitstream bs(frame.data(), length);
        const int code = adjust_gain(bs, gain);
        check_bitstream(bs);
        check(frame[static_cast<size_t>(length)] == 0, "nothing written past the frame");
        // Only the bits of whole global_gain fields change, and the CRC word.
        for (int bit = 0; bit < length * 8; ++bit) {
            const int mask = 0x80 >> (bit & 7);
            if (((frame[static_cast<size_t>(bit >> 3)] ^ before[static_cast<size_t>(bit >> 3)]) & mask) != 0)
                check(is_gain_or_crc_bit(before.data(), length, bit), "only global_gain and CRC bits change");
        }
        // With a CRC word, the CRC must be right for the frame as rewritten
        // when it was right before.
        int side_err = 0;
        const int static_size = mp3_static_part_size(frame.data(), length, side_err);
        if (code == 0 && side_err == 0 && length >= static_size && (frame[1] & 1) == 0) {
            const auto crc_of = [&](const std::vector<uint8_t>& f) {
                unsigned crc = mpeg_audio_crc16(0xFFFF, f.data() + 2, 2);
                return mpeg_audio_crc16(crc, f.data() + 6, static_size - 6);
            };
            const unsigned stored_before = get_be16(before.data() + 4);
            if (crc_of(before) == stored_before)
                check(crc_of(frame) == get_be16(frame.data() + 4), "CRC rewritten with the gains");
        }
    }
    return 0;
}

int mp3_tags(const uint8_t* data, size_t size)
{
    // The LAME extension at any offset of a frame in memory.
    if (size >= 1) {
        const std::vector<uint8_t> frame(data + 1, data + size);
        LameTag lame;
        if (lame.read(frame.data(), static_cast<int>(frame.size()), data[0]))
            check(lame.delay >= 0 && lame.delay <= LameTag::kFieldMax && lame.padding >= 0 &&
                      lame.padding <= LameTag::kFieldMax,
                  "delay and padding are 12-bit fields");
    }
    // The ID3v2 skip, the information frame and the stream search and walk
    // over the whole bytes.
    MemPath file(data, size);
    if (file.path.empty())
        return 0;
    _kel_clip_info_t info{};
    if (ClipMP3::get_file_info(file.path.c_str(), &info, nullptr) == 0)
        check(info.duration >= 0.0f && info.bit_rate >= 0, "stream description in range");
    return 0;
}

int aac_gain(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const float gain = gain_of(data[0]);
    const float rate = static_cast<float>(kMpeg4SamplingFrequencies[data[1] % kMpeg4SamplingFrequencies.size()]);
    std::vector<uint8_t> block(data + 2, data + size);
    Bitstream bits(block.data(), static_cast<int>(block.size()));
    adjust_gain(bits, gain, rate);
    check_bitstream(bits);
    return 0;
}

int m4a_atoms(const uint8_t* data, size_t size)
{
    // The atom search over memory, with paths of every separator.
    static constexpr std::array<const char*, 4> kMemPaths = {
        "moov.trak.mdia.minf.stbl.stsd", // the sample entry's route
        "moov.udta.meta,ilst",           // a full box on the way
        "moov.trak-1.tkhd",              // a sibling index
        "mdat",                          // a top-level atom
    };
    for (const char* path : kMemPaths) {
        int offset = -1;
        if (find_atom_mem(data, static_cast<int>(std::min<size_t>(size, 0x7FFFFFFF)),
                          reinterpret_cast<const unsigned char*>(path), &offset))
            check(offset >= 0 && static_cast<size_t>(offset) + 8 <= size, "atom header inside the block");
    }
    // Both parsers: the sample entry, the tables, the edit list, and every
    // packet the tables describe, up to the first that cannot be placed
    // (where the clips stop too).
    for (int kind = 0; kind < 2; ++kind) {
        MemFile file(data, size);
        if (file.f == nullptr)
            return 0;
        std::unique_ptr<M4A_Parser> parser;
        if (kind == 0)
            parser = std::make_unique<M4A_ParserAAC>();
        else
            parser = std::make_unique<M4A_ParserALAC>();
        if (parser->parse(file.f) != 0)
            continue;
        const int packets = parser->get_packet_count();
        long long frames_total = 0;
        for (int i = 0; i < packets; ++i) {
            long long offset = 0;
            int bytes = 0;
            int frames = 0;
            // The clips refuse a negative size before they clamp.
            if (parser->get_packet_info(i, &offset, &bytes, &frames) == 0 || bytes < 0)
                break;
            M4A_Parser::clamp_to_file(static_cast<long long>(size), 1 << 16, offset, bytes, frames);
            check(bytes >= 0 && frames <= 1 << 16, "clamped packet within its bounds");
            check(bytes == 0 || (offset >= 0 && offset + bytes <= static_cast<long long>(size)),
                  "clamped packet inside the file");
            frames_total += std::max(frames, 0);
        }
        int start = 0;
        int end = 0;
        if (parser->edit_trims(frames_total, start, end))
            check(start >= 0 && end >= 0 && start + static_cast<long long>(end) <= frames_total, "trims fit");
    }
    return 0;
}

int alac(const uint8_t* data, size_t size)
{
    // The first byte picks the cookie's form: the 48-byte layout, the bare
    // 36-byte atom, or the bare 24-byte configuration.
    static constexpr std::array<size_t, 3> kCookieBytes = {ALACCookie::kLayoutBytes, ALACCookie::kAtomBytes,
                                                           ALACCookie::kAtomBytes - 12};
    if (size < 2)
        return 0;
    const size_t cookie_bytes = kCookieBytes[data[0] % kCookieBytes.size()];
    data += 1;
    size -= 1;
    if (size < cookie_bytes)
        return 0;
    ALACCookie cookie;
    if (!ALACCookie::parse(data, cookie_bytes, &cookie))
        return 0;
    check(cookie.usable(), "a parsed cookie is usable");
    ALACCookie again;
    const std::array<uint8_t, ALACCookie::kLayoutBytes> layout = cookie.layout();
    check(ALACCookie::parse(layout.data(), layout.size(), &again) && again.atom() == cookie.atom(),
          "the layout reads back as the same cookie");

    HandDecoder decoder;
    if (decoder.set_property(kPropertyMagicCookie, static_cast<uint32_t>(cookie_bytes), data) != 0)
        return 0;
    static AVFrame* frame = av_frame_alloc();
    const std::vector<uint8_t> packet(data + cookie_bytes, data + size);
    int error = 0;
    if (decoder.decode_by_hand(packet.data(), packet.size(), frame, &error) && error == 0)
        check(frame->nb_samples >= 1 && static_cast<uint32_t>(frame->nb_samples) <= cookie.frame_length,
              "no more frames than the cookie's frame length");

    // The saver's hand-made frame decodes to the samples it was made from.
    const int channels = cookie.channels;
    const int bits = cookie.bit_depth;
    if (channels > 2 || (bits != 16 && bits != 24))
        return 0;
    const size_t frame_bytes = static_cast<size_t>(channels) * static_cast<size_t>(bits / 8);
    const size_t count = std::min<size_t>(packet.size() / frame_bytes, cookie.frame_length);
    if (count == 0)
        return 0;
    const int length = static_cast<int>(count * frame_bytes);
    std::vector<uint8_t> made(static_cast<size_t>(length) + 3);
    const int made_size = ALACTranscoder::write_uncompressed(packet.data(), length, channels, bits, made.data(),
                                                             static_cast<int>(made.size()));
    check(made_size == length + 3, "hand-made frame size");
    made.resize(static_cast<size_t>(made_size));
    check(decoder.decode_by_hand(made.data(), made.size(), frame, &error) && error == 0, "hand-made frame decodes");
    check(static_cast<size_t>(frame->nb_samples) == count, "hand-made frame keeps its frames");
    for (size_t n = 0; n < count; ++n) {
        for (int c = 0; c < channels; ++c) {
            const uint8_t* s = packet.data() + n * frame_bytes + static_cast<size_t>(c) * (bits / 8);
            int32_t want = 0;
            int32_t got = 0;
            if (bits == 16) {
                want = static_cast<int16_t>(get_be16(s));
                int16_t v = 0;
                std::memcpy(&v, frame->extended_data[c] + n * 2, 2);
                got = v;
            } else {
                want = static_cast<int32_t>(get_be24(s) << 8) / 256;
                std::memcpy(&got, frame->extended_data[c] + n * 4, 4);
                got /= 256;
            }
            check(got == want, "hand-made frame sample");
        }
    }
    return 0;
}

int pcm_chunks(const uint8_t* data, size_t size)
{
    // Each scanner on the same bytes; whatever it accepts must lie inside
    // the file and hold whole frames of a supported layout.
    const auto accept = [&](int code, const auto& layout) {
        if (code != 0)
            return;
        check(layout.channels >= 1 && (layout.bits == 16 || layout.bits == 24), "supported layout");
        check(layout.offset >= 0 && layout.length >= 0 &&
                  layout.offset + layout.length <= static_cast<long long>(size),
              "sound data inside the file");
    };
    {
        MemFile file(data, size);
        ClipWAVE::FileLayout layout;
        if (file.f != nullptr)
            accept(ClipWAVE::scan_layout(file.f, layout), layout);
    }
    {
        MemFile file(data, size);
        ClipAIFF::FileLayout layout;
        if (file.f != nullptr)
            accept(ClipAIFF::scan_layout(file.f, layout), layout);
    }
    {
        MemFile file(data, size);
        ClipCAFF::FileLayout layout;
        if (file.f != nullptr)
            accept(ClipCAFF::scan_layout(file.f, layout), layout);
    }
    return 0;
}

} // namespace KEL::Fuzz
