// Writing an edited MP3 clip as a complete MP3 file.
//
// File layout: the caller's leading block (an ID3v2 tag, written as it
// is), one information frame, every packet's frame, the caller's trailing
// block (an ID3v1 or APE tag, say).
//
// The information frame is a complete, silent Layer III frame: the header
// of the clip's first frame (without CRC and padding, its bit rate raised
// when the frame is too short to hold the tag), side information all zero
// (part2_3_length 0 everywhere: a decoder that plays it outputs silence),
// and, right after the side information, the tag that players read for
// the stream's length and seeking:
//   "Xing" (variable bit rate) or "Info" (constant bit rate)
//   flags     big-endian 32 bits: 1 frames, 2 bytes, 4 table = 7
//   frames    big-endian 32 bits: audio frames after this one
//   bytes     big-endian 32 bits: this frame plus the audio frames
//   table     100 bytes: entry i is the position of the frame at i percent
//             of the duration, as a fraction of `bytes` times 256
// The rest of the frame is zero, except for a clip with trims: then the
// flags are 15, a quality word of 0 follows the table, and the LAME
// extension (lametag.h) carries the trims as encoder delay and padding, so
// that players drop exactly those frames.
//
// Each packet's frame is written with its gain applied in the bitstream
// (global_gain steps, CRC recomputed); envelopes are first folded into
// per-packet gains, since a frame can only carry one gain.
#ifndef KEL_MP3_MP3SAVER_H
#define KEL_MP3_MP3SAVER_H

#include "kel.h"

#include <cstdio>
#include <vector>

namespace KEL {

class Clip;
class ClipMP3;

class KEL_API Mp3Saver {
public:
    // Bytes of the tag after the side information: "Xing", flags, frames,
    // bytes, 100 table entries.
    static constexpr int kTagBytes = 4 + 4 + 4 + 4 + 100;

    Mp3Saver() = default;
    ~Mp3Saver();
    Mp3Saver(const Mp3Saver&) = delete;
    Mp3Saver& operator=(const Mp3Saver&) = delete;

    // Saves clip at path. Returns 0, "Egga" when a packet's bytes could not
    // be read and a silent frame (or zeros, when even its header was lost)
    // of the same length took its place (the file is kept), or a failure
    // after which no file is left at path: "Efow" (21 when path is a
    // directory), "Empt" for a clip without packets, "Ebyt" when the file
    // would exceed 2147483647 bytes, "EIO " when writing fails, or the code
    // of folding envelopes into gains. Null blocks count as empty. Progress
    // every half percent of the packets and 100 at the end; a cancel is
    // ignored.
    int save(ClipMP3& clip, const char* path, const void* block1, int block1_len, const void* block2,
             int block2_len, _kel_progress_ext_t* progress);

    // The information frame for the packets of `frames`, a clip of the
    // stream parameters of `params`: header from the first packet whose
    // header decodes as a frame of that stream (else made from the
    // parameters), "Xing" when vbr, else "Info". Empty when there are no
    // packets.
    static std::vector<unsigned char> information_frame(const ClipMP3& params, const Clip& frames, bool vbr);

private:
    int fail(int code);
    int write(const void* bytes, long long count);
    int write_packets(Clip& clip, _kel_progress_ext_t* progress, bool& gap);

    FILE* file_ = nullptr;
    const char* path_ = nullptr;
    // The stream's buffer, given to it: glibc takes a size only with one.
    std::vector<char> buffer_;
};

} // namespace KEL

#endif
