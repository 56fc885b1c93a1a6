#include "m4a/m4a_parser.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/fourcc.h"
#include "m4a/m4aatoms.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <sys/stat.h>

namespace KEL {


namespace {

// A table field that the file format declares unsigned but that is taken
// as a signed 32-bit number and sign-extended.
long long signed32(const unsigned char* p)
{
    return static_cast<int32_t>(get_be32(p));
}

} // namespace

M4A_Parser::M4A_Parser() = default;

M4A_Parser::~M4A_Parser()
{
    std::free(stts);
    std::free(stsc);
    std::free(stsz);
    std::free(stco);
}

void M4A_Parser::get_m4a_info(int* channels_out, float* sample_rate_out, int* bit_rate_out, int* bits_out)
{
    if (channels_out != nullptr)
        *channels_out = channels;
    if (sample_rate_out != nullptr)
        *sample_rate_out = sample_rate;
    if (bit_rate_out != nullptr)
        *bit_rate_out = bit_rate;
    if (bits_out != nullptr)
        *bits_out = bits_per_sample;
}

int M4A_Parser::get_packet_count()
{
    if (stts == nullptr)
        return 0;
    const uint32_t entries = get_be32(stts + 12);
    long long total = 0;
    for (uint32_t i = 0; i < entries && total < INT_MAX; ++i)
        total += get_be32(stts + 16 + 8 * static_cast<size_t>(i));
    return total < INT_MAX ? static_cast<int>(total) : INT_MAX;
}

int M4A_Parser::get_packet_info(int index, long long* offset, int* size, int* frames)
{
    if (stts == nullptr || stsc == nullptr || stsz == nullptr || stco == nullptr || index < 0)
        return 0;
    int frames_value = 0;
    int size_value = 0;
    long long offset_value = 0;
    if (frames != nullptr && !frames_of(index, frames_value))
        return 0;
    if (size != nullptr && !size_of(index, size_value))
        return 0;
    if (offset != nullptr && !offset_of(index, offset_value))
        return 0;
    if (frames != nullptr)
        *frames = frames_value;
    if (size != nullptr)
        *size = size_value;
    if (offset != nullptr)
        *offset = offset_value;
    return 1;
}

bool M4A_Parser::frames_of(int index, int& frames) const
{
    const uint32_t entries = get_be32(stts + 12);
    uint64_t total = 0;
    for (uint32_t i = 0; i < entries; ++i) {
        const unsigned char* entry = stts + 16 + 8 * static_cast<size_t>(i);
        total += get_be32(entry);
        if (total > static_cast<uint64_t>(index)) {
            const uint32_t duration = get_be32(entry + 4);
            if (duration == 0xFFFFFFFFu)
                return false;
            frames = static_cast<int>(duration);
            return true;
        }
    }
    return false;
}

bool M4A_Parser::size_of(int index, int& size) const
{
    const uint32_t constant = get_be32(stsz + 12);
    if (constant != 0) {
        size = static_cast<int>(constant);
        return true;
    }
    if (static_cast<uint32_t>(index) >= get_be32(stsz + 16))
        return false;
    size = static_cast<int>(get_be32(stsz + 20 + 4 * static_cast<size_t>(index)));
    return true;
}

// "stsc" is a list of runs: entry i says that the chunks from its first
// chunk up to the next entry's first chunk (or the last chunk, for the last
// entry) hold samples-per-chunk samples each. The run holding index gives
// the chunk and the position inside it; the chunk's offset plus the sizes
// of the samples before index in that chunk is the packet's offset. Corrupt
// tables can make these numbers overflow or point outside the tables; such
// packets cannot be answered.
bool M4A_Parser::offset_of(int index, long long& offset) const
{
    // Every step is checked: an overflow means the packet cannot be answered.
    bool ok = true;
    auto add = [&ok](long long a, long long b) {
        long long r = 0;
        ok = ok && !__builtin_add_overflow(a, b, &r);
        return r;
    };
    auto sub = [&ok](long long a, long long b) {
        long long r = 0;
        ok = ok && !__builtin_sub_overflow(a, b, &r);
        return r;
    };
    auto mul = [&ok](long long a, long long b) {
        long long r = 0;
        ok = ok && !__builtin_mul_overflow(a, b, &r);
        return r;
    };

    const uint32_t entries = get_be32(stsc + 12);
    const long long chunks = get_be32(stco + 12);
    long long first_sample = 0; // of the current run
    for (uint32_t i = 0; i < entries && ok; ++i) {
        const unsigned char* entry = stsc + 16 + 12 * static_cast<size_t>(i);
        const long long first_chunk = signed32(entry);
        const long long per_chunk = signed32(entry + 4);
        const long long next_first = i + 1 < entries ? signed32(entry + 12) : chunks + 1;
        const long long run = mul(next_first - first_chunk, per_chunk);
        if (add(first_sample, sub(run, 1)) < index) {
            first_sample = add(first_sample, run);
            continue;
        }
        const long long into_run = sub(index, first_sample);
        long long chunk_in_run;
        if (per_chunk == -1)
            chunk_in_run = sub(0, into_run); // spares the division its one overflow
        else if (per_chunk == 0)
            return false;
        else
            chunk_in_run = into_run / per_chunk;
        const long long chunk = add(chunk_in_run, first_chunk - 1);
        const long long position = sub(into_run, mul(chunk_in_run, per_chunk));
        if (!ok || chunk < 0 || chunk >= chunks)
            return false;

        long long result = signed32(stco + 16 + 4 * static_cast<size_t>(chunk));
        const uint32_t constant = get_be32(stsz + 12);
        if (constant != 0) {
            result = add(result, mul(position, static_cast<int32_t>(constant)));
        } else {
            const long long samples = get_be32(stsz + 16);
            // The sizes of the packets before this one in its chunk, from
            // running sums made once: summing them per packet made a walk
            // over a chunk of n packets cost n^2 / 2 reads (30 s for 1 MB).
            // A negative position adds no sizes at all.
            const long long first = position > 0 ? index - position : index;
            if (first < index) {
                if (first < 0 || index > samples)
                    return false;
                if (size_sums_.empty()) {
                    size_sums_.resize(static_cast<size_t>(samples) + 1);
                    for (long long s = 0; s < samples; ++s)
                        size_sums_[static_cast<size_t>(s) + 1] =
                            size_sums_[static_cast<size_t>(s)] + signed32(stsz + 20 + 4 * static_cast<size_t>(s));
                }
                result += size_sums_[static_cast<size_t>(index)] - size_sums_[static_cast<size_t>(first)];
            }
        }
        if (!ok)
            return false;
        offset = result;
        return true;
    }
    return false;
}

int M4A_Parser::detect_entry(FILE* file, const char* entry_path)
{
    if (file == nullptr)
        return kErrOpenRead;
    unsigned char head[12] = {};
    if (fseeko(file, 0, SEEK_SET) == 0)
        (void)std::fread(head, 1, sizeof head, file);
    if (get_be32(head + 4) != static_cast<uint32_t>(fourcc("ftyp")))
        return kErrFormatUnrecognized;
    const uint32_t brand = get_be32(head + 8);
    if (brand != static_cast<uint32_t>(fourcc("M4A ")) && brand != static_cast<uint32_t>(fourcc("M4B ")) &&
        brand != static_cast<uint32_t>(fourcc("mp42")))
        return kErrFormatUnrecognized;
    if (!find_atom_and_index(file, entry_path, nullptr, nullptr))
        return kErrFormatUnsupported;
    return 0;
}

int M4A_Parser::read_at(FILE* file, long long offset, unsigned char* dest, size_t length)
{
    if (fseeko(file, offset, SEEK_SET) != 0)
        return std::feof(file) ? kErrEof : kErrIo;
    return read_next(file, dest, length);
}

int M4A_Parser::read_next(FILE* file, unsigned char* dest, size_t length)
{
    if (std::fread(dest, 1, length, file) != length)
        return std::feof(file) ? kErrEof : kErrIo;
    return 0;
}

bool M4A_Parser::load_tables(FILE* file, int track)
{
    // A second parse replaces the tables of the first.
    std::free(stts);
    std::free(stsc);
    std::free(stsz);
    std::free(stco);
    stts = static_cast<unsigned char*>(load_stts(file, track));
    stsc = static_cast<unsigned char*>(load_stsc(file, track));
    stsz = static_cast<unsigned char*>(load_stsz(file, track));
    size_sums_.clear();
    stco = static_cast<unsigned char*>(load_stco(file, track));
    read_edit_list(file, track);
    return stts != nullptr && stsc != nullptr && stsz != nullptr && stco != nullptr;
}

namespace {

// The 32-bit time scale of a "mvhd" or "mdhd" atom found at path (version
// 0: at byte 20 of the atom, version 1: at byte 28); 0 when unreadable.
uint32_t time_scale(FILE* file, const char* path)
{
    long long at = 0;
    unsigned char head[32];
    if (!find_atom(file, reinterpret_cast<const unsigned char*>(path), &at) || fseeko(file, at, SEEK_SET) != 0 ||
        std::fread(head, 1, sizeof head, file) != sizeof head)
        return 0;
    return get_be32(head + (head[8] == 1 ? 28 : 20));
}

} // namespace

bool M4A_Parser::clamp_to_file(long long file_size, int max_frames, long long offset, int& size, int& frames)
{
    bool cut = false;
    const long long held = offset >= 0 && offset <= file_size ? file_size - offset : 0;
    if (size > held) {
        size = static_cast<int>(held);
        cut = true;
    }
    if (frames > max_frames) {
        frames = max_frames;
        cut = true;
    }
    return cut;
}

long long M4A_Parser::size_of_file(const char* path)
{
    struct stat st{};
    return path != nullptr && stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool M4A_Parser::edit_trims(long long total, int& start, int& end) const
{
    if (edit_start < 0 || edit_frames <= 0 || edit_start + edit_frames > total || edit_start > INT_MAX ||
        total - edit_start - edit_frames > INT_MAX)
        return false;
    start = static_cast<int>(edit_start);
    end = static_cast<int>(total - edit_start - edit_frames);
    return true;
}

void M4A_Parser::read_edit_list(FILE* file, int track)
{
    edit_start = -1;
    edit_frames = -1;
    char path[64];
    std::snprintf(path, sizeof path, "moov.trak-%d.edts.elst", track);
    long long at = 0;
    // Header, version and flags, entry count; then entries of 12 bytes
    // (version 0: duration, media time, rate) or 20 (version 1: 64-bit
    // duration and media time). Only the first eight entries are looked
    // at: an empty edit (media time -1) may come before the one that plays.
    unsigned char elst[16 + 8 * 20] = {};
    if (!find_atom(file, reinterpret_cast<const unsigned char*>(path), &at) || fseeko(file, at, SEEK_SET) != 0)
        return;
    const size_t got = std::fread(elst, 1, sizeof elst, file);
    if (got < 16)
        return;
    const bool wide = elst[8] == 1;
    const size_t entry = wide ? 20 : 12;
    const size_t held = std::min<size_t>(get_be32(elst), got);
    const size_t entries = std::min<size_t>(get_be32(elst + 12), held >= 16 ? (held - 16) / entry : 0);
    for (size_t i = 0, p = 16; i < entries; ++i, p += entry) {
        const long long duration =
            wide ? static_cast<long long>(get_be64(elst + p) & 0x7FFFFFFFFFFFFFFFULL) : get_be32(elst + p);
        const long long media =
            wide ? static_cast<long long>(get_be64(elst + p + 8)) : static_cast<int32_t>(get_be32(elst + p + 4));
        const uint32_t rate = get_be32(elst + p + entry - 4);
        if (media < 0)
            continue;
        if (rate != 0x00010000)
            return;
        std::snprintf(path, sizeof path, "moov.trak-%d.mdia.mdhd", track);
        const uint32_t movie_scale = time_scale(file, "moov.mvhd");
        const uint32_t media_scale = time_scale(file, path);
        if (movie_scale == 0 || media_scale == 0)
            return;
        edit_start = media;
        edit_frames = static_cast<long long>(static_cast<double>(duration) * media_scale / movie_scale + 0.5);
        return;
    }
}

} // namespace KEL
