// The abstract clip: an ordered array of shared packets plus the stream
// parameters every format has. Each file format derives its own clip class.
#ifndef KEL_CORE_CLIP_H
#define KEL_CORE_CLIP_H

#include "kel.h"

namespace KEL {

class BSFile;
class ClipDecoder;
class ClipEncoder;
class Overview;
class Packet;

class KEL_API Clip {
public:
    // Packet arrays grow linearly by this many slots.
    static constexpr int kPacketArrayStep = 8192;

    Clip();
    // Stores the parameters and the store (no reference is taken).
    Clip(int channels, float sample_rate, int bits_per_sample, BSFile* file);
    // Releasing the packets is close()'s job.
    virtual ~Clip();
    Clip(const Clip&) = delete;
    Clip& operator=(const Clip&) = delete;

    // ---- virtual interface, in slot order ----
    // Releases the packets and tells the backing store that this clip has
    // gone; returns the store's last progress answer (0 without a store).
    virtual int close(_kel_progress_ext_t* progress);
    // Writes the packets as a complete file of this format at path.
    virtual int save_to(const char* path, const void* block1, int block1_len, const void* block2,
                        int block2_len, int* err, _kel_progress_ext_t* progress) = 0;
    virtual void get_info(_kel_clip_info_t* info) = 0;
    // Decodes source packets first..last and re-encodes them into a new
    // clip of this clip's format.
    virtual Clip* transcode(Clip* source, int first, int last, int* err, _kel_progress_ext_t* progress);
    // A new clip of packets silent packets in this clip's format.
    virtual Clip* create_silent(int packets, int* err, _kel_progress_ext_t* progress);
    virtual Overview* create_overview(_kel_overview_progress_t* progress) = 0;
    virtual ClipDecoder* create_decoder() = 0;
    virtual ClipEncoder* create_encoder(float source_rate) = 0;
    // Decodes one packet into two float buffers and returns its frame
    // count. gain -1.0 applies the packet's own gain and envelope; any other
    // value is the factor applied instead.
    virtual int packet_decode_play(int packet, float** buffers, int* err, float gain) = 0;
    // Decoding for waveform drawing; formats override where a cheaper
    // decode suffices.
    virtual int packet_decode_view(int packet, float** buffers, int* err, float gain);
    // Packets before packet that must be decoded first for it to decode.
    virtual int packet_preroll_count(int packet, int* err);
    // Padding packets that let packet decode out of its context, or null
    // when none are needed.
    virtual Clip* create_padding_clip(int packet, int* err);
    // Whether other's packets can be inserted into this clip unchanged.
    virtual bool will_accept(Clip* other, int* err) = 0;
    virtual int fade_start_fudge_factor();
    virtual int fade_length_fudge_factor();
    // A new empty clip of this format and parameters on the given store.
    virtual Clip* NewClip(BSFile* file) = 0;

    // ---- packet array ----
    bool add_packet(Packet* packet);
    // Copies the whole array into dest (packet_count entries) and retains
    // every packet once more for the caller.
    void copy_packets(Packet** dest) const;
    Packet* get_packet(int index) const;
    // Adopts an array allocated with new[] of count packets, retaining
    // each, and recomputes the statistics. For a clip without an array.
    void UsePackets(Packet** packets, int count);
    // Marks the statistics below (is_vbr, duration, bit_rate) for
    // recomputation from the packet array. The walk over every packet runs
    // on the next read, so a run of edits on a long clip pays for it once.
    // Packets never change the fields the statistics come from, so the
    // result equals an immediate recomputation as long as the array is not
    // changed in between; add_packet and close settle pending statistics
    // first.
    void update_stream_info();
    int is_vbr() const;
    float duration() const;
    int bit_rate() const;
    // Overrides the rate mode until the next update_stream_info.
    void set_is_vbr(int vbr);
    int packet_frame_count(int packet, int* err) const;

    // ---- editing: packet references move, audio bytes are never touched ----
    // A new clip sharing packets first..last (inclusive).
    Clip* copy(int first, int last, int* err);
    // Like copy, then removes the range from this clip.
    Clip* cut(int first, int last, int* err);
    // Inserts all of other's packets before packet at.
    void insert(int at, Clip* other, int* err);

    // ---- edges: frames of the decoded packets that are not heard ----
    // start_trim frames from the start of the first packet's decode (an
    // encoder's delay, padding frames put in front) and end_trim frames
    // from the end of the last packet's (the padding that completes it).
    // Formats whose files can say so write them when saving. Edits keep
    // them where they still apply: a copy or cut starting at packet 0 takes
    // the start trim along (a later one starts with none), one ending at
    // the last packet the end trim; removing the first or last packet drops
    // that trim; inserting at the very start or end takes the inserted
    // clip's trim for that end. "Eprm" when a trim is negative or the two
    // leave no frame.
    void set_trims(int start, int end, int* err);
    // The frames of all packets, as they count them.
    long long total_frames() const;
    // Trims this clip, just transcoded from all of source's packets by
    // this clip's kind of encoder, so that it plays what source played: the
    // encoder's priming (ClipEncoder::priming_frames), the source's trims
    // (scaled to this clip's rate) and the silence that completes the last
    // packet are left out. Nothing when the sums do not leave a frame.
    void trim_transcoded(Clip& source);
    int start_trim = 0;
    int end_trim = 0;

    // ---- gain and fades (copy-on-write on shared packets) ----
    float packet_gain(int packet, int* err);
    void packet_gain(int packet, float gain, int* err);
    float packet_gain_quantize(int packet, int* err);
    // Stores the gain that applies the achievable value nearest to `wanted`
    // and returns that applied value; "EPnm", "Eprm" for a negative wish.
    float packet_gain_nearest(int packet, float wanted, int* err);
    // The gain that decoding and saving really apply for the stored gain.
    float packet_gain_applied(int packet, int* err);
    void log_fade(int first, int last, float from, float to, int* err);
    void log_fade_remove(int first, int last, int* err);
    // A new clip in which every envelope is folded into per-packet gains.
    Clip* convert_gains_and_envelopes_to_gains(int* err);

    // ---- per-packet overview caches (nothing when out of range) ----
    int packet_is_wave_cache_valid(int packet) const;
    void packet_get_wave_cache(int packet, float* out16) const;
    void packet_get_rms_cache(int packet, float* out) const;
    void packet_get_max_sample_cache(int packet, float* out) const;
    void packet_make_wave_cache(int packet, float** channels, int frames, float* cache);

    int channels;
    float sample_rate;
    int bits_per_sample;
    int packet_count = 0;
    int packet_capacity = 0;
    Packet** packets = nullptr;
    BSFile* backing_file = nullptr;

private:
    void settle_stream_info() const;

    mutable bool stream_info_stale_ = false;
    mutable int is_vbr_ = 0;
    mutable float duration_ = 0.0f;
    mutable int bit_rate_ = 0;
};

} // namespace KEL

#endif
