// Four-character codes: four ASCII characters read as one big-endian
// 32-bit integer ("EPnm" == 0x45506E6D). Chunk identifiers, codec subtypes
// and the error codes (by name in errorcodes.h) are all written through
// this one helper.
#ifndef KEL_CORE_FOURCC_H
#define KEL_CORE_FOURCC_H

#include <cstdint>
#include <cstring>

namespace KEL {

constexpr int32_t fourcc(const char (&s)[5])
{
    return static_cast<int32_t>((static_cast<uint32_t>(static_cast<unsigned char>(s[0])) << 24) |
                                (static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 16) |
                                (static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 8) |
                                static_cast<uint32_t>(static_cast<unsigned char>(s[3])));
}

static_assert(fourcc("EPnm") == 0x45506E6D, "fourcc reads big-endian");

// A chunk or form identifier in a file: four characters, compared and
// written byte by byte.
inline bool is_tag(const unsigned char* p, const char (&tag)[5])
{
    return std::memcmp(p, tag, 4) == 0;
}

inline void put_tag(unsigned char* p, const char (&tag)[5])
{
    std::memcpy(p, tag, 4);
}

} // namespace KEL

#endif
