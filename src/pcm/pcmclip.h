// What the three PCM clip classes (WAVE, AIFF, CAF) answer alike: their
// information record, their compatibility rule, their encoder's packet
// length and bit rate, and the bounds checks around a packet decode.
#ifndef KEL_PCM_PCMCLIP_H
#define KEL_PCM_PCMCLIP_H

#include "core/clip.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmloader.h"

namespace KEL {

// The record of a PCM clip: its parameters and stream figures, and zero in
// the three fields that only the coded formats use.
inline void pcm_fill_info(const Clip& clip, int format, _kel_clip_info_t* info)
{
    info->format = format;
    info->channels = clip.channels;
    info->sample_rate = clip.sample_rate;
    info->bits_per_sample = clip.bits_per_sample;
    info->bit_rate = clip.bit_rate();
    info->duration = clip.duration();
    info->rate_mode = 0;
    info->mpeg_version = 0;
    info->stereo_mode = 0;
}

// Another clip of the same class with equal channels, rate, width and
// packet length: "Eclt" for another class, "Ecld" for other parameters.
template <class ClipT>
bool pcm_will_accept(ClipT& self, Clip* other, int* err)
{
    int code = 0;
    auto* same = dynamic_cast<ClipT*>(other);
    if (same == nullptr) {
        code = fourcc("Eclt");
    } else {
        // The fields get_info reports, read directly: filling the whole
        // record would also settle both clips' stream statistics.
        if (self.channels != same->channels || self.sample_rate != same->sample_rate ||
            self.bits_per_sample != same->bits_per_sample || self.packetFrames != same->packetFrames)
            code = fourcc("Ecld");
    }
    if (err != nullptr)
        *err = code;
    return code == 0;
}

// The encoder's packet length (the clip's first packet, else the raw
// packet size setting) and its bit rate: frames times channels times rate
// times eight, whatever the sample width — the encoder's figure, not the
// loader's.
inline int pcm_encoder_bit_rate(const Clip& clip, int& frames)
{
    frames = clip.packet_count > 0 ? clip.packets[0]->frame_count : pcm_packet_frames_setting();
    const float samples = static_cast<float>(static_cast<long long>(frames) * clip.channels);
    return pcm_truncate_to_int(static_cast<double>(samples * clip.sample_rate) * 8.0);
}

// "EPnm" outside the clip, "EILC" for a packet of another class; otherwise
// the packet's own decode.
template <class PacketT>
int pcm_decode_play(const Clip& clip, int index, float** out, int* err, float gain)
{
    if (index < 0 || index >= clip.packet_count) {
        *err = fourcc("EPnm");
        return 0;
    }
    auto* packet = dynamic_cast<PacketT*>(clip.packets[index]);
    if (packet == nullptr) {
        *err = fourcc("EILC");
        return 0;
    }
    return packet->decode(out, err, gain);
}

} // namespace KEL

#endif
