#include "mp3/clipencodermp3.h"

#include "core/errorcodes.h"
#include "mp3/lametag.h"

#include <cstdlib>

namespace KEL {

namespace {

// LAME's reports are dropped: the library prints nothing of its own.
void quiet(const char*, va_list) {}

int lame_mode_for(int channels, KELClipStereoMode mode)
{
    if (channels == 1)
        return kLameMono;
    switch (mode) {
    case KELClipStereoModeStereo:
        return kLameStereo;
    case KELClipStereoModeDualChannel:
        return kLameDualChannel;
    default:
        return kLameJointStereo;
    }
}

// A float sample as a signed 16-bit integer: scaled by 32768 and truncated
// toward zero, then held to the 16-bit range (NaN becomes 0).
short to_int16(float v)
{
    const float scaled = v * 32768.0f;
    if (scaled >= 32768.0f)
        return 32767;
    if (scaled < -32768.0f)
        return -32768;
    if (!(scaled == scaled))
        return 0;
    return static_cast<short>(static_cast<int>(scaled));
}

} // namespace

ClipEncoderMP3::ClipEncoderMP3(float source_rate, int channels, float sample_rate, int frames_per_packet,
                               int bit_rate, bool vbr, KELClipStereoMode mode)
    : ClipEncoder(source_rate), sample_rate(sample_rate), frames_per_packet(frames_per_packet)
{
    out = static_cast<unsigned char*>(std::malloc(kOutputBytes));
    lame = lame_init();
    if (lame == nullptr)
        return;
    const int rate = static_cast<int>(sample_rate);
    lame_set_in_samplerate(lame, rate);
    lame_set_out_samplerate(lame, rate);
    lame_set_num_channels(lame, 2);
    lame_set_quality(lame, 2);
    lame_set_mode(lame, lame_mode_for(channels, mode));
    lame_set_errorf(lame, quiet);
    lame_set_debugf(lame, quiet);
    lame_set_msgf(lame, quiet);
    lame_set_VBR_q(lame, 0);
    if (!vbr) {
        lame_set_VBR(lame, kLameVbrOff);
        lame_set_brate(lame, bit_rate / 1000);
    } else {
        lame_set_VBR(lame, kLameVbrRh);
        lame_set_VBR_max_bitrate_kbps(lame, bit_rate / 1000);
    }
    lame_set_bWriteVbrTag(lame, 0);
    if (lame_init_params(lame) != 0) {
        lame_close(lame);
        lame = nullptr;
    }
}

ClipEncoderMP3::~ClipEncoderMP3()
{
    if (lame != nullptr)
        lame_close(lame);
    std::free(out);
}

const void* ClipEncoderMP3::packet_encode(int* size, bool flush, int* err)
{
    float left[kMaxFrames];
    float right[kMaxFrames];
    const bool block_fits = frames_per_packet > 0 && frames_per_packet <= kMaxFrames;
    float* bufs[2] = {left, right};
    const int n = block_fits ? get_data(bufs, frames_per_packet, sample_rate, flush) : 0;

    *err = 0;
    if (out == nullptr || lame == nullptr || !block_fits) {
        *err = kErrCodec;
        return nullptr;
    }
    if (!flush && n == 0)
        return nullptr;
    if (n > 0 && n != frames_per_packet) {
        *size = 0;
        *err = kErrEncode;
        return nullptr;
    }

    int bytes = 0;
    if (n == frames_per_packet) {
        short l16[kMaxFrames];
        short r16[kMaxFrames];
        for (int i = 0; i < n; ++i) {
            l16[i] = to_int16(left[i]);
            r16[i] = to_int16(right[i]);
        }
        bytes = lame_encode_buffer(lame, l16, r16, n, out, kOutputBytes);
    } else if (flushed == 0) {
        bytes = lame_encode_flush(lame, out, kOutputBytes);
        flushed = 1;
    }
    if (bytes < 0) {
        *size = 0;
        *err = kErrEncode;
        return nullptr;
    }
    *size = bytes;
    return out;
}

Packet* ClipEncoderMP3::packet_with_storage(BSHandle*)
{
    return nullptr;
}

int ClipEncoderMP3::priming_frames() const
{
    return lame != nullptr ? lame_get_encoder_delay(lame) + LameTag::kDecoderDelay : 0;
}

} // namespace KEL
