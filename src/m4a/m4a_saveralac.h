// Writer of Apple Lossless packets as an M4A file.
//
// The sample entry is an "alac" with the nested codec configuration atom
// (frame length, bit depth, tuning 40/10/14, channels, maximum run 255,
// maximum frame bytes, average bit rate, sample rate). No chapter tracks:
// the "chap" reference lists none.
#ifndef KEL_M4A_M4A_SAVERALAC_H
#define KEL_M4A_M4A_SAVERALAC_H

#include "m4a/m4a_saver.h"

namespace KEL {

class KEL_API M4A_SaverALAC : public M4A_Saver {
public:
    explicit M4A_SaverALAC(FILE* file) : M4A_Saver(file) {}

    // Size of the "moov" template, sample entry included.
    static constexpr int kTemplateSize = 476;

    // As M4A_SaverAAC::save with the bits per sample in place of the bit
    // rate; the second block is ignored.
    int save(Packet** packets, int count, int channels, float sample_rate, int bits_per_sample,
             const void* first_block, int first_length, const void* second_block, int second_length,
             _kel_progress_ext_t* progress);
};

} // namespace KEL

#endif
