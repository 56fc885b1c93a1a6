#include "m4a/clipm4alac.h"

#include "codec/codectypes.h"
#include "codec/component.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/bshandlemem.h"
#include "core/errorcodes.h"
#include "core/progress.h"
#include "m4a/alactranscoder.h"
#include "m4a/clipencoderalac.h"
#include "m4a/m4a_parseralac.h"
#include "m4a/m4a_saveralac.h"
#include "m4a/packetm4alac.h"

#include <cstdio>
#include <cstdlib>
#include <new>

namespace KEL {

namespace {

// The frames of the packets this clip decodes whole; a packet that claims
// more is cut to them.
constexpr int kMaxAlacFrames = 4096;

// The cookie layout the decoder gives: a 12-byte "frma" atom, then the
// "alac" atom, whose bit depth lands at byte 29 and whose history
// multiplier, always 40, at byte 30 marks the layout.
constexpr uint32_t kCookieCapacity = 512;
constexpr uint32_t kCookieMinBytes = 30;
constexpr int kCookieBitDepth = 29;
constexpr int kCookieMarker = 30;
constexpr unsigned char kCookieMarkerValue = 40;

// A packet's bit rate from its size and frames, truncated; 0 when it
// cannot be a number of the int range.
int packet_bit_rate(int size, float sample_rate, int frames)
{
    if (frames <= 0)
        return 0;
    const float rate = static_cast<float>(size) * sample_rate * 8.0f / static_cast<float>(frames);
    return rate >= 0.0f && rate < 2147483520.0f ? static_cast<int>(rate) : 0;
}

// Opens path and parses it; null with the code in err on failure.
M4A_ParserALAC* parse_file(const char* path, int* err)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) {
        *err = kErrOpenRead;
        return nullptr;
    }
    auto* parser = new (std::nothrow) M4A_ParserALAC();
    if (parser == nullptr) {
        *err = kErrUnknown;
    } else {
        *err = parser->parse(f);
        if (*err != 0) {
            delete parser;
            parser = nullptr;
        }
    }
    std::fclose(f);
    return parser;
}

} // namespace

ClipM4ALAC::ClipM4ALAC(int channels, float sample_rate, int bits, int nominal_bit_rate, BSFile* file)
    : ClipAC(channels, sample_rate, bits, file), nominal_bit_rate(nominal_bit_rate)
{
}

ClipM4ALAC::~ClipM4ALAC() = default;

int32_t ClipM4ALAC::component_subtype()
{
    return kFormatALAC;
}

uint32_t ClipM4ALAC::format_flags()
{
    if (bits_per_sample == 16)
        return kALACFlag16Bit;
    if (bits_per_sample == 24)
        return kALACFlag24Bit;
    return 0;
}

int32_t ClipM4ALAC::format_id()
{
    return kFormatALAC;
}

int ClipM4ALAC::frames_per_packet()
{
    if (packet_count > 0 && packets[0] != nullptr)
        return packets[0]->frame_count;
    return PacketM4ALAC::kFullFrames;
}

int ClipM4ALAC::nbackpackets()
{
    return 1;
}

int ClipM4ALAC::nfwdpackets()
{
    return 1;
}

bool ClipM4ALAC::codec_outputs_integer_samples()
{
    return true;
}

int ClipM4ALAC::specific_codec_setup(ComponentInstanceRecord* instance)
{
    unsigned char cookie[kCookieCapacity] = {};
    uint32_t size = sizeof cookie;
    if (audio_codec_get_property(instance, kPropertyMagicCookie, &size, cookie) != 0 || size < kCookieMinBytes ||
        size > kCookieCapacity || cookie[kCookieMarker] != kCookieMarkerValue)
        return 0;
    cookie[kCookieBitDepth] = static_cast<unsigned char>(bits_per_sample);
    audio_codec_set_property(instance, kPropertyMagicCookie, size, cookie);
    return 0;
}

int ClipM4ALAC::packet_decode(ComponentInstanceRecord* decoder, int& last, int& warm, int index, float** out,
                              int* error, float gain)
{
    warm = 0;
    if (index < 0 || index >= packet_count) {
        *error = kErrPacketNumber;
        return 0;
    }
    if (decoder == nullptr) {
        *error = kErrCodec;
        return 0;
    }
    audio_codec_reset(decoder);
    auto* packet = dynamic_cast<PacketM4ALAC*>(get_packet(index));
    if (packet == nullptr) {
        *error = kErrInternal;
        return 0;
    }
    int frames = 0;
    if (packet->frame_count == PacketM4ALAC::kFullFrames) {
        bool more = false;
        frames = packet->decode(out, decoder, more, error, gain, bits_per_sample);
        // One packet always decodes whole; a codec that still wants input
        // had nothing it could use.
        if (more)
            *error = kErrDecode;
    } else {
        frames = packet->decode_partial(out, decoder, error, gain, bits_per_sample);
    }
    last = frames == 0 ? kNoPacket : index;
    return frames;
}

void ClipM4ALAC::get_info(_kel_clip_info_t* info)
{
    fill_info(info, KEL_FORMAT_ALAC);
}

ClipEncoder* ClipM4ALAC::create_encoder(float source_rate)
{
    return new (std::nothrow)
        ClipEncoderALAC(source_rate, channels, sample_rate, bits_per_sample, frames_per_packet());
}

bool ClipM4ALAC::will_accept(Clip* other, int* err)
{
    int code = 0;
    auto* alac = dynamic_cast<ClipM4ALAC*>(other);
    if (alac == nullptr)
        code = kErrClipType;
    else if (alac->channels != channels || alac->sample_rate != sample_rate ||
             alac->bits_per_sample != bits_per_sample)
        code = kErrClipMismatch;
    if (err != nullptr)
        *err = code;
    return code == 0;
}

Clip* ClipM4ALAC::NewClip(BSFile* file)
{
    auto* clip = new (std::nothrow) ClipM4ALAC(channels, sample_rate, bits_per_sample, nominal_bit_rate, file);
    if (clip == nullptr)
        return nullptr;
    if (!clip->init_codec()) {
        clip->close(nullptr);
        delete clip;
        return nullptr;
    }
    return clip;
}

ClipM4ALAC* ClipM4ALAC::create_empty(int channels, float sample_rate, int bits, int* err)
{
    if ((channels != 1 && channels != 2) || !(sample_rate >= 0.0f) || (bits != 16 && bits != 24)) {
        *err = kErrParameter;
        return nullptr;
    }
    auto* clip = new (std::nothrow) ClipM4ALAC(channels, sample_rate, bits, 0, nullptr);
    if (clip == nullptr)
        *err = kErrUnknown;
    return clip;
}

int ClipM4ALAC::detect(const char* path)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    const int code = M4A_ParserALAC::detect(f);
    std::fclose(f);
    return code;
}

ClipM4ALAC* ClipM4ALAC::open(const char* path, int* err, _kel_progress_ext_t* progress)
{
    M4A_ParserALAC* parser = parse_file(path, err);
    if (parser == nullptr)
        return nullptr;
    int channels = 0;
    float rate = 0.0f;
    int bit_rate = 0;
    int bits = 0;
    parser->get_m4a_info(&channels, &rate, &bit_rate, &bits);
    auto* clip = new (std::nothrow) ClipM4ALAC(channels, rate, bits, bit_rate, nullptr);
    if (clip == nullptr) {
        delete parser;
        *err = kErrUnknown;
        return nullptr;
    }
    *err = clip->load(path, parser, progress);
    if (*err == 0 && !parser->edit_trims(clip->total_frames(), clip->start_trim, clip->end_trim))
        clip->start_trim = clip->end_trim = 0;
    delete parser;
    if (*err != 0) {
        clip->close(nullptr);
        delete clip;
        return nullptr;
    }
    return clip;
}

int ClipM4ALAC::load(const char* path, M4A_ParserALAC* parser, _kel_progress_ext_t* progress)
{
    if (!init_codec())
        return kErrCodec;
    (void)report_progress(progress, 0.0f);
    backing_file = new (std::nothrow) BSFile();
    if (backing_file == nullptr)
        return kErrUnknown;
    if (!backing_file->open(path))
        return kErrOpenRead;

    int code = 0;
    const int count = parser->get_packet_count();
    const long long file_size = M4A_Parser::size_of_file(path);
    ProgressThrottle throttle(progress);
    for (int i = 0; i < count; ++i) {
        long long offset = 0;
        int size = 0;
        int frames = 0;
        // A packet the tables cannot place, or of a negative size, is
        // missing.
        if (parser->get_packet_info(i, &offset, &size, &frames) == 0 || size < 0) {
            code = kErrCorruptAlac;
            break;
        }
        if (M4A_Parser::clamp_to_file(file_size, kMaxAlacFrames, offset, size, frames))
            source_damaged = true;
        BSHandleFile* handle = backing_file->NewHandle(offset, size);
        if (handle == nullptr) {
            code = kErrInternal;
            break;
        }
        auto* packet = new (std::nothrow)
            PacketM4ALAC(packet_bit_rate(size, sample_rate, frames), sample_rate, channels, frames, handle);
        handle->release();
        if (packet == nullptr) {
            code = kErrUnknown;
            break;
        }
        const bool added = add_packet(packet);
        packet->release();
        if (!added) {
            code = kErrUnknown;
            break;
        }
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            return kErrCancelled;
    }
    update_stream_info();
    (void)report_progress(progress, 100.0f);
    return code;
}

int ClipM4ALAC::get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress)
{
    _kel_clip_info_t scratch{};
    if (info == nullptr)
        info = &scratch;
    int code = 0;
    M4A_ParserALAC* parser = parse_file(path, &code);
    if (parser == nullptr)
        return code;
    int channels = 0;
    float rate = 0.0f;
    int bits = 0;
    parser->get_m4a_info(&channels, &rate, nullptr, &bits);
    const int count = parser->get_packet_count();
    if (count == 0) {
        delete parser;
        return kErrEmpty;
    }

    (void)report_progress(progress, 0.0f);
    ProgressThrottle throttle(progress);
    const long long file_size = M4A_Parser::size_of_file(path);
    long long total_bytes = 0;
    long long total_frames = 0;
    int common_rate = 0;
    bool constant = true;
    for (int i = 0; i < count && code == 0; ++i) {
        long long offset = 0;
        int size = 0;
        int frames = 0;
        if (parser->get_packet_info(i, &offset, &size, &frames) == 0 || size < 0) {
            code = kErrCorruptAlac;
            break;
        }
        M4A_Parser::clamp_to_file(file_size, kMaxAlacFrames, offset, size, frames);
        total_bytes += size;
        total_frames += frames;
        const int packet_rate = packet_bit_rate(size, rate, frames);
        if (i == 0)
            common_rate = packet_rate;
        else if (packet_rate != common_rate)
            constant = false;
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            code = kErrCancelled;
    }
    delete parser;
    if (code != 0)
        return code;

    const double seconds = rate > 0.0f ? static_cast<double>(total_frames) / rate : 0.0;
    int bit_rate = common_rate;
    if (!constant) {
        const double average = seconds > 0.0 ? static_cast<double>(total_bytes) * 8.0 / seconds : 0.0;
        bit_rate = average < 2147483647.0 ? static_cast<int>(average) : 2147483647;
    }
    info->format = KEL_FORMAT_ALAC;
    info->channels = channels;
    info->sample_rate = rate;
    info->bits_per_sample = bits;
    info->bit_rate = bit_rate;
    info->duration = static_cast<float>(seconds);
    info->rate_mode = constant ? 1 : 2;
    info->mpeg_version = 0;
    info->stereo_mode = 0;
    (void)report_progress(progress, 100.0f);
    return 0;
}

PacketM4ALAC* ClipM4ALAC::packet_create_transcoded(ALACTranscoder* transcoder, PacketM4ALAC* packet, bool* damaged)
{
    if (transcoder->max_packet_size <= 0)
        return nullptr;
    auto* bytes = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(transcoder->max_packet_size)));
    if (bytes == nullptr)
        return nullptr;
    const int size = transcoder->transcode(packet, bytes, transcoder->max_packet_size, damaged);
    PacketM4ALAC* made = nullptr;
    if (size > 0) {
        auto* handle = new (std::nothrow) BSHandleMem(size);
        if (handle != nullptr && handle->init_with_copy(bytes))
            made = new (std::nothrow)
                PacketM4ALAC(packet->bit_rate, sample_rate, packet->channels(), packet->frame_count, handle);
        if (handle != nullptr)
            handle->release();
    }
    std::free(bytes);
    return made;
}

int ClipM4ALAC::save_to(const char* path, const void* block1, int block1_len, const void* block2, int block2_len,
                        int* err, _kel_progress_ext_t* progress)
{
    *err = 0;
    if (packet_count == 0) {
        *err = kErrEmpty;
        return *err;
    }
    FILE* file = std::fopen(path, "w+");
    if (file == nullptr) {
        *err = kErrOpenWrite;
        return *err;
    }
    M4A_SaverALAC saver(file);
    if (start_trim > 0 || end_trim > 0)
        saver.set_edit(static_cast<uint32_t>(start_trim), static_cast<uint32_t>(total_frames() - start_trim - end_trim));

    bool touched = false;
    for (int i = 0; i < packet_count && !touched; ++i)
        touched = packets[i]->gain != 1.0f || packets[i]->envelope != nullptr;

    bool damaged = false;
    if (!touched) {
        *err = saver.save(packets, packet_count, channels, sample_rate, bits_per_sample, block1, block1_len, block2,
                          block2_len, progress);
    } else {
        ALACTranscoder transcoder(bits_per_sample);
        Packet** list = transcoder.init(this) ? new (std::nothrow) Packet*[static_cast<size_t>(packet_count)]
                                              : nullptr;
        if (list == nullptr) {
            *err = kErrCodec;
        } else {
            const int count = packet_count;
            copy_packets(list);
            (void)report_progress(progress, 0.0f);
            ProgressThrottle throttle(progress);
            for (int i = 0; i < count; ++i) {
                Packet* old = list[i];
                if (old->gain == 1.0f && old->envelope == nullptr)
                    continue;
                auto* source = dynamic_cast<PacketM4ALAC*>(old);
                PacketM4ALAC* made =
                    source != nullptr ? packet_create_transcoded(&transcoder, source, &damaged) : nullptr;
                if (made == nullptr) {
                    *err = kErrTranscode;
                    break;
                }
                list[i] = made;
                old->release();
                // Cancelling is not offered while saving.
                (void)throttle.step(50.0f / static_cast<float>(count) * static_cast<float>(i));
            }
            if (*err == 0) {
                if (progress != nullptr)
                    progress->base_percent = 50.0f;
                *err = saver.save(list, count, channels, sample_rate, bits_per_sample, block1, block1_len,
                                  nullptr, 0, progress);
            }
            for (int i = 0; i < count; ++i)
                list[i]->release();
            delete[] list;
        }
    }

    if (*err == 0 && (damaged || source_damaged))
        *err = kErrSavedWithErrors;
    std::fclose(file);
    if (*err != 0 && *err != kErrSavedWithErrors)
        std::remove(path);
    return *err;
}

} // namespace KEL
