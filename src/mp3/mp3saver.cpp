#include "mp3/mp3saver.h"

#include "core/bshandle.h"
#include "core/byteorder.h"
#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "core/progress.h"
#include "mp3/clipmp3.h"
#include "mp3/lametag.h"
#include "mp3/mpegheader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace KEL {

namespace {

// The largest file written; the tag's byte count is a 32-bit field, and the
// other savers keep to the same bound.
constexpr long long kSaveLimit = 2147483647LL;
constexpr uint32_t kTagFlags = 1 | 2 | 4; // frames, bytes, table

// Header bits cleared or set in the information frame's header word.
constexpr unsigned int kProtectionBit = 1u << 16; // 1: no CRC
constexpr unsigned int kPaddingBit = 1u << 9;
constexpr unsigned int kBitRateMask = 0xFu << 12;

// Header byte 1 by packet type 3, 4, 5: sync, version, Layer III, no CRC.
static constexpr std::array<unsigned char, 3> kVersionBytes = {
    0xFB, // MPEG-1
    0xF3, // MPEG-2
    0xE3, // MPEG-2.5
};
// Header byte 3 by KELClipStereoMode: channel mode bits, original bit.
static constexpr std::array<unsigned char, 4> kModeBytes = {
    0xC4, // single channel
    0x04, // stereo
    0x44, // joint stereo
    0x84, // dual channel
};

int packet_size(const Packet* p)
{
    return p->handle != nullptr && p->handle->size > 0 ? p->handle->size : 0;
}

// A header word of the stream from its parameters alone, at the lowest bit
// rate (raised later): for a clip none of whose frames can be read.
unsigned int header_from_parameters(const ClipMP3& clip)
{
    const size_t slot = static_cast<size_t>(std::min(std::max(clip.type, 3), 5) - 3);
    int rate_index = 0;
    for (int i = 0; i < 3; ++i)
        if (mpeg_sample_rate(clip.type == Packet::TypeMP3v1 ? 1 : 2, clip.type == Packet::TypeMP3v25, i) ==
            static_cast<int>(clip.sample_rate))
            rate_index = i;
    const unsigned char b[4] = {0xFF, kVersionBytes[slot], static_cast<unsigned char>(1 << 4 | rate_index << 2),
                                kModeBytes[static_cast<size_t>(clip.stereo_mode & 3)]};
    return mpeg_header_word(b);
}

// The first packet's header that decodes as a Layer III frame of the
// clip's stream; padding frames of MPEG-2.5 clips, whose sample-rate index
// is 3, are passed over.
bool stream_header(const ClipMP3& params, const Clip& frames, unsigned int& word)
{
    std::vector<unsigned char> bytes;
    for (int i = 0; i < frames.packet_count; ++i) {
        Packet* p = frames.packets[i];
        const int size = packet_size(p);
        if (size < 4)
            continue;
        bytes.assign(static_cast<size_t>(size), 0);
        if (p->get_bytes(bytes.data(), 1.0f) < 4)
            continue;
        mpeg_frame_t f{};
        const unsigned int w = mpeg_header_word(bytes.data());
        if (decode_header(w, &f) && f.layer == 3 && mpeg_packet_type(f) == params.type &&
            f.sample_rate == static_cast<int>(params.sample_rate)) {
            word = w;
            return true;
        }
    }
    return false;
}

} // namespace

Mp3Saver::~Mp3Saver()
{
    if (file_ != nullptr)
        std::fclose(file_);
}

std::vector<unsigned char> Mp3Saver::information_frame(const ClipMP3& params, const Clip& frames, bool vbr)
{
    std::vector<unsigned char> frame;
    if (frames.packet_count <= 0)
        return frame;
    unsigned int word = 0;
    if (!stream_header(params, frames, word))
        word = header_from_parameters(params);
    word = (word | kProtectionBit) & ~kPaddingBit;

    // Keep the first frame's bit rate when the tag fits, else the lowest
    // that holds it.
    mpeg_frame_t f{};
    decode_header(word, &f);
    const bool mpeg1 = f.version == 1;
    const int side = mpeg_side_info_size(mpeg1, f.stereo == 0);
    // A clip with trims gets the LAME extension for them; one without keeps
    // the plain tag, so that it decodes as its source did.
    const bool timed = params.start_trim > 0 || params.end_trim > 0;
    const int needed = 4 + side + (timed ? LameTag::kXingBytes + LameTag::kExtensionBytes : kTagBytes);
    if (f.frame_length < needed) {
        for (int i = 1; i <= 14; ++i) {
            const unsigned int candidate = (word & ~kBitRateMask) | static_cast<unsigned int>(i) << 12;
            if (decode_header(candidate, &f) && f.frame_length >= needed) {
                word = candidate;
                break;
            }
        }
    }
    decode_header(word, &f);
    frame.assign(static_cast<size_t>(std::max(f.frame_length, needed)), 0);
    put_be32(frame.data(), word);

    // Frame count, byte count and the position of every percent.
    long long total = static_cast<long long>(frame.size());
    std::vector<long long> starts(static_cast<size_t>(frames.packet_count));
    std::vector<long long> times(static_cast<size_t>(frames.packet_count));
    long long time = 0;
    for (int i = 0; i < frames.packet_count; ++i) {
        starts[static_cast<size_t>(i)] = total;
        times[static_cast<size_t>(i)] = time;
        total += packet_size(frames.packets[i]);
        time += frames.packets[i]->frame_count;
    }
    unsigned char* tag = &frame[static_cast<size_t>(4 + side)];
    std::memcpy(tag, vbr ? "Xing" : "Info", 4);
    put_be32(tag + 4, kTagFlags);
    put_be32(tag + 8, static_cast<uint32_t>(frames.packet_count));
    put_be32(tag + 12, static_cast<uint32_t>(std::min(total, kSaveLimit)));
    for (int i = 0; i < 100; ++i) {
        // The last frame that starts at or before i percent of the time.
        const long long at = time * i / 100;
        const auto next = std::upper_bound(times.begin(), times.end(), at);
        const size_t index = next == times.begin() ? 0 : static_cast<size_t>(next - times.begin() - 1);
        const long long entry = total > 0 ? starts[index] * 256 / total : 0;
        tag[16 + i] = static_cast<unsigned char>(std::min(entry, 255LL));
    }
    if (timed) {
        // Decoders drop delay + 529 frames at the start and padding - 529 at
        // the end; a start trim below their own 529 cannot be written.
        LameTag::write(frame.data(), 4 + side, params.start_trim - LameTag::kDecoderDelay,
                       params.end_trim + LameTag::kDecoderDelay,
                       static_cast<uint32_t>(std::min(total, kSaveLimit)));
    }
    return frame;
}

int Mp3Saver::fail(int code)
{
    if (file_ != nullptr) {
        std::remove(path_);
        std::fclose(file_);
        file_ = nullptr;
    }
    return code;
}

int Mp3Saver::write(const void* bytes, long long count)
{
    if (count <= 0)
        return 0;
    return std::fwrite(bytes, 1, static_cast<size_t>(count), file_) == static_cast<size_t>(count) ? 0
                                                                                                   : kErrIo;
}

int Mp3Saver::write_packets(Clip& clip, _kel_progress_ext_t* progress, bool& gap)
{
    ProgressThrottle throttle(progress);
    const float step = 100.0f / static_cast<float>(clip.packet_count);
    std::vector<unsigned char> bytes;
    for (int i = 0; i < clip.packet_count; ++i) {
        Packet* packet = clip.packets[i];
        const int size = packet_size(packet);
        bytes.assign(static_cast<size_t>(size) + 1, 0);
        const int got = size > 0 ? packet->get_bytes(bytes.data(), -1.0f) : 0;
        if (got < size) {
            // An unreadable frame becomes a silent one of the same length
            // when its header survived (side information zero, no CRC),
            // else zeros, which a decoder passes over; either way the file
            // stays whole and the caller hears of it through "Egga".
            mpeg_frame_t f{};
            const unsigned int word = got >= 4 ? mpeg_header_word(bytes.data()) : 0;
            std::fill(bytes.begin(), bytes.end(), 0);
            if (decode_header(word, &f) && f.layer == 3 && f.frame_length == size)
                put_be32(bytes.data(), word | kProtectionBit);
            gap = true;
        }
        if (const int code = write(bytes.data(), size))
            return code;
        (void)throttle.step(step * static_cast<float>(i));
    }
    return 0;
}

int Mp3Saver::save(ClipMP3& clip, const char* path, const void* block1, int block1_len, const void* block2,
                   int block2_len, _kel_progress_ext_t* progress)
{
    if (path == nullptr)
        return kErrOpenWrite;
    path_ = path;
    file_ = std::fopen(path, "w+");
    if (file_ == nullptr)
        return errno == EISDIR ? EISDIR : kErrOpenWrite;
    // Frames go out a few hundred bytes at a time: a buffer of 64 KiB
    // rather than stdio's 4 KiB writes a file in a sixteenth of the calls.
    buffer_.resize(1 << 16);
    std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
    if (clip.packet_count <= 0 || clip.packets == nullptr)
        return fail(kErrEmpty);
    if (block1 == nullptr || block1_len < 0)
        block1_len = 0;
    if (block2 == nullptr || block2_len < 0)
        block2_len = 0;

    // A frame holds one gain: envelopes are folded into per-packet gains
    // on a private copy of the packet list first.
    Clip* folded = nullptr;
    for (int i = 0; i < clip.packet_count && folded == nullptr; ++i) {
        if (clip.packets[i]->envelope == nullptr)
            continue;
        int code = 0;
        folded = clip.convert_gains_and_envelopes_to_gains(&code);
        if (folded == nullptr)
            return fail(code != 0 ? code : kErrUnknown);
    }
    Clip& frames = folded != nullptr ? *folded : clip;
    struct Closer {
        Clip* clip;
        ~Closer()
        {
            if (clip != nullptr) {
                clip->close(nullptr);
                delete clip;
            }
        }
    } closer{folded};

    // Variable bit rate when any frame's rate differs from the first's,
    // whatever the clip's flag says after edits.
    bool vbr = false;
    for (int i = 1; i < frames.packet_count; ++i)
        vbr = vbr || frames.packets[i]->bit_rate != frames.packets[0]->bit_rate;
    const std::vector<unsigned char> info = information_frame(clip, frames, vbr);
    long long total = static_cast<long long>(block1_len) + block2_len + static_cast<long long>(info.size());
    for (int i = 0; i < frames.packet_count; ++i)
        total += packet_size(frames.packets[i]);
    if (total > kSaveLimit)
        return fail(kErrTooLarge);

    if (const int code = write(block1, block1_len))
        return fail(code);
    const std::vector<unsigned char> zeros(info.size(), 0);
    if (const int code = write(zeros.data(), static_cast<long long>(zeros.size())))
        return fail(code);
    bool gap = false;
    if (const int code = write_packets(frames, progress, gap))
        return fail(code);
    report_progress(progress, 100.0f);
    if (const int code = write(block2, block2_len))
        return fail(code);
    if (fseeko(file_, block1_len, SEEK_SET) != 0)
        return fail(kErrIo);
    if (const int code = write(info.data(), static_cast<long long>(info.size())))
        return fail(code);

    // Errors of buffered writes surface only here.
    if (std::fflush(file_) != 0 || std::ferror(file_))
        return fail(kErrIo);
    FILE* done = file_;
    file_ = nullptr;
    if (std::fclose(done) != 0) {
        std::remove(path);
        return kErrIo;
    }
    return gap ? kErrSavedWithErrors : 0;
}

} // namespace KEL
