// Writing MP3 streams: ClipMP3::save_to (edited clips, frames as they are
// with their gains, mp3saver.h), ClipMP3::create_encoder and
// ClipMP3::transcode (any clip encoded into a new MP3 clip through LAME).
//
// LAME's output is one continuous stream whose frames only make sense
// together (the bit reservoir spans them), so it is not cut into packets as
// it comes: it is written whole into a temporary file, which is then opened
// and scanned like any MP3 file. The file's name is unlinked at once; the
// new clip's backing store keeps the open file alive.
#include "core/clipdecoder.h"
#include "core/errorcodes.h"
#include "core/progress.h"
#include "mp3/clipencodermp3.h"
#include "mp3/clipmp3.h"
#include "mp3/mp3saver.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

namespace KEL {

namespace {

// A scratch file in $TMPDIR (or /tmp) with a unique name, opened for
// writing and reading; null when it cannot be made.
FILE* make_scratch_file(std::string& path)
{
    const char* folder = std::getenv("TMPDIR");
    path = folder != nullptr && *folder != '\0' ? folder : "/tmp";
    if (path.back() != '/')
        path += '/';
    path += "kel_transcode.XXXXXX";
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0)
        return nullptr;
    path = name.data();
    FILE* f = fdopen(fd, "w+");
    if (f == nullptr) {
        ::close(fd);
        unlink(path.c_str());
    }
    return f;
}

// Feeds packets first..count-1 of source through the encoder into f. The
// bound is the count, not `last`: for first = 0 that is exactly the range,
// for a later first fewer packets; the flush comes at i = last - first.
int encode_packets(Clip* source, ClipDecoder* decoder, ClipEncoderMP3* encoder, int first, int last, FILE* f,
                   _kel_progress_ext_t* progress)
{
    const int count = last - first + 1;
    ProgressThrottle throttle(progress);
    std::vector<float> left;
    std::vector<float> right;
    int err = 0;
    for (int i = first; i < count && err == 0; ++i) {
        const bool flush = i == last - first;
        const int n = source->packet_frame_count(i, &err);
        if (err != 0)
            break;
        left.assign(static_cast<size_t>(n > 0 ? n : 0), 0.0f);
        right.assign(left.size(), 0.0f);
        float* bufs[2] = {left.data(), right.data()};
        int frames = decoder->packet_decode(i, bufs, &err, -1.0f);
        if (err != 0)
            break;
        if (frames < 0 || frames > n)
            frames = frames < 0 ? 0 : n;
        if (encoder->put_data(bufs, frames) < frames)
            return kErrTranscode;
        for (;;) {
            int size = 0;
            const void* bytes = encoder->packet_encode(&size, flush, &err);
            if (err != 0 || bytes == nullptr)
                break;
            if (size <= 0) {
                // LAME may hold back the output of the last block; on the
                // final packet go on until its flush has been made.
                if (flush && encoder->flushed == 0)
                    continue;
                break;
            }
            if (std::fwrite(bytes, 1, static_cast<size_t>(size), f) != static_cast<size_t>(size))
                return kErrIo;
        }
        if (err != 0)
            break;
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            err = kErrCancelled;
    }
    return err;
}

} // namespace

int ClipMP3::save_to(const char* path, const void* block1, int block1_len, const void* block2, int block2_len,
                     int* err, _kel_progress_ext_t* progress)
{
    Mp3Saver saver;
    const int code = saver.save(*this, path, block1, block1_len, block2, block2_len, progress);
    if (err != nullptr)
        *err = code;
    return code;
}

ClipEncoder* ClipMP3::create_encoder(float source_rate)
{
    return new (std::nothrow) ClipEncoderMP3(source_rate, channels, sample_rate, frames_per_packet(),
                                             nominal_bit_rate, is_vbr() != 0,
                                             static_cast<KELClipStereoMode>(stereo_mode));
}

Clip* ClipMP3::transcode(Clip* source, int first, int last, int* err, _kel_progress_ext_t* progress)
{
    *err = 0;
    const int count = last - first + 1;
    if (source == nullptr || first < 0 || last >= source->packet_count || count < 1) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    _kel_clip_info_t info{};
    source->get_info(&info);
    auto* encoder = static_cast<ClipEncoderMP3*>(create_encoder(info.sample_rate));
    ClipDecoder* decoder = source->create_decoder();
    if (encoder == nullptr || decoder == nullptr) {
        delete encoder;
        delete decoder;
        *err = kErrCodec;
        return nullptr;
    }

    std::string path;
    FILE* f = make_scratch_file(path);
    if (f == nullptr) {
        delete encoder;
        delete decoder;
        *err = kErrOpenWrite;
        return nullptr;
    }
    int code = encode_packets(source, decoder, encoder, first, last, f, progress);
    delete encoder;
    delete decoder;
    if (std::fclose(f) != 0 && code == 0)
        code = kErrIo;

    Clip* result = nullptr;
    if (code == 0)
        result = ClipMP3::open(path.c_str(), &code, nullptr, false, false);
    unlink(path.c_str());
    if (result == nullptr && code == 0)
        code = kErrCorruptMp3;
    *err = code;
    return result;
}

} // namespace KEL
