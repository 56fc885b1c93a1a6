// The decoder components: statuses, resets, the MP3 length check, the
// Apple Lossless cookie and hand-made uncompressed frames, on streams made
// by the ffmpeg program. (Every sample of the clips' decodes is compared
// with ffmpeg's in the MP3 and M4A tests.)
#include "codecoracle.h"

#include "codec/codecdecodermp3.h"
#include "codec/componentinstancerecord.h"
#include "codec/lpcmformat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace KEL {
namespace test {
namespace {

// The reference streams, made once for the whole program from 2.3 s of
// generated PCM.
const Stream& reference(const std::string& name)
{
    static std::map<std::string, Stream> made;
    auto found = made.find(name);
    if (found != made.end())
        return found->second;
    const bool mono = name == "mp3-mono-22k";
    const int rate = mono ? 22050 : 44100;
    const Pcm pcm = make_pcm(mono ? 1 : 2, 16, rate, static_cast<size_t>(rate * 23 / 10), 0.1,
                             static_cast<uint32_t>(name.size()));
    const bool mp3 = name.compare(0, 3, "mp3") == 0;
    const std::vector<std::string> codec = mp3 ? std::vector<std::string>{"-c:a", "libmp3lame", "-b:a", mono ? "48k" : "128k"}
                                               : std::vector<std::string>{"-c:a", "aac", "-b:a", "128k"};
    return made.emplace(name, encoded_by_ffmpeg(name, pcm, codec, mp3 ? "mp3" : "m4a")).first->second;
}

struct Case {
    const char* name;
    int32_t format;
    uint32_t flags;
    uint32_t frames_per_packet;
};

Instance decoder(const Case& c, const Stream& s, const AudioStreamBasicDescription& out)
{
    Instance codec = open_codec(kComponentDecoder, c.format);
    if (!codec)
        return codec;
    const AudioStreamBasicDescription in = compressed(c.format, c.flags, c.frames_per_packet, s.channels, s.rate);
    EXPECT_EQ(audio_codec_initialize(codec.get(), &in, &out, nullptr, 0), 0) << c.name;
    return codec;
}

// Packets first..last, one append and one produce each with room for one
// packet's frames; every produce must give output with status 2.
Bytes decode_range(ComponentInstanceRecord* codec, const Stream& s, size_t first, size_t last, uint32_t capacity)
{
    Bytes out;
    for (size_t i = first; i <= last && i < s.packets.size(); ++i) {
        EXPECT_EQ(append_packet(codec, s.packets[i]), 0) << "packet " << i;
        uint32_t status = 0;
        EXPECT_EQ(produce(codec, capacity, out, status), 0) << "packet " << i;
        EXPECT_EQ(status, kProduceOutput) << "packet " << i;
    }
    return out;
}

TEST(CodecDecoder, StatusesFollowTheBufferedAudio)
{
    const Case c{"aac-stereo", kFormatAAC, 0, 1024};
    const Stream& s = reference(c.name);
    Instance codec = decoder(c, s, pcm_float(2, s.rate));
    ASSERT_TRUE(codec);
    const std::vector<float> whole = be_floats(decode_range(decoder(c, s, pcm_float(2, s.rate)).get(), s, 0, 2, 8192));

    Bytes out;
    uint32_t status = 0;
    uint32_t frames = 0;
    EXPECT_EQ(produce(codec.get(), 8192, out, status, &frames), 0);
    EXPECT_EQ(status, kProduceNeedsInput);
    EXPECT_EQ(frames, 0u);
    EXPECT_TRUE(out.empty());

    // Three packets at once, taken out 1000 frames (8000 bytes) at a time:
    // 3072 frames come as 1000, 1000, 1000 with more to come, then 72.
    Bytes block;
    std::vector<AudioStreamPacketDescription> d;
    for (size_t i = 0; i < 3; ++i) {
        const uint32_t size = static_cast<uint32_t>(s.packets[i].size());
        d.push_back(AudioStreamPacketDescription{static_cast<int64_t>(block.size()), 0, size});
        block.insert(block.end(), s.packets[i].begin(), s.packets[i].end());
    }
    uint32_t bytes = static_cast<uint32_t>(block.size());
    uint32_t packets = 3;
    ASSERT_EQ(audio_codec_append_input_data(codec.get(), block.data(), &bytes, &packets, d.data()), 0);
    EXPECT_EQ(packets, 3u);
    const std::vector<uint32_t> want_status = {kProduceOutputMore, kProduceOutputMore, kProduceOutputMore,
                                               kProduceOutput};
    const std::vector<uint32_t> want_frames = {1000, 1000, 1000, 72};
    for (size_t k = 0; k < want_status.size(); ++k) {
        EXPECT_EQ(produce(codec.get(), 8003, out, status, &frames), 0);
        EXPECT_EQ(status, want_status[k]) << "call " << k;
        EXPECT_EQ(frames, want_frames[k]) << "call " << k;
    }
    EXPECT_TRUE(same_bits(be_floats(out), whole));
    EXPECT_EQ(produce(codec.get(), 8192, out, status), 0);
    EXPECT_EQ(status, kProduceNeedsInput);
    // Less room than one frame is an error, not a status.
    Bytes more = s.packets[3];
    ASSERT_EQ(append_packet(codec.get(), more), 0);
    EXPECT_EQ(produce(codec.get(), 7, out, status), kCodecErrNotEnoughBufferSpace);
}

TEST(CodecDecoder, ResetLeavesTheDecoderAsNew)
{
    // MP3: a flush clears the bit reservoir; AAC: the decoder is reopened.
    for (const Case& c : {Case{"mp3-stereo", kFormatMP3, 0, 1152}, Case{"aac-stereo", kFormatAAC, 0, 1024}}) {
        const Stream& s = reference(c.name);
        const uint32_t capacity = c.frames_per_packet * 2 * 4;
        Instance used = decoder(c, s, pcm_float(2, s.rate));
        Instance fresh = decoder(c, s, pcm_float(2, s.rate));
        ASSERT_TRUE(used && fresh);
        decode_range(used.get(), s, 0, 15, capacity);
        ASSERT_EQ(append_packet(used.get(), s.packets[16]), 0); // left queued: reset drops it
        ASSERT_EQ(audio_codec_reset(used.get()), 0);
        const std::vector<float> after_reset = be_floats(decode_range(used.get(), s, 30, 40, capacity));
        const std::vector<float> from_new = be_floats(decode_range(fresh.get(), s, 30, 40, capacity));
        EXPECT_EQ(after_reset.size(), 11u * c.frames_per_packet * 2);
        EXPECT_TRUE(same_bits(after_reset, from_new)) << c.name;
    }
}

TEST(CodecDecoderMP3, FrameLengthsAndShortFrames)
{
    for (const char* name : {"mp3-stereo", "mp3-mono-22k"}) {
        const Stream& s = reference(name);
        // The demuxer cuts frames by its own parser: the header arithmetic
        // must give the same lengths (MPEG-1 and MPEG-2, with and without
        // padding).
        for (size_t i = 0; i < s.packets.size(); ++i)
            ASSERT_EQ(CodecDecoderMP3::frame_length(s.packets[i].data(), s.packets[i].size()),
                      static_cast<int>(s.packets[i].size()))
                << name << " packet " << i;
    }
    const Case c{"mp3-stereo", kFormatMP3, 0, 1152};
    const Stream& s = reference(c.name);
    Instance codec = decoder(c, s, pcm_float(2, s.rate));
    ASSERT_TRUE(codec);
    Bytes out;
    uint32_t status = 0;
    Bytes cut(s.packets[5].begin(), s.packets[5].end() - 1);
    ASSERT_EQ(append_packet(codec.get(), cut), 0);
    EXPECT_EQ(produce(codec.get(), 1152 * 8, out, status), kCodecErrBadData);
    EXPECT_EQ(status, kProduceFailure);
    const Bytes no_header = {0x12, 0x34, 0x56, 0x78, 0x9A};
    ASSERT_EQ(append_packet(codec.get(), no_header), 0);
    EXPECT_EQ(produce(codec.get(), 1152 * 8, out, status), kCodecErrBadData);
    // The failed packets are gone; a whole one decodes.
    ASSERT_EQ(append_packet(codec.get(), s.packets[6]), 0);
    EXPECT_EQ(produce(codec.get(), 1152 * 8, out, status), 0);
    EXPECT_EQ(status, kProduceOutput);
    EXPECT_EQ(out.size(), 1152u * 8);
}

Bytes get_cookie(ComponentInstanceRecord* codec, int* err)
{
    Bytes cookie(512);
    uint32_t size = 512;
    *err = audio_codec_get_property(codec, kPropertyMagicCookie, &size, cookie.data());
    cookie.resize(*err == 0 ? size : 0);
    return cookie;
}

// An uncompressed frame as the Apple Lossless clips write one by hand for a
// short packet: element tag and channel bits (channels << 4 & 0xE0), a zero
// byte, 2 (16 bits) or 6 (24 bits) for the flags byte, then the big-endian
// samples moved one bit later, with no END element.
Bytes hand_made_frame(const Pcm& pcm)
{
    const Bytes samples = big_endian_bytes(pcm, 0, pcm.frames());
    Bytes frame = {static_cast<uint8_t>((pcm.channels << 4) & 0xE0), 0, static_cast<uint8_t>(pcm.bits == 16 ? 2 : 6)};
    frame.resize(3 + samples.size(), 0);
    for (size_t i = 0; i < samples.size(); ++i) {
        frame[2 + i] |= static_cast<uint8_t>(samples[i] >> 7);
        frame[3 + i] = static_cast<uint8_t>(samples[i] << 1);
    }
    return frame;
}

TEST(CodecDecoderALAC, CookieLayoutAndRoundTrip)
{
    Instance codec = open_codec(kComponentDecoder, kFormatALAC);
    ASSERT_TRUE(codec);
    int err = 0;
    get_cookie(codec.get(), &err);
    EXPECT_EQ(err, kCodecErrState); // nothing to build it from yet

    const AudioStreamBasicDescription in = compressed(kFormatALAC, 3, 4096, 2, 48000);
    const AudioStreamBasicDescription out = pcm_int(2, 48000, 24);
    ASSERT_EQ(audio_codec_initialize(codec.get(), &in, &out, nullptr, 0), 0);
    Bytes cookie = get_cookie(codec.get(), &err);
    ASSERT_EQ(err, 0);
    ASSERT_EQ(cookie.size(), 48u);
    EXPECT_EQ(get_be32(cookie, 0), 12u);
    EXPECT_EQ(get_be32(cookie, 4), static_cast<uint32_t>(fourcc("frma")));
    EXPECT_EQ(get_be32(cookie, 8), static_cast<uint32_t>(fourcc("alac")));
    EXPECT_EQ(get_be32(cookie, 12), 36u);
    EXPECT_EQ(get_be32(cookie, 16), static_cast<uint32_t>(fourcc("alac")));
    EXPECT_EQ(get_be32(cookie, 24), 4096u); // frame length
    EXPECT_EQ(cookie[29], 24);             // bit depth, from flags 3
    EXPECT_EQ(cookie[30], 40);             // the value that marks the layout
    EXPECT_EQ(cookie[33], 2);              // channels
    EXPECT_EQ(get_be32(cookie, 44), 48000u);

    // A 16-bit cookie with 1000-frame packets, set in the layout and as the
    // bare atom, reads back in the layout and configures the decoder: a
    // hand-made 16-bit frame decodes, widened to the 24-bit output.
    cookie[29] = 16;
    cookie[24] = 0;
    cookie[25] = 0;
    cookie[26] = 0x03;
    cookie[27] = 0xE8;
    ASSERT_EQ(audio_codec_set_property(codec.get(), kPropertyMagicCookie, 48, cookie.data()), 0);
    EXPECT_EQ(get_cookie(codec.get(), &err), cookie);
    ASSERT_EQ(audio_codec_set_property(codec.get(), kPropertyMagicCookie, 36, cookie.data() + 12), 0);
    EXPECT_EQ(get_cookie(codec.get(), &err), cookie);
    const Bytes junk(30, 0x55);
    EXPECT_NE(audio_codec_set_property(codec.get(), kPropertyMagicCookie, 30, junk.data()), 0);

    const Pcm pcm = make_pcm(2, 16, 48000, 1000, 0.5, 7);
    ASSERT_EQ(append_packet(codec.get(), hand_made_frame(pcm)), 0);
    Bytes decoded;
    uint32_t status = 0;
    ASSERT_EQ(produce(codec.get(), 4096 * 6, decoded, status), 0);
    std::vector<int32_t> widened;
    for (int32_t v : pcm.samples)
        widened.push_back(v * 256);
    EXPECT_EQ(be_ints(decoded, 24), widened);
}

TEST(CodecDecoderALAC, UncompressedFrameWithoutEndDecodesToItsSamples)
{
    for (int channels : {1, 2}) {
        for (int bits : {16, 24}) {
            const Pcm pcm = make_pcm(channels, bits, 44100, 1000, 0.7, static_cast<uint32_t>(channels * bits));
            const Bytes frame = hand_made_frame(pcm);
            ASSERT_EQ(frame.size(), 3 + 1000u * channels * bits / 8);
            const uint32_t flags = bits == 16 ? 1 : 3;
            const AudioStreamBasicDescription in = compressed(kFormatALAC, flags, 4096, channels, 44100);

            // FFmpeg alone refuses the frame.
            Stream alone;
            alone.codec_id = AV_CODEC_ID_ALAC;
            alone.channels = channels;
            alone.rate = 44100;
            Instance probe = open_codec(kComponentDecoder, kFormatALAC);
            const AudioStreamBasicDescription probe_out = pcm_float(channels, 44100);
            ASSERT_EQ(audio_codec_initialize(probe.get(), &in, &probe_out, nullptr, 0), 0);
            int err = 0;
            const Bytes cookie = get_cookie(probe.get(), &err);
            alone.extradata.assign(cookie.begin() + 12, cookie.end());
            alone.packets.push_back(frame);
            EXPECT_TRUE(reference_decode(alone).empty());

            // As the clips decode a short packet: the frame, then zero bytes
            // declared as no packet, and room for a whole 4096-frame packet.
            for (bool as_float : {false, true}) {
                Instance codec = open_codec(kComponentDecoder, kFormatALAC);
                const AudioStreamBasicDescription out =
                    as_float ? pcm_float(channels, 44100) : pcm_int(channels, 44100, bits);
                ASSERT_EQ(audio_codec_initialize(codec.get(), &in, &out, nullptr, 0), 0);
                ASSERT_EQ(append_packet(codec.get(), frame), 0);
                const Bytes zeros(static_cast<size_t>(channels * (4097 - 1000) * bits / 8), 0);
                uint32_t zero_bytes = static_cast<uint32_t>(zeros.size());
                uint32_t zero_packets = 0;
                const int padded =
                    audio_codec_append_input_data(codec.get(), zeros.data(), &zero_bytes, &zero_packets, nullptr);
                ASSERT_EQ(padded, 0);
                Bytes decoded;
                uint32_t status = 0;
                ASSERT_EQ(produce(codec.get(), out.bytes_per_frame * 4096, decoded, status), 0);
                EXPECT_EQ(status, kProduceOutput);
                if (as_float) {
                    std::vector<float> want;
                    for (int32_t v : pcm.samples)
                        want.push_back(static_cast<float>(std::ldexp(static_cast<double>(v), 1 - bits)));
                    EXPECT_TRUE(same_bits(be_floats(decoded), want)) << channels << " channels, " << bits << " bits";
                } else {
                    EXPECT_EQ(be_ints(decoded, bits), pcm.samples) << channels << " channels, " << bits << " bits";
                }
            }
        }
    }
}

struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using Frame = std::unique_ptr<AVFrame, FrameFree>;

// A planar frame of random bytes.
Frame random_frame(AVSampleFormat format, int channels, int samples, std::mt19937& rng)
{
    Frame frame(av_frame_alloc());
    frame->format = format;
    frame->nb_samples = samples;
    av_channel_layout_default(&frame->ch_layout, channels);
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (int c = 0; c < channels; ++c)
        for (int k = 0; k < samples * av_get_bytes_per_sample(format); ++k)
            frame->extended_data[c][k] = static_cast<uint8_t>(rng());
    return frame;
}

// Sample n of plane c as the host's integer of the given width.
uint32_t host_word(const AVFrame& frame, int c, int n, int bytes)
{
    uint32_t v = 0;
    for (int k = 0; k < bytes; ++k)
        v = (v << 8) | frame.extended_data[c][n * bytes + (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? bytes - 1 - k : k)];
    return v;
}

// Planar frames as the decoders deliver them, written out as one or two
// interleaved channels from any frame on: floats as their bits in either
// byte order, 16-bit samples as they are, 32-bit words as their top three
// or all four bytes big-endian. Sources of one channel feed both outputs;
// of three, the first two.
TEST(LPCMFormat, PlanarFramesToInterleavedWords)
{
    std::mt19937 rng(9);
    struct Layout {
        AVSampleFormat format;
        int bits;
        bool is_float, big;
    };
    for (const Layout layout : {Layout{AV_SAMPLE_FMT_FLTP, 32, true, true}, Layout{AV_SAMPLE_FMT_FLTP, 32, true, false},
                                Layout{AV_SAMPLE_FMT_S16P, 16, false, true}, Layout{AV_SAMPLE_FMT_S32P, 24, false, true},
                                Layout{AV_SAMPLE_FMT_S32P, 32, false, true}}) {
        const int in_bytes = av_get_bytes_per_sample(layout.format), out_bytes = layout.bits / 8;
        for (const int sources : {1, 2, 3}) {
            const Frame frame = random_frame(layout.format, sources, 1024, rng);
            for (const int channels : {1, 2}) {
                AudioStreamBasicDescription d =
                    layout.is_float ? pcm_float(channels, 44100) : pcm_int(channels, 44100, layout.bits);
                if (!layout.big)
                    d.format_flags &= ~kLPCMFlagBigEndian;
                LPCMFormat format;
                ASSERT_TRUE(LPCMFormat::from_description(d, &format));
                for (const auto& [first, count] : {std::pair<int, int>{0, 1024}, {37, 101}, {1000, 24}, {5, 0}}) {
                    Bytes out(static_cast<size_t>(count * channels * out_bytes) + 4, 0xEE);
                    ASSERT_TRUE(format.write_frames(*frame, first, count, out.data()));
                    for (int n = 0; n < count; ++n) {
                        for (int c = 0; c < channels; ++c) {
                            const uint32_t w = host_word(*frame, std::min(c, sources - 1), first + n, in_bytes);
                            for (int k = 0; k < out_bytes; ++k) {
                                const int shift = layout.big ? 8 * (in_bytes - 1 - k) : 8 * k;
                                ASSERT_EQ(out[static_cast<size_t>((n * channels + c) * out_bytes + k)],
                                          static_cast<uint8_t>(w >> shift))
                                    << layout.bits << " bits, " << sources << " sources, " << channels
                                    << " channels, frame " << n;
                            }
                        }
                    }
                    EXPECT_EQ(out.back(), 0xEE) << "written past the frames";
                }
            }
        }
    }
}

// And back, as the float encoders take them: interleaved words of one or
// two channels in either byte order into planes.
TEST(LPCMFormat, InterleavedWordsToPlanarFloats)
{
    std::mt19937 rng(10);
    for (const int channels : {1, 2}) {
        for (const bool big : {true, false}) {
            AudioStreamBasicDescription d = pcm_float(channels, 44100);
            if (!big)
                d.format_flags &= ~kLPCMFlagBigEndian;
            LPCMFormat format;
            ASSERT_TRUE(LPCMFormat::from_description(d, &format));
            const Frame frame = random_frame(AV_SAMPLE_FMT_FLTP, channels, 1024, rng);
            for (const int count : {1024, 1000, 3}) {
                Bytes in(static_cast<size_t>(count) * static_cast<size_t>(channels) * 4);
                for (auto& byte : in)
                    byte = static_cast<uint8_t>(rng());
                ASSERT_TRUE(format.read_frames(in.data(), count, *frame));
                for (int n = 0; n < count; ++n) {
                    for (int c = 0; c < channels; ++c) {
                        const unsigned char* at = &in[(static_cast<size_t>(n) * channels + c) * 4];
                        uint32_t want = 0;
                        for (int k = 0; k < 4; ++k)
                            want |= static_cast<uint32_t>(at[k]) << (big ? 24 - 8 * k : 8 * k);
                        ASSERT_EQ(host_word(*frame, c, n, 4), want) << channels << " channels, frame " << n;
                    }
                }
            }
        }
    }
}

TEST(CodecComponents, FFmpegPrintsNothing)
{
    StderrCapture capture;
    {
        // Garbage for the AAC decoder, which FFmpeg reports as errors.
        Instance codec = open_codec(kComponentDecoder, kFormatAAC);
        ASSERT_TRUE(codec);
        const AudioStreamBasicDescription in = compressed(kFormatAAC, 0, 1024, 2, 44100);
        const AudioStreamBasicDescription out = pcm_float(2, 44100);
        ASSERT_EQ(audio_codec_initialize(codec.get(), &in, &out, nullptr, 0), 0);
        int failures = 0;
        for (int k = 0; k < 5; ++k) {
            ASSERT_EQ(append_packet(codec.get(), Bytes(200, static_cast<uint8_t>(0x5A + k))), 0);
            Bytes decoded;
            uint32_t status = 0;
            failures += produce(codec.get(), 8192, decoded, status) != 0;
        }
        EXPECT_GT(failures, 0);
        // The AAC encoder reports its average quantiser when it closes.
        Instance encoder = open_codec(kComponentEncoder, kFormatAAC);
        const AudioStreamBasicDescription enc_out = compressed(kFormatAAC, 0, 1024, 2, 44100);
        ASSERT_EQ(audio_codec_initialize(encoder.get(), &out, &enc_out, nullptr, 0), 0);
        const Bytes silence(1024 * 8, 0);
        uint32_t bytes = static_cast<uint32_t>(silence.size());
        uint32_t packets = 1;
        ASSERT_EQ(audio_codec_append_input_data(encoder.get(), silence.data(), &bytes, &packets, nullptr), 0);
        Bytes packet;
        uint32_t status = 0;
        EXPECT_EQ(produce(encoder.get(), 16384, packet, status), 0);
    }
    EXPECT_EQ(capture.finish(), "");
}

} // namespace
} // namespace test
} // namespace KEL
