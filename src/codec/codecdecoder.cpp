#include "codec/codecdecoder.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace KEL {

namespace {

// Largest sample rate a description may carry; far above any codec's.
constexpr double kMaxSampleRate = 1000000.0;
// Largest magic cookie kept.
constexpr uint32_t kMaxCookieBytes = 65536;
// Packet buffers kept for reuse; a decoder holds a packet or two at a time.
constexpr size_t kMaxSpareBuffers = 4;

} // namespace

CodecDecoder::CodecDecoder(int32_t subtype, AVCodecID codec_id, bool reopen_on_reset)
    : ComponentInstanceRecord(kComponentDecoder, subtype), codec_id_(codec_id), reopen_on_reset_(reopen_on_reset),
      pending_(av_frame_alloc())
{
}

CodecDecoder::~CodecDecoder()
{
    av_frame_free(&pending_);
}

int CodecDecoder::configure(const void* cookie, uint32_t cookie_size)
{
    if (pending_ == nullptr)
        return kCodecErrOutOfMemory;
    drop_buffers();
    codec_.close();
    const AudioStreamBasicDescription& in = input_;
    if (in.format_id != subtype() || !(in.sample_rate >= 1.0 && in.sample_rate <= kMaxSampleRate) ||
        in.channels_per_frame < 1 || in.channels_per_frame > static_cast<uint32_t>(LPCMFormat::kMaxChannels))
        return kCodecErrUnsupportedFormat;
    if (!LPCMFormat::from_description(output_, &out_format_) || output_.sample_rate != in.sample_rate)
        return kCodecErrUnsupportedFormat;

    FFCodecSettings settings;
    settings.codec_id = codec_id_;
    settings.sample_rate = static_cast<int>(std::lround(in.sample_rate));
    settings.channels = static_cast<int>(in.channels_per_frame);
    const int err = prepare(cookie, cookie_size, settings);
    if (err != 0)
        return err;
    return codec_.open(settings);
}

int CodecDecoder::prepare(const void* cookie, uint32_t cookie_size, FFCodecSettings& settings)
{
    if (cookie != nullptr) {
        if (cookie_size > kMaxCookieBytes)
            return kCodecErrBadPropertySize;
        const uint8_t* bytes = static_cast<const uint8_t*>(cookie);
        cookie_.assign(bytes, bytes + cookie_size);
    }
    settings.extradata = cookie_;
    return 0;
}

int CodecDecoder::check_packet(const uint8_t*, size_t)
{
    return 0;
}

bool CodecDecoder::decode_by_hand(const uint8_t*, size_t, AVFrame*, int*)
{
    return false;
}

uint32_t CodecDecoder::max_packet_bytes() const
{
    // An AAC access unit holds at most 6144 bits per channel.
    const uint32_t channels = std::max<uint32_t>(input_.channels_per_frame, 1);
    return 768 * channels;
}

int CodecDecoder::restart()
{
    if (!initialized())
        return 0;
    return configure(nullptr, 0);
}

void CodecDecoder::recycle(std::vector<uint8_t>&& buffer)
{
    if (spare_.size() < kMaxSpareBuffers && buffer.capacity() <= kMaxPacketBytes)
        spare_.push_back(std::move(buffer));
}

void CodecDecoder::drop_buffers()
{
    while (!queue_.empty()) {
        recycle(std::move(queue_.front()));
        queue_.pop_front();
    }
    queued_bytes_ = 0;
    if (pending_ != nullptr)
        av_frame_unref(pending_);
    has_pending_ = false;
    pending_offset_ = 0;
    deferred_error_ = 0;
}

int CodecDecoder::reset()
{
    if (!initialized())
        return kCodecErrState;
    drop_buffers();
    if (reopen_on_reset_)
        return codec_.reopen();
    codec_.flush();
    return 0;
}

int CodecDecoder::append_input_data(const void* data, uint32_t* io_bytes, uint32_t* io_packets,
                                    const AudioStreamPacketDescription* descriptions)
{
    if (!initialized())
        return kCodecErrState;
    if (io_bytes == nullptr || io_packets == nullptr || (data == nullptr && *io_bytes != 0))
        return kCodecErrIllegalOperation;
    const uint32_t bytes = *io_bytes;
    const uint32_t packets = *io_packets;
    if (packets == 0)
        return 0; // padding only: taken and dropped
    if (descriptions == nullptr && packets != 1)
        return kCodecErrIllegalOperation;

    const uint8_t* base = static_cast<const uint8_t*>(data);
    uint32_t taken = 0;
    uint64_t taken_end = 0;
    for (; taken < packets; ++taken) {
        int64_t offset = 0;
        uint32_t size = bytes;
        if (descriptions != nullptr) {
            offset = descriptions[taken].start_offset;
            size = descriptions[taken].data_byte_size;
        }
        if (offset < 0 || static_cast<uint64_t>(offset) + size > bytes || size > kMaxPacketBytes)
            return kCodecErrIllegalOperation;
        if (queued_bytes_ + size > kMaxQueuedBytes)
            break;
        if (size != 0) {
            std::vector<uint8_t> buffer;
            if (!spare_.empty()) {
                buffer = std::move(spare_.back());
                spare_.pop_back();
            }
            buffer.assign(base + offset, base + offset + size);
            queue_.push_back(std::move(buffer));
            queued_bytes_ += size;
        }
        taken_end = std::max<uint64_t>(taken_end, static_cast<uint64_t>(offset) + size);
    }
    *io_packets = taken;
    if (taken < packets)
        *io_bytes = static_cast<uint32_t>(taken_end);
    return 0;
}

bool CodecDecoder::next_frame(int* error)
{
    for (;;) {
        const int got = codec_.receive_frame(pending_);
        if (got >= 0) {
            if (pending_->nb_samples <= 0) {
                av_frame_unref(pending_);
                continue;
            }
            // AAC whose configuration does not announce spectral band
            // replication can still carry it; FFmpeg then switches to twice
            // the rate and twice the frames. A packet's frames no longer
            // match the stream the caller described, so none are given.
            if (pending_->sample_rate > 0 &&
                pending_->sample_rate != static_cast<int>(std::lround(input_.sample_rate))) {
                av_frame_unref(pending_);
                *error = kCodecErrUnsupportedFormat;
                return false;
            }
            has_pending_ = true;
            pending_offset_ = 0;
            return true;
        }
        if (got != AVERROR(EAGAIN) && got != AVERROR_EOF) {
            *error = kCodecErrBadData;
            return false;
        }
        if (queue_.empty())
            return false;
        std::vector<uint8_t> packet = std::move(queue_.front());
        queue_.pop_front();
        queued_bytes_ -= packet.size();
        const int fed = feed(packet, error);
        recycle(std::move(packet));
        if (fed < 0)
            return false;
        if (fed > 0) {
            has_pending_ = true;
            pending_offset_ = 0;
            return true;
        }
    }
}

int CodecDecoder::feed(const std::vector<uint8_t>& packet, int* error)
{
    int err = check_packet(packet.data(), packet.size());
    if (err != 0) {
        *error = err;
        return -1;
    }
    if (decode_by_hand(packet.data(), packet.size(), pending_, &err)) {
        if (err != 0) {
            av_frame_unref(pending_);
            *error = err;
            return -1;
        }
        return 1;
    }
    if (codec_.send_packet(packet.data(), packet.size()) < 0) {
        *error = kCodecErrBadData;
        return -1;
    }
    return 0;
}

int CodecDecoder::produce_output_packets(void* out, uint32_t* io_bytes, uint32_t* io_packets,
                                         AudioStreamPacketDescription*, uint32_t* status)
{
    if (!initialized())
        return kCodecErrState;
    if (out == nullptr || io_bytes == nullptr || io_packets == nullptr || status == nullptr)
        return kCodecErrIllegalOperation;
    *status = kProduceFailure;
    const uint32_t frame_bytes = out_format_.frame_bytes();
    const uint32_t capacity = *io_bytes / frame_bytes;
    *io_bytes = 0;
    *io_packets = 0;
    if (deferred_error_ != 0) {
        const int err = deferred_error_;
        deferred_error_ = 0;
        return err;
    }
    if (capacity == 0)
        return kCodecErrNotEnoughBufferSpace;

    unsigned char* dst = static_cast<unsigned char*>(out);
    uint32_t written = 0;
    int error = 0;
    while (written < capacity) {
        if (!has_pending_ && !next_frame(&error))
            break;
        const int available = pending_->nb_samples - pending_offset_;
        const int count = static_cast<int>(std::min<uint32_t>(static_cast<uint32_t>(available), capacity - written));
        unsigned char* at = dst + static_cast<size_t>(written) * frame_bytes;
        if (!out_format_.write_frames(*pending_, pending_offset_, count, at)) {
            error = kCodecErrUnsupportedFormat;
            av_frame_unref(pending_);
            has_pending_ = false;
            break;
        }
        written += static_cast<uint32_t>(count);
        pending_offset_ += count;
        if (pending_offset_ >= pending_->nb_samples) {
            av_frame_unref(pending_);
            has_pending_ = false;
        }
    }
    if (error != 0) {
        if (written == 0)
            return error;
        deferred_error_ = error;
    }
    *io_bytes = written * frame_bytes;
    *io_packets = written;
    if (written == 0) {
        *status = kProduceNeedsInput;
        return 0;
    }
    bool more = has_pending_ || !queue_.empty() || deferred_error_ != 0;
    if (!more) {
        // Only FFmpeg may still hold a decoded frame; look without feeding it.
        int late = 0;
        more = next_frame(&late) || late != 0;
        if (late != 0)
            deferred_error_ = late;
    }
    *status = more ? kProduceOutputMore : kProduceOutput;
    return 0;
}

int CodecDecoder::get_property(int32_t id, uint32_t* io_size, void* data)
{
    if (id == kPropertyMagicCookie)
        return copy_property(cookie_.data(), static_cast<uint32_t>(cookie_.size()), io_size, data);
    if (id == kPropertyMaximumPacketSize) {
        const uint32_t value = max_packet_bytes();
        return copy_property(&value, sizeof value, io_size, data);
    }
    return ComponentInstanceRecord::get_property(id, io_size, data);
}

int CodecDecoder::set_property(int32_t id, uint32_t size, const void* data)
{
    if (id != kPropertyMagicCookie)
        return ComponentInstanceRecord::set_property(id, size, data);
    if ((data == nullptr && size != 0) || size > kMaxCookieBytes)
        return kCodecErrBadPropertySize;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    cookie_.assign(bytes, bytes + size);
    return restart();
}

} // namespace KEL
