// Every schema file is proto2 in the package its peers name, and the few structural
// properties other code relies on hold. The bytes that cross process boundaries are pinned
// in WireFormatTest; round-tripping generated code would test the protobuf library.

#include <string>

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include "ccp_lcp_config.pb.h"
#include "ccp_lcp_l2.pb.h"
#include "ccp_lcp_l3.pb.h"
#include "config_entity_properties.pb.h"
#include "core_types.pb.h"
#include "dne_common.pb.h"
#include "dne_km.pb.h"
#include "dne_lcp.pb.h"
#include "edge_services_config.pb.h"
#include "edge_services_lcp.pb.h"
#include "firewall_common.pb.h"
#include "firewall_lcp.pb.h"
#include "lcp_dp.pb.h"
#include "lcp_mock.pb.h"
#include "mp_lcp_config.pb.h"
#include "mpa_client_internal.pb.h"
#include "pigeon.pb.h"
#include "routing_config.pb.h"
#include "rpc_framing.pb.h"
#include "traceflow.pb.h"

namespace {

namespace zun = com::corvid::zun;
namespace cfg = com::corvid::zun::config;
using google::protobuf::Descriptor;

// Naming one message of each file links that file's generated code into the binary.
struct SchemaFile {
    const char* name;
    const char* package;
    const Descriptor* (*anyMessage)();
};

const SchemaFile kSchemaFiles[] = {
    {"core_types", "com.corvid.zun", &zun::UuidMsg::descriptor},
    {"config_entity_properties", "com.corvid.zun.config", &cfg::ShaperConfigMsg::descriptor},
    {"ccp_lcp_config", "com.corvid.zun.config", &cfg::CcpLcpZunConfigMsg::descriptor},
    {"mp_lcp_config", "com.corvid.zun.config", &cfg::MpLcpMsg::descriptor},
    {"ccp_lcp_l2", "com.corvid.zun.l2", &zun::l2::L2UpdateMsg::descriptor},
    {"ccp_lcp_l3", "com.corvid.zun.l3", &zun::l3::L3UpdateMsg::descriptor},
    {"routing_config", "com.corvid.zun.config", &cfg::BgpNeighborMsg::descriptor},
    {"firewall_common", "com.corvid.zun.firewall", &zun::firewall::ProtocolSpecMsg::descriptor},
    {"firewall_lcp", "com.corvid.zun.firewall", &zun::firewall::LcpFirewallUpdateMsg::descriptor},
    {"dne_common", "com.corvid.zun.dne", &zun::dne::KeyPolicyConfigMsg::descriptor},
    {"dne_lcp", "com.corvid.zun.dne", &zun::dne::LcpDneUpdateMsg::descriptor},
    {"dne_km", "com.corvid.zun.dne", &zun::dne::KeyMgrMsg::descriptor},
    {"edge_services_config", "com.corvid.zun.service", &zun::service::DhcpIpPoolMsg::descriptor},
    {"edge_services_lcp", "com.corvid.zun.service", &zun::service::LcpEdgeServicesUpdateMsg::descriptor},
    {"traceflow", "com.corvid.zun.traceflow", &zun::traceflow::TraceflowMsg::descriptor},
    {"lcp_dp", "com.corvid.zun.lcp", &zun::lcp::LcpDpMsg::descriptor},
    {"pigeon", "com.corvid.zun.proto.pigeon", &zun::proto::pigeon::PigeonMsg::descriptor},
    {"rpc_framing", "com.corvid.zun", &zun::Frame::descriptor},
    {"lcp_mock", "com.corvid.zun.lcpmock", &zun::lcpmock::L2StatsMsg::descriptor},
    {"mpa_client_internal", "FenREL", &FenREL::BrokdClientInternalMsg::descriptor},
};

class SchemaFileTest : public testing::TestWithParam<SchemaFile> {};

TEST_P(SchemaFileTest, IsAProto2FileOfItsPackage) {
    const auto* file = GetParam().anyMessage()->file();
    EXPECT_EQ(std::string(GetParam().name) + ".proto", file->name());
    EXPECT_EQ(GetParam().package, file->package());
    EXPECT_EQ(google::protobuf::FileDescriptor::SYNTAX_PROTO2, file->syntax());
}

INSTANTIATE_TEST_SUITE_P(Files, SchemaFileTest, testing::ValuesIn(kSchemaFiles),
                         [](const auto& info) { return std::string(info.param.name); });

// An entity property or state names its one set field by its type: each type's number is the
// number of the field that carries it, and each field but the type (and a flag) has its type.
TEST(EntityItemTest, EveryTypeNamesTheFieldOfTheSameNumber) {
    const std::pair<const Descriptor*, int> items[] = {{cfg::EntityPropertyMsg::descriptor(), 1},
                                                       {cfg::EntityStateMsg::descriptor(), 2}};
    for (const auto& [desc, untypedFields] : items) {
        const auto* types = desc->field(0)->enum_type();
        for (int i = 1; i < types->value_count(); ++i) {  // the zero value names no field
            EXPECT_NE(nullptr, desc->FindFieldByNumber(types->value(i)->number())) << types->value(i)->full_name();
        }
        EXPECT_EQ(types->value_count() - 1, desc->field_count() - untypedFields) << desc->full_name();
    }
}

}  // namespace
