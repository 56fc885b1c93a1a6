// A clip as the kel tool handles it: owned (closed when it goes), named
// after its file for messages, with its packets' positions in time, and
// saved in the format that the output file's extension asks for.
#ifndef KEL_TOOLS_TOOLCLIP_H
#define KEL_TOOLS_TOOLCLIP_H

#include "kel.h"

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace KEL::cli {

// An inclusive range of packet indices.
struct PacketRange {
    int first;
    int last;
};

// Frames [start, end) of a clip's decode, counted from the first frame of
// its first packet (the start trim included).
struct FrameRange {
    long long start;
    long long end;
};

// --start and --end as given (NAN when absent): seconds, or inclusive
// packet indices with --packets. command names the command in messages.
struct RangeSettings {
    double start = NAN;
    double end = NAN;
    bool packets = false;
    const char* command = "";
};

// What `convert` may change on the way; zeros keep the source's values.
struct SaveSettings {
    float sample_rate = 0.0f;
    int bits = 0;
    int bit_rate = 0; // bits per second, for MP3 and AAC
    bool vbr = false;
    // The codec asked for an .m4a output (KEL_FORMAT_AAC or _ALAC); 0 keeps
    // the source's where the container holds it, else AAC.
    int codec = 0;
    // Whether the output carries the tags of the clip's source file.
    bool tags = true;
    // Written over the carried tags when set (a piece of a split).
    std::string title;
    std::string artist;
    int track = 0;
};

class ToolClip {
public:
    // Opens a file, with a progress bar; reports failures and throws Exit.
    static ToolClip open(const std::string& path);
    // The same without stopping: a null clip and the code in error when
    // the file does not open (a cancellation still throws; a warning of a
    // clip that opened is printed).
    static ToolClip try_open(const std::string& path, int& error);

    // Takes ownership of a clip made elsewhere; name is used in messages.
    ToolClip(kel_clip_t* clip, std::string name);
    ~ToolClip();
    ToolClip(ToolClip&& other) noexcept;
    ToolClip& operator=(ToolClip&& other) noexcept;
    ToolClip(const ToolClip&) = delete;
    ToolClip& operator=(const ToolClip&) = delete;

    kel_clip_t* get() const { return clip_; }
    const std::string& name() const { return name_; }
    _kel_clip_info_t info() const;
    int packet_count() const;

    // Frame position of each packet boundary: entry i is where packet i
    // starts, the last entry the end of the clip (packet_count + 1 values).
    const std::vector<long long>& boundaries();
    // The boundary nearest to a time (ties go to the earlier one).
    int boundary_at(double seconds);
    double seconds_at(int boundary);
    double duration_seconds();

    // The packets an edit command works on: --start/--end in seconds
    // rounded to the nearest packet boundaries, or with --packets inclusive
    // packet indices. Absent ends mean the clip's ends. Refuses ranges that
    // hold no packet.
    PacketRange range(const RangeSettings& range);
    // "packets 43..85 (0.998 s to 1.997 s)".
    std::string describe(PacketRange range);

    // The clip's trims (kel_clip_get_trims).
    int start_trim() const;
    int end_trim() const;
    // The length players hear: the packets less the trims.
    double heard_seconds();
    // --start/--end in seconds of what players hear, to the nearest frame;
    // absent ends mean the heard ends. Refuses empty ranges.
    FrameRange frame_range(const RangeSettings& range);

    // A new clip of the frames [from, to) of this clip's decode (positions
    // counted from its first packet's first frame), frame-exact in every
    // format: the packets around them are trimmed away by the saved file
    // (MP3 in the LAME extension, MPEG-4 in an edit list, PCM by leaving
    // the frames out), with one lead packet in front where the decoder
    // needs it (MP3, AAC) and padding frames for an MP3 bit reservoir.
    ToolClip exact_copy(long long from, long long to);
    // For MP3, the synthetic frames that carry the bit reservoir of
    // `packet` (the main data it keeps in the frames before it); null when
    // it needs none, for other formats, or when they cannot be made (a
    // piece then starts with a frame that decodes partly).
    kel_clip_t* padding_frames(int packet) const;
    // Puts padding frames (if any) in front of the first packet.
    void put_in_front(const ToolClip& frames);

    // Writes the clip to `path`. The extension picks the format; when it
    // differs from the clip's or settings change a parameter, the clip is
    // transcoded first. The tags of tag_source() are copied in unless the
    // settings say not to. Progress bars for both steps; Ctrl-C or a failure
    // leaves no file at `path` (and an existing one untouched).
    void save(const std::string& path, const SaveSettings& settings = SaveSettings());

    // Closes the clip now.
    void close();

    // Records that gains or fades were set on packets of the range; save()
    // needs to know whether the last packet was among them.
    void note_edited(PacketRange range);

    // The file whose tags a save carries over: the file the clip was opened
    // from, or that of the clip a piece was taken from (empty: none).
    const std::string& tag_source() const { return tag_source_; }
    void set_tag_source(std::string path) { tag_source_ = std::move(path); }

private:
    kel_clip_t* clip_ = nullptr;
    std::string name_;
    std::vector<long long> boundaries_;
    std::string tag_source_;
    bool last_packet_edited_ = false;
};

} // namespace KEL::cli

#endif
