// Test helpers for the M4A reader and writer: hand-built atoms and files,
// files in memory, ffmpeg fixtures with ffprobe's packets, an independent
// walk of a file's atoms, and packets holding known bytes.
#ifndef KEL_TESTS_M4A_M4AFIXTURES_H
#define KEL_TESTS_M4A_M4AFIXTURES_H

#include "core/packet.h"
#include "common/oracle.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace KEL {
namespace test {

Bytes be16(uint32_t v);
Bytes be32(uint32_t v);
Bytes tag(const char* four);
Bytes cat(const std::vector<Bytes>& parts);
// The 8-bit field at bit position bit, most significant bit first.
int read8(const Bytes& b, size_t bit);
Bytes atom(const char* type, const Bytes& body);
Bytes full_atom(const char* type, const Bytes& body); // version and flags 0

Bytes stts_atom(const std::vector<std::pair<uint32_t, uint32_t>>& runs);
Bytes stsc_atom(const std::vector<std::vector<uint32_t>>& entries);
Bytes stsz_atom(uint32_t constant, uint32_t count, const std::vector<uint32_t>& sizes);
Bytes stco_atom(const std::vector<uint32_t>& offsets);
// The body of an "esds" after its version and flags.
Bytes esds_body(uint32_t max_rate, uint32_t avg_rate, int frequency_index, int channel_config);
Bytes mp4a_entry(uint16_t channels, uint32_t rate_16_16, const Bytes& esds);
Bytes alac_entry(uint16_t version, uint8_t compatible, uint8_t depth, uint8_t channels, uint32_t rate);

// "ftyp" (major brand, compatible "M4A "), "moov" with one track per track description
// (its "stsd" holding the entry, if any, then the tables) and an "mdat" of
// 64 bytes (72 with its header) at the end.
struct TrackSpec {
    Bytes entry;
    Bytes tables;
};
Bytes m4a_file(const std::vector<TrackSpec>& tracks, const char* major = "M4A ");

// A read-only FILE* over a copy of bytes.
class MemFile {
public:
    explicit MemFile(const Bytes& bytes);
    ~MemFile();
    MemFile(const MemFile&) = delete;
    MemFile& operator=(const MemFile&) = delete;
    FILE* get() const { return file_; }

private:
    Bytes bytes_;
    FILE* file_ = nullptr;
};

// ffmpeg fixtures in the scratch folder, made once per name (empty path on
// failure): AAC-LC of a tone, faststart putting "moov" first; Apple
// Lossless of frames frames of noise.
std::string make_aac(const std::string& name, int rate, int channels, int kbps, double seconds, bool faststart);
std::string make_alac(const std::string& name, int rate, int channels, int bits, int frames);

// Offset of the atom at a slash-separated route ("moov/trak/mdia"), the
// first of each type, entering "stsd" and sample entries past their own
// fields; -1 when absent.
long long locate(const Bytes& file, const std::string& route);

// FakePackets over the given bytes; get() is the array the writer takes.
class PacketSet {
public:
    PacketSet() = default;
    ~PacketSet();
    PacketSet(const PacketSet&) = delete;
    PacketSet& operator=(const PacketSet&) = delete;
    void add(const Bytes& bytes, int frames);
    // A packet of size bytes whose handle delivers none.
    void add_unreadable(int size, int frames);
    Packet** get() { return packets_.data(); }
    int count() const { return static_cast<int>(packets_.size()); }
    const Bytes& bytes(int i) const { return bytes_[static_cast<size_t>(i)]; }
    long long total_bytes() const;

private:
    std::vector<Packet*> packets_;
    std::vector<Bytes> bytes_;
};

} // namespace test
} // namespace KEL

#endif
