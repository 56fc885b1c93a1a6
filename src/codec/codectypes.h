// The records and constants of the codec-component layer: the stream
// description that both sides of a codec are described with, the packet
// description that delimits compressed packets inside an input block, the
// description a component is looked up by, and the property identifiers,
// output statuses and error codes the layer uses.
//
// Sizes and counts are unsigned 32-bit values; four-character codes are the
// 32-bit big-endian integers made by fourcc().
#ifndef KEL_CODEC_CODECTYPES_H
#define KEL_CODEC_CODECTYPES_H

#include "core/fourcc.h"

#include <cstdint>

namespace KEL {

// One side of a codec. Linear PCM ("lpcm") has one frame per packet and
// bytes_per_packet == bytes_per_frame == channels * bits / 8; a compressed
// stream has 0 bytes per packet and frame (packets vary in size) and the
// codec's frames per packet.
struct AudioStreamBasicDescription {
    double sample_rate;
    int32_t format_id;
    uint32_t format_flags;
    uint32_t bytes_per_packet;
    uint32_t frames_per_packet;
    uint32_t bytes_per_frame;
    uint32_t channels_per_frame;
    uint32_t bits_per_channel;
    uint32_t reserved;
};

// Where one compressed packet lies inside a block of input bytes.
struct AudioStreamPacketDescription {
    int64_t start_offset;
    uint32_t variable_frames_in_packet;
    uint32_t data_byte_size;
};

// What find_next_component looks for. A zero type, subtype or manufacturer
// matches any; flags are compared under flags_mask.
struct ComponentDescription {
    int32_t type;
    int32_t subtype;
    int32_t manufacturer;
    uint32_t flags;
    uint32_t flags_mask;
};

// Component types, subtypes and the manufacturer.
constexpr int32_t kComponentDecoder = fourcc("adec");
constexpr int32_t kComponentEncoder = fourcc("aenc");
constexpr int32_t kComponentManufacturer = fourcc("appl");
constexpr int32_t kFormatMP3 = fourcc(".mp3");
constexpr int32_t kFormatAAC = fourcc("aac ");
constexpr int32_t kFormatALAC = fourcc("alac");
constexpr int32_t kFormatLPCM = fourcc("lpcm");

// Format flags of linear PCM. 11 is big-endian packed float, 14 big-endian
// packed signed integer.
constexpr uint32_t kLPCMFlagFloat = 1;
constexpr uint32_t kLPCMFlagBigEndian = 2;
constexpr uint32_t kLPCMFlagSignedInteger = 4;
constexpr uint32_t kLPCMFlagPacked = 8;
constexpr uint32_t kLPCMFlagNonInterleaved = 32;

// Format flags of Apple Lossless: the bit depth of the source samples.
constexpr uint32_t kALACFlag16Bit = 1;
constexpr uint32_t kALACFlag20Bit = 2;
constexpr uint32_t kALACFlag24Bit = 3;
constexpr uint32_t kALACFlag32Bit = 4;

// Properties.
constexpr int32_t kPropertyMagicCookie = fourcc("kuki");      // codec configuration bytes
constexpr int32_t kPropertyBitRate = fourcc("brat");          // uint32_t, bits per second
constexpr int32_t kPropertyOutputFormat = fourcc("ofmt");     // AudioStreamBasicDescription
constexpr int32_t kPropertyMaximumPacketSize = fourcc("pakb"); // uint32_t, bytes

// Statuses of audio_codec_produce_output_packets.
constexpr uint32_t kProduceFailure = 1;
constexpr uint32_t kProduceOutput = 2;      // output written, nothing more pending
constexpr uint32_t kProduceOutputMore = 3;  // output written, more is ready for the next call
constexpr uint32_t kProduceNeedsInput = 4;  // nothing written: append more input first

// Error codes (0 is success).
constexpr int32_t kCodecErrUnspecified = fourcc("what");
constexpr int32_t kCodecErrUnknownProperty = fourcc("who?");
constexpr int32_t kCodecErrBadPropertySize = fourcc("!siz");
constexpr int32_t kCodecErrIllegalOperation = fourcc("nope");
constexpr int32_t kCodecErrUnsupportedFormat = fourcc("!dat");
constexpr int32_t kCodecErrState = fourcc("!stt");
constexpr int32_t kCodecErrNotEnoughBufferSpace = fourcc("!buf");
constexpr int32_t kCodecErrBadData = fourcc("bada");
constexpr int32_t kCodecErrNoComponent = fourcc("!cmp");
constexpr int32_t kCodecErrOutOfMemory = fourcc("!mem");

} // namespace KEL

#endif
