#pragma once

#include <optional>
#include <string>

#include "Frame.h"

namespace CtrlSim {

// Joins frames into messages: frames with bit 7 of `flags` set are held until
// the frame without it, and their bodies are concatenated. A link carries one
// fragmented message at a time, so a fragment whose type, protocolID or
// sessionID differ from the first one's is a fault of the sender; it is
// reported and joined all the same.
// Not thread-safe; one per connection.
class MessageAssembler {
public:
    // The message that `frame` completes, if any. A fault is appended to
    // `complaint` (when given).
    std::optional<Message> Add(const Frame& frame, std::string* complaint = nullptr);

    bool InProgress() const { return _pending.has_value(); }

private:
    std::optional<Message> _pending;
};

}  // namespace CtrlSim
