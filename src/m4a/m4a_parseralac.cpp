#include "m4a/m4a_parseralac.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "m4a/m4aatoms.h"

#include <cstdint>

namespace KEL {


namespace {

constexpr const char* kEntryPath = "moov.trak-%d.mdia.minf.stbl.stsd;alac";

// The sample entry's own fields (36 bytes, the 16-bit version at 16) and
// the codec configuration atom nested right after them (36 bytes).
constexpr int kEntryHeader = 36;
constexpr int kConfigAtom = 36;

} // namespace

int M4A_ParserALAC::detect(FILE* file)
{
    return detect_entry(file, kEntryPath);
}

int M4A_ParserALAC::parse(FILE* file)
{
    int track = 0;
    long long at = 0;
    if (file == nullptr || !find_atom_and_index(file, kEntryPath, &track, &at))
        return kErrCorruptAlac;
    unsigned char entry[kEntryHeader];
    if (const int err = read_at(file, at, entry, sizeof entry))
        return err;
    if (get_be16(entry + 16) != 0)
        return kErrFormatUnsupported;
    unsigned char config[kConfigAtom];
    if (const int err = read_next(file, config, sizeof config))
        return err;

    channels = config[21];
    sample_rate = static_cast<float>(get_be32(config + 32));
    bit_rate = 0;
    // Compatible version (offset 16) and bit depth (17) read as one 16-bit
    // number: the bit depth while the compatible version is 0.
    bits_per_sample = get_be16(config + 16);

    if (!load_tables(file, track))
        return kErrCorruptAlac;
    return 0;
}

} // namespace KEL
