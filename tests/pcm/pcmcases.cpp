#include "pcmcases.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace KEL {
namespace test {

void PcmFiles::SetUp()
{
    ASSERT_FALSE(work.root().empty());
    ASSERT_TRUE(tool_runs("ffmpeg", "-version")) << "ffmpeg is required";
    ASSERT_TRUE(tool_runs("ffprobe", "-version")) << "ffprobe is required";
    ASSERT_TRUE(tool_runs("sox", "--version")) << "sox is required";
    kel_set_raw_packet_size(0);
}

void PcmFiles::TearDown()
{
    kel_set_raw_packet_size(0);
}

std::string PcmFiles::put(const std::string& name, const Bytes& bytes)
{
    write_file(path(name), bytes);
    return path(name);
}

std::string PcmFiles::ffmpeg_file(const std::string& name, const std::string& exprs, int rate, const char* seconds,
                                  const char* codec, const std::vector<std::string>& more, bool piped)
{
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                                     "aevalsrc=exprs=" + exprs + ":s=" + std::to_string(rate) + ":d=" + seconds,
                                     "-c:a", codec};
    argv.insert(argv.end(), more.begin(), more.end());
    argv.push_back(piped ? "pipe:1" : path(name));
    EXPECT_EQ(run_tool(argv, piped ? path(name) : std::string()), 0) << name;
    return path(name);
}

Decoded PcmFiles::ffmpeg_samples(const std::string& file)
{
    Decoded d;
    EXPECT_TRUE(ffmpeg_decode(file, d, work.root())) << file;
    return d;
}

void expect_decodes_as_ffmpeg(const PeerSource& src, int format, int packet_type, const std::string& scratch)
{
    SCOPED_TRACE(src.what);
    Decoded want;
    ASSERT_TRUE(ffmpeg_decode(src.oracle, want, scratch));
    ASSERT_EQ(want.channels, src.channels);
    const long long frames = static_cast<long long>(want.frames());
    ASSERT_GT(frames, 0);

    int err = -1;
    ClipPtr clip = open_clip(src.file, err);
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(clip);
    const long long packets = (frames + 1023) / 1024;
    ASSERT_EQ(clip->packet_count, packets);
    for (int i = 0; i < clip->packet_count; ++i) {
        EXPECT_EQ(clip->packet_frame_count(i, nullptr), 1024);
        EXPECT_EQ(clip->get_packet(i)->type(), packet_type);
    }
    EXPECT_EQ(clip->get_packet(clip->packet_count - 1)->disk_frame_count(), frames - (packets - 1) * 1024);

    std::vector<float> left, right;
    split(want, left, right);
    left.resize(static_cast<size_t>(packets) * 1024, 0.0f); // the silent tail
    right.resize(left.size(), 0.0f);
    const Samples got = decode_clip(*clip);
    EXPECT_TRUE(same_bits(got.left, left));
    EXPECT_TRUE(same_bits(got.right, right));

    // The clip's figures and the file's, read from the headers alone.
    _kel_clip_info_t info{}, file{};
    clip->get_info(&info);
    EXPECT_EQ(Clip::file_info(src.file.c_str(), &file, nullptr), 0);
    for (const _kel_clip_info_t& i : {info, file}) {
        EXPECT_EQ(i.format, format);
        EXPECT_EQ(i.channels, src.channels);
        EXPECT_EQ(i.bits_per_sample, src.bits);
    }
    EXPECT_EQ(info.sample_rate, static_cast<float>(src.rate));
    EXPECT_NEAR(file.duration, static_cast<double>(frames) / src.rate, 1e-6);
    EXPECT_NEAR(file.bit_rate, src.rate * src.channels * src.bits, 2);
}

int32_t scaled(int32_t s, int bits, float gain, const float* envelope)
{
    float v = static_cast<float>(s) * (bits == 16 ? 1.0f : 256.0f) * gain;
    if (envelope != nullptr)
        v = *envelope * v;
    if (bits == 16)
        return static_cast<int32_t>(std::min(std::max(v, -32768.0f), 32767.0f));
    const double d = std::min(std::max(static_cast<double>(v), -2147483648.0), 2147483647.0);
    return static_cast<int32_t>(std::floor(std::trunc(d) / 256.0));
}

GainPlan apply_plan(Clip& clip, const std::vector<std::pair<int, float>>& gains,
                    const std::vector<int>& falling_envelopes)
{
    GainPlan plan;
    plan.gains.assign(static_cast<size_t>(clip.packet_count), 1.0f);
    plan.envelopes.assign(static_cast<size_t>(clip.packet_count), {});
    const auto at = [&](int index) { return index < 0 ? clip.packet_count + index : index; };
    for (auto [index, gain] : gains) {
        clip.get_packet(at(index))->gain = gain;
        plan.gains[static_cast<size_t>(at(index))] = gain;
    }
    for (int index : falling_envelopes) {
        Packet* p = clip.get_packet(at(index));
        std::vector<float> ramp(static_cast<size_t>(p->frame_count));
        for (size_t k = 0; k < ramp.size(); ++k)
            ramp[k] = 1.0f - static_cast<float>(k) / static_cast<float>(ramp.size());
        p->gain_envelope(ramp.data(), p->frame_count);
        plan.envelopes[static_cast<size_t>(at(index))] = ramp;
    }
    return plan;
}

std::vector<int32_t> predict(const std::vector<int32_t>& original, int channels, int bits, const GainPlan& plan)
{
    std::vector<int32_t> out(original.size());
    for (size_t i = 0; i < original.size(); ++i) {
        const size_t frame = i / static_cast<size_t>(channels);
        const auto& envelope = plan.envelopes[frame / 1024];
        out[i] = scaled(original[i], bits, plan.gains[frame / 1024],
                        envelope.empty() ? nullptr : &envelope[frame % 1024]);
    }
    return out;
}

void expect_reopens_as(const std::string& file, const Clip& clip, const Decoded& saved)
{
    int err = 0;
    ClipPtr again = open_clip(file, err);
    ASSERT_TRUE(again);
    ASSERT_EQ(again->packet_count, clip.packet_count);
    for (int i = 0; i < clip.packet_count; ++i) {
        EXPECT_EQ(again->packet_frame_count(i, nullptr), 1024);
        EXPECT_EQ(again->get_packet(i)->disk_frame_count(), clip.get_packet(i)->disk_frame_count());
    }
    std::vector<float> left, right;
    split(saved, left, right);
    const Samples decoded = decode_clip(*again);
    EXPECT_TRUE(same_bits(decoded.left, left));
    EXPECT_TRUE(same_bits(decoded.right, right));
}

int16_t pattern(int i, int c)
{
    return static_cast<int16_t>(static_cast<uint16_t>(i * 977 + c * 12345));
}

void expect_pattern(const Samples& s, int frames, int total)
{
    std::vector<float> left(static_cast<size_t>(total), 0.0f), right(left);
    for (int i = 0; i < frames; ++i) {
        left[static_cast<size_t>(i)] = pattern(i, 0) / 32768.0f;
        right[static_cast<size_t>(i)] = pattern(i, 1) / 32768.0f;
    }
    EXPECT_EQ(s.left.size(), left.size());
    EXPECT_TRUE(same_bits(s.left, left));
    EXPECT_TRUE(same_bits(s.right, right));
}

float largest(const Samples& s)
{
    float m = 0.0f;
    for (size_t i = 0; i < s.left.size(); ++i)
        m = std::max({m, std::fabs(s.left[i]), std::fabs(s.right[i])});
    return m;
}

namespace {

void open_damaged(const std::string& file)
{
    int err = 0;
    ClipPtr clip = open_clip(file, err);
    if (!clip) {
        ASSERT_NE(err, 0);
        return;
    }
    ASSERT_EQ(err, 0);
    ASSERT_GT(clip->packet_count, 0);
    for (int i = 0; i < clip->packet_count; ++i) {
        const int n = clip->packet_frame_count(i, nullptr);
        std::vector<float> l(static_cast<size_t>(n)), r(static_cast<size_t>(n));
        float* out[2] = {l.data(), r.data()};
        const int got = clip->packet_decode_play(i, out, &err, -1.0f);
        ASSERT_TRUE(got == n || got == 0);
    }
}

} // namespace

void expect_damage_handled(const Bytes& valid, size_t header_bytes, const std::string& file, unsigned seed)
{
    write_file(file, valid);
    int err = 0;
    ASSERT_TRUE(open_clip(file, err)) << "the undamaged file must open";

    for (size_t n = 0; n <= std::min<size_t>(512, valid.size()); ++n) {
        write_file(file, Bytes(valid.begin(), valid.begin() + static_cast<long>(n)));
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "prefix " << n;
    }
    for (size_t cut = 1; cut <= 16; ++cut) {
        write_file(file, Bytes(valid.begin(), valid.end() - static_cast<long>(cut)));
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "minus " << cut;
    }
    std::mt19937 random(seed);
    std::uniform_int_distribution<size_t> where(0, header_bytes - 1);
    std::uniform_int_distribution<int> value(0, 255);
    std::uniform_int_distribution<int> how_many(1, 4);
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = valid;
        for (int k = how_many(random); k > 0; --k)
            damaged[where(random)] = static_cast<unsigned char>(value(random));
        write_file(file, damaged);
        ASSERT_NO_FATAL_FAILURE(open_damaged(file)) << "round " << round;
    }
}

} // namespace test
} // namespace KEL
