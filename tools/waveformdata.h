// Waveform data as web players read it (version 2 of the binary .dat and
// the .json form): per pixel and channel a (minimum, maximum) pair of
// integers over a fixed number of samples per pixel.
//
// Binary layout, all little-endian:
//   offset  0  int32   version, 2
//   offset  4  uint32  flags: bit 0 set = 8-bit values, clear = 16-bit
//   offset  8  int32   sample rate
//   offset 12  int32   samples per pixel
//   offset 16  uint32  length in pixels
//   offset 20  int32   channels
//   offset 24  pixel 0 channel 0 min, max; pixel 0 channel 1 min, max; ...
//              as int8 or int16
// The JSON form holds the same: {"version": 2, "channels", "sample_rate",
// "samples_per_pixel", "bits", "length", "data": [min, max, ...]}.
#ifndef KEL_TOOLS_WAVEFORMDATA_H
#define KEL_TOOLS_WAVEFORMDATA_H

#include "toolclip.h"

#include <cstdint>
#include <string>
#include <vector>

namespace KEL::cli {

class ClipOverview;

class WaveformData {
public:
    // bits is 8 or 16; channels 1 or 2.
    WaveformData(int sample_rate, int samples_per_pixel, int bits, int channels);

    // The library's overview of the range (the mono mix (left + right) / 2,
    // its extent always spanning zero), one pixel per samples_per_pixel
    // frames of the packets; the last pixel may cover fewer.
    void fill_mono(ClipOverview& overview, ToolClip& clip, PacketRange range);
    // Each channel's smallest and largest sample per pixel, from the
    // decoded packets of the range.
    void fill_stereo(ToolClip& clip, PacketRange range);

    int length() const;
    int channels() const { return channels_; }

    // The .dat bytes and the .json text.
    std::string binary() const;
    std::string json() const;
    // Writes binary() or json() to path under a temporary name first; a
    // failure is reported and throws Exit with no file left behind.
    void write(const std::string& path, bool as_json) const;

    // A sample value (1.0 = full scale) as the integer of the given width:
    // floor(value * largest), clamped to the integer range.
    static int scale(float value, int bits);

private:
    void add(float min, float max);

    int sample_rate_;
    int samples_per_pixel_;
    int bits_;
    int channels_;
    // min, max per pixel per channel, already scaled.
    std::vector<int16_t> values_;
};

} // namespace KEL::cli

#endif
