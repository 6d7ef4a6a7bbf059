#include "CtrlMsg.h"

#include <cstring>

#include "Assert.h"
#include "MemAlloc.h"
#include "TlvCommon.h"

namespace ZUNChannel {

using FenREL::TlvCommon;

namespace {
constexpr size_t kOffsetFlags = 4;
constexpr size_t kOffsetSessionId = 5;
constexpr size_t kOffsetType = 9;
constexpr size_t kOffsetLength = 11;
constexpr size_t kOffsetProtocolId = 13;

}  // namespace

bool CtrlMsg::HasMarker(const uint8_t* msg)
{
    return msg[1] == kMarker[0] && msg[2] == kMarker[1] && msg[3] == kMarker[2];
}

uint32_t CtrlMsg::SessionId(const uint8_t* msg)
{
    return TlvCommon::GetBe32(msg + kOffsetSessionId);
}

uint16_t CtrlMsg::Type(const uint8_t* msg)
{
    return TlvCommon::GetBe16(msg + kOffsetType);
}

uint16_t CtrlMsg::Length(const uint8_t* msg)
{
    const uint16_t length = TlvCommon::GetBe16(msg + kOffsetLength);
    // Nothing can be shorter than its header: the sender's framing is broken.
    ASSERT(length >= kHeaderSize);
    return length;
}

uint16_t CtrlMsg::ProtocolId(const uint8_t* msg)
{
    return TlvCommon::GetBe16(msg + kOffsetProtocolId);
}

const uint8_t* CtrlMsg::Body(const uint8_t* msg, uint32_t size)
{
    // Asking for the body of a bare header is a caller that skipped its length check.
    ASSERT(size > kHeaderSize);
    return msg + kHeaderSize;
}

uint8_t* CtrlMsg::Body(uint8_t* msg, uint32_t size)
{
    return const_cast<uint8_t*>(Body(static_cast<const uint8_t*>(msg), size));
}

uint32_t CtrlMsg::BodyLength(uint32_t size)
{
    return size > kHeaderSize ? size - static_cast<uint32_t>(kHeaderSize) : 0;
}

void CtrlMsg::WriteHeader(uint8_t* msg, uint8_t flags, uint32_t sessionId, uint16_t type, uint16_t length,
                          uint16_t protocolId)
{
    msg[0] = kVersion;
    memcpy(msg + 1, kMarker, sizeof(kMarker));
    msg[kOffsetFlags] = flags;
    TlvCommon::PutBe32(msg + kOffsetSessionId, sessionId);
    TlvCommon::PutBe16(msg + kOffsetType, type);
    TlvCommon::PutBe16(msg + kOffsetLength, length);
    TlvCommon::PutBe16(msg + kOffsetProtocolId, protocolId);
}

void CtrlMsg::StampSessionId(uint8_t* msg, uint32_t sessionId)
{
    TlvCommon::PutBe32(msg + kOffsetSessionId, sessionId);
}

uint8_t* CtrlMsg::AllocBuffer(size_t size)
{
    return FenREL::MemAlloc::Buffer(size);
}

uint8_t* CtrlMsg::ReallocBuffer(uint8_t* buffer, size_t size)
{
    return FenREL::MemAlloc::Resize(buffer, size);
}

uint8_t* CtrlMsg::New(uint16_t type, uint16_t protocolId, size_t bodyLength)
{
    // `length` has 16 bits; larger payloads go out as frames of their own.
    ASSERT(bodyLength <= kMaxLength - kHeaderSize);
    const size_t length = kHeaderSize + bodyLength;
    uint8_t* msg = AllocBuffer(length);
    memset(msg, 0, length);
    WriteHeader(msg, 0, kUnstampedSessionId, type, static_cast<uint16_t>(length), protocolId);
    return msg;
}

uint8_t* CtrlMsg::Build(uint16_t type, uint16_t protocolId, const void* body, size_t bodyLength)
{
    uint8_t* msg = New(type, protocolId, bodyLength);
    if (bodyLength > 0) {
        memcpy(msg + kHeaderSize, body, bodyLength);
    }
    return msg;
}

uint8_t* CtrlMsg::BuildKeepAlive()
{
    return New(kTypeKeepAlive, 0, 0);
}

}  // namespace ZUNChannel
