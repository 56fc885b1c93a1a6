// One AAC access unit of an M4A file: a raw data block, decoded through the
// "aac " codec component (PacketAC), whose gain is applied without decoding
// by moving the global_gain fields of the block (aacgain.h) as its bytes are
// read.
#ifndef KEL_M4A_PACKETM4AAC_H
#define KEL_M4A_PACKETM4AAC_H

#include "coded/packetac.h"

namespace KEL {

class KEL_API PacketM4AAC : public PacketAC {
public:
    PacketM4AAC(int bit_rate, float sample_rate, int channels, int frames, BSHandle* data);
    ~PacketM4AAC() override;

    Type type() const override;
    // The gain rounded to whole global_gain steps: 2^(S/4), 0 below 1e-12.
    float quantized_gain() override;
    float storable_gain(float wanted) override;
    // The block's bytes with the gain (negative: the packet's own) written
    // into its global_gain fields; exactly the stored bytes at 1.0. A walk
    // that fails leaves the fields it had not reached. Returns the byte
    // count.
    int get_bytes(void* buffer, float gain) override;
    // What get_bytes does to the n stored bytes once they are read, for a
    // caller that read them itself (a saver reading packets in bulk).
    void apply_gain(unsigned char* bytes, int n, float gain) const;
    // Same parameters and handle (shared), gain and cache state copied.
    Packet* copy() override;
};

} // namespace KEL

#endif
