#include "toolclip.h"

#include "cli_common.h"
#include "console.h"
#include "partialfile.h"
#include "progressbar.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace KEL::cli {

namespace {

bool is_pcm(int format)
{
    return format == KEL_FORMAT_WAVE || format == KEL_FORMAT_AIFF || format == KEL_FORMAT_CAF;
}

// The parameters of the file to write: the settings where given, else the
// source's, within what the target format can hold.
struct Target {
    int format;
    int channels;
    float sample_rate;
    int bits;
    int bit_rate;
};

Target choose_target(int format, const _kel_clip_info_t& source, const SaveSettings& s)
{
    Target t{format, std::min(source.channels, 2), source.sample_rate, source.bits_per_sample, source.bit_rate};
    if (s.sample_rate > 0.0f)
        t.sample_rate = s.sample_rate;
    if (s.bits != 0)
        t.bits = s.bits;
    else if (format == KEL_FORMAT_CAF || (t.bits != 16 && t.bits != 24))
        t.bits = 16; // CAF holds 16-bit samples only
    if (s.bit_rate != 0)
        t.bit_rate = s.bit_rate;
    else if (is_pcm(source.format) || t.bit_rate <= 0)
        t.bit_rate = 128000;
    return t;
}

double duration_of(kel_clip_t* clip)
{
    _kel_clip_info_t i{};
    kel_clip_info(clip, &i);
    return i.duration;
}

bool is_lossless(int format)
{
    return is_pcm(format) || format == KEL_FORMAT_ALAC;
}

// Reopens a written file and decodes its first and last packets, so that
// no command reports success for a file that does not play back. Returns
// the library's code, or 0.
int check_written(const std::string& path)
{
    int err = 0;
    kel_clip_t* clip = kel_clip_open(path.c_str(), &err, nullptr);
    if (clip == nullptr)
        return err != 0 ? err : KEL_ERR_UNKNOWN;
    err = 0;
    const int count = kel_clip_packet_count(clip);
    std::vector<float> left;
    std::vector<float> right;
    for (const int p : {0, count - 1}) {
        const int frames = kel_clip_packet_frame_count(clip, p, &err);
        if (err != 0)
            break;
        left.assign(static_cast<size_t>(std::max(frames, 1)), 0.0f);
        right.assign(left.size(), 0.0f);
        float* buffers[2] = {left.data(), right.data()};
        kel_clip_packet_decode(clip, p, buffers, &err);
        if (err != 0)
            break;
    }
    kel_clip_close(clip, nullptr);
    return err;
}

bool needs_transcode(const Target& t, const _kel_clip_info_t& source, const SaveSettings& s)
{
    if (t.format != source.format || t.sample_rate != source.sample_rate)
        return true;
    if (is_pcm(t.format) || t.format == KEL_FORMAT_ALAC)
        return t.bits != source.bits_per_sample;
    return s.bit_rate != 0 || s.vbr; // coded formats re-encode only when asked
}

// Tags go in before the written file is checked and renamed into place, so
// that the check covers the file as it will stay. A tag block that cannot
// be read, or a format without a place for tags, costs the tags only.
void copy_tags(const std::string& source, const std::string& written, const std::string& target, int format)
{
    if (source.empty())
        return;
    int err = 0;
    kel_tags_copy(source.c_str(), written.c_str(), &err);
    if (KELErrorIsFatal(err))
        fail_library(err, source);
    if (err == 0)
        return;
    if (format == KEL_FORMAT_CAF)
        Console::err("kel: warning: %s: CAF files take no tags; those of %s were left out (%s)\n",
                     target.c_str(), source.c_str(), code_text(err).c_str());
    else
        Console::err(
                     "kel: warning: %s: the tags of %s could not be read or written and were left out; the audio "
                     "is saved whole (%s)\n",
                     target.c_str(), source.c_str(), code_text(err).c_str());
}

// Packets a copy keeps in front of the first one it wants, and trims:
// MP3's synthesis and AAC's transform overlap each frame with the one
// before, so the first wanted one decodes as in its source only after it.
int lead_packets(int format)
{
    return format == KEL_FORMAT_MP3 || format == KEL_FORMAT_AAC ? 1 : 0;
}

// The largest start trim an MP3 file can say: the 12-bit delay field plus
// the decoder's own delay.
constexpr int kMaxMp3StartTrim = 4095 + 529;

// A piece's own title, artist and number over the tags carried into it;
// a file that cannot take them keeps its audio and says so.
void set_track_tags(const SaveSettings& s, const std::string& written, const std::string& target, int format)
{
    int err = 0;
    kel_tags_set_track(written.c_str(), s.title.empty() ? nullptr : s.title.c_str(),
                       s.artist.empty() ? nullptr : s.artist.c_str(), s.track, &err);
    if (err == 0)
        return;
    if (err != KEL_ERR_SAVED_WITH_ERRORS && err != KEL_ERR_UNSUPPORTED)
        fail_library(err, target);
    Console::err("kel: warning: %s: %s; its title and track number were left out (%s)\n", target.c_str(),
                 format == KEL_FORMAT_CAF ? "CAF files take no tags" : "the tags could not be written",
                 code_text(err).c_str());
}

} // namespace

ToolClip ToolClip::try_open(const std::string& path, int& error)
{
    int err = 0;
    kel_clip_t* clip = nullptr;
    {
        ProgressBar bar("open");
        clip = kel_clip_open(path.c_str(), &err, bar.record());
    }
    ToolClip owned(clip, path);
    check_interrupt();
    error = clip == nullptr ? (err != 0 ? err : KEL_ERR_UNKNOWN) : 0;
    if (clip != nullptr && err != 0)
        warn_library(err, path);
    if (clip != nullptr)
        owned.tag_source_ = path;
    return owned;
}

ToolClip ToolClip::open(const std::string& path)
{
    int error = 0;
    ToolClip owned = try_open(path, error);
    if (owned.get() == nullptr)
        fail_library(error, path);
    return owned;
}

ToolClip::ToolClip(kel_clip_t* clip, std::string name) : clip_(clip), name_(std::move(name)) {}

ToolClip::~ToolClip()
{
    close();
}

ToolClip::ToolClip(ToolClip&& other) noexcept
    : clip_(std::exchange(other.clip_, nullptr)), name_(std::move(other.name_)),
      boundaries_(std::move(other.boundaries_)), tag_source_(std::move(other.tag_source_))
{
}

ToolClip& ToolClip::operator=(ToolClip&& other) noexcept
{
    if (this != &other) {
        close();
        clip_ = std::exchange(other.clip_, nullptr);
        name_ = std::move(other.name_);
        boundaries_ = std::move(other.boundaries_);
        tag_source_ = std::move(other.tag_source_);
    }
    return *this;
}

void ToolClip::note_edited(PacketRange range)
{
    if (range.last == packet_count() - 1)
        last_packet_edited_ = true;
}

void ToolClip::close()
{
    if (clip_ != nullptr)
        kel_clip_close(clip_, nullptr);
    clip_ = nullptr;
    boundaries_.clear();
}

_kel_clip_info_t ToolClip::info() const
{
    _kel_clip_info_t info{};
    kel_clip_info(clip_, &info);
    return info;
}

int ToolClip::packet_count() const
{
    return kel_clip_packet_count(clip_);
}

const std::vector<long long>& ToolClip::boundaries()
{
    // Edits change the packet count; the table is rebuilt when it no longer
    // matches.
    const int count = packet_count();
    if (boundaries_.size() == static_cast<size_t>(count) + 1)
        return boundaries_;
    boundaries_.assign(1, 0);
    boundaries_.reserve(static_cast<size_t>(count) + 1);
    for (int i = 0; i < count; ++i) {
        int err = 0;
        const int frames = kel_clip_packet_frame_count(clip_, i, &err);
        if (err != 0)
            fail_library(err, name_);
        boundaries_.push_back(boundaries_.back() + frames);
    }
    return boundaries_;
}

int ToolClip::boundary_at(double seconds)
{
    const std::vector<long long>& b = boundaries();
    const double frame = seconds * static_cast<double>(info().sample_rate);
    // First boundary at or after the frame, then the nearer of it and the
    // one before.
    const auto after = std::lower_bound(b.begin(), b.end(), frame,
                                        [](long long v, double f) { return static_cast<double>(v) < f; });
    if (after == b.end())
        return static_cast<int>(b.size()) - 1;
    const int index = static_cast<int>(after - b.begin());
    if (index > 0 && frame - static_cast<double>(b[index - 1]) <= static_cast<double>(*after) - frame)
        return index - 1;
    return index;
}

double ToolClip::seconds_at(int boundary)
{
    const float rate = info().sample_rate;
    return rate > 0.0f ? static_cast<double>(boundaries().at(static_cast<size_t>(boundary))) / rate : 0.0;
}

double ToolClip::duration_seconds()
{
    return seconds_at(packet_count());
}

namespace {

// A packet index from --start or --end with --packets.
long packet_index(const RangeSettings& r, double value, const char* name, long fallback)
{
    if (std::isnan(value))
        return fallback;
    if (value != std::floor(value))
        fail_usage(r.command, strprintf("--%s wants a whole number with --packets", name));
    return static_cast<long>(std::max(-1.0, std::min(value, 2147483647.0)));
}

void check_start(const RangeSettings& r)
{
    if (r.start < 0.0)
        fail_usage(r.command, "--start must not be below 0");
}

} // namespace

PacketRange ToolClip::range(const RangeSettings& o)
{
    const int count = packet_count();
    if (count < 1)
        fail(name_ + ": the clip holds no packets");
    if (o.packets) {
        const long first = packet_index(o, o.start, "start", 0);
        const long last = packet_index(o, o.end, "end", count - 1);
        if (first < 0 || last >= count || last < first)
            fail(strprintf("%s: packets %ld..%ld are not a range within 0..%d", name_.c_str(), first, last,
                           count - 1));
        return {static_cast<int>(first), static_cast<int>(last)};
    }
    check_start(o);
    const double duration = duration_seconds();
    const double start = std::isnan(o.start) ? 0.0 : o.start;
    const double end = std::isnan(o.end) ? duration : o.end;
    if (end <= start)
        fail_usage(o.command, "--end must come after --start");
    if (start >= duration)
        fail(strprintf("%s: the range starts at %.3f s, but the file is %.3f s long", name_.c_str(), start,
                       duration));
    const int first = boundary_at(start);
    const int stop = boundary_at(end);
    if (stop <= first)
        fail(strprintf("%s: %.3f s to %.3f s holds no whole packet (packets here are %.3f s long)", name_.c_str(),
                       start, std::min(end, duration), seconds_at(std::min(first + 1, count)) - seconds_at(first)));
    return {first, stop - 1};
}

int ToolClip::start_trim() const
{
    int start = 0;
    kel_clip_get_trims(clip_, &start, nullptr);
    return start;
}

int ToolClip::end_trim() const
{
    int end = 0;
    kel_clip_get_trims(clip_, nullptr, &end);
    return end;
}

double ToolClip::heard_seconds()
{
    const float rate = info().sample_rate;
    const long long frames = boundaries().back() - start_trim() - end_trim();
    return rate > 0.0f ? static_cast<double>(frames) / rate : 0.0;
}

FrameRange ToolClip::frame_range(const RangeSettings& o)
{
    if (packet_count() < 1)
        fail(name_ + ": the clip holds no packets");
    check_start(o);
    const double rate = info().sample_rate;
    const double duration = heard_seconds();
    const double start = std::isnan(o.start) ? 0.0 : o.start;
    const double end = std::isnan(o.end) ? duration : std::min(o.end, duration);
    if (!std::isnan(o.end) && o.end <= start)
        fail_usage(o.command, "--end must come after --start");
    if (start >= duration)
        fail(strprintf("%s: the range starts at %.3f s, but the file is %.3f s long", name_.c_str(), start,
                       duration));
    const long long first = static_cast<long long>(std::llround(start * rate));
    const long long last = static_cast<long long>(std::llround(end * rate));
    if (last <= first)
        fail(strprintf("%s: %.6f s to %.6f s holds no frame", name_.c_str(), start, end));
    return {first + start_trim(), last + start_trim()};
}

kel_clip_t* ToolClip::padding_frames(int packet) const
{
    if (info().format != KEL_FORMAT_MP3 || packet < 0 || packet >= packet_count())
        return nullptr;
    int err = 0;
    kel_clip_t* padding = kel_clip_create_padding_clip(clip_, packet, &err);
    if (err != 0 && padding != nullptr) {
        kel_clip_close(padding, nullptr);
        padding = nullptr;
    }
    return padding;
}

void ToolClip::put_in_front(const ToolClip& frames)
{
    if (frames.get() == nullptr)
        return;
    int err = 0;
    kel_clip_insert(clip_, 0, frames.get(), &err);
    if (err != 0)
        fail_library(err, name_);
    Console::out("put %d padding frames in front for the bit reservoir of the first kept frame\n",
                frames.packet_count());
}

ToolClip ToolClip::exact_copy(long long from, long long to)
{
    const std::vector<long long>& b = boundaries();
    const auto packet_at = [&](long long frame) {
        return static_cast<int>(std::upper_bound(b.begin(), b.end(), frame) - b.begin()) - 1;
    };
    const int first = packet_at(from);
    const int last = packet_at(to - 1);
    const int format = info().format;
    for (int lead = std::min(first, lead_packets(format));; --lead) {
        const int start = first - lead;
        ToolClip padding(padding_frames(start), name_);
        int err = 0;
        ToolClip piece(kel_clip_copy(clip_, start, last, &err), name_);
        if (piece.get() == nullptr)
            fail_library(err, name_);
        long long in_front = 0;
        if (padding.get() != nullptr)
            in_front = padding.boundaries().back();
        const long long start_trim = from - b[static_cast<size_t>(start)] + in_front;
        if (format == KEL_FORMAT_MP3 && start_trim > kMaxMp3StartTrim && lead > 0)
            continue; // too far for the delay field: no lead frame then
        piece.put_in_front(padding);
        if (!kel_clip_set_trims(piece.get(), static_cast<int>(std::min<long long>(start_trim, INT32_MAX)),
                                static_cast<int>(b[static_cast<size_t>(last) + 1] - to), &err))
            fail_library(err, name_);
        return piece;
    }
}

std::string ToolClip::describe(PacketRange r)
{
    return strprintf("packets %d..%d (%.3f s to %.3f s)", r.first, r.last, seconds_at(r.first), seconds_at(r.last + 1));
}

void ToolClip::save(const std::string& path, const SaveSettings& settings)
{
    int format = format_for_path(path);
    if (format == 0)
        fail(path + ": cannot tell the format from the file name; use " + writable_extensions());
    if (packet_count() < 1)
        fail(name_ + ": the clip is empty; nothing to save");

    const _kel_clip_info_t source = info();
    if (format == KEL_FORMAT_AAC) {
        // An .m4a keeps the source's codec unless another is asked for, so
        // that a lossless source is never written lossy by its extension.
        if (settings.codec != 0)
            format = settings.codec;
        else if (source.format == KEL_FORMAT_ALAC)
            format = KEL_FORMAT_ALAC;
    } else if (settings.codec != 0) {
        fail(path + ": --codec chooses the codec of an .m4a file only");
    }
    if (is_lossless(source.format) && !is_lossless(format))
        Console::out("note: %s holds lossless audio; %s is written as %s, which is lossy\n", name_.c_str(),
                    path.c_str(), format_name(format));
    const Target t = choose_target(format, source, settings);
    ToolClip converted(nullptr, path);
    kel_clip_t* to_save = clip_;
    // The library writes a changed Apple Lossless packet shorter than the
    // others (a file's last one) as a bare uncompressed frame without its
    // length, which its own decoder reads but ffmpeg and other players do
    // not. Encoding the clip anew writes only whole, standard packets; the
    // last one is completed with silence.
    bool reencode_tail = false;
    if (t.format == KEL_FORMAT_ALAC && source.format == KEL_FORMAT_ALAC && last_packet_edited_) {
        int err = 0;
        const int last = kel_clip_packet_frame_count(clip_, packet_count() - 1, &err);
        reencode_tail = err == 0 && last < kel_clip_packet_frame_count(clip_, 0, &err);
        if (reencode_tail)
            Console::out("note: the short last packet changed; the audio is encoded again as whole packets, "
                        "so %d frames of silence end the file\n",
                        kel_clip_packet_frame_count(clip_, 0, &err) - last);
    }
    if (reencode_tail || needs_transcode(t, source, settings)) {
        int err = 0;
        ToolClip empty(kel_clip_create(t.format, t.channels, t.sample_rate, t.bits, t.bit_rate, settings.vbr ? 1 : 0,
                                       &err),
                       path);
        if (empty.get() == nullptr) {
            if (err == KEL_ERR_CLIP_TYPE || err == KEL_ERR_NOT_IMPLEMENTED)
                fail(strprintf("%s: %s files cannot be written yet by this build of the library (%s)", path.c_str(),
                               format_name(t.format), code_text(err).c_str()));
            fail_library(err != 0 ? err : KEL_ERR_UNKNOWN, path);
        }
        err = 0;
        kel_clip_t* result = nullptr;
        {
            ProgressBar bar("convert");
            result = kel_clip_transcode_exact(empty.get(), clip_, &err, bar.record());
        }
        converted = ToolClip(result, path);
        check_interrupt();
        // A packet that does not decode is the source's fault, not the output's.
        if (result == nullptr)
            fail_library(err != 0 ? err : KEL_ERR_TRANSCODE, err == KEL_ERR_DECODE ? name_ : path);
        if (err != 0)
            warn_library(err, name_);
        to_save = result;
        // The result is trimmed to the frames the source plays (the
        // encoder's priming, the source's trims, the silence completing the
        // last packet), which the saved file's LAME tag or edit list says.
        if (reencode_tail)
            Console::out("(the frames that complete it are trimmed by the file's edit list)\n");
    }

    PartialFile partial(path);
    int err = 0;
    {
        ProgressBar bar("save");
        kel_clip_save_to(to_save, partial.path().c_str(), nullptr, 0, nullptr, 0, &err, bar.record());
    }
    // Saving runs to its end even when the callback says stop; the tool
    // drops the finished file instead (PartialFile removes it).
    check_interrupt();
    if (KELErrorIsFatal(err))
        fail_library(err, err == KEL_ERR_DECODE ? name_ : path);
    if (err != 0)
        warn_library(err, path);
    if (settings.tags)
        copy_tags(tag_source_, partial.path(), path, t.format);
    if (!settings.title.empty() || !settings.artist.empty() || settings.track > 0)
        set_track_tags(settings, partial.path(), path, t.format);
    // Readers (this library's scan, ffmpeg's probe) recognise an MP3 stream
    // by two frames in a row, so one frame alone is not found again. The
    // file is what was asked for and is kept, but the status says it will
    // not play.
    const bool single_mp3_frame = t.format == KEL_FORMAT_MP3 && kel_clip_packet_count(to_save) == 1;
    if (!single_mp3_frame) {
        if (const int bad = check_written(partial.path()))
            fail(strprintf("%s: the file written from %s does not decode again (%s); nothing was written",
                           path.c_str(), name_.c_str(), code_text(bad).c_str()));
    }
    partial.commit();
    if (single_mp3_frame) {
        Console::err(
                     "kel: warning: %s holds a single MP3 frame (%.3f s); neither kel nor ffmpeg opens such a "
                     "file again (the file is kept)\n",
                     path.c_str(), duration_of(to_save));
        throw Exit{kExitFailure};
    }
}

} // namespace KEL::cli
