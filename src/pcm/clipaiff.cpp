#include "pcm/pcmclip.h"
#include "pcm/clipaiff.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "pcm/ieeeextended.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmloader.h"
#include "pcm/pcmsaver.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace KEL {


namespace {

// AIFF sizes are signed 32-bit numbers: no well-formed file reaches 2 GiB.
constexpr long long kMaxAiffFile = 2147483648LL;

// Bytes of the header written on save: FORM header, 18-byte "COMM" chunk,
// "SSND" chunk header with its offset and block size.
constexpr int kHeaderBytes = 54;

// "COMM" fields: channels (2), frames (4), sample size (2), sample rate as
// an 80-bit extended number (10); AIFF-C adds the compression type (4).
constexpr size_t kCommonBytes = 18;
constexpr size_t kCommonBytesC = 22;

// "SSND" fields ahead of the samples: offset and block size.
constexpr long long kSoundFieldBytes = 8;

// Chunk bodies are padded to an even length.
long long padded(int32_t size)
{
    return static_cast<long long>(size) + (size & 1);
}

int32_t get_be32s(const unsigned char* p)
{
    return static_cast<int32_t>(get_be32(p));
}

// The sample layouts an AIFF-C "COMM" chunk may name.
struct Compression {
    char type[5];
    int bits; // 0: the sample size decides, and must be 16 or 24
    bool littleEndian;
};

static constexpr std::array<Compression, 4> kCompressions = {{
    {"NONE", 0, false},  // uncompressed big-endian, width from the sample size
    {"twos", 16, false}, // 16-bit big-endian, whatever the sample size says
    {"sowt", 16, true},  // 16-bit little-endian, whatever the sample size says
    {"in24", 24, false}, // 24-bit big-endian
}};

struct CommonFields {
    int channels;
    int bits;
    float sampleRate;
    bool littleEndian;
};

// What the "COMM" chunk says, checked in the order that decides the code:
// corrupt counts and rates before unsupported layouts. The frame count is
// only checked; the sound data decides the length.
int check_common(const unsigned char* fields, bool aifc, CommonFields& out)
{
    const int channels = static_cast<int16_t>(get_be16(fields));
    const int32_t frames = get_be32s(fields + 2);
    const int sample_size = static_cast<int16_t>(get_be16(fields + 6));
    const float rate = static_cast<float>(ConvertFromIeeeExtended(fields + 8));
    if (channels < 1 || frames < 1 || !(rate > 0.0f))
        return kErrCorruptAiff;

    int bits = sample_size;
    bool little = false;
    if (aifc) {
        const Compression* found = nullptr;
        for (const Compression& c : kCompressions) {
            if (std::memcmp(fields + 18, c.type, 4) == 0)
                found = &c;
        }
        if (found == nullptr)
            return kErrFormatUnsupported;
        if (found->bits != 0)
            bits = found->bits;
        little = found->littleEndian;
    }
    if (bits != 16 && bits != 24)
        return kErrFormatUnsupported;
    out = CommonFields{channels, bits, rate, little};
    return 0;
}

// The form types of AIFF and AIFF-C files.
bool is_form_type(const unsigned char* type)
{
    return is_tag(type, "AIFF") || is_tag(type, "AIFC");
}

} // namespace

ClipAIFF::ClipAIFF(int channels, float sampleRate, int bits, int packetFrames, BSFile* file)
    : PcmClip(channels, sampleRate, bits, packetFrames, file)
{
}

ClipAIFF::~ClipAIFF() = default;

int ClipAIFF::detect(const char* path)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    unsigned char head[12];
    const size_t got = std::fread(head, 1, sizeof head, f);
    std::fclose(f);
    if (got < sizeof head || !is_tag(head, "FORM") || !is_form_type(head + 8))
        return kErrFormatUnrecognized;
    return 0;
}

int ClipAIFF::scan(FILE* f, int* channels, int* bits, float* sampleRate, bool* littleEndian, int* dataLength,
                   int* dataOffset)
{
    if (fseeko(f, 0, SEEK_END) != 0)
        return kErrIo;
    const long long length = ftello(f);
    if (length < 0)
        return kErrIo;
    if (length >= kMaxAiffFile)
        return kErrFormatUnrecognized;
    if (fseeko(f, 0, SEEK_SET) != 0)
        return kErrIo;

    unsigned char head[12];
    if (std::fread(head, 1, 4, f) != 4 || !is_tag(head, "FORM"))
        return kErrFormatUnrecognized;
    if (std::fread(head + 4, 1, 4, f) != 4)
        return kErrFormatUnrecognized;
    if (get_be32s(head + 4) < 0)
        return kErrCorruptAiff;
    if (std::fread(head + 8, 1, 4, f) != 4 || !is_form_type(head + 8))
        return kErrFormatUnrecognized;
    const bool aifc = is_tag(head + 8, "AIFC");

    // Chunks may come in any order; the walk ends as soon as both the
    // common chunk and the sound data have been seen.
    bool common_seen = false;
    bool sound_seen = false;
    for (;;) {
        const long long position = ftello(f);
        if (position < 0)
            return kErrIo;
        if (position + 8 >= length)
            return kErrCorruptAiff;
        unsigned char chunk[8];
        if (std::fread(chunk, 1, sizeof chunk, f) != sizeof chunk)
            break;
        const int32_t size = get_be32s(chunk + 4);
        if (size < 0 || is_tag(chunk, "FORM"))
            return kErrCorruptAiff;
        const long long body = position + 8;

        if (is_tag(chunk, "SSND")) {
            unsigned char fields[kSoundFieldBytes];
            if (std::fread(fields, 1, sizeof fields, f) != sizeof fields)
                break;
            const int32_t offset = get_be32s(fields);
            if (offset < 0)
                return kErrCorruptAiff;
            const long long after = body + kSoundFieldBytes;
            const long long first = after + offset;
            if (first >= length)
                return kErrCorruptAiff;
            // Cut to the bytes behind the two fields; the offset is not
            // taken off the bytes present, so a large offset can leave a
            // length that runs past the end (the packets then read short).
            long long bytes = static_cast<long long>(size) - offset - kSoundFieldBytes;
            if (bytes > length - after)
                bytes = length - after;
            if (bytes < 1)
                return kErrCorruptAiff;
            if (dataOffset != nullptr)
                *dataOffset = static_cast<int>(first);
            if (dataLength != nullptr)
                *dataLength = static_cast<int>(bytes);
            sound_seen = true;
            if (fseeko(f, body + padded(size), SEEK_SET) != 0)
                break;
        } else if (is_tag(chunk, "COMM")) {
            unsigned char fields[kCommonBytesC];
            const size_t wanted = aifc ? kCommonBytesC : kCommonBytes;
            if (std::fread(fields, 1, wanted, f) != wanted)
                break;
            CommonFields common{};
            if (const int code = check_common(fields, aifc, common))
                return code;
            if (channels != nullptr)
                *channels = common.channels;
            if (bits != nullptr)
                *bits = common.bits;
            if (sampleRate != nullptr)
                *sampleRate = common.sampleRate;
            if (littleEndian != nullptr)
                *littleEndian = common.littleEndian;
            common_seen = true;
            // A plain AIFF "COMM" chunk is taken to be exactly 18 bytes.
            // An AIFF-C one goes on with the compression name: skip the
            // rest, the 22 bytes read deducted and the size padded to even
            // (which steps back when the chunk claims fewer than 22).
            if (aifc && fseeko(f, (static_cast<long long>(size) - 21) & ~1LL, SEEK_CUR) != 0)
                break;
        } else if (fseeko(f, padded(size), SEEK_CUR) != 0) {
            break;
        }

        if (common_seen && sound_seen)
            return 0;
    }
    return std::feof(f) ? kErrEof : kErrIo;
}

int ClipAIFF::scan_layout(FILE* f, FileLayout& layout)
{
    int length = 0;
    int offset = 0;
    bool little = false;
    const int code = scan(f, &layout.channels, &layout.bits, &layout.rate, &little, &length, &offset);
    layout.little = little;
    layout.length = length;
    layout.offset = offset;
    return code;
}

int ClipAIFF::load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout)
{
    return load(path, progress, layout.channels, layout.bits, layout.rate, layout.little, static_cast<int>(layout.length),
                static_cast<int>(layout.offset));
}

int ClipAIFF::load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
                   bool littleEndian, int dataLength, int dataOffset)
{
    packetFrames = pcm_packet_frames_setting();
    const int frame_bytes = PcmLayout{bits, channels, PcmByteOrder::big}.frame_bytes();
    if (frame_bytes == 0)
        return kErrCorruptAiff;
    const PcmData data{dataLength / frame_bytes, dataOffset, frame_bytes, sampleRate};
    return pcm_load_packets(*this, path, progress, data, packetFrames, kErrCorruptAiff,
                            [=](int bitRate, int frames, int diskFrames, BSHandle* handle) -> Packet* {
                                return new PacketAIFF(bits, bitRate, sampleRate, channels, littleEndian, frames,
                                                      diskFrames, handle);
                            });
}

ClipAIFF* ClipAIFF::create_empty(int channels, float sampleRate, int bits, int* err)
{
    return create_empty_clip(channels, sampleRate, bits, bits == 16 || bits == 24, err);
}

int ClipAIFF::save_to(const char* path, const void* extra, int extraLength, const void*, int, int* err,
                      _kel_progress_ext_t* progress)
{
    PcmSaver saver(kHeaderBytes, [this](FILE* f, long long frames, int extraBytes) {
        write_aiff_header(f, static_cast<long>(frames), sample_rate, channels, bits_per_sample, extraBytes);
    });
    const int code = saver.save(*this, path, extra, extraLength, progress);
    if (err != nullptr)
        *err = code;
    return code;
}

void write_aiff_header(FILE* f, long frames, float sampleRate, int channels, int bits, int extraBytes)
{
    if (fseeko(f, 0, SEEK_SET) != 0)
        return;
    // 32-bit fields: the savers keep files below 2 GiB, so nothing wraps
    // for a clip that passed their checks.
    const uint32_t data_bytes = static_cast<uint32_t>(static_cast<uint64_t>(bits / 8) *
                                                      static_cast<uint64_t>(frames) *
                                                      static_cast<uint32_t>(channels));

    unsigned char h[kHeaderBytes];
    put_tag(h, "FORM");
    put_be32(h + 4, data_bytes + static_cast<uint32_t>(extraBytes) + 46u);
    put_tag(h + 8, "AIFF");
    put_tag(h + 12, "COMM");
    put_be32(h + 16, kCommonBytes);
    put_be16(h + 20, static_cast<uint32_t>(channels));
    put_be32(h + 22, static_cast<uint32_t>(frames));
    put_be16(h + 26, static_cast<uint32_t>(bits));
    ConvertToIeeeExtended(static_cast<double>(sampleRate), h + 28);
    put_tag(h + 38, "SSND");
    put_be32(h + 42, data_bytes + 8u);
    put_be32(h + 46, 0); // offset
    put_be32(h + 50, 0); // block size
    std::fwrite(h, 1, sizeof h, f);
}

} // namespace KEL
