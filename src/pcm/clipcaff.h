// CAF clips: Core Audio Format files of 16-bit integer PCM, big- or
// little-endian, opened as a clip of fixed-size packets (the raw packet size
// setting, 1024 frames unless set) and written back as 16-bit big-endian
// files behind a 68-byte header.
//
// CAF is also the engine's scratch format: clips made from float buffers
// and silent clips are written as temporary CAF files (made with mkstemp in
// $TMPDIR, /tmp when unset) and opened from there. The temporary file is
// unlinked as soon as the clip's backing store holds it open, so it
// disappears with the last clip that uses its bytes.
#ifndef KEL_PCM_CLIPCAFF_H
#define KEL_PCM_CLIPCAFF_H

#include "pcm/pcmclip.h"
#include "pcm/pcmdecoder.h"
#include "pcm/pcmencoder.h"
#include "pcm/pcmoverview.h"
#include "pcm/pcmpacket.h"

#include <cstdio>

namespace KEL {

class KEL_API ClipCAFF : public PcmClip<ClipCAFF, PacketCAFF, OverviewCAFF, ClipDecoderCAFF, ClipEncoderCAFF, KEL_FORMAT_CAF> {
public:
    ClipCAFF(int channels, float sampleRate, int bits, int packetFrames, BSFile* file);
    ~ClipCAFF() override;

    // Writes the packets (gains and envelopes applied) as 16-bit big-endian
    // samples behind the 68-byte header, extra after the audio;
    // secondBlock is not used by CAF.
    int save_to(const char* path, const void* extra, int extraLength, const void* secondBlock,
                int secondLength, int* err, _kel_progress_ext_t* progress) override;

    // 0 when path starts as a CAF file; "Efmu" when not, "Efor" when it
    // cannot be read.
    static int detect(const char* path);
    // An empty clip of 1 or 2 channels and 16 bits ("Eprm" otherwise) with
    // packets of 1024 frames and no store.
    static ClipCAFF* create_empty(int channels, float sampleRate, int bits, int* err);
    // Walks the 64-bit chunks of an open file for "desc" and "data"; every
    // out-pointer may be null. Returns 0 or an error code.
    static int scan(FILE* f, int* channels, int* bits, float* sampleRate, bool* littleEndian,
                    long long* dataLength, long long* dataOffset);
    // Cuts the data into packets of the raw packet size on a new backing
    // store of path.
    int load(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
             bool littleEndian, long long dataLength, long long dataOffset);
    // scan and load over the layout record, for the open and get_file_info
    // the PCM clips share.
    static int scan_layout(FILE* f, FileLayout& layout);
    int load_layout(const char* path, _kel_progress_ext_t* progress, const FileLayout& layout);

    // A stereo clip of the frames of buffers[0] and buffers[1], written as
    // a temporary 16-bit big-endian file and opened from it. "Eprm" for
    // missing buffers or no frames, "EUnk" when memory runs out, "Efow" or
    // "EIO " when the temporary file cannot be written, else open's codes.
    static ClipCAFF* create_from_buffer(float** buffers, float sampleRate, int frames, int* err,
                                        _kel_progress_ext_t* progress);

protected:
    // CAF clips encode 16-bit samples only.
    int encoder_bits() const override;

private:
    // Cuts the data into packets of packetFrames frames.
    int cut_packets(const char* path, _kel_progress_ext_t* progress, int channels, int bits, float sampleRate,
                    bool littleEndian, long long dataLength, long long dataOffset);
};

// Writes the 68-byte header at offset 0 (nothing when the seek fails): the
// file header, a 32-byte "desc" chunk of integer PCM, and the "data" chunk
// header with its edit count. dataBytes -1 declares a data chunk that runs
// to the end of the file.
KEL_API void write_caff_header(FILE* f, float sampleRate, int channels, int bits, long long dataBytes,
                               bool littleEndian);

} // namespace KEL

#endif
