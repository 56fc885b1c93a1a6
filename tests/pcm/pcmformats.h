// What the WAVE, AIFF and CAF tests run over: one descriptor per format
// with its file layout (chunk framing, canonical header, hand-made files
// with one fault each and unusual layouts that must open), the peer tools'
// options for it, and adaptors to its clip and packet classes; and the
// rules for a stored sample under gain and envelope, worked out here.
#ifndef KEL_TESTS_PCM_PCMFORMATS_H
#define KEL_TESTS_PCM_PCMFORMATS_H

#include "common/oracle.h"
#include "core/bshandlemem.h"
#include "core/packet.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace KEL {
namespace test {

// One chunk of a container: its id and its body (without a pad byte).
struct Chunk {
    std::string id;
    Bytes body;
};

// A hand-made file with bytes replaced at some places, and the code that
// opening it must give (in_headers: file_info finds the fault too).
struct Patch {
    size_t at;
    Bytes bytes;
};
struct Fault {
    const char* what;
    Bytes file;
    int code;
    bool in_headers = true;
};
Bytes patched(Bytes file, const std::vector<Patch>& patches);

// An unusual file that must open as one packet of these samples; resaves:
// saving it gives the format's canonical three-frame file.
struct Layout {
    const char* what;
    Bytes file;
    std::vector<float> left, right;
    int channels;
    bool resaves;
};

struct PcmFormat {
    const char* name;
    int format;      // KEL_FORMAT_*
    int packet_type; // Packet::Type*
    const char* extension;
    int header_bytes;      // of the files KEL writes
    long long read_limit;  // files of this size are refused; 0: none
    std::vector<int> widths;
    bool hands_out_big;    // byte order of the packets' get_bytes
    // ffmpeg: the muxer options, the codec of each width, a codec whose
    // stored order is not the handed-out one, the codecs of saved files,
    // codecs KEL refuses.
    std::vector<std::string> muxer;
    const char* codec16;
    const char* codec24;
    const char* swapped16;
    const char* saved16;
    const char* saved24;
    std::vector<std::string> refused;
    // Chunk framing: file header bytes before the first chunk, size field
    // width, big-endian sizes, pad byte after odd chunks.
    const char* magic;
    int size_bytes;
    bool big_sizes;
    bool padded;
    const char* format_chunk;
    const char* data_chunk;
    // The canonical three frames of 16-bit stereo at 44100 Hz as KEL writes
    // them: -32768/32767, 16384/-16384, 1/-1.
    Bytes canonical;
    std::vector<Fault> faults;
    std::vector<Layout> layouts;

    // frames of pattern() as 16-bit stereo at 44100 Hz, the data claiming
    // claimed bytes; little picks the other stored order where the format
    // has one (AIFF-C "sowt", little-endian CAF).
    Bytes (*stereo16)(int frames, uint32_t claimed, bool little);
    // The header KEL writes for frames of the given shape and extra bytes.
    Bytes (*header)(int channels, int bits, int rate, uint32_t frames, uint32_t extra);
    // A valid file with chunks around the data, and how many bytes lead
    // up to the first sample.
    Bytes (*damage_base)(size_t& header_bytes);
    // Extra chunks around the data chunk of a peer tool's file.
    void (*splice)(std::vector<Chunk>& chunks);

    int (*detect)(const char* path);
    Clip* (*open)(const char* path, int* err, _kel_progress_ext_t* progress);
    Clip* (*create_empty)(int channels, float rate, int bits, int* err);
    // A 16-bit stereo packet at 44100 Hz over handle (frames on disk too).
    Packet* (*make_packet)(int frames, BSHandle* handle);
};

extern const PcmFormat kWave, kAiff, kCaf;

// Splits a container into its form type and chunks (a chunk cut off by the
// end of the file keeps the bytes present), and builds one back with the
// right sizes.
bool parse_chunks(const PcmFormat& f, const Bytes& file, std::string& form, std::vector<Chunk>& chunks);
Bytes build_chunks(const PcmFormat& f, const std::string& form, const std::vector<Chunk>& chunks);
int find_chunk(const std::vector<Chunk>& chunks, const std::string& id);

// 16-bit sample of frame i, channel c, covering the whole range.
int16_t pattern(int i, int c);

// A stored sample after a gain and an optional envelope factor. 16 bit:
// single-precision products, clamped, truncated toward zero. 24 bit: the
// same on the sample times 256, then the low byte dropped, which floors.
int32_t scaled(int32_t s, int bits, float gain, const float* envelope = nullptr);
// A float sample as the 16-bit integer the encoders store.
int16_t to16(float x);

// Packet gains and envelopes set on a clip; index -1 is the last packet.
struct GainPlan {
    std::vector<float> gains;
    std::vector<std::vector<float>> envelopes; // empty for none
};
GainPlan apply_plan(Clip& clip, const std::vector<std::pair<int, float>>& gains, const std::vector<int>& falling);
// The stored integers after the plan, frame-interleaved; 1024-frame packets.
std::vector<int32_t> predict(const std::vector<int32_t>& original, int channels, int bits, const GainPlan& plan);


// Progress reports; a cancel after cancel_after of them; the header of
// watched, which must still be all zero while the audio is written.
struct Reports {
    std::vector<float> values;
    int cancel_after = -1;
    std::string watched; // a file whose header must still be zero
    int header_bytes = 0, looked = 0;
    bool nonzero = false;
    static int record(void* context, float percent)
    {
        auto* r = static_cast<Reports*>(context);
        r->values.push_back(percent);
        if (!r->watched.empty()) {
            const Bytes now = read_file(r->watched);
            if (now.size() >= static_cast<size_t>(r->header_bytes)) {
                ++r->looked;
                r->nonzero = r->nonzero || std::any_of(now.begin(), now.begin() + r->header_bytes,
                                                       [](unsigned char b) { return b != 0; });
            }
        }
        return r->cancel_after < 0 || static_cast<int>(r->values.size()) <= r->cancel_after;
    }
};

// The suite's base: a private folder, the peer tools, and the format's
// files made by them.
class PcmFormatTest : public ::testing::TestWithParam<const PcmFormat*> {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(work.root().empty());
        ASSERT_EQ(run_tool({"sox", "--version"}), 0) << "sox is required";
        kel_set_raw_packet_size(0);
    }
    void TearDown() override { kel_set_raw_packet_size(0); }

    const PcmFormat& fmt() const { return *GetParam(); }
    std::string path(const std::string& name) const { return work.path(name + fmt().extension); }
    std::string put(const std::string& name, const Bytes& bytes)
    {
        write_file(path(name), bytes);
        return path(name);
    }
    // An ffmpeg tone of the channels (each its own expression, the first
    // one clipping); piped writes through standard output.
    std::string ffmpeg_file(const std::string& name, int channels, int rate, const char* seconds, const char* codec,
                            const std::vector<std::string>& more = {}, bool piped = false)
    {
        static const char* const kExprs[] = {"1.2*sin(2*PI*440*t)", "0.5*sin(2*PI*223*t+1)", "-0.5"};
        std::string exprs = "'" + std::string(kExprs[0]) + "'";
        for (int c = 1; c < channels; ++c)
            exprs += "|'" + std::string(kExprs[c]) + "'";
        std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                         "aevalsrc=exprs=" + exprs + ":s=" + std::to_string(rate) + ":d=" + seconds,
                                         "-c:a", codec};
        argv.insert(argv.end(), more.begin(), more.end());
        argv.insert(argv.end(), fmt().muxer.begin(), fmt().muxer.end());
        argv.push_back(piped ? "pipe:1" : path(name));
        EXPECT_EQ(run_tool(argv, piped ? path(name) : std::string()), 0) << name;
        return path(name);
    }
    std::string sox_file(const std::string& name, const char* type, int rate, int bits, int channels)
    {
        EXPECT_EQ(run_tool({"sox", "-n", "-r", std::to_string(rate), "-b", std::to_string(bits), "-c",
                            std::to_string(channels), "-t", type, path(name), "synth", "0.1", "sine", "300", "sine",
                            "470", "gain", "2"}),
                  0)
            << name;
        return path(name);
    }
    template <typename Edit>
    std::string respliced(const std::string& from, const std::string& name, Edit edit)
    {
        std::string form;
        std::vector<Chunk> chunks;
        EXPECT_TRUE(parse_chunks(fmt(), read_file(from), form, chunks)) << from;
        edit(chunks);
        return put(name, build_chunks(fmt(), form, chunks));
    }
    // Packets of the given sizes over memory that claims bytes but holds
    // none, so that only the sizes can decide.
    ClipPtr claiming_clip(int bytes_each, int frames_each)
    {
        int err = 0;
        ClipPtr clip(fmt().create_empty(2, 44100.0f, 16, &err));
        for (int i = 0; i < 2; ++i) {
            auto* h = new BSHandleMem(bytes_each);
            Packet* p = fmt().make_packet(frames_each, h);
            clip->add_packet(p);
            p->release();
            h->release();
        }
        return clip;
    }

    TempDir work;
};

} // namespace test
} // namespace KEL

#endif
