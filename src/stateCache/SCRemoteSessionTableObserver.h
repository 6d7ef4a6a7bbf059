#pragma once

#include "RemoteSessionUpdate.h"

namespace FenREL {

// Told by StateCacheRemoteSessionTable of every session that was added,
// changed or is about to be removed (the last two look alike). Called under
// the global lock on the writer's thread.
class SCRemoteSessionTableObserver {
public:
    virtual void ProcessRemoteSessionUpdate(const RemoteSessionUpdate& update) = 0;

protected:
    ~SCRemoteSessionTableObserver() = default;
};

}  // namespace FenREL
