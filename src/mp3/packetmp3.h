// A packet of an MP3 clip: one whole Layer III frame (header, CRC word when
// present, side information and main data) referenced in the backing store.
//
// Gain is applied without decoding: when the bytes are read out with a gain
// other than 1, every nonzero global_gain of the frame moves by the same
// whole number of 2^(1/4) steps and a protected frame's CRC is recomputed
// (mp3framegain.h). quantized_gain says which stepped gain that really is.
#ifndef KEL_MP3_PACKETMP3_H
#define KEL_MP3_PACKETMP3_H

#include "coded/packetac.h"

namespace KEL {

class KEL_API PacketMP3 : public PacketAC {
public:
    // bit_rate of the frame in bits per second; type 3, 4 or 5 (MPEG-1,
    // MPEG-2, MPEG-2.5 Layer III); handle over exactly the frame's bytes.
    PacketMP3(int bit_rate, float sample_rate, int channels, int frames_per_packet, int type, BSHandle* handle);
    ~PacketMP3() override;

    Type type() const override;
    // The frame's bytes with gain applied in the bitstream (negative: the
    // packet's own gain); exactly the stored bytes at gain 1.0. Returns the
    // byte count.
    int get_bytes(void* buffer, float gain) override;
    float quantized_gain() override;
    float storable_gain(float wanted) override;
    // Same parameters and handle (shared), gain and envelope state copied.
    Packet* copy() override;

    // Header, CRC and side-information bytes of the frame; "Ebef" in err
    // when the frame holds fewer than 6 bytes.
    int static_part_size(int& err);
    // The frame's main_data_begin; "Ebef" in err when the frame holds fewer
    // than 8 bytes.
    int get_main_data_begin(int& err);

    // Whether this frame came right after `before` in the file they were
    // both loaded from, with no bytes skipped between them. Frames made in
    // memory (padding frames, encoder output) count as following anything:
    // they are built for the place they are put.
    bool follows_in_stream(const PacketMP3& before) const;

    int mp3_type;
    // Position in the loaded stream: consecutive frames have consecutive
    // numbers, and a gap of skipped bytes adds one more; -1 for frames not
    // loaded from a file.
    int stream_serial = -1;
};

} // namespace KEL

#endif
