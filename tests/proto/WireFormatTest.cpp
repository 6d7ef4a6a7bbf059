// Byte-exact encodings of the messages that cross process boundaries, written out by hand
// from the field numbers and wire types the peers use. A wrong field number, wire type or
// enum value in a schema changes these bytes.

#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "ccp_lcp_config.pb.h"
#include "ccp_lcp_l2.pb.h"
#include "config_entity_properties.pb.h"
#include "core_types.pb.h"
#include "lcp_dp.pb.h"
#include "mp_lcp_config.pb.h"
#include "pigeon.pb.h"
#include "rpc_framing.pb.h"

namespace {

namespace zun = com::corvid::zun;
namespace cfg = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;
namespace lcp = com::corvid::zun::lcp;
namespace pigeon = com::corvid::zun::proto::pigeon;
using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;

std::string FromHex(const std::string& hex) {
    std::istringstream in(hex);
    std::string out;
    unsigned byte;
    while (in >> std::hex >> byte) {
        out.push_back(static_cast<char>(byte));
    }
    return out;
}

void SetUuid(zun::UuidMsg* uuid, uint64_t left, uint64_t right) {
    uuid->set_left(left);
    uuid->set_right(right);
}

struct WireCase {
    const char* name;
    std::function<std::unique_ptr<Message>()> build;
    const char* hex;
};

template <typename T>
std::unique_ptr<Message> Make(const std::function<void(T&)>& fill) {
    auto msg = std::make_unique<T>();
    fill(*msg);
    return msg;
}

const WireCase kWireCases[] = {
    {"UuidHalvesAreFixed64",
     [] {
         return Make<zun::UuidMsg>(
             [](auto& m) { SetUuid(&m, 0x0102030405060708ull, 0xf1f2f3f4f5f6f7f8ull); });
     },
     "09 08 07 06 05 04 03 02 01 11 f8 f7 f6 f5 f4 f3 f2 f1"},
    {"MasterController",
     [] {
         return Make<cfg::CcpLcpZunConfigMsg>([](auto& m) {
             m.set_type(cfg::CcpLcpZunConfigMsg::MASTER_CONTROLLER);
             cfg::ControllerMsg* ctrl = m.mutable_master_controller();
             SetUuid(ctrl->mutable_uuid(), 1, 2);
             ctrl->mutable_ip()->set_ipv4(0x0a000001);
             ctrl->set_port(1234);
         });
     },
     "08 01 12 1e 0a 12 09 01 00 00 00 00 00 00 00 11 02 00 00 00 00 00 00 00 "
     "12 05 08 81 80 80 50 18 d2 09"},
    {"EntityPropertyHighFieldNumbers",
     [] {
         return Make<cfg::EntityPropertyMsg>([](auto& m) {
             m.set_property_type(cfg::EntityPropertyMsg::LR_ROUTER_ID);
             m.set_lr_router_id(5000);
             m.set_lr_type(cfg::SERVICE_ROUTER_TIER0);
         });
     },
     "08 64 a0 06 88 27 a8 06 02"},
    {"MpSyncRequest", [] { return Make<cfg::MpLcpMsg>([](auto& m) { m.mutable_sync_request(); }); },
     "0a 00"},
    {"MpControllerList",
     [] {
         return Make<cfg::MpLcpMsg>([](auto& m) {
             cfg::ControllerInfoMsg* info = m.mutable_update()->add_controller_list();
             info->mutable_ip()->set_ipv4(0x7f000001);
             info->set_port(1235);
             info->set_ssl_enabled(true);
             info->set_certificate("C");
         });
     },
     "12 12 0a 10 0a 06 08 81 80 80 f8 07 10 d3 09 18 01 22 01 43"},
    {"L2VtepAndRoutingVtep",
     [] {
         return Make<l2::L2UpdateMsg>([](auto& m) {
             l2::L2MappingUpdateMsg* mapping = m.add_mapping_update();
             mapping->set_type(l2::L2MappingUpdateMsg::VTEP);
             mapping->mutable_vn_instance()->set_vni(5001);
             l2::L2UpdateMappingItemMsg* item = mapping->add_items();
             item->set_op(l2::L2UpdateMappingItemMsg::ADD);
             l2::L2UpdateVtepMsg* vtep = item->mutable_vtep();
             vtep->mutable_vtep_ip()->set_ipv4(0x0a000001);
             vtep->mutable_vtep_label()->set_label(7);
             vtep->set_transport_binding_type(zun::GENEVE);
             l2::L2RoutingVtepUpdateMsg* routing = m.add_routing_vtep_update();
             routing->mutable_routing_domain_id()->set_left(1);
             l2::L2UpdateRoutingVtepItemMsg* ritem = routing->add_items();
             ritem->set_op(l2::L2UpdateRoutingVtepItemMsg::DEL);
             ritem->mutable_vtep()->mutable_vtep_ip()->set_ipv4(0x0a000002);
         });
     },
     "0a 1a 08 03 12 03 10 89 27 5a 11 08 01 6a 0d 0a 05 08 81 80 80 50 12 02 10 07 28 05 "
     "12 18 0a 09 09 01 00 00 00 00 00 00 00 12 0b 08 02 12 07 0a 05 08 82 80 80 50"},
    {"DataPathEnvelope",
     [] {
         return Make<lcp::LcpDpMsg>([](auto& m) {
             m.set_atomic_update_end(true);
             lcp::CcpSessionStateMsg* session = m.add_session_state();
             session->set_session_type(lcp::CcpSessionStateMsg::L2_SESSION);
             session->set_vni(5001);
             session->set_session_state(lcp::CcpSessionStateMsg::SESSION_LINKDOWN);
             session->mutable_controller_ip()->set_port(1234);
             cfg::ZunConfigDeltaMsg* delta = m.add_remote_config_update();
             delta->set_operation(cfg::ZunConfigDeltaMsg::UPDATE_OP);
             delta->set_entity_type(cfg::LOG_SWITCH);
             m.mutable_service_update();
         });
     },
     "08 01 12 0c 08 02 10 89 27 20 02 2a 03 18 d2 09 22 04 08 02 18 01 52 00"},
    {"Publication",
     [] {
         return Make<pigeon::PigeonMsg>([](auto& m) {
             pigeon::PublicationUpdateMsg* update = m.mutable_update();
             update->set_pub_id(7);
             update->set_receiver_module_id(1);
             update->add_added_items("a");
             m.mutable_barrier()->mutable_version()->set_desired_state_version(3);
             m.mutable_barrier()->mutable_version()->set_runtime_state_version(4);
             m.set_sequence_num(9);
         });
     },
     "0a 07 08 07 10 01 1a 01 61 1a 06 0a 04 08 03 10 04 28 09"},
    {"RpcRequestHeaders",
     [] {
         return Make<zun::Headers>([](auto& m) {
             m.set_type(zun::Headers::RPC_REQUEST);
             m.set_correlationid(42);
             m.set_servicename("svc");
             m.set_methodname("m");
             m.mutable_status()->set_error_code(zun::RPCError::TIMEOUT_ERROR);
         });
     },
     "08 01 10 2a a2 06 03 73 76 63 aa 06 01 6d f2 06 02 08 0b"},
    {"NegativeTypeAndId",
     [] {
         return Make<zun::Headers>([](auto& m) {
             m.set_type(zun::Headers::TEST_MSG);
             m.set_correlationid(-2);
         });
     },
     "08 ff ff ff ff ff ff ff ff ff 01 10 fe ff ff ff ff ff ff ff ff 01"},
};

void PrintTo(const WireCase& c, std::ostream* os) {
    *os << c.name;
}

class WireFormatTest : public testing::TestWithParam<WireCase> {};

TEST_P(WireFormatTest, EncodesAndDecodesTheExpectedBytes) {
    const std::unique_ptr<Message> built = GetParam().build();
    const std::string expected = FromHex(GetParam().hex);
    EXPECT_EQ(expected, built->SerializeAsString());

    std::unique_ptr<Message> parsed(built->New());
    ASSERT_TRUE(parsed->ParseFromString(expected));
    EXPECT_TRUE(MessageDifferencer::Equals(*built, *parsed)) << parsed->DebugString();
}

INSTANTIATE_TEST_SUITE_P(Messages, WireFormatTest, testing::ValuesIn(kWireCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(RpcHeadersTest, RequiredFieldsAndDefaultPayloadType) {
    zun::Headers headers;
    EXPECT_EQ(zun::Headers::PROTOBUF, headers.payloadtype());
    EXPECT_FALSE(headers.has_payloadtype());
    headers.set_type(zun::Headers::PING);
    EXPECT_FALSE(headers.IsInitialized());
    headers.set_correlationid(0);
    EXPECT_TRUE(headers.IsInitialized());
    // A default that is not set is not sent.
    EXPECT_EQ(FromHex("08 67 10 00"), headers.SerializeAsString());

    google::protobuf::LogSilencer quiet;  // the failed parses below are expected
    zun::Headers parsed;
    EXPECT_FALSE(parsed.ParseFromString(FromHex("08 67")));  // correlationId missing
    zun::RPCError error;
    EXPECT_FALSE(error.ParseFromString(FromHex("12 01 78")));  // error_code missing
    EXPECT_TRUE(error.ParseFromString(FromHex("08 0e")));
    EXPECT_EQ(zun::RPCError::CLUSTER_ID_MISMATCH_ERROR, error.error_code());
}

TEST(ShaperConfigTest, QueueDepthDefaultsToAllOnes) {
    cfg::ShaperConfigMsg shaper;
    EXPECT_EQ(4294967295u, shaper.queue_depth());
    EXPECT_EQ("", shaper.SerializeAsString());
    shaper.set_queue_depth(0);
    EXPECT_EQ(FromHex("28 00"), shaper.SerializeAsString());
}

}  // namespace
