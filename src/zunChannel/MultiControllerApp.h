#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "CtrlSession.h"
#include "ExtendedApp.h"
#include "ShardingElemID.h"
#include "ShardingSegment.h"

namespace ZUNChannel {

// An application whose objects are sharded over the controllers: it keeps
// one CtrlSession per controller it needs, and each sharded element lives in
// the session of the controller serving its id. When the sharding changes,
// elements move from session to session. All under the global lock.
class MultiControllerApp : public ExtendedApp {
public:
    using ExtendedApp::ExtendedApp;
    ~MultiControllerApp() override;

    // Creates the element if needed and places it in its controller's session
    // (none while sharding does not know the id).
    boost::intrusive_ptr<ShardingElemID> AddShardingElem(uint32_t id);
    void RemoveShardingElem(uint32_t id);
    boost::intrusive_ptr<ShardingElemID> GetShardingElem(uint32_t id) const;

    // Sends on the session of the element of `id`; frees the message on failure.
    bool SendMsgById(uint8_t* message, uint32_t id, bool resetOnFail, bool stamp);
    // A stamped copy to every session; a session whose send fails is reset.
    // Frees the message. True when every send worked (also with no session).
    bool BroadcastMsg(uint8_t* message);

    // The slices of `controller` were assigned (`revoke` 0) or revoked (1):
    // move the elements whose controller changed.
    void UpdateSharding(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments,
                        const std::string& controller, uint32_t revoke);
    // Periodic check that every element sits with the controller of its slice.
    void CheckSessions();
    void DeleteAllElems();

    // Connection ready or lost for one of the sessions; other events are the subclass's.
    void HandleEvent(const boost::intrusive_ptr<Event>& event) override;
    // A session went up or down: every member hears it.
    void OnSessionStateChange(const ConnKey& key, bool down) override;

    const std::map<ConnKey, boost::intrusive_ptr<CtrlSession>>& GetSessions() const { return _sessions; }
    const std::map<uint32_t, boost::intrusive_ptr<ShardingElemID>>& GetElems() const { return _elems; }

protected:
    virtual boost::intrusive_ptr<ShardingElemID> CreateShardingElem(uint32_t /*id*/) { return nullptr; }
    virtual void OnElemSessionState(const boost::intrusive_ptr<ShardingElemID>& /*elem*/, bool /*down*/) {}
    // `oldKey` is null when the element had no controller.
    virtual void OnElemControllerChanged(const boost::intrusive_ptr<ShardingElemID>& /*elem*/,
                                         const ConnKey* /*oldKey*/)
    {
    }
    virtual void OnElemSessionLost(const boost::intrusive_ptr<ShardingElemID>& /*elem*/) {}

private:
    boost::intrusive_ptr<CtrlSession> FindOrCreateSession(const std::string& controller);
    // Takes the element out of its session, telling it first if the session was ready.
    void DetachElem(const boost::intrusive_ptr<ShardingElemID>& elem);
    void MoveElem(const boost::intrusive_ptr<ShardingElemID>& elem, const ConnKey* oldKey);
    void EraseIfUnused(const ConnKey& key);

    std::map<ConnKey, boost::intrusive_ptr<CtrlSession>> _sessions;
    std::map<uint32_t, boost::intrusive_ptr<ShardingElemID>> _elems;
};

}  // namespace ZUNChannel
