// ReplayGain values written into a file's tags, the audio left as it is:
// REPLAYGAIN_TRACK_GAIN, _TRACK_PEAK, _ALBUM_GAIN and _ALBUM_PEAK, as ID3v2
// TXXX frames in MP3, WAVE and AIFF and as iTunes freeform items
// ("----:com.apple.iTunes:replaygain_track_gain") in MPEG-4, spelled as the
// common players read them ("-6.52 dB", "0.912345"). Values of the same
// names already there are replaced; every other tag stays.
#ifndef KEL_TAGS_LOUDNESSTAGS_H
#define KEL_TAGS_LOUDNESSTAGS_H

#include <string>

namespace KEL {

struct ReplayGainValues {
    double track_gain_db;
    double track_peak; // linear, 1.0 = full scale
    bool album;        // whether the album values below are written
    double album_gain_db;
    double album_peak;
};

class LoudnessTags {
public:
    // 0; "Efor"/"Efop"/21 when the file cannot be opened; "Esup" for a
    // container without a place for them (CAF); "Egga" when the tags could
    // not be written (the file is then as it was).
    static int write(const std::string& path, const ReplayGainValues& values);
};

} // namespace KEL

#endif
