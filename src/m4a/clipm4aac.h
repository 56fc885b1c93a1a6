// AAC clips: AAC-LC access units in an M4A (MPEG-4) file, one packet per
// access unit, decoded through the "aac " codec component.
//
// Opening reads the file's sample tables with M4A_ParserAAC and makes one
// PacketM4AAC per sample, referencing its bytes in the backing store; no
// audio is decoded. Gain is applied without re-encoding, in each block's
// global_gain fields, as the packets are read for saving or decoding.
#ifndef KEL_M4A_CLIPM4AAC_H
#define KEL_M4A_CLIPM4AAC_H

#include "coded/clipac.h"

namespace KEL {

class M4A_Parser;

class KEL_API ClipM4AAC : public ClipAC {
public:
    static constexpr int kFramesPerPacket = 1024;

    // bit_rate is the nominal bit rate in bits per second; samples count as
    // 16 bits, as for every codec format.
    ClipM4AAC(int channels, float sample_rate, int bit_rate, BSFile* file);
    ~ClipM4AAC() override;

    // An M4A file with the packets' bytes (gain applied in the bitstream)
    // and the two caller blocks. A clip with envelopes is saved through a
    // copy with plain per-packet gains. "Egga" keeps the file written.
    int save_to(const char* path, const void* first_block, int first_length, const void* second_block,
                int second_length, int* err, _kel_progress_ext_t* progress) override;
    void get_info(_kel_clip_info_t* info) override;
    ClipEncoder* create_encoder(float source_rate) override;
    // AAC needs no earlier packets to be written: 0 ("EPnm" for a bad index).
    int packet_preroll_count(int index, int* err) override;
    // Another AAC clip of the same channels, sample rate and nominal bit
    // rate: "Eclt" for another format, "Ecld" for other parameters.
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

    // 0 when path is an M4A file with an AAC track.
    static int detect(const char* path);
    // The clip with all its packets, or null with the code in *err.
    static ClipM4AAC* open(const char* path, int* err, _kel_progress_ext_t* progress);
    // The file's description from its sample tables, without packets.
    static int get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress);
    // An empty clip of 1 or 2 channels and a rate not below 0 ("Eprm"
    // otherwise), with no store and no codec yet.
    static ClipM4AAC* create_empty(int channels, float sample_rate, int bit_rate, int* err);

    int nominal_bit_rate; // bits per second

private:
    // Makes the packets from a parsed file; the code.
    int load(const char* path, M4A_Parser* parser, _kel_progress_ext_t* progress);
};

} // namespace KEL

#endif
