#include "m4a/clipm4aac.h"

#include "codec/codectypes.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "core/progress.h"
#include "m4a/clipencoderaac.h"
#include "m4a/m4a_parseraac.h"
#include "m4a/m4a_saveraac.h"
#include "m4a/packetm4aac.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <vector>
#include <new>
#include <unistd.h>

namespace KEL {

namespace {

constexpr int kPacketsBehind = 12; // warm-up packets after a reset
constexpr int kPacketsAhead = 12;  // forward packets while the codec asks for input

// A packet's bit rate from its size: truncate(size * rate * 8 / frames) in
// float; false for a packet without frames.
bool packet_bit_rate(int size, float sample_rate, int frames, int& rate)
{
    if (frames <= 0)
        return false;
    const float r = static_cast<float>(size) * sample_rate * 8.0f / static_cast<float>(frames);
    rate = r >= 2147483520.0f ? 0x7FFFFF80 : r > 0.0f ? static_cast<int>(r) : 0;
    return true;
}

// Opens and parses path; null with the code on failure.
M4A_ParserAAC* parse_file(const char* path, FILE*& file, int& code)
{
    file = std::fopen(path, "r");
    if (file == nullptr) {
        code = kErrOpenRead;
        return nullptr;
    }
    auto* parser = new (std::nothrow) M4A_ParserAAC();
    code = parser == nullptr ? kErrUnknown : parser->parse(file);
    if (code != 0) {
        delete parser;
        std::fclose(file);
        file = nullptr;
        return nullptr;
    }
    return parser;
}

} // namespace

ClipM4AAC::ClipM4AAC(int channels, float sample_rate, int bit_rate, BSFile* file)
    : ClipAC(channels, sample_rate, 16, file), nominal_bit_rate(bit_rate)
{
}

ClipM4AAC::~ClipM4AAC() = default;

int32_t ClipM4AAC::component_subtype()
{
    return kFormatAAC;
}

int32_t ClipM4AAC::format_id()
{
    return kFormatAAC;
}

int ClipM4AAC::frames_per_packet()
{
    return kFramesPerPacket;
}

int ClipM4AAC::nbackpackets()
{
    return kPacketsBehind;
}

int ClipM4AAC::nfwdpackets()
{
    return kPacketsAhead;
}

int ClipM4AAC::fade_start_fudge_factor()
{
    return -1;
}

int ClipM4AAC::fade_length_fudge_factor()
{
    return 1;
}

void ClipM4AAC::get_info(_kel_clip_info_t* info)
{
    fill_info(info, KEL_FORMAT_AAC);
}

ClipEncoder* ClipM4AAC::create_encoder(float source_rate)
{
    return new (std::nothrow) ClipEncoderAAC(source_rate, channels, sample_rate, nominal_bit_rate);
}

int ClipM4AAC::packet_preroll_count(int index, int* err)
{
    if (index < 0 || index >= packet_count) {
        if (err != nullptr)
            *err = kErrPacketNumber;
    }
    return 0;
}

bool ClipM4AAC::will_accept(Clip* other, int* err)
{
    int code = 0;
    auto* aac = dynamic_cast<ClipM4AAC*>(other);
    if (aac == nullptr)
        code = kErrClipType;
    else if (aac->channels != channels || aac->sample_rate != sample_rate ||
             aac->nominal_bit_rate != nominal_bit_rate)
        code = kErrClipMismatch;
    if (err != nullptr)
        *err = code;
    return code == 0;
}

Clip* ClipM4AAC::NewClip(BSFile* file)
{
    // The nominal rate, not get_info's measured average: a copy must stay
    // acceptable to the clip it came from.
    auto* clip = new (std::nothrow) ClipM4AAC(channels, sample_rate, nominal_bit_rate, file);
    if (clip == nullptr)
        return nullptr;
    if (!clip->init_codec()) {
        clip->close(nullptr);
        delete clip;
        return nullptr;
    }
    return clip;
}

ClipM4AAC* ClipM4AAC::create_empty(int channels, float sample_rate, int bit_rate, int* err)
{
    if ((channels != 1 && channels != 2) || !(sample_rate >= 0.0f)) {
        *err = kErrParameter;
        return nullptr;
    }
    auto* clip = new (std::nothrow) ClipM4AAC(channels, sample_rate, bit_rate, nullptr);
    if (clip == nullptr)
        *err = kErrUnknown;
    return clip;
}

int ClipM4AAC::detect(const char* path)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    const int code = M4A_ParserAAC::detect(f);
    std::fclose(f);
    return code;
}

ClipM4AAC* ClipM4AAC::open(const char* path, int* err, _kel_progress_ext_t* progress)
{
    FILE* f = nullptr;
    int code = 0;
    M4A_ParserAAC* parser = parse_file(path, f, code);
    if (parser == nullptr) {
        *err = code;
        return nullptr;
    }
    int channels = 0;
    float rate = 0.0f;
    int nominal = 0;
    parser->get_m4a_info(&channels, &rate, &nominal, nullptr);
    auto* clip = new (std::nothrow) ClipM4AAC(channels, rate, nominal, nullptr);
    code = clip == nullptr ? kErrUnknown : clip->load(path, parser, progress);
    if (code == 0 && !parser->edit_trims(clip->total_frames(), clip->start_trim, clip->end_trim))
        clip->start_trim = clip->end_trim = 0;
    delete parser;
    std::fclose(f);
    if (code != 0) {
        *err = code;
        if (clip != nullptr) {
            clip->close(nullptr);
            delete clip;
        }
        return nullptr;
    }
    return clip;
}

int ClipM4AAC::load(const char* path, M4A_Parser* parser, _kel_progress_ext_t* progress)
{
    if (codec == nullptr && !init_codec())
        return kErrCodec;
    if (backing_file != nullptr)
        return kErrInternal;
    report_progress(progress, 0.0f);
    BSFile* store = new (std::nothrow) BSFile();
    if (store == nullptr)
        return kErrUnknown;
    if (!store->open(path)) {
        delete store;
        return kErrOpenRead;
    }
    backing_file = store;

    const int count = parser->get_packet_count();
    const long long file_size = M4A_Parser::size_of_file(path);
    ProgressThrottle throttle(progress);
    int code = 0;
    for (int i = 0; i < count && code == 0; ++i) {
        long long offset = 0;
        int size = 0;
        int frames = 0;
        int rate = 0;
        if (parser->get_packet_info(i, &offset, &size, &frames) == 0 || size < 0) {
            code = kErrCorruptAac;
            break;
        }
        if (M4A_Parser::clamp_to_file(file_size, frames_per_packet(), offset, size, frames))
            source_damaged = true;
        if (!packet_bit_rate(size, sample_rate, frames, rate)) {
            code = kErrCorruptAac;
            break;
        }
        BSHandle* handle = store->NewHandle(offset, size);
        if (handle == nullptr) {
            code = kErrInternal;
            break;
        }
        auto* packet = new (std::nothrow) PacketM4AAC(rate, sample_rate, channels, frames, handle);
        handle->release();
        if (packet == nullptr) {
            code = kErrUnknown;
            break;
        }
        add_packet(packet);
        packet->release();
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            return kErrCancelled;
    }
    update_stream_info();
    if (nominal_bit_rate == 0)
        nominal_bit_rate = M4A_ParserAAC::round_bitrate_to_aac_standard(bit_rate());
    report_progress(progress, 100.0f);
    return code;
}

int ClipM4AAC::get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress)
{
    _kel_clip_info_t scratch{};
    if (info == nullptr)
        info = &scratch;
    FILE* f = nullptr;
    int code = 0;
    M4A_ParserAAC* parser = parse_file(path, f, code);
    if (parser == nullptr)
        return code;
    int channels = 0;
    float rate = 0.0f;
    parser->get_m4a_info(&channels, &rate, nullptr, nullptr);
    const int count = parser->get_packet_count();
    report_progress(progress, 0.0f);

    long long total_bytes = 0;
    long long total_frames = 0;
    int first_rate = 0;
    bool constant = true;
    ProgressThrottle throttle(progress);
    for (int i = 0; i < count && code == 0; ++i) {
        long long offset = 0;
        int size = 0;
        int frames = 0;
        int packet_rate = 0;
        // The offset too, so that a table claiming more packets than its
        // chunks hold ends here where the open ends, not billions later.
        if (parser->get_packet_info(i, &offset, &size, &frames) == 0 || size < 0 ||
            !packet_bit_rate(size, rate, std::min(frames, kFramesPerPacket), packet_rate)) {
            code = kErrCorruptAac;
            break;
        }
        total_bytes += size;
        total_frames += std::min(frames, kFramesPerPacket); // what a decoder yields
        if (i == 0)
            first_rate = packet_rate;
        else if (packet_rate != first_rate)
            constant = false;
        if (!throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i)))
            code = kErrCancelled;
    }
    delete parser;
    std::fclose(f);
    if (code != 0)
        return code;
    if (count == 0)
        return kErrEmpty;

    const double seconds = rate > 0.0f ? static_cast<double>(total_frames) / static_cast<double>(rate) : 0.0;
    info->format = KEL_FORMAT_AAC;
    info->channels = channels;
    info->sample_rate = rate;
    info->bits_per_sample = 16;
    info->duration = static_cast<float>(seconds);
    info->rate_mode = constant ? 1 : 2;
    // Tables may claim far more bytes than frames; the average is kept
    // within the field.
    const double average = seconds > 0.0 ? static_cast<double>(total_bytes) * 8.0 / seconds : 0.0;
    info->bit_rate = constant ? first_rate : average < static_cast<double>(INT_MAX) ? static_cast<int>(average) : INT_MAX;
    info->mpeg_version = 0;
    info->stereo_mode = 0;
    report_progress(progress, 100.0f);
    return 0;
}

int ClipM4AAC::save_to(const char* path, const void* first_block, int first_length, const void* second_block,
                       int second_length, int* err, _kel_progress_ext_t* progress)
{
    int code = 0;
    bool envelopes = false;
    for (int i = 0; i < packet_count; ++i)
        envelopes = envelopes || packets[i]->envelope != nullptr;

    if (packet_count == 0) {
        code = kErrEmpty;
    } else if (envelopes) {
        Clip* plain = convert_gains_and_envelopes_to_gains(&code);
        if (plain != nullptr) {
            plain->save_to(path, first_block, first_length, second_block, second_length, &code, progress);
            plain->close(nullptr);
            delete plain;
        }
    } else {
        // Packets of a few hundred bytes: 64 KiB of buffer, not stdio's 4 KiB.
        std::vector<char> buffer(1 << 16);
        FILE* f = std::fopen(path, "w+");
        if (f == nullptr) {
            code = kErrOpenWrite;
        } else {
            std::setvbuf(f, buffer.data(), _IOFBF, buffer.size());
            auto* saver = new (std::nothrow) M4A_SaverAAC(f);
            if (saver != nullptr && (start_trim > 0 || end_trim > 0))
                saver->set_edit(static_cast<uint32_t>(start_trim),
                                static_cast<uint32_t>(total_frames() - start_trim - end_trim));
            code = saver == nullptr ? kErrUnknown
                                    : saver->save(packets, packet_count, channels, sample_rate, nominal_bit_rate,
                                                  first_block, first_length, second_block, second_length,
                                                  progress);
            std::fclose(f);
            delete saver;
            if (code != 0 && code != kErrSavedWithErrors)
                unlink(path);
        }
    }
    if (code == 0 && source_damaged)
        code = kErrSavedWithErrors;
    if (err != nullptr)
        *err = code;
    return code;
}

} // namespace KEL
