// The packet base of the formats decoded by codec components (MP3, AAC,
// Apple Lossless): one compressed frame, pushed through a codec instance
// on decode.
//
// The base's format_value holds the packet's channel count. The codec
// formats change gain in the compressed data (MP3 and AAC move their
// global gain fields, Apple Lossless re-encodes), so can_change_gain_inline
// is true and the decoded samples are not scaled again.
#ifndef KEL_CODED_PACKETAC_H
#define KEL_CODED_PACKETAC_H

#include "core/packet.h"

#include <cstddef>
#include <vector>

namespace KEL {

class ComponentInstanceRecord;

class KEL_API PacketAC : public Packet {
public:
    // Largest frame count and channel count a packet is decoded with; the
    // scratch buffers of decode are sized from them.
    static constexpr int kMaxFrames = 1 << 16;
    static constexpr int kMaxChannels = 8;

    // Everything goes to Packet; format_value is the channel count.
    PacketAC(int bit_rate, float sample_rate, int channels, int frame_count, BSHandle* handle);
    ~PacketAC() override;

    virtual bool can_change_gain_inline();

    // For the formats whose gain moves the global gain fields in whole steps
    // of 2^(1/4): the gain whose step count, truncated toward zero after
    // the +0.001 the gain walks add, is the step nearest to `wanted`. The
    // exact step value 2^(n/4) would not do for attenuations: it lies a
    // hair below -n steps, the truncation moves it one step toward 1, and
    // the save would apply one step less than asked. Half a step further
    // out lands on n whatever the rounding of the float on the way.
    static float nearest_step_gain(float wanted);

    // Pushes the packet's bytes (read with get_bytes(buffer, gain)) through
    // the codec and delivers its output in out[0] (left) and out[1]
    // (right), frame_count floats each; out null, or either channel null,
    // decodes without delivering. bits 0 means 32-bit float output from the
    // codec, 16 or 24 integer output of that width. Returns the frames
    // produced; 0 with needs_more_input true when the codec wants more
    // input first. A short output is delivered as frame_count frames of
    // silence.
    int decode(float** out, ComponentInstanceRecord* codec, bool& needs_more_input, int* error, float gain,
               int bits);
    // Big-endian signed integers of frames frames, channel count from the
    // packet, into the two outputs. Mono: decode16 fills both outputs,
    // decode24 only the left one.
    void decode16(float** out, unsigned char* data, int frames);
    void decode24(float** out, unsigned char* data, int frames);
    // A codec's output of frames frames into the two outputs: big-endian
    // floats for bits 0 (mono fills both outputs), else decode16 or
    // decode24; other depths write nothing.
    void decode_samples(float** out, unsigned char* data, int frames, int bits);

    int channels() const { return format_value; }

protected:
    // Makes a decode's scratch buffer v at least n bytes long (buffers only
    // ever grow); false when that cannot be allocated.
    static bool reserve(std::vector<unsigned char>& v, size_t n);
};

} // namespace KEL

#endif
