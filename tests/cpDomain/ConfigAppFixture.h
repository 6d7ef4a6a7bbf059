#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigApp.h"
#include "CpDomainFixture.h"
#include "CtrlMsg.h"
#include "CtrlSession.h"
#include "StateCacheConfigTable.h"
#include "ccp_lcp_config.pb.h"

namespace FenRELTest {

// The config app over a config table of the test's own (so that no other
// test's observers hear its local state), started, with the physical master
// session played by hand: a CtrlSession whose connection never connects, so
// what the app sends waits in its scheduler for TakeFrames.
class ConfigAppFixture : public CpDomainFixture {
protected:
    static constexpr const char* kServer = "10.0.0.1";
    static constexpr const char* kOther = "10.0.0.2";

    void SetUp() override
    {
        CpDomainFixture::SetUp();
        _table = new FenREL::StateCacheConfigTable();
        FenREL::ConfigApp::Init(_table);
        _app = FenREL::ConfigApp::Instance();
        _app->Start();
        FenREL::CPDomainManager::Get()->SetCPFullSyncListener([this] { ++_dataPathReleases; });
    }

    void TearDown() override
    {
        // The app and its session hold each other while the session is up.
        _app->ProcessSessionStatus(_session, FenREL::CPDomainManager::CP_SESSION_DOWN);
        for (const auto& session : _sessions) {
            while (session->HasUsers()) {
                session->RemoveUser();
            }
        }
        _sessions.clear();
        _session.reset();
        _app.reset();
        FenREL::ConfigApp::Destroy();
        _table.reset();
        CpDomainFixture::TearDown();
    }

    // A new ready session to `server` reported up, as the session app does at READY.
    void SessionUp(const std::string& server = kServer)
    {
        _session = new ZUNChannel::CtrlSession(ZUNChannel::ConnKey(server, 0), _app);
        _sessions.push_back(_session);
        _session->AddUser();
        _session->OnConnReady();
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, false);
    }

    void SessionDown()
    {
        _session->OnConnDown();
        FenREL::CPDomainManager::Get()->NotifyPhysicalMasterSessionChange(_session, true);
    }

    uint32_t SessionId() const { return _session->GetSessionID(); }

    // What was sent to `server` since the last call.
    static std::vector<Frame> TakeFrames(const std::string& server = kServer)
    {
        std::vector<Frame> frames = SentFrames(server);
        if (auto conn = ZUNChannel::CtrlConnPool::Get()->FindConn(ZUNChannel::ConnKey(server, 0))) {
            conn->GetScheduler()->Drain();
        }
        return frames;
    }

    void Receive(const Frame& frame, const std::string& server = kServer)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ZUNChannel::ConnKey(server, 0));
    }

    // A session control message of the config channel; `withType` false
    // leaves out the control type byte, as a broken controller might.
    static Frame Control(uint32_t sessionId, uint8_t type = FenREL::ConfigApp::kControlFullSyncEnd,
                         bool withType = true)
    {
        Frame frame(withType ? 16 : 15, 0);
        ZUNChannel::CtrlMsg::WriteHeader(frame.data(), 0, sessionId, ZUNChannel::CtrlMsg::kTypeSessionControl,
                                         static_cast<uint16_t>(frame.size()), ZUNChannel::APP_ID_CONFIG);
        if (withType) {
            frame[15] = type;
        }
        return frame;
    }

    // An update message of `protocolId` carrying `payload` after the zero byte.
    static Frame Update(const std::string& payload, uint16_t protocolId = ZUNChannel::APP_ID_CONFIG)
    {
        Frame frame(16, 0);
        ZUNChannel::CtrlMsg::WriteHeader(frame.data(), 0, 0xFFFFFFFF, ZUNChannel::CtrlMsg::kTypeData,
                                         static_cast<uint16_t>(16 + payload.size()), protocolId);
        frame.insert(frame.end(), payload.begin(), payload.end());
        return frame;
    }

    // ENTITY_PROPERTY with one logical switch per id, each with its VNI.
    static Frame Switches(const std::vector<uint64_t>& ids)
    {
        com::corvid::zun::config::CcpLcpZunConfigMsg msg;
        msg.set_type(com::corvid::zun::config::CcpLcpZunConfigMsg::ENTITY_PROPERTY);
        for (uint64_t id : ids) {
            auto* delta = msg.add_entity_property();
            delta->set_operation(com::corvid::zun::config::ZunConfigDeltaMsg::UPDATE_OP);
            delta->mutable_entity_id()->set_left(id);
            delta->mutable_entity_id()->set_right(id);
            delta->set_entity_type(com::corvid::zun::config::LOG_SWITCH);
            auto* property = delta->add_property();
            property->set_property_type(com::corvid::zun::config::EntityPropertyMsg::LS_VNI);
            property->mutable_ls_vni()->set_vni(static_cast<uint32_t>(5000 + id));
        }
        return Update(msg.SerializeAsString());
    }

    // The ids (left halves) of the entities in the remote cache.
    std::set<uint64_t> RemoteEntities() const
    {
        std::vector<FenREL::RemoteConfigItem> items;
        _table->QueryAllRemote(items);
        std::set<uint64_t> ids;
        for (const auto& item : items) {
            com::corvid::zun::UuidMsg id;
            id.ParseFromString(item.entityId);
            ids.insert(id.left());
        }
        return ids;
    }

    boost::intrusive_ptr<FenREL::StateCacheConfigTable> _table;
    boost::intrusive_ptr<FenREL::ConfigApp> _app;
    boost::intrusive_ptr<ZUNChannel::CtrlSession> _session;
    std::vector<boost::intrusive_ptr<ZUNChannel::CtrlSession>> _sessions;
    int _dataPathReleases = 0;
};

}  // namespace FenRELTest
