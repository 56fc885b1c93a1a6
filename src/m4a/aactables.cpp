#include "m4a/aactables.h"

#include <array>
#include <cstdlib>
#include <vector>

namespace KEL {

namespace {

// One Huffman code word: its bits, right-aligned, and its length.
struct HuffmanCode {
    uint32_t code;
    uint8_t length;
};

// Scale factor differences -60..+60, index = difference + 60.
constexpr std::array<HuffmanCode, 121> kScaleFactorCodes = {{
    {0x3ffe8, 18}, {0x3ffe6, 18}, {0x3ffe7, 18}, {0x3ffe5, 18}, {0x7fff5, 19}, {0x7fff1, 19}, {0x7ffed, 19}, {0x7fff6, 19},
    {0x7ffee, 19}, {0x7ffef, 19}, {0x7fff0, 19}, {0x7fffc, 19}, {0x7fffd, 19}, {0x7ffff, 19}, {0x7fffe, 19}, {0x7fff7, 19},
    {0x7fff8, 19}, {0x7fffb, 19}, {0x7fff9, 19}, {0x3ffe4, 18}, {0x7fffa, 19}, {0x3ffe3, 18}, {0x1ffef, 17}, {0x1fff0, 17},
    {0xfff5, 16}, {0x1ffee, 17}, {0xfff2, 16}, {0xfff3, 16}, {0xfff4, 16}, {0xfff1, 16}, {0x7ff6, 15}, {0x7ff7, 15},
    {0x3ff9, 14}, {0x3ff5, 14}, {0x3ff7, 14}, {0x3ff3, 14}, {0x3ff6, 14}, {0x3ff2, 14}, {0x1ff7, 13}, {0x1ff5, 13},
    {0xff9, 12}, {0xff7, 12}, {0xff6, 12}, {0x7f9, 11}, {0xff4, 12}, {0x7f8, 11}, {0x3f9, 10}, {0x3f7, 10},
    {0x3f5, 10}, {0x1f8, 9}, {0x1f7, 9}, {0xfa, 8}, {0xf8, 8}, {0xf6, 8}, {0x79, 7}, {0x3a, 6},
    {0x38, 6}, {0x1a, 5}, {0xb, 4}, {0x4, 3}, {0x0, 1}, {0xa, 4}, {0xc, 4}, {0x1b, 5},
    {0x39, 6}, {0x3b, 6}, {0x78, 7}, {0x7a, 7}, {0xf7, 8}, {0xf9, 8}, {0x1f6, 9}, {0x1f9, 9},
    {0x3f4, 10}, {0x3f6, 10}, {0x3f8, 10}, {0x7f5, 11}, {0x7f4, 11}, {0x7f6, 11}, {0x7f7, 11}, {0xff5, 12},
    {0xff8, 12}, {0x1ff4, 13}, {0x1ff6, 13}, {0x1ff8, 13}, {0x3ff8, 14}, {0x3ff4, 14}, {0xfff0, 16}, {0x7ff4, 15},
    {0xfff6, 16}, {0x7ff5, 15}, {0x3ffe2, 18}, {0x7ffd9, 19}, {0x7ffda, 19}, {0x7ffdb, 19}, {0x7ffdc, 19}, {0x7ffdd, 19},
    {0x7ffde, 19}, {0x7ffd8, 19}, {0x7ffd2, 19}, {0x7ffd3, 19}, {0x7ffd4, 19}, {0x7ffd5, 19}, {0x7ffd6, 19}, {0x7fff2, 19},
    {0x7ffdf, 19}, {0x7ffe7, 19}, {0x7ffe8, 19}, {0x7ffe9, 19}, {0x7ffea, 19}, {0x7ffeb, 19}, {0x7ffe6, 19}, {0x7ffe0, 19},
    {0x7ffe1, 19}, {0x7ffe2, 19}, {0x7ffe3, 19}, {0x7ffe4, 19}, {0x7ffe5, 19}, {0x7ffd7, 19}, {0x7ffec, 19}, {0x7fff4, 19},
    {0x7fff3, 19},
}};

// Codebook 1: signed quadruples -1..1, index 27(w+1) + 9(x+1) + 3(y+1) + (z+1).
constexpr std::array<HuffmanCode, 81> kSpectrum1Codes = {{
    {0x7f8, 11}, {0x1f1, 9}, {0x7fd, 11}, {0x3f5, 10}, {0x68, 7}, {0x3f0, 10}, {0x7f7, 11}, {0x1ec, 9},
    {0x7f5, 11}, {0x3f1, 10}, {0x72, 7}, {0x3f4, 10}, {0x74, 7}, {0x11, 5}, {0x76, 7}, {0x1eb, 9},
    {0x6c, 7}, {0x3f6, 10}, {0x7fc, 11}, {0x1e1, 9}, {0x7f1, 11}, {0x1f0, 9}, {0x61, 7}, {0x1f6, 9},
    {0x7f2, 11}, {0x1ea, 9}, {0x7fb, 11}, {0x1f2, 9}, {0x69, 7}, {0x1ed, 9}, {0x77, 7}, {0x17, 5},
    {0x6f, 7}, {0x1e6, 9}, {0x64, 7}, {0x1e5, 9}, {0x67, 7}, {0x15, 5}, {0x62, 7}, {0x12, 5},
    {0x0, 1}, {0x14, 5}, {0x65, 7}, {0x16, 5}, {0x6d, 7}, {0x1e9, 9}, {0x63, 7}, {0x1e4, 9},
    {0x6b, 7}, {0x13, 5}, {0x71, 7}, {0x1e3, 9}, {0x70, 7}, {0x1f3, 9}, {0x7fe, 11}, {0x1e7, 9},
    {0x7f3, 11}, {0x1ef, 9}, {0x60, 7}, {0x1ee, 9}, {0x7f0, 11}, {0x1e2, 9}, {0x7fa, 11}, {0x3f3, 10},
    {0x6a, 7}, {0x1e8, 9}, {0x75, 7}, {0x10, 5}, {0x73, 7}, {0x1f4, 9}, {0x6e, 7}, {0x3f7, 10},
    {0x7f6, 11}, {0x1e0, 9}, {0x7f9, 11}, {0x3f2, 10}, {0x66, 7}, {0x1f5, 9}, {0x7ff, 11}, {0x1f7, 9},
    {0x7f4, 11},
}};

// Codebook 2: signed quadruples -1..1, same order as codebook 1.
constexpr std::array<HuffmanCode, 81> kSpectrum2Codes = {{
    {0x1f3, 9}, {0x6f, 7}, {0x1fd, 9}, {0xeb, 8}, {0x23, 6}, {0xea, 8}, {0x1f7, 9}, {0xe8, 8},
    {0x1fa, 9}, {0xf2, 8}, {0x2d, 6}, {0x70, 7}, {0x20, 6}, {0x6, 5}, {0x2b, 6}, {0x6e, 7},
    {0x28, 6}, {0xe9, 8}, {0x1f9, 9}, {0x66, 7}, {0xf8, 8}, {0xe7, 8}, {0x1b, 6}, {0xf1, 8},
    {0x1f4, 9}, {0x6b, 7}, {0x1f5, 9}, {0xec, 8}, {0x2a, 6}, {0x6c, 7}, {0x2c, 6}, {0xa, 5},
    {0x27, 6}, {0x67, 7}, {0x1a, 6}, {0xf5, 8}, {0x24, 6}, {0x8, 5}, {0x1f, 6}, {0x9, 5},
    {0x0, 3}, {0x7, 5}, {0x1d, 6}, {0xb, 5}, {0x30, 6}, {0xef, 8}, {0x1c, 6}, {0x64, 7},
    {0x1e, 6}, {0xc, 5}, {0x29, 6}, {0xf3, 8}, {0x2f, 6}, {0xf0, 8}, {0x1fc, 9}, {0x71, 7},
    {0x1f2, 9}, {0xf4, 8}, {0x21, 6}, {0xe6, 8}, {0xf7, 8}, {0x68, 7}, {0x1f8, 9}, {0xee, 8},
    {0x22, 6}, {0x65, 7}, {0x31, 6}, {0x2, 4}, {0x26, 6}, {0xed, 8}, {0x25, 6}, {0x6a, 7},
    {0x1fb, 9}, {0x72, 7}, {0x1fe, 9}, {0x69, 7}, {0x2e, 6}, {0xf6, 8}, {0x1ff, 9}, {0x6d, 7},
    {0x1f6, 9},
}};

// Codebook 3: unsigned quadruples 0..2, index 27w + 9x + 3y + z.
constexpr std::array<HuffmanCode, 81> kSpectrum3Codes = {{
    {0x0, 1}, {0x9, 4}, {0xef, 8}, {0xb, 4}, {0x19, 5}, {0xf0, 8}, {0x1eb, 9}, {0x1e6, 9},
    {0x3f2, 10}, {0xa, 4}, {0x35, 6}, {0x1ef, 9}, {0x34, 6}, {0x37, 6}, {0x1e9, 9}, {0x1ed, 9},
    {0x1e7, 9}, {0x3f3, 10}, {0x1ee, 9}, {0x3ed, 10}, {0x1ffa, 13}, {0x1ec, 9}, {0x1f2, 9}, {0x7f9, 11},
    {0x7f8, 11}, {0x3f8, 10}, {0xff8, 12}, {0x8, 4}, {0x38, 6}, {0x3f6, 10}, {0x36, 6}, {0x75, 7},
    {0x3f1, 10}, {0x3eb, 10}, {0x3ec, 10}, {0xff4, 12}, {0x18, 5}, {0x76, 7}, {0x7f4, 11}, {0x39, 6},
    {0x74, 7}, {0x3ef, 10}, {0x1f3, 9}, {0x1f4, 9}, {0x7f6, 11}, {0x1e8, 9}, {0x3ea, 10}, {0x1ffc, 13},
    {0xf2, 8}, {0x1f1, 9}, {0xffb, 12}, {0x3f5, 10}, {0x7f3, 11}, {0xffc, 12}, {0xee, 8}, {0x3f7, 10},
    {0x7ffe, 15}, {0x1f0, 9}, {0x7f5, 11}, {0x7ffd, 15}, {0x1ffb, 13}, {0x3ffa, 14}, {0xffff, 16}, {0xf1, 8},
    {0x3f0, 10}, {0x3ffc, 14}, {0x1ea, 9}, {0x3ee, 10}, {0x3ffb, 14}, {0xff6, 12}, {0xffa, 12}, {0x7ffc, 15},
    {0x7f2, 11}, {0xff5, 12}, {0xfffe, 16}, {0x3f4, 10}, {0x7f7, 11}, {0x7ffb, 15}, {0xff7, 12}, {0xff9, 12},
    {0x7ffa, 15},
}};

// Codebook 4: unsigned quadruples 0..2, same order as codebook 3.
constexpr std::array<HuffmanCode, 81> kSpectrum4Codes = {{
    {0x7, 4}, {0x16, 5}, {0xf6, 8}, {0x18, 5}, {0x8, 4}, {0xef, 8}, {0x1ef, 9}, {0xf3, 8},
    {0x7f8, 11}, {0x19, 5}, {0x17, 5}, {0xed, 8}, {0x15, 5}, {0x1, 4}, {0xe2, 8}, {0xf0, 8},
    {0x70, 7}, {0x3f0, 10}, {0x1ee, 9}, {0xf1, 8}, {0x7fa, 11}, {0xee, 8}, {0xe4, 8}, {0x3f2, 10},
    {0x7f6, 11}, {0x3ef, 10}, {0x7fd, 11}, {0x5, 4}, {0x14, 5}, {0xf2, 8}, {0x9, 4}, {0x4, 4},
    {0xe5, 8}, {0xf4, 8}, {0xe8, 8}, {0x3f4, 10}, {0x6, 4}, {0x2, 4}, {0xe7, 8}, {0x3, 4},
    {0x0, 4}, {0x6b, 7}, {0xe3, 8}, {0x69, 7}, {0x1f3, 9}, {0xeb, 8}, {0xe6, 8}, {0x3f6, 10},
    {0x6e, 7}, {0x6a, 7}, {0x1f4, 9}, {0x3ec, 10}, {0x1f0, 9}, {0x3f9, 10}, {0xf5, 8}, {0xec, 8},
    {0x7fb, 11}, {0xea, 8}, {0x6f, 7}, {0x3f7, 10}, {0x7f9, 11}, {0x3f3, 10}, {0xfff, 12}, {0xe9, 8},
    {0x6d, 7}, {0x3f8, 10}, {0x6c, 7}, {0x68, 7}, {0x1f5, 9}, {0x3ee, 10}, {0x1f2, 9}, {0x7f4, 11},
    {0x7f7, 11}, {0x3f1, 10}, {0xffe, 12}, {0x3ed, 10}, {0x1f1, 9}, {0x7f5, 11}, {0x7fe, 11}, {0x3f5, 10},
    {0x7fc, 11},
}};

// Codebook 5: signed pairs -4..4, index 9(y+4) + (z+4).
constexpr std::array<HuffmanCode, 81> kSpectrum5Codes = {{
    {0x1fff, 13}, {0xff7, 12}, {0x7f4, 11}, {0x7e8, 11}, {0x3f1, 10}, {0x7ee, 11}, {0x7f9, 11}, {0xff8, 12},
    {0x1ffd, 13}, {0xffd, 12}, {0x7f1, 11}, {0x3e8, 10}, {0x1e8, 9}, {0xf0, 8}, {0x1ec, 9}, {0x3ee, 10},
    {0x7f2, 11}, {0xffa, 12}, {0xff4, 12}, {0x3ef, 10}, {0x1f2, 9}, {0xe8, 8}, {0x70, 7}, {0xec, 8},
    {0x1f0, 9}, {0x3ea, 10}, {0x7f3, 11}, {0x7eb, 11}, {0x1eb, 9}, {0xea, 8}, {0x1a, 5}, {0x8, 4},
    {0x19, 5}, {0xee, 8}, {0x1ef, 9}, {0x7ed, 11}, {0x3f0, 10}, {0xf2, 8}, {0x73, 7}, {0xb, 4},
    {0x0, 1}, {0xa, 4}, {0x71, 7}, {0xf3, 8}, {0x7e9, 11}, {0x7ef, 11}, {0x1ee, 9}, {0xef, 8},
    {0x18, 5}, {0x9, 4}, {0x1b, 5}, {0xeb, 8}, {0x1e9, 9}, {0x7ec, 11}, {0x7f6, 11}, {0x3eb, 10},
    {0x1f3, 9}, {0xed, 8}, {0x72, 7}, {0xe9, 8}, {0x1f1, 9}, {0x3ed, 10}, {0x7f7, 11}, {0xff6, 12},
    {0x7f0, 11}, {0x3e9, 10}, {0x1ed, 9}, {0xf1, 8}, {0x1ea, 9}, {0x3ec, 10}, {0x7f8, 11}, {0xff9, 12},
    {0x1ffc, 13}, {0xffc, 12}, {0xff5, 12}, {0x7ea, 11}, {0x3f3, 10}, {0x3f2, 10}, {0x7f5, 11}, {0xffb, 12},
    {0x1ffe, 13},
}};

// Codebook 6: signed pairs -4..4, same order as codebook 5.
constexpr std::array<HuffmanCode, 81> kSpectrum6Codes = {{
    {0x7fe, 11}, {0x3fd, 10}, {0x1f1, 9}, {0x1eb, 9}, {0x1f4, 9}, {0x1ea, 9}, {0x1f0, 9}, {0x3fc, 10},
    {0x7fd, 11}, {0x3f6, 10}, {0x1e5, 9}, {0xea, 8}, {0x6c, 7}, {0x71, 7}, {0x68, 7}, {0xf0, 8},
    {0x1e6, 9}, {0x3f7, 10}, {0x1f3, 9}, {0xef, 8}, {0x32, 6}, {0x27, 6}, {0x28, 6}, {0x26, 6},
    {0x31, 6}, {0xeb, 8}, {0x1f7, 9}, {0x1e8, 9}, {0x6f, 7}, {0x2e, 6}, {0x8, 4}, {0x4, 4},
    {0x6, 4}, {0x29, 6}, {0x6b, 7}, {0x1ee, 9}, {0x1ef, 9}, {0x72, 7}, {0x2d, 6}, {0x2, 4},
    {0x0, 4}, {0x3, 4}, {0x2f, 6}, {0x73, 7}, {0x1fa, 9}, {0x1e7, 9}, {0x6e, 7}, {0x2b, 6},
    {0x7, 4}, {0x1, 4}, {0x5, 4}, {0x2c, 6}, {0x6d, 7}, {0x1ec, 9}, {0x1f9, 9}, {0xee, 8},
    {0x30, 6}, {0x24, 6}, {0x2a, 6}, {0x25, 6}, {0x33, 6}, {0xec, 8}, {0x1f2, 9}, {0x3f8, 10},
    {0x1e4, 9}, {0xed, 8}, {0x6a, 7}, {0x70, 7}, {0x69, 7}, {0x74, 7}, {0xf1, 8}, {0x3fa, 10},
    {0x7ff, 11}, {0x3f9, 10}, {0x1f6, 9}, {0x1ed, 9}, {0x1f8, 9}, {0x1e9, 9}, {0x1f5, 9}, {0x3fb, 10},
    {0x7fc, 11},
}};

// Codebook 7: unsigned pairs 0..7, index 8y + z.
constexpr std::array<HuffmanCode, 64> kSpectrum7Codes = {{
    {0x0, 1}, {0x5, 3}, {0x37, 6}, {0x74, 7}, {0xf2, 8}, {0x1eb, 9}, {0x3ed, 10}, {0x7f7, 11},
    {0x4, 3}, {0xc, 4}, {0x35, 6}, {0x71, 7}, {0xec, 8}, {0xee, 8}, {0x1ee, 9}, {0x1f5, 9},
    {0x36, 6}, {0x34, 6}, {0x72, 7}, {0xea, 8}, {0xf1, 8}, {0x1e9, 9}, {0x1f3, 9}, {0x3f5, 10},
    {0x73, 7}, {0x70, 7}, {0xeb, 8}, {0xf0, 8}, {0x1f1, 9}, {0x1f0, 9}, {0x3ec, 10}, {0x3fa, 10},
    {0xf3, 8}, {0xed, 8}, {0x1e8, 9}, {0x1ef, 9}, {0x3ef, 10}, {0x3f1, 10}, {0x3f9, 10}, {0x7fb, 11},
    {0x1ed, 9}, {0xef, 8}, {0x1ea, 9}, {0x1f2, 9}, {0x3f3, 10}, {0x3f8, 10}, {0x7f9, 11}, {0x7fc, 11},
    {0x3ee, 10}, {0x1ec, 9}, {0x1f4, 9}, {0x3f4, 10}, {0x3f7, 10}, {0x7f8, 11}, {0xffd, 12}, {0xffe, 12},
    {0x7f6, 11}, {0x3f0, 10}, {0x3f2, 10}, {0x3f6, 10}, {0x7fa, 11}, {0x7fd, 11}, {0xffc, 12}, {0xfff, 12},
}};

// Codebook 8: unsigned pairs 0..7, same order as codebook 7.
constexpr std::array<HuffmanCode, 64> kSpectrum8Codes = {{
    {0xe, 5}, {0x5, 4}, {0x10, 5}, {0x30, 6}, {0x6f, 7}, {0xf1, 8}, {0x1fa, 9}, {0x3fe, 10},
    {0x3, 4}, {0x0, 3}, {0x4, 4}, {0x12, 5}, {0x2c, 6}, {0x6a, 7}, {0x75, 7}, {0xf8, 8},
    {0xf, 5}, {0x2, 4}, {0x6, 4}, {0x14, 5}, {0x2e, 6}, {0x69, 7}, {0x72, 7}, {0xf5, 8},
    {0x2f, 6}, {0x11, 5}, {0x13, 5}, {0x2a, 6}, {0x32, 6}, {0x6c, 7}, {0xec, 8}, {0xfa, 8},
    {0x71, 7}, {0x2b, 6}, {0x2d, 6}, {0x31, 6}, {0x6d, 7}, {0x70, 7}, {0xf2, 8}, {0x1f9, 9},
    {0xef, 8}, {0x68, 7}, {0x33, 6}, {0x6b, 7}, {0x6e, 7}, {0xee, 8}, {0xf9, 8}, {0x3fc, 10},
    {0x1f8, 9}, {0x74, 7}, {0x73, 7}, {0xed, 8}, {0xf0, 8}, {0xf6, 8}, {0x1f6, 9}, {0x1fd, 9},
    {0x3fd, 10}, {0xf3, 8}, {0xf4, 8}, {0xf7, 8}, {0x1f7, 9}, {0x1fb, 9}, {0x1fc, 9}, {0x3ff, 10},
}};

// Codebook 9: unsigned pairs 0..12, index 13y + z.
constexpr std::array<HuffmanCode, 169> kSpectrum9Codes = {{
    {0x0, 1}, {0x5, 3}, {0x37, 6}, {0xe7, 8}, {0x1de, 9}, {0x3ce, 10}, {0x3d9, 10}, {0x7c8, 11},
    {0x7cd, 11}, {0xfc8, 12}, {0xfdd, 12}, {0x1fe4, 13}, {0x1fec, 13}, {0x4, 3}, {0xc, 4}, {0x35, 6},
    {0x72, 7}, {0xea, 8}, {0xed, 8}, {0x1e2, 9}, {0x3d1, 10}, {0x3d3, 10}, {0x3e0, 10}, {0x7d8, 11},
    {0xfcf, 12}, {0xfd5, 12}, {0x36, 6}, {0x34, 6}, {0x71, 7}, {0xe8, 8}, {0xec, 8}, {0x1e1, 9},
    {0x3cf, 10}, {0x3dd, 10}, {0x3db, 10}, {0x7d0, 11}, {0xfc7, 12}, {0xfd4, 12}, {0xfe4, 12}, {0xe6, 8},
    {0x70, 7}, {0xe9, 8}, {0x1dd, 9}, {0x1e3, 9}, {0x3d2, 10}, {0x3dc, 10}, {0x7cc, 11}, {0x7ca, 11},
    {0x7de, 11}, {0xfd8, 12}, {0xfea, 12}, {0x1fdb, 13}, {0x1df, 9}, {0xeb, 8}, {0x1dc, 9}, {0x1e6, 9},
    {0x3d5, 10}, {0x3de, 10}, {0x7cb, 11}, {0x7dd, 11}, {0x7dc, 11}, {0xfcd, 12}, {0xfe2, 12}, {0xfe7, 12},
    {0x1fe1, 13}, {0x3d0, 10}, {0x1e0, 9}, {0x1e4, 9}, {0x3d6, 10}, {0x7c5, 11}, {0x7d1, 11}, {0x7db, 11},
    {0xfd2, 12}, {0x7e0, 11}, {0xfd9, 12}, {0xfeb, 12}, {0x1fe3, 13}, {0x1fe9, 13}, {0x7c4, 11}, {0x1e5, 9},
    {0x3d7, 10}, {0x7c6, 11}, {0x7cf, 11}, {0x7da, 11}, {0xfcb, 12}, {0xfda, 12}, {0xfe3, 12}, {0xfe9, 12},
    {0x1fe6, 13}, {0x1ff3, 13}, {0x1ff7, 13}, {0x7d3, 11}, {0x3d8, 10}, {0x3e1, 10}, {0x7d4, 11}, {0x7d9, 11},
    {0xfd3, 12}, {0xfde, 12}, {0x1fdd, 13}, {0x1fd9, 13}, {0x1fe2, 13}, {0x1fea, 13}, {0x1ff1, 13}, {0x1ff6, 13},
    {0x7d2, 11}, {0x3d4, 10}, {0x3da, 10}, {0x7c7, 11}, {0x7d7, 11}, {0x7e2, 11}, {0xfce, 12}, {0xfdb, 12},
    {0x1fd8, 13}, {0x1fee, 13}, {0x3ff0, 14}, {0x1ff4, 13}, {0x3ff2, 14}, {0x7e1, 11}, {0x3df, 10}, {0x7c9, 11},
    {0x7d6, 11}, {0xfca, 12}, {0xfd0, 12}, {0xfe5, 12}, {0xfe6, 12}, {0x1feb, 13}, {0x1fef, 13}, {0x3ff3, 14},
    {0x3ff4, 14}, {0x3ff5, 14}, {0xfe0, 12}, {0x7ce, 11}, {0x7d5, 11}, {0xfc6, 12}, {0xfd1, 12}, {0xfe1, 12},
    {0x1fe0, 13}, {0x1fe8, 13}, {0x1ff0, 13}, {0x3ff1, 14}, {0x3ff8, 14}, {0x3ff6, 14}, {0x7ffc, 15}, {0xfe8, 12},
    {0x7df, 11}, {0xfc9, 12}, {0xfd7, 12}, {0xfdc, 12}, {0x1fdc, 13}, {0x1fdf, 13}, {0x1fed, 13}, {0x1ff5, 13},
    {0x3ff9, 14}, {0x3ffb, 14}, {0x7ffd, 15}, {0x7ffe, 15}, {0x1fe7, 13}, {0xfcc, 12}, {0xfd6, 12}, {0xfdf, 12},
    {0x1fde, 13}, {0x1fda, 13}, {0x1fe5, 13}, {0x1ff2, 13}, {0x3ffa, 14}, {0x3ff7, 14}, {0x3ffc, 14}, {0x3ffd, 14},
    {0x7fff, 15},
}};

// Codebook 10: unsigned pairs 0..12, same order as codebook 9.
constexpr std::array<HuffmanCode, 169> kSpectrum10Codes = {{
    {0x22, 6}, {0x8, 5}, {0x1d, 6}, {0x26, 6}, {0x5f, 7}, {0xd3, 8}, {0x1cf, 9}, {0x3d0, 10},
    {0x3d7, 10}, {0x3ed, 10}, {0x7f0, 11}, {0x7f6, 11}, {0xffd, 12}, {0x7, 5}, {0x0, 4}, {0x1, 4},
    {0x9, 5}, {0x20, 6}, {0x54, 7}, {0x60, 7}, {0xd5, 8}, {0xdc, 8}, {0x1d4, 9}, {0x3cd, 10},
    {0x3de, 10}, {0x7e7, 11}, {0x1c, 6}, {0x2, 4}, {0x6, 5}, {0xc, 5}, {0x1e, 6}, {0x28, 6},
    {0x5b, 7}, {0xcd, 8}, {0xd9, 8}, {0x1ce, 9}, {0x1dc, 9}, {0x3d9, 10}, {0x3f1, 10}, {0x25, 6},
    {0xb, 5}, {0xa, 5}, {0xd, 5}, {0x24, 6}, {0x57, 7}, {0x61, 7}, {0xcc, 8}, {0xdd, 8},
    {0x1cc, 9}, {0x1de, 9}, {0x3d3, 10}, {0x3e7, 10}, {0x5d, 7}, {0x21, 6}, {0x1f, 6}, {0x23, 6},
    {0x27, 6}, {0x59, 7}, {0x64, 7}, {0xd8, 8}, {0xdf, 8}, {0x1d2, 9}, {0x1e2, 9}, {0x3dd, 10},
    {0x3ee, 10}, {0xd1, 8}, {0x55, 7}, {0x29, 6}, {0x56, 7}, {0x58, 7}, {0x62, 7}, {0xce, 8},
    {0xe0, 8}, {0xe2, 8}, {0x1da, 9}, {0x3d4, 10}, {0x3e3, 10}, {0x7eb, 11}, {0x1c9, 9}, {0x5e, 7},
    {0x5a, 7}, {0x5c, 7}, {0x63, 7}, {0xca, 8}, {0xda, 8}, {0x1c7, 9}, {0x1ca, 9}, {0x1e0, 9},
    {0x3db, 10}, {0x3e8, 10}, {0x7ec, 11}, {0x1e3, 9}, {0xd2, 8}, {0xcb, 8}, {0xd0, 8}, {0xd7, 8},
    {0xdb, 8}, {0x1c6, 9}, {0x1d5, 9}, {0x1d8, 9}, {0x3ca, 10}, {0x3da, 10}, {0x7ea, 11}, {0x7f1, 11},
    {0x1e1, 9}, {0xd4, 8}, {0xcf, 8}, {0xd6, 8}, {0xde, 8}, {0xe1, 8}, {0x1d0, 9}, {0x1d6, 9},
    {0x3d1, 10}, {0x3d5, 10}, {0x3f2, 10}, {0x7ee, 11}, {0x7fb, 11}, {0x3e9, 10}, {0x1cd, 9}, {0x1c8, 9},
    {0x1cb, 9}, {0x1d1, 9}, {0x1d7, 9}, {0x1df, 9}, {0x3cf, 10}, {0x3e0, 10}, {0x3ef, 10}, {0x7e6, 11},
    {0x7f8, 11}, {0xffa, 12}, {0x3eb, 10}, {0x1dd, 9}, {0x1d3, 9}, {0x1d9, 9}, {0x1db, 9}, {0x3d2, 10},
    {0x3cc, 10}, {0x3dc, 10}, {0x3ea, 10}, {0x7ed, 11}, {0x7f3, 11}, {0x7f9, 11}, {0xff9, 12}, {0x7f2, 11},
    {0x3ce, 10}, {0x1e4, 9}, {0x3cb, 10}, {0x3d8, 10}, {0x3d6, 10}, {0x3e2, 10}, {0x3e5, 10}, {0x7e8, 11},
    {0x7f4, 11}, {0x7f5, 11}, {0x7f7, 11}, {0xffb, 12}, {0x7fa, 11}, {0x3ec, 10}, {0x3df, 10}, {0x3e1, 10},
    {0x3e4, 10}, {0x3e6, 10}, {0x3f0, 10}, {0x7e9, 11}, {0x7ef, 11}, {0xff8, 12}, {0xffe, 12}, {0xffc, 12},
    {0xfff, 12},
}};

// Codebook 11: unsigned pairs 0..16 (16 = escape), index 17y + z.
constexpr std::array<HuffmanCode, 289> kSpectrum11Codes = {{
    {0x0, 4}, {0x6, 5}, {0x19, 6}, {0x3d, 7}, {0x9c, 8}, {0xc6, 8}, {0x1a7, 9}, {0x390, 10},
    {0x3c2, 10}, {0x3df, 10}, {0x7e6, 11}, {0x7f3, 11}, {0xffb, 12}, {0x7ec, 11}, {0xffa, 12}, {0xffe, 12},
    {0x38e, 10}, {0x5, 5}, {0x1, 4}, {0x8, 5}, {0x14, 6}, {0x37, 7}, {0x42, 7}, {0x92, 8},
    {0xaf, 8}, {0x191, 9}, {0x1a5, 9}, {0x1b5, 9}, {0x39e, 10}, {0x3c0, 10}, {0x3a2, 10}, {0x3cd, 10},
    {0x7d6, 11}, {0xae, 8}, {0x17, 6}, {0x7, 5}, {0x9, 5}, {0x18, 6}, {0x39, 7}, {0x40, 7},
    {0x8e, 8}, {0xa3, 8}, {0xb8, 8}, {0x199, 9}, {0x1ac, 9}, {0x1c1, 9}, {0x3b1, 10}, {0x396, 10},
    {0x3be, 10}, {0x3ca, 10}, {0x9d, 8}, {0x3c, 7}, {0x15, 6}, {0x16, 6}, {0x1a, 6}, {0x3b, 7},
    {0x44, 7}, {0x91, 8}, {0xa5, 8}, {0xbe, 8}, {0x196, 9}, {0x1ae, 9}, {0x1b9, 9}, {0x3a1, 10},
    {0x391, 10}, {0x3a5, 10}, {0x3d5, 10}, {0x94, 8}, {0x9a, 8}, {0x36, 7}, {0x38, 7}, {0x3a, 7},
    {0x41, 7}, {0x8c, 8}, {0x9b, 8}, {0xb0, 8}, {0xc3, 8}, {0x19e, 9}, {0x1ab, 9}, {0x1bc, 9},
    {0x39f, 10}, {0x38f, 10}, {0x3a9, 10}, {0x3cf, 10}, {0x93, 8}, {0xbf, 8}, {0x3e, 7}, {0x3f, 7},
    {0x43, 7}, {0x45, 7}, {0x9e, 8}, {0xa7, 8}, {0xb9, 8}, {0x194, 9}, {0x1a2, 9}, {0x1ba, 9},
    {0x1c3, 9}, {0x3a6, 10}, {0x3a7, 10}, {0x3bb, 10}, {0x3d4, 10}, {0x9f, 8}, {0x1a0, 9}, {0x8f, 8},
    {0x8d, 8}, {0x90, 8}, {0x98, 8}, {0xa6, 8}, {0xb6, 8}, {0xc4, 8}, {0x19f, 9}, {0x1af, 9},
    {0x1bf, 9}, {0x399, 10}, {0x3bf, 10}, {0x3b4, 10}, {0x3c9, 10}, {0x3e7, 10}, {0xa8, 8}, {0x1b6, 9},
    {0xab, 8}, {0xa4, 8}, {0xaa, 8}, {0xb2, 8}, {0xc2, 8}, {0xc5, 8}, {0x198, 9}, {0x1a4, 9},
    {0x1b8, 9}, {0x38c, 10}, {0x3a4, 10}, {0x3c4, 10}, {0x3c6, 10}, {0x3dd, 10}, {0x3e8, 10}, {0xad, 8},
    {0x3af, 10}, {0x192, 9}, {0xbd, 8}, {0xbc, 8}, {0x18e, 9}, {0x197, 9}, {0x19a, 9}, {0x1a3, 9},
    {0x1b1, 9}, {0x38d, 10}, {0x398, 10}, {0x3b7, 10}, {0x3d3, 10}, {0x3d1, 10}, {0x3db, 10}, {0x7dd, 11},
    {0xb4, 8}, {0x3de, 10}, {0x1a9, 9}, {0x19b, 9}, {0x19c, 9}, {0x1a1, 9}, {0x1aa, 9}, {0x1ad, 9},
    {0x1b3, 9}, {0x38b, 10}, {0x3b2, 10}, {0x3b8, 10}, {0x3ce, 10}, {0x3e1, 10}, {0x3e0, 10}, {0x7d2, 11},
    {0x7e5, 11}, {0xb7, 8}, {0x7e3, 11}, {0x1bb, 9}, {0x1a8, 9}, {0x1a6, 9}, {0x1b0, 9}, {0x1b2, 9},
    {0x1b7, 9}, {0x39b, 10}, {0x39a, 10}, {0x3ba, 10}, {0x3b5, 10}, {0x3d6, 10}, {0x7d7, 11}, {0x3e4, 10},
    {0x7d8, 11}, {0x7ea, 11}, {0xba, 8}, {0x7e8, 11}, {0x3a0, 10}, {0x1bd, 9}, {0x1b4, 9}, {0x38a, 10},
    {0x1c4, 9}, {0x392, 10}, {0x3aa, 10}, {0x3b0, 10}, {0x3bc, 10}, {0x3d7, 10}, {0x7d4, 11}, {0x7dc, 11},
    {0x7db, 11}, {0x7d5, 11}, {0x7f0, 11}, {0xc1, 8}, {0x7fb, 11}, {0x3c8, 10}, {0x3a3, 10}, {0x395, 10},
    {0x39d, 10}, {0x3ac, 10}, {0x3ae, 10}, {0x3c5, 10}, {0x3d8, 10}, {0x3e2, 10}, {0x3e6, 10}, {0x7e4, 11},
    {0x7e7, 11}, {0x7e0, 11}, {0x7e9, 11}, {0x7f7, 11}, {0x190, 9}, {0x7f2, 11}, {0x393, 10}, {0x1be, 9},
    {0x1c0, 9}, {0x394, 10}, {0x397, 10}, {0x3ad, 10}, {0x3c3, 10}, {0x3c1, 10}, {0x3d2, 10}, {0x7da, 11},
    {0x7d9, 11}, {0x7df, 11}, {0x7eb, 11}, {0x7f4, 11}, {0x7fa, 11}, {0x195, 9}, {0x7f8, 11}, {0x3bd, 10},
    {0x39c, 10}, {0x3ab, 10}, {0x3a8, 10}, {0x3b3, 10}, {0x3b9, 10}, {0x3d0, 10}, {0x3e3, 10}, {0x3e5, 10},
    {0x7e2, 11}, {0x7de, 11}, {0x7ed, 11}, {0x7f1, 11}, {0x7f9, 11}, {0x7fc, 11}, {0x193, 9}, {0xffd, 12},
    {0x3dc, 10}, {0x3b6, 10}, {0x3c7, 10}, {0x3cc, 10}, {0x3cb, 10}, {0x3d9, 10}, {0x3da, 10}, {0x7d3, 11},
    {0x7e1, 11}, {0x7ee, 11}, {0x7ef, 11}, {0x7f5, 11}, {0x7f6, 11}, {0xffc, 12}, {0xfff, 12}, {0x19d, 9},
    {0x1c2, 9}, {0xb5, 8}, {0xa1, 8}, {0x96, 8}, {0x97, 8}, {0x95, 8}, {0x99, 8}, {0xa0, 8},
    {0xa2, 8}, {0xac, 8}, {0xa9, 8}, {0xb1, 8}, {0xb3, 8}, {0xbb, 8}, {0xc0, 8}, {0x18f, 9},
    {0x4, 5},
}};

// The code tables in codebook order: 0 is the scale-factor codebook.
constexpr std::array<const HuffmanCode*, 12> kCodebooks = {
    kScaleFactorCodes.data(), kSpectrum1Codes.data(), kSpectrum2Codes.data(),  kSpectrum3Codes.data(),
    kSpectrum4Codes.data(),   kSpectrum5Codes.data(), kSpectrum6Codes.data(),  kSpectrum7Codes.data(),
    kSpectrum8Codes.data(),   kSpectrum9Codes.data(), kSpectrum10Codes.data(), kSpectrum11Codes.data(),
};
constexpr std::array<int, 12> kCodebookSizes = {121, 81, 81, 81, 81, 81, 81, 64, 64, 169, 169, 289};

// Long-window band offsets (1024 lines), one table per group of rates.
constexpr std::array<uint16_t, 42> kLong96 = {
    0,   4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  44,  48,  52,  56,  64,  72,  80,  88,  96,  108,
    120, 132, 144, 156, 172, 188, 212, 240, 276, 320, 384, 448, 512, 576, 640, 704, 768, 832, 896, 960, 1024,
}; // 96000 and 88200 Hz
constexpr std::array<uint16_t, 48> kLong64 = {
    0,   4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  44,  48,  52,  56,  64,
    72,  80,  88,  100, 112, 124, 140, 156, 172, 192, 216, 240, 268, 304, 344, 384,
    424, 464, 504, 544, 584, 624, 664, 704, 744, 784, 824, 864, 904, 944, 984, 1024,
}; // 64000 Hz
constexpr std::array<uint16_t, 50> kLong48 = {
    0,   4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  48,  56,  64,  72,  80,  88,
    96,  108, 120, 132, 144, 160, 176, 196, 216, 240, 264, 292, 320, 352, 384, 416, 448,
    480, 512, 544, 576, 608, 640, 672, 704, 736, 768, 800, 832, 864, 896, 928, 1024,
}; // 48000 and 44100 Hz
constexpr std::array<uint16_t, 52> kLong32 = {
    0,   4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  48,  56,  64,  72,  80,  88,  96,
    108, 120, 132, 144, 160, 176, 196, 216, 240, 264, 292, 320, 352, 384, 416, 448, 480, 512,
    544, 576, 608, 640, 672, 704, 736, 768, 800, 832, 864, 896, 928, 960, 992, 1024,
}; // 32000 Hz
constexpr std::array<uint16_t, 48> kLong24 = {
    0,   4,   8,   12,  16,  20,  24,  28,  32,  36,  40,  44,  52,  60,  68,  76,
    84,  92,  100, 108, 116, 124, 136, 148, 160, 172, 188, 204, 220, 240, 260, 284,
    308, 336, 364, 396, 432, 468, 508, 552, 600, 652, 704, 768, 832, 896, 960, 1024,
}; // 24000 and 22050 Hz
constexpr std::array<uint16_t, 44> kLong16 = {
    0,   8,   16,  24,  32,  40,  48,  56,  64,  72,  80,  88,  100, 112, 124,
    136, 148, 160, 172, 184, 196, 212, 228, 244, 260, 280, 300, 320, 344, 368,
    396, 424, 456, 492, 532, 572, 616, 664, 716, 772, 832, 896, 960, 1024,
}; // 16000, 12000 and 11025 Hz
constexpr std::array<uint16_t, 41> kLong8 = {
    0,   12,  24,  36,  48,  60,  72,  84,  96,  108, 120, 132, 144, 156,
    172, 188, 204, 220, 236, 252, 268, 288, 308, 328, 348, 372, 396, 420,
    448, 476, 508, 544, 580, 620, 664, 712, 764, 820, 880, 944, 1024,
}; // 8000 Hz

// Short-window band offsets (128 lines).
constexpr std::array<uint16_t, 13> kShort96 = {0, 4, 8, 12, 16, 20, 24, 32, 40, 48, 64, 92, 128}; // 96000-64000 Hz
constexpr std::array<uint16_t, 15> kShort48 = {0,  4,  8,  12, 16, 20,  28, 36,
                                               44, 56, 68, 80, 96, 112, 128}; // 48000-32000 Hz
constexpr std::array<uint16_t, 16> kShort24 = {0,  4,  8,  12, 16, 20,  24,  28,
                                               36, 44, 52, 64, 76, 92, 108, 128}; // 24000 and 22050 Hz
constexpr std::array<uint16_t, 16> kShort16 = {0,  4,  8,  12, 16, 20,  24,  28,
                                               32, 40, 48, 60, 72, 88, 108, 128}; // 16000-11025 Hz
constexpr std::array<uint16_t, 16> kShort8 = {0,  4,  8,  12, 16, 20,  24,  28,
                                              36, 44, 52, 60, 72, 88, 108, 128}; // 8000 Hz

struct BandTable {
    const uint16_t* offsets;
    int bands;
};

template <size_t N>
constexpr BandTable bands_of(const std::array<uint16_t, N>& table)
{
    return BandTable{table.data(), static_cast<int>(N) - 1};
}

// Per frequency index 0..11 (96000, 88200, 64000, 48000, 44100, 32000,
// 24000, 22050, 16000, 12000, 11025, 8000 Hz).
constexpr std::array<BandTable, kAACFrequencyIndexes> kLongBands = {
    bands_of(kLong96), bands_of(kLong96), bands_of(kLong64), bands_of(kLong48), bands_of(kLong48), bands_of(kLong32),
    bands_of(kLong24), bands_of(kLong24), bands_of(kLong16), bands_of(kLong16), bands_of(kLong16), bands_of(kLong8),
};
constexpr std::array<BandTable, kAACFrequencyIndexes> kShortBands = {
    bands_of(kShort96), bands_of(kShort96), bands_of(kShort96), bands_of(kShort48),
    bands_of(kShort48), bands_of(kShort48), bands_of(kShort24), bands_of(kShort24),
    bands_of(kShort16), bands_of(kShort16), bands_of(kShort16), bands_of(kShort8),
};

// Prediction band limit per frequency index.
constexpr std::array<int, kAACFrequencyIndexes> kPredictorBands = {33, 33, 38, 40, 40, 40, 41, 41, 37, 37, 37, 34};

// Lower bounds of the frequency indexes 0..10; below the last, index 11.
constexpr std::array<float, 11> kRateThresholds = {92017.0f, 75132.0f, 55426.0f, 46009.0f, 37566.0f, 27713.0f,
                                                   23004.0f, 18783.0f, 13856.0f, 11502.0f, 9391.0f};

// Digits per tuple and their base, per spectrum codebook 1..11.
struct TupleShape {
    int digits;
    int base;
    bool is_signed;
};
constexpr std::array<TupleShape, 12> kShapes = {{
    {1, 121, true}, // scale factors: no sign bits
    {4, 3, true},   // 1
    {4, 3, true},   // 2
    {4, 3, false},  // 3
    {4, 3, false},  // 4
    {2, 9, true},   // 5
    {2, 9, true},   // 6
    {2, 8, false},  // 7
    {2, 8, false},  // 8
    {2, 13, false}, // 9
    {2, 13, false}, // 10
    {2, 17, false}, // 11
}};

// Marks an entry that no code has reached yet.
constexpr int kUnset = -1000;

// Builds the tree of a codebook; empty when the table is not a complete
// prefix code.
std::vector<std::array<int, 4>> build_tree(int codebook)
{
    std::vector<std::array<int, 4>> nodes(1, {kUnset, kUnset, 0, 0});
    const HuffmanCode* codes = kCodebooks[static_cast<size_t>(codebook)];
    const TupleShape shape = kShapes[static_cast<size_t>(codebook)];
    for (int index = 0; index < kCodebookSizes[static_cast<size_t>(codebook)]; ++index) {
        int nonzero = 0;
        int escaped = 0;
        for (int rest = index, d = 0; d < shape.digits; ++d, rest /= shape.base) {
            const int digit = rest % shape.base;
            nonzero += digit != 0 ? 1 : 0;
            escaped += digit == 16 ? 1 : 0;
        }
        const int leaf = shape.is_signed ? 0 : -nonzero;
        const HuffmanCode c = codes[index];
        size_t node = 0;
        for (int b = c.length - 1; b >= 0; --b) {
            const int bit = static_cast<int>((c.code >> b) & 1u);
            int& entry = nodes[node][static_cast<size_t>(bit)];
            if (b == 0) {
                if (entry != kUnset)
                    return {};
                entry = leaf;
                nodes[node][static_cast<size_t>(2 + bit)] = escaped;
            } else if (entry == kUnset) {
                entry = static_cast<int>(nodes.size());
                node = nodes.size();
                nodes.push_back({kUnset, kUnset, 0, 0});
            } else if (entry > 0) {
                node = static_cast<size_t>(entry);
            } else {
                return {};
            }
        }
    }
    for (const auto& n : nodes)
        if (n[0] == kUnset || n[1] == kUnset)
            return {};
    return nodes;
}

// Every tree, built once on first use.
struct Trees {
    std::array<std::vector<std::array<int, 2>>, 11> pairs; // 0 scale factors, 1..10 spectrum
    std::vector<std::array<int, 4>> escape;

    Trees()
    {
        for (int cb = 0; cb <= 10; ++cb) {
            for (const auto& n : build_tree(cb))
                pairs[static_cast<size_t>(cb)].push_back({n[0], n[1]});
        }
        escape = build_tree(11);
    }
};

const Trees& trees()
{
    static const Trees built;
    return built;
}

const int (*pair_tree(int codebook))[2]
{
    const auto& t = trees().pairs[static_cast<size_t>(codebook)];
    return t.empty() ? nullptr : reinterpret_cast<const int(*)[2]>(t.data());
}

} // namespace

int aac_frequency_index(float sample_rate)
{
    for (size_t i = 0; i < kRateThresholds.size(); ++i)
        if (sample_rate >= kRateThresholds[i])
            return static_cast<int>(i);
    return 11;
}

const uint16_t* aac_long_band_offsets(int frequency_index, int* bands)
{
    const BandTable& t = kLongBands[static_cast<size_t>(frequency_index)];
    *bands = t.bands;
    return t.offsets;
}

const uint16_t* aac_short_band_offsets(int frequency_index, int* bands)
{
    const BandTable& t = kShortBands[static_cast<size_t>(frequency_index)];
    *bands = t.bands;
    return t.offsets;
}

int aac_predictor_band_limit(int frequency_index)
{
    return kPredictorBands[static_cast<size_t>(frequency_index)];
}

const int (*aac_scale_factor_tree())[2]
{
    return pair_tree(0);
}

const int (*aac_spectrum_tree(int codebook))[2]
{
    return codebook >= 1 && codebook <= 10 ? pair_tree(codebook) : nullptr;
}

const int (*aac_escape_tree())[4]
{
    const auto& t = trees().escape;
    return t.empty() ? nullptr : reinterpret_cast<const int(*)[4]>(t.data());
}

int aac_codebook_size(int codebook)
{
    return codebook >= 0 && codebook <= 11 ? kCodebookSizes[static_cast<size_t>(codebook)] : 0;
}

void aac_codebook_entry(int codebook, int index, uint32_t* code, int* length)
{
    const HuffmanCode c = kCodebooks[static_cast<size_t>(codebook)][index];
    *code = c.code;
    *length = c.length;
}

} // namespace KEL
