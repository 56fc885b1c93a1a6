// A packet: the unit in which clips are edited.
//
// One coded frame (MP3, AAC, Apple Lossless) or one block of PCM frames. A
// packet holds no audio of its own: it references its stored bytes through
// a BSHandle and carries what editing adds without touching those bytes: a
// linear gain, an optional per-frame envelope, and a small cache of
// waveform extremes and RMS for overview drawing.
#ifndef KEL_CORE_PACKET_H
#define KEL_CORE_PACKET_H

#include "core/refcounted.h"

namespace KEL {

class BSHandle;

class KEL_API Packet : public Refcounted {
public:
    enum Type {
        TypeAIFF = 0,
        TypeWAVE = 1,
        TypeAAC = 2,
        TypeMP3v1 = 3,  // MPEG-1 Layer III
        TypeMP3v2 = 4,  // MPEG-2 Layer III
        TypeMP3v25 = 5, // MPEG-2.5 Layer III
        TypeALAC = 6,
        TypeCAF = 7
    };

    // Number of cache values: eight (maximum, minimum) pairs.
    static constexpr int kWaveCacheValues = 16;

    // Retains handle; gain 1.0, no envelope, cache invalid.
    Packet(int bit_rate, float sample_rate, int format_value, int frame_count, BSHandle* handle);
    // Releases the handle and frees the envelope.
    ~Packet() override;

    virtual Type type() const = 0;
    // Reads the stored bytes into dest; gain -1.0 means "apply the packet's
    // own gain and envelope" where a format applies gain to bytes (the
    // base ignores gain). Returns the byte count.
    virtual int get_bytes(void* dest, float gain);
    virtual int get_bytes_with_gain_and_envelope(void* dest);
    virtual int disk_frame_count();
    // The gain the format can really store (stepped formats round it).
    virtual float quantized_gain();
    // The gain to store so that decoding and saving apply the achievable
    // gain nearest to `wanted` (in decibels). Formats without steps store
    // the wish itself.
    virtual float storable_gain(float wanted);
    // A new packet of the same class sharing the handle, with gain,
    // envelope and cache copied; null on failure.
    virtual Packet* copy() = 0;

    // Computes the extremes of one decoded packet. channels holds left and
    // right (a mono packet passes one buffer twice). With cache null the
    // packet's own cache and rms are filled and become valid; otherwise
    // only the 16 floats at cache are written.
    void make_wave_cache(float** channels, int frames, float* cache);
    void get_wave_cache(float* out16) const;
    void get_wave_cache_raw(float* out16) const;
    void get_rms_cache(float* out) const;
    void get_rms_cache_raw(float* out) const;
    void get_max_sample_cache(float* out) const;

    // Multiplies factors (one per frame) into the envelope; a null factors
    // or a length other than frame_count removes the envelope.
    void gain_envelope(const float* factors, int frames);
    const float* gain_envelope(int& frames) const;
    // Scales the first frames samples of both channels by the envelope.
    void apply_gain_envelope(float** channels, int frames) const;
    // Takes over gain, cache and envelope state from another packet.
    void copy_packet_data(const Packet* from);

    BSHandle* handle;
    int bit_rate;
    float sample_rate;
    int format_value;
    int frame_count;
    int wave_cache_valid = 0;
    float wave_cache[kWaveCacheValues] = {};
    float gain = 1.0f;
    float rms = 0.0f;
    float* envelope = nullptr;

protected:
    // Shared by the format packets' copy(): copies gain, envelope and cache
    // into a fresh packet of the same class.
    void copy_state_to(Packet* to) const;
};

} // namespace KEL

#endif
