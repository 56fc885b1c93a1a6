// One opened FFmpeg codec (libavcodec 5.1) with the settings every codec
// of the layer shares, and the process-wide silencing of FFmpeg's log.
//
// Every context is opened with one thread (no frame threading: output must
// follow input packet by packet), the bit-exact flag (FFmpeg otherwise
// picks code paths by CPU and, in the AAC encoder, writes its version into
// the stream), the channel layout (the default order for the channel count;
// the older channel-count field is never used) and the sample rate. FFmpeg
// logs to standard error by default; the layer routes its log to a callback
// that drops everything, installed once for the process on the first open.
#ifndef KEL_CODEC_FFCODECCONTEXT_H
#define KEL_CODEC_FFCODECCONTEXT_H

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
}

namespace KEL {

struct FFCodecSettings {
    AVCodecID codec_id = AV_CODEC_ID_NONE;
    bool encoder = false;
    int sample_rate = 0;
    int channels = 0;
    AVSampleFormat sample_format = AV_SAMPLE_FMT_NONE; // encoders
    int64_t bit_rate = 0;                              // encoders; 0 for the codec's default
    int bits_per_raw_sample = 0;                       // 0 to leave unset
    std::vector<uint8_t> extradata;                    // the codec's configuration bytes
};

class FFCodecContext {
public:
    // Packets up to this size are copied into pooled buffers.
    static constexpr int kPooledPacketBytes = 16384;

    FFCodecContext() = default;
    ~FFCodecContext();
    FFCodecContext(const FFCodecContext&) = delete;
    FFCodecContext& operator=(const FFCodecContext&) = delete;

    // Opens a codec with the settings (closing any open one first) and
    // keeps the settings for reopen. 0, kCodecErrNoComponent when FFmpeg
    // has no such codec, kCodecErrUnsupportedFormat when it refuses the
    // settings, kCodecErrOutOfMemory.
    int open(const FFCodecSettings& settings);
    // Closes and opens again with the same settings: a codec in the state
    // of a new one.
    int reopen();
    void close();
    bool is_open() const { return context_ != nullptr; }

    AVCodecContext* context() const { return context_; }
    const FFCodecSettings& settings() const { return settings_; }

    // Decoding: one packet in (the bytes are copied, for packets of up to
    // kPooledPacketBytes into a buffer FFmpeg hands back for reuse), frames
    // out. The results are FFmpeg's (0, AVERROR(EAGAIN), AVERROR_EOF, other
    // errors).
    int send_packet(const uint8_t* data, size_t size);
    int receive_frame(AVFrame* frame);
    // Encoding: frames in (null to drain), packets out.
    int send_frame(const AVFrame* frame);
    int receive_packet(AVPacket* packet);
    // FFmpeg's flush: drops buffered data; for a decoder also its history.
    void flush();

    // Installs the silent log callback (once per process; thread-safe).
    static void silence_log();

private:
    FFCodecSettings settings_;
    AVCodecContext* context_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVBufferPool* pool_ = nullptr; // made on the first pooled packet
};

} // namespace KEL

#endif
