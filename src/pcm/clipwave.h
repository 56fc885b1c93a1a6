// WAVE clips: RIFF WAVE files of 16- or 24-bit little-endian integer PCM,
// opened as a clip of fixed-size packets (the raw packet size setting, 1024
// frames unless set) and written back as canonical 44-byte-header files.
#ifndef KEL_PCM_CLIPWAVE_H
#define KEL_PCM_CLIPWAVE_H

#include "pcm/pcmclip.h"
#include "pcm/pcmdecoder.h"
#include "pcm/pcmencoder.h"
#include "pcm/pcmoverview.h"
#include "pcm/pcmpacket.h"

#include <cstdio>

namespace KEL {

class KEL_API ClipWAVE : public PcmClip<ClipWAVE, PacketWAVE, OverviewWAVE, ClipDecoderWAVE, ClipEncoderWAVE, KEL_FORMAT_WAVE> {
public:
    ClipWAVE(int channels, float sampleRate, int bits, int packetFrames, BSFile* file);
    ~ClipWAVE() override;

    // Writes the packets (gains and envelopes applied) behind a canonical
    // header, extra after the audio; secondBlock is not used by WAVE.
    int save_to(const char* path, const void* extra, int extraLength, const void* secondBlock,
                int secondLength, int* err, _kel_progress_ext_t* progress) override;

    // 0 when path starts as a RIFF WAVE file; "Efmu" when not, "Efor" when
    // it cannot be read.
    static int detect(const char* path);
    // An empty clip of 1 or 2 channels and 16 or 24 bits ("Eprm" otherwise)
    // with packets of 1024 frames and no store.
    static ClipWAVE* create_empty(int channels, float sampleRate, int bits, int* err);
    // Walks the chunks of an open file for the format and the data chunk;
    // every out-pointer may be null. Returns 0 or an error code.
    static int scan(FILE* f, int* channels, int* bits, float* sampleRate, unsigned int* dataLength,
                    unsigned int* dataOffset);
    // Cuts the data chunk into packets on a new backing store of path.
    int load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
             unsigned int dataLength, unsigned int dataOffset);
    // scan and load over the layout record, for the open and get_file_info
    // the PCM clips share.
    static int scan_layout(FILE* f, FileLayout& layout);
    int load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout);
};

// Writes the 44-byte canonical header at offset 0 (nothing when the seek
// fails): RIFF size 36 + data + extraBytes, a 16-byte integer PCM "fmt "
// chunk, and the "data" chunk header for frames frames.
KEL_API void write_wave_header(FILE* f, long frames, float sampleRate, int channels, int bits, int extraBytes);

} // namespace KEL

#endif
