#include "ZunaDPLink.h"

#include <cstring>

#include "DpMsg.h"
#include "Logger.h"

namespace FenREL {

namespace {

const UnixSocketLink::Profile kZunaProfile = {
    DpMsgHdr::kSize,
    &DpMsgHdr::GetLength,
    &DpMsgHdr::GetLength,
    true,
    "ZunaDPLink %1: recv 0 byte header, the peer has performed an orderly shutdown",
    "ZunaDPLink %1: recv 0 byte body, the peer has performed an orderly shutdown",
    "ZunaDPLink %1: recv error: %2:%3",
    "errorCode:LCP00119",
    "ZunaDPLink %1: poll error: %2:%3",
    "errorCode:LCP00118",
    "Could not connect to %1 socket (\"%2\")",
    "errorCode:LCP00116",
    "errorCode:LCP00117",
    "errorCode:LCP00120",
    "ZunaDPLink %1: received %2 byte from kernel",
    "ZunaDPLink: get a message from controller",
    "ZunaDPLink: sending %1 bytes to kernel",
    "ZunaDPLink link down",
    LOGLEVEL_VERBOSE,
    nullptr,
    "ZunaDPLink: failed to put a message into queue",
    "ZunaDPLink reopen scheduled",
};

}  // namespace

ZunaDPLink::ZunaDPLink(const std::string& path, ReceiveHandler receiveHandler, StatusHandler statusHandler,
                       LinkCheck linkCheck)
    : UnixSocketLink(kZunaProfile, path, std::move(receiveHandler), std::move(statusHandler), std::move(linkCheck))
{
}

void ZunaDPLink::LogSocketFailure(int error) const
{
    FLOG_ERROR("Could not open %1 socket: %2", "AF_UNIX", strerror(error)).AddTag("errorCode:LCP00115");
}

}  // namespace FenREL
