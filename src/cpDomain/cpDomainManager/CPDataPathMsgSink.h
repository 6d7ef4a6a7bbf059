#pragma once

#include <cstdint>

namespace FenREL {

// An app that takes uncached messages from the data path (traceflow, router):
// `data` is the serialised message of dispatcher type `type`, valid for the call.
class CPDataPathMsgSink {
public:
    virtual void ProcessDataPathMsg(uint32_t type, const uint8_t* data, uint32_t length) = 0;

protected:
    ~CPDataPathMsgSink() = default;
};

}  // namespace FenREL
