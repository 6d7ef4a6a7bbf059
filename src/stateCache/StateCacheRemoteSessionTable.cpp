#include "StateCacheRemoteSessionTable.h"

#include <algorithm>

#include "Logger.h"
#include "SCRemoteSessionTableObserver.h"

namespace FenREL {

StateCacheRemoteSessionTable::StateCacheRemoteSessionTable() = default;

StateCacheRemoteSessionTable::~StateCacheRemoteSessionTable() = default;

bool StateCacheRemoteSessionTable::RegisterObserver(SCRemoteSessionTableObserver* observer)
{
    if (std::find(_observers.begin(), _observers.end(), observer) != _observers.end()) {
        FLOG_VERBOSE("remote session observer already exists!");
        return false;
    }
    _observers.push_back(observer);
    return true;
}

bool StateCacheRemoteSessionTable::UnRegisterObserver(SCRemoteSessionTableObserver* observer)
{
    const auto found = std::find(_observers.begin(), _observers.end(), observer);
    if (found == _observers.end()) {
        FLOG_VERBOSE("remote session observer not exists!");
        return false;
    }
    _observers.erase(found);
    return true;
}

void StateCacheRemoteSessionTable::Notify(const RemoteSessionUpdate& update)
{
    // The copies stay valid whatever an observer does to the table or to
    // the list of observers.
    const RemoteSessionUpdate copy = update;
    const std::vector<SCRemoteSessionTableObserver*> called = _observers;
    for (SCRemoteSessionTableObserver* observer : called) {
        observer->ProcessRemoteSessionUpdate(copy);
    }
}

bool StateCacheRemoteSessionTable::UpdateSessionState(int32_t type, uint32_t index, int32_t state)
{
    RemoteSessionUpdate& session = _sessions[Key(type, index)];
    session.sessionType = type;
    session.index = index;
    session.sessionState = state;
    Notify(session);
    return true;
}

bool StateCacheRemoteSessionTable::UpdateControllerIp(int32_t type, uint32_t index, const std::string& ip)
{
    const auto found = _sessions.find(Key(type, index));
    if (found == _sessions.end()) {
        FLOG_VERBOSE("remote session update not found!");
        return false;
    }
    found->second.controllerIp = ip;
    Notify(found->second);
    return true;
}

bool StateCacheRemoteSessionTable::RemoveSession(int32_t type, uint32_t index)
{
    const auto found = _sessions.find(Key(type, index));
    if (found == _sessions.end()) {
        FLOG_VERBOSE("remote session remove not found!");
        return false;
    }
    const RemoteSessionUpdate last = found->second;
    Notify(last);
    _sessions.erase(Key(type, index));
    return true;
}

void StateCacheRemoteSessionTable::QuerySessions(std::vector<RemoteSessionUpdate>& sessions) const
{
    FLOG_VERBOSE("Query stateCacheRemoteSessionTable!");
    for (const auto& session : _sessions) {
        sessions.push_back(session.second);
    }
}

void StateCacheRemoteSessionTable::Dump() const
{
    FLOG_VERBOSE("Dump stateCacheRemoteSessionTable!");
    for (const auto& [key, session] : _sessions) {
        FLOG_VERBOSE("SessionType is : %1, index is : %2, sessionState is %3, controllerIP is %4",
                     session.sessionType, session.index, session.sessionState, session.controllerIp);
    }
}

}  // namespace FenREL
