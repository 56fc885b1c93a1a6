// The encoder components: AAC priming, packet timing, drain and properties;
// Apple Lossless round trips through the layer's own decoder and through
// FFmpeg's.
#include "codecoracle.h"

#include "codec/componentinstancerecord.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

namespace KEL {
namespace test {
namespace {

uint32_t get_u32(ComponentInstanceRecord* codec, int32_t property, int* err)
{
    uint32_t value = 0;
    uint32_t size = sizeof value;
    *err = audio_codec_get_property(codec, property, &size, &value);
    return value;
}

AudioStreamBasicDescription get_format(ComponentInstanceRecord* codec)
{
    AudioStreamBasicDescription d{};
    uint32_t size = sizeof d;
    EXPECT_EQ(audio_codec_get_property(codec, kPropertyOutputFormat, &size, &d), 0);
    return d;
}

// Channel c of frame n: a tone under white noise, different per channel.
std::vector<float> signal(int channels, size_t frames, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-0.3f, 0.3f);
    std::vector<float> x(frames * static_cast<size_t>(channels));
    for (size_t n = 0; n < frames; ++n)
        for (int c = 0; c < channels; ++c)
            x[n * channels + c] = 0.25f * std::sin(0.05f * (c + 1) * static_cast<float>(n)) + noise(random);
    return x;
}

Bytes float_bytes(const std::vector<float>& x, size_t first, size_t count)
{
    Bytes b;
    for (size_t i = first; i < first + count; ++i) {
        uint32_t u;
        std::memcpy(&u, &x[i], 4);
        for (int k = 3; k >= 0; --k)
            b.push_back(static_cast<uint8_t>(u >> (8 * k)));
    }
    return b;
}

int append_pcm(ComponentInstanceRecord* codec, const Bytes& pcm, uint32_t* frames_taken = nullptr)
{
    uint32_t bytes = static_cast<uint32_t>(pcm.size());
    uint32_t packets = 1;
    const int err = audio_codec_append_input_data(codec, pcm.data(), &bytes, &packets, nullptr);
    if (frames_taken != nullptr)
        *frames_taken = packets;
    return err;
}

// Encodes blocks of 1024 frames, one produce per block, then drains.
// Records each call's status and packet.
struct Encoded {
    std::vector<Bytes> packets;
    std::vector<uint32_t> block_status, drain_status;
};

Encoded encode_aac(ComponentInstanceRecord* codec, const std::vector<float>& x, int channels, uint32_t capacity)
{
    Encoded e;
    const size_t block = 1024 * static_cast<size_t>(channels);
    for (size_t at = 0; at + block <= x.size(); at += block) {
        EXPECT_EQ(append_pcm(codec, float_bytes(x, at, block)), 0);
        Bytes packet;
        uint32_t status = 0;
        EXPECT_EQ(produce(codec, capacity, packet, status), 0);
        e.block_status.push_back(status);
        if (!packet.empty())
            e.packets.push_back(packet);
    }
    for (int guard = 0; guard < 10; ++guard) {
        Bytes packet;
        uint32_t status = 0;
        EXPECT_EQ(produce(codec, capacity, packet, status), 0);
        e.drain_status.push_back(status);
        if (packet.empty())
            break;
        e.packets.push_back(packet);
    }
    return e;
}

Instance aac_encoder(int channels, uint32_t bit_rate, uint32_t* capacity)
{
    Instance codec = open_codec(kComponentEncoder, kFormatAAC);
    EXPECT_TRUE(codec);
    int err = 0;
    EXPECT_EQ(audio_codec_set_property(codec.get(), kPropertyBitRate, 4, &bit_rate), 0);
    EXPECT_EQ(get_u32(codec.get(), kPropertyMaximumPacketSize, &err), 0u);
    EXPECT_EQ(err, kCodecErrState); // known only once initialized
    // As the clips build the output description: "ofmt" completed with the
    // rate and the channels.
    AudioStreamBasicDescription out = get_format(codec.get());
    EXPECT_EQ(out.format_id, kFormatAAC);
    EXPECT_EQ(out.frames_per_packet, 1024u);
    out.sample_rate = 44100;
    out.channels_per_frame = static_cast<uint32_t>(channels);
    const AudioStreamBasicDescription in = pcm_float(channels, 44100);
    EXPECT_EQ(audio_codec_initialize(codec.get(), &in, &out, nullptr, 0), 0);
    *capacity = get_u32(codec.get(), kPropertyMaximumPacketSize, &err);
    EXPECT_EQ(err, 0);
    return codec;
}

TEST(CodecEncoderAAC, PrimingFirstPacketAndDrain)
{
    for (int channels : {1, 2}) {
        uint32_t capacity = 0;
        Instance codec = aac_encoder(channels, 64000u * channels, &capacity);
        ASSERT_TRUE(codec);
        // Any legal access unit (6144 bits per channel) fits.
        EXPECT_GE(capacity, 768u * channels);
        const AudioStreamBasicDescription format = get_format(codec.get());
        EXPECT_EQ(format.sample_rate, 44100.0);
        EXPECT_EQ(format.channels_per_frame, static_cast<uint32_t>(channels));
        EXPECT_EQ(format.frames_per_packet, 1024u);

        const size_t blocks = 20;
        const std::vector<float> x = signal(channels, blocks * 1024, 11);
        const Encoded e = encode_aac(codec.get(), x, channels, capacity);
        // No packet for the first block, one for each later block, then the
        // drain gives the rest: 1024 frames of priming make (N + 1024) / 1024.
        ASSERT_EQ(e.block_status.size(), blocks);
        EXPECT_EQ(e.block_status[0], kProduceNeedsInput);
        for (size_t k = 1; k < blocks; ++k)
            EXPECT_EQ(e.block_status[k], kProduceOutput) << "block " << k;
        EXPECT_EQ(e.packets.size(), blocks + 1);
        const std::vector<uint32_t> drain = {kProduceOutputMore, kProduceOutput, kProduceNeedsInput};
        EXPECT_EQ(e.drain_status, drain);
        for (const Bytes& p : e.packets)
            EXPECT_LE(p.size(), capacity);
        EXPECT_NE(append_pcm(codec.get(), float_bytes(x, 0, 1024 * channels)), 0); // ended: reset first

        // Decoded, the output is the input 1024 frames later.
        Instance decoder = open_codec(kComponentDecoder, kFormatAAC);
        const AudioStreamBasicDescription in = compressed(kFormatAAC, 0, 1024, channels, 44100);
        const AudioStreamBasicDescription out = pcm_float(channels, 44100);
        ASSERT_EQ(audio_codec_initialize(decoder.get(), &in, &out, nullptr, 0), 0);
        Bytes pcm;
        for (const Bytes& p : e.packets) {
            uint32_t status = 0;
            ASSERT_EQ(append_packet(decoder.get(), p), 0);
            ASSERT_EQ(produce(decoder.get(), 1024 * 4 * channels, pcm, status), 0);
        }
        const std::vector<float> y = be_floats(pcm);
        ASSERT_EQ(y.size(), (blocks + 1) * 1024 * channels);
        int best = -1;
        double best_sum = 0.0;
        for (int lag = 0; lag <= 2048; ++lag) {
            double sum = 0.0;
            for (size_t n = 0; n < 16384; ++n)
                sum += static_cast<double>(x[n * channels]) * y[(n + lag) * channels];
            if (sum > best_sum) {
                best_sum = sum;
                best = lag;
            }
        }
        EXPECT_EQ(best, 1024) << channels << " channels";
    }
}

TEST(CodecEncoderAAC, BitRateAndReset)
{
    const std::vector<float> x = signal(2, 200 * 1024, 5);
    double rates[2] = {0.0, 0.0};
    const uint32_t asked[2] = {64000, 192000};
    for (int k = 0; k < 2; ++k) {
        uint32_t capacity = 0;
        Instance codec = aac_encoder(2, asked[k], &capacity);
        int err = 0;
        EXPECT_EQ(get_u32(codec.get(), kPropertyBitRate, &err), asked[k]);
        const Encoded e = encode_aac(codec.get(), x, 2, capacity);
        double bytes = 0.0;
        for (const Bytes& p : e.packets)
            bytes += static_cast<double>(p.size());
        rates[k] = bytes * 8.0 * 44100.0 / (1024.0 * static_cast<double>(e.packets.size()));
        EXPECT_NEAR(rates[k], asked[k], asked[k] * 0.25) << "asked " << asked[k];

        // After a reset the same input gives the same packets again.
        if (k == 0) {
            const std::vector<float> part(x.begin(), x.begin() + 2 * 1024 * 6);
            ASSERT_EQ(audio_codec_reset(codec.get()), 0);
            const Encoded again = encode_aac(codec.get(), part, 2, capacity);
            uint32_t fresh_capacity = 0;
            Instance fresh = aac_encoder(2, asked[k], &fresh_capacity);
            const Encoded want = encode_aac(fresh.get(), part, 2, fresh_capacity);
            EXPECT_EQ(again.packets, want.packets);
            EXPECT_EQ(again.packets.size(), 7u);
        }
    }
    EXPECT_GT(rates[1], 2.0 * rates[0]);
}

struct ALACCase {
    int channels;
    int bits;
    uint32_t frames;
};

class CodecEncoderALACRoundTrip : public ::testing::TestWithParam<ALACCase> {};

TEST_P(CodecEncoderALACRoundTrip, DecodesToTheInputExactly)
{
    const ALACCase c = GetParam();
    const int rate = 44100;
    Instance encoder = open_codec(kComponentEncoder, kFormatALAC);
    ASSERT_TRUE(encoder);
    const uint32_t flags = c.bits == 16 ? 1 : 3;
    const AudioStreamBasicDescription in = pcm_int(c.channels, rate, c.bits);
    const AudioStreamBasicDescription out = compressed(kFormatALAC, flags, c.frames, c.channels, rate);
    ASSERT_EQ(audio_codec_initialize(encoder.get(), &in, &out, nullptr, 0), 0);
    int err = 0;
    const uint32_t capacity = get_u32(encoder.get(), kPropertyMaximumPacketSize, &err);
    ASSERT_EQ(err, 0);
    Bytes cookie(512);
    uint32_t cookie_size = 512;
    ASSERT_EQ(audio_codec_get_property(encoder.get(), kPropertyMagicCookie, &cookie_size, cookie.data()), 0);
    ASSERT_EQ(cookie_size, 48u);
    cookie.resize(cookie_size);
    EXPECT_EQ(cookie[29], c.bits);
    EXPECT_EQ(cookie[30], 40);
    EXPECT_EQ(cookie[33], c.channels);
    EXPECT_EQ((cookie[26] << 8) | cookie[27], static_cast<int>(c.frames));

    // Three tonal blocks that compress, three of full-scale noise that do not
    // (written uncompressed), and a partial block.
    const size_t blocks = 6;
    Pcm pcm = make_pcm(c.channels, c.bits, rate, blocks * c.frames + 123, 0.02, 3);
    const Pcm noise = make_pcm(c.channels, c.bits, rate, blocks * c.frames + 123, 1.0, 4);
    const size_t half = 3 * c.frames * static_cast<size_t>(c.channels);
    std::copy(noise.samples.begin() + static_cast<std::ptrdiff_t>(half), noise.samples.end(),
              pcm.samples.begin() + static_cast<std::ptrdiff_t>(half));

    Instance decoder = open_codec(kComponentDecoder, kFormatALAC);
    const AudioStreamBasicDescription pcm_out = pcm_int(c.channels, rate, c.bits);
    ASSERT_EQ(audio_codec_initialize(decoder.get(), &out, &pcm_out, cookie.data(), cookie_size), 0);
    Stream stream;
    stream.codec_id = AV_CODEC_ID_ALAC;
    stream.channels = c.channels;
    stream.rate = rate;
    stream.extradata.assign(cookie.begin() + 12, cookie.end());

    const size_t frame_bytes = static_cast<size_t>(c.channels * c.bits / 8);
    for (size_t k = 0; k < blocks; ++k) {
        ASSERT_EQ(audio_codec_reset(encoder.get()), 0); // as the clips do before every packet
        uint32_t taken = 0;
        ASSERT_EQ(append_pcm(encoder.get(), big_endian_bytes(pcm, k * c.frames, c.frames), &taken), 0);
        EXPECT_EQ(taken, c.frames);
        Bytes packet;
        uint32_t status = 0;
        uint32_t packets = 0;
        ASSERT_EQ(produce(encoder.get(), capacity, packet, status, &packets), 0);
        EXPECT_EQ(status, kProduceOutput);
        ASSERT_EQ(packets, 1u);
        EXPECT_LE(packet.size(), capacity);
        if (k >= 3)
            EXPECT_GT(packet.size(), c.frames * frame_bytes) << "noise is stored uncompressed";
        else
            EXPECT_LT(packet.size(), c.frames * frame_bytes) << "a tone compresses";
        stream.packets.push_back(packet);

        Bytes decoded;
        ASSERT_EQ(append_packet(decoder.get(), packet), 0);
        ASSERT_EQ(produce(decoder.get(), static_cast<uint32_t>(4096 * frame_bytes), decoded, status), 0);
        const std::ptrdiff_t begin = static_cast<std::ptrdiff_t>(k * c.frames * c.channels);
        const std::ptrdiff_t end = begin + static_cast<std::ptrdiff_t>(c.frames * c.channels);
        const std::vector<int32_t> want(pcm.samples.begin() + begin, pcm.samples.begin() + end);
        EXPECT_EQ(be_ints(decoded, c.bits), want) << "block " << k;
    }
    // A partial block waits for more input.
    Bytes none;
    uint32_t status = 0;
    ASSERT_EQ(append_pcm(encoder.get(), big_endian_bytes(pcm, blocks * c.frames, 123)), 0);
    EXPECT_EQ(produce(encoder.get(), capacity, none, status), 0);
    EXPECT_EQ(status, kProduceNeedsInput);
    EXPECT_TRUE(none.empty());

    // FFmpeg's decoder reads the packets too.
    const std::vector<float> reference = reference_decode(stream);
    ASSERT_EQ(reference.size(), blocks * c.frames * c.channels);
    for (size_t i = 0; i < reference.size(); ++i)
        ASSERT_EQ(reference[i], static_cast<float>(std::ldexp(pcm.samples[i], 1 - c.bits))) << "sample " << i;
}

INSTANTIATE_TEST_SUITE_P(Layouts, CodecEncoderALACRoundTrip,
                         ::testing::Values(ALACCase{1, 16, 4096}, ALACCase{2, 16, 4096}, ALACCase{1, 24, 4096},
                                           ALACCase{2, 24, 4096}, ALACCase{2, 16, 1000}, ALACCase{1, 24, 1000}),
                         [](const ::testing::TestParamInfo<ALACCase>& info) {
                             return std::to_string(info.param.channels) + "ch_" + std::to_string(info.param.bits) +
                                    "bit_" + std::to_string(info.param.frames);
                         });

} // namespace
} // namespace test
} // namespace KEL
