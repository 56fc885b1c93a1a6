// The codec components and the functions the clips drive them with, one
// for each operation of a component manager and an audio codec interface:
//
//   find_next_component             look a component up by description
//   open_a_component / close_component
//   audio_codec_initialize          fix the input and output descriptions
//   audio_codec_reset               drop buffered data, start a new stream
//   audio_codec_append_input_data   queue input
//   audio_codec_produce_output_packets
//   audio_codec_get_property / audio_codec_set_property
//
// Components, all of manufacturer "appl":
//   "adec" ".mp3"  MPEG audio (FFmpeg's MP3 decoder)       -> 32-bit float or integer PCM
//   "adec" "aac "  AAC LC raw access units                 -> 32-bit float or integer PCM
//   "adec" "alac"  Apple Lossless                           -> integer or 32-bit float PCM
//   "aenc" "aac "  32-bit float PCM                         -> AAC LC raw access units
//   "aenc" "alac"  16- or 24-bit integer PCM                -> Apple Lossless
// A component whose FFmpeg codec is missing from the installed libavcodec
// is not found.
//
// Every function returns 0 or an error code of codectypes.h; a null
// instance gives kCodecErrIllegalOperation. Instances are independent and
// may be used on different threads; one instance is used by one thread at
// a time.
#ifndef KEL_CODEC_COMPONENT_H
#define KEL_CODEC_COMPONENT_H

#include "codec/codectypes.h"
#include "kel.h"

#include <cstdint>

namespace KEL {

class ComponentInstanceRecord;
struct ComponentEntry;

// A registered component; null means none.
using Component = const ComponentEntry*;

// The first component after previous (null: from the beginning) that
// matches the description, or null.
KEL_API Component find_next_component(Component previous, const ComponentDescription* looking_for);

// The description of a found component.
KEL_API int get_component_description(Component component, ComponentDescription* out);

// A new instance of the component in *instance (null on failure).
KEL_API int open_a_component(Component component, ComponentInstanceRecord** instance);

// Destroys an instance; null is accepted and ignored.
KEL_API int close_component(ComponentInstanceRecord* instance);

KEL_API int audio_codec_initialize(ComponentInstanceRecord* instance, const AudioStreamBasicDescription* input,
                                   const AudioStreamBasicDescription* output, const void* magic_cookie,
                                   uint32_t magic_cookie_size);

KEL_API int audio_codec_reset(ComponentInstanceRecord* instance);

KEL_API int audio_codec_append_input_data(ComponentInstanceRecord* instance, const void* data, uint32_t* io_bytes,
                                          uint32_t* io_packets, const AudioStreamPacketDescription* descriptions);

KEL_API int audio_codec_produce_output_packets(ComponentInstanceRecord* instance, void* out, uint32_t* io_bytes,
                                               uint32_t* io_packets, AudioStreamPacketDescription* descriptions,
                                               uint32_t* status);

KEL_API int audio_codec_get_property(ComponentInstanceRecord* instance, int32_t property, uint32_t* io_size,
                                     void* data);

KEL_API int audio_codec_set_property(ComponentInstanceRecord* instance, int32_t property, uint32_t size,
                                     const void* data);

} // namespace KEL

#endif
