#pragma once

#include <cstdint>
#include <list>
#include <string>

#include <boost/intrusive_ptr.hpp>

#include "App.h"
#include "ConnKey.h"
#include "RefCounter.h"

namespace ZUNChannel {

class MultiControllerApp;
class ShardingElemID;

// One multi-controller application's session with one controller: the
// sharded elements the controller serves for it, and the readiness of the
// connection for this application. It holds the connection through the pool
// while it has users. All under the global lock.
class CtrlSession : public RefCounter<CtrlSession> {
public:
    CtrlSession(const ConnKey& key, const boost::intrusive_ptr<App>& app);
    ~CtrlSession() override;

    // The first user registers the connection with the pool.
    void AddUser();
    void AddElem(const boost::intrusive_ptr<ShardingElemID>& elem);
    // The last user releases the connection.
    void RemoveUser();
    void RemoveElem(const boost::intrusive_ptr<ShardingElemID>& elem);
    void RemoveAll();

    // Each readiness takes a new session id, so the controller can tell the
    // messages of an older session.
    void OnConnReady();
    void OnConnDown();

    // Frees the message and fails when the session is not ready. With `stamp`
    // the header carries this session's id.
    bool SendMsg(uint8_t* message, bool stamp);
    // The rule of the apps on the physical master session: with a ready
    // session, send stamped and reset the connection when that fails;
    // without one, free the message and log "<app>: Session is not ready"
    // with the app's error code.
    static bool SendOrReset(const boost::intrusive_ptr<CtrlSession>& session, uint8_t* message,
                            const std::string& appName, const char* errorCode);
    // "session(<id> <address>:<instance>)", or "NULL" for no session.
    static std::string ToString(const boost::intrusive_ptr<CtrlSession>& session);
    void Reset();

    bool IsReady() const { return _ready; }
    bool HasUsers() const { return _userCount > 0; }
    uint32_t GetUserCount() const { return _userCount; }
    uint32_t GetSessionID() const { return _sessionID; }
    const ConnKey& GetKey() const { return _key; }
    const std::list<boost::intrusive_ptr<ShardingElemID>>& GetElems() const { return _elems; }

private:
    ConnKey _key;
    std::list<boost::intrusive_ptr<ShardingElemID>> _elems;
    uint32_t _userCount = 0;
    boost::intrusive_ptr<App> _app;
    bool _ready = false;
    uint32_t _sessionID = 0;
};

}  // namespace ZUNChannel
