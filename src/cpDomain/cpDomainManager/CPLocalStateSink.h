#pragma once

#include "ConfigCacheRecords.h"

namespace FenREL {

// The app that reports local entity state to the controllers (the config app).
class CPLocalStateSink {
public:
    virtual void SendLocalState(const LocalStateUpdateList& updates) = 0;

protected:
    ~CPLocalStateSink() = default;
};

}  // namespace FenREL
