// The common part of the M4A writers.
//
// A file is written in one pass: a 32-byte "ftyp", a "moov" atom made of a
// fixed template (whose sample entry the subclass fills) followed by the
// four sample tables as the last children of "stbl", the caller's extra
// atoms, and one "mdat" with the packets' bytes. Every packet is read
// through its own get_bytes with gain -1, so pending gain changes are
// written out. The packets go out in blocks of up to kBlockBytes.
//
// The template, for a template size Z (the sample entry is Z - 404 bytes)
// and S the sizes of the four tables:
//   0 "moov" (Z + S + extra atoms)   8 "mvhd" (108)   116 "trak" (Z-116+S)
//   124 "tkhd" (92)   216 "tref" (28) with 224 "chap" (20, three track ids)
//   244 "mdia" (Z-244+S)   252 "mdhd" (32)   284 "hdlr" (36, "soun")
//   320 "minf" (Z-320+S)   328 "smhd" (16)   344 "dinf" (36) with "dref"
//   and "url "   380 "stbl" (Z-380+S)   388 "stsd" (Z-388)   404 entry.
// The chunks of the "stco" table hold 21 packets each.
//
// A clip with trims gets one more atom that the template lacks, an edit
// list (36 bytes, right before "mdia": "edts" holding "elst" with one entry:
// the frames that play, in the movie's time scale, the first media frame
// played, rate 1.0), so that players drop the priming and the padding; the
// sizes of "moov" and "trak" and the chunk offsets grow by its size. A clip
// without trims is written exactly as the template says.
#ifndef KEL_M4A_M4A_SAVER_H
#define KEL_M4A_M4A_SAVER_H

#include "kel.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace KEL {

class Packet;

class KEL_API M4A_Saver {
public:
    // The file is written but not owned.
    explicit M4A_Saver(FILE* file);
    virtual ~M4A_Saver();
    M4A_Saver(const M4A_Saver&) = delete;
    M4A_Saver& operator=(const M4A_Saver&) = delete;

    // Packets per chunk of the chunk offset table.
    static constexpr int kChunkPackets = 21;
    // Packet bytes gathered before one write.
    static constexpr int kBlockBytes = 1 << 20;

    // The tables, each a complete atom stored in its field; null when it
    // cannot be allocated. create_stts always holds at least one entry
    // (1, 0 frames for a count of 0). create_stco needs "stsz": it
    // reports the samples per chunk and, when the last chunk is partial,
    // that chunk's number and samples (else the last chunk is 0 and its
    // samples are left alone); its entries are relative to the first
    // packet's bytes.
    unsigned char* create_stts(Packet** packets, int count);
    unsigned char* create_stsz(Packet** packets, int count);
    unsigned char* create_stco(int* samples_per_chunk, int* last_chunk, int* last_chunk_samples);
    unsigned char* create_stsc(int samples_per_chunk, int last_chunk, int last_chunk_samples);

    // Bytes of the edit list atom.
    static constexpr int kEditBytes = 36;
    // Asks for an edit list that plays frames frames from media frame
    // start (both in the sample rate's units); call before save.
    void set_edit(uint32_t start, uint32_t frames);

    // Seconds since 1904 for the creation and modification fields (four
    // hours more than the exact distance from 1970); 0 without a clock.
    static unsigned int _get_carbon_time();

    FILE* file;
    unsigned char* stts = nullptr;
    unsigned char* stsc = nullptr;
    unsigned char* stsz = nullptr;
    unsigned char* stco = nullptr;
    unsigned char* moov = nullptr;

protected:
    // The size of the edit list atom when one is written, else 0.
    int edit_bytes() const { return has_edit_ ? kEditBytes : 0; }

    // Allocates the zeroed template of template_size bytes and the four
    // tables: 0 or "EILC".
    int build(Packet** packets, int count, int template_size);
    // Total frames of "stts" and total bytes of "stsz": 0, or "Esmp" when
    // the frames do not fit a signed 32-bit number.
    int totals(long long& frames, long long& bytes) const;
    // The sum of the four tables' atom sizes (S).
    uint32_t tables_size() const;
    // Fills the template's fields shared by every codec (all but the
    // sample entry and the chapter ids).
    void fill_template(int template_size, uint32_t moov_size, uint32_t time, uint32_t rate, uint32_t frames,
                       uint32_t next_track_id);
    // Adds by to every entry of a chunk offset table atom at table (length
    // bytes available there).
    static void shift_chunk_offsets(unsigned char* table, long long length, uint32_t by);
    // Writes ftyp, the template and the four tables; returns the bytes
    // written.
    long long write_head(int template_size);
    // Writes length bytes; returns the bytes written.
    long long write_bytes(const void* data, long long length);
    // Writes every packet's bytes with progress: 0, "EIO " or "EILC";
    // silenced tells whether a packet was written as zeros.
    int write_packets(Packet** packets, int count, _kel_progress_ext_t* progress, bool& silenced);


    // A truncated float sample rate, 0 when it is not a usable number.
    static uint32_t truncated_rate(float sample_rate);
    // A double truncated to the unsigned 32-bit range (0 for NaN).
    static uint32_t truncate_u32(double value);


private:
    bool has_edit_ = false;
    uint32_t edit_start_ = 0;
    uint32_t edit_frames_ = 0;
};

} // namespace KEL

#endif
