// The Apple Lossless magic cookie: the codec configuration that an "alac"
// atom carries, and the layout the layer's components exchange it in.
//
// The "alac" atom, 36 bytes, big-endian:
//    0  size (36)             4  type "alac"          8  version and flags (0)
//   12  frame length (32)    16  compatible version  17  bit depth
//   18  rice history mult    19  rice initial history 20  rice limit
//   21  channels             22  maximum run (16)     24  maximum frame bytes (32)
//   28  average bit rate (32) 32  sample rate (32)
// The layout the "kuki" property gives is a 12-byte "frma" atom naming the
// format (size 12, "frma", "alac") followed by that atom, 48 bytes in all,
// so that the bit depth lies at byte 29 and the rice history mult (40) at
// byte 30. Setting a cookie accepts that layout, the bare atom, or the
// bare 24-byte configuration (the atom from offset 12 on).
#ifndef KEL_CODEC_ALACCOOKIE_H
#define KEL_CODEC_ALACCOOKIE_H

#include "codec/codectypes.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace KEL {

class ALACCookie {
public:
    static constexpr size_t kAtomBytes = 36;
    static constexpr size_t kLayoutBytes = 48;
    static constexpr uint32_t kMaxFrameLength = 65536;

    uint32_t frame_length = 4096;
    uint8_t compatible_version = 0;
    uint8_t bit_depth = 16;
    uint8_t history_mult = 40;
    uint8_t initial_history = 10;
    uint8_t rice_limit = 14;
    uint8_t channels = 2;
    uint16_t max_run = 255;
    uint32_t max_frame_bytes = 0;
    uint32_t average_bit_rate = 0;
    uint32_t sample_rate = 44100;

    // The cookie a compressed description implies: frame length from the
    // frames per packet (4096 when 0), bit depth from the format flags
    // (1: 16, 2: 20, 3: 24, 4: 32; 16 otherwise), channels and rate.
    static ALACCookie from_description(const AudioStreamBasicDescription& d);

    // Reads any of the accepted forms. False when the bytes are none of
    // them or the configuration is unusable (see usable()).
    static bool parse(const void* bytes, size_t size, ALACCookie* out);

    // A frame length of 1 to kMaxFrameLength, a bit depth of 16, 20, 24 or
    // 32, 1 to 8 channels.
    bool usable() const;

    std::array<uint8_t, kAtomBytes> atom() const;
    std::array<uint8_t, kLayoutBytes> layout() const;
};

} // namespace KEL

#endif
