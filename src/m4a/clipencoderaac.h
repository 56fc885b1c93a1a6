// The encoder that transcoding uses to make AAC packets: float audio from
// the ClipEncoder ring buffer, 1024 frames at a time, through the "aac "
// encoder component, into raw access units that become PacketM4AAC packets.
//
// The encoder delays its output: the first block gives no packet, and at
// the end (flush) the packets it still holds are drained out of it.
#ifndef KEL_M4A_CLIPENCODERAAC_H
#define KEL_M4A_CLIPENCODERAAC_H

#include "core/clipencoder.h"

namespace KEL {

class ComponentInstanceRecord;

class KEL_API ClipEncoderAAC : public ClipEncoder {
public:
    static constexpr int kFramesPerPacket = 1024;
    static constexpr int kDefaultMaxPacketBytes = 65536;

    // source_rate goes to ClipEncoder; channels (1 or 2), sample_rate and
    // bit_rate (bits per second) describe the packets made. An encoder
    // that cannot be set up is left without an instance: packet_encode
    // then reports "Ecod".
    ClipEncoderAAC(float source_rate, int channels, float sample_rate, int bit_rate);
    ~ClipEncoderAAC() override;

    // The next access unit, or null: with *size 0 and no error when more
    // input is needed first (or, when flushing, nothing is left).
    const void* packet_encode(int* size, bool flush, int* err) override;
    // A new PacketM4AAC of 1024 frames over the stored bytes.
    Packet* packet_with_storage(BSHandle* handle) override;
    // The encoder's one packet of priming.
    int priming_frames() const override { return kFramesPerPacket; }

    int channels;
    float sample_rate;
    unsigned char* output = nullptr;            // kept access unit, max_packet_bytes long
    ComponentInstanceRecord* encoder = nullptr; // owned
    int max_packet_bytes = kDefaultMaxPacketBytes;

private:
    // Appends one block of frames (interleaved, big-endian floats).
    bool append_block(float** frames);
    // One produce call; the byte count, or -1 on failure.
    int produce();
};

} // namespace KEL

#endif
