#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace CtrlSim {

// Message types and the core protocol id, as they travel on a controller link.
namespace MsgType {
constexpr uint16_t Hello = 1;
constexpr uint16_t KeepAlive = 2;
constexpr uint16_t SessionControl = 4;
constexpr uint16_t AppData = 7;
}  // namespace MsgType

constexpr uint16_t CoreProtocolId = 0;

// The header in front of every frame, all fields big-endian:
//
//   0        1                 4       5            9       11       13           15
//   +--------+-----------------+-------+------------+-------+--------+------------+----
//   |version | BA DB EE marker | flags | sessionID  | type  | length | protocolID | body
//   +--------+-----------------+-------+------------+-------+--------+------------+----
//
// flags bit 7 says that more fragments of the same message follow; `length`
// counts the whole frame, header included.
struct FrameHeader {
    static constexpr size_t Size = 15;
    static constexpr uint8_t MoreFragmentsFlag = 0x80;
    static constexpr uint32_t NoSession = 0xFFFFFFFF;

    uint8_t version = 1;
    uint8_t marker[3] = {0xBA, 0xDB, 0xEE};
    uint8_t flags = 0;
    uint32_t sessionId = NoSession;
    uint16_t type = 0;
    uint16_t length = Size;
    uint16_t protocolId = 0;

    // Reads the first Size bytes of `bytes`.
    static FrameHeader Parse(const uint8_t* bytes);
    // Writes Size bytes at `out`.
    void Write(uint8_t* out) const;

    bool MarkerOk() const;
    bool MoreFragments() const { return (flags & MoreFragmentsFlag) != 0; }
    // "v1 flags 0x80 session 0xffffffff type 7 len 100 proto 257"
    std::string ToString() const;
};

}  // namespace CtrlSim
