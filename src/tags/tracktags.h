// A track's title, artist and number written into a file's tags, the audio
// and every other tag left as they are: the pieces of a split recording
// each get their own. ID3v2 for MP3 (and an ID3v1 or APE tag the file
// already has), the ilst items for MPEG-4, the ID3 chunk and the RIFF INFO
// list for WAVE, the ID3 chunk for AIFF.
#ifndef KEL_TAGS_TRACKTAGS_H
#define KEL_TAGS_TRACKTAGS_H

#include <string>

namespace KEL {

struct TrackFields {
    const char* title;  // null: left as it is
    const char* artist; // null: left as it is
    unsigned track;     // 0: left as it is
};

class TrackTags {
public:
    // 0; the open errors of the tag copier; "Esup" for a container without
    // tags (CAF); "Egga" when the tags could not be written (the file is
    // then as it was).
    static int write(const std::string& path, const TrackFields& fields);
};

} // namespace KEL

#endif
