// MP3 clips: MPEG-1, MPEG-2 and MPEG-2.5 Layer III streams, one packet per
// frame, decoded through the ".mp3" codec component.
//
// Opening finds the first real frame behind an ID3v2 tag and a leading
// "Xing"/"Info" information frame, and accepts the stream once two
// consecutive frames agree (the second exactly one frame length after the
// first) in sample rate, channel layout, MPEG version and layer. Loading
// then walks the file frame by frame, passing over damaged stretches, and
// makes each whole frame that matches the stream a PacketMP3 referencing
// its bytes in the backing store. Nothing is decoded while loading.
#ifndef KEL_MP3_CLIPMP3_H
#define KEL_MP3_CLIPMP3_H

#include "coded/clipac.h"

#include <cstdio>

namespace KEL {

class KEL_API ClipMP3 : public ClipAC {
public:
    // type 3, 4 or 5 (MPEG-1, MPEG-2, MPEG-2.5); stereo_mode a
    // KELClipStereoMode; bit_rate the nominal bit rate in bits per second.
    // Samples are counted as 16 bits, as for every codec format.
    ClipMP3(int channels, float sample_rate, int type, int stereo_mode, int bit_rate, BSFile* file);
    ~ClipMP3() override;

    // Writes block1 (a leading tag, e.g. ID3v2) unchanged, an information
    // frame ("Xing" for a variable bit rate, "Info" for a constant one)
    // describing the frames, every packet's frame with its gain applied in
    // the bitstream, then block2 (a trailing tag). See mp3saver.h.
    int save_to(const char* path, const void* block1, int block1_len, const void* block2, int block2_len,
                int* err, _kel_progress_ext_t* progress) override;
    // 1, 2 or 3 for MPEG-1, MPEG-2 and MPEG-2.5 clips, 0 for any other type.
    int mpeg_version() const;
    void get_info(_kel_clip_info_t* info) override;
    // Encodes source packets through LAME into one MP3 stream in a
    // temporary file and opens that file as the new clip.
    Clip* transcode(Clip* source, int first, int last, int* err, _kel_progress_ext_t* progress) override;
    // A LAME encoder for this clip's channels, rate, frame size, nominal bit
    // rate, rate mode and stereo mode.
    ClipEncoder* create_encoder(float source_rate) override;
    // Synthetic frames carrying the bit reservoir of packet `index`, to go
    // in front of it when the packets before it are cut away; null without
    // an error when it needs none. See clipmp3padding.cpp.
    Clip* create_padding_clip(int index, int* err) override;
    // Earlier packets whose main data this packet's bit reservoir reaches.
    int packet_preroll_count(int index, int* err) override;
    // Another MP3 clip of the same channels, sample rate, MPEG version and
    // stereo mode: "Eclt" for another format, "Ecld" for other parameters.
    bool will_accept(Clip* other, int* err) override;
    int fade_start_fudge_factor() override;
    int fade_length_fudge_factor() override;
    // A new empty clip of these parameters with its playback codec; null
    // when the codec cannot be made.
    Clip* NewClip(BSFile* file) override;

    int32_t component_subtype() override;
    int32_t format_id() override;
    int frames_per_packet() override;
    int nbackpackets() override;
    int nfwdpackets() override;
    // A frame whose main_data_begin reaches back, behind a frame that did
    // not precede it in the file: its reservoir lies in bytes the clip does
    // not hold, and decoding it after other frames' main data gives noise
    // far above full scale.
    bool packet_needs_fresh_codec(int index) override;

    // The clip's packet type (3, 4 or 5).
    int mp3_flavor() const { return type; }

    // 0 when path holds an MP3 stream; no clip is made.
    static int detect(const char* path);
    // Locates the stream and, unless detect_only, makes its clip: with
    // header_only an empty one, otherwise one with all its packets. Null
    // with the code in *err on failure; null without touching *err when
    // the file ends before a stream is found, and always with detect_only.
    static Clip* open(const char* path, int* err, _kel_progress_ext_t* progress, bool detect_only,
                      bool header_only);
    // Makes the packets, file positioned at the stream's first frame.
    int load(FILE* file, const char* path, _kel_progress_ext_t* progress);
    // The stream's description from a scan of all its frames, without
    // packets. Returns the code.
    static int get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress);
    // An empty MPEG-1 clip of 1 or 2 channels and a rate not below 0
    // ("Eprm" otherwise), with no store and no codec yet. flag is not used.
    static Clip* create_empty(int channels, float sample_rate, int bit_rate, bool flag, int* err);

    int type;             // Packet::Type of every packet: 3, 4 or 5
    int stereo_mode;      // KELClipStereoMode of the first frame
    int nominal_bit_rate; // bits per second; the largest frame's after loading
};

} // namespace KEL

#endif
