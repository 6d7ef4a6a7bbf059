#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AppManager.h"
#include "CPDomainManager.h"
#include "ChannelCore.h"
#include "Configuration.h"
#include "CoreApp.h"
#include "CtrlConn.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "CtrlSession.h"
#include "ExtendedApp.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "MsgScheduler.h"
#include "RemoteSessionUpdate.h"
#include "StateCache.h"
#include "StateCacheRemoteSessionTable.h"

namespace FenRELTest {

using Frame = std::vector<uint8_t>;

inline bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// One message as a controller frames it: the header, then `body`.
inline Frame Message(uint16_t type, uint16_t protocolId, uint32_t sessionId, const std::string& body)
{
    Frame frame(ZUNChannel::CtrlMsg::kHeaderSize, 0);
    ZUNChannel::CtrlMsg::WriteHeader(frame.data(), 0, sessionId, type,
                                     static_cast<uint16_t>(frame.size() + body.size()), protocolId);
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

// The channel singletons, the state cache and the control-plane domain
// manager for one test, without sockets: connections are registered and
// started but never connect, so what an app sends stays queued in the
// connection's scheduler, where SentFrames finds it. The test thread holds
// the global lock throughout.
class CpDomainFixture : public testing::Test {
protected:
    static constexpr const char* kServer = "10.0.0.1";

    void SetUp() override
    {
        ZUNChannel::ChannelCore::Create();
        FenREL::StateCache::Init();
        FenREL::CPDomainManager::Create()->Start(ZUNChannel::AppManager::Get());
    }

    void TearDown() override
    {
        if (_session) {
            FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, true);
            _session->RemoveUser();
            _session.reset();
        }
        // The manager stays for the process: the config table keeps its local
        // observers for good.
        FenREL::CPDomainManager::Get()->Stop();
        ZUNChannel::ChannelCore::Destroy();
        ZUNChannel::IoService::Get()->poll();
        ZUNChannel::IoService::Get()->restart();
    }

    // Makes `servers` the controller list (plain TCP, port 1).
    static void SetControllers(const std::vector<std::string>& servers)
    {
        std::vector<ZUNChannel::ConnConfig> list;
        for (const std::string& server : servers) {
            list.emplace_back(server, 1, "", nullptr, false);
        }
        ZUNChannel::Configuration::SetConnList(list);
    }

    // The frames waiting on the connection to `server`, in order; the core
    // app's hello is not among them, since no connection ever comes up.
    static std::vector<Frame> SentFrames(const std::string& server = kServer)
    {
        auto conn = ZUNChannel::CtrlConnPool::Get()->FindConn(ZUNChannel::ConnKey(server, 0));
        if (!conn || !conn->GetScheduler()) {
            return {};
        }
        return conn->GetScheduler()->CopyQueuedFrames();
    }

    // The same, and forgets them.
    static std::vector<Frame> TakeFrames(const std::string& server = kServer)
    {
        std::vector<Frame> frames = SentFrames(server);
        if (auto conn = ZUNChannel::CtrlConnPool::Get()->FindConn(ZUNChannel::ConnKey(server, 0))) {
            conn->GetScheduler()->Drain();
        }
        return frames;
    }

    // Marks the connection to `server` ready, as the hello exchange would.
    static void MakeReady(const std::string& server)
    {
        ZUNChannel::CtrlConnPool::Get()->SetHelloFlag(ZUNChannel::ConnKey(server, 0), ZUNChannel::CtrlConn::kReady);
    }

    // The physical master session to kServer, played by hand as the session
    // app does at READY and at a loss; each readiness takes a new session id.
    void SessionUp()
    {
        if (!_session) {
            _session = new ZUNChannel::CtrlSession(ZUNChannel::ConnKey(kServer, 0), new SessionOwner());
            _session->AddUser();
        }
        _session->OnConnReady();
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, false);
    }

    void SessionDown()
    {
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, true);
        _session->OnConnDown();
    }

    uint32_t SessionId() const { return _session->GetSessionID(); }

    // The remote session table's entry of (type, index), if there is one.
    static std::optional<FenREL::RemoteSessionUpdate> RemoteSession(int32_t type, uint32_t index = 0)
    {
        std::vector<FenREL::RemoteSessionUpdate> sessions;
        FenREL::StateCache::GetInstance()->GetRemoteSessionTable()->QuerySessions(sessions);
        for (const FenREL::RemoteSessionUpdate& session : sessions) {
            if (session.sessionType == type && session.index == index) {
                return session;
            }
        }
        return std::nullopt;
    }

    ZUNChannel::GlobalLockGuard _lock;
    boost::intrusive_ptr<ZUNChannel::CtrlSession> _session;

private:
    // The session app's part: it owns the physical master session.
    class SessionOwner : public ZUNChannel::ExtendedApp {
    public:
        SessionOwner() : ExtendedApp(ZUNChannel::APP_ID_SESSION, 0, "Session") {}
        void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>&) override {}
        void HandleMsg(const uint8_t*, uint32_t, const ZUNChannel::ConnKey&) override {}
    };
};

}  // namespace FenRELTest
