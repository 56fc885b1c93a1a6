// Writing a PCM clip (WAVE, AIFF, CAF) as a complete file.
//
// All PCM savers write in the same order: a zeroed place holder of the
// header's size, the packets' bytes with their gains and envelopes applied,
// the caller's extra block (whole chunks, already formed), and last the real
// header over the place holder. A file that is interrupted therefore never
// carries a header that promises more than is there, and a save that fails
// part-way removes its file. Only the header's size and layout differ per
// format, so the header is written by a function the format passes in.
#ifndef KEL_PCM_PCMSAVER_H
#define KEL_PCM_PCMSAVER_H

#include "kel.h"

#include <cstddef>
#include <cstdio>
#include <functional>

namespace KEL {

class Clip;

class KEL_API PcmSaver {
public:
    // Writes the real header at offset 0 once the audio is down: frames is
    // the total of the packets' disk frames, extra_length the bytes of the
    // caller's block after the audio.
    using HeaderWriter = std::function<void(FILE* f, long long frames, int extra_length)>;

    // Rewrites a packet's bytes in place between reading and writing, for a
    // format whose packets hand out another byte order than its files hold.
    using PacketFilter = std::function<void(unsigned char* bytes, int count)>;

    PcmSaver(int header_bytes, HeaderWriter write_header);
    ~PcmSaver();
    PcmSaver(const PcmSaver&) = delete;
    PcmSaver& operator=(const PcmSaver&) = delete;

    // Saves clip's packets at path. Returns 0, "Egga" when a packet's bytes
    // could not be read and silence was written in their place (the file is
    // complete and kept), or a failure, after which no file is left at path:
    // "Efow" (or 21 when path is a directory) when it cannot be created,
    // "Empt" for a clip without packets, "Ebyt" when the file would exceed
    // 2147483647 bytes, "Esmp" when the frames would, "EIO " when writing
    // fails. A null extra counts as no block. Progress is reported every half
    // percent of the packets and with 100 after the audio; a cancel is
    // ignored, since a save cannot be half done.
    int save(const Clip& clip, const char* path, const void* extra, int extra_length,
             _kel_progress_ext_t* progress);

    // Runs filter over every packet's bytes before they are written; none
    // by default.
    void set_packet_filter(PacketFilter filter);

private:
    // Removes and closes the file being written and passes code on.
    int fail(int code);
    int check_limits(const Clip& clip, int extra_length) const;
    // Writes every packet's bytes; sets gap when a packet read short.
    int write_packets(const Clip& clip, _kel_progress_ext_t* progress, bool& gap, long long& frames);
    // Bytes gathered before one write to the file.
    static constexpr size_t kBatchBytes = 1 << 20;

    // Grows the batch buffer (keeping its bytes) to at least size bytes and
    // at least one batch; null when memory is short.
    unsigned char* reserve(size_t size);
    // Writes the first count bytes of the batch buffer; false on failure.
    bool write_out(size_t count);

    int header_bytes_;
    HeaderWriter write_header_;
    PacketFilter filter_;
    FILE* file_ = nullptr;
    const char* path_ = nullptr;
    unsigned char* buffer_ = nullptr;
    size_t buffer_size_ = 0;
};

} // namespace KEL

#endif
