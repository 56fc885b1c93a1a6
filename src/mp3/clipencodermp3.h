// The MP3 encoder used by transcoding into MP3: float frames from the
// encoder base, 16-bit integers into LAME (lamelibrary.h), MP3 bytes out.
//
// LAME always gets two channels at the target clip's own rate (the base
// resamples, LAME never does); mono material arrives as two equal channels
// and is coded in LAME's mono mode. Each call encodes exactly one block of
// frames_per_packet frames, and the output is a byte stream rather than
// packets: ClipMP3::transcode writes it to a file and scans that file.
#ifndef KEL_MP3_CLIPENCODERMP3_H
#define KEL_MP3_CLIPENCODERMP3_H

#include "core/clipencoder.h"
#include "mp3/lamelibrary.h"

namespace KEL {

class KEL_API ClipEncoderMP3 : public ClipEncoder {
public:
    // Bytes of LAME output one call may return.
    static constexpr int kOutputBytes = 32768;
    // The largest block LAME is handed at once (an MPEG-1 frame).
    static constexpr int kMaxFrames = 1152;

    // source_rate: rate of the frames put in; sample_rate: the MP3's rate;
    // bit_rate in bits per second (the constant rate, or the VBR ceiling);
    // mode: KELClipStereoMode for two channels. When LAME cannot be loaded
    // or refuses the settings, the encoder exists and packet_encode reports
    // "Ecod".
    ClipEncoderMP3(float source_rate, int channels, float sample_rate, int frames_per_packet, int bit_rate, bool vbr,
                   KELClipStereoMode mode);
    ~ClipEncoderMP3() override;

    // The MP3 bytes of the next block (the buffer is reused by the next
    // call), their count in *size. Null without touching *size while more
    // input is needed; "Eenc" for a partial block or a LAME failure. With
    // flush set, a last block padded with silence is encoded first, and the
    // call after it flushes LAME; later calls give 0 bytes.
    const void* packet_encode(int* size, bool flush, int* err) override;
    // Always null: MP3 output becomes packets only by scanning its file.
    Packet* packet_with_storage(BSHandle* handle) override;
    // LAME's delay and the decoder's 529 frames.
    int priming_frames() const override;

    float sample_rate;
    int frames_per_packet;
    unsigned char* out = nullptr;
    lame_t lame = nullptr;
    int flushed = 0;
};

} // namespace KEL

#endif
