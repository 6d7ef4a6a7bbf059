#include "MultiControllerApp.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "Assert.h"
#include "CtrlConnEvent.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "ShardingMgr.h"

namespace ZUNChannel {

namespace {

std::string ControllerOrNull(const std::string& controller)
{
    return controller.empty() ? std::string("NULL") : controller;
}

std::string CurrentController(const ShardingElemID& elem)
{
    const ConnKey* key = elem.GetController();
    return key != nullptr ? key->server : std::string();
}

}  // namespace

MultiControllerApp::~MultiControllerApp() = default;

boost::intrusive_ptr<CtrlSession> MultiControllerApp::FindOrCreateSession(const std::string& controller)
{
    const ConnKey key(controller, _instance);
    auto it = _sessions.find(key);
    if (it != _sessions.end()) {
        return it->second;
    }
    boost::intrusive_ptr<CtrlSession> session(new CtrlSession(key, this));
    _sessions.emplace(key, session);
    return session;
}

void MultiControllerApp::EraseIfUnused(const ConnKey& key)
{
    auto it = _sessions.find(key);
    if (it != _sessions.end() && !it->second->HasUsers()) {
        FLOG_VERBOSE("%1: delete session %2", _name, key);
        _sessions.erase(it);
    }
}

boost::intrusive_ptr<ShardingElemID> MultiControllerApp::AddShardingElem(uint32_t id)
{
    ASSERT(IsLockAvailable());
    auto existing = _elems.find(id);
    if (existing != _elems.end()) {
        FLOG_VERBOSE("%1: this sharding elem exists: %2", _name, id);
        return existing->second;
    }
    boost::intrusive_ptr<ShardingElemID> elem = CreateShardingElem(id);
    if (!elem) {
        return nullptr;
    }
    _elems.emplace(id, elem);
    FLOG_VERBOSE("%1: sharding elem ID is created for %2", _name, id);

    const std::string controller = ShardingMgr::Get()->GetController(elem->GetId());
    if (controller.empty()) {
        FLOG_VERBOSE("%1: sharding is not ready for ID %2", _name, id);
        return elem;
    }
    boost::intrusive_ptr<CtrlSession> session = FindOrCreateSession(controller);
    session->AddElem(elem);
    FLOG_VERBOSE("%1:%2 add userID %3 to session %4", _id, _instance, id, session->GetKey());
    return elem;
}

void MultiControllerApp::RemoveShardingElem(uint32_t id)
{
    ASSERT(IsLockAvailable());
    auto it = _elems.find(id);
    if (it == _elems.end()) {
        FLOG_VERBOSE("%1: can't find ID %2 for deletion", _name, id);
        return;
    }
    boost::intrusive_ptr<ShardingElemID> elem = it->second;
    boost::intrusive_ptr<CtrlSession> session = elem->GetSession();
    if (session) {
        session->RemoveElem(elem);
        FLOG_VERBOSE("%1: delete ID %2 from session %3", _name, id, session->GetKey());
        EraseIfUnused(session->GetKey());
    }
    _elems.erase(id);
}

boost::intrusive_ptr<ShardingElemID> MultiControllerApp::GetShardingElem(uint32_t id) const
{
    auto it = _elems.find(id);
    return it == _elems.end() ? nullptr : it->second;
}

bool MultiControllerApp::SendMsgById(uint8_t* message, uint32_t id, bool resetOnFail, bool stamp)
{
    ASSERT(IsLockAvailable());
    auto it = _elems.find(id);
    if (it == _elems.end()) {
        FLOG_VERBOSE("%1: send msg failed, controller is not configured for ID %2", _name, id);
        free(message);
        return false;
    }
    boost::intrusive_ptr<CtrlSession> session = it->second->GetSession();
    if (!session || !session->IsReady()) {
        FLOG_VERBOSE("%1: send msg failed, sharding elem is not ready for ID %2", _name, id);
        free(message);
        return false;
    }
    if (session->SendMsg(message, stamp)) {
        return true;
    }
    if (resetOnFail) {
        FLOG_VERBOSE("%1: send msg failed, need to reset controller session for ID %2", _name, id);
        session->Reset();
    }
    return false;
}

bool MultiControllerApp::BroadcastMsg(uint8_t* message)
{
    ASSERT(IsLockAvailable());
    const uint32_t size = CtrlMsg::Length(message);
    bool allSent = true;
    for (auto& entry : _sessions) {
        uint8_t* copy = CtrlMsg::AllocBuffer(size);
        memcpy(copy, message, size);
        if (!entry.second->SendMsg(copy, true)) {
            allSent = false;
            entry.second->Reset();
        }
    }
    free(message);
    return allSent;
}

void MultiControllerApp::DetachElem(const boost::intrusive_ptr<ShardingElemID>& elem)
{
    boost::intrusive_ptr<CtrlSession> session = elem->GetSession();
    if (!session) {
        return;
    }
    if (session->IsReady()) {
        OnElemSessionState(elem, true);
    }
    session->RemoveElem(elem);
    EraseIfUnused(session->GetKey());
}

void MultiControllerApp::MoveElem(const boost::intrusive_ptr<ShardingElemID>& elem, const ConnKey* oldKey)
{
    const std::string controller = ShardingMgr::Get()->GetController(elem->GetId());
    if (CurrentController(*elem) == controller) {
        return;
    }
    FLOG_VERBOSE("%1: Change sid %2 to controller %3", _name, elem->GetId(), ControllerOrNull(controller));
    if (controller.empty()) {
        OnElemControllerChanged(elem, oldKey);
        return;
    }
    boost::intrusive_ptr<CtrlSession> session = FindOrCreateSession(controller);
    session->AddElem(elem);
    if (session->IsReady()) {
        OnElemSessionState(elem, false);
    }
    OnElemControllerChanged(elem, oldKey);
}

void MultiControllerApp::UpdateSharding(const std::vector<boost::intrusive_ptr<ShardingSegment>>& /*segments*/,
                                        const std::string& /*controller*/, uint32_t /*revoke*/)
{
    ASSERT(IsLockAvailable());
    // An element moves exactly when the table now names another controller
    // for its slice than the one holding it; a revocation leaves the table as
    // it stands.
    for (auto& entry : _elems) {
        boost::intrusive_ptr<ShardingElemID> elem = entry.second;
        const std::string oldController = CurrentController(*elem);
        const std::string newController = ShardingMgr::Get()->GetController(elem->GetId());
        if (oldController == newController) {
            continue;
        }
        FLOG_VERBOSE("%1: ID %2's controller is changed from %3 to %4", _name, elem->GetId(),
                     ControllerOrNull(oldController), ControllerOrNull(newController));
        std::unique_ptr<ConnKey> oldKey;
        if (elem->GetController() != nullptr) {
            oldKey = std::make_unique<ConnKey>(*elem->GetController());
        }
        DetachElem(elem);
        MoveElem(elem, oldKey.get());
    }
}

void MultiControllerApp::CheckSessions()
{
    ASSERT(IsLockAvailable());
    for (auto& entry : _elems) {
        boost::intrusive_ptr<ShardingElemID> elem = entry.second;
        boost::intrusive_ptr<CtrlSession> session = elem->GetSession();
        if (!session) {
            FLOG_VERBOSE("%1: timer update session for nonexist sid %2", _name, elem->GetId());
            MoveElem(elem, nullptr);
            continue;
        }
        const std::string controller = ShardingMgr::Get()->GetController(elem->GetId());
        if (controller != session->GetKey().server) {
            FLOG_VERBOSE("%1: check ID %2's controller: changed from %3 to %4", _name, elem->GetId(),
                         session->GetKey().server, ControllerOrNull(controller));
            if (session->IsReady()) {
                OnElemSessionLost(elem);
            }
            const ConnKey oldKey = session->GetKey();
            DetachElem(elem);
            MoveElem(elem, &oldKey);
            continue;
        }
        FLOG_VERBOSE("%1: timer update session for sid %2", _name, elem->GetId());
        MoveElem(elem, &session->GetKey());
    }
}

void MultiControllerApp::DeleteAllElems()
{
    ASSERT(IsLockAvailable());
    for (auto it = _sessions.begin(); it != _sessions.end();) {
        it->second->RemoveAll();
        FLOG_VERBOSE("%1: delete all IDs from session %2:%3", _name, it->first.server, it->first.instance);
        if (!it->second->HasUsers()) {
            it = _sessions.erase(it);
        } else {
            ++it;
        }
    }
    _elems.clear();
}

void MultiControllerApp::HandleEvent(const boost::intrusive_ptr<Event>& event)
{
    if (event->GetCategory() != Event::CTRL_CONN_EVENT) {
        return;
    }
    const auto* connEvent = static_cast<const CtrlConnEvent*>(event.get());
    auto it = _sessions.find(connEvent->GetConnKey());
    if (it == _sessions.end()) {
        FLOG_VERBOSE("%1: controller session %2 is not found when receiving CtrlConnEvent", _name,
                     connEvent->GetConnKey());
        return;
    }
    boost::intrusive_ptr<CtrlSession> session = it->second;
    if (connEvent->IsConnLost()) {
        FLOG_VERBOSE("%1: ctrl connection %2 down", _name, connEvent->GetConnKey());
        session->OnConnDown();
    } else {
        FLOG_VERBOSE("%1: connection ready %2", _name, connEvent->GetConnKey());
        session->OnConnReady();
    }
}

void MultiControllerApp::OnSessionStateChange(const ConnKey& key, bool down)
{
    ASSERT(IsLockAvailable());
    auto it = _sessions.find(key);
    // The hook is only called by one of our own sessions.
    ASSERT(it != _sessions.end());
    boost::intrusive_ptr<CtrlSession> session = it->second;
    const std::list<boost::intrusive_ptr<ShardingElemID>> members = session->GetElems();
    for (const auto& elem : members) {
        OnElemSessionState(elem, down);
    }
}

}  // namespace ZUNChannel
