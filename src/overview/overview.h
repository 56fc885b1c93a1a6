// Waveform overviews of a clip: one (maximum, minimum) pair per display
// point at any zoom, the RMS of each packet and the largest sample of a
// packet range.
//
// Coarse zooms read the packets' eight-pair wave caches (decoding a packet
// once to build its cache); fine zooms decode the packets and look at every
// sample. Each clip format derives a subclass that only says how a packet is
// decoded.
//
// Output layout: out[2i] is the maximum and out[2i + 1] the minimum of
// point i. Both start at 0.0, so a maximum is never below 0.0 and a minimum
// never above it: the display draws an envelope around the zero line.
#ifndef KEL_OVERVIEW_OVERVIEW_H
#define KEL_OVERVIEW_OVERVIEW_H

#include "kel.h"

#include <cstddef>

namespace KEL {

class Clip;

class KEL_API Overview {
public:
    // Copies the three fields of progress (null: no progress reporting).
    // The clip is not retained; it must outlive the overview.
    Overview(Clip* clip, _kel_overview_progress_t* progress);
    virtual ~Overview();
    Overview(const Overview&) = delete;
    Overview& operator=(const Overview&) = delete;

    // ---- virtual interface, in slot order ----
    // Decodes one packet into two float buffers and returns its frame
    // count; subclasses forward to their clip's packet_decode_play.
    virtual int packet_decode(int packet, float** out, int* err, float gain) = 0;
    // Two slots kept free for the formats; the base does nothing.
    virtual void reserved_slot_1();
    virtual void reserved_slot_2();

    // dirtyRun 0 draws normally; 1..10 draws the fast approximate redraw.
    int generate(int first, int last, int points, int dirtyRun, float* out, int& err);
    // Cache-based drawing; hands over to generate_fine when a point covers
    // less than one cache pair.
    int generate_normal(int first, int last, int points, float* out, int& err);
    // Every sample, at least one sample per point; hands over to
    // generate_extra_fine when there are fewer samples than points.
    int generate_fine(int first, int last, int points, float* out, int& err);
    // Several points per sample.
    int generate_extra_fine(int first, int last, int points, float* out, int& err);
    // One packet's cache per run of dirtyRun points, stepping over packets.
    int generate_dirty(int first, int last, int points, int dirtyRun, float* out, int& err);
    // One RMS value per packet (packet gain applied).
    int generate_rms(int first, int last, float* out, int& err);
    // The largest absolute sample of the packets, from their caches.
    float find_max_sample(int first, int last, int& err);

    int (*progress_callback)(float percent, void* context, int packet);
    void* progress_context;
    int report_always;
    Clip* clip;

private:
    // What one packet contributes at coarse zoom: its eight pairs, RMS and
    // largest sample, packet gain applied.
    struct PacketSummary {
        float pairs[16];
        float rms;
        float max_sample;
    };

    // Position of the fine modes in the mono mix of the clip's samples.
    struct MonoCursor {
        int packet;
        int last;
        int frames;
        int pos;
    };

    // Decodes packet into the scratch arrays; a broken packet comes back as
    // silence. Returns its frame count, or -1 when the arrays cannot be
    // allocated.
    int decode_scratch(int packet, float gain);
    // Fills summary from the packet's caches, building them first when they
    // are not valid. Returns 1 when the packet had to be decoded, 0 when
    // the caches were valid, -1 on allocation failure.
    int summarize(int packet, PacketSummary& summary);
    bool reserve_scratch(int frames);
    // Next mono sample: 1 and the value, 0 past the last packet, -1 on
    // allocation failure.
    int next_sample(MonoCursor& cursor, float& value);

    float* scratch_left_ = nullptr;
    float* scratch_right_ = nullptr;
    size_t scratch_frames_ = 0;
};

} // namespace KEL

#endif
