#include "pcm/pcmclip.h"
#include "pcm/clipwave.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmloader.h"
#include "pcm/pcmsaver.h"

#include <cstdint>

namespace KEL {


namespace {

// RIFF sizes are 32-bit: a file this long cannot be a well-formed WAVE.
constexpr long long kMaxWaveFile = 4294967296LL;

// Bytes of the canonical header: RIFF header, 16-byte "fmt " chunk, "data"
// chunk header.
constexpr int kHeaderBytes = 44;

// The fields of a "fmt " chunk that are read, in file order (16 bytes).
constexpr int kFormatFieldBytes = 16;

// Format tag of integer PCM.
constexpr unsigned kFormatPCM = 1;

// Chunk bodies are padded to an even length.
long long padded(uint32_t size)
{
    return static_cast<long long>(size) + (size & 1u);
}

// What the "fmt " chunk says, checked in the order that decides the code.
int check_format(const unsigned char* fields, int* channels, int* bits, float* sampleRate)
{
    const unsigned tag = get_le16(fields);
    const unsigned chans = get_le16(fields + 2);
    const uint32_t rate = get_le32(fields + 4);
    const unsigned width = get_le16(fields + 14);
    if (tag != kFormatPCM)
        return kErrFormatUnsupported;
    if (chans == 0 || rate == 0)
        return kErrCorruptWave;
    if (width != 16 && width != 24)
        return kErrFormatUnsupported;
    if (channels != nullptr)
        *channels = static_cast<int>(chans);
    if (bits != nullptr)
        *bits = static_cast<int>(width);
    if (sampleRate != nullptr)
        *sampleRate = static_cast<float>(rate);
    return 0;
}

// The sample rate as a header field: truncated, and held to 32 bits.
uint32_t header_rate(float sampleRate)
{
    if (!(sampleRate > 0.0f))
        return 0;
    if (sampleRate >= 4294967295.0f)
        return UINT32_MAX;
    return static_cast<uint32_t>(sampleRate);
}

} // namespace

ClipWAVE::ClipWAVE(int channels, float sampleRate, int bits, int packetFrames, BSFile* file)
    : PcmClip(channels, sampleRate, bits, packetFrames, file)
{
}

ClipWAVE::~ClipWAVE() = default;

int ClipWAVE::detect(const char* path)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    unsigned char head[12];
    const size_t got = std::fread(head, 1, sizeof head, f);
    std::fclose(f);
    if (got < sizeof head || !is_tag(head, "RIFF") || !is_tag(head + 8, "WAVE"))
        return kErrFormatUnrecognized;
    return 0;
}

int ClipWAVE::scan(FILE* f, int* channels, int* bits, float* sampleRate, unsigned int* dataLength,
                   unsigned int* dataOffset)
{
    if (fseeko(f, 0, SEEK_END) != 0)
        return kErrIo;
    const long long length = ftello(f);
    if (length < 0)
        return kErrIo;
    if (length >= kMaxWaveFile)
        return kErrFormatUnrecognized;
    if (fseeko(f, 0, SEEK_SET) != 0)
        return kErrIo;

    unsigned char head[12];
    if (std::fread(head, 1, 4, f) != 4 || !is_tag(head, "RIFF"))
        return kErrFormatUnrecognized;
    if (std::fread(head + 4, 1, 4, f) != 4) // the RIFF size says nothing useful
        return kErrFormatUnrecognized;
    if (std::fread(head + 8, 1, 4, f) != 4 || !is_tag(head + 8, "WAVE"))
        return kErrFormatUnrecognized;

    // Chunks may come in any order; the walk ends as soon as both the
    // format and the data have been seen.
    bool format_seen = false;
    bool data_seen = false;
    for (;;) {
        const long long position = ftello(f);
        if (position < 0)
            return kErrIo;
        if (position + 8 >= length)
            return kErrCorruptWave;
        unsigned char chunk[8];
        if (std::fread(chunk, 1, sizeof chunk, f) != sizeof chunk)
            break;
        const uint32_t size = get_le32(chunk + 4);
        const long long body = position + 8;

        if (is_tag(chunk, "data")) {
            // A data chunk that claims more than the file holds is cut to
            // the bytes present.
            long long bytes = size;
            if (bytes > length - body)
                bytes = length - body;
            if (dataOffset != nullptr)
                *dataOffset = static_cast<unsigned int>(body);
            if (dataLength != nullptr)
                *dataLength = static_cast<unsigned int>(bytes);
            data_seen = true;
            if (fseeko(f, padded(size), SEEK_CUR) != 0)
                break;
        } else if (is_tag(chunk, "fmt ")) {
            unsigned char fields[kFormatFieldBytes];
            if (std::fread(fields, 1, sizeof fields, f) != sizeof fields)
                break;
            if (const int code = check_format(fields, channels, bits, sampleRate))
                return code;
            format_seen = true;
            if (fseeko(f, body + padded(size), SEEK_SET) != 0)
                break;
        } else if (is_tag(chunk, "RIFF")) {
            return kErrCorruptWave;
        } else if (fseeko(f, padded(size), SEEK_CUR) != 0) {
            break;
        }

        if (format_seen && data_seen)
            return 0;
    }
    return std::feof(f) ? kErrEof : kErrIo;
}

int ClipWAVE::scan_layout(FILE* f, FileLayout& layout)
{
    unsigned int length = 0;
    unsigned int offset = 0;
    const int code = scan(f, &layout.channels, &layout.bits, &layout.rate, &length, &offset);
    layout.length = length;
    layout.offset = offset;
    return code;
}

int ClipWAVE::load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout)
{
    return load(path, progress, layout.channels, layout.bits, layout.rate, static_cast<unsigned int>(layout.length),
                static_cast<unsigned int>(layout.offset));
}

int ClipWAVE::load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
                   unsigned int dataLength, unsigned int dataOffset)
{
    packetFrames = pcm_packet_frames_setting();
    const int frame_bytes = PcmLayout{bits, channels, PcmByteOrder::little}.frame_bytes();
    if (frame_bytes == 0)
        return kErrCorruptWave;
    const PcmData data{dataLength / static_cast<unsigned int>(frame_bytes), dataOffset, frame_bytes, sampleRate};
    return pcm_load_packets(*this, path, progress, data, packetFrames, kErrCorruptWave,
                            [=](int bitRate, int frames, int diskFrames, BSHandle* handle) -> Packet* {
                                return new PacketWAVE(bits, bitRate, sampleRate, channels, frames, diskFrames,
                                                      handle);
                            });
}

ClipWAVE* ClipWAVE::create_empty(int channels, float sampleRate, int bits, int* err)
{
    return create_empty_clip(channels, sampleRate, bits, bits == 16 || bits == 24, err);
}

int ClipWAVE::save_to(const char* path, const void* extra, int extraLength, const void*, int, int* err,
                      _kel_progress_ext_t* progress)
{
    PcmSaver saver(kHeaderBytes, [this](FILE* f, long long frames, int extraBytes) {
        write_wave_header(f, static_cast<long>(frames), sample_rate, channels, bits_per_sample, extraBytes);
    });
    const int code = saver.save(*this, path, extra, extraLength, progress);
    if (err != nullptr)
        *err = code;
    return code;
}

void write_wave_header(FILE* f, long frames, float sampleRate, int channels, int bits, int extraBytes)
{
    if (fseeko(f, 0, SEEK_SET) != 0)
        return;
    const uint32_t bytes_per_sample = static_cast<uint32_t>(bits / 8);
    const uint32_t chans = static_cast<uint32_t>(channels);
    const uint32_t rate = header_rate(sampleRate);
    // 32-bit fields: the savers keep files below 2 GiB, so nothing wraps
    // for a clip that passed their checks.
    const uint32_t data_bytes = static_cast<uint32_t>(static_cast<uint64_t>(frames) * chans * bytes_per_sample);

    unsigned char h[kHeaderBytes];
    put_tag(h, "RIFF");
    put_le32(h + 4, 36u + data_bytes + static_cast<uint32_t>(extraBytes));
    put_tag(h + 8, "WAVE");
    put_tag(h + 12, "fmt ");
    put_le32(h + 16, 16);
    put_le16(h + 20, kFormatPCM);
    put_le16(h + 22, chans);
    put_le32(h + 24, rate);
    put_le32(h + 28, static_cast<uint32_t>(static_cast<uint64_t>(rate) * chans * bytes_per_sample));
    put_le16(h + 32, chans * bytes_per_sample);
    put_le16(h + 34, static_cast<uint32_t>(bits));
    put_tag(h + 36, "data");
    put_le32(h + 40, data_bytes);
    std::fwrite(h, 1, sizeof h, f);
}

} // namespace KEL
