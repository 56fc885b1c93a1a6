#include "codec/codecencoder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace KEL {

namespace {

// Largest sample rate a description may carry; far above any codec's.
constexpr double kMaxSampleRate = 1000000.0;

} // namespace

CodecEncoder::CodecEncoder(int32_t subtype)
    : ComponentInstanceRecord(kComponentEncoder, subtype), frame_(av_frame_alloc()), packet_(av_packet_alloc())
{
}

CodecEncoder::~CodecEncoder()
{
    av_frame_free(&frame_);
    av_packet_free(&packet_);
}

int CodecEncoder::configure(const void*, uint32_t)
{
    if (frame_ == nullptr || packet_ == nullptr)
        return kCodecErrOutOfMemory;
    drop_buffers();
    codec_.close();
    if (!LPCMFormat::from_description(input_, &in_format_) ||
        !(input_.sample_rate >= 1.0 && input_.sample_rate <= kMaxSampleRate) ||
        input_.sample_rate != std::floor(input_.sample_rate))
        return kCodecErrUnsupportedFormat;
    if (output_.format_id != subtype() || output_.channels_per_frame != input_.channels_per_frame ||
        (output_.sample_rate != 0.0 && output_.sample_rate != input_.sample_rate))
        return kCodecErrUnsupportedFormat;

    FFCodecSettings settings;
    settings.encoder = true;
    settings.sample_rate = static_cast<int>(input_.sample_rate);
    settings.channels = in_format_.channels();
    const int err = prepare(settings);
    if (err != 0)
        return err;
    const int opened = codec_.open(settings);
    if (opened != 0)
        return opened;
    complete_output();
    return 0;
}

int CodecEncoder::restart()
{
    if (!initialized())
        return 0;
    return configure(nullptr, 0);
}

void CodecEncoder::drop_buffers()
{
    fifo_.clear();
    fifo_start_ = 0;
    if (packet_ != nullptr)
        av_packet_unref(packet_);
    has_packet_ = false;
    sent_any_ = false;
    sent_short_ = false;
    draining_ = false;
    finished_ = false;
    deferred_error_ = 0;
    next_pts_ = 0;
}

size_t CodecEncoder::buffered_frames() const
{
    return (fifo_.size() - fifo_start_) / in_format_.frame_bytes();
}

int CodecEncoder::reset()
{
    if (!initialized())
        return kCodecErrState;
    drop_buffers();
    return codec_.reopen();
}

int CodecEncoder::append_input_data(const void* data, uint32_t* io_bytes, uint32_t* io_packets,
                                    const AudioStreamPacketDescription*)
{
    if (!initialized())
        return kCodecErrState;
    if (io_bytes == nullptr || io_packets == nullptr || (data == nullptr && *io_bytes != 0))
        return kCodecErrIllegalOperation;
    if (draining_ || finished_)
        return kCodecErrState;
    const uint32_t frame_bytes = in_format_.frame_bytes();
    const size_t held = fifo_.size() - fifo_start_;
    const size_t room = kMaxBufferedBytes > held ? kMaxBufferedBytes - held : 0;
    const size_t frames = std::min<size_t>(*io_bytes, room) / frame_bytes;
    const size_t bytes = frames * frame_bytes;
    if (fifo_start_ > 0 && fifo_start_ >= fifo_.size() / 2) {
        fifo_.erase(fifo_.begin(), fifo_.begin() + static_cast<std::ptrdiff_t>(fifo_start_));
        fifo_start_ = 0;
    }
    const uint8_t* src = static_cast<const uint8_t*>(data);
    if (bytes != 0)
        fifo_.insert(fifo_.end(), src, src + bytes);
    *io_bytes = static_cast<uint32_t>(bytes);
    *io_packets = static_cast<uint32_t>(frames);
    return 0;
}

int CodecEncoder::send_block()
{
    AVCodecContext* context = codec_.context();
    if (sent_short_) {
        // FFmpeg takes a block shorter than its frame size only as the last
        // one of a stream: start a new stream for the next.
        const int err = codec_.reopen();
        if (err != 0)
            return err;
        sent_any_ = false;
        sent_short_ = false;
        context = codec_.context();
    }
    av_frame_unref(frame_);
    frame_->format = context->sample_fmt;
    frame_->nb_samples = frames_per_packet_;
    frame_->sample_rate = context->sample_rate;
    if (av_channel_layout_copy(&frame_->ch_layout, &context->ch_layout) < 0 || av_frame_get_buffer(frame_, 0) < 0)
        return kCodecErrOutOfMemory;
    if (!in_format_.read_frames(fifo_.data() + fifo_start_, frames_per_packet_, *frame_))
        return kCodecErrUnsupportedFormat;
    frame_->pts = next_pts_;
    next_pts_ += frames_per_packet_;
    fifo_start_ += static_cast<size_t>(frames_per_packet_) * in_format_.frame_bytes();
    const int sent = codec_.send_frame(frame_);
    av_frame_unref(frame_);
    if (sent < 0)
        return kCodecErrUnspecified;
    sent_any_ = true;
    sent_short_ = frames_per_packet_ < context->frame_size;
    return 0;
}

int CodecEncoder::fill_packet(bool may_drain)
{
    while (!has_packet_ && !finished_) {
        if (sent_any_) {
            const int got = codec_.receive_packet(packet_);
            if (got == 0) {
                has_packet_ = true;
                break;
            }
            if (got == AVERROR_EOF) {
                finished_ = true;
                break;
            }
            if (got != AVERROR(EAGAIN))
                return kCodecErrUnspecified;
        }
        if (draining_) {
            finished_ = true; // a draining encoder that wants input has nothing left
            break;
        }
        if (buffered_frames() >= static_cast<size_t>(frames_per_packet_)) {
            const int err = send_block();
            if (err != 0)
                return err;
            continue;
        }
        if (may_drain && drains() && sent_any_ && buffered_frames() == 0) {
            if (codec_.send_frame(nullptr) < 0)
                return kCodecErrUnspecified;
            draining_ = true;
            continue;
        }
        break;
    }
    return 0;
}

int CodecEncoder::produce_output_packets(void* out, uint32_t* io_bytes, uint32_t* io_packets,
                                         AudioStreamPacketDescription* descriptions, uint32_t* status)
{
    if (!initialized())
        return kCodecErrState;
    if (out == nullptr || io_bytes == nullptr || io_packets == nullptr || status == nullptr)
        return kCodecErrIllegalOperation;
    *status = kProduceFailure;
    const uint32_t capacity = *io_bytes;
    *io_bytes = 0;
    *io_packets = 0;
    if (deferred_error_ != 0) {
        const int err = deferred_error_;
        deferred_error_ = 0;
        return err;
    }
    // Only a call that finds no input at all may end the stream.
    const bool may_drain = fifo_.size() == fifo_start_;
    const int err = fill_packet(may_drain);
    if (err != 0)
        return err;
    if (!has_packet_) {
        *status = kProduceNeedsInput;
        return 0;
    }
    const uint32_t size = static_cast<uint32_t>(packet_->size);
    if (size > capacity)
        return kCodecErrNotEnoughBufferSpace;
    std::memcpy(out, packet_->data, size);
    av_packet_unref(packet_);
    has_packet_ = false;
    *io_bytes = size;
    *io_packets = 1;
    if (descriptions != nullptr)
        descriptions[0] = AudioStreamPacketDescription{0, 0, size};

    deferred_error_ = fill_packet(may_drain);
    *status = has_packet_ || deferred_error_ != 0 ? kProduceOutputMore : kProduceOutput;
    return 0;
}

int CodecEncoder::get_property(int32_t id, uint32_t* io_size, void* data)
{
    if (id != kPropertyMagicCookie && id != kPropertyMaximumPacketSize)
        return ComponentInstanceRecord::get_property(id, io_size, data);
    if (!initialized())
        return kCodecErrState;
    if (id == kPropertyMaximumPacketSize) {
        const uint32_t value = max_packet_bytes();
        return copy_property(&value, sizeof value, io_size, data);
    }
    const std::vector<uint8_t> bytes = cookie();
    return copy_property(bytes.data(), static_cast<uint32_t>(bytes.size()), io_size, data);
}

std::vector<uint8_t> CodecEncoder::cookie() const
{
    const AVCodecContext* context = codec_.context();
    if (context == nullptr || context->extradata == nullptr || context->extradata_size <= 0)
        return {};
    return std::vector<uint8_t>(context->extradata, context->extradata + context->extradata_size);
}

} // namespace KEL
