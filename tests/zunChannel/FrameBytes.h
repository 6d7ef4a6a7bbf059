#pragma once

#include <cstdint>
#include <vector>

namespace FenRELTest {

using Bytes = std::vector<uint8_t>;

// A control frame written out byte by byte, apart from the code under test.
// `length` 0 means the frame's real length.
inline Bytes RawFrame(uint8_t flags, uint16_t type, uint16_t protocolId, uint32_t sessionId, const Bytes& body,
                      uint8_t version = 1, uint16_t length = 0)
{
    if (length == 0) {
        length = static_cast<uint16_t>(15 + body.size());
    }
    Bytes frame = {version,
                   0xBA,
                   0xDB,
                   0xEE,
                   flags,
                   static_cast<uint8_t>(sessionId >> 24),
                   static_cast<uint8_t>(sessionId >> 16),
                   static_cast<uint8_t>(sessionId >> 8),
                   static_cast<uint8_t>(sessionId),
                   static_cast<uint8_t>(type >> 8),
                   static_cast<uint8_t>(type),
                   static_cast<uint8_t>(length >> 8),
                   static_cast<uint8_t>(length),
                   static_cast<uint8_t>(protocolId >> 8),
                   static_cast<uint8_t>(protocolId)};
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

// `size` bytes that differ from their neighbours and from other seeds.
inline Bytes Pattern(size_t size, uint8_t seed)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + seed + (i >> 8));
    }
    return bytes;
}

inline Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace FenRELTest
