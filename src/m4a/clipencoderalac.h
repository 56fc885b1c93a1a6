// The Apple Lossless encoder used by transcoding: packets of
// frames_per_packet frames (4096 normally) through the "alac" encoder
// component, which takes interleaved big-endian 16- or 24-bit integers.
//
// The encoder is reset before every packet: Apple Lossless packets carry no
// state from one to the next. The last packet of a transcode is padded with
// silence to the full frame count by the base's flush.
#ifndef KEL_M4A_CLIPENCODERALAC_H
#define KEL_M4A_CLIPENCODERALAC_H

#include "core/clipencoder.h"

#include <vector>

namespace KEL {

class ComponentInstanceRecord;

class KEL_API ClipEncoderALAC : public ClipEncoder {
public:
    // source_rate is the rate of the frames put in; sample_rate the rate
    // the packets are made at. Without an encoder component the object is
    // still made, and every packet_encode gives "Ecod".
    ClipEncoderALAC(float source_rate, int channels, float sample_rate, int bits, int frames_per_packet);
    ~ClipEncoderALAC() override;

    // The next packet's bytes (owned by the encoder, valid until the next
    // call); null without error when no whole packet is buffered yet.
    const void* packet_encode(int* size, bool flush, int* err) override;
    Packet* packet_with_storage(BSHandle* handle) override;

    int channels;
    float sample_rate;
    int bits_per_sample;
    int frames_per_packet;
    unsigned char* buffer = nullptr;           // max_packet_size bytes, owned
    ComponentInstanceRecord* encoder = nullptr; // owned
    int max_packet_size = 65536;

private:
    std::vector<float> frames_[2]; // one packet of float frames per channel
    std::vector<unsigned char> pcm_;
};

} // namespace KEL

#endif
