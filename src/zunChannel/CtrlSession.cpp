#include "CtrlSession.h"

#include <cstdlib>

#include "Assert.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "Logger.h"
#include "ShardingElemID.h"

namespace ZUNChannel {

CtrlSession::CtrlSession(const ConnKey& key, const boost::intrusive_ptr<App>& app) : _key(key), _app(app)
{
}

CtrlSession::~CtrlSession() = default;

void CtrlSession::AddUser()
{
    ++_userCount;
    if (_userCount == 1) {
        // A session that was ready without users would have missed the release.
        ASSERT(!_ready);
        CtrlConnPool::Get()->RegisterConn(_key, _app->GetKey());
    }
}

void CtrlSession::AddElem(const boost::intrusive_ptr<ShardingElemID>& elem)
{
    AddUser();
    _elems.push_back(elem);
    elem->SetSession(this);
}

void CtrlSession::RemoveUser()
{
    ASSERT(_userCount > 0);
    --_userCount;
    if (_userCount == 0) {
        _ready = false;
        CtrlConnPool::Get()->UnregisterConn(_key, _app->GetKey());
    }
}

void CtrlSession::RemoveElem(const boost::intrusive_ptr<ShardingElemID>& elem)
{
    RemoveUser();
    bool found = false;
    for (auto it = _elems.begin(); it != _elems.end(); ++it) {
        if (*it == elem) {
            _elems.erase(it);
            found = true;
            break;
        }
    }
    // Only members are ever removed.
    ASSERT(found);
    elem->SetSession(nullptr);
}

void CtrlSession::RemoveAll()
{
    while (!_elems.empty()) {
        boost::intrusive_ptr<ShardingElemID> elem = _elems.front();
        RemoveElem(elem);
    }
}

void CtrlSession::OnConnReady()
{
    // Readiness only reaches sessions that hold their connection.
    ASSERT(_userCount > 0);
    _ready = true;
    _sessionID = CtrlConnPool::Get()->NextSessionID();
    _app->OnSessionStateChange(_key, false);
}

void CtrlSession::OnConnDown()
{
    _ready = false;
    _app->OnSessionStateChange(_key, true);
}

bool CtrlSession::SendMsg(uint8_t* message, bool stamp)
{
    if (!_ready) {
        free(message);
        return false;
    }
    if (stamp) {
        CtrlMsg::StampSessionId(message, _sessionID);
    }
    return CtrlConnPool::Get()->SendMsg(_key, message);
}

bool CtrlSession::SendOrReset(const boost::intrusive_ptr<CtrlSession>& session, uint8_t* message,
                              const std::string& appName, const char* errorCode)
{
    if (!session || !session->IsReady()) {
        free(message);
        FLOG_ERROR("%1: Session is not ready", appName).AddTag(std::string("errorCode:") + errorCode);
        return false;
    }
    if (!session->SendMsg(message, true)) {
        session->Reset();
        return false;
    }
    return true;
}

std::string CtrlSession::ToString(const boost::intrusive_ptr<CtrlSession>& session)
{
    if (!session) {
        return "NULL";
    }
    return "session(" + std::to_string(session->GetSessionID()) + " " + session->GetKey().ToString() + ")";
}

void CtrlSession::Reset()
{
    CtrlConnPool::Get()->Reset(_key);
}

}  // namespace ZUNChannel
