// The AAC encoder component ("aac ") on FFmpeg's native AAC encoder (AAC
// LC, raw access units).
//
// Input: 32-bit float PCM (flags 11) at one of the AAC sample rates, the
// output's channel count. Output: one access unit per 1024 frames. The
// encoder starts with 1024 frames of priming (its output is the input
// delayed by 1024 frames), so the first block gives no packet and the
// first packet comes with the second block; at the end it is drained
// (CodecEncoder) and gives the packets still held, so that N input frames
// yield ceil((N + 1024) / 1024) packets when N is a multiple of 1024.
//
// Properties: "brat" (uint32_t bits per second; set before initialize, or
// after it, which restarts the encoder; 0 lets FFmpeg choose; reads back
// the rate in use), "ofmt" ("aac ", 1024 frames per packet, the rate and
// channels; before initialize a 44100 Hz stereo default to be completed by
// the caller), "pakb" (the encoder's bound on a packet: 8192 bytes per
// channel), "kuki" (the AudioSpecificConfig).
#ifndef KEL_CODEC_CODECENCODERAAC_H
#define KEL_CODEC_CODECENCODERAAC_H

#include "codec/codecencoder.h"

namespace KEL {

class CodecEncoderAAC : public CodecEncoder {
public:
    static constexpr int kFramesPerPacket = 1024;

    CodecEncoderAAC();

    int get_property(int32_t id, uint32_t* io_size, void* data) override;
    int set_property(int32_t id, uint32_t size, const void* data) override;

protected:
    int prepare(FFCodecSettings& settings) override;
    void complete_output() override;
    bool drains() const override { return true; }
    uint32_t max_packet_bytes() const override;
    int output_format(AudioStreamBasicDescription* out) const override;

private:
    uint32_t bit_rate_ = 0;
};

} // namespace KEL

#endif
