#include "pcm/pcmcodec.h"

#include "core/bshandle.h"
#include "core/clipencoder.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "pcm/kernels.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace KEL {

namespace {

constexpr bool kHostIsBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

bool width_supported(int bits)
{
    return bits == 16 || bits == 24;
}

} // namespace

int PcmLayout::frame_bytes() const
{
    if (bits <= 0 || channels <= 0)
        return 0;
    const long long bytes = static_cast<long long>(bits / 8) * channels;
    return bytes <= INT_MAX ? static_cast<int>(bytes) : 0;
}

int pcm_truncate_to_int(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (value <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int>(value);
}

void pcm_apply_gain(unsigned char* bytes, int count, const PcmLayout& layout, float gain)
{
    if (gain == 1.0f || bytes == nullptr || count <= 0)
        return;
    const bool little = layout.order == PcmByteOrder::little;
    if (layout.bits == 16) {
        if (little)
            apply_gain16_le(bytes, count, gain);
        else
            apply_gain16_be(bytes, count, gain);
    } else if (layout.bits == 24) {
        if (little)
            apply_gain24_le(bytes, count, gain);
        else
            apply_gain24_be(bytes, count, gain);
    }
}

int pcm_bytes_with_gain_and_envelope(Packet& packet, void* dest, const PcmLayout& layout)
{
    const int got = packet.get_bytes(dest, 1.0f);
    const int frame_bytes = layout.frame_bytes();
    if (got <= 0 || frame_bytes == 0 || !width_supported(layout.bits))
        return got;
    int envelope_frames = 0;
    const float* envelope = packet.gain_envelope(envelope_frames);
    int frames = got / frame_bytes;
    if (frames > packet.frame_count)
        frames = packet.frame_count;
    const int bytes = frames * frame_bytes;
    unsigned char* samples = static_cast<unsigned char*>(dest);
    if (envelope == nullptr) {
        pcm_apply_gain(samples, bytes, layout, packet.gain);
        return bytes;
    }
    if (frames <= 0 || frames > envelope_frames)
        return bytes;
    float* factors = const_cast<float*>(envelope); // the kernels only read it
    const bool little = layout.order == PcmByteOrder::little;
    if (layout.bits == 16) {
        if (little)
            apply_gain_and_envelope16_le(samples, frames, layout.channels, packet.gain, factors);
        else
            apply_gain_and_envelope16_be(samples, frames, layout.channels, packet.gain, factors);
    } else {
        if (little)
            apply_gain_and_envelope24_le(samples, frames, layout.channels, packet.gain, factors);
        else
            apply_gain_and_envelope24_be(samples, frames, layout.channels, packet.gain, factors);
    }
    return bytes;
}

int pcm_decode_packet(Packet& packet, const PcmLayout& layout, int disk_frames, float** out, int* err,
                      float gain)
{
    const BSHandle* handle = packet.handle;
    if (handle == nullptr || handle->size <= 0)
        return 0;
    const int size = handle->size;
    unsigned char* bytes = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(size)));
    if (bytes == nullptr)
        return 0;
    const int got = packet.get_bytes(bytes, gain);
    const int frame_bytes = layout.frame_bytes();
    // A short read (a store that lost its file) decodes to nothing; so does
    // a packet whose bytes cannot hold the frames it claims.
    if (got < size || disk_frames < 0 || disk_frames > packet.frame_count || frame_bytes == 0 ||
        static_cast<long long>(disk_frames) * frame_bytes > got) {
        std::free(bytes);
        return 0;
    }
    if (!width_supported(layout.bits)) {
        std::free(bytes);
        if (err != nullptr)
            *err = kErrInternal;
        return 0;
    }
    const bool have_out = out != nullptr && out[0] != nullptr && out[1] != nullptr;
    if (have_out && packet.frame_count != disk_frames) {
        std::memset(out[0], 0, sizeof(float) * static_cast<size_t>(packet.frame_count));
        std::memset(out[1], 0, sizeof(float) * static_cast<size_t>(packet.frame_count));
    }
    if (have_out && disk_frames > 0) {
        const bool little = layout.order == PcmByteOrder::little;
        if (layout.bits == 16) {
            if (little)
                convert_le_ii16_to_ne_nifloat(bytes, out, disk_frames, layout.channels);
            else
                convert_be_ii16_to_ne_nifloat(bytes, out, disk_frames, layout.channels);
        } else {
            if (little)
                convert_le_ii24_to_ne_nifloat(bytes, out, disk_frames, layout.channels);
            else
                convert_be_ii24_to_ne_nifloat(bytes, out, disk_frames, layout.channels);
        }
    }
    std::free(bytes);
    if (have_out)
        packet.apply_gain_envelope(out, packet.frame_count);
    return packet.frame_count;
}

int pcm_write_frames(float** src, unsigned char* dst, int frames, const PcmLayout& layout)
{
    const int frame_bytes = layout.frame_bytes();
    if (!width_supported(layout.bits) || frame_bytes == 0 || frames <= 0 ||
        static_cast<long long>(frames) * frame_bytes > INT_MAX)
        return 0;
    const int bytes = frames * frame_bytes;
    const bool little = layout.order == PcmByteOrder::little;
    if (layout.bits == 16) {
        convert_ne_nifloat_to_ne_ii16(src, dst, frames, layout.channels);
        // The kernel writes host order; bring it to the order asked for.
        if (little == kHostIsBig)
            swap_bytes16(dst, bytes);
    } else if (little) {
        convert_ne_nifloat_to_le_ii24(src, dst, frames, layout.channels);
    } else {
        convert_ne_nifloat_to_ne_ii24(src, dst, frames, layout.channels);
    }
    return bytes;
}

unsigned char* pcm_encoder_buffers(int packet_frames, int channels, float** frames)
{
    if (packet_frames <= 0 || channels <= 0)
        return nullptr;
    const long long bytes = static_cast<long long>(packet_frames) * channels * 4;
    if (bytes > INT_MAX)
        return nullptr;
    frames[0] = static_cast<float*>(std::calloc(static_cast<size_t>(packet_frames), sizeof(float)));
    frames[1] = static_cast<float*>(std::calloc(static_cast<size_t>(packet_frames), sizeof(float)));
    if (frames[0] == nullptr || frames[1] == nullptr)
        return nullptr;
    return static_cast<unsigned char*>(std::calloc(static_cast<size_t>(bytes), 1));
}

const void* pcm_encode_packet(ClipEncoder& encoder, float** scratch, unsigned char* buffer,
                              int packet_frames, float sample_rate, const PcmLayout& layout,
                              int* byte_count, bool flush, int* err)
{
    *err = 0;
    *byte_count = 0;
    if (buffer == nullptr || scratch == nullptr || scratch[0] == nullptr || scratch[1] == nullptr) {
        *err = kErrCodec;
        return nullptr;
    }
    const int frames = encoder.get_data(scratch, packet_frames, sample_rate, flush);
    if (frames == 0)
        return nullptr;
    if (frames != packet_frames) {
        *err = kErrEncode;
        return nullptr;
    }
    *byte_count = pcm_write_frames(scratch, buffer, packet_frames, layout);
    return buffer;
}

} // namespace KEL
