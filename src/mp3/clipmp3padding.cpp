// ClipMP3::create_padding_clip: synthetic frames that carry the bit
// reservoir of a packet across a cut.
//
// A Layer III frame may begin its main data in the main-data areas of the
// frames before it (main_data_begin bytes back). When those frames are cut
// away, the padding frames built here take their place: complete,
// unprotected frames whose side information is zero (every granule has
// part2_3_length 0 and decodes to silence) and whose main-data areas hold
// exactly the reservoir bytes, copied from the real earlier frames, so that
// the first kept frame decodes completely.
//
// Padding frame layout:
//   byte 0      0xFF
//   byte 1      0xFB MPEG-1, 0xF3 MPEG-2, 0xE3 MPEG-2.5 (Layer III, no CRC)
//   byte 2      bit-rate index << 4 | sample-rate index << 2
//   byte 3      channel mode, mode extension and the original bit (0x04)
//   4..4+side-1 zero, except main_data_begin (MPEG-1: byte 4 = value >> 1,
//               byte 5 bit 7 = its lowest bit; MPEG-2/2.5: byte 4 = value)
//   the rest    0x55 behind the marker "KEL padding frame", overwritten in
//               part or whole by reservoir bytes
#include "core/bshandlemem.h"
#include "core/errorcodes.h"
#include "mp3/clipmp3.h"
#include "mp3/mpegheader.h"
#include "mp3/packetmp3.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <vector>

namespace KEL {

namespace {

constexpr char kMarker[] = "KEL padding frame";
constexpr int kMarkerBytes = sizeof kMarker - 1; // without the terminating zero
constexpr unsigned char kFiller = 0x55;

// Header byte 3 by stereo mode for two channels; the original bit is set.
static constexpr std::array<unsigned char, 4> kModeBytes = {
    0x64, // single channel in a two-channel clip: joint stereo with mid/side
    0x04, // stereo
    0x64, // joint stereo with mid/side
    0x84, // dual channel
};
constexpr unsigned char kMonoModeByte = 0xC4;

// The variable-bit-rate padding frame's rate, by packet type 3, 4, 5.
static constexpr std::array<int, 3> kVbrPaddingRates = {
    256000, // MPEG-1
    160000, // MPEG-2
    64000,  // MPEG-2.5
};

// Header byte 1 by packet type 3, 4, 5: sync, version, Layer III, no CRC.
static constexpr std::array<unsigned char, 3> kVersionBytes = {
    0xFB, // MPEG-1
    0xF3, // MPEG-2
    0xE3, // MPEG-2.5
};

// The sample-rate index of a rate scaled back to MPEG-1 terms. MPEG-2.5
// rates, scaled by 3, match none of the three and give 3: padding frames
// of MPEG-2.5 clips carry that index as they always have.
int sample_rate_index(int scaled_rate)
{
    switch (scaled_rate) {
    case 44100:
        return 0;
    case 48000:
        return 1;
    case 32000:
        return 2;
    default:
        return 3;
    }
}

void release_all(std::vector<Packet*>& packets)
{
    for (Packet* p : packets)
        p->release();
    packets.clear();
}

} // namespace

Clip* ClipMP3::create_padding_clip(int index, int* err)
{
    int scratch = 0;
    if (err == nullptr)
        err = &scratch;
    *err = 0;
    if (index < 0 || index >= packet_count) {
        *err = kErrPacketNumber;
        return nullptr;
    }
    auto* target = dynamic_cast<PacketMP3*>(get_packet(index));
    if (target == nullptr) {
        *err = kErrInternal;
        return nullptr;
    }
    int code = 0;
    const int needed = target->get_main_data_begin(code);
    if (code != 0) {
        *err = code;
        return nullptr;
    }
    if (needed == 0)
        return nullptr;

    Clip* result = NewClip(nullptr);
    if (result == nullptr) {
        *err = kErrUnknown;
        return nullptr;
    }
    auto fail = [&](int failure) -> Clip* {
        result->close(nullptr);
        delete result;
        *err = failure;
        return nullptr;
    };

    // The reservoir: the last `needed` bytes of the main-data areas before
    // packet index, gathered walking back as the preroll count does.
    std::vector<unsigned char> reservoir(static_cast<size_t>(needed));
    std::vector<unsigned char> frame_bytes;
    int missing = needed;
    for (int k = 0; missing > 0; ++k) {
        if (k == index)
            return fail(kErrReservoirBeforeStart);
        auto* earlier = dynamic_cast<PacketMP3*>(get_packet(index - 1 - k));
        if (earlier == nullptr || earlier->handle == nullptr)
            return fail(kErrBitstreamParse);
        const int length = earlier->handle->size;
        const int static_part = earlier->static_part_size(code);
        const int main_size = length - static_part;
        if (code != 0 || main_size < 1)
            return fail(kErrBitstreamParse);
        frame_bytes.assign(static_cast<size_t>(length), 0);
        if (earlier->get_bytes(frame_bytes.data(), 1.0f) < length)
            return fail(kErrPacketBytes);
        const int taken = std::min(main_size, missing);
        std::memcpy(&reservoir[static_cast<size_t>(missing - taken)],
                    &frame_bytes[static_cast<size_t>(length - taken)], static_cast<size_t>(taken));
        missing -= taken;
    }

    // Frame size and header fields.
    const bool mpeg1 = type == Packet::TypeMP3v1;
    const size_t type_slot = static_cast<size_t>(std::min(std::max(type, 3), 5) - 3);
    const int bit_rate = is_vbr() != 0 ? kVbrPaddingRates[type_slot] : target->bit_rate;
    const int rate = static_cast<int>(sample_rate);
    if (rate <= 0 || bit_rate <= 0)
        return fail(kErrUnknown);
    const int side = mpeg_side_info_size(mpeg1, channels == 1);
    const int length = static_cast<int>(static_cast<long long>(bit_rate) * (mpeg1 ? 144 : 72) / rate);
    const int capacity = length - side - 4;
    if (capacity < 1)
        return fail(kErrUnknown);
    int rate_index = 14;
    for (int i = 1; i <= 14; ++i) {
        if (mpeg_bit_rate(mpeg1, 3, i) >= bit_rate) {
            rate_index = i;
            break;
        }
    }
    const int scale = type == Packet::TypeMP3v1 ? 1 : type == Packet::TypeMP3v2 ? 2 : 3;
    const int srate_index = sample_rate_index(rate * scale);
    const unsigned char mode_byte =
        channels == 1 ? kMonoModeByte : kModeBytes[static_cast<size_t>(stereo_mode & 3)];

    // Built from the frame right before packet index backwards.
    std::vector<Packet*> built;
    std::vector<unsigned char> frame(static_cast<size_t>(length));
    int remaining = needed;
    while (remaining > 0) {
        std::fill(frame.begin(), frame.end(), kFiller);
        frame[0] = 0xFF;
        frame[1] = kVersionBytes[type_slot];
        frame[2] = static_cast<unsigned char>(rate_index << 4 | srate_index << 2);
        frame[3] = mode_byte;
        std::fill(frame.begin() + 4, frame.begin() + 4 + side, 0);
        std::memcpy(&frame[static_cast<size_t>(4 + side)], kMarker,
                    static_cast<size_t>(std::min(kMarkerBytes, capacity)));
        int begin = 0;
        if (remaining < capacity) {
            std::memcpy(&frame[static_cast<size_t>(length - remaining)], reservoir.data(),
                        static_cast<size_t>(remaining));
            remaining = 0;
        } else {
            std::memcpy(&frame[static_cast<size_t>(4 + side)], &reservoir[static_cast<size_t>(remaining - capacity)],
                        static_cast<size_t>(capacity));
            remaining -= capacity;
            begin = remaining;
        }
        if (mpeg1) {
            frame[4] = static_cast<unsigned char>(begin >> 1);
            frame[5] = static_cast<unsigned char>((begin & 1) << 7);
        } else {
            frame[4] = static_cast<unsigned char>(begin);
        }

        auto* handle = new (std::nothrow) BSHandleMem(length);
        if (handle == nullptr || !handle->init_with_copy(frame.data())) {
            if (handle != nullptr)
                handle->release();
            release_all(built);
            return fail(kErrUnknown);
        }
        auto* packet = new (std::nothrow) PacketMP3(bit_rate, sample_rate, channels, frames_per_packet(), type, handle);
        handle->release();
        if (packet == nullptr) {
            release_all(built);
            return fail(kErrUnknown);
        }
        built.push_back(packet);
    }

    // Stream order: the last built comes first.
    for (auto it = built.rbegin(); it != built.rend(); ++it)
        result->add_packet(*it);
    release_all(built);
    result->update_stream_info();
    // The frames only carry bytes for the frame after them; they decode as
    // silence that is never meant to be heard.
    result->start_trim = result->packet_count * frames_per_packet();
    return result;
}

} // namespace KEL
