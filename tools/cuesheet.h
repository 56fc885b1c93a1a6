// The tracks of a cue sheet, read with libcue: where each starts (its
// INDEX 01, in CD frames of 1/75 s) and its title and performer (the
// sheet's own performer when the track names none).
#ifndef KEL_TOOLS_CUESHEET_H
#define KEL_TOOLS_CUESHEET_H

#include <string>
#include <vector>

namespace KEL::cli {

class CueSheet {
public:
    struct Track {
        long start;  // CD frames (75 per second) from the file's start
        std::string title;
        std::string performer;
    };

    // A cue sheet larger than this is not one (about 30 lines per track).
    static constexpr long kMaxBytes = 1L << 20;
    static constexpr int kFramesPerSecond = 75;

    // Reads and parses the sheet; an unreadable or empty sheet, or tracks
    // out of order, is reported in one line and throws Exit.
    static CueSheet read(const std::string& path);

    const std::vector<Track>& tracks() const { return tracks_; }

private:
    std::vector<Track> tracks_;
};

} // namespace KEL::cli

#endif
