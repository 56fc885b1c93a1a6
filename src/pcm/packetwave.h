// A packet of a WAVE clip: a block of little-endian integer PCM frames.
//
// The frame count a packet reports to its clip and the frames its bytes
// hold differ only for the last packet of a loaded file, which reports a
// full packet and decodes the frames it lacks as silence. The channel count
// is kept in the base's format_value.
#ifndef KEL_PCM_PACKETWAVE_H
#define KEL_PCM_PACKETWAVE_H

#include "core/packet.h"

namespace KEL {

class KEL_API PacketWAVE : public Packet {
public:
    // frames is the length reported to the clip; diskFrames (at most
    // frames) the length stored in bytes.
    PacketWAVE(int bits, int bitRate, float sampleRate, int channels, int frames, int diskFrames,
               BSHandle* bytes);
    ~PacketWAVE() override;

    Type type() const override;
    // The stored bytes, scaled by gain (negative: the packet's own gain);
    // returns the byte count.
    int get_bytes(void* dst, float gain) override;
    // The stored bytes scaled by the packet's gain and per-frame envelope.
    int get_bytes_with_gain_and_envelope(void* dst) override;
    int disk_frame_count() override;
    Packet* copy() override;

    // Decodes into out[0] and out[1] (each of frame_count floats) and
    // returns frame_count; 0 when the bytes cannot be read.
    int decode(float** out, int* err, float gain);

    int channels() const { return format_value; }

    int bits;
    int diskFrames;
};

} // namespace KEL

#endif
