// The per-packet work the PCM formats (WAVE, AIFF, CAF) share: scaling the
// stored integer bytes by a gain or a gain and envelope, decoding a packet
// into the two float channel arrays, and turning one encoder packet's worth
// of float frames into integer bytes.
//
// The formats differ only in the byte order of the bytes involved, which
// every call names through a PcmLayout. For the packet operations that is the
// order of the bytes a packet's get_bytes hands out (WAVE and CAF: little,
// AIFF: big); for the encoder it is the order the new packets store.
#ifndef KEL_PCM_PCMCODEC_H
#define KEL_PCM_PCMCODEC_H

#include "kel.h"

namespace KEL {

class ClipEncoder;
class Packet;

enum class PcmByteOrder { little, big };

struct PcmLayout {
    int bits;           // 16 or 24; other widths are refused where they matter
    int channels;       // samples stored per frame
    PcmByteOrder order; // byte order of the integer samples

    // Bytes per stored frame; 0 for an unusable layout.
    int frame_bytes() const;
};

// The integer part of value, saturated to the int range (NaN gives 0). Bit
// rates and header fields computed in floating point go through here.
KEL_API int pcm_truncate_to_int(double value);

// Scales count bytes of samples in place by gain. Nothing happens for a
// gain of exactly 1.0 or a width other than 16 or 24 bits.
KEL_API void pcm_apply_gain(unsigned char* bytes, int count, const PcmLayout& layout, float gain);

// The body of a PCM packet's get_bytes_with_gain_and_envelope: reads the
// packet's bytes at unity gain through its own get_bytes, then applies the
// packet's gain and envelope frame by frame. The frames scaled are those the
// bytes hold, at most the packet's frame count; the result is their byte
// count. Without an envelope the gain alone is applied.
KEL_API int pcm_bytes_with_gain_and_envelope(Packet& packet, void* dest, const PcmLayout& layout);

// The body of a PCM packet's decode: reads the bytes through the packet's
// get_bytes (gain passed on; negative means the packet's own gain), converts
// disk_frames frames into out[0] and out[1] and applies the packet's
// envelope. When the packet reports more frames than it stores, the arrays
// are zeroed for the full frame count first, so the tail decodes as silence.
// Returns the packet's frame count; 0 without an error when the bytes cannot
// all be read; 0 and "EILC" for an unsupported width. out[0] and out[1] must
// hold the packet's frame count.
KEL_API int pcm_decode_packet(Packet& packet, const PcmLayout& layout, int disk_frames, float** out, int* err,
                              float gain);

// Writes frames float frames as interleaved integers of the layout's width
// and byte order (one channel: src[0] only; otherwise src[0] and src[1]
// alternately). Returns frames * channels * bytes per sample, the count the
// encoders report, or 0 for an unsupported width.
KEL_API int pcm_write_frames(float** src, unsigned char* dst, int frames, const PcmLayout& layout);

// The scratch a PCM encoder of packet_frames frames keeps: frames[0] and
// frames[1] get zeroed arrays of packet_frames floats, and the result is a
// zeroed buffer of packet_frames * channels * 4 bytes (enough for either
// width; zeroed because for more than two channels the kernels write only
// two channels' worth). Null when the sizes are unusable or memory is
// short; whatever was allocated is the caller's to free in every case.
KEL_API unsigned char* pcm_encoder_buffers(int packet_frames, int channels, float** frames);

// The body of a PCM encoder's packet_encode: asks the encoder base for
// packet_frames frames at sample_rate into scratch[0] and scratch[1], then
// converts them into buffer (which stays the encoder's). Returns buffer with
// the byte count set; null without an error when no frames are left; null
// with "Eenc" when a partial packet arrives; null with "Ecod" when buffer or
// scratch is missing.
KEL_API const void* pcm_encode_packet(ClipEncoder& encoder, float** scratch, unsigned char* buffer,
                                      int packet_frames, float sample_rate, const PcmLayout& layout,
                                      int* byte_count, bool flush, int* err);

} // namespace KEL

#endif
