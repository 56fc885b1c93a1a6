// Re-encodes single Apple Lossless packets with their gain and envelope
// applied, for saving a clip whose gains changed.
//
// A packet is decoded to floats by a decoder of the clip (which applies the
// packet's gain and envelope), turned into big-endian integers of the
// clip's width, and either encoded again (a whole packet of 4096 frames) or,
// when shorter, written as one uncompressed element by hand:
//
//   byte 0   element tag in the top 3 bits: 0 single channel (mono),
//            1 channel pair (stereo); instance 0
//   byte 1   0
//   byte 2   flags: 0x02 uncompressed, 0x04 a one-byte shift (24 bit);
//            its lowest bit is the first sample bit
//   then     the samples, interleaved big-endian, moved one bit later
//
// so that the frame is 3 bytes longer than its samples. It is written
// without the END element that closes an encoder's frames; the decoders
// take it as it is.
#ifndef KEL_M4A_ALACTRANSCODER_H
#define KEL_M4A_ALACTRANSCODER_H

#include "kel.h"

namespace KEL {

class ClipM4ALAC;
class ComponentInstanceRecord;
class PacketM4ALAC;

class KEL_API ALACTranscoder {
public:
    explicit ALACTranscoder(int bits);
    // Closes the decoder and the encoder.
    ~ALACTranscoder();
    ALACTranscoder(const ALACTranscoder&) = delete;
    ALACTranscoder& operator=(const ALACTranscoder&) = delete;

    // Makes the decoder and the encoder for the clip's stream; false (with
    // nothing left open) when either cannot be made.
    bool init(ClipM4ALAC* clip);
    // Writes the packet re-encoded into out (capacity bytes) and returns its
    // size, or 0 on failure. A packet whose bytes cannot be read is encoded
    // as silence and sets *damaged.
    int transcode(PacketM4ALAC* packet, unsigned char* out, int capacity, bool* damaged);

    // Writes length bytes of interleaved big-endian samples of 16 or 24
    // bits as a hand-made uncompressed frame; the size (length + 3), or 0
    // when that does not fit capacity.
    static int write_uncompressed(const unsigned char* samples, int length, int channels, int bits,
                                  unsigned char* out, int capacity);

    int bits_per_sample;
    int max_packet_size = 0; // bytes, as the encoder reports it
    ComponentInstanceRecord* decoder = nullptr;
    ComponentInstanceRecord* encoder = nullptr;
};

} // namespace KEL

#endif
