// A packet of an Apple Lossless clip: one compressed frame referenced in the
// backing store.
//
// Gain cannot be written into lossless data, so the stored bytes are always
// delivered as they are and decoding scales the samples instead
// (can_change_gain_inline is false). A clip saved with changed gains has
// those packets re-encoded (ALACTranscoder).
//
// Frames shorter than the codec's 4096 (the last of a file) go through
// decode_partial, which follows the packet with zero bytes that are not
// declared as a packet, the way a decoder that reads a little past the
// frame's end expects, and asks for up to 4096 frames.
#ifndef KEL_M4A_PACKETM4ALAC_H
#define KEL_M4A_PACKETM4ALAC_H

#include "coded/packetac.h"

namespace KEL {

class KEL_API PacketM4ALAC : public PacketAC {
public:
    // Frames of a whole packet as the encoder makes them.
    static constexpr int kFullFrames = 4096;

    PacketM4ALAC(int bit_rate, float sample_rate, int channels, int frames, BSHandle* handle);
    ~PacketM4ALAC() override;

    Type type() const override;
    // The stored bytes, whatever the gain.
    int get_bytes(void* dest, float gain) override;
    // Same parameters and handle (shared), gain and envelope state copied.
    Packet* copy() override;
    // False: decode16 and decode24 multiply by the packet's gain.
    bool can_change_gain_inline() override;

    // As PacketAC::decode for a packet of fewer (or more) frames than
    // kFullFrames: output room for kFullFrames frames, the frames produced
    // capped at the packet's count; no status asks for more input (status
    // 2 and 3 are output, anything else "Edec").
    int decode_partial(float** out, ComponentInstanceRecord* codec, int* error, float gain, int bits);
};

} // namespace KEL

#endif
