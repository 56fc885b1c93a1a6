// Fixed-width integers packed into and read from byte buffers in a stated
// byte order, for the chunk headers of the PCM containers (RIFF is
// little-endian, AIFF and CAF big-endian). Reading through these keeps the
// parsers independent of the host's own byte order and of alignment.
#ifndef KEL_PCM_PCMBYTES_H
#define KEL_PCM_PCMBYTES_H

#include <cstdint>
#include <cstring>

namespace KEL {
namespace pcmbytes {

inline uint16_t get_le16(const unsigned char* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t get_le32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint16_t get_be16(const unsigned char* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t get_be32(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline uint64_t get_be64(const unsigned char* p)
{
    return (static_cast<uint64_t>(get_be32(p)) << 32) | get_be32(p + 4);
}

inline void put_le16(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline void put_le32(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

inline void put_be16(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_be32(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

inline void put_be64(unsigned char* p, uint64_t v)
{
    put_be32(p, static_cast<uint32_t>(v >> 32));
    put_be32(p + 4, static_cast<uint32_t>(v));
}

// A chunk or form identifier: four characters, compared byte by byte.
inline bool is_tag(const unsigned char* p, const char (&tag)[5])
{
    return std::memcmp(p, tag, 4) == 0;
}

inline void put_tag(unsigned char* p, const char (&tag)[5])
{
    std::memcpy(p, tag, 4);
}

} // namespace pcmbytes
} // namespace KEL

#endif
