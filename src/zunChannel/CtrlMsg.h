#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace ZUNChannel {

// Releases a message buffer, which is always malloc'ed.
struct CtrlMsgFree {
    void operator()(uint8_t* buffer) const { free(buffer); }
};
// A message buffer while one of our scopes owns it; handed on with release().
using CtrlMsgBuffer = std::unique_ptr<uint8_t, CtrlMsgFree>;

// The frame format of the controller channel, as accessors over bytes. Every
// frame starts with this header; multi-byte fields are big-endian:
//
//   0         1          4       5           9      11       13           15
//   +---------+----------+-------+-----------+------+--------+------------+------
//   | version | BA DB EE | flags | sessionID | type | length | protocolID | body
//   +---------+----------+-------+-----------+------+--------+------------+------
//
// flags bit 7: more fragments of this message follow. length: this frame,
// header included. protocolID: the owning application (0 for the core).
//
// A message in memory is one malloc'ed buffer, header and body, passed from
// owner to owner as a raw pointer and released with free(). The real size of
// a reassembled message travels beside it, since its `length` is cut to 16 bits.
class CtrlMsg {
public:
    static constexpr size_t kHeaderSize = 15;
    static constexpr uint8_t kVersion = 1;
    static constexpr uint8_t kMarker[3] = {0xBA, 0xDB, 0xEE};
    static constexpr uint8_t kFlagMoreFragments = 0x80;
    static constexpr uint32_t kUnstampedSessionId = 0xFFFFFFFF;
    static constexpr size_t kMaxLength = 0xFFFF;

    static constexpr uint16_t kTypeHello = 1;
    static constexpr uint16_t kTypeKeepAlive = 2;
    static constexpr uint16_t kTypeSessionControl = 4;
    static constexpr uint16_t kTypeData = 7;

    static uint8_t Version(const uint8_t* msg) { return msg[0]; }
    static bool HasMarker(const uint8_t* msg);
    static uint8_t Flags(const uint8_t* msg) { return msg[4]; }
    static bool MoreFragments(const uint8_t* msg) { return (Flags(msg) & kFlagMoreFragments) != 0; }
    static uint32_t SessionId(const uint8_t* msg);
    static uint16_t Type(const uint8_t* msg);
    // Asserts that the frame is at least a header long.
    static uint16_t Length(const uint8_t* msg);
    static uint16_t ProtocolId(const uint8_t* msg);

    // The body of a message of `size` bytes, asserting that it has one.
    static const uint8_t* Body(const uint8_t* msg, uint32_t size);
    static uint8_t* Body(uint8_t* msg, uint32_t size);
    static uint32_t BodyLength(uint32_t size);

    static void WriteHeader(uint8_t* msg, uint8_t flags, uint32_t sessionId, uint16_t type, uint16_t length,
                            uint16_t protocolId);
    // What a session that sends with stamping does to each of its messages.
    static void StampSessionId(uint8_t* msg, uint32_t sessionId);

    // malloc(size) for a message buffer; on failure the process ends (syslog
    // "FENREL_ALLOC_FAIL : FenREL error: no memory!", exit 1), so callers never
    // see null.
    static uint8_t* AllocBuffer(size_t size);
    // realloc(buffer, size) for a message buffer, with the same failure path.
    static uint8_t* ReallocBuffer(uint8_t* buffer, size_t size);

    // A message of `bodyLength` zero bytes behind its header (version 1,
    // flags 0, sessionID 0xFFFFFFFF), for the caller to fill. At most 65535
    // bytes in all: larger payloads are cut by CtrlMsgFragmenter::FragmentBody.
    static uint8_t* New(uint16_t type, uint16_t protocolId, size_t bodyLength);
    // New with a copy of `body`.
    static uint8_t* Build(uint16_t type, uint16_t protocolId, const void* body, size_t bodyLength);
    // The 15 bytes 01 BA DB EE 00 FF FF FF FF 00 02 00 0F 00 00.
    static uint8_t* BuildKeepAlive();
};

}  // namespace ZUNChannel
