// AIFF clips: AIFF files of 16- or 24-bit big-endian integer PCM, and
// AIFF-C files holding the same or 16-bit little-endian samples, opened as a
// clip of fixed-size packets (the raw packet size setting, 1024 frames
// unless set). Saving always writes plain AIFF with big-endian samples.
#ifndef KEL_PCM_CLIPAIFF_H
#define KEL_PCM_CLIPAIFF_H

#include "pcm/pcmclip.h"
#include "pcm/pcmdecoder.h"
#include "pcm/pcmencoder.h"
#include "pcm/pcmoverview.h"
#include "pcm/pcmpacket.h"

#include <cstdio>

namespace KEL {

class KEL_API ClipAIFF : public PcmClip<ClipAIFF, PacketAIFF, OverviewAIFF, ClipDecoderAIFF, ClipEncoderAIFF, KEL_FORMAT_AIFF> {
public:
    ClipAIFF(int channels, float sampleRate, int bits, int packetFrames, BSFile* file);
    ~ClipAIFF() override;

    // Writes the packets (gains and envelopes applied, big-endian) behind a
    // 54-byte AIFF header, extra after the sound data and counted in the
    // FORM size; secondBlock is not used.
    int save_to(const char* path, const void* extra, int extraLength, const void* secondBlock,
                int secondLength, int* err, _kel_progress_ext_t* progress) override;

    // 0 when path starts as an AIFF or AIFF-C form; "Efmu" when not, "Efor"
    // when it cannot be read.
    static int detect(const char* path);
    // An empty clip of 1 or 2 channels and 16 or 24 bits ("Eprm" otherwise)
    // with packets of 1024 frames and no store.
    static ClipAIFF* create_empty(int channels, float sampleRate, int bits, int* err);
    // Walks the chunks of an open file for "COMM" and "SSND"; littleEndian
    // tells an AIFF-C "sowt" file. Every out-pointer may be null. Returns 0
    // or an error code.
    static int scan(FILE* f, int* channels, int* bits, float* sampleRate, bool* littleEndian, int* dataLength,
                    int* dataOffset);
    // Cuts the sound data into packets on a new backing store of path.
    int load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
             bool littleEndian, int dataLength, int dataOffset);
    // scan and load over the layout record, for the open and get_file_info
    // the PCM clips share.
    static int scan_layout(FILE* f, FileLayout& layout);
    int load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout);
};

// Writes the 54-byte AIFF header at offset 0 (nothing when the seek fails):
// FORM size data + extraBytes + 46, an 18-byte "COMM" chunk for frames
// frames, and the "SSND" chunk header with zero offset and block size.
KEL_API void write_aiff_header(FILE* f, long frames, float sampleRate, int channels, int bits, int extraBytes);

} // namespace KEL

#endif
