// Writer of AAC packets as an M4A file.
//
// The sample entry is an "mp4a" with an "esds" atom describing AAC-LC at
// the clip's rate and channels. The caller may add two blocks: atoms that
// become the last children of "moov" (user data), and an image of chapter
// tracks ("trak" atoms from the block's start plus one "mdat" with their
// samples, chunk offsets counted from that "mdat"'s payload, track
// durations in 1/10000 s), whose tracks are placed in "moov" and whose
// samples lead the file's "mdat".
#ifndef KEL_M4A_M4A_SAVERAAC_H
#define KEL_M4A_M4A_SAVERAAC_H

#include "m4a/m4a_saver.h"

namespace KEL {

class KEL_API M4A_SaverAAC : public M4A_Saver {
public:
    explicit M4A_SaverAAC(FILE* file) : M4A_Saver(file) {}

    // Size of the "moov" template, sample entry included.
    static constexpr int kTemplateSize = 500;

    // Writes the whole file: 0, "Egga" (some packets could not be read and
    // were written as silence; the file is complete), "EILC" (no memory for
    // the tables), "Esmp" (more than 2147483647 frames), "Ebyt" (a "moov"
    // too large for its size field) or "EIO " (a short write). Null blocks
    // count as empty. The second block is used on a copy and is not
    // changed.
    int save(Packet** packets, int count, int channels, float sample_rate, int bit_rate, const void* first_block,
             int first_length, const void* second_block, int second_length, _kel_progress_ext_t* progress);

private:
    // What the chapter image holds: its copy, track count, the bytes of its
    // "trak" atoms and where its media lie.
    struct Chapters {
        unsigned char* bytes = nullptr;
        int length = 0;
        int tracks = 0;
        long long trak_bytes = 0;
        long long media_at = 0;
        long long media_length = 0;
    };
    // Copies and scans the chapter image and rescales its track durations
    // to rate; false when no memory is left for the copy.
    static bool scan_chapters(const void* block, int length, uint32_t rate, Chapters& chapters);
    // Fills the "mp4a" sample entry and its "esds".
    void fill_sample_entry(int channels, uint32_t rate, int bit_rate, uint32_t average, int frequency_index);
};

} // namespace KEL

#endif
