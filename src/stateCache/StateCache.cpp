#include "StateCache.h"

#include "Assert.h"
#include "Logger.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"

namespace FenREL {

namespace {
// Held by a reference that is never given back: the cache lives as long as
// the process.
StateCache* s_instance = nullptr;
}  // namespace

void StateCache::Init()
{
    if (s_instance == nullptr) {
        s_instance = new StateCache();
        intrusive_ptr_add_ref(s_instance);
    }
}

StateCache* StateCache::GetInstance()
{
    // Start-up makes the cache before any app exists; asking earlier is a
    // fault in the order of start-up.
    ASSERT(s_instance != nullptr);
    return s_instance;
}

StateCache::StateCache()
    : _configTable(StateCacheConfigTable::GetInstance()),
      _l2Table(StateCacheL2Table::GetInstance()),
      _remoteSessionTable(StateCacheRemoteSessionTable::GetInstance())
{
}

StateCache::~StateCache() = default;

void StateCache::DumpCache()
{
    FLOG_INFO("Fenrel Dump local ConfigCacheTable.");
    _configTable->DumpLocal();
    FLOG_INFO("Fenrel Dump remote ConfigCacheTable.");
    _configTable->DumpRemote();
    FLOG_INFO("Fenrel Dump local L2CacheTable.");
    _l2Table->DumpLocal();
    FLOG_INFO("Fenrel Dump remote L2CacheTable.");
    _l2Table->DumpRemote();
    FLOG_INFO("Fenrel Dump remote session CacheTable.");
    _remoteSessionTable->Dump();
}

}  // namespace FenREL
