// The clip base of every format whose packets are decoded by a codec
// component: MP3, AAC and Apple Lossless.
//
// A subclass says which decoder component and compressed stream format it
// uses and how many packets of context its codec needs; this class finds
// and opens the decoder, describes both streams to it, primes it with
// earlier packets after every jump (warm-up), turns its output into the two
// float channels of the working form, and gives playback, every overview
// and every transcoding decoder a codec instance of its own.
//
// Decoding state. Each codec owner keeps the index of the packet its codec
// last delivered (kNoPacket when none) and the number of warm-up packets
// fed since the codec's last reset. A request for any packet other than the
// one after the last is a jump: the codec is reset and fed up to
// nbackpackets() earlier packets without output. Until that many warm-up
// packets have been fed after one reset, every request resets again, so
// that a decoder that starts at packet 0 and plays on is primed with the
// whole history; after that, consecutive requests cost one codec call each.
#ifndef KEL_CODED_CLIPAC_H
#define KEL_CODED_CLIPAC_H

#include "core/clip.h"

#include <cstdint>

namespace KEL {

class ComponentInstanceRecord;

class KEL_API ClipAC : public Clip {
public:
    // The last-decoded index of an owner whose codec has delivered nothing
    // since its last reset; the next index after it wraps to a negative
    // value, so the first request is always a jump.
    static constexpr int kNoPacket = 0x7FFFFFFF;

    ClipAC(int channels, float sample_rate, int bits_per_sample, BSFile* file);
    // Closes the playback codec.
    ~ClipAC() override;

    Overview* create_overview(_kel_overview_progress_t* progress) override;
    ClipDecoder* create_decoder() override;
    // packet_decode with the playback codec, which a clip made empty
    // creates on first use.
    int packet_decode_play(int index, float** out, int* error, float gain) override;

    // ---- added virtual interface, in slot order ----
    // Four-character subtype of the decoder component ("adec").
    virtual int32_t component_subtype() = 0;
    // Format flags of the compressed input stream.
    virtual uint32_t format_flags();
    // Four-character code of the compressed format.
    virtual int32_t format_id() = 0;
    virtual int frames_per_packet() = 0;
    // Packets fed before the wanted one after a reset.
    virtual int nbackpackets() = 0;
    // Packets after the wanted one that may be fed while the codec asks
    // for more input.
    virtual int nfwdpackets() = 0;
    // True: the decoder delivers integers of the clip's bit depth instead
    // of 32-bit floats.
    virtual bool codec_outputs_integer_samples();
    // Decodes packet index with codec, whose owner's state is last_index
    // and primed. out is two buffers of at least the packet's frame count,
    // or null to decode without output. Returns the frames delivered.
    virtual int packet_decode(ComponentInstanceRecord* codec, int& last_index, int& primed, int index, float** out,
                              int* error, float gain);
    // Called on every new codec before it is initialized (magic cookie and
    // other properties); non-zero refuses the codec.
    virtual int specific_codec_setup(ComponentInstanceRecord* codec);
    // True when packet index (> 0) draws on data that the packet before it
    // in the clip did not come with (an MP3 frame's bit reservoir after a
    // frame that was not its neighbour in the file). The codec then starts
    // afresh at this packet, as a new decoder would, instead of reading
    // what it kept from other frames as if it belonged here. Base: false.
    virtual bool packet_needs_fresh_codec(int index);

    // Set by a loader when the file's tables claimed more than its bytes
    // hold and packets were cut to what is there: saves then report "Egga".
    bool source_damaged = false;

    // The information record's fields every coded clip fills alike: the
    // format number, the parameters, the stream figures and the rate mode
    // (2 variable, 1 constant); the MPEG version and stereo mode are 0.
    void fill_info(_kel_clip_info_t* info, int format) const;

    // A new, initialized decoder instance, or null.
    ComponentInstanceRecord* create_codec();
    // Creates the playback codec; false when that fails.
    bool init_codec();

    ComponentInstanceRecord* codec = nullptr; // playback codec, owned
    int last_index = kNoPacket;               // packet the playback codec last delivered
    int primed = 0;                           // warm-up packets fed since its last reset
};

} // namespace KEL

#endif
