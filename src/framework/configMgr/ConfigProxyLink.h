#pragma once

#include <cstdint>

namespace FenREL {

// The configuration manager's way out to the management plane: the message
// proxy's client for the controller-management vertical. A record is a 4-byte
// header (type and total length, 16 bits each, big-endian) followed by a
// serialised MpLcpMsg.
class ConfigProxyLink {
public:
    virtual ~ConfigProxyLink() = default;

    // Takes ownership of the malloc'ed `buffer` whatever the outcome: it is
    // freed when the record is refused (proxy not registered, queue full).
    // True when the record was accepted for sending.
    virtual bool Send(uint8_t* buffer, uint32_t length) = 0;
};

}  // namespace FenREL
