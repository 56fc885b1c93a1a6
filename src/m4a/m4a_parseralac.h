// Reader of an Apple Lossless track in an M4A file.
//
// The track is the first one with an "alac" sample entry. The stream
// parameters come from the codec configuration atom nested in that entry
// (36 bytes: header, version and flags, then frame length, compatible
// version, bit depth, three tuning bytes, channels, maximum run, maximum
// frame bytes, average bit rate and sample rate).
#ifndef KEL_M4A_M4A_PARSERALAC_H
#define KEL_M4A_M4A_PARSERALAC_H

#include "m4a/m4a_parser.h"

namespace KEL {

class KEL_API M4A_ParserALAC : public M4A_Parser {
public:
    // 0 when file is an M4A file with an Apple Lossless track, else "Efor",
    // "Efmu" or "Efms".
    static int detect(FILE* file);
    // 0, "Ealc" (no "alac" entry, or a sample table missing or
    // unreadable), "Efms" (a sample entry version other than 0), "Eeof" or
    // "EIO " (the sample entry could not be read).
    int parse(FILE* file) override;
};

} // namespace KEL

#endif
