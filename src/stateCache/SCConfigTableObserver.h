#pragma once

#include "ConfigCacheRecords.h"

namespace FenREL {

// Told by StateCacheConfigTable what changed, once per batch with the updates
// of the entity types it registered for, in the order they were made. Called
// under the global lock on the writer's thread: it must not block, and may
// call back into the tables.
class SCConfigTableObserver {
public:
    virtual void ProcessRemotePropertyUpdate(const RemotePropertyUpdateList& updates) = 0;
    virtual void ProcessLocalStateUpdate(const LocalStateUpdateList& updates) = 0;

protected:
    // The table never owns its observers, so it never deletes one through this.
    ~SCConfigTableObserver() = default;
};

}  // namespace FenREL
