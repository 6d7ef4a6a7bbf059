#include "DataplaneKrnlink.h"

#include <cstring>

#include "Assert.h"
#include "Logger.h"
#include "TlvCommon.h"

namespace FenREL {

namespace {

uint32_t ReceivedLength(const uint8_t* header)
{
    const uint32_t length = TlvCommon::Length(header);
    // A message shorter than its head: the kernel and we have lost the framing.
    ASSERT(length >= TlvCommon::kHeaderLen);
    return length;
}

// A queued message of length 0 is sent as nothing at all.
uint32_t QueuedLength(const uint8_t* header)
{
    return TlvCommon::Length(header);
}

const UnixSocketLink::Profile kKrnlinkProfile = {
    TlvCommon::kHeaderLen,
    &ReceivedLength,
    &QueuedLength,
    false,
    nullptr,
    nullptr,
    "krnlink %1: recv error: %2:%3",
    "errorCode:LCP00125",
    "krnlink %1: poll error: %2:%3",
    "errorCode:LCP00124",
    "Could not connect to %1 socket (\"%2\"), error: %3",
    "errorCode:LCP00122",
    "errorCode:LCP00123",
    "errorCode:LCP00126",
    "krnLink %1: received %2 byte from kernel",
    "KrnLink: get a message from controller",
    "KrnLink: sending %1 bytes to kernel",
    "KrnLink link down",
    LOGLEVEL_ERROR,
    "errorCode:LCP00127",
    "KrnLink: failed to put a message into queue",
    "dataplane krnlink reopen scheduled",
};

}  // namespace

DataplaneKrnlink::DataplaneKrnlink(const std::string& path, ReceiveHandler receiveHandler,
                                   StatusHandler statusHandler, LinkCheck linkCheck, bool mock)
    : UnixSocketLink(kKrnlinkProfile, path, std::move(receiveHandler), std::move(statusHandler),
                     std::move(linkCheck)),
      _mock(mock)
{
}

void DataplaneKrnlink::LogSocketFailure(int error) const
{
    if (_mock) {
        FLOG_ERROR("Could not open unix socket for datapath mock: %1", strerror(error))
            .AddTag("errorCode:LCP00121");
    } else {
        FLOG_ERROR("Could not open %1 socket: %2, error: %3", "AF_UNIX", error, strerror(error))
            .AddTag("errorCode:LCP00121");
    }
}

}  // namespace FenREL
