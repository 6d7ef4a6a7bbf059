#include "CtrlMsgFragmenter.h"

#include <algorithm>
#include <cstring>

#include "Assert.h"

namespace ZUNChannel {

namespace {

// A body given as two pieces (an optional lead byte, then the rest), so that
// a large payload is never copied whole just to put one byte in front.
struct SplitBody {
    const uint8_t* lead;
    size_t leadLength;
    const uint8_t* rest;
    size_t restLength;

    size_t Length() const { return leadLength + restLength; }

    void CopyOut(size_t offset, size_t count, uint8_t* out) const
    {
        if (offset < leadLength) {
            const size_t fromLead = std::min(leadLength - offset, count);
            memcpy(out, lead + offset, fromLead);
            out += fromLead;
            count -= fromLead;
            offset += fromLead;
        }
        if (count > 0) {
            memcpy(out, rest + (offset - leadLength), count);
        }
    }
};

size_t ChunkSize(uint16_t maxPktLen)
{
    // A limit that holds no body byte would never make progress.
    ASSERT(maxPktLen > CtrlMsg::kHeaderSize);
    return static_cast<uint16_t>(maxPktLen - CtrlMsg::kHeaderSize);
}

CtrlMsgFragmenter::Frames Split(uint32_t sessionId, uint16_t type, uint16_t protocolId, const SplitBody& body,
                                size_t chunk)
{
    CtrlMsgFragmenter::Frames frames;
    const size_t total = body.Length();
    frames.reserve(std::max<size_t>(1, (total + chunk - 1) / chunk));
    size_t offset = 0;
    do {
        const size_t remaining = total - offset;
        const size_t count = std::min(remaining, chunk);
        const uint8_t flags = remaining > chunk ? CtrlMsg::kFlagMoreFragments : 0;
        uint8_t* frame = CtrlMsg::AllocBuffer(CtrlMsg::kHeaderSize + count);
        frames.emplace_back(frame);
        CtrlMsg::WriteHeader(frame, flags, sessionId, type, static_cast<uint16_t>(CtrlMsg::kHeaderSize + count),
                             protocolId);
        body.CopyOut(offset, count, frame + CtrlMsg::kHeaderSize);
        offset += count;
    } while (offset < total);
    return frames;
}

}  // namespace

CtrlMsgFragmenter::Frames CtrlMsgFragmenter::Fragment(CtrlMsgBuffer msg, uint16_t maxPktLen)
{
    const size_t chunk = ChunkSize(maxPktLen);
    const uint16_t length = CtrlMsg::Length(msg.get());
    Frames frames;
    if (maxPktLen >= length) {
        frames.push_back(std::move(msg));
        return frames;
    }
    const uint8_t* header = msg.get();
    const SplitBody body{nullptr, 0, header + CtrlMsg::kHeaderSize, length - CtrlMsg::kHeaderSize};
    return Split(CtrlMsg::SessionId(header), CtrlMsg::Type(header), CtrlMsg::ProtocolId(header), body, chunk);
}

CtrlMsgFragmenter::Frames CtrlMsgFragmenter::FragmentBody(uint16_t type, uint16_t protocolId, uint8_t leadByte,
                                                          const uint8_t* payload, size_t payloadLength,
                                                          uint16_t maxPktLen)
{
    const SplitBody body{&leadByte, 1, payload, payloadLength};
    return Split(CtrlMsg::kUnstampedSessionId, type, protocolId, body, ChunkSize(maxPktLen));
}

}  // namespace ZUNChannel
