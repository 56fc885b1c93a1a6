// Locating atoms of an MPEG-4 file and loading a track's sample tables.
//
// An atom is named by a textual path from the top of the file, for example
// "moov.trak-1.mdia.minf.stbl.stsd;alac". Each component is a four-character
// atom type, optionally followed by "-" and the zero-based index among the
// siblings of that type. The character after a component says how the atom
// just found is entered: "." its children start right after the header,
// "," after 4 more bytes (version and flags of a full box), ";" after 8 more
// bytes (version, flags and entry count of "stsd"); any other character is
// not consumed and starts the next component.
//
// The loaders return the whole atom, header included, in one malloc'd block,
// big-endian exactly as in the file (read the fields with the
// core/byteorder.h helpers). Field offsets within the blocks:
//   "stts": 12 entry count, entries from 16: sample count, duration (8 bytes)
//   "stsc": 12 entry count, entries from 16: first chunk, samples per chunk,
//           sample description index (12 bytes)
//   "stsz": 12 constant size (0: listed), 16 sample count, sizes from 20
//   "stco": 12 entry count, 32-bit chunk offsets from 16
// A block is followed by kTablePadding zero bytes that are not part of the
// atom: the acceptance check of a table allows its last entries to stand up
// to 16 bytes past the atom's size, and those reads must stay inside the
// allocation.
#ifndef KEL_M4A_M4AATOMS_H
#define KEL_M4A_M4AATOMS_H

#include "kel.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace KEL {

// Zero bytes allocated after every loaded table.
constexpr int kTablePadding = 16;

// MPEG-4 audio sampling frequencies by sampling frequency index 0..11.
inline constexpr std::array<int, 12> kMpeg4SamplingFrequencies = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};

// 1 and the offset of the named atom's header, the file left positioned
// just after that header; 0 when the atom is not there, lies behind more
// than 1024 other atom headers, or the file cannot be read.
KEL_API int find_atom(FILE* file, const unsigned char* path, long long* offset);

// path_format starts "moov.trak-%d": tries the track numbers of the
// file's tracks (at most 0..254) in order and answers for the first that
// names an existing atom. 0 when none does.
KEL_API int find_atom_and_index(FILE* file, const char* path_format, int* track, long long* offset);

// find_atom over a block in memory; the offset is relative to data. Knows
// only "." and "," as separators and refuses 64-bit atom sizes; the same
// bound on the headers passed.
KEL_API int find_atom_mem(const unsigned char* data, int length, const unsigned char* path, int* offset);

// The sample tables of track (see above); null on any failure.
KEL_API void* load_stts(FILE* file, int track);
KEL_API void* load_stsc(FILE* file, int track);
KEL_API void* load_stsz(FILE* file, int track);
KEL_API void* load_stco(FILE* file, int track);

} // namespace KEL

#endif
