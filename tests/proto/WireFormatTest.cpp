// Byte-exact encodings of the messages that cross process boundaries, written out by hand
// from the field numbers and wire types the peers use. A wrong field number, wire type or
// enum value in a schema changes these bytes.

#include <memory>
#include <sstream>
#include <string>

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>
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
using google::protobuf::Descriptor;
using google::protobuf::Message;

std::string FromHex(const std::string& hex) {
    std::istringstream in(hex);
    std::string out;
    unsigned byte;
    while (in >> std::hex >> byte) {
        out.push_back(static_cast<char>(byte));
    }
    return out;
}

struct WireCase {
    const char* name;
    const Descriptor* (*type)();
    const char* text;  // the message in text format, which names fields, not numbers
    const char* hex;
};

const WireCase kWireCases[] = {
    {"UuidHalvesAreFixed64", &zun::UuidMsg::descriptor, "left: 0x0102030405060708 right: 0xf1f2f3f4f5f6f7f8",
     "09 08 07 06 05 04 03 02 01 11 f8 f7 f6 f5 f4 f3 f2 f1"},
    {"MasterController", &cfg::CcpLcpZunConfigMsg::descriptor,
     "type: MASTER_CONTROLLER master_controller { uuid { left: 1 right: 2 } ip { ipv4: 0x0a000001 } port: 1234 }",
     "08 01 12 1e 0a 12 09 01 00 00 00 00 00 00 00 11 02 00 00 00 00 00 00 00 12 05 08 81 80 80 50 18 d2 09"},
    {"EntityPropertyHighFieldNumbers", &cfg::EntityPropertyMsg::descriptor,
     "property_type: LR_ROUTER_ID lr_router_id: 5000 lr_type: SERVICE_ROUTER_TIER0", "08 64 a0 06 88 27 a8 06 02"},
    {"MpControllerList", &cfg::MpLcpMsg::descriptor,
     "update { controller_list { ip { ipv4: 0x7f000001 } port: 1235 ssl_enabled: true certificate: 'C' } }",
     "12 12 0a 10 0a 06 08 81 80 80 f8 07 10 d3 09 18 01 22 01 43"},
    {"L2VtepAndRoutingVtep", &zun::l2::L2UpdateMsg::descriptor,
     "mapping_update { type: VTEP vn_instance { vni: 5001 } items { op: ADD vtep { vtep_ip { ipv4: 0x0a000001 } "
     "vtep_label { label: 7 } transport_binding_type: GENEVE } } } "
     "routing_vtep_update { routing_domain_id { left: 1 } items { op: DEL vtep { vtep_ip { ipv4: 0x0a000002 } } } }",
     "0a 1a 08 03 12 03 10 89 27 5a 11 08 01 6a 0d 0a 05 08 81 80 80 50 12 02 10 07 28 05 "
     "12 18 0a 09 09 01 00 00 00 00 00 00 00 12 0b 08 02 12 07 0a 05 08 82 80 80 50"},
    {"DataPathEnvelope", &zun::lcp::LcpDpMsg::descriptor,
     "atomic_update_end: true session_state { session_type: L2_SESSION vni: 5001 session_state: SESSION_LINKDOWN "
     "controller_ip { port: 1234 } } remote_config_update { operation: UPDATE_OP entity_type: LOG_SWITCH } "
     "service_update {}",
     "08 01 12 0c 08 02 10 89 27 20 02 2a 03 18 d2 09 22 04 08 02 18 01 52 00"},
    {"Publication", &zun::proto::pigeon::PigeonMsg::descriptor,
     "update { pub_id: 7 receiver_module_id: 1 added_items: 'a' } "
     "barrier { version { desired_state_version: 3 runtime_state_version: 4 } } sequence_num: 9",
     "0a 07 08 07 10 01 1a 01 61 1a 06 0a 04 08 03 10 04 28 09"},
    {"RpcRequestHeaders", &zun::Headers::descriptor,
     "type: RPC_REQUEST correlationId: 42 serviceName: 'svc' methodName: 'm' status { error_code: TIMEOUT_ERROR }",
     "08 01 10 2a a2 06 03 73 76 63 aa 06 01 6d f2 06 02 08 0b"},
    {"NegativeTypeAndId", &zun::Headers::descriptor, "type: TEST_MSG correlationId: -2",
     "08 ff ff ff ff ff ff ff ff ff 01 10 fe ff ff ff ff ff ff ff ff 01"},
};

class WireFormatTest : public testing::TestWithParam<WireCase> {};

TEST_P(WireFormatTest, EncodesAndDecodesTheExpectedBytes) {
    const Message* prototype =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(GetParam().type());
    std::unique_ptr<Message> built(prototype->New());
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(GetParam().text, built.get()));
    const std::string expected = FromHex(GetParam().hex);
    EXPECT_EQ(expected, built->SerializeAsString());

    std::unique_ptr<Message> parsed(prototype->New());
    ASSERT_TRUE(parsed->ParseFromString(expected));
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(*built, *parsed)) << parsed->DebugString();
}

INSTANTIATE_TEST_SUITE_P(Messages, WireFormatTest, testing::ValuesIn(kWireCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The RPC peer requires the type and the id, and leaves the default payload type unsent.
TEST(RpcHeadersTest, RequiredFieldsAndDefaultPayloadType) {
    zun::Headers headers;
    headers.set_type(zun::Headers::PING);
    EXPECT_FALSE(headers.IsInitialized());
    headers.set_correlationid(0);
    EXPECT_EQ(zun::Headers::PROTOBUF, headers.payloadtype());
    EXPECT_EQ(FromHex("08 67 10 00"), headers.SerializeAsString());

    google::protobuf::LogSilencer quiet;  // the failed parses below are expected
    EXPECT_FALSE(headers.ParseFromString(FromHex("08 67")));  // correlationId missing
    zun::RPCError error;
    EXPECT_FALSE(error.ParseFromString(FromHex("12 01 78")));  // error_code missing
    EXPECT_TRUE(error.ParseFromString(FromHex("08 0e")));
    EXPECT_EQ(zun::RPCError::CLUSTER_ID_MISMATCH_ERROR, error.error_code());
}

}  // namespace
