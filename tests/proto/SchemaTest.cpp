// Every message of every schema file survives serialisation with all of its fields set,
// and the few structural properties other code relies on hold.

#include <memory>
#include <ostream>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/message_differencer.h>
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
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::util::MessageDifferencer;

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

// Sets every field, to values that take more than one byte where the type allows; repeated
// fields get two elements, sub-messages are filled down to a bounded depth.
void FillAll(Message& msg, int depth);

void SetField(Message& msg, const FieldDescriptor* field, int index, int depth) {
    const Reflection* r = msg.GetReflection();
    const bool rep = field->is_repeated();
    const int n = field->number() + index;
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32:
            return rep ? r->AddInt32(&msg, field, -n) : r->SetInt32(&msg, field, -n);
        case FieldDescriptor::CPPTYPE_INT64:
            return rep ? r->AddInt64(&msg, field, -(int64_t{1} << 40) - n)
                       : r->SetInt64(&msg, field, -(int64_t{1} << 40) - n);
        case FieldDescriptor::CPPTYPE_UINT32:
            return rep ? r->AddUInt32(&msg, field, 0x80000000u + n) : r->SetUInt32(&msg, field, 0x80000000u + n);
        case FieldDescriptor::CPPTYPE_UINT64:
            return rep ? r->AddUInt64(&msg, field, ~uint64_t{0} - n) : r->SetUInt64(&msg, field, ~uint64_t{0} - n);
        case FieldDescriptor::CPPTYPE_BOOL:
            return rep ? r->AddBool(&msg, field, true) : r->SetBool(&msg, field, true);
        case FieldDescriptor::CPPTYPE_ENUM: {
            const auto* e = field->enum_type();
            const auto* v = e->value(e->value_count() - 1 - index % e->value_count());
            return rep ? r->AddEnum(&msg, field, v) : r->SetEnum(&msg, field, v);
        }
        case FieldDescriptor::CPPTYPE_STRING: {
            // Bytes may hold anything; strings hold text.
            const std::string s = field->name() + std::to_string(index) +
                                  (field->type() == FieldDescriptor::TYPE_BYTES ? std::string("\0\xff", 2)
                                                                                : std::string("\u00e9"));
            return rep ? r->AddString(&msg, field, s) : r->SetString(&msg, field, s);
        }
        case FieldDescriptor::CPPTYPE_MESSAGE: {
            Message* sub = rep ? r->AddMessage(&msg, field) : r->MutableMessage(&msg, field);
            return depth < 3 ? FillAll(*sub, depth + 1) : void();
        }
        default:
            FAIL() << "no filler for " << field->full_name();
    }
}

void FillAll(Message& msg, int depth) {
    const Descriptor* desc = msg.GetDescriptor();
    for (int i = 0; i < desc->field_count(); ++i) {
        const FieldDescriptor* field = desc->field(i);
        for (int k = 0; k < (field->is_repeated() ? 2 : 1); ++k) {
            SetField(msg, field, k, depth);
        }
    }
}

void ExpectRoundTrip(const Descriptor* desc) {
    SCOPED_TRACE(desc->full_name());
    const Message* prototype = google::protobuf::MessageFactory::generated_factory()->GetPrototype(desc);
    std::unique_ptr<Message> original(prototype->New());
    FillAll(*original, 0);
    ASSERT_TRUE(original->IsInitialized());

    const std::string bytes = original->SerializeAsString();
    std::unique_ptr<Message> parsed(prototype->New());
    ASSERT_TRUE(parsed->ParseFromString(bytes));
    EXPECT_TRUE(MessageDifferencer::Equals(*original, *parsed));
    EXPECT_EQ(bytes, parsed->SerializeAsString());
    for (int i = 0; i < desc->nested_type_count(); ++i) {
        ExpectRoundTrip(desc->nested_type(i));
    }
}

class SchemaFileTest : public testing::TestWithParam<SchemaFile> {};

TEST_P(SchemaFileTest, EveryMessageRoundTripsWithAllFieldsSet) {
    const auto* file = GetParam().anyMessage()->file();
    EXPECT_EQ(std::string(GetParam().name) + ".proto", file->name());
    EXPECT_EQ(GetParam().package, file->package());
    EXPECT_EQ(google::protobuf::FileDescriptor::SYNTAX_PROTO2, file->syntax());

    EXPECT_GT(file->message_type_count(), 0);
    for (int i = 0; i < file->message_type_count(); ++i) {
        ExpectRoundTrip(file->message_type(i));
    }
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
