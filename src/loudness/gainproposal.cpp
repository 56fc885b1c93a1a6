#include "loudness/gainproposal.h"

#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"

#include <cmath>

namespace KEL {

namespace {

// Float gains round to about 1e-6 dB; a gain that lands this close to the
// ceiling counts as under it.
constexpr double kToleranceDb = 1e-5;

double to_db(double linear)
{
    return 20.0 * std::log10(linear);
}

double from_db(double db)
{
    return std::pow(10.0, db / 20.0);
}

} // namespace

double GainProposal::achievable_db(Packet& packet, double db)
{
    const float before = packet.quantized_gain();
    if (!(before > 0.0f))
        return db; // a silenced packet stays silent whatever is asked
    // A probe sharing the packet's bytes answers what the stored gain would
    // apply, without touching the clip.
    Packet* probe = packet.copy();
    if (probe == nullptr)
        return db;
    probe->gain = packet.storable_gain(static_cast<float>(before * from_db(db)));
    const double applied = to_db(probe->quantized_gain() / static_cast<double>(before));
    probe->release();
    return applied;
}

double GainProposal::propose(Clip& clip, int first, int last, const kel_loudness_t& measured, double target_lufs,
                             double max_true_peak_dbtp, float* gains, int* err)
{
    *err = 0;
    if (first < 0 || last < first || last >= clip.packet_count || gains == nullptr) {
        *err = kErrPacketNumber;
        return NAN;
    }
    if (!std::isfinite(measured.integrated_lufs) || !std::isfinite(target_lufs) || std::isnan(max_true_peak_dbtp)) {
        *err = kErrParameter;
        return NAN;
    }
    const double wanted = target_lufs - measured.integrated_lufs;
    const double room = measured.true_peak > 0.0 ? max_true_peak_dbtp - to_db(measured.true_peak) : INFINITY;
    Packet& probe = *clip.get_packet(first);
    double db = achievable_db(probe, std::fmin(wanted, room));
    // A stepped format may round up past the ceiling: mirror the overshoot
    // below it, which lands on the step under it.
    for (int tries = 0; db > room + kToleranceDb && tries < 4; ++tries)
        db = achievable_db(probe, room - (db - room) - 1e-3 * tries);
    const float factor = static_cast<float>(from_db(db));
    for (int p = first; p <= last; ++p) {
        Packet& packet = *clip.get_packet(p);
        gains[p - first] = packet.storable_gain(packet.quantized_gain() * factor);
    }
    return db;
}

} // namespace KEL
