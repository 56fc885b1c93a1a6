// A packet of a CAF clip: a block of 16-bit integer PCM frames, stored
// big- or little-endian as the file's format flags say.
//
// Whatever the order on disk, the bytes a PacketCAFF hands out are
// little-endian (gain is applied in the stored order first, then big-endian
// words are swapped), so decoding and the envelope work in one order. As in
// WAVE, only the last packet of a loaded file stores fewer frames than it
// reports; the channel count is kept in the base's format_value.
#ifndef KEL_PCM_PACKETCAFF_H
#define KEL_PCM_PACKETCAFF_H

#include "core/packet.h"

namespace KEL {

class KEL_API PacketCAFF : public Packet {
public:
    // frames is the length reported to the clip; diskFrames (at most
    // frames) the length stored in bytes; littleEndian the stored order.
    PacketCAFF(int bits, int bitRate, float sampleRate, int channels, bool littleEndian, int frames,
               int diskFrames, BSHandle* bytes);
    ~PacketCAFF() override;

    Type type() const override;
    // The stored bytes scaled by gain (negative: the packet's own gain),
    // handed out little-endian; returns the byte count.
    int get_bytes(void* dst, float gain) override;
    // The little-endian bytes scaled by the packet's gain and envelope.
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
