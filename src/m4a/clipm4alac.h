// Apple Lossless clips: an "alac" track in an M4A file, one packet per
// compressed frame (4096 frames, the last one shorter), decoded through the
// "alac" decoder component into integers of the clip's width.
//
// The packets are independent, so the decoder is reset before every packet
// and needs no warm-up. Gain cannot be written into the compressed data:
// decoding scales the samples, and saving re-encodes every packet whose
// gain is not 1.0 or that carries an envelope (ALACTranscoder); all other
// packets keep their bytes.
#ifndef KEL_M4A_CLIPM4ALAC_H
#define KEL_M4A_CLIPM4ALAC_H

#include "coded/clipac.h"

namespace KEL {

class ALACTranscoder;
class M4A_ParserALAC;
class PacketM4ALAC;

class KEL_API ClipM4ALAC : public ClipAC {
public:
    // nominal_bit_rate is kept as given (the files carry none: 0).
    ClipM4ALAC(int channels, float sample_rate, int bits, int nominal_bit_rate, BSFile* file);
    ~ClipM4ALAC() override;

    // Writes an M4A file; packets with changed gain are re-encoded first.
    // "Egga" (file kept) when a packet's bytes could not be read and were
    // saved as silence.
    int save_to(const char* path, const void* block1, int block1_len, const void* block2, int block2_len,
                int* err, _kel_progress_ext_t* progress) override;
    void get_info(_kel_clip_info_t* info) override;
    ClipEncoder* create_encoder(float source_rate) override;
    // Another Apple Lossless clip of the same channels, sample rate and
    // bits: "Eclt" for another format, "Ecld" for other parameters.
    bool will_accept(Clip* other, int* err) override;
    // A new empty clip of these parameters with its playback codec; null
    // when the codec cannot be made.
    Clip* NewClip(BSFile* file) override;

    int32_t component_subtype() override;
    uint32_t format_flags() override;
    int32_t format_id() override;
    // The first packet's frame count, 4096 without packets.
    int frames_per_packet() override;
    int nbackpackets() override;
    int nfwdpackets() override;
    bool codec_outputs_integer_samples() override;
    // Resets the codec and decodes the one packet, whole packets through
    // PacketAC::decode and shorter ones through decode_partial.
    int packet_decode(ComponentInstanceRecord* codec, int& last_index, int& primed, int index, float** out,
                      int* error, float gain) override;
    // Writes the clip's bit depth into the codec's cookie when the cookie
    // has the expected layout. Always 0.
    int specific_codec_setup(ComponentInstanceRecord* codec) override;

    // 0 when path is an M4A file with an Apple Lossless track.
    static int detect(const char* path);
    static ClipM4ALAC* open(const char* path, int* err, _kel_progress_ext_t* progress);
    static int get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress);
    // An empty clip of 1 or 2 channels, a rate not below 0 and 16 or 24
    // bits ("Eprm" otherwise), with no store and no codec yet.
    static ClipM4ALAC* create_empty(int channels, float sample_rate, int bits, int* err);

    int nominal_bit_rate;

private:
    int load(const char* path, M4A_ParserALAC* parser, _kel_progress_ext_t* progress);
    // A new packet holding packet re-encoded with its gain, or null.
    PacketM4ALAC* packet_create_transcoded(ALACTranscoder* transcoder, PacketM4ALAC* packet, bool* damaged);
};

} // namespace KEL

#endif
