// An open codec component: the state behind one handle that the clips hold
// as ComponentInstanceRecord*. Created by open_a_component, destroyed by
// close_component (component.h); the audio_codec_* functions forward to the
// virtual operations here.
//
// Life of an instance: properties may be set before initialize (a decoder's
// magic cookie, an encoder's bit rate); initialize fixes the input and
// output descriptions; then input is appended and output produced in any
// rhythm; reset drops everything buffered and starts a new stream with the
// same descriptions.
#ifndef KEL_CODEC_COMPONENTINSTANCERECORD_H
#define KEL_CODEC_COMPONENTINSTANCERECORD_H

#include "codec/codectypes.h"
#include "kel.h"

#include <cstddef>
#include <cstdint>

namespace KEL {

class KEL_API ComponentInstanceRecord {
public:
    ComponentInstanceRecord(int32_t type, int32_t subtype);
    virtual ~ComponentInstanceRecord();
    ComponentInstanceRecord(const ComponentInstanceRecord&) = delete;
    ComponentInstanceRecord& operator=(const ComponentInstanceRecord&) = delete;

    int32_t type() const { return type_; }
    int32_t subtype() const { return subtype_; }
    bool initialized() const { return initialized_; }

    // Checks and keeps the two descriptions and prepares the codec; cookie
    // (may be null) is the codec's configuration. A second call starts over
    // with the new descriptions.
    int initialize(const AudioStreamBasicDescription* input, const AudioStreamBasicDescription* output,
                   const void* cookie, uint32_t cookie_size);

    // Drops buffered input and output and returns the codec to the state of
    // a fresh initialize.
    virtual int reset() = 0;

    // Takes *io_packets packets (or, for PCM input, *io_bytes bytes of whole
    // frames) from data. On return *io_bytes and *io_packets say how much
    // was taken; what was not taken may be offered again later.
    virtual int append_input_data(const void* data, uint32_t* io_bytes, uint32_t* io_packets,
                                  const AudioStreamPacketDescription* descriptions) = 0;

    // Writes output into out, at most *io_bytes bytes. On return *io_bytes is
    // the byte count written, *io_packets the packets written (frames for a
    // PCM output) and *status one of kProduceOutput, kProduceOutputMore,
    // kProduceNeedsInput; kProduceFailure accompanies an error result.
    // descriptions, when not null, receives one description per packet
    // written by an encoder.
    virtual int produce_output_packets(void* out, uint32_t* io_bytes, uint32_t* io_packets,
                                       AudioStreamPacketDescription* descriptions, uint32_t* status) = 0;

    // Copies a property into data, whose capacity is *io_size; *io_size
    // becomes the property's size. With a null data only the size is given.
    virtual int get_property(int32_t id, uint32_t* io_size, void* data);
    virtual int set_property(int32_t id, uint32_t size, const void* data);

protected:
    // The subclass's part of initialize: check the descriptions, which are
    // already stored in input_ and output_, and open the codec.
    virtual int configure(const void* cookie, uint32_t cookie_size) = 0;

    // The output description once initialized (property "ofmt"); subclasses
    // may answer earlier.
    virtual int output_format(AudioStreamBasicDescription* out) const;

    // Property helpers: copy a value of the given size out, or read a
    // 32-bit value in, checking the caller's sizes.
    static int copy_property(const void* value, uint32_t size, uint32_t* io_size, void* data);
    static int read_u32_property(uint32_t size, const void* data, uint32_t* value);

    AudioStreamBasicDescription input_;
    AudioStreamBasicDescription output_;

private:
    int32_t type_;
    int32_t subtype_;
    bool initialized_ = false;
};

} // namespace KEL

#endif
