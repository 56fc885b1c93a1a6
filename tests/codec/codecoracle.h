// Helpers for the codec-component tests: generated PCM, reference streams
// made by the ffmpeg program, FFmpeg's own decoding of packets as the
// reference, and thin wrappers over the layer's functions.
#ifndef KEL_TESTS_CODEC_CODECORACLE_H
#define KEL_TESTS_CODEC_CODECORACLE_H

#include "codec/codectypes.h"
#include "codec/component.h"
#include "common/oracle.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KEL {
namespace test {

// Interleaved integer samples of the given width.
struct Pcm {
    int channels = 0;
    int bits = 0;
    int rate = 0;
    std::vector<int32_t> samples;
    size_t frames() const { return samples.size() / static_cast<size_t>(channels); }
};

// A different tone per channel plus noise (noise_share of full scale 0..1),
// with a full-scale positive and negative sample early on. Deterministic.
Pcm make_pcm(int channels, int bits, int rate, size_t frames, double noise_share, uint32_t seed);
// The samples as interleaved big-endian bytes.
Bytes big_endian_bytes(const Pcm& pcm, size_t first_frame, size_t frames);

// The pcm encoded by ffmpeg with the codec options; its packets as ffprobe
// demuxes them.
struct Stream {
    int codec_id = 0;
    int channels = 0;
    int rate = 0;
    Bytes extradata;
    std::vector<Bytes> packets;
};
Stream encoded_by_ffmpeg(const std::string& name, const Pcm& pcm, const std::vector<std::string>& codec,
                         const char* extension);

// FFmpeg's decoding of the stream's packets, with the stream's extradata,
// as interleaved floats (integer samples s of b bits as s / 2^(b-1)).
std::vector<float> reference_decode(const Stream& stream);

// Instances closed on destruction.
struct InstanceCloser {
    void operator()(ComponentInstanceRecord* instance) const { close_component(instance); }
};
using Instance = std::unique_ptr<ComponentInstanceRecord, InstanceCloser>;
Instance open_codec(int32_t type, int32_t subtype);

AudioStreamBasicDescription compressed(int32_t format, uint32_t flags, uint32_t frames_per_packet, int channels,
                                       int rate);
AudioStreamBasicDescription pcm_float(int channels, int rate);
AudioStreamBasicDescription pcm_int(int channels, int rate, int bits);

// Appends one packet (one description covering all bytes).
int append_packet(ComponentInstanceRecord* codec, const Bytes& packet);
// One produce call into a buffer of capacity bytes; the bytes written are
// appended to out.
int produce(ComponentInstanceRecord* codec, uint32_t capacity, Bytes& out, uint32_t& status,
            uint32_t* packets = nullptr);

std::vector<float> be_floats(const Bytes& bytes);
std::vector<int32_t> be_ints(const Bytes& bytes, int bits);

// Everything written to standard error (the file descriptor) while the
// object lives.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string finish();

private:
    int saved_ = -1;
    std::string file_;
};

} // namespace test
} // namespace KEL

#endif
