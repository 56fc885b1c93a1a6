#include "m4a/m4a_saveraac.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/fourcc.h"
#include "core/progress.h"
#include "m4a/m4aatoms.h"

#include <cstdlib>
#include <cstring>

namespace KEL {


namespace {

// Chapter tracks take the track ids 2, 3 and 4 at most.
constexpr int kMaxChapterIds = 3;

// Tracks looked for in the chapter image, as in every track search.
constexpr int kTrackLimit = 255;

// Size of an atom found in a block: a size of 0 runs to the block's end.
long long atom_size_in(const unsigned char* block, int length, int at)
{
    const uint32_t size = get_be32(block + at);
    return size == 0 ? static_cast<long long>(length - at) : static_cast<long long>(size);
}

// The first sampling frequency index whose rate is nearer to rate than the
// next lower one (the mean of neighbours, compared exactly), else 11.
int frequency_index_of(uint32_t rate)
{
    for (int i = 0; i < 11; ++i) {
        const long long pair = static_cast<long long>(kMpeg4SamplingFrequencies[static_cast<size_t>(i)]) +
                               kMpeg4SamplingFrequencies[static_cast<size_t>(i) + 1];
        if (pair <= 2LL * rate)
            return i;
    }
    return 11;
}

} // namespace

bool M4A_SaverAAC::scan_chapters(const void* block, int length, uint32_t rate, Chapters& chapters)
{
    chapters = Chapters();
    if (block == nullptr || length <= 0)
        return true;
    chapters.bytes = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(length)));
    if (chapters.bytes == nullptr)
        return false;
    std::memcpy(chapters.bytes, block, static_cast<size_t>(length));
    chapters.length = length;
    unsigned char* bytes = chapters.bytes;

    char path[48];
    int found = 0;
    for (; found < kTrackLimit; ++found) {
        int at = 0;
        std::snprintf(path, sizeof path, "trak-%d", found);
        if (!find_atom_mem(bytes, length, reinterpret_cast<const unsigned char*>(path), &at))
            break;
        chapters.trak_bytes += atom_size_in(bytes, length, at);
        // The duration at offset 28 of "tkhd" is in 1/10000 s; it becomes
        // frames of this file's time scale.
        std::snprintf(path, sizeof path, "trak-%d.tkhd", found);
        if (find_atom_mem(bytes, length, reinterpret_cast<const unsigned char*>(path), &at) && at + 32 <= length) {
            const double duration = get_be32(bytes + at + 28);
            put_be32(bytes + at + 28, truncate_u32(duration / 10000.0 * rate));
        }
    }
    // All 255 present counts as none, like a track search that never ends.
    chapters.tracks = found < kTrackLimit ? found : 0;

    int at = 0;
    if (find_atom_mem(bytes, length, reinterpret_cast<const unsigned char*>("mdat"), &at)) {
        chapters.media_at = at + 8;
        // Only what the block holds can be written.
        const long long available = length - chapters.media_at;
        const long long declared = atom_size_in(bytes, length, at) - 8;
        chapters.media_length = declared < available ? declared : available;
    }
    return true;
}

void M4A_SaverAAC::fill_sample_entry(int channels, uint32_t rate, int bit_rate, uint32_t average, int frequency_index)
{
    unsigned char* t = moov;
    put_be32(t + 404, 96);
    put_be32(t + 408, static_cast<uint32_t>(fourcc("mp4a")));
    put_be16(t + 418, 1); // data reference index
    put_be16(t + 428, static_cast<uint32_t>(channels));
    put_be16(t + 430, 16); // sample size
    put_be32(t + 436, rate << 16);

    put_be32(t + 440, 51);
    put_be32(t + 444, static_cast<uint32_t>(fourcc("esds")));
    // ES descriptor (tag 3) of 34 bytes, sizes in the four-byte form:
    // ES id 0, flags 0.
    static constexpr unsigned char kES[] = {3, 0x80, 0x80, 0x80, 0x22, 0, 0, 0};
    std::memcpy(t + 452, kES, sizeof kES);
    // Decoder configuration (tag 4) of 20 bytes: object type 0x40 (MPEG-4
    // audio), stream type 5 (audio) shifted left 2 with the reserved bit
    // set, buffer size 6144.
    static constexpr unsigned char kConfig[] = {4, 0x80, 0x80, 0x80, 0x14, 0x40, 0x15, 0x00, 0x18, 0x00};
    std::memcpy(t + 460, kConfig, sizeof kConfig);
    put_be32(t + 470, static_cast<uint32_t>(bit_rate)); // maximum
    put_be32(t + 474, average);
    // Decoder specific information (tag 5) of 2 bytes: AudioSpecificConfig
    // of object type 2 (AAC LC) in 5 bits, the frequency index in 4, the
    // channel configuration in 4, then 3 zero bits.
    static constexpr unsigned char kSpecific[] = {5, 0x80, 0x80, 0x80, 0x02};
    std::memcpy(t + 478, kSpecific, sizeof kSpecific);
    put_be16(t + 483, (2u << 11) | (static_cast<uint32_t>(frequency_index) << 7) |
                       ((static_cast<uint32_t>(channels) & 0xF) << 3));
    // SL configuration (tag 6) of 1 byte: predefined 2.
    static constexpr unsigned char kSL[] = {6, 0x80, 0x80, 0x80, 0x01, 0x02};
    std::memcpy(t + 485, kSL, sizeof kSL);
    // A "free" atom of one zero byte ends the sample entry.
    put_be32(t + 491, 9);
    put_be32(t + 495, static_cast<uint32_t>(fourcc("free")));
}

int M4A_SaverAAC::save(Packet** packets, int count, int channels, float sample_rate, int bit_rate,
                       const void* first_block, int first_length, const void* second_block, int second_length,
                       _kel_progress_ext_t* progress)
{
    if (build(packets, count, kTemplateSize) != 0)
        return kErrInternal;
    const uint32_t rate = truncated_rate(sample_rate);
    Chapters chapters;
    if (!scan_chapters(second_block, second_length, rate, chapters))
        return kErrInternal;
    struct Release {
        unsigned char* bytes;
        ~Release() { std::free(bytes); }
    } release{chapters.bytes};

    const uint32_t time = _get_carbon_time();
    long long frames = 0;
    long long bytes = 0;
    if (const int err = totals(frames, bytes))
        return err;
    if (first_block == nullptr || first_length < 0)
        first_length = 0;
    const long long moov_size =
        kTemplateSize + edit_bytes() + static_cast<long long>(tables_size()) + chapters.trak_bytes + first_length;
    if (moov_size > 0xFFFFFFFFLL)
        return kErrTooLarge;

    fill_template(kTemplateSize, static_cast<uint32_t>(moov_size), time, rate, static_cast<uint32_t>(frames),
                  static_cast<uint32_t>(chapters.tracks + 2));
    for (int i = 0; i < chapters.tracks && i < kMaxChapterIds; ++i)
        put_be32(moov + 232 + 4 * i, static_cast<uint32_t>(2 + i));
    // Bits per second: the bytes over the duration in eighths of seconds.
    const double average = static_cast<double>(bytes) / ((static_cast<double>(frames) * 0.125) / sample_rate);
    fill_sample_entry(channels, rate, bit_rate, truncate_u32(average), frequency_index_of(rate));

    // The file is ftyp (32), moov, the mdat header (8), the chapter media,
    // then the packets: chunk offsets become absolute.
    const uint32_t media_start = static_cast<uint32_t>(moov_size + 40);
    shift_chunk_offsets(stco, get_be32(stco), media_start + static_cast<uint32_t>(chapters.media_length));
    for (int n = 0; chapters.bytes != nullptr && n < kTrackLimit; ++n) {
        char path[48];
        std::snprintf(path, sizeof path, "trak-%d.mdia.minf.stbl.stco", n);
        int at = 0;
        if (!find_atom_mem(chapters.bytes, chapters.length, reinterpret_cast<const unsigned char*>(path), &at))
            break;
        shift_chunk_offsets(chapters.bytes + at, chapters.length - at, media_start);
    }

    (void)report_progress(progress, 0.0f);
    long long written = write_head(kTemplateSize);
    const long long traks = chapters.trak_bytes < chapters.length ? chapters.trak_bytes : chapters.length;
    written += write_bytes(chapters.bytes, traks);
    written += write_bytes(first_block, first_length);
    unsigned char mdat[8];
    put_be32(mdat, static_cast<uint32_t>(bytes + chapters.media_length + 8));
    put_be32(mdat + 4, static_cast<uint32_t>(fourcc("mdat")));
    written += write_bytes(mdat, sizeof mdat);
    if (chapters.bytes != nullptr)
        written += write_bytes(chapters.bytes + chapters.media_at, chapters.media_length);
    if (written != chapters.media_length + moov_size + 40)
        return kErrIo;

    bool silenced = false;
    if (const int err = write_packets(packets, count, progress, silenced))
        return err;
    (void)report_progress(progress, 100.0f);
    return silenced ? kErrSavedWithErrors : 0;
}

} // namespace KEL
