#include "m4a/m4aatoms.h"

#include "core/byteorder.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace KEL {


namespace {

// Indexes larger than this stop growing; no file has that many siblings.
constexpr long long kIndexCap = 1000000000LL;

// Atom headers one search reads at most. A path passes a few dozen in a
// real file; a file of nothing but 8-byte atoms would otherwise cost a read
// per 8 bytes, for every path and every track number tried.
constexpr int kMaxAtomsWalked = 1024;

// One component of an atom path: a type and the sibling index.
struct Component {
    uint32_t type = 0;
    long long index = 0;
    bool valid = false;
};

// Reads the component at p (four characters, then "-" and digits when
// present) and returns the position after it. A path that ends inside the
// four characters gives an invalid component.
const unsigned char* parse_component(const unsigned char* p, Component& c)
{
    c = Component();
    uint32_t type = 0;
    for (int i = 0; i < 4; ++i) {
        if (p[i] == 0)
            return p + i;
        type = (type << 8) | p[i];
    }
    p += 4;
    c.type = type;
    c.valid = true;
    if (*p == '-') {
        ++p;
        while (*p >= '0' && *p <= '9') {
            if (c.index < kIndexCap)
                c.index = c.index * 10 + (*p - '0');
            ++p;
        }
    }
    return p;
}

// a + b for offsets that may come from corrupt sizes: saturates instead of
// overflowing, which only ever makes a range reach further.
long long add_saturated(long long a, long long b)
{
    long long sum;
    return __builtin_add_overflow(a, b, &sum) ? LLONG_MAX : sum;
}

// Size of the file in bytes, the position left where it was; -1 on failure.
long long file_size_of(FILE* file)
{
    const off_t here = ftello(file);
    if (here < 0 || fseeko(file, 0, SEEK_END) != 0)
        return -1;
    const off_t end = ftello(file);
    if (fseeko(file, here, SEEK_SET) != 0)
        return -1;
    return end;
}

// Loads one sample table: the atom at path, at least minimum bytes, and
// large enough for count entries of width bytes plus 4, count being the
// 32-bit field at count_at. The check adds 4 and not the header's length,
// so the last entries may lie past the atom's size: the block carries
// kTablePadding zero bytes so that those reads stay inside it.
void* load_table(FILE* file, const char* format, int track, uint32_t minimum, int count_at, uint32_t width)
{
    if (file == nullptr)
        return nullptr;
    char path[64];
    std::snprintf(path, sizeof path, format, track);
    long long at = 0;
    if (!find_atom(file, reinterpret_cast<const unsigned char*>(path), &at))
        return nullptr;
    const long long file_size = file_size_of(file);
    unsigned char head[4];
    if (file_size < 0 || fseeko(file, at, SEEK_SET) != 0 || std::fread(head, 1, 4, file) != 4)
        return nullptr;
    const uint32_t size = get_be32(head);
    if (size < minimum)
        return nullptr;
    // A size beyond the end of the file could never be read in full; it is
    // refused before anything is allocated for it.
    if (static_cast<long long>(size) > file_size - at)
        return nullptr;
    auto* block = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size) + kTablePadding, 1));
    if (block == nullptr)
        return nullptr;
    std::memcpy(block, head, 4);
    if (std::fread(block + 4, 1, size - 4, file) != size - 4) {
        std::free(block);
        return nullptr;
    }
    // Computed in 64 bits so that a huge count cannot wrap round and pass.
    const uint64_t count = get_be32(block + count_at);
    if (static_cast<uint64_t>(size) < count * width + 4) {
        std::free(block);
        return nullptr;
    }
    return block;
}

} // namespace

int find_atom(FILE* file, const unsigned char* path, long long* offset)
{
    if (file == nullptr || path == nullptr)
        return 0;
    if (fseeko(file, 0, SEEK_END) != 0)
        return 0;
    const long long file_size = ftello(file);
    if (file_size < 0 || fseeko(file, 0, SEEK_SET) != 0)
        return 0;

    Component component;
    path = parse_component(path, component);
    if (!component.valid)
        return 0;
    long long range_end = file_size;
    long long matches = -1;
    for (int walked = 0; walked < kMaxAtomsWalked; ++walked) {
        long long position = ftello(file);
        if (position < 0 || position >= range_end)
            return 0;
        unsigned char header[8];
        if (std::fread(header, 1, 8, file) != 8)
            return 0;
        position += 8;
        const uint32_t size = get_be32(header);
        long long header_length = 8;
        long long payload;
        if (size == 0) {
            // Runs to the end of the file, whatever encloses it.
            payload = file_size - position;
        } else if (size == 1) {
            unsigned char wide[8];
            if (std::fread(wide, 1, 8, file) != 8)
                return 0;
            position += 8;
            const long long size64 = static_cast<long long>((static_cast<uint64_t>(get_be32(wide)) << 32) | get_be32(wide + 4));
            if (size64 < 16)
                return 0;
            header_length = 16;
            payload = size64 - 16;
        } else if (size < 8) {
            return 0;
        } else {
            payload = static_cast<long long>(size) - 8;
        }

        if (get_be32(header + 4) == component.type && ++matches == component.index) {
            if (*path == 0) {
                if (offset != nullptr)
                    *offset = position - header_length;
                return 1;
            }
            long long skip = 0;
            if (*path == ',')
                skip = 4;
            else if (*path == ';')
                skip = 8;
            if (*path == '.' || *path == ',' || *path == ';')
                ++path;
            if (skip != 0) {
                if (fseeko(file, skip, SEEK_CUR) != 0)
                    return 0;
                position += skip;
            }
            // The skipped bytes are not taken off the payload: the child
            // range reaches that far past the atom's end.
            range_end = add_saturated(position, payload);
            path = parse_component(path, component);
            if (!component.valid)
                return 0;
            matches = -1;
            continue;
        }
        const long long next = add_saturated(position, payload);
        if (next == LLONG_MAX || fseeko(file, next, SEEK_SET) != 0)
            return 0;
    }
    return 0;
}

int find_atom_and_index(FILE* file, const char* path_format, int* track, long long* offset)
{
    if (file == nullptr || path_format == nullptr)
        return 0;
    // The track number replaces "%d" with at most three digits.
    std::string path(std::strlen(path_format) + 8, '\0');
    for (int n = 0; n < 255; ++n) {
        // Tracks are numbered among the "trak" atoms of "moov": once one is
        // missing, so are all after it.
        std::snprintf(&path[0], path.size(), "moov.trak-%d", n);
        if (!find_atom(file, reinterpret_cast<const unsigned char*>(path.c_str()), nullptr))
            return 0;
        std::snprintf(&path[0], path.size(), path_format, n);
        long long found = 0;
        if (find_atom(file, reinterpret_cast<const unsigned char*>(path.c_str()), &found)) {
            if (track != nullptr)
                *track = n;
            if (offset != nullptr)
                *offset = found;
            return 1;
        }
    }
    return 0;
}

int find_atom_mem(const unsigned char* data, int length, const unsigned char* path, int* offset)
{
    if (data == nullptr || length <= 0 || path == nullptr)
        return 0;
    Component component;
    path = parse_component(path, component);
    if (!component.valid)
        return 0;
    long long range_end = length;
    long long position = 0;
    long long matches = -1;
    for (int walked = 0; walked < kMaxAtomsWalked; ++walked) {
        // A candidate needs more than 8 bytes left in its range, and its
        // header must lie inside the block (a child range may overshoot it).
        if (range_end - position <= 8 || position + 8 > length)
            return 0;
        const unsigned char* header = data + position;
        const uint32_t size = get_be32(header);
        const long long payload_start = position + 8;
        long long payload;
        if (size == 0)
            payload = length - payload_start;
        else if (size < 8)
            return 0; // 64-bit sizes (1) are not read here
        else
            payload = static_cast<long long>(size) - 8;

        if (get_be32(header + 4) == component.type && ++matches == component.index) {
            if (*path == 0) {
                if (offset != nullptr)
                    *offset = static_cast<int>(position);
                return 1;
            }
            long long start = payload_start;
            if (*path == ',') {
                start += 4;
                ++path;
            } else if (*path == '.') {
                ++path;
            }
            range_end = start + payload;
            position = start;
            path = parse_component(path, component);
            if (!component.valid)
                return 0;
            matches = -1;
            continue;
        }
        position = payload_start + payload;
    }
    return 0;
}

void* load_stts(FILE* file, int track)
{
    return load_table(file, "moov.trak-%d.mdia.minf.stbl.stts", track, 16, 12, 8);
}

void* load_stsc(FILE* file, int track)
{
    return load_table(file, "moov.trak-%d.mdia.minf.stbl.stsc", track, 16, 12, 12);
}

void* load_stsz(FILE* file, int track)
{
    // Checked against the sample count even when a constant size means no
    // sizes are listed: such a 20-byte table holds at most 4 samples.
    return load_table(file, "moov.trak-%d.mdia.minf.stbl.stsz", track, 20, 16, 4);
}

void* load_stco(FILE* file, int track)
{
    return load_table(file, "moov.trak-%d.mdia.minf.stbl.stco", track, 16, 12, 4);
}

} // namespace KEL
