#pragma once

#include "ConnKey.h"
#include "Event.h"

namespace ZUNChannel {

// A controller connection became ready (its hello exchange finished) or was lost.
class CtrlConnEvent : public Event {
public:
    // Broadcast to every application.
    CtrlConnEvent(const ConnKey& key, bool lost)
        : Event(CTRL_CONN_EVENT, nullptr, true, lost), _key(key)
    {
    }
    // Addressed to one application only.
    CtrlConnEvent(const ConnKey& key, bool lost, const AppKey& target)
        : Event(CTRL_CONN_EVENT, std::make_unique<AppKey>(target), false, lost), _key(key)
    {
    }

    const ConnKey& GetConnKey() const { return _key; }
    bool IsConnLost() const { return GetFlag(); }

private:
    ConnKey _key;
};

}  // namespace ZUNChannel
