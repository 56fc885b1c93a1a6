// A test-only clip format whose packets hold known float samples, so that
// the core's pipelines can be checked before any real format exists.
// Packet bytes are interleaved two-channel 32-bit floats.
#ifndef KEL_TESTS_FAKEFORMAT_H
#define KEL_TESTS_FAKEFORMAT_H

#include "core/bshandlemem.h"
#include "core/clip.h"
#include "core/clipdecoder.h"
#include "core/clipencoder.h"
#include "core/packet.h"
#include "overview/overview.h"

#include <functional>
#include <memory>
#include <vector>

namespace KEL {
namespace test {

class FakePacket : public Packet {
public:
    FakePacket(float sample_rate, int frames, BSHandle* handle)
        : Packet(0, sample_rate, 0, frames, handle) {}
    Type type() const override { return TypeCAF; }
    Packet* copy() override;
    // With stepped_gain set the packet stores its gain only in steps of
    // 2^(1/4), like the global gain of the coded formats.
    float quantized_gain() override;

    bool stepped_gain = false;
    // Makes copy() fail, as a format packet does when it runs out of memory.
    bool refuse_copy = false;
};

class FakeClip : public Clip {
public:
    FakeClip(float sample_rate, int encoder_frames, BSFile* store)
        : Clip(2, sample_rate, 16, store), encoder_frames(encoder_frames) {}
    ~FakeClip() override { close(nullptr); }

    // Appends a packet holding the given left and right samples.
    void append(const std::vector<float>& left, const std::vector<float>& right);
    // Every packet decoded as it plays (its gain and envelope applied).
    struct Lanes {
        std::vector<float> left, right;
    };
    Lanes decode_all();

    int save_to(const char*, const void*, int, const void*, int, int* err, _kel_progress_ext_t*) override
    {
        *err = 0x456E6F74; // "Enot"
        return 0;
    }
    void get_info(_kel_clip_info_t* info) override;
    Overview* create_overview(_kel_overview_progress_t* progress) override;
    ClipDecoder* create_decoder() override;
    ClipEncoder* create_encoder(float source_rate) override;
    int packet_decode_play(int packet, float** buffers, int* err, float gain) override;
    bool will_accept(Clip* other, int* err) override;
    int fade_start_fudge_factor() override { return start_fudge; }
    int fade_length_fudge_factor() override { return length_fudge; }
    // New clips inherit the fudge factors.
    Clip* NewClip(BSFile* store) override;

    int encoder_frames;
    bool refuse_encoder = false;
    // Lets a test make chosen packets fail to decode with a chosen code.
    std::function<int(int packet)> decode_error;
    // Number of packet_decode_play calls so far (failed ones included).
    int decode_calls = 0;
    // Non-zero: will_accept refuses every clip with this code.
    int refuse_code = 0;
    int start_fudge = 0;
    int length_fudge = 0;
};

// A clip made by an edit of a fake clip; deleting it closes it.
using Owned = std::unique_ptr<Clip>;

class FakeDecoder : public ClipDecoder {
public:
    explicit FakeDecoder(FakeClip* clip) : clip_(clip) {}
    int packet_decode(int packet, float** channels, int* err, float gain) override
    {
        return clip_->packet_decode_play(packet, channels, err, gain);
    }

private:
    FakeClip* clip_;
};

class FakeOverview : public Overview {
public:
    FakeOverview(FakeClip* clip, _kel_overview_progress_t* progress) : Overview(clip, progress), clip_(clip) {}
    int packet_decode(int packet, float** out, int* err, float gain) override
    {
        return clip_->packet_decode_play(packet, out, err, gain);
    }

private:
    FakeClip* clip_;
};

class FakeEncoder : public ClipEncoder {
public:
    FakeEncoder(float source_rate, float rate, int frames)
        : ClipEncoder(source_rate), rate_(rate), frames_(frames) {}
    const void* packet_encode(int* size, bool flush, int* err) override;
    Packet* packet_with_storage(BSHandle* handle) override
    {
        return new FakePacket(rate_, handle->size / 8, handle);
    }

private:
    float rate_;
    int frames_;
    std::vector<float> bytes_;
};

} // namespace test
} // namespace KEL

#endif
