#include "MessageAssembler.h"

namespace CtrlSim {

std::optional<Message> MessageAssembler::Add(const Frame& frame, std::string* complaint)
{
    if (!_pending) {
        _pending = Message{frame.header, {}, {}, 0};
    } else if (complaint != nullptr) {
        const FrameHeader& first = _pending->header;
        if (frame.header.type != first.type || frame.header.protocolId != first.protocolId ||
            frame.header.sessionId != first.sessionId) {
            *complaint = "fragment (" + frame.header.ToString() + ") does not match its message (" +
                         first.ToString() + ")";
        }
    }
    _pending->body.insert(_pending->body.end(), frame.raw.begin() + FrameHeader::Size, frame.raw.end());
    _pending->raw.insert(_pending->raw.end(), frame.raw.begin(), frame.raw.end());
    ++_pending->frameCount;

    if (frame.header.MoreFragments()) {
        return std::nullopt;
    }
    std::optional<Message> done = std::move(_pending);
    _pending.reset();
    return done;
}

}  // namespace CtrlSim
