// The packets of the three PCM formats: a block of integer PCM frames,
// referenced in the backing store.
//
// The formats differ only in byte order, at two points. The stored order is
// how the samples lie in the file; the delivered order is how get_bytes
// hands them out, so that saving, decoding and the envelope work in one
// order per format. Gain is applied to the bytes as stored, and only then
// are 16-bit words turned round when the two orders differ.
//
//   format  stored                                      delivered
//   WAVE    little                                      little
//   AIFF    big; 16-bit little from AIFF-C "sowt"       big
//   CAF     as the file's format flags say              little
//
// The frame count a packet reports to its clip and the frames its bytes hold
// (diskFrames) differ only for the last packet of a loaded file, which
// reports a full packet and decodes the frames it lacks as silence. The
// channel count is kept in the base's format_value.
#ifndef KEL_PCM_PCMPACKET_H
#define KEL_PCM_PCMPACKET_H

#include "core/packet.h"
#include "pcm/kernels.h"
#include "pcm/pcmcodec.h"

#include <new>

namespace KEL {

// Self is the format's packet class: it names kType, kDelivered and
// stored_order(littleEndian, bits), and is made from the constructor
// arguments of this class.
template <class Self>
class PcmPacket : public Packet {
public:
    // frames is the length reported to the clip; diskFrames (at most
    // frames) the length stored in bytes; littleEndian the stored order
    // where the format has a choice.
    PcmPacket(int bits, int bitRate, float sampleRate, int channels, bool littleEndian, int frames, int diskFrames,
              BSHandle* bytes)
        : Packet(bitRate, sampleRate, channels, frames, bytes), bits(bits), diskFrames(diskFrames),
          littleEndian(littleEndian)
    {
    }

    Type type() const override { return Self::kType; }

    // The stored bytes, scaled by gain (negative: the packet's own gain),
    // in the delivered order; returns the byte count.
    int get_bytes(void* dst, float gain) override
    {
        const int count = Packet::get_bytes(dst, gain);
        if (gain < 0.0f)
            gain = this->gain;
        const PcmByteOrder stored = Self::stored_order(littleEndian, bits);
        auto* bytes = static_cast<unsigned char*>(dst);
        pcm_apply_gain(bytes, count, PcmLayout{bits, channels(), stored}, gain);
        if (stored != Self::kDelivered && count > 0)
            swap_bytes16(bytes, count);
        return count;
    }

    // The delivered bytes scaled by the packet's gain and per-frame envelope.
    int get_bytes_with_gain_and_envelope(void* dst) override
    {
        return pcm_bytes_with_gain_and_envelope(*this, dst, delivered());
    }

    int disk_frame_count() override { return diskFrames; }

    Packet* copy() override
    {
        auto* twin = new (std::nothrow)
            Self(bits, bit_rate, sample_rate, channels(), littleEndian, frame_count, diskFrames, handle);
        if (twin != nullptr)
            copy_state_to(twin);
        return twin;
    }

    // Decodes into out[0] and out[1] (each of frame_count floats) and
    // returns frame_count; 0 when the bytes cannot be read.
    int decode(float** out, int* err, float gain)
    {
        return pcm_decode_packet(*this, delivered(), diskFrames, out, err, gain);
    }

    int channels() const { return format_value; }

    int bits;
    int diskFrames;
    bool littleEndian;

private:
    PcmLayout delivered() const { return PcmLayout{bits, channels(), Self::kDelivered}; }
};

class KEL_API PacketWAVE : public PcmPacket<PacketWAVE> {
public:
    static constexpr Type kType = TypeWAVE;
    static constexpr PcmByteOrder kDelivered = PcmByteOrder::little;
    static constexpr PcmByteOrder stored_order(bool, int) { return PcmByteOrder::little; }

    using PcmPacket::PcmPacket;
    // WAVE samples are always little-endian.
    PacketWAVE(int bits, int bitRate, float sampleRate, int channels, int frames, int diskFrames, BSHandle* bytes)
        : PcmPacket(bits, bitRate, sampleRate, channels, true, frames, diskFrames, bytes)
    {
    }
};

class KEL_API PacketAIFF : public PcmPacket<PacketAIFF> {
public:
    static constexpr Type kType = TypeAIFF;
    static constexpr PcmByteOrder kDelivered = PcmByteOrder::big;
    // "sowt" files are 16-bit only; any other width is big-endian.
    static constexpr PcmByteOrder stored_order(bool littleEndian, int bits)
    {
        return littleEndian && bits == 16 ? PcmByteOrder::little : PcmByteOrder::big;
    }

    using PcmPacket::PcmPacket;
};

class KEL_API PacketCAFF : public PcmPacket<PacketCAFF> {
public:
    static constexpr Type kType = TypeCAF;
    static constexpr PcmByteOrder kDelivered = PcmByteOrder::little;
    static constexpr PcmByteOrder stored_order(bool littleEndian, int)
    {
        return littleEndian ? PcmByteOrder::little : PcmByteOrder::big;
    }

    using PcmPacket::PcmPacket;
};

} // namespace KEL

#endif
