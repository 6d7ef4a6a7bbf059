#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "RefCounter.h"
#include "RemoteSessionUpdate.h"
#include "TableInstance.h"

namespace FenREL {

class SCRemoteSessionTableObserver;

// For each session with a controller (the config session, one per VNI, one
// per router), whether it is up and which controller serves it. The apps
// write it; DPDomainManager passes each change on to the data path, and the
// CLI shows it. Every change is told to every observer, also one that
// changes nothing; a removal is told as the item as it was.
//
// Callers hold the global lock; the table has no lock of its own.
class StateCacheRemoteSessionTable : public ZUNChannel::RefCounter<StateCacheRemoteSessionTable>,
                                     public TableInstance<StateCacheRemoteSessionTable> {
public:
    // The process uses GetInstance(); tests make their own.
    StateCacheRemoteSessionTable();
    ~StateCacheRemoteSessionTable() override;

    bool RegisterObserver(SCRemoteSessionTableObserver* observer);
    bool UnRegisterObserver(SCRemoteSessionTableObserver* observer);

    // Inserts the session (with no controller IP yet) or replaces its state.
    bool UpdateSessionState(int32_t type, uint32_t index, int32_t state);
    // False for a session that UpdateSessionState has not made.
    bool UpdateControllerIp(int32_t type, uint32_t index, const std::string& ip);
    bool RemoveSession(int32_t type, uint32_t index);
    // All sessions, by type and then index.
    void QuerySessions(std::vector<RemoteSessionUpdate>& sessions) const;
    void Dump() const;

private:
    using Key = std::pair<int32_t, uint32_t>;

    void Notify(const RemoteSessionUpdate& update);

    std::map<Key, RemoteSessionUpdate> _sessions;
    std::vector<SCRemoteSessionTableObserver*> _observers;
};

}  // namespace FenREL
