#pragma once

#include <cstdint>
#include <vector>

namespace CtrlSim {

using Bytes = std::vector<uint8_t>;

// Big-endian reads and appends, the byte order of everything on a controller link.
inline uint16_t Read16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t Read32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

inline void Write16(uint8_t* p, uint16_t value)
{
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

inline void Write32(uint8_t* p, uint32_t value)
{
    Write16(p, static_cast<uint16_t>(value >> 16));
    Write16(p + 2, static_cast<uint16_t>(value));
}

inline void Append16(Bytes& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

inline void Append32(Bytes& out, uint32_t value)
{
    Append16(out, static_cast<uint16_t>(value >> 16));
    Append16(out, static_cast<uint16_t>(value));
}

}  // namespace CtrlSim
