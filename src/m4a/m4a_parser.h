// The common part of the M4A readers: the stream parameters of one audio
// track and its four sample tables, from which every packet's file offset,
// byte size and frame count are answered.
//
// The subclasses (AAC, Apple Lossless) find the track by its sample entry,
// read the parameters from that entry and load the tables. The tables stay
// big-endian as loaded (see m4aatoms.h) and are freed by the destructor,
// also after a parse that failed half-way.
#ifndef KEL_M4A_M4A_PARSER_H
#define KEL_M4A_M4A_PARSER_H

#include "kel.h"

#include <cstddef>
#include <cstdio>
#include <vector>

namespace KEL {

class KEL_API M4A_Parser {
public:
    M4A_Parser();
    virtual ~M4A_Parser();
    M4A_Parser(const M4A_Parser&) = delete;
    M4A_Parser& operator=(const M4A_Parser&) = delete;

    // Reads the parameters and the tables: 0 or an error code.
    virtual int parse(FILE* file) = 0;

    // Copies the stream parameters out; every pointer may be null.
    void get_m4a_info(int* channels, float* sample_rate, int* bit_rate, int* bits_per_sample);
    // The sum of the "stts" sample counts (capped at the largest int); 0
    // before a time-to-sample table is loaded.
    int get_packet_count();
    // 1 and the asked-for values of packet index, 0 when they cannot be
    // answered; null pointers are not asked for and not computed. Chunk
    // offsets and sizes are taken as signed 32-bit numbers, so offsets of
    // 2 GiB and more come out negative.
    int get_packet_info(int index, long long* offset, int* size, int* frames);

    // Loaded tables (malloc'd, owned; null until loaded).
    unsigned char* stts = nullptr;
    unsigned char* stsc = nullptr;
    unsigned char* stsz = nullptr;
    unsigned char* stco = nullptr;
    int channels = 0;
    float sample_rate = 0.0f;
    int bit_rate = 0;        // bits per second; 0 for Apple Lossless
    int bits_per_sample = 0; // 0 for AAC
    // The track's edit list, when it has one that plays its media from one
    // point at normal rate: the first media frame played (the codec's
    // priming before it) and how many frames play, in the media's time
    // scale (the packets' frames); -1 when there is none.
    long long edit_start = -1;
    long long edit_frames = -1;

    // Cuts a packet the tables describe down to what a file of file_size
    // bytes holds and to max_frames frames, the most its decoder yields;
    // true when anything was cut. The tables' acceptance rules let a file
    // claim far more than it has (gigabytes of packet bytes, hours of
    // frames in a few packets); what is read, kept, drawn and written is
    // bounded by the bytes really there.
    static bool clamp_to_file(long long file_size, int max_frames, long long offset, int& size, int& frames);
    // The size of an open file, or -1.
    static long long size_of_file(const char* path);

    // The clip's trims from the edit list for a track of total frames:
    // false when there is none or it does not fit the frames (it is then
    // not trusted).
    bool edit_trims(long long total, int& start, int& end) const;

protected:
    // detect() of the subclasses: "Efor" without a file, "Efmu" unless the
    // file starts with an "ftyp" of major brand "M4A ", "M4B " or "mp42",
    // "Efms" when no track has a sample entry at entry_path, else 0.
    static int detect_entry(FILE* file, const char* entry_path);
    // Seeks to offset and reads length bytes: 0, "Eeof" at the end of the
    // file, "EIO " for any other failure.
    static int read_at(FILE* file, long long offset, unsigned char* dest, size_t length);
    // Reads length bytes from the current position, with the same codes.
    static int read_next(FILE* file, unsigned char* dest, size_t length);
    // Loads the four tables of track (each that loads is kept): true when
    // all four did. Reads the edit list as well (edit_start, edit_frames).
    bool load_tables(FILE* file, int track);

private:
    // The first edit of the track's "elst" that plays media, its duration
    // converted from the movie's time scale to the media's.
    void read_edit_list(FILE* file, int track);
public:

private:
    // The frame count of packet index from "stts".
    bool frames_of(int index, int& frames) const;
    // The byte size of packet index from "stsz".
    bool size_of(int index, int& size) const;
    // The file offset of packet index from "stsc", "stco" and "stsz".
    bool offset_of(int index, long long& offset) const;
    // Running sums of the listed "stsz" sizes (entry k: the first k), made
    // on first use; at most a quarter of the file's size in entries.
    mutable std::vector<long long> size_sums_;
};

} // namespace KEL

#endif
