// What the WAVE, AIFF and CAF tests share: a fixture with a private folder
// and the peer tools, the check that a peer tool's file decodes exactly as
// ffmpeg decodes it, the rule for a stored sample under gain and envelope,
// and the sweep of damaged files.
#ifndef KEL_TESTS_PCM_PCMCASES_H
#define KEL_TESTS_PCM_PCMCASES_H

#include "core/packet.h"
#include "oracle.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace KEL {
namespace test {

class PcmFiles : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::string path(const std::string& name) const { return work.path(name); }
    std::string put(const std::string& name, const Bytes& bytes);
    // An ffmpeg sine source, one expression per channel; piped sends the
    // output through standard output (CAF then has a "data" of unknown size).
    std::string ffmpeg_file(const std::string& name, const std::string& exprs, int rate, const char* seconds,
                            const char* codec, const std::vector<std::string>& more = {}, bool piped = false);
    Decoded ffmpeg_samples(const std::string& file);

    TempDir work;
};

// A file a peer tool wrote (or one spliced from it) and what ffmpeg makes
// of oracle.
struct PeerSource {
    const char* what;
    std::string file, oracle;
    int channels, bits, rate;
};

// Opens src.file and checks the clip and the file information against the
// source and every decoded sample, bit for bit, against ffmpeg's decode of
// src.oracle; packets hold 1024 frames, the last one padded with silence.
void expect_decodes_as_ffmpeg(const PeerSource& src, int format, int packet_type, const std::string& scratch);

// A stored sample after a gain and an optional envelope factor. 16 bit:
// single-precision products, clamped, truncated toward zero. 24 bit: the
// same on the sample times 256, then the low byte dropped, which floors.
int32_t scaled(int32_t s, int bits, float gain, const float* envelope = nullptr);

// Packet gains and envelopes set on a clip; index -1 is the last packet.
struct GainPlan {
    std::vector<float> gains;                  // per packet
    std::vector<std::vector<float>> envelopes; // per packet, empty for none
};
GainPlan apply_plan(Clip& clip, const std::vector<std::pair<int, float>>& gains,
                    const std::vector<int>& falling_envelopes);
// The stored integers after the plan, frame-interleaved; 1024-frame packets.
std::vector<int32_t> predict(const std::vector<int32_t>& original, int channels, int bits, const GainPlan& plan);

// After saving: the reopened file has the clip's packets and decodes to
// ffmpeg's decode of it.
void expect_reopens_as(const std::string& file, const Clip& clip, const Decoded& saved);

// 16-bit sample of frame i, channel c, covering the whole range.
int16_t pattern(int i, int c);
// The decoded clip holds frames of pattern() and then silence, total frames
// in all.
void expect_pattern(const Samples& s, int frames, int total);

// The largest magnitude among the decoded samples of both channels.
float largest(const Samples& s);

// Writes every prefix (up to 512 bytes), the file less 1 to 16 bytes, and
// 3000 seeded variants with 1 to 4 random bytes in the first header_bytes,
// into file: each must be refused with a code or open as a clip whose
// packets all decode within bounds.
void expect_damage_handled(const Bytes& valid, size_t header_bytes, const std::string& file, unsigned seed);

} // namespace test
} // namespace KEL

#endif
