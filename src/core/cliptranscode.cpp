// Clip::transcode and Clip::create_silent: decoding one clip's packets and
// re-encoding them into a new clip of this clip's format.
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/clip.h"
#include "core/clipdecoder.h"
#include "core/clipencoder.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "core/progress.h"
#include "core/silentclip.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace KEL {

namespace {

// Appends one encoded packet to the scratch file and to the result clip.
int store_packet(FILE* scratch, BSFile* store, ClipEncoder* encoder, Clip* result, const void* bytes,
                 int size)
{
    if (fseeko(scratch, 0, SEEK_END) != 0)
        return kErrIo;
    const off_t offset = ftello(scratch);
    if (offset < 0 || fwrite(bytes, 1, static_cast<size_t>(size), scratch) != static_cast<size_t>(size))
        return kErrIo;
    // Packets are read back with positioned reads on the descriptor.
    if (fflush(scratch) != 0)
        return kErrIo;
    BSHandleFile* handle = store->NewHandle(offset, size);
    if (handle == nullptr)
        return kErrTranscode;
    Packet* packet = encoder->packet_with_storage(handle);
    handle->release();
    if (packet == nullptr)
        return kErrTranscode;
    result->add_packet(packet);
    packet->release();
    return 0;
}

} // namespace

Clip* Clip::transcode(Clip* source, int first, int last, int* err, _kel_progress_ext_t* progress)
{
    *err = 0;
    const int count = last - first + 1;
    if (first < 0 || last >= source->packet_count || count < 1) {
        *err = kErrPacketNumber;
        return nullptr;
    }

    _kel_clip_info_t info{};
    source->get_info(&info);
    ClipEncoder* encoder = create_encoder(info.sample_rate);
    ClipDecoder* decoder = source->create_decoder();
    if (encoder == nullptr || decoder == nullptr) {
        delete encoder;
        delete decoder;
        *err = kErrCodec;
        return nullptr;
    }

    FILE* scratch = tmpfile();
    if (scratch == nullptr) {
        delete encoder;
        delete decoder;
        *err = kErrOpenWrite;
        return nullptr;
    }
    BSFile* store = new BSFile(scratch);
    Clip* result = NewClip(store);
    if (result == nullptr) {
        store->clip_gone(nullptr);
        store->release_owner();
        delete encoder;
        delete decoder;
        *err = kErrTranscode;
        return nullptr;
    }

    // The loop runs while i < count with the flush at i == last - first:
    // exactly the requested range when first is 0, and packets first ..
    // last - first otherwise. Callers that transcode a whole clip (and
    // create_silent) pass first = 0.
    bool glitch = false;
    ProgressThrottle throttle(progress);
    std::vector<float> left;
    std::vector<float> right;
    for (int i = first; i < count && *err == 0; ++i) {
        const bool flush = i == last - first;
        const int frames_expected = source->packet_frame_count(i, err);
        if (*err != 0)
            break;
        left.assign(static_cast<size_t>(frames_expected), 0.0f);
        right.assign(static_cast<size_t>(frames_expected), 0.0f);
        float* buffers[2] = {left.data(), right.data()};

        int frames = decoder->packet_decode(i, buffers, err, -1.0f);
        if (*err == kErrPacketBytes) {
            // An undecodable packet becomes silence of its nominal length.
            *err = 0;
            std::fill(left.begin(), left.end(), 0.0f);
            std::fill(right.begin(), right.end(), 0.0f);
            frames = frames_expected;
            glitch = true;
        } else if (*err != 0) {
            break;
        }
        frames = std::min(std::max(frames, 0), frames_expected);

        if (encoder->put_data(buffers, frames) < frames) {
            *err = kErrTranscode;
            break;
        }
        for (;;) {
            int size = 0;
            const void* bytes = encoder->packet_encode(&size, flush, err);
            if (bytes == nullptr || size <= 0 || *err != 0)
                break;
            *err = store_packet(scratch, store, encoder, result, bytes, size);
            if (*err != 0)
                break;
        }
        if (*err != 0)
            break;
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            *err = kErrCancelled;
    }

    delete encoder;
    delete decoder;
    if (*err != 0) {
        result->close(nullptr);
        delete result;
        return nullptr;
    }
    result->update_stream_info();
    if (glitch)
        *err = kErrSavedWithErrors;
    return result;
}

void Clip::trim_transcoded(Clip& source)
{
    // The priming comes from an encoder made as the transcode made its own.
    ClipEncoder* probe = create_encoder(source.sample_rate);
    const int priming = probe != nullptr ? probe->priming_frames() : 0;
    delete probe;
    // A PCM file's last packet counts whole frames but holds fewer; what it
    // holds is what played.
    long long source_frames = 0;
    for (int p = 0; p < source.packet_count; ++p)
        source_frames += source.get_packet(p)->disk_frame_count();
    const long long played = source_frames - source.start_trim - source.end_trim;
    const double ratio = static_cast<double>(sample_rate) / static_cast<double>(source.sample_rate);
    if (played <= 0 || !(ratio > 0.0))
        return;
    const long long start = priming + std::llround(static_cast<double>(source.start_trim) * ratio);
    const long long end = total_frames() - start - std::llround(static_cast<double>(played) * ratio);
    if (start > INT32_MAX || end < 0 || end > INT32_MAX)
        return;
    int ignored = 0;
    set_trims(static_cast<int>(start), static_cast<int>(end), &ignored);
}

Clip* Clip::create_silent(int packets_wanted, int* err, _kel_progress_ext_t* progress)
{
    if (packets_wanted < 1) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    int ignored = 0;
    const int frames = packet_frame_count(0, &ignored);
    if (frames == 0) {
        *err = kErrEmpty;
        return nullptr;
    }
    // Silence of this clip's packet length, transcoded into this format by
    // the format's own transcode.
    SilentClip* silent = SilentClip::create(sample_rate, packets_wanted, frames, err);
    if (silent == nullptr)
        return nullptr;
    Clip* result = transcode(silent, 0, packets_wanted - 1, err, progress);
    silent->close(nullptr);
    delete silent;
    return result;
}

} // namespace KEL
