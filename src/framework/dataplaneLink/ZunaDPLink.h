#pragma once

#include <string>

#include "UnixSocketLink.h"

namespace FenREL {

// The link to the host's data-path agent: DpMsgHdr framing (six bytes,
// 32-bit big-endian length), an LcpDpMsg behind each header.
class ZunaDPLink : public UnixSocketLink {
public:
    ZunaDPLink(const std::string& path, ReceiveHandler receiveHandler, StatusHandler statusHandler,
               LinkCheck linkCheck);

private:
    void LogSocketFailure(int error) const override;
};

}  // namespace FenREL
