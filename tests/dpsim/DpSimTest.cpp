#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>

#include "DataPathSim.h"
#include "DataPathView.h"
#include "DpFrame.h"
#include "LocalState.h"
#include "TempDir.h"

namespace DpSim {
namespace {

using namespace std::chrono_literals;
namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
using com::corvid::zun::lcp::CcpSessionStateMsg;
using com::corvid::zun::lcp::LcpDpMsg;

com::corvid::zun::UuidMsg Uuid(uint64_t id)
{
    com::corvid::zun::UuidMsg uuid;
    uuid.set_left(id);
    uuid.set_right(id);
    return uuid;
}

config::ZunConfigDeltaMsg Delta(uint64_t id, int operation, int propertyType = 0, uint32_t vni = 0)
{
    config::ZunConfigDeltaMsg delta;
    delta.set_operation(static_cast<config::ZunConfigDeltaMsg::Operation>(operation));
    *delta.mutable_entity_id() = Uuid(id);
    delta.set_entity_type(config::LOG_SWITCH);
    if (propertyType != 0) {
        config::EntityPropertyMsg* property = delta.add_property();
        property->set_property_type(static_cast<config::EntityPropertyMsg::PropertyType>(propertyType));
        property->mutable_ls_vni()->set_vni(vni);
    }
    return delta;
}

l2::L2UpdateMappingItemMsg Vtep(uint32_t ip)
{
    l2::L2UpdateMappingItemMsg item;
    item.mutable_vtep()->mutable_vtep_ip()->set_ipv4(ip);
    return item;
}

TEST(DpFrameReaderTest, SameFramesWhateverTheSplitAndAStopAtALengthBelowSix)
{
    Bytes stream = DpFrame::Encode(1, "first");
    const Bytes second = DpFrame::Encode(4, "", 0x80);
    stream.insert(stream.end(), second.begin(), second.end());
    for (size_t chunk : {stream.size(), size_t{1}, size_t{4}}) {
        SCOPED_TRACE("chunks of " + std::to_string(chunk));
        DpFrameReader reader;
        std::vector<DpFrame> frames;
        for (size_t at = 0; at < stream.size(); at += chunk) {
            reader.Feed(stream.data() + at, std::min(chunk, stream.size() - at));
            while (auto frame = reader.Next()) {
                frames.push_back(*frame);
            }
        }
        ASSERT_EQ(2u, frames.size());
        EXPECT_EQ("first", std::string(frames[0].body.begin(), frames[0].body.end()));
        EXPECT_EQ(11u, frames[0].length);
        EXPECT_EQ(4, frames[1].type);
        EXPECT_EQ(0x80, frames[1].flags);
        EXPECT_TRUE(frames[1].body.empty());
    }

    DpFrameReader reader;
    const Bytes bad = {0, 1, 0, 0, 0, 5};
    reader.Feed(bad.data(), bad.size());
    const Bytes good = DpFrame::Encode(1, "after");
    reader.Feed(good.data(), good.size());
    EXPECT_FALSE(reader.Next());
    EXPECT_EQ("length 5 below the header's 6 bytes", reader.Fault());
}

TEST(DataPathViewTest, FullSyncReplacesAndDeltasApply)
{
    DataPathView view;
    LcpDpMsg first;
    *first.add_remote_config_update() = Delta(1, 2, config::EntityPropertyMsg::LS_VNI, 5001);
    *first.add_remote_config_update() = Delta(2, 2);
    CcpSessionStateMsg* session = first.add_session_state();
    session->set_session_type(CcpSessionStateMsg::L2_SESSION);
    session->set_vni(5001);
    session->set_session_state(CcpSessionStateMsg::SESSION_LINKDOWN);
    view.Apply(first, true);
    EXPECT_EQ(2u, view.Config().EntityCount());

    LcpDpMsg delta;
    *delta.add_remote_config_update() = Delta(1, 1, config::EntityPropertyMsg::LS_VNI);  // the property goes
    *delta.add_remote_config_update() = Delta(2, 1);                                     // the entity goes
    *delta.add_session_state() = *session;
    delta.mutable_session_state(0)->set_session_state(CcpSessionStateMsg::SESSION_LINKUP);
    view.Apply(delta, false);
    EXPECT_TRUE(view.Config().HasEntity(Uuid(1)));
    EXPECT_FALSE(view.Config().GetProperty(Uuid(1), config::EntityPropertyMsg::LS_VNI));
    EXPECT_FALSE(view.Config().HasEntity(Uuid(2)));
    ASSERT_EQ(1u, view.Sessions().size());
    EXPECT_EQ(CcpSessionStateMsg::SESSION_LINKUP, view.Session(CcpSessionStateMsg::L2_SESSION, 5001)->session_state());

    LcpDpMsg second;
    *second.add_remote_config_update() = Delta(3, 2);
    view.Apply(second, true);
    EXPECT_EQ(1u, view.Config().EntityCount());
    EXPECT_TRUE(view.Sessions().empty());
    EXPECT_EQ(2u, view.FullSyncs());
    EXPECT_EQ(1u, view.Deltas());
}

TEST(L2ViewTest, ItemsComeAndGoAndLeavingAVniTakesItsItems)
{
    LocalState local;
    LcpDpMsg msg;
    L2View view;
    ASSERT_EQ("", local.AddL2(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(1), msg));
    // The first item joins the VNI in the same message.
    ASSERT_EQ(2, msg.l2_update().mapping_update_size());
    EXPECT_FALSE(msg.l2_update().mapping_update(0).has_type());
    view.Apply(msg.l2_update());
    ASSERT_EQ("", local.AddL2(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(2), msg));
    EXPECT_EQ(1, msg.l2_update().mapping_update_size());
    view.Apply(msg.l2_update());
    EXPECT_EQ(2u, view.ItemCount(5001, l2::L2MappingUpdateMsg::VTEP));

    EXPECT_NE("", local.DeleteL2(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(3), msg));
    ASSERT_EQ("", local.DeleteL2(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(1), msg));
    view.Apply(msg.l2_update());
    EXPECT_FALSE(view.HasItem(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(1)));
    EXPECT_TRUE(view.HasItem(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(2)));

    // The whole picture rebuilds the same view.
    L2View rebuilt;
    rebuilt.Apply(view.ToFullMessage());
    EXPECT_TRUE(rebuilt.HasItem(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(2)));
    EXPECT_EQ(1u, rebuilt.ItemCount(5001, l2::L2MappingUpdateMsg::VTEP));

    ASSERT_EQ("", local.LeaveVni(5001, msg));
    view.Apply(msg.l2_update());
    EXPECT_FALSE(view.HasVni(5001));
    EXPECT_NE("", local.LeaveVni(5001, msg));
}

TEST(L2ViewTest, DescribeListsTheFirstItemsOfEachTypeReadably)
{
    L2View view;
    l2::L2UpdateMsg msg;
    l2::L2MappingUpdateMsg* macs = msg.add_mapping_update();
    macs->set_type(l2::L2MappingUpdateMsg::VM_MAC);
    macs->mutable_vn_instance()->set_vni(5001);
    for (uint64_t i = 0; i < 10; ++i) {
        l2::L2UpdateMappingItemMsg* item = macs->add_items();
        item->mutable_vm_mac()->mutable_vm_mac()->set_mac(0x005056AA0000 + i);
        item->mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0xC0A80002);
    }
    view.Apply(msg);
    const std::string text = view.Describe();
    EXPECT_NE(std::string::npos, text.find("vni 5001 switch 0 type2=10\n")) << text;
    EXPECT_NE(std::string::npos, text.find("  VM_MAC 00:50:56:aa:00:00 at 192.168.0.2\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("00:50:56:aa:00:08")) << text;
    EXPECT_NE(std::string::npos, text.find("  ... 2 more\n")) << text;
}

TEST(LocalStateTest, ANewVifIsCreatedBeforeItsStatesAndTheFullSyncHoldsAll)
{
    LocalState local;
    const LcpDpMsg created = local.SetVif("vif-1", LocalState::Vif{{1}, {2}});
    ASSERT_EQ(2, created.local_config_update_size());
    EXPECT_EQ(0, created.local_config_update(0).state_size());
    EXPECT_EQ(2, created.local_config_update(1).state_size());
    EXPECT_EQ(config::VIF, created.local_config_update(1).entity_type());
    EXPECT_EQ(1, local.SetVif("vif-1", LocalState::Vif{{3}, {}}).local_config_update_size());
    local.SetVif("vif-2", LocalState::Vif{});
    EXPECT_FALSE(local.RemoveVif("vif-3"));
    ASSERT_TRUE(local.RemoveVif("vif-2"));
    const auto removal = local.RemoveVif("vif-1");
    ASSERT_TRUE(removal);
    ASSERT_EQ(1, removal->local_config_update_size());
    EXPECT_EQ(config::ZunStateDeltaMsg::DELETE_OP, removal->local_config_update(0).operation());
    EXPECT_EQ(0, removal->local_config_update(0).state_size());

    local.SetVif("vif-4", LocalState::Vif{{4}, {}});
    const LcpDpMsg full = local.FullSyncMessage();
    EXPECT_TRUE(full.atomic_update_end());
    EXPECT_TRUE(full.has_l2_update());
    ASSERT_EQ(2, full.local_config_update_size());
    EXPECT_EQ("vif-4", full.local_config_update(1).entity_id());
    EXPECT_EQ(4u, full.local_config_update(1).state(0).vif_ips(0).ipv4());
}

// The agent's side at its simplest: a connected unix socket with deadlines.
class Client {
public:
    explicit Client(const std::string& path)
    {
        _fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        connected = connect(_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~Client() { close(_fd); }

    bool Write(const Bytes& bytes) { return send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size()); }

    std::optional<LcpDpMsg> ReadMessage()
    {
        DpFrameReader reader;
        for (;;) {
            if (auto frame = reader.Next()) {
                LcpDpMsg msg;
                msg.ParseFromArray(frame->body.data(), static_cast<int>(frame->body.size()));
                return msg;
            }
            uint8_t buffer[4096];
            pollfd request{_fd, POLLIN, 0};
            if (poll(&request, 1, 5000) <= 0) {
                return std::nullopt;
            }
            const ssize_t got = recv(_fd, buffer, sizeof(buffer), 0);
            if (got <= 0) {
                return std::nullopt;
            }
            reader.Feed(buffer, static_cast<size_t>(got));
        }
    }

    bool ReadEof()
    {
        pollfd request{_fd, POLLIN, 0};
        uint8_t byte;
        return poll(&request, 1, 5000) == 1 && recv(_fd, &byte, 1, 0) == 0;
    }

    bool connected = false;

private:
    int _fd;
};

class DataPathSimTest : public testing::Test {
protected:
    void Start(bool autoFullSync)
    {
        _sim = std::make_unique<DataPathSim>(DataPathSim::Options{_dir.File("run/agent.sock"), autoFullSync});
        _sim->Start();
    }

    FenRELTest::TempDir _dir;
    std::unique_ptr<DataPathSim> _sim;
};

TEST_F(DataPathSimTest, SendsItsFullSyncAtAcceptAndRecordsTheAgentsMessages)
{
    Start(true);
    _sim->SetVif("vif-1", LocalState::Vif{{7}, {}});
    Client agent(_sim->Path());
    ASSERT_TRUE(agent.connected);
    const auto first = agent.ReadMessage();
    ASSERT_TRUE(first);
    EXPECT_EQ(2, first->local_config_update_size());

    // Once the first message is out, changes go as deltas.
    _sim->SetVif("vif-2", LocalState::Vif{{8}, {}});
    const auto delta = agent.ReadMessage();
    ASSERT_TRUE(delta);
    EXPECT_EQ("vif-2", delta->local_config_update(0).entity_id());

    LcpDpMsg fullSync;
    *fullSync.add_remote_config_update() = Delta(1, 2);
    LcpDpMsg change;
    *change.add_remote_config_update() = Delta(2, 2);
    Bytes both = DpFrame::Encode(1, fullSync.SerializeAsString());
    const Bytes second = DpFrame::Encode(2, change.SerializeAsString());
    both.insert(both.end(), second.begin(), second.end());
    ASSERT_TRUE(agent.Write(both));
    ASSERT_TRUE(_sim->WaitForMessageCount(2, 5s)) << _sim->Summary();
    const auto messages = _sim->Messages();
    EXPECT_TRUE(messages[0].fullSync);
    EXPECT_FALSE(messages[1].fullSync);
    EXPECT_EQ(2, messages[1].headerType);
    EXPECT_EQ(2u, _sim->View().Config().EntityCount());
}

TEST_F(DataPathSimTest, ChangesWaitForTheFirstMessageWhenItIsSentByHand)
{
    Start(false);
    Client agent(_sim->Path());
    ASSERT_TRUE(_sim->WaitForAccepted(1, 5s));
    EXPECT_FALSE(_sim->FirstMessageSent());
    ASSERT_EQ("", _sim->AddL2(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(1)));
    ASSERT_TRUE(_sim->SendFullSync());
    const auto first = agent.ReadMessage();
    ASSERT_TRUE(first);
    L2View view;
    view.Apply(first->l2_update());
    EXPECT_TRUE(view.HasItem(5001, l2::L2MappingUpdateMsg::VTEP, Vtep(1)));
}

TEST_F(DataPathSimTest, BadLengthIsAViolationThatClosesTheConnection)
{
    Start(false);
    Client agent(_sim->Path());
    ASSERT_TRUE(agent.Write(Bytes{0, 1, 0, 0, 0, 5}));
    ASSERT_TRUE(_sim->WaitForClosed(0, 5s));
    EXPECT_EQ(1u, _sim->Violations().size());
    EXPECT_TRUE(agent.ReadEof());
}

TEST_F(DataPathSimTest, ANewConnectionReplacesTheOldAndCloseEndsIt)
{
    Start(false);
    Client old(_sim->Path());
    ASSERT_TRUE(_sim->WaitForAccepted(1, 5s));
    Client agent(_sim->Path());
    ASSERT_TRUE(_sim->WaitForAccepted(2, 5s));
    EXPECT_TRUE(_sim->WaitForClosed(0, 5s));
    EXPECT_TRUE(old.ReadEof());
    EXPECT_TRUE(_sim->IsConnected());
    EXPECT_TRUE(_sim->CloseConnection());
    EXPECT_TRUE(agent.ReadEof());
    EXPECT_FALSE(_sim->IsConnected());
}

}  // namespace
}  // namespace DpSim
