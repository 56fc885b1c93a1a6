// A packet of an AIFF clip: a block of integer PCM frames, big-endian, or
// 16-bit little-endian when it comes from an AIFF-C "sowt" file.
//
// Whatever the file held, the bytes a packet hands out (get_bytes and
// get_bytes_with_gain_and_envelope) are big-endian, so saving and decoding
// see one layout. The frame count a packet reports and the frames its bytes
// hold differ only for the last packet of a loaded file, which reports a
// full packet and decodes the frames it lacks as silence. The channel count
// is kept in the base's format_value.
#ifndef KEL_PCM_PACKETAIFF_H
#define KEL_PCM_PACKETAIFF_H

#include "core/packet.h"

namespace KEL {

class KEL_API PacketAIFF : public Packet {
public:
    // frames is the length reported to the clip; diskFrames (at most
    // frames) the length stored in bytes; littleEndian says the stored
    // bytes are 16-bit little-endian samples.
    PacketAIFF(int bits, int bitRate, float sampleRate, int channels, bool littleEndian, int frames,
               int diskFrames, BSHandle* bytes);
    ~PacketAIFF() override;

    Type type() const override;
    // The stored bytes, scaled by gain (negative: the packet's own gain)
    // and made big-endian; returns the byte count.
    int get_bytes(void* dst, float gain) override;
    // The big-endian bytes scaled by the packet's gain and per-frame
    // envelope.
    int get_bytes_with_gain_and_envelope(void* dst) override;
    int disk_frame_count() override;
    Packet* copy() override;

    // Decodes into out[0] and out[1] (each of frame_count floats) and
    // returns frame_count; 0 when the bytes cannot be read.
    int decode(float** out, int* err, float gain);

    int channels() const { return format_value; }

    int bits;
    int diskFrames;
    bool littleEndian;
};

} // namespace KEL

#endif
