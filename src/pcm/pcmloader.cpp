#include "pcm/pcmloader.h"

#include "core/bsfile.h"
#include "core/bshandlefile.h"
#include "core/clip.h"
#include "core/errorcodes.h"
#include "core/packet.h"
#include "core/progress.h"
#include "pcm/pcmcodec.h"

#include <climits>
#include <new>

namespace KEL {

namespace {

// Frames per packet while the raw packet size setting is unset.
constexpr int kDefaultPacketFrames = 1024;

// The bit rate every packet of a loaded file carries: the packet's bits per
// second, computed as the stored bytes over the frames in single precision
// and scaled to bits in double.
int packet_bit_rate(long long packet_bytes, float sample_rate, int packet_frames)
{
    const float bytes_per_second = static_cast<float>(packet_bytes) * sample_rate;
    return pcm_truncate_to_int(static_cast<double>(bytes_per_second) * 8.0 /
                               static_cast<double>(static_cast<float>(packet_frames)));
}

} // namespace

int pcm_packet_frames_setting()
{
    const int setting = kel_get_raw_packet_size();
    return setting > 0 ? setting : kDefaultPacketFrames;
}

int pcm_load_packets(Clip& clip, const char* path, _kel_progress_ext_t* progress, const PcmData& data,
                     int packet_frames, int corrupt_code, const PcmPacketMaker& make_packet)
{
    if (data.total_frames <= 0 || data.frame_bytes <= 0 || packet_frames <= 0)
        return corrupt_code;
    if (clip.backing_file != nullptr)
        return kErrInternal;

    // Every size below must fit the int byte counts of handles and packets.
    const long long packet_bytes = static_cast<long long>(packet_frames) * data.frame_bytes;
    const long long full_packets = data.total_frames / packet_frames;
    const long long rest_frames = data.total_frames - full_packets * packet_frames;
    const long long rest_bytes = rest_frames * data.frame_bytes;
    if (packet_bytes > INT_MAX || full_packets >= INT_MAX)
        return corrupt_code;

    BSFile* store = new (std::nothrow) BSFile();
    if (store == nullptr)
        return kErrUnknown;
    if (!store->open(path)) {
        delete store;
        return kErrOpenRead;
    }
    clip.backing_file = store;

    const int bit_rate = packet_bit_rate(packet_bytes, data.sample_rate, packet_frames);
    const float step = 100.0f / static_cast<float>(full_packets);
    ProgressThrottle throttle(progress);
    long long offset = data.offset;
    for (long long i = 0; i < full_packets; ++i) {
        // A handle that cannot be made leaves its packet out and the offset
        // where it is.
        if (BSHandle* handle = store->NewHandle(offset, static_cast<int>(packet_bytes))) {
            Packet* packet = make_packet(bit_rate, packet_frames, packet_frames, handle);
            handle->release();
            if (packet == nullptr)
                return kErrUnknown;
            clip.add_packet(packet);
            packet->release();
            offset += packet_bytes;
        }
        if (!throttle.step(step * static_cast<float>(i)))
            return kErrCancelled;
    }

    if (rest_bytes != 0) {
        if (BSHandle* handle = store->NewHandle(offset, static_cast<int>(rest_bytes))) {
            Packet* packet = make_packet(bit_rate, packet_frames, static_cast<int>(rest_frames), handle);
            handle->release();
            if (packet == nullptr)
                return kErrUnknown;
            clip.add_packet(packet);
            packet->release();
        }
    }

    clip.update_stream_info();
    report_progress(progress, 100.0f);
    return 0;
}

} // namespace KEL
