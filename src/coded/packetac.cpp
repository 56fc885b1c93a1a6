#include "coded/packetac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/bshandle.h"
#include "core/cloned.h"
#include "core/errorcodes.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace KEL {

namespace {

// Largest stored packet accepted for decoding; far above any frame of the
// codec formats.
constexpr int kMaxPacketBytes = 1 << 20;

// Zero bytes kept after the packet's bytes in the input buffer, for readers
// that look a little past the end of what they parse.
constexpr size_t kInputSpare = 16;

// Input and output bytes of one decode. Kept per thread and only ever
// grown, so that steady decoding allocates nothing per packet.
struct Scratch {
    std::vector<unsigned char> input;
    std::vector<unsigned char> output;
    bool busy = false;
};

// The thread's scratch buffers for one decode, or buffers of its own for a
// decode that runs inside another (a packet whose get_bytes decodes).
class ScratchLease {
public:
    ScratchLease() : shared_(thread_scratch()), owner_(!shared_.busy) { shared_.busy = true; }
    ~ScratchLease()
    {
        if (owner_)
            shared_.busy = false;
    }
    ScratchLease(const ScratchLease&) = delete;
    ScratchLease& operator=(const ScratchLease&) = delete;

    Scratch& get() { return owner_ ? shared_ : own_; }

private:
    static Scratch& thread_scratch()
    {
        thread_local Scratch buffers;
        return buffers;
    }

    Scratch& shared_;
    bool owner_;
    Scratch own_;
};


// Frames per block of the float loop: a compile-time count lets -O2
// vectorise it; the remainder runs the same code with a run-time count.
constexpr int kBlock = 32;
using Block = std::integral_constant<int, kBlock>;

// A big-endian 32-bit word as the host's.
uint32_t from_be32(uint32_t word)
{
    return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? __builtin_bswap32(word) : word;
}

// n frames of stride bytes whose first two words are big-endian floats
// (the second read at second bytes in: 4, or 0 for mono) into two arrays.
template <class N>
void split_be_floats(const unsigned char* __restrict in, size_t stride, size_t second, float* __restrict left,
                     float* __restrict right, N n)
{
    for (int i = 0; i < n; ++i) {
        uint32_t l;
        uint32_t r;
        std::memcpy(&l, in + stride * static_cast<size_t>(i), 4);
        std::memcpy(&r, in + stride * static_cast<size_t>(i) + second, 4);
        l = from_be32(l);
        r = from_be32(r);
        std::memcpy(left + i, &l, 4);
        std::memcpy(right + i, &r, 4);
    }
}

// Big-endian float frames of channels channels: channel 0 to left, channel
// 1 (channel 0 for mono) to right, the others skipped.
KEL_CLONED
void take_be_floats(const unsigned char* in, int channels, float* left, float* right, int frames)
{
    const size_t second = channels == 1 ? 0 : 4;
    int i = 0;
    if (channels == 2) {
        // The common case, with the stride as a constant too.
        for (; i + kBlock <= frames; i += kBlock)
            split_be_floats(in + 8 * static_cast<size_t>(i), 8, 4, left + i, right + i, Block());
        split_be_floats(in + 8 * static_cast<size_t>(i), 8, 4, left + i, right + i, frames - i);
        return;
    }
    const size_t stride = static_cast<size_t>(channels) * 4;
    for (; i + kBlock <= frames; i += kBlock)
        split_be_floats(in + stride * static_cast<size_t>(i), stride, second, left + i, right + i, Block());
    split_be_floats(in + stride * static_cast<size_t>(i), stride, second, left + i, right + i, frames - i);
}

// n frames of stride bytes whose first two 16-bit fields are big-endian
// samples (the second read at second bytes in: 2, or 0 for mono), scaled
// by factor into two arrays.
template <class N>
void split_be16(const unsigned char* __restrict in, size_t stride, size_t second, float factor,
                float* __restrict left, float* __restrict right, N n)
{
    for (int i = 0; i < n; ++i) {
        uint16_t l;
        uint16_t r;
        std::memcpy(&l, in + stride * static_cast<size_t>(i), 2);
        std::memcpy(&r, in + stride * static_cast<size_t>(i) + second, 2);
        if (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
            l = __builtin_bswap16(l);
            r = __builtin_bswap16(r);
        }
        left[i] = static_cast<float>(static_cast<int16_t>(l)) * factor;
        right[i] = static_cast<float>(static_cast<int16_t>(r)) * factor;
    }
}

// Big-endian 16-bit frames of channels channels: channel 0 to left, channel
// 1 (channel 0 for mono) to right, the others skipped.
KEL_CLONED
void take_be16(const unsigned char* in, int channels, float factor, float* left, float* right, int frames)
{
    const size_t stride = static_cast<size_t>(channels) * 2;
    const size_t second = channels == 1 ? 0 : 2;
    int i = 0;
    for (; i + kBlock <= frames; i += kBlock)
        split_be16(in + stride * static_cast<size_t>(i), stride, second, factor, left + i, right + i, Block());
    split_be16(in + stride * static_cast<size_t>(i), stride, second, factor, left + i, right + i, frames - i);
}

} // namespace

PacketAC::PacketAC(int bit_rate, float sample_rate, int channels, int frame_count, BSHandle* handle)
    : Packet(bit_rate, sample_rate, channels, frame_count, handle)
{
}

PacketAC::~PacketAC() = default;

bool PacketAC::can_change_gain_inline()
{
    return true;
}

float PacketAC::nearest_step_gain(float wanted)
{
    if (!(wanted >= 1e-12f))
        return 0.0f; // also NaN: the walks drive every field to 0 below 1e-12
    // Whole steps of 2^(1/4) nearest in decibels; the fields hold 8 bits,
    // so no change goes beyond 255 steps.
    const double steps = std::clamp(std::nearbyint(4.0 * std::log2(static_cast<double>(wanted))), -255.0, 255.0);
    if (steps == 0.0)
        return 1.0f; // untouched bytes
    return static_cast<float>(std::exp2((steps + std::copysign(0.5, steps)) / 4.0));
}

bool PacketAC::reserve(std::vector<unsigned char>& v, size_t n)
{
    if (v.size() >= n)
        return true;
    try {
        v.resize(n);
    } catch (...) {
        return false;
    }
    return true;
}

int PacketAC::decode(float** out, ComponentInstanceRecord* codec, bool& needs_more_input, int* error, float gain,
                     int bits)
{
    needs_more_input = false;
    const int C = channels();
    const int F = frame_count;
    const int stored = handle != nullptr ? handle->size : -1;
    if (stored < 0 || stored > kMaxPacketBytes) {
        *error = kErrPacketBytes;
        return 0;
    }
    // Bytes of one sample as the codec delivers it: 4 for float, else the
    // integer width, which must be a whole number of 1 to 4 bytes.
    const int sample_bytes = bits == 0 ? 4 : bits / 8;
    if (C < 1 || C > kMaxChannels || F < 0 || F > kMaxFrames || sample_bytes < 1 || sample_bytes > 4) {
        *error = kErrDecode;
        return 0;
    }

    ScratchLease lease;
    Scratch& buffers = lease.get();
    const size_t out_bytes = static_cast<size_t>(F) * static_cast<size_t>(C) * 4;
    if (!reserve(buffers.input, static_cast<size_t>(stored) + kInputSpare) ||
        !reserve(buffers.output, out_bytes > 0 ? out_bytes : 1)) {
        *error = kErrUnknown;
        return 0;
    }
    unsigned char* input = buffers.input.data();
    unsigned char* output = buffers.output.data();
    std::memset(input + stored, 0, kInputSpare);

    const int count = get_bytes(input, gain);
    if (count != stored) {
        *error = kErrPacketBytes;
        return 0;
    }

    uint32_t in_bytes = static_cast<uint32_t>(count);
    uint32_t in_packets = 1;
    const AudioStreamPacketDescription description{0, 0, static_cast<uint32_t>(count)};
    if (audio_codec_append_input_data(codec, input, &in_bytes, &in_packets, &description) != 0) {
        *error = kErrDecode;
        return 0;
    }

    const uint32_t frame_bytes = static_cast<uint32_t>(C) * static_cast<uint32_t>(sample_bytes);
    uint32_t capacity = static_cast<uint32_t>(F) * frame_bytes;
    std::memset(output, 0, capacity);
    uint32_t out_packets = 1;
    uint32_t status = 0;
    if (audio_codec_produce_output_packets(codec, output, &capacity, &out_packets, nullptr, &status) != 0) {
        *error = kErrDecode;
        return 0;
    }
    const int produced = static_cast<int>(capacity / frame_bytes);

    if (status == kProduceNeedsInput) {
        needs_more_input = true;
        return 0;
    }
    if (status != kProduceOutput && status != kProduceOutputMore) {
        *error = kErrDecode;
        return 0;
    }
    *error = 0;

    if (out == nullptr || out[0] == nullptr || out[1] == nullptr)
        return produced;

    float* left = out[0];
    float* right = out[1];
    // A packet that decodes short is delivered as a whole packet of silence,
    // so that the clip's timing stays as its frame counts say. A whole one
    // of float or 16-bit output overwrites every frame of both outputs;
    // 24-bit mono output leaves the right one silent, other depths both.
    const bool overwritten = produced == F && (bits == 0 || bits == 16);
    if (!overwritten) {
        std::memset(left, 0, sizeof(float) * static_cast<size_t>(F));
        std::memset(right, 0, sizeof(float) * static_cast<size_t>(F));
    }
    if (produced != F)
        return F;

    decode_samples(out, output, F, bits);
    apply_gain_envelope(out, F);
    return produced;
}

void PacketAC::decode_samples(float** out, unsigned char* data, int frames, int bits)
{
    if (bits == 0)
        take_be_floats(data, channels(), out[0], out[1], frames);
    else if (bits == 16)
        decode16(out, data, frames);
    else if (bits == 24)
        decode24(out, data, frames);
}

void PacketAC::decode16(float** out, unsigned char* data, int frames)
{
    float factor = 1.0f / 32768.0f;
    if (!can_change_gain_inline())
        factor *= gain;
    take_be16(data, channels(), factor, out[0], out[1], frames);
}

void PacketAC::decode24(float** out, unsigned char* data, int frames)
{
    // The three bytes go to the top of a 32-bit word, so full scale is 2^31.
    float factor = 1.0f / 2147483648.0f;
    if (!can_change_gain_inline())
        factor *= gain;
    const int C = channels();
    const size_t stride = static_cast<size_t>(C) * 3;
    float* left = out[0];
    float* right = out[1];
    for (int i = 0; i < frames; ++i) {
        const unsigned char* p = data + static_cast<size_t>(i) * stride;
        const uint32_t l = (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
                           (static_cast<uint32_t>(p[2]) << 8);
        left[i] = static_cast<float>(static_cast<int32_t>(l)) * factor;
        // Mono stays on the left output only; the right one keeps what
        // decode cleared it to.
        if (C > 1) {
            const uint32_t r = (static_cast<uint32_t>(p[3]) << 24) | (static_cast<uint32_t>(p[4]) << 16) |
                               (static_cast<uint32_t>(p[5]) << 8);
            right[i] = static_cast<float>(static_cast<int32_t>(r)) * factor;
        }
    }
}

} // namespace KEL
