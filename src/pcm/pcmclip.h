// The base of the three PCM clip classes (WAVE, AIFF, CAF).
#ifndef KEL_PCM_PCMCLIP_H
#define KEL_PCM_PCMCLIP_H

#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "pcm/pcmcodec.h"
#include "pcm/pcmloader.h"

#include <cstdio>

namespace KEL {

// The members the three PCM clip classes (WAVE, AIFF, CAF) share: the
// information record, the compatibility rule, the encoder's packet length
// and bit rate, the bounds checks around a packet decode, and the objects a
// clip makes for itself (a new clip, an overview, a decoder, an encoder).
// Self is the format's clip class; the other parameters are its packet,
// overview, decoder and encoder classes and its KEL_FORMAT_* number.
template <class Self, class PacketT, class OverviewT, class DecoderT, class EncoderT, int kFormat>
class KEL_API PcmClip : public Clip {
public:
    PcmClip(int channels, float sampleRate, int bits, int packetFrames, BSFile* file)
        : Clip(channels, sampleRate, bits, file), packetFrames(packetFrames)
    {
    }

    // The format number, the parameters and the stream figures, and zero in
    // the three fields that only the coded formats use.
    void get_info(_kel_clip_info_t* info) override
    {
        info->format = kFormat;
        info->channels = channels;
        info->sample_rate = sample_rate;
        info->bits_per_sample = bits_per_sample;
        info->bit_rate = bit_rate();
        info->duration = duration();
        info->rate_mode = 0;
        info->mpeg_version = 0;
        info->stereo_mode = 0;
    }

    // Another clip of the same class with equal channels, rate, width and
    // packet length: "Eclt" for another class, "Ecld" for other parameters.
    bool will_accept(Clip* other, int* err) override
    {
        int code = 0;
        auto* same = dynamic_cast<Self*>(other);
        if (same == nullptr) {
            code = kErrClipType;
        } else if (channels != same->channels || sample_rate != same->sample_rate ||
                   bits_per_sample != same->bits_per_sample || packetFrames != same->packetFrames) {
            // The fields get_info reports, read directly: filling the whole
            // record would also settle both clips' stream statistics.
            code = kErrClipMismatch;
        }
        if (err != nullptr)
            *err = code;
        return code == 0;
    }

    // The parameters get_info would report, read directly for the same
    // reason: a long clip that is only being copied from stays unsettled.
    Clip* NewClip(BSFile* file) override
    {
        return new Self(channels, sample_rate, bits_per_sample, packetFrames, file);
    }

    Overview* create_overview(_kel_overview_progress_t* progress) override
    {
        return new OverviewT(static_cast<Self*>(this), progress);
    }

    ClipDecoder* create_decoder() override { return new DecoderT(static_cast<Self*>(this)); }

    // Packets as long as the clip's first (else the raw packet size
    // setting), at frames times channels times rate times eight bits per
    // second whatever the sample width: the encoder's figure, not the
    // loader's.
    ClipEncoder* create_encoder(float encoderParam) override
    {
        const int frames = packet_count > 0 ? packets[0]->frame_count : pcm_packet_frames_setting();
        const float samples = static_cast<float>(static_cast<long long>(frames) * channels);
        const int rate = pcm_truncate_to_int(static_cast<double>(samples * sample_rate) * 8.0);
        return new EncoderT(encoderParam, channels, sample_rate, encoder_bits(), frames, rate);
    }

    // "EPnm" outside the clip, "EILC" for a packet of another class;
    // otherwise the packet's own decode.
    int packet_decode_play(int index, float** out, int* err, float gain) override
    {
        if (index < 0 || index >= packet_count) {
            *err = kErrPacketNumber;
            return 0;
        }
        auto* packet = dynamic_cast<PacketT*>(packets[index]);
        if (packet == nullptr) {
            *err = kErrInternal;
            return 0;
        }
        return packet->decode(out, err, gain);
    }

    // An empty clip of 1 or 2 channels and an accepted width ("Eprm"
    // otherwise) with packets of 1024 frames and no store.
    static Self* create_empty_clip(int channels, float sampleRate, int bits, bool width_accepted, int* err)
    {
        if ((channels != 1 && channels != 2) || sampleRate < 0.0f || !width_accepted) {
            *err = kErrParameter;
            return nullptr;
        }
        *err = 0;
        return new Self(channels, sampleRate, bits, 1024, nullptr);
    }

    // Where a file's audio is and how it is stored, as the format's scan
    // finds it (little: little-endian samples, for the formats that have
    // both orders).
    struct FileLayout {
        int channels = 0;
        int bits = 0;
        float rate = 0.0f;
        bool little = false;
        long long length = 0;
        long long offset = 0;
    };

    // Scans the file at path with the format's scan_layout: 0 or the scan's
    // code, "Efor" when the file cannot be opened.
    static int scan_path(const char* path, FileLayout& layout)
    {
        FILE* f = std::fopen(path, "r");
        if (f == nullptr)
            return kErrOpenRead;
        const int code = Self::scan_layout(f, layout);
        std::fclose(f);
        return code;
    }

    // Fills info from the headers alone; progress is not used.
    static int get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t*)
    {
        FileLayout layout;
        const int code = scan_path(path, layout);
        if (code != 0 || info == nullptr)
            return code;
        const long long frame_bytes = static_cast<long long>(layout.bits / 8) * layout.channels;
        const long long frames = frame_bytes > 0 ? layout.length / frame_bytes : 0;
        fill_file_info(info, layout.channels, layout.bits, layout.rate, frames, layout.length);
        return 0;
    }

    // A clip of the file at path, in packets of the raw packet size; null
    // with the scan's or the load's code in err when either fails.
    static Self* open(const char* path, int* err, _kel_progress_ext_t* progress)
    {
        FileLayout layout;
        *err = scan_path(path, layout);
        if (*err != 0)
            return nullptr;
        auto* clip = new Self(layout.channels, layout.rate, layout.bits, kel_get_raw_packet_size(), nullptr);
        *err = clip->load_layout(path, progress, layout);
        if (*err != 0) {
            clip->close(nullptr);
            delete clip;
            return nullptr;
        }
        return clip;
    }

    // The record get_file_info gives for a file of frames frames in length
    // bytes of audio data, from the headers alone: the duration in single
    // precision and the bit rate the data's length gives over it.
    static void fill_file_info(_kel_clip_info_t* info, int channels, int bits, float rate, long long frames,
                               long long length)
    {
        const float seconds = static_cast<float>(frames) / rate;
        info->format = kFormat;
        info->channels = channels;
        info->sample_rate = rate;
        info->bits_per_sample = bits;
        info->duration = seconds;
        info->bit_rate = seconds > 0.0f
                             ? pcm_truncate_to_int(static_cast<double>(length) * 8.0 / static_cast<double>(seconds))
                             : 0;
        info->rate_mode = 0;
        info->mpeg_version = 0;
        info->stereo_mode = 0;
    }

    // Frames per packet, fixed when the clip was made.
    int packetFrames;

protected:
    // The sample width the encoder writes; the clip's own unless the format
    // has only one.
    virtual int encoder_bits() const { return bits_per_sample; }
};

} // namespace KEL

#endif
