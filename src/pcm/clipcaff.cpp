#include "pcm/pcmclip.h"
#include "pcm/clipcaff.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "pcm/ieeeextended.h"
#include "pcm/kernels.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmloader.h"
#include "pcm/pcmsaver.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace KEL {


namespace {

// Bytes of the header this engine writes: file header (8), "desc" chunk
// header and body (12 + 32), "data" chunk header and edit count (12 + 4).
constexpr int kHeaderBytes = 68;

// Chunk headers: 4-byte type, 64-bit signed size.
constexpr long long kChunkHeaderBytes = 12;

// The fields of a "desc" chunk, in file order (32 bytes).
constexpr long long kDescBytes = 32;

// The "data" chunk starts with a 4-byte edit count before the samples.
constexpr long long kEditCountBytes = 4;

// Format flags of "desc": bit 0 floating point, bit 1 little-endian.
constexpr uint32_t kFlagFloat = 1u;
constexpr uint32_t kFlagLittleEndian = 2u;

// The only sample width CAF clips hold.
constexpr int kBits = 16;

// What the 32 bytes of a "desc" chunk say, checked in the order that
// decides the code:
//   0  8  sample rate (double)     20  4  frames per packet (skipped)
//   8  4  format id, "lpcm"        24  4  channels per frame
//  12  4  format flags             28  4  bits per channel
//  16  4  bytes per packet (skipped)
int check_desc(const unsigned char* fields, int* channels, int* bits, float* sampleRate, bool* littleEndian)
{
    const double rate = ConvertFromIeeeDouble(fields);
    const uint32_t flags = get_be32(fields + 12);
    const uint32_t chans = get_be32(fields + 24);
    const uint32_t width = get_be32(fields + 28);
    if (!is_tag(fields + 8, "lpcm") || (flags & kFlagFloat) != 0 || width != kBits)
        return kErrFormatUnsupported;
    // The clip keeps its rate as a float: a rate that is not a positive,
    // finite float is as unusable as one not above zero.
    const float rate_kept = static_cast<float>(rate);
    if (chans == 0 || chans > INT_MAX || !(rate > 0.0) || !(rate_kept > 0.0f) || std::isinf(rate_kept))
        return kErrCorruptCaf;
    if (channels != nullptr)
        *channels = static_cast<int>(chans);
    if (bits != nullptr)
        *bits = static_cast<int>(width);
    if (sampleRate != nullptr)
        *sampleRate = rate_kept;
    if (littleEndian != nullptr)
        *littleEndian = (flags & kFlagLittleEndian) != 0;
    return 0;
}

// Moves to the end of a chunk whose body starts at body; a chunk that claims
// more than the file holds ends at the end of the file (where the next turn
// of the walk stops with "Ecaf").
bool skip_to(FILE* f, long long body, long long size, long long length)
{
    const long long end = size > length - body ? length : body + size;
    return fseeko(f, end, SEEK_SET) == 0;
}

// A new empty file in the temporary folder ($TMPDIR, /tmp when unset),
// open for update; its name goes to path.
FILE* create_scratch_file(std::string& path)
{
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = dir != nullptr && *dir != '\0' ? dir : "/tmp";
    pattern += "/kel-caf-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0)
        return nullptr;
    FILE* f = fdopen(fd, "w+");
    if (f == nullptr) {
        ::close(fd);
        unlink(name.data());
        return nullptr;
    }
    path = name.data();
    return f;
}

// Writes a whole 16-bit big-endian CAF into a fresh scratch file: a zeroed
// place holder, the samples, then the real header. The file is closed in
// every case and removed when writing failed.
int write_scratch_file(FILE* f, const std::string& path, const unsigned char* samples, long long bytes,
                       float sampleRate, int channels)
{
    static const unsigned char kPlaceHolder[kHeaderBytes] = {};
    bool written = std::fwrite(kPlaceHolder, 1, sizeof kPlaceHolder, f) == sizeof kPlaceHolder &&
                   std::fwrite(samples, 1, static_cast<size_t>(bytes), f) == static_cast<size_t>(bytes);
    if (written) {
        write_caff_header(f, sampleRate, channels, kBits, bytes, false);
        written = std::fflush(f) == 0 && !std::ferror(f);
    }
    written = std::fclose(f) == 0 && written;
    if (!written) {
        unlink(path.c_str());
        return kErrIo;
    }
    return 0;
}

} // namespace

ClipCAFF::ClipCAFF(int channels, float sampleRate, int bits, int packetFrames, BSFile* file)
    : PcmClip(channels, sampleRate, bits, packetFrames, file)
{
}

ClipCAFF::~ClipCAFF() = default;

int ClipCAFF::detect(const char* path)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    unsigned char head[8];
    const size_t got = std::fread(head, 1, sizeof head, f);
    std::fclose(f);
    if (got < sizeof head || !is_tag(head, "caff"))
        return kErrFormatUnrecognized;
    return 0;
}

int ClipCAFF::scan(FILE* f, int* channels, int* bits, float* sampleRate, bool* littleEndian,
                   long long* dataLength, long long* dataOffset)
{
    if (fseeko(f, 0, SEEK_END) != 0)
        return kErrIo;
    const long long length = ftello(f);
    if (length < 0)
        return kErrIo;
    if (fseeko(f, 0, SEEK_SET) != 0)
        return kErrIo;

    // File header: "caff", version 1, flags (ignored).
    unsigned char head[8];
    if (std::fread(head, 1, sizeof head, f) != sizeof head || !is_tag(head, "caff") || get_be16(head + 4) != 1)
        return kErrFormatUnrecognized;

    bool desc_seen = false;
    bool data_seen = false;
    for (;;) {
        const long long position = ftello(f);
        if (position < 0)
            return kErrIo;
        if (position + kChunkHeaderBytes >= length)
            return kErrCorruptCaf;
        unsigned char chunk[kChunkHeaderBytes];
        if (std::fread(chunk, 1, sizeof chunk, f) != sizeof chunk)
            break;
        const long long size = static_cast<long long>(get_be64(chunk + 4));
        const long long body = position + kChunkHeaderBytes;
        const bool is_data = is_tag(chunk, "data");
        if (size < 0 && !is_data)
            return kErrCorruptCaf;

        if (is_tag(chunk, "desc")) {
            if (desc_seen)
                return kErrCorruptCaf;
            unsigned char fields[kDescBytes];
            if (std::fread(fields, 1, sizeof fields, f) != sizeof fields)
                break;
            if (const int code = check_desc(fields, channels, bits, sampleRate, littleEndian))
                return code;
            desc_seen = true;
            if (size > kDescBytes && !skip_to(f, body, size, length))
                break;
        } else if (is_data) {
            if (data_seen)
                return kErrCorruptCaf;
            unsigned char edits[kEditCountBytes];
            if (std::fread(edits, 1, sizeof edits, f) != sizeof edits)
                break;
            const long long offset = body + kEditCountBytes;
            long long bytes = 0;
            if (size >= kEditCountBytes) {
                bytes = size - kEditCountBytes;
            } else if (size == -1 && desc_seen) {
                // Length unknown (a writer that could not seek back): the
                // samples run to the end of the file.
                bytes = length - offset;
            } else {
                // 0, too small for its own edit count, another negative
                // size, or -1 with no format known yet.
                return kErrCorruptCaf;
            }
            if (bytes > length - offset)
                return kErrCorruptCaf;
            if (dataOffset != nullptr)
                *dataOffset = offset;
            if (dataLength != nullptr)
                *dataLength = bytes;
            data_seen = true;
            if (fseeko(f, offset + bytes, SEEK_SET) != 0)
                break;
        } else {
            // Any other chunk goes by its size; CAF chunks carry no pad bytes.
            if (!skip_to(f, body, size, length))
                break;
        }

        if (desc_seen && data_seen)
            return 0;
    }
    return std::feof(f) ? kErrEof : kErrIo;
}

int ClipCAFF::scan_layout(FILE* f, FileLayout& layout)
{
    long long length = 0;
    long long offset = 0;
    bool little = false;
    const int code = scan(f, &layout.channels, &layout.bits, &layout.rate, &little, &length, &offset);
    layout.little = little;
    layout.length = length;
    layout.offset = offset;
    return code;
}

int ClipCAFF::load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout)
{
    return load(path, progress, layout.channels, layout.bits, layout.rate, layout.little, static_cast<long long>(layout.length),
                static_cast<long long>(layout.offset));
}

int ClipCAFF::load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
                   bool littleEndian, long long dataLength, long long dataOffset)
{
    packetFrames = pcm_packet_frames_setting();
    return cut_packets(path, progress, channels, bits, sampleRate, littleEndian, dataLength, dataOffset);
}

int ClipCAFF::cut_packets(const char* path, _kel_progress_ext_t* progress, int channels, int bits,
                          float sampleRate, bool littleEndian, long long dataLength, long long dataOffset)
{
    const int frame_bytes = PcmLayout{bits, channels, PcmByteOrder::big}.frame_bytes();
    if (frame_bytes == 0 || dataLength < 0)
        return kErrCorruptCaf;
    const PcmData data{dataLength / frame_bytes, dataOffset, frame_bytes, sampleRate};
    return pcm_load_packets(*this, path, progress, data, packetFrames, kErrCorruptCaf,
                            [=](int bitRate, int frames, int diskFrames, BSHandle* handle) -> Packet* {
                                return new PacketCAFF(bits, bitRate, sampleRate, channels, littleEndian, frames,
                                                      diskFrames, handle);
                            });
}

ClipCAFF* ClipCAFF::create_empty(int channels, float sampleRate, int bits, int* err)
{
    return create_empty_clip(channels, sampleRate, bits, bits == kBits, err);
}

ClipCAFF* ClipCAFF::create_from_buffer(float** buffers, float sampleRate, int frames, int* err,
                                       _kel_progress_ext_t* progress)
{
    *err = 0;
    if (buffers == nullptr || buffers[0] == nullptr || buffers[1] == nullptr || frames < 1) {
        *err = kErrParameter;
        return nullptr;
    }
    // Interleaved 16-bit stereo, big-endian as the header declares.
    const long long bytes = static_cast<long long>(frames) * 4;
    auto* samples = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(bytes)));
    if (samples == nullptr) {
        *err = kErrUnknown;
        return nullptr;
    }
    // In blocks, so that no byte count handed to the kernels exceeds an int.
    constexpr int kBlockFrames = 1 << 20;
    const PcmLayout layout{kBits, 2, PcmByteOrder::big};
    for (long long done = 0; done < frames; done += kBlockFrames) {
        const int n = static_cast<int>(std::min<long long>(kBlockFrames, frames - done));
        float* block[2] = {buffers[0] + done, buffers[1] + done};
        pcm_write_frames(block, samples + done * 4, n, layout);
    }

    std::string path;
    FILE* f = create_scratch_file(path);
    if (f == nullptr) {
        std::free(samples);
        *err = kErrOpenWrite;
        return nullptr;
    }
    *err = write_scratch_file(f, path, samples, bytes, sampleRate, 2);
    std::free(samples);
    if (*err != 0)
        return nullptr;

    ClipCAFF* clip = open(path.c_str(), err, progress);
    // The store holds the file open: its name is no longer needed.
    unlink(path.c_str());
    return clip;
}

int ClipCAFF::encoder_bits() const
{
    return kBits;
}

int ClipCAFF::save_to(const char* path, const void* extra, int extraLength, const void*, int, int* err,
                      _kel_progress_ext_t* progress)
{
    PcmSaver saver(kHeaderBytes, [this](FILE* f, long long frames, int) {
        write_caff_header(f, sample_rate, channels, kBits, frames * channels * (kBits / 8), false);
    });
    // Packets hand out little-endian words; the file holds big-endian ones.
    saver.set_packet_filter([](unsigned char* bytes, int count) { swap_bytes16(bytes, count); });
    const int code = saver.save(*this, path, extra, extraLength, progress);
    if (err != nullptr)
        *err = code;
    return code;
}

void write_caff_header(FILE* f, float sampleRate, int channels, int bits, long long dataBytes, bool littleEndian)
{
    if (fseeko(f, 0, SEEK_SET) != 0)
        return;
    const uint32_t chans = static_cast<uint32_t>(channels);
    const uint32_t width = static_cast<uint32_t>(bits);

    unsigned char h[kHeaderBytes];
    put_tag(h, "caff");
    put_be16(h + 4, 1); // file version
    put_be16(h + 6, 0); // file flags
    put_tag(h + 8, "desc");
    put_be64(h + 12, static_cast<uint64_t>(kDescBytes));
    ConvertToIeeeDouble(static_cast<double>(sampleRate), h + 20);
    put_tag(h + 28, "lpcm");
    put_be32(h + 32, littleEndian ? kFlagLittleEndian : 0u);
    put_be32(h + 36, chans * width / 8); // bytes per packet
    put_be32(h + 40, 1);                 // frames per packet
    put_be32(h + 44, chans);
    put_be32(h + 48, width);
    put_tag(h + 52, "data");
    put_be64(h + 56, static_cast<uint64_t>(dataBytes == -1 ? -1 : dataBytes + kEditCountBytes));
    put_be32(h + 64, 0); // edit count
    std::fwrite(h, 1, sizeof h, f);
}

} // namespace KEL
