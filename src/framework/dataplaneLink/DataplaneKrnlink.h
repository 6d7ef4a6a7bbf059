#pragma once

#include <string>

#include "UnixSocketLink.h"

namespace FenREL {

// The link to the kernel module of the distributed router: each message is a
// TLV whose four-byte head carries the length of the whole message, 16 bits
// big-endian at offset 2. With `mock`, a stand-in of the data path serves the
// socket instead of the kernel.
class DataplaneKrnlink : public UnixSocketLink {
public:
    DataplaneKrnlink(const std::string& path, ReceiveHandler receiveHandler, StatusHandler statusHandler,
                     LinkCheck linkCheck, bool mock);

    bool IsMock() const { return _mock; }

private:
    void LogSocketFailure(int error) const override;

    const bool _mock;
};

}  // namespace FenREL
