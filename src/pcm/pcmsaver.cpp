#include "pcm/pcmsaver.h"

#include "core/bshandle.h"
#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "core/progress.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace KEL {

namespace {

// The largest file, and the most frames, a PCM header can describe here.
constexpr long long kSaveLimit = 2147483647LL;

// The code for a path that cannot be created: a directory in the way is
// passed through as the system's EISDIR, anything else is "Efow".
int open_failure_code(int error)
{
    return error == EISDIR ? EISDIR : kErrOpenWrite;
}

} // namespace

PcmSaver::PcmSaver(int header_bytes, HeaderWriter write_header)
    : header_bytes_(header_bytes), write_header_(std::move(write_header))
{
}

PcmSaver::~PcmSaver()
{
    if (file_ != nullptr)
        std::fclose(file_);
    std::free(buffer_);
}

void PcmSaver::set_packet_filter(PacketFilter filter)
{
    filter_ = std::move(filter);
}

int PcmSaver::fail(int code)
{
    if (file_ != nullptr) {
        std::remove(path_);
        std::fclose(file_);
        file_ = nullptr;
    }
    return code;
}

unsigned char* PcmSaver::reserve(size_t size)
{
    const size_t wanted = std::max(size, kBatchBytes);
    if (wanted > buffer_size_) {
        auto grown = static_cast<unsigned char*>(std::realloc(buffer_, wanted));
        if (grown == nullptr)
            return nullptr;
        buffer_ = grown;
        buffer_size_ = wanted;
    }
    return buffer_;
}

bool PcmSaver::write_out(size_t count)
{
    return count == 0 || std::fwrite(buffer_, 1, count, file_) == count;
}

int PcmSaver::check_limits(const Clip& clip, int extra_length) const
{
    long long bytes = static_cast<long long>(header_bytes_) + extra_length;
    for (int i = 0; i < clip.packet_count; ++i) {
        const BSHandle* handle = clip.packets[i]->handle;
        if (handle != nullptr && handle->size > 0)
            bytes += handle->size;
    }
    if (bytes > kSaveLimit)
        return kErrTooLarge;
    long long frames = 0;
    for (int i = 0; i < clip.packet_count; ++i) {
        frames += clip.packets[i]->disk_frame_count();
        if (frames > kSaveLimit)
            return kErrTooLong;
    }
    return 0;
}

int PcmSaver::write_packets(const Clip& clip, _kel_progress_ext_t* progress, bool& gap, long long& frames)
{
    ProgressThrottle throttle(progress);
    const float step = 100.0f / static_cast<float>(clip.packet_count);
    // The clip's trims, in frames of its packets as they count them (a
    // file's last packet may count more frames than its bytes hold; those
    // are not written either way). Frames outside [keep_from, keep_to)
    // are left out of the first and last packets they fall in.
    const bool trimmed = clip.start_trim > 0 || clip.end_trim > 0;
    const long long frame_bytes = static_cast<long long>(clip.channels) * (clip.bits_per_sample / 8);
    long long counted = 0;
    if (trimmed)
        for (int i = 0; i < clip.packet_count; ++i)
            counted += clip.packets[i]->frame_count;
    const long long keep_from = clip.start_trim;
    const long long keep_to = counted - clip.end_trim;
    long long position = 0;
    // Packets are read straight into the batch at fill and go out together
    // once the next one would not fit.
    size_t fill = 0;
    for (int i = 0; i < clip.packet_count; ++i) {
        Packet* packet = clip.packets[i];
        const int size = packet->handle != nullptr && packet->handle->size > 0 ? packet->handle->size : 0;
        const size_t length = static_cast<size_t>(size);
        if (fill > 0 && fill + length > buffer_size_) {
            if (!write_out(fill))
                return kErrIo;
            fill = 0;
        }
        if (reserve(fill + length) == nullptr)
            return kErrUnknown;
        unsigned char* bytes = buffer_ + fill;
        int frames_in_envelope = 0;
        const int got = packet->gain_envelope(frames_in_envelope) != nullptr
                            ? packet->get_bytes_with_gain_and_envelope(bytes)
                            : packet->get_bytes(bytes, -1.0f);
        if (got < size) {
            // Unreadable bytes are saved as silence of the same length, so
            // the file stays whole; the caller hears of it through "Egga".
            std::memset(bytes, 0, length);
            gap = true;
        }
        if (filter_ && size > 0)
            filter_(bytes, size);
        if (trimmed && frame_bytes > 0) {
            const long long held = static_cast<long long>(length) / frame_bytes;
            const long long from = std::clamp(keep_from - position, 0LL, held);
            const long long to = std::clamp(keep_to - position, from, held);
            position += packet->frame_count;
            if (from > 0)
                std::memmove(bytes, bytes + from * frame_bytes, static_cast<size_t>((to - from) * frame_bytes));
            fill += static_cast<size_t>((to - from) * frame_bytes);
            frames += to - from;
        } else {
            fill += length;
            frames += packet->disk_frame_count();
        }
        (void)throttle.step(step * static_cast<float>(i));
    }
    return write_out(fill) ? 0 : kErrIo;
}

int PcmSaver::save(const Clip& clip, const char* path, const void* extra, int extra_length,
                   _kel_progress_ext_t* progress)
{
    if (path == nullptr)
        return kErrOpenWrite;
    path_ = path;
    file_ = std::fopen(path, "w+");
    if (file_ == nullptr)
        return open_failure_code(errno);
    // The packets are gathered into large batches here, so the stream
    // itself buffers nothing: each batch goes to the file without another
    // copy.
    std::setvbuf(file_, nullptr, _IONBF, 0);

    if (clip.packet_count <= 0 || clip.packets == nullptr)
        return fail(kErrEmpty);
    if (extra == nullptr || extra_length < 0)
        extra_length = 0;
    if (const int code = check_limits(clip, extra_length))
        return fail(code);

    unsigned char* zeros = reserve(static_cast<size_t>(header_bytes_));
    if (zeros == nullptr)
        return fail(kErrUnknown);
    std::memset(zeros, 0, static_cast<size_t>(header_bytes_));
    if (std::fwrite(zeros, 1, static_cast<size_t>(header_bytes_), file_) != static_cast<size_t>(header_bytes_))
        return fail(kErrIo);

    bool gap = false;
    long long frames = 0;
    if (const int code = write_packets(clip, progress, gap, frames))
        return fail(code);
    report_progress(progress, 100.0f);

    if (extra_length > 0 &&
        std::fwrite(extra, 1, static_cast<size_t>(extra_length), file_) != static_cast<size_t>(extra_length))
        return fail(kErrIo);

    write_header_(file_, frames, extra_length);
    // Errors of buffered writes surface only here; the file must not stay
    // behind with a header that describes bytes that never arrived.
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
