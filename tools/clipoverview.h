// The library's overview of a clip, as the tool uses it: min/max pairs per
// column, RMS per packet, the largest sample, and the waveform picture
// drawn from them. Long computations show a progress bar and stop on
// Ctrl-C.
#ifndef KEL_TOOLS_CLIPOVERVIEW_H
#define KEL_TOOLS_CLIPOVERVIEW_H

#include "kel.h"
#include "progressbar.h"
#include "toolclip.h"

#include <string>
#include <vector>

namespace KEL::cli {

class ClipOverview {
public:
    // The clip must outlive this object.
    explicit ClipOverview(ToolClip& clip);
    ~ClipOverview();
    ClipOverview(const ClipOverview&) = delete;
    ClipOverview& operator=(const ClipOverview&) = delete;

    // Up to `points` (maximum, minimum) pairs over the range: element 2i is
    // the maximum of point i, 2i+1 its minimum. Fewer come back when the
    // packets after the first are shorter than it; they still cover the range.
    std::vector<float> min_max(PacketRange range, int points);
    // One RMS value (of the mono mix) per packet of the range.
    std::vector<float> rms(PacketRange range);
    // The largest sample magnitude in the range.
    float max_sample(PacketRange range);

    // The RMS over a whole range, each packet weighted by its frames.
    double rms_total(PacketRange range);

    // A width x height picture of the range: the min/max waveform per column
    // with the RMS band inside it, and a time axis along the bottom.
    void draw_png(PacketRange range, int width, int height, const std::string& path);
    // The pairs as text: "column seconds maximum minimum" per line.
    void print_text(PacketRange range, int points);

private:
    ToolClip& clip_;
    ProgressBar bar_;
    kel_overview_t* overview_;
};

} // namespace KEL::cli

#endif
