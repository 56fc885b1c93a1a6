#include "codec/ffcodeccontext.h"

#include "codec/codectypes.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <cstdarg>
#include <cstring>
#include <limits>
#include <mutex>

namespace KEL {

namespace {

void drop_log_line(void*, int, const char*, va_list)
{
}

} // namespace

void FFCodecContext::silence_log()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(drop_log_line); });
}

FFCodecContext::~FFCodecContext()
{
    close();
}

void FFCodecContext::close()
{
    avcodec_free_context(&context_);
    av_packet_free(&packet_);
    // Buffers still referenced somewhere go when their last reference does.
    av_buffer_pool_uninit(&pool_);
}

int FFCodecContext::open(const FFCodecSettings& settings)
{
    silence_log();
    close();
    settings_ = settings;
    const AVCodec* codec = settings.encoder ? avcodec_find_encoder(settings.codec_id)
                                            : avcodec_find_decoder(settings.codec_id);
    if (codec == nullptr)
        return kCodecErrNoComponent;
    if (settings.channels < 1 || settings.sample_rate < 1)
        return kCodecErrUnsupportedFormat;
    if (settings.extradata.size() > static_cast<size_t>(std::numeric_limits<int>::max()) -
                                        AV_INPUT_BUFFER_PADDING_SIZE)
        return kCodecErrUnsupportedFormat;

    context_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    if (context_ == nullptr || packet_ == nullptr) {
        close();
        return kCodecErrOutOfMemory;
    }
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_BITEXACT;
    context_->sample_rate = settings.sample_rate;
    av_channel_layout_default(&context_->ch_layout, settings.channels);
    if (settings.encoder) {
        context_->sample_fmt = settings.sample_format;
        context_->time_base = AVRational{1, settings.sample_rate};
        if (settings.bit_rate > 0)
            context_->bit_rate = settings.bit_rate;
    }
    if (settings.bits_per_raw_sample > 0)
        context_->bits_per_raw_sample = settings.bits_per_raw_sample;
    if (!settings.extradata.empty()) {
        const size_t size = settings.extradata.size();
        context_->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        if (context_->extradata == nullptr) {
            close();
            return kCodecErrOutOfMemory;
        }
        std::memcpy(context_->extradata, settings.extradata.data(), size);
        context_->extradata_size = static_cast<int>(size);
    }
    if (avcodec_open2(context_, codec, nullptr) < 0) {
        close();
        return kCodecErrUnsupportedFormat;
    }
    return 0;
}

int FFCodecContext::reopen()
{
    const FFCodecSettings settings = settings_;
    return open(settings);
}

int FFCodecContext::send_packet(const uint8_t* data, size_t size)
{
    if (context_ == nullptr)
        return AVERROR(EINVAL);
    if (size == 0 || size > static_cast<size_t>(std::numeric_limits<int>::max()) - AV_INPUT_BUFFER_PADDING_SIZE)
        return AVERROR_INVALIDDATA;
    av_packet_unref(packet_);
    if (size <= static_cast<size_t>(kPooledPacketBytes)) {
        if (pool_ == nullptr)
            pool_ = av_buffer_pool_init(kPooledPacketBytes + AV_INPUT_BUFFER_PADDING_SIZE, nullptr);
        packet_->buf = pool_ != nullptr ? av_buffer_pool_get(pool_) : nullptr;
        if (packet_->buf == nullptr)
            return AVERROR(ENOMEM);
        packet_->data = packet_->buf->data;
        packet_->size = static_cast<int>(size);
        // FFmpeg's readers may look into the padding; it reads as zeros.
        std::memset(packet_->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    } else {
        const int err = av_new_packet(packet_, static_cast<int>(size));
        if (err < 0)
            return err;
    }
    std::memcpy(packet_->data, data, size);
    const int result = avcodec_send_packet(context_, packet_);
    av_packet_unref(packet_);
    return result;
}

int FFCodecContext::receive_frame(AVFrame* frame)
{
    return context_ != nullptr ? avcodec_receive_frame(context_, frame) : AVERROR(EINVAL);
}

int FFCodecContext::send_frame(const AVFrame* frame)
{
    return context_ != nullptr ? avcodec_send_frame(context_, frame) : AVERROR(EINVAL);
}

int FFCodecContext::receive_packet(AVPacket* packet)
{
    return context_ != nullptr ? avcodec_receive_packet(context_, packet) : AVERROR(EINVAL);
}

void FFCodecContext::flush()
{
    if (context_ != nullptr)
        avcodec_flush_buffers(context_);
}

} // namespace KEL
