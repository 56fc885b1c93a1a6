#include "m4a/m4a_saveralac.h"

#include "core/byteorder.h"
#include "core/errorcodes.h"
#include "core/fourcc.h"
#include "core/progress.h"
#include "m4a/m4aatoms.h"

#include <array>

namespace KEL {


int M4A_SaverALAC::save(Packet** packets, int count, int channels, float sample_rate, int bits_per_sample,
                        const void* first_block, int first_length, const void*, int, _kel_progress_ext_t* progress)
{
    if (build(packets, count, kTemplateSize) != 0)
        return kErrInternal;
    const uint32_t rate = truncated_rate(sample_rate);
    const uint32_t time = _get_carbon_time();
    long long frames = 0;
    long long bytes = 0;
    if (const int err = totals(frames, bytes))
        return err;
    if (first_block == nullptr || first_length < 0)
        first_length = 0;
    const long long moov_size = kTemplateSize + edit_bytes() + static_cast<long long>(tables_size()) + first_length;
    if (moov_size > 0xFFFFFFFFLL)
        return kErrTooLarge;

    // Without chapter tracks the next free track id is 2 and the "chap"
    // reference keeps its three ids at 0.
    fill_template(kTemplateSize, static_cast<uint32_t>(moov_size), time, rate, static_cast<uint32_t>(frames), 2);

    const uint32_t frame_length = get_be32(stts + 20); // duration of the first "stts" entry
    uint32_t largest = 0;
    for (int i = 0; i < count; ++i)
        if (get_be32(stsz + 20 + 4 * static_cast<size_t>(i)) > largest)
            largest = get_be32(stsz + 20 + 4 * static_cast<size_t>(i));
    const double seconds = (static_cast<double>(frame_length) * count) / sample_rate;
    const uint32_t average = truncate_u32(static_cast<double>(bytes) * 8.0 / seconds);

    // The encoder's tuning constants of the codec configuration.
    static constexpr std::array<unsigned char, 3> kTuning = {
        40, // history multiplier
        10, // initial history
        14  // maximum Rice parameter
    };
    unsigned char* t = moov;
    put_be32(t + 404, 72);
    put_be32(t + 408, static_cast<uint32_t>(fourcc("alac")));
    put_be16(t + 418, 1); // data reference index
    put_be16(t + 428, static_cast<uint32_t>(channels));
    put_be16(t + 430, static_cast<uint32_t>(bits_per_sample));
    put_be32(t + 436, rate << 16);
    // The codec configuration atom nested in the sample entry.
    put_be32(t + 440, 36);
    put_be32(t + 444, static_cast<uint32_t>(fourcc("alac")));
    put_be32(t + 452, frame_length);
    t[456] = 0; // compatible version
    t[457] = static_cast<unsigned char>(bits_per_sample);
    t[458] = kTuning[0];
    t[459] = kTuning[1];
    t[460] = kTuning[2];
    t[461] = static_cast<unsigned char>(channels);
    put_be16(t + 462, 255); // maximum run
    put_be32(t + 464, largest);
    put_be32(t + 468, average);
    put_be32(t + 472, rate);

    // ftyp (32), moov and the mdat header (8) precede the packets.
    shift_chunk_offsets(stco, get_be32(stco), static_cast<uint32_t>(moov_size + 40));

    (void)report_progress(progress, 0.0f);
    long long written = write_head(kTemplateSize);
    written += write_bytes(first_block, first_length);
    unsigned char mdat[8];
    put_be32(mdat, static_cast<uint32_t>(bytes + 8));
    put_be32(mdat + 4, static_cast<uint32_t>(fourcc("mdat")));
    written += write_bytes(mdat, sizeof mdat);
    if (written != moov_size + 40)
        return kErrIo;

    bool silenced = false;
    if (const int err = write_packets(packets, count, progress, silenced))
        return err;
    (void)report_progress(progress, 100.0f);
    return silenced ? kErrSavedWithErrors : 0;
}

} // namespace KEL
