#pragma once

#include "Event.h"

namespace ZUNChannel {

// Asks every application to dump its state at verbose level (SIGUSR1).
class SupportEvent : public Event {
public:
    SupportEvent() : Event(SUPPORT_EVENT, nullptr, true, false) {}
};

}  // namespace ZUNChannel
