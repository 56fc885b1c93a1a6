// Reader of an AAC track in an M4A file.
//
// The track is the first one with an "mp4a" sample entry. Channels and
// sample rate come from the sample entry and may be replaced by the
// AudioSpecificConfig found in its "esds" atom, whose decoder configuration
// also gives the nominal bit rate, rounded up to the standard AAC rates.
#ifndef KEL_M4A_M4A_PARSERAAC_H
#define KEL_M4A_M4A_PARSERAAC_H

#include "m4a/m4a_parser.h"

namespace KEL {

class KEL_API M4A_ParserAAC : public M4A_Parser {
public:
    // 0 when file is an M4A file with an AAC track, else "Efor", "Efmu" or
    // "Efms".
    static int detect(FILE* file);
    // 0, "Eaac" (no "mp4a" entry, or a sample table missing or unreadable),
    // "Eeof" or "EIO " (the sample entry could not be read), "Efms" (the
    // decoder configuration names another codec than plain AAC: MPEG-4
    // ALS, MP3 in MPEG-4, or AAC with spectral band replication, whose
    // output rate and length the clip could not describe and whose high band
    // a lossless gain would not reach).
    int parse(FILE* file) override;

    // The smallest standard AAC bit rate not below bit_rate, 0 when
    // bit_rate is above them all.
    static int round_bitrate_to_aac_standard(int bit_rate);

private:
    // Reads bit rate, sampling frequency and channels from the "esds" atom
    // that follows the sample entry's 36 bytes; length bytes at rest.
    void read_esds(const unsigned char* rest, long long length);

    // Whether the "esds" describes plain AAC (Main, LC, SSR or LTP without
    // spectral band replication); true when it says nothing either way.
    bool plain_aac = true;
};

} // namespace KEL

#endif
