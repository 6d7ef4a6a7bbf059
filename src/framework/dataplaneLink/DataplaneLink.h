#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "RefCounter.h"

namespace FenREL {

// A link that carries framed messages over a local stream socket between the
// agent and a part of the host's data path. Derived classes own the socket,
// its threads and the framing; this base holds what every link is given.
class DataplaneLink : public ZUNChannel::RefCounter<DataplaneLink> {
public:
    enum LinkStatus { LinkUp = 0, LinkDown = 1 };

    // Each complete message, header included, valid for the call only.
    using ReceiveHandler = std::function<void(const unsigned char* msg, int length)>;
    // Every connect and disconnect, called under the link's lock.
    using StatusHandler = std::function<void(DataplaneLink* link, LinkStatus status)>;
    // Asked at every round of the reconnect timer while a descriptor is open;
    // false has the link disconnect. May be empty.
    using LinkCheck = std::function<bool(int fd)>;

    DataplaneLink(const std::string& path, ReceiveHandler receiveHandler, StatusHandler statusHandler,
                  LinkCheck linkCheck);
    ~DataplaneLink() override = default;

    virtual bool Open() = 0;
    virtual void Close() = 0;
    virtual void Reopen() = 0;
    // Takes ownership of `buffer`, a malloc'ed whole message.
    virtual bool Send(uint8_t* buffer, uint32_t length) = 0;

    const std::string& GetPath() const { return _path; }

protected:
    ReceiveHandler _receiveHandler;
    StatusHandler _statusHandler;
    LinkCheck _linkCheck;
    // Guards the socket and its state. Recursive: a status handler may ask
    // the link about itself.
    std::recursive_mutex _lock;
    const std::string _path;
};

}  // namespace FenREL
