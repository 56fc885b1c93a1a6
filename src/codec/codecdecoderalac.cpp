#include "codec/codecdecoderalac.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cstring>

namespace KEL {

namespace {

constexpr uint32_t kElementSingle = 0;
constexpr uint32_t kElementPair = 1;
// Element header bits after the tag: instance, unused, has size, shift,
// uncompressed.
constexpr size_t kHeaderBitsAfterTag = 4 + 12 + 1 + 2 + 1;
// Header bits of one element at most: tag, the fields above, a frame count.
constexpr uint64_t kElementHeaderBits = 3 + kHeaderBitsAfterTag + 32;

// Most-significant-bit-first reader over a byte range.
class BitReader {
public:
    BitReader(const uint8_t* data, size_t size) : data_(data), bits_(static_cast<uint64_t>(size) * 8) {}

    uint64_t left() const { return bits_ - pos_; }

    // n from 1 to 32; the caller has checked left().
    uint32_t read(int n)
    {
        uint64_t value = 0;
        while (n > 0) {
            const int offset = static_cast<int>(pos_ & 7);
            const int take = std::min(8 - offset, n);
            const uint32_t byte = data_[pos_ >> 3];
            value = (value << take) | ((byte >> (8 - offset - take)) & ((1u << take) - 1));
            pos_ += static_cast<uint64_t>(take);
            n -= take;
        }
        return static_cast<uint32_t>(value);
    }

private:
    const uint8_t* data_;
    uint64_t bits_;
    uint64_t pos_ = 0;
};

} // namespace

CodecDecoderALAC::CodecDecoderALAC() : CodecDecoder(kFormatALAC, AV_CODEC_ID_ALAC, false)
{
}

int CodecDecoderALAC::prepare(const void* cookie, uint32_t cookie_size, FFCodecSettings& settings)
{
    if (cookie != nullptr) {
        ALACCookie given;
        if (!ALACCookie::parse(cookie, cookie_size, &given))
            return kCodecErrUnsupportedFormat;
        config_ = given;
        cookie_set_ = true;
    } else if (!cookie_set_) {
        config_ = ALACCookie::from_description(input_);
        if (!config_.usable())
            return kCodecErrUnsupportedFormat;
    }
    const std::array<uint8_t, ALACCookie::kAtomBytes> atom = config_.atom();
    settings.extradata.assign(atom.begin(), atom.end());
    settings.channels = config_.channels;
    return 0;
}

int CodecDecoderALAC::get_property(int32_t id, uint32_t* io_size, void* data)
{
    if (id != kPropertyMagicCookie)
        return CodecDecoder::get_property(id, io_size, data);
    if (!initialized() && !cookie_set_)
        return kCodecErrState;
    const std::array<uint8_t, ALACCookie::kLayoutBytes> layout = config_.layout();
    return copy_property(layout.data(), static_cast<uint32_t>(layout.size()), io_size, data);
}

int CodecDecoderALAC::set_property(int32_t id, uint32_t size, const void* data)
{
    if (id != kPropertyMagicCookie)
        return CodecDecoder::set_property(id, size, data);
    ALACCookie given;
    if (!ALACCookie::parse(data, size, &given))
        return kCodecErrUnsupportedFormat;
    config_ = given;
    cookie_set_ = true;
    return restart();
}

uint32_t CodecDecoderALAC::max_packet_bytes() const
{
    if (config_.max_frame_bytes != 0)
        return config_.max_frame_bytes;
    // An uncompressed frame: per channel one element header at most, the
    // samples, the END element, rounded up to whole bytes.
    const uint64_t channels = config_.channels;
    const uint64_t bits = channels * kElementHeaderBits +
                          channels * config_.bit_depth * static_cast<uint64_t>(config_.frame_length) + 3;
    return static_cast<uint32_t>((bits + 7) / 8);
}

bool CodecDecoderALAC::decode_by_hand(const uint8_t* data, size_t size, AVFrame* frame, int* error)
{
    *error = 0;
    const int channels = config_.channels;
    if (channels > 2)
        return false;
    BitReader in(data, size);
    if (in.left() < 3 + kHeaderBitsAfterTag)
        return false;
    const uint32_t tag = in.read(3);
    if ((tag != kElementSingle && tag != kElementPair) || (tag == kElementPair ? 2 : 1) != channels)
        return false;
    in.read(4);  // instance
    in.read(12); // unused
    const bool has_size = in.read(1) != 0;
    in.read(2); // bytes shifted
    if (in.read(1) == 0)
        return false; // compressed: FFmpeg's

    uint32_t count = config_.frame_length;
    if (has_size) {
        if (in.left() < 32) {
            *error = kCodecErrBadData;
            return true;
        }
        count = in.read(32);
    }
    const int bits = config_.bit_depth;
    const uint64_t whole = in.left() / (static_cast<uint64_t>(bits) * static_cast<uint64_t>(channels));
    if (count == 0 || count > config_.frame_length || whole == 0) {
        *error = kCodecErrBadData;
        return true;
    }
    count = static_cast<uint32_t>(std::min<uint64_t>(count, whole));

    av_frame_unref(frame);
    frame->format = bits == 16 ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S32P;
    frame->nb_samples = static_cast<int>(count);
    frame->sample_rate = static_cast<int>(std::min<uint32_t>(config_.sample_rate, 0x7FFFFFFF));
    av_channel_layout_default(&frame->ch_layout, channels);
    if (av_frame_get_buffer(frame, 0) < 0) {
        *error = kCodecErrOutOfMemory;
        return true;
    }
    // Samples are read as signed fields of the bit depth and handed on as
    // FFmpeg's decoder would: 16-bit as they are, wider ones left-justified
    // in 32 bits.
    const uint32_t sign = 1u << (bits - 1);
    for (uint32_t n = 0; n < count; ++n) {
        for (int c = 0; c < channels; ++c) {
            uint32_t raw = in.read(bits);
            if (bits < 32)
                raw = (raw ^ sign) - sign; // sign extension, modulo 2^32
            if (bits == 16) {
                const int16_t s = static_cast<int16_t>(raw);
                std::memcpy(frame->extended_data[c] + static_cast<size_t>(n) * 2, &s, 2);
            } else {
                const uint32_t justified = raw << (32 - bits);
                std::memcpy(frame->extended_data[c] + static_cast<size_t>(n) * 4, &justified, 4);
            }
        }
    }
    return true;
}

} // namespace KEL
