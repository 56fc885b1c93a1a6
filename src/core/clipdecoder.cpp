#include "core/clipdecoder.h"

namespace KEL {

ClipDecoder::~ClipDecoder() = default;

} // namespace KEL
