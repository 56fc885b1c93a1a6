#include "m4a/m4a_saver.h"

#include "core/bshandle.h"
#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/fourcc.h"
#include "core/packet.h"
#include "core/progress.h"
#include "m4a/m4aatoms.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/time.h>

namespace KEL {


namespace {

// The largest atom size a 32-bit size field holds.
constexpr long long kMaxAtom = 0xFFFFFFFFLL;

// Seconds from 1904-01-01 to 1970-01-01 as the creation times count them:
// four hours more than the exact 2082844800.
constexpr long long kCarbonOffset = 2082859200LL;

// Bytes the stored range of a packet holds (0 without a handle).
int stored_length(const Packet* packet)
{
    if (packet == nullptr || packet->handle == nullptr || packet->handle->size < 0)
        return 0;
    return packet->handle->size;
}

uint32_t frames_of(const Packet* packet)
{
    return packet != nullptr ? static_cast<uint32_t>(packet->frame_count) : 0;
}

// A zeroed block for an atom of size bytes with its size and type set;
// null when the size does not fit the size field or memory runs out.
unsigned char* new_atom(long long size, const char (&type)[5])
{
    if (size < 8 || size > kMaxAtom)
        return nullptr;
    auto* block = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size), 1));
    if (block != nullptr) {
        put_be32(block, static_cast<uint32_t>(size));
        put_be32(block + 4, static_cast<uint32_t>(fourcc(type)));
    }
    return block;
}

void put_type(unsigned char* at, uint32_t size, const char (&type)[5])
{
    put_be32(at, size);
    put_be32(at + 4, static_cast<uint32_t>(fourcc(type)));
}

} // namespace

M4A_Saver::M4A_Saver(FILE* file) : file(file) {}

M4A_Saver::~M4A_Saver()
{
    std::free(stts);
    std::free(stsc);
    std::free(stsz);
    std::free(stco);
    std::free(moov);
}

unsigned char* M4A_Saver::create_stsz(Packet** packets, int count)
{
    std::free(stsz);
    stsz = nullptr;
    if (count < 0 || (packets == nullptr && count > 0))
        return nullptr;
    stsz = new_atom(20 + 4LL * count, "stsz");
    if (stsz == nullptr)
        return nullptr;
    put_be32(stsz + 16, static_cast<uint32_t>(count));
    for (int i = 0; i < count; ++i)
        put_be32(stsz + 20 + 4 * static_cast<size_t>(i), static_cast<uint32_t>(stored_length(packets[i])));
    return stsz;
}

unsigned char* M4A_Saver::create_stts(Packet** packets, int count)
{
    std::free(stts);
    stts = nullptr;
    if (count < 0 || (packets == nullptr && count > 0))
        return nullptr;
    // Room for count entries, and for the one entry that is written even
    // when count is 0 (with no packet to read, its duration is 0).
    const long long room = 16 + 8LL * (count > 0 ? count : 1);
    stts = new_atom(room, "stts");
    if (stts == nullptr)
        return nullptr;
    uint32_t entries = 1;
    unsigned char* entry = stts + 16;
    put_be32(entry, 1);
    put_be32(entry + 4, count > 0 ? frames_of(packets[0]) : 0);
    for (int i = 1; i < count; ++i) {
        const uint32_t frames = frames_of(packets[i]);
        if (frames == get_be32(entry + 4)) {
            put_be32(entry, get_be32(entry) + 1);
        } else {
            entry += 8;
            ++entries;
            put_be32(entry, 1);
            put_be32(entry + 4, frames);
        }
    }
    put_be32(stts, 16 + 8 * entries);
    put_be32(stts + 12, entries);
    return stts;
}

unsigned char* M4A_Saver::create_stco(int* samples_per_chunk, int* last_chunk, int* last_chunk_samples)
{
    std::free(stco);
    stco = nullptr;
    if (stsz == nullptr)
        return nullptr;
    const uint32_t count = get_be32(stsz + 16);
    const uint32_t per_chunk = kChunkPackets;
    uint32_t chunks = 1;
    uint32_t spc = count;
    uint32_t last = 0;
    if (count >= per_chunk) {
        chunks = count / per_chunk + (count % per_chunk != 0 ? 1 : 0);
        spc = per_chunk;
        if (count % per_chunk != 0) {
            last = chunks;
            if (last_chunk_samples != nullptr)
                *last_chunk_samples = static_cast<int>(count % per_chunk);
        }
    }
    if (samples_per_chunk != nullptr)
        *samples_per_chunk = static_cast<int>(spc);
    if (last_chunk != nullptr)
        *last_chunk = static_cast<int>(last);

    stco = new_atom(16 + 4LL * chunks, "stco");
    if (stco == nullptr)
        return nullptr;
    put_be32(stco + 12, chunks);
    // Entry c is the byte count of the packets of chunks 0..c-1.
    uint32_t running = 0;
    for (uint32_t c = 1; c < chunks; ++c) {
        for (uint32_t i = (c - 1) * per_chunk; i < c * per_chunk; ++i)
            running += get_be32(stsz + 20 + 4 * static_cast<size_t>(i));
        put_be32(stco + 16 + 4 * static_cast<size_t>(c), running);
    }
    return stco;
}

unsigned char* M4A_Saver::create_stsc(int samples_per_chunk, int last_chunk, int last_chunk_samples)
{
    std::free(stsc);
    stsc = new_atom(last_chunk != 0 ? 40 : 28, "stsc");
    if (stsc == nullptr)
        return nullptr;
    // Entries: first chunk, samples per chunk, sample description index.
    put_be32(stsc + 12, last_chunk != 0 ? 2 : 1);
    put_be32(stsc + 16, 1);
    put_be32(stsc + 20, static_cast<uint32_t>(samples_per_chunk));
    put_be32(stsc + 24, 1);
    if (last_chunk != 0) {
        put_be32(stsc + 28, static_cast<uint32_t>(last_chunk));
        put_be32(stsc + 32, static_cast<uint32_t>(last_chunk_samples));
        put_be32(stsc + 36, 1);
    }
    return stsc;
}

unsigned int M4A_Saver::_get_carbon_time()
{
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0)
        return 0;
    return static_cast<unsigned int>(static_cast<long long>(now.tv_sec) + kCarbonOffset);
}

int M4A_Saver::build(Packet** packets, int count, int template_size)
{
    std::free(moov);
    moov = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(template_size), 1));
    int samples_per_chunk = 0;
    int last_chunk = 0;
    int last_chunk_samples = 0;
    if (create_stsz(packets, count) != nullptr) {
        create_stts(packets, count);
        create_stco(&samples_per_chunk, &last_chunk, &last_chunk_samples);
        create_stsc(samples_per_chunk, last_chunk, last_chunk_samples);
    }
    if (moov == nullptr || stsz == nullptr || stts == nullptr || stco == nullptr || stsc == nullptr)
        return kErrInternal;
    return 0;
}

int M4A_Saver::totals(long long& frames, long long& bytes) const
{
    frames = 0;
    const uint32_t entries = get_be32(stts + 12);
    for (uint32_t i = 0; i < entries; ++i) {
        const unsigned char* entry = stts + 16 + 8 * static_cast<size_t>(i);
        frames += static_cast<long long>(get_be32(entry)) * get_be32(entry + 4);
        if (frames > INT_MAX)
            return kErrTooLong;
    }
    bytes = 0;
    const uint32_t count = get_be32(stsz + 16);
    for (uint32_t i = 0; i < count; ++i)
        bytes += get_be32(stsz + 20 + 4 * static_cast<size_t>(i));
    return 0;
}

uint32_t M4A_Saver::tables_size() const
{
    return get_be32(stts) + get_be32(stsc) + get_be32(stsz) + get_be32(stco);
}

void M4A_Saver::set_edit(uint32_t start, uint32_t frames)
{
    has_edit_ = true;
    edit_start_ = start;
    edit_frames_ = frames;
}

void M4A_Saver::fill_template(int template_size, uint32_t moov_size, uint32_t time, uint32_t rate, uint32_t frames,
                              uint32_t next_track_id)
{
    // Identity transformation of the movie and the track: 16.16 fixed point
    // except the last column, which is 2.30.
    static constexpr std::array<uint32_t, 9> kMatrix = {
        0x00010000, 0, 0, // a, b, u
        0, 0x00010000, 0, // c, d, v
        0, 0, 0x40000000  // x, y, w
    };
    const uint32_t z = static_cast<uint32_t>(template_size);
    const uint32_t s = tables_size();
    unsigned char* t = moov;

    put_type(t + 0, moov_size, "moov");
    put_type(t + 8, 108, "mvhd");
    put_be32(t + 20, time); // creation
    put_be32(t + 24, time); // modification
    put_be32(t + 28, rate); // time scale
    put_be32(t + 32, frames);
    put_be32(t + 36, 0x00010000); // rate 1.0
    put_be16(t + 40, 0x0100);     // volume 1.0
    for (size_t i = 0; i < kMatrix.size(); ++i)
        put_be32(t + 52 + 4 * i, kMatrix[i]);
    put_be32(t + 112, next_track_id);

    put_type(t + 116, z - 116 + s + static_cast<uint32_t>(edit_bytes()), "trak");
    put_type(t + 124, 92, "tkhd");
    put_be32(t + 132, 7); // enabled, in movie, in preview
    put_be32(t + 136, time);
    put_be32(t + 140, time);
    put_be32(t + 144, 1); // track id
    put_be32(t + 152, frames);
    put_be16(t + 168, 0x0100);
    for (size_t i = 0; i < kMatrix.size(); ++i)
        put_be32(t + 172 + 4 * i, kMatrix[i]);
    put_type(t + 216, 28, "tref");
    put_type(t + 224, 20, "chap");

    put_type(t + 244, z - 244 + s, "mdia");
    put_type(t + 252, 32, "mdhd");
    put_be32(t + 264, time);
    put_be32(t + 268, time);
    put_be32(t + 272, rate);
    put_be32(t + 276, frames);
    put_type(t + 284, 36, "hdlr");
    put_be32(t + 300, static_cast<uint32_t>(fourcc("soun")));

    put_type(t + 320, z - 320 + s, "minf");
    put_type(t + 328, 16, "smhd");
    put_type(t + 344, 36, "dinf");
    put_type(t + 352, 28, "dref");
    put_be32(t + 364, 1); // entry count
    put_type(t + 368, 12, "url ");
    put_be32(t + 376, 1); // media in this file
    put_type(t + 380, z - 380 + s, "stbl");
    put_type(t + 388, z - 388, "stsd");
    put_be32(t + 400, 1); // entry count
}

void M4A_Saver::shift_chunk_offsets(unsigned char* table, long long length, uint32_t by)
{
    if (table == nullptr || length < 16)
        return;
    const long long entries = get_be32(table + 12);
    for (long long i = 0; i < entries && 16 + 4 * i + 4 <= length; ++i) {
        unsigned char* entry = table + 16 + 4 * i;
        put_be32(entry, get_be32(entry) + by);
    }
}

long long M4A_Saver::write_bytes(const void* data, long long length)
{
    if (file == nullptr || data == nullptr || length <= 0)
        return 0;
    return static_cast<long long>(std::fwrite(data, 1, static_cast<size_t>(length), file));
}

long long M4A_Saver::write_head(int template_size)
{
    // "ftyp": major brand "M4A ", minor version 0, compatible brands
    // "M4A ", "mp42", "isom" and an empty one.
    unsigned char ftyp[32] = {};
    put_type(ftyp, 32, "ftyp");
    put_be32(ftyp + 8, static_cast<uint32_t>(fourcc("M4A ")));
    put_be32(ftyp + 16, static_cast<uint32_t>(fourcc("M4A ")));
    put_be32(ftyp + 20, static_cast<uint32_t>(fourcc("mp42")));
    put_be32(ftyp + 24, static_cast<uint32_t>(fourcc("isom")));
    long long written = write_bytes(ftyp, sizeof ftyp);
    if (has_edit_) {
        // The edit list goes between the track's header atoms and "mdia".
        constexpr int kMdiaAt = 244;
        unsigned char edts[kEditBytes] = {};
        put_type(edts, kEditBytes, "edts");
        put_type(edts + 8, kEditBytes - 8, "elst");
        // elst: version and flags 0, one entry.
        put_be32(edts + 20, 1);
        put_be32(edts + 24, edit_frames_);
        put_be32(edts + 28, edit_start_);
        put_be32(edts + 32, 0x00010000); // rate 1.0
        written += write_bytes(moov, kMdiaAt);
        written += write_bytes(edts, kEditBytes);
        written += write_bytes(moov + kMdiaAt, template_size - kMdiaAt);
    } else {
        written += write_bytes(moov, template_size);
    }
    for (const unsigned char* table : {stts, stsc, stsz, stco})
        written += write_bytes(table, get_be32(table));
    return written;
}

int M4A_Saver::write_packets(Packet** packets, int count, _kel_progress_ext_t* progress, bool& silenced)
{
    silenced = false;
    // The block holds the largest packet, and kBlockBytes when the packets
    // take that much.
    long long total = 0;
    int largest = 1;
    for (int i = 0; i < count; ++i) {
        total += stored_length(packets[i]);
        largest = std::max(largest, stored_length(packets[i]));
    }
    const long long capacity = std::max<long long>(largest, std::min<long long>(total, kBlockBytes));
    auto* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(capacity)));
    if (block == nullptr)
        return kErrInternal;
    ProgressThrottle throttle(progress);
    long long used = 0;
    auto flush = [&]() {
        const bool whole = write_bytes(block, used) == used;
        used = 0;
        return whole;
    };
    // Packets lying back to back in a file are read through the store's
    // read-ahead, so reading them one by one costs no system call each.
    int result = 0;
    for (int i = 0; i < count; ++i) {
        Packet* packet = packets[i];
        const int length = stored_length(packet);
        if (length > capacity - used && !flush()) {
            result = kErrIo;
            break;
        }
        if (length > 0) {
            // A packet that cannot deliver its bytes is written as silence
            // of the same length; the file stays complete.
            if (packet->get_bytes(block + used, -1.0f) < length) {
                std::memset(block + used, 0, static_cast<size_t>(length));
                silenced = true;
            }
            used += length;
        }
        // A cancel is not honoured: a save cannot stop half-way.
        (void)throttle.step(100.0f / static_cast<float>(count) * static_cast<float>(i));
    }
    if (result == 0 && used > 0 && !flush())
        result = kErrIo;
    std::free(block);
    return result;
}

uint32_t M4A_Saver::truncated_rate(float sample_rate)
{
    return truncate_u32(static_cast<double>(sample_rate));
}

uint32_t M4A_Saver::truncate_u32(double value)
{
    if (!(value > 0.0) || !std::isfinite(value))
        return 0;
    if (value >= 4294967295.0)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(value);
}

} // namespace KEL
