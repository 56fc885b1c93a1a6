#include "codecoracle.h"

#include "codec/componentinstancerecord.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <stdexcept>

namespace KEL {
namespace test {

Pcm make_pcm(int channels, int bits, int rate, size_t frames, double noise_share, uint32_t seed)
{
    Pcm pcm;
    pcm.channels = channels;
    pcm.bits = bits;
    pcm.rate = rate;
    pcm.samples.resize(frames * static_cast<size_t>(channels));
    const double full = std::ldexp(1.0, bits - 1);
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> noise(-1.0, 1.0);
    for (size_t n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c) {
            const double tone = std::sin(2.0 * M_PI * (330.0 + 220.0 * c) * static_cast<double>(n) / rate);
            double v = full * ((1.0 - noise_share) * 0.5 * tone + noise_share * noise(random));
            v = std::max(-full, std::min(full - 1.0, std::round(v)));
            pcm.samples[n * static_cast<size_t>(channels) + static_cast<size_t>(c)] = static_cast<int32_t>(v);
        }
    }
    if (frames > 20) {
        pcm.samples[10 * static_cast<size_t>(channels)] = static_cast<int32_t>(full - 1.0);
        pcm.samples[11 * static_cast<size_t>(channels)] = static_cast<int32_t>(-full);
    }
    return pcm;
}

Bytes big_endian_bytes(const Pcm& pcm, size_t first_frame, size_t frames)
{
    const int width = pcm.bits / 8;
    Bytes out;
    const size_t begin = first_frame * static_cast<size_t>(pcm.channels);
    const size_t end = begin + frames * static_cast<size_t>(pcm.channels);
    for (size_t i = begin; i < end; ++i) {
        const uint32_t v = static_cast<uint32_t>(pcm.samples[i]);
        for (int k = width - 1; k >= 0; --k)
            out.push_back(static_cast<uint8_t>(v >> (8 * k)));
    }
    return out;
}

Stream encoded_by_ffmpeg(const std::string& name, const Pcm& pcm, const std::vector<std::string>& codec,
                         const char* extension)
{
    const uint32_t width = static_cast<uint32_t>(pcm.bits / 8), channels = static_cast<uint32_t>(pcm.channels);
    const uint32_t data = static_cast<uint32_t>(pcm.samples.size()) * width;
    ByteWriter w;
    w.tag("RIFF").le32(36 + data).tag("WAVE").tag("fmt ").le32(16).le16(1).le16(channels);
    w.le32(static_cast<uint32_t>(pcm.rate)).le32(static_cast<uint32_t>(pcm.rate) * width * channels);
    w.le16(width * channels).le16(static_cast<uint32_t>(pcm.bits)).tag("data").le32(data);
    for (int32_t s : pcm.samples)
        width == 2 ? w.le16(static_cast<uint32_t>(s)) : w.le16(static_cast<uint32_t>(s)).raw({static_cast<unsigned char>(s >> 16)});
    const std::string wav = scratch().path(name + ".wav"), coded = scratch().path(name + "." + extension);
    write_file(wav, w.bytes);
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", wav};
    args.insert(args.end(), codec.begin(), codec.end());
    args.push_back(coded);
    EXPECT_EQ(run_tool(args), 0) << name;
    Stream out;
    out.channels = pcm.channels;
    out.rate = pcm.rate;
    out.packets = packet_bytes(coded);
    return out;
}

std::vector<float> reference_decode(const Stream& stream)
{
    std::vector<float> out;
    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(stream.codec_id));
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    ctx->thread_count = 1;
    ctx->flags |= AV_CODEC_FLAG_BITEXACT;
    ctx->sample_rate = stream.rate;
    av_channel_layout_default(&ctx->ch_layout, stream.channels);
    if (!stream.extradata.empty()) {
        ctx->extradata = static_cast<uint8_t*>(av_mallocz(stream.extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(ctx->extradata, stream.extradata.data(), stream.extradata.size());
        ctx->extradata_size = static_cast<int>(stream.extradata.size());
    }
    if (avcodec_open2(ctx, codec, nullptr) == 0) {
        for (const Bytes& p : stream.packets) {
            av_new_packet(packet, static_cast<int>(p.size()));
            std::memcpy(packet->data, p.data(), p.size());
            avcodec_send_packet(ctx, packet);
            av_packet_unref(packet);
            while (avcodec_receive_frame(ctx, frame) == 0) {
                const int channels = frame->ch_layout.nb_channels;
                for (int n = 0; n < frame->nb_samples; ++n) {
                    for (int c = 0; c < channels; ++c) {
                        const uint8_t* plane = frame->extended_data[c];
                        switch (frame->format) {
                        case AV_SAMPLE_FMT_FLTP:
                            out.push_back(reinterpret_cast<const float*>(plane)[n]);
                            break;
                        case AV_SAMPLE_FMT_S16P:
                            out.push_back(reinterpret_cast<const int16_t*>(plane)[n] / 32768.0f);
                            break;
                        case AV_SAMPLE_FMT_S32P:
                            out.push_back(static_cast<float>(reinterpret_cast<const int32_t*>(plane)[n]) /
                                          2147483648.0f);
                            break;
                        default:
                            throw std::runtime_error("unexpected sample format");
                        }
                    }
                }
            }
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&ctx);
    return out;
}

Instance open_codec(int32_t type, int32_t subtype)
{
    const ComponentDescription d{type, subtype, kComponentManufacturer, 0, 0};
    ComponentInstanceRecord* instance = nullptr;
    if (open_a_component(find_next_component(nullptr, &d), &instance) != 0)
        return Instance();
    return Instance(instance);
}

AudioStreamBasicDescription compressed(int32_t format, uint32_t flags, uint32_t frames_per_packet, int channels,
                                       int rate)
{
    return AudioStreamBasicDescription{static_cast<double>(rate), format, flags, 0, frames_per_packet, 0,
                                       static_cast<uint32_t>(channels), 0, 0};
}

AudioStreamBasicDescription pcm_float(int channels, int rate)
{
    const uint32_t bytes = 4 * static_cast<uint32_t>(channels);
    return AudioStreamBasicDescription{static_cast<double>(rate), kFormatLPCM, 11, bytes, 1, bytes,
                                       static_cast<uint32_t>(channels), 32, 0};
}

AudioStreamBasicDescription pcm_int(int channels, int rate, int bits)
{
    const uint32_t bytes = static_cast<uint32_t>(bits / 8 * channels);
    return AudioStreamBasicDescription{static_cast<double>(rate), kFormatLPCM, 14, bytes, 1, bytes,
                                       static_cast<uint32_t>(channels), static_cast<uint32_t>(bits), 0};
}

int append_packet(ComponentInstanceRecord* codec, const Bytes& packet)
{
    uint32_t bytes = static_cast<uint32_t>(packet.size());
    uint32_t packets = 1;
    const AudioStreamPacketDescription d{0, 0, bytes};
    return audio_codec_append_input_data(codec, packet.data(), &bytes, &packets, &d);
}

int produce(ComponentInstanceRecord* codec, uint32_t capacity, Bytes& out, uint32_t& status, uint32_t* packets)
{
    Bytes buffer(capacity);
    uint32_t bytes = capacity;
    uint32_t count = 1;
    const int err = audio_codec_produce_output_packets(codec, buffer.data(), &bytes, &count, nullptr, &status);
    if (err == 0)
        out.insert(out.end(), buffer.begin(), buffer.begin() + bytes);
    if (packets != nullptr)
        *packets = count;
    return err;
}

std::vector<float> be_floats(const Bytes& bytes)
{
    std::vector<float> out(bytes.size() / 4);
    for (size_t i = 0; i < out.size(); ++i) {
        const uint8_t* p = &bytes[4 * i];
        const uint32_t u = (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
                           (static_cast<uint32_t>(p[2]) << 8) | p[3];
        std::memcpy(&out[i], &u, 4);
    }
    return out;
}

std::vector<int32_t> be_ints(const Bytes& bytes, int bits)
{
    const size_t width = static_cast<size_t>(bits / 8);
    std::vector<int32_t> out(bytes.size() / width);
    for (size_t i = 0; i < out.size(); ++i) {
        int64_t v = 0;
        for (size_t k = 0; k < width; ++k)
            v = (v << 8) | bytes[i * width + k];
        if (v >= (int64_t{1} << (bits - 1)))
            v -= int64_t{1} << bits;
        out[i] = static_cast<int32_t>(v);
    }
    return out;
}

StderrCapture::StderrCapture()
{
    char name[] = "/tmp/kelstderr.XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0)
        return;
    file_ = name;
    std::fflush(stderr);
    saved_ = dup(2);
    dup2(fd, 2);
    ::close(fd);
}

std::string StderrCapture::finish()
{
    if (saved_ < 0)
        return "<not captured>";
    std::fflush(stderr);
    dup2(saved_, 2);
    ::close(saved_);
    saved_ = -1;
    std::ifstream in(file_, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unlink(file_.c_str());
    return text;
}

StderrCapture::~StderrCapture()
{
    if (saved_ >= 0)
        finish();
}

} // namespace test
} // namespace KEL
