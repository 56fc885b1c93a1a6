#include "mp3/clipmp3.h"

#include "codec/codectypes.h"
#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/errorcodes.h"
#include "core/fourcc.h"
#include "core/progress.h"
#include "mp3/lametag.h"
#include "mp3/mp3framegain.h"
#include "mp3/mpegheader.h"
#include "mp3/packetmp3.h"
#include "mp3/wordreader.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace KEL {

namespace {

// ID3v2 tag header: "ID3", version (2 bytes), flags, then the size of the
// rest of the tag as four bytes of 7 bits each, most significant first.
constexpr int kTagHeaderBytes = 10;

// How far the search for the first two agreeing frames may wander. It is
// confident once a tag or an information frame has shown that the file is
// meant to be MPEG audio, and then searches further and blames the file
// ("Emp3") rather than the format ("Efmu") when it gives up.
constexpr int kConfidentLimit = 262144;
constexpr int kUnsureLimit = 16384;
// Frames that disagree with the one before them: the 13th ends the search.
constexpr int kMaxMismatches = 13;

// The other parameters of a clip's stream.
constexpr int kPacketsBehind = 9; // warm-up packets after a reset
constexpr int kPacketsAhead = 9;  // forward packets while the codec asks for input

// Reads the big-endian word at pos.
WordRead read_word(FILE* f, long long pos, unsigned int& word)
{
    unsigned char b[4];
    if (fseeko(f, pos, SEEK_SET) != 0)
        return WordRead::failed;
    if (std::fread(b, 1, sizeof b, f) != sizeof b)
        return std::feof(f) ? WordRead::end_of_file : WordRead::failed;
    word = mpeg_header_word(b);
    return WordRead::ok;
}

// Size of an open file in bytes, or -1; the position is left at pos.
long long file_size(FILE* f, long long pos)
{
    if (fseeko(f, 0, SEEK_END) != 0)
        return -1;
    const long long size = ftello(f);
    if (fseeko(f, pos, SEEK_SET) != 0)
        return -1;
    return size;
}

// The first frame of the two that establish a stream, and what the frames
// after it must agree with.
struct Candidate {
    long long position = 0;
    int type = 0;
    int layer = 0;
    int sample_rate = 0;
    int stereo = 0;
    int stereo_mode = 0;
};

Candidate candidate_of(long long position, const mpeg_frame_t& frame)
{
    Candidate c;
    c.position = position;
    c.type = mpeg_packet_type(frame);
    c.layer = frame.layer;
    c.sample_rate = frame.sample_rate;
    c.stereo = frame.stereo;
    c.stereo_mode = frame.stereo_mode;
    return c;
}

// Moves past an ID3v2 tag at the start of the file; true when there was one.
// The footer flag is not looked at.
bool skip_tag(FILE* f, long long& pos)
{
    unsigned char h[kTagHeaderBytes];
    pos = 0;
    if (fseeko(f, 0, SEEK_SET) != 0 || std::fread(h, 1, sizeof h, f) != sizeof h || std::memcmp(h, "ID3", 3) != 0)
        return false;
    const long long size = static_cast<long long>(h[9] & 0x7F) | (static_cast<long long>(h[8] & 0x7F) << 7) |
                           (static_cast<long long>(h[7] & 0x7F) << 14) | (static_cast<long long>(h[6] & 0x7F) << 21);
    pos = kTagHeaderBytes + size;
    return true;
}

// Moves past a "Xing" or "Info" information frame at pos; true when there
// was one. Its tag is looked for right after the side information; a CRC
// word is not allowed for.
bool skip_information_frame(FILE* f, long long& pos, LameTag& lame, bool& has_lame)
{
    unsigned int word = 0;
    mpeg_frame_t frame{};
    if (read_word(f, pos, word) != WordRead::ok || !decode_header(word, &frame))
        return false;
    const int side = mpeg_side_info_size(frame.version == 1, frame.stereo == 0);
    if (read_word(f, pos + 4 + side, word) != WordRead::ok)
        return false;
    if (word != static_cast<unsigned int>(fourcc("Xing")) && word != static_cast<unsigned int>(fourcc("Info")))
        return false;
    // The frame whole, for the delay and padding of its LAME extension (a
    // header describes at most 2881 bytes; a file cut short reads less).
    std::vector<unsigned char> bytes(static_cast<size_t>(frame.frame_length));
    const size_t got = fseeko(f, pos, SEEK_SET) == 0 ? std::fread(bytes.data(), 1, bytes.size(), f) : 0;
    has_lame = lame.read(bytes.data(), static_cast<int>(got), 4 + side);
    pos += frame.frame_length;
    return true;
}

// Searches from pos for two consecutive agreeing frames. Returns 0 with
// found set and the first of them in start, 0 with found clear when the
// file ended first without a read error, or the code of the failure.
int find_stream(FILE* f, long long pos, bool confident, Candidate& start, bool& found)
{
    const int limit = confident ? kConfidentLimit : kUnsureLimit;
    const int give_up = confident ? kErrCorruptMp3 : kErrFormatUnrecognized;
    int junk = 0;
    int bad_headers = 0;
    int mismatches = 0;
    bool have_candidate = false;
    Candidate candidate;
    found = false;

    WordReader reader(f);
    for (;;) {
        unsigned int word = 0;
        const WordRead got = reader.read(pos, word);
        if (got != WordRead::ok) {
            if (!confident)
                return kErrFormatUnrecognized;
            return got == WordRead::end_of_file ? kErrEof : kErrIo;
        }
        if (!mpeg_has_sync(word)) {
            if (++junk > limit)
                return give_up;
            ++pos;
            have_candidate = false;
            continue;
        }
        junk = 0;
        mpeg_frame_t frame{};
        if (!decode_header(word, &frame)) {
            if (++bad_headers > limit)
                return give_up;
            ++pos;
            have_candidate = false;
            continue;
        }
        if (!have_candidate) {
            candidate = candidate_of(pos, frame);
            have_candidate = true;
            pos += frame.frame_length;
            continue;
        }
        const bool agrees = frame.sample_rate == candidate.sample_rate && frame.stereo == candidate.stereo &&
                            mpeg_packet_type(frame) == candidate.type && frame.layer == candidate.layer;
        if (agrees) {
            if (frame.layer != 3)
                return kErrFormatUnsupported;
            start = candidate;
            found = true;
            return 0;
        }
        if (++mismatches >= kMaxMismatches)
            return give_up;
        pos = candidate.position + 1;
        have_candidate = false;
    }
}

// What a frame must match to belong to a loaded stream.
struct StreamMatch {
    int type;
    int sample_rate;
    int channels;
};

bool matches(const mpeg_frame_t& frame, const StreamMatch& m)
{
    return mpeg_packet_type(frame) == m.type && frame.sample_rate == m.sample_rate &&
           (frame.stereo != 0 ? 2 : 1) == m.channels;
}

// Walks the frames of f from pos to the end of the file. Words without sync,
// invalid headers and frames of another stream are passed over a byte at a
// time, without limit. For every matching frame, whole or not, take(position,
// frame, whole) is called, whole meaning that the file holds all of its
// bytes; a non-zero result of take ends the walk with that code. Progress is
// the position over the file size; cancelling gives "Ebrk".
template <typename Take>
int walk_stream(FILE* f, long long pos, long long size, const StreamMatch& match, ProgressThrottle& throttle,
                Take take)
{
    WordReader reader(f);
    for (;;) {
        unsigned int word = 0;
        const WordRead got = reader.read(pos, word);
        if (got == WordRead::end_of_file)
            return 0;
        if (got == WordRead::failed)
            return kErrIo;
        mpeg_frame_t frame{};
        if (!mpeg_has_sync(word) || !decode_header(word, &frame) || !matches(frame, match)) {
            ++pos;
            continue;
        }
        if (const int code = take(pos, frame, pos + frame.frame_length <= size))
            return code;
        const float percent =
            size > 0 ? static_cast<float>(static_cast<double>(pos) * 100.0 / static_cast<double>(size)) : 0.0f;
        if (!throttle.step(percent))
            return kErrCancelled;
        pos += frame.frame_length;
    }
}

// The clip's packets as the frame sequence of the bit-reservoir walk.
class PacketFrames : public Mp3FrameSource {
public:
    explicit PacketFrames(const Clip& clip) : clip_(clip) {}

    int frame_count() override { return clip_.packet_count; }
    int frame_length(int index) override
    {
        const Packet* packet = clip_.get_packet(index);
        return packet != nullptr && packet->handle != nullptr ? packet->handle->size : 0;
    }
    int main_data_begin(int index, int& err) override
    {
        PacketMP3* packet = frame(index);
        if (packet == nullptr) {
            err = kErrInternal;
            return 0;
        }
        return packet->get_main_data_begin(err);
    }
    int static_part_size(int index, int& err) override
    {
        PacketMP3* packet = frame(index);
        if (packet == nullptr) {
            err = kErrInternal;
            return 0;
        }
        return packet->static_part_size(err);
    }

private:
    PacketMP3* frame(int index) { return dynamic_cast<PacketMP3*>(clip_.get_packet(index)); }

    const Clip& clip_;
};

} // namespace

ClipMP3::ClipMP3(int channels, float sample_rate, int type, int stereo_mode, int bit_rate, BSFile* file)
    : ClipAC(channels, sample_rate, 16, file), type(type), stereo_mode(stereo_mode), nominal_bit_rate(bit_rate)
{
}

ClipMP3::~ClipMP3() = default;

int32_t ClipMP3::component_subtype()
{
    return kFormatMP3;
}

int32_t ClipMP3::format_id()
{
    return kFormatMP3;
}

int ClipMP3::frames_per_packet()
{
    return type == Packet::TypeMP3v1 ? 1152 : 576;
}

int ClipMP3::nbackpackets()
{
    return kPacketsBehind;
}

int ClipMP3::nfwdpackets()
{
    return kPacketsAhead;
}

int ClipMP3::fade_start_fudge_factor()
{
    return -2;
}

int ClipMP3::fade_length_fudge_factor()
{
    return 1;
}

int ClipMP3::mpeg_version() const
{
    switch (type) {
    case Packet::TypeMP3v1:
        return 1;
    case Packet::TypeMP3v2:
        return 2;
    case Packet::TypeMP3v25:
        return 3;
    default:
        return 0;
    }
}

void ClipMP3::get_info(_kel_clip_info_t* info)
{
    fill_info(info, KEL_FORMAT_MP3);
    info->mpeg_version = mpeg_version();
    info->stereo_mode = stereo_mode;
}

bool ClipMP3::will_accept(Clip* other, int* err)
{
    int code = 0;
    auto* mp3 = dynamic_cast<ClipMP3*>(other);
    if (mp3 == nullptr) {
        code = kErrClipType;
    } else if (channels != mp3->channels || sample_rate != mp3->sample_rate ||
               mpeg_version() != mp3->mpeg_version() || stereo_mode != mp3->stereo_mode) {
        // The fields the two information records would hold, read directly:
        // filling the records would also settle both clips' stream figures.
        code = kErrClipMismatch;
    }
    if (err != nullptr)
        *err = code;
    return code == 0;
}

int ClipMP3::packet_preroll_count(int index, int* err)
{
    PacketFrames frames(*this);
    int code = 0;
    const int count = mp3_preroll_count(frames, index, code);
    if (err != nullptr)
        *err = code;
    return count;
}

bool ClipMP3::packet_needs_fresh_codec(int index)
{
    auto* packet = dynamic_cast<PacketMP3*>(get_packet(index));
    auto* before = dynamic_cast<PacketMP3*>(get_packet(index - 1));
    if (packet == nullptr || before == nullptr || packet->follows_in_stream(*before))
        return false;
    int err = 0;
    return packet->get_main_data_begin(err) > 0 && err == 0;
}

Clip* ClipMP3::NewClip(BSFile* file)
{
    auto* clip = new (std::nothrow) ClipMP3(channels, sample_rate, type, stereo_mode, nominal_bit_rate, file);
    if (clip == nullptr)
        return nullptr;
    if (!clip->init_codec()) {
        clip->close(nullptr);
        delete clip;
        return nullptr;
    }
    return clip;
}

Clip* ClipMP3::create_empty(int channels, float sample_rate, int bit_rate, bool, int* err)
{
    if ((channels != 1 && channels != 2) || !(sample_rate >= 0.0f)) {
        *err = kErrParameter;
        return nullptr;
    }
    const int mode = channels == 1 ? KELClipStereoModeSingleChannel : KELClipStereoModeJointStereo;
    auto* clip = new (std::nothrow) ClipMP3(channels, sample_rate, Packet::TypeMP3v1, mode, bit_rate, nullptr);
    if (clip == nullptr)
        *err = kErrUnknown;
    return clip;
}

int ClipMP3::detect(const char* path)
{
    int e = 0;
    open(path, &e, nullptr, true, true);
    return e;
}

Clip* ClipMP3::open(const char* path, int* err, _kel_progress_ext_t* progress, bool detect_only, bool header_only)
{
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) {
        *err = kErrOpenRead;
        return nullptr;
    }
    long long pos = 0;
    const bool tagged = skip_tag(f, pos);
    LameTag lame;
    bool has_lame = false;
    const bool informed = skip_information_frame(f, pos, lame, has_lame);
    std::clearerr(f);

    Candidate start;
    bool found = false;
    const int code = find_stream(f, pos, tagged || informed, start, found);
    if (code != 0)
        *err = code;
    if (code != 0 || !found || detect_only) {
        std::fclose(f);
        return nullptr;
    }

    auto* clip = new (std::nothrow)
        ClipMP3(start.stereo != 0 ? 2 : 1, static_cast<float>(start.sample_rate), start.type, start.stereo_mode, 0,
                nullptr);
    if (clip == nullptr) {
        *err = kErrUnknown;
        std::fclose(f);
        return nullptr;
    }
    if (!header_only) {
        const int loaded =
            fseeko(f, start.position, SEEK_SET) == 0 ? clip->load(f, path, progress) : kErrIo;
        if (loaded != 0) {
            *err = loaded;
            clip->close(nullptr);
            delete clip;
            clip = nullptr;
        } else if (has_lame) {
            // Decoders drop the delay plus their own, and the padding less
            // their own; values that do not fit the stream are not trusted.
            const long long frames = static_cast<long long>(clip->packet_count) * clip->frames_per_packet();
            const int start_trim = lame.delay + LameTag::kDecoderDelay;
            const int end_trim = std::max(0, lame.padding - LameTag::kDecoderDelay);
            if (static_cast<long long>(start_trim) + end_trim < frames) {
                clip->start_trim = start_trim;
                clip->end_trim = end_trim;
            }
        }
    }
    std::fclose(f);
    return clip;
}

int ClipMP3::load(FILE* file, const char* path, _kel_progress_ext_t* progress)
{
    if (codec == nullptr && !init_codec())
        return kErrCodec;
    if (backing_file != nullptr)
        return kErrInternal;
    const long long start = ftello(file);
    const long long size = start < 0 ? -1 : file_size(file, start);
    if (size < 0)
        return kErrIo;
    report_progress(progress, 0.0f);

    BSFile* store = new (std::nothrow) BSFile();
    if (store == nullptr)
        return kErrUnknown;
    if (!store->open(path)) {
        delete store;
        return kErrOpenRead;
    }
    backing_file = store;

    const StreamMatch match{type, static_cast<int>(sample_rate), channels};
    const int frames = frames_per_packet();
    ProgressThrottle throttle(progress);
    // Where the next frame starts when nothing is skipped, and the running
    // stream number (PacketMP3::stream_serial).
    long long expected = start;
    int serial = -1;
    const int code = walk_stream(file, start, size, match, throttle,
                                 [&](long long pos, const mpeg_frame_t& frame, bool whole) -> int {
                                     // A last frame cut short is no packet.
                                     if (!whole)
                                         return 0;
                                     serial += pos == expected ? 1 : 2;
                                     expected = pos + frame.frame_length;
                                     BSHandle* handle = store->NewHandle(pos, frame.frame_length);
                                     if (handle == nullptr)
                                         return kErrInternal;
                                     auto* packet = new (std::nothrow) PacketMP3(
                                         frame.bit_rate, sample_rate, channels, frames, type, handle);
                                     handle->release();
                                     if (packet == nullptr)
                                         return kErrUnknown;
                                     packet->stream_serial = serial;
                                     add_packet(packet);
                                     packet->release();
                                     if (frame.bit_rate > nominal_bit_rate)
                                         nominal_bit_rate = frame.bit_rate;
                                     return 0;
                                 });
    if (code != 0)
        return code;
    update_stream_info();
    report_progress(progress, 100.0f);
    return 0;
}

int ClipMP3::get_file_info(const char* path, _kel_clip_info_t* info, _kel_progress_ext_t* progress)
{
    _kel_clip_info_t scratch{};
    if (info == nullptr)
        info = &scratch;
    int e = 0;
    Clip* header = open(path, &e, progress, false, true);
    if (header == nullptr)
        return e;
    auto* clip = static_cast<ClipMP3*>(header);
    clip->get_info(info);
    const StreamMatch match{clip->type, static_cast<int>(clip->sample_rate), clip->channels};
    const int frames = clip->frames_per_packet();
    clip->close(nullptr);
    delete clip;

    FILE* f = std::fopen(path, "r");
    if (f == nullptr)
        return kErrOpenRead;
    const long long size = file_size(f, 0);
    if (size < 0) {
        std::fclose(f);
        return kErrIo;
    }
    report_progress(progress, 0.0f);

    // The whole file is walked, from its first byte.
    long long total_bytes = 0;
    long long total_frames = 0;
    int first_rate = 0;
    bool constant = true;
    bool any = false;
    ProgressThrottle throttle(progress);
    const int code = walk_stream(f, 0, size, match, throttle,
                                 [&](long long, const mpeg_frame_t& frame, bool whole) -> int {
                                     if (!whole)
                                         return 0;
                                     total_bytes += frame.frame_length;
                                     total_frames += frames;
                                     if (!any) {
                                         first_rate = frame.bit_rate;
                                         any = true;
                                     } else if (frame.bit_rate != first_rate) {
                                         constant = false;
                                     }
                                     return 0;
                                 });
    std::fclose(f);
    if (code != 0)
        return code;

    const float duration = info->sample_rate > 0.0f
                               ? static_cast<float>(static_cast<double>(total_frames) /
                                                    static_cast<double>(info->sample_rate))
                               : 0.0f;
    info->duration = duration;
    if (constant) {
        info->bit_rate = first_rate;
        info->rate_mode = 1;
    } else {
        info->bit_rate =
            duration > 0.0f ? static_cast<int>(static_cast<double>(total_bytes) * 8.0 / static_cast<double>(duration))
                            : 0;
        info->rate_mode = 2;
    }
    report_progress(progress, 100.0f);
    return 0;
}

} // namespace KEL
