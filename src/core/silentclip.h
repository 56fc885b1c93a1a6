// The source Clip::create_silent transcodes from: count references to one
// packet of frames frames that decodes as silence.
//
// It has no file and no format; it answers only what a transcoder asks of
// its source (packet lengths, the sample rate, a decoder), so that every
// format makes silence through its own transcode without the core naming
// a format to hold the silence in.
#ifndef KEL_CORE_SILENTCLIP_H
#define KEL_CORE_SILENTCLIP_H

#include "core/clip.h"

namespace KEL {

class KEL_API SilentClip : public Clip {
public:
    // A mono 16-bit clip of count packets of frames frames at sample_rate;
    // null with "EPnm" for count < 1 and "Eprm" for frames outside
    // 1 .. INT_MAX / 2 (a packet's 16-bit bytes must fit an int).
    static SilentClip* create(float sample_rate, int count, int frames, int* err);

    int save_to(const char* path, const void* block1, int block1_len, const void* block2, int block2_len, int* err,
                _kel_progress_ext_t* progress) override;
    // Rate, one channel, 16 bits and the stream figures; format 0.
    void get_info(_kel_clip_info_t* info) override;
    Overview* create_overview(_kel_overview_progress_t* progress) override;
    ClipDecoder* create_decoder() override;
    ClipEncoder* create_encoder(float source_rate) override;
    // Zeros in both buffers; "EPnm" outside the clip.
    int packet_decode_play(int packet, float** buffers, int* err, float gain) override;
    bool will_accept(Clip* other, int* err) override;
    Clip* NewClip(BSFile* file) override;

private:
    explicit SilentClip(float sample_rate);
};

} // namespace KEL

#endif
