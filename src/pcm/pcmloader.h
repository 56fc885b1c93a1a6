// Cutting the sound data of a PCM file (WAVE, AIFF, CAF) into packets.
//
// Every PCM loader does the same once its container has been scanned: open
// the file as the clip's backing store, cut the data into packets of a fixed
// number of frames, each a handle on its byte range, and give the last,
// partial packet the full packet length so that a loaded clip is a whole
// number of equal packets (decoding pads the tail with silence). Only the
// packet class differs, so the loader takes a function that makes one.
#ifndef KEL_PCM_PCMLOADER_H
#define KEL_PCM_PCMLOADER_H

#include "kel.h"

#include <functional>

namespace KEL {

class BSHandle;
class Clip;
class Packet;

// Frames per packet for a file being opened: the raw packet size setting,
// or 1024 while it is unset (0; a negative value counts as unset too).
KEL_API int pcm_packet_frames_setting();

// Where the samples lie and how they are framed.
struct PcmData {
    long long total_frames; // whole frames in the data
    long long offset;       // byte offset of the first frame in the file
    int frame_bytes;        // bytes per frame
    float sample_rate;
};

// Makes one packet over handle: frames is the length it reports to the clip,
// disk_frames the frames its bytes hold. The packet retains the handle.
using PcmPacketMaker = std::function<Packet*(int bit_rate, int frames, int disk_frames, BSHandle* handle)>;

// Opens path as the clip's backing store and appends one packet per
// packet_frames frames of the data, then the rest as a packet that reports
// packet_frames frames. Progress is reported every half percent of the full
// packets and once with 100 at the end; a cancel stops with "Ebrk" (the
// packets made so far stay in the clip for its close). Codes: corrupt_code
// (the format's own) when the data holds no whole frame or cannot be cut
// into packets of int size, "Efor" when the file cannot be opened, "EILC"
// when the clip already has a store.
KEL_API int pcm_load_packets(Clip& clip, const char* path, _kel_progress_ext_t* progress, const PcmData& data,
                             int packet_frames, int corrupt_code, const PcmPacketMaker& make_packet);

} // namespace KEL

#endif
