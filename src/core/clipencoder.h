// Base of the per-format encoders used by transcoding.
//
// Decoded float frames go in through put_data at the source's rate; the
// format's packet_encode pulls them out with get_data at its own encoding
// rate (the ring buffer decouples the two packet sizes and the resampler
// converts the rate on the way out) and hands back encoded packets.
#ifndef KEL_CORE_CLIPENCODER_H
#define KEL_CORE_CLIPENCODER_H

#include "kel.h"

#include <vector>

struct rbuffer2;
struct resampler;

namespace KEL {

class BSHandle;
class Packet;

class KEL_API ClipEncoder {
public:
    // Bytes per lane of the ring buffer: 32768 float frames.
    static constexpr int kBufferBytes = 131072;

    explicit ClipEncoder(float source_rate);
    virtual ~ClipEncoder();
    ClipEncoder(const ClipEncoder&) = delete;
    ClipEncoder& operator=(const ClipEncoder&) = delete;

    // The next encoded packet's bytes and their count in *size; null or
    // size 0 when none is ready. flush drains what is buffered.
    virtual const void* packet_encode(int* size, bool flush, int* err) = 0;
    // A new packet of the target format over stored bytes.
    virtual Packet* packet_with_storage(BSHandle* handle) = 0;
    // Frames that decoding the output gives before the first frame put in
    // (an encoder's priming, with the decoder's own delay); the transcode
    // trims them, so that the saved file says to skip them.
    virtual int priming_frames() const { return 0; }

    // Buffers frames of both channels; returns the frames accepted (0 when
    // the buffer or the resampler cannot be made).
    int put_data(float** channels, int frames);
    // Delivers frames output frames at rate into out[0], out[1]; 0 when not
    // enough input is buffered (unless flushing, which pads with silence).
    int get_data(float** out, int frames, float rate, bool flush);

    float source_rate;
    rbuffer2* buffer = nullptr;
    ::resampler* resampler = nullptr;

private:
    std::vector<float> scratch_[2];
};

} // namespace KEL

#endif
