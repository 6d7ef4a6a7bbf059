#include "MessageWriter.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace CtrlSim {

namespace {

Bytes BuildFrame(const OutMessage& msg, size_t offset, size_t chunk, bool more)
{
    const size_t length = FrameHeader::Size + chunk;
    if (length > 0xFFFF) {
        throw std::invalid_argument("a frame of " + std::to_string(length) + " bytes does not fit the length field");
    }
    FrameHeader header;
    header.version = msg.version;
    header.flags = more ? FrameHeader::MoreFragmentsFlag : 0;
    header.sessionId = msg.sessionId;
    header.type = msg.type;
    header.length = static_cast<uint16_t>(length);
    header.protocolId = msg.protocolId;

    Bytes frame(length);
    header.Write(frame.data());
    std::copy_n(msg.body.begin() + offset, chunk, frame.begin() + FrameHeader::Size);
    return frame;
}

}  // namespace

std::vector<Bytes> MessageWriter::Frames(const OutMessage& msg)
{
    if (msg.frameLimit == 0 || FrameHeader::Size + msg.body.size() <= msg.frameLimit) {
        return {BuildFrame(msg, 0, msg.body.size(), false)};
    }
    if (msg.frameLimit <= FrameHeader::Size) {
        throw std::invalid_argument("frame limit " + std::to_string(msg.frameLimit) + " leaves no room for a body");
    }
    const size_t chunk = msg.frameLimit - FrameHeader::Size;
    std::vector<Bytes> frames;
    for (size_t offset = 0; offset < msg.body.size(); offset += chunk) {
        const size_t size = std::min(chunk, msg.body.size() - offset);
        frames.push_back(BuildFrame(msg, offset, size, offset + size < msg.body.size()));
    }
    return frames;
}

Bytes MessageWriter::KeepAlive()
{
    OutMessage keepAlive;
    keepAlive.type = MsgType::KeepAlive;
    keepAlive.protocolId = CoreProtocolId;
    return BuildFrame(keepAlive, 0, 0, false);
}

}  // namespace CtrlSim
