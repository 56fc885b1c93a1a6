#include "codec/componentinstancerecord.h"

#include <cstring>

namespace KEL {

ComponentInstanceRecord::ComponentInstanceRecord(int32_t type, int32_t subtype)
    : input_(), output_(), type_(type), subtype_(subtype)
{
}

ComponentInstanceRecord::~ComponentInstanceRecord() = default;

int ComponentInstanceRecord::initialize(const AudioStreamBasicDescription* input,
                                        const AudioStreamBasicDescription* output, const void* cookie,
                                        uint32_t cookie_size)
{
    if (input == nullptr || output == nullptr || (cookie == nullptr && cookie_size != 0))
        return kCodecErrIllegalOperation;
    initialized_ = false;
    input_ = *input;
    output_ = *output;
    const int err = configure(cookie_size != 0 ? cookie : nullptr, cookie_size);
    initialized_ = err == 0;
    return err;
}

int ComponentInstanceRecord::output_format(AudioStreamBasicDescription* out) const
{
    if (!initialized_)
        return kCodecErrState;
    *out = output_;
    return 0;
}

int ComponentInstanceRecord::get_property(int32_t id, uint32_t* io_size, void* data)
{
    if (io_size == nullptr)
        return kCodecErrIllegalOperation;
    if (id == kPropertyOutputFormat) {
        AudioStreamBasicDescription format;
        const int err = output_format(&format);
        if (err != 0)
            return err;
        return copy_property(&format, sizeof format, io_size, data);
    }
    return kCodecErrUnknownProperty;
}

int ComponentInstanceRecord::set_property(int32_t, uint32_t, const void*)
{
    return kCodecErrUnknownProperty;
}

int ComponentInstanceRecord::copy_property(const void* value, uint32_t size, uint32_t* io_size, void* data)
{
    if (io_size == nullptr)
        return kCodecErrIllegalOperation;
    if (data == nullptr) {
        *io_size = size;
        return 0;
    }
    if (*io_size < size)
        return kCodecErrBadPropertySize;
    if (size != 0)
        std::memcpy(data, value, size);
    *io_size = size;
    return 0;
}

int ComponentInstanceRecord::read_u32_property(uint32_t size, const void* data, uint32_t* value)
{
    if (data == nullptr || size != sizeof(uint32_t))
        return kCodecErrBadPropertySize;
    std::memcpy(value, data, sizeof(uint32_t));
    return 0;
}

} // namespace KEL
