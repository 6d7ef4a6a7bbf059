#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "ConfigApp.h"
#include "CpDomainFixture.h"
#include "StateCacheConfigTable.h"
#include "ccp_lcp_config.pb.h"

namespace FenRELTest {

// The config app over a config table of the test's own (so that no other
// test's observers hear its local state), started; `_dataPathReleases` counts
// the data path's release after the first full sync.
class ConfigAppFixture : public CpDomainFixture {
protected:
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
        _app.reset();
        CpDomainFixture::TearDown();
        FenREL::ConfigApp::Destroy();
        _table.reset();
    }

    void Receive(const Frame& frame, const std::string& server = kServer)
    {
        _app->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ZUNChannel::ConnKey(server, 0));
    }

    // A session control message of the config channel.
    static Frame Control(uint32_t sessionId, uint8_t type = FenREL::ConfigApp::kControlFullSyncEnd)
    {
        return Message(ZUNChannel::CtrlMsg::kTypeSessionControl, ZUNChannel::APP_ID_CONFIG, sessionId,
                       std::string(1, static_cast<char>(type)));
    }

    // An update message of `protocolId` carrying `payload` after the zero byte.
    static Frame Update(const std::string& payload, uint16_t protocolId = ZUNChannel::APP_ID_CONFIG)
    {
        return Message(ZUNChannel::CtrlMsg::kTypeData, protocolId, 0xFFFFFFFF, std::string(1, '\0') + payload);
    }

    // ENTITY_PROPERTY with one logical switch per id, each with its VNI.
    static Frame Switches(const std::vector<uint64_t>& ids)
    {
        namespace config = com::corvid::zun::config;
        config::CcpLcpZunConfigMsg msg;
        msg.set_type(config::CcpLcpZunConfigMsg::ENTITY_PROPERTY);
        for (uint64_t id : ids) {
            auto* delta = msg.add_entity_property();
            delta->set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
            delta->mutable_entity_id()->set_left(id);
            delta->mutable_entity_id()->set_right(id);
            delta->set_entity_type(config::LOG_SWITCH);
            auto* property = delta->add_property();
            property->set_property_type(config::EntityPropertyMsg::LS_VNI);
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
    int _dataPathReleases = 0;
};

}  // namespace FenRELTest
