// The fuzz targets' entry functions, one per parser and one for whole
// files. Each takes any bytes and returns 0; a fault aborts (sanitizers,
// or a broken invariant the target checks). A libFuzzer executable calls
// one of them (fuzz_main.cpp, chosen when it is built); the test suite
// replays every committed input through all of them (replay_main.cpp).
#ifndef KEL_FUZZ_FUZZ_TARGETS_H
#define KEL_FUZZ_FUZZ_TARGETS_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace KEL::Fuzz {

using Entry = int (*)(const uint8_t* data, size_t size);

int open_file(const uint8_t* data, size_t size);   // fuzz_open.cpp
int bitstream(const uint8_t* data, size_t size);   // the rest: fuzz_parsers.cpp
int mp3_frame(const uint8_t* data, size_t size);
int mp3_tags(const uint8_t* data, size_t size);
int aac_gain(const uint8_t* data, size_t size);
int m4a_atoms(const uint8_t* data, size_t size);
int alac(const uint8_t* data, size_t size);
int pcm_chunks(const uint8_t* data, size_t size);

struct Target {
    const char* name; // also the folder of its corpus under fuzz/corpus
    Entry entry;
};

static constexpr std::array<Target, 8> kTargets = {{
    {"open", open_file},        // any file: open, decode, gain, draw, save
    {"bitstream", bitstream},   // MSB-first reader: skip, read, peek, poke, align
    {"mp3_frame", mp3_frame},   // header, side information, gain with CRC, reservoir walk
    {"mp3_tags", mp3_tags},     // ID3v2 skip, Xing/Info and LAME extension, stream search
    {"aac_gain", aac_gain},     // raw data block walk to the global_gain fields
    {"m4a_atoms", m4a_atoms},   // atom paths, sample tables, edit list, packet table
    {"alac", alac},             // cookie forms and hand-decoded uncompressed frames
    {"pcm_chunks", pcm_chunks}, // WAVE, AIFF and CAF chunk walks
}};

} // namespace KEL::Fuzz

#endif
