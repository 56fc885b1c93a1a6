// Fixed-width unsigned integers read from and written to byte buffers in a
// stated byte order: big-endian for AIFF, CAF, MPEG-4 atoms, MP3 headers
// and codec cookies, little-endian for RIFF. Every header parser and
// writer goes through these, so none depends on the host's byte order or
// on alignment. (The sample kernels have their own word-at-a-time loads.)
//
// get_xxN reads N bits at p; put_xxN writes the low N bits of v at p.
#ifndef KEL_CORE_BYTEORDER_H
#define KEL_CORE_BYTEORDER_H

#include <cstdint>

namespace KEL {

inline uint16_t get_be16(const unsigned char* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t get_be24(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | static_cast<uint32_t>(p[2]);
}

inline uint32_t get_be32(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | get_be24(p + 1);
}

inline uint64_t get_be64(const unsigned char* p)
{
    return (static_cast<uint64_t>(get_be32(p)) << 32) | get_be32(p + 4);
}

inline uint16_t get_le16(const unsigned char* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t get_le24(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16);
}

inline uint32_t get_le32(const unsigned char* p)
{
    return get_le24(p) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint64_t get_le64(const unsigned char* p)
{
    return get_le32(p) | (static_cast<uint64_t>(get_le32(p + 4)) << 32);
}

inline void put_be16(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_be24(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 16);
    put_be16(p + 1, v);
}

inline void put_be32(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 24);
    put_be24(p + 1, v);
}

inline void put_be64(unsigned char* p, uint64_t v)
{
    put_be32(p, static_cast<uint32_t>(v >> 32));
    put_be32(p + 4, static_cast<uint32_t>(v));
}

inline void put_le16(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline void put_le24(unsigned char* p, uint32_t v)
{
    put_le16(p, v);
    p[2] = static_cast<unsigned char>(v >> 16);
}

inline void put_le32(unsigned char* p, uint32_t v)
{
    put_le24(p, v);
    p[3] = static_cast<unsigned char>(v >> 24);
}

inline void put_le64(unsigned char* p, uint64_t v)
{
    put_le32(p, static_cast<uint32_t>(v));
    put_le32(p + 4, static_cast<uint32_t>(v >> 32));
}

} // namespace KEL

#endif
