#pragma once

#include <cstdint>

namespace FenREL {

// A receiver of dispatched messages: `data` is a serialised message of
// `type`, valid for the call only.
class MsgSink {
public:
    virtual void Process(uint32_t type, const uint8_t* data, uint32_t length) = 0;

protected:
    ~MsgSink() = default;
};

}  // namespace FenREL
