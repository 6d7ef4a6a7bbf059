#pragma once

#include <boost/intrusive_ptr.hpp>

#include "RefCounter.h"

namespace FenREL {

class StateCacheConfigTable;
class StateCacheL2Table;
class StateCacheRemoteSessionTable;

// The single in-memory store of what the agent knows of the logical network:
// the config table (entities and their properties or states), the L2 table
// (forwarding state per VNI and routing domain) and the table of controller
// sessions. What comes from a controller is "remote", what comes from this
// host's data path "local"; each table tells its observers what changed. The
// two halves of the agent meet here and never call each other.
//
// Made once by Init() at start-up and kept until the process ends; nothing
// of it is saved across restarts. The tables run under the global lock.
class StateCache : public ZUNChannel::RefCounter<StateCache> {
public:
    // Makes the cache if there is none; a second call keeps the first.
    static void Init();
    // The cache; asserts that Init() ran.
    static StateCache* GetInstance();

    ~StateCache() override;

    // The tables, without a reference for the caller: they live as long as
    // the cache.
    StateCacheConfigTable* GetConfigTable() const { return _configTable.get(); }
    StateCacheL2Table* GetL2Table() const { return _l2Table.get(); }
    StateCacheRemoteSessionTable* GetRemoteSessionTable() const { return _remoteSessionTable.get(); }

    // Writes the whole cache to the log: a header line at info before each
    // table, the tables' own lines at verbose. Called on SIGTSTP.
    void DumpCache();

private:
    StateCache();

    boost::intrusive_ptr<StateCacheConfigTable> _configTable;
    boost::intrusive_ptr<StateCacheL2Table> _l2Table;
    boost::intrusive_ptr<StateCacheRemoteSessionTable> _remoteSessionTable;
};

}  // namespace FenREL
