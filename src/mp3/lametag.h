// The LAME extension of an MP3 information frame: the encoder delay and
// end padding that make a stream gapless.
//
// An information frame holds, right after its side information, "Xing" or
// "Info", a 32-bit flags word and the fields the flags announce (1 frames,
// 2 bytes, 4 a 100-byte seek table, 8 a quality word, 32 bits each but the
// table). The extension follows them, 36 bytes:
//   0   9  encoder version text ("LAME3.100"; ffmpeg also writes "Lavc")
//   9   1  tag revision (bits 7..4), rate method (bits 3..0)
//   10  1  low-pass frequency / 100
//   11  4  peak amplitude, 4 replay gain bytes, 1 flags byte, 1 bit rate
//   21  3  encoder delay (bits 23..12) and end padding (bits 11..0)
//   24  1  misc, 25 1 MP3 gain, 26 2 preset and surround
//   28  4  music length: bytes from the information frame to the end of
//          the last audio frame
//   32  2  CRC-16 of the audio data (not written here: 0)
//   34  2  CRC-16 of every frame byte before this field
// The CRC is the reflected CRC-16 of polynomial 0x8005 from 0, as LAME
// computes it.
//
// Decoders drop the delay plus their own delay of 529 frames at the start
// and the padding less those 529 at the end, so that a stream of N frames
// of 1152 decodes to N * 1152 - delay - padding frames.
#ifndef KEL_MP3_LAMETAG_H
#define KEL_MP3_LAMETAG_H

#include "kel.h"

#include <cstdint>

namespace KEL {

class KEL_API LameTag {
public:
    // The decoder's own delay, which the delay field leaves out.
    static constexpr int kDecoderDelay = 529;
    // Largest value of the 12-bit delay and padding fields.
    static constexpr int kFieldMax = 4095;
    // Bytes from "Xing"/"Info" to the extension when all four fields are
    // written, and the extension's length.
    static constexpr int kXingBytes = 4 + 4 + 4 + 4 + 100 + 4;
    static constexpr int kExtensionBytes = 36;

    // Reads the extension of the information frame `frame` (length bytes)
    // whose "Xing"/"Info" starts at tag_offset. False when there is none,
    // it runs past the frame, or its version text is not one that players
    // trust for the delay (LAME's, or ffmpeg's "Lavc"/"Lavf").
    bool read(const unsigned char* frame, int length, int tag_offset);

    // Writes an extension with delay and padding (clamped to 12 bits) and
    // the music length after a "Xing"/"Info" block of flags 15 at
    // tag_offset, then the CRC; the frame must hold tag_offset + kXingBytes
    // + kExtensionBytes bytes.
    static void write(unsigned char* frame, int tag_offset, int delay, int padding, uint32_t music_length);

    // The reflected CRC-16 (polynomial 0x8005, start 0) of bytes.
    static uint16_t crc16(const unsigned char* bytes, int count);

    int delay = 0;
    int padding = 0;
};

} // namespace KEL

#endif
