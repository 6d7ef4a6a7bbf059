#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "CtrlMsg.h"
#include "CtrlMsgReassembler.h"
#include "L2CtrlMsg.h"
#include "L2HelloFeature.h"
#include "LogCapture.h"
#include "TlvCommon.h"

namespace {

using FenREL::L2CtrlMsg;
using FenREL::L2HelloFeature;
using FenREL::TlvCommon;
using ZUNChannel::CtrlMsg;
using Bytes = std::vector<uint8_t>;
namespace l2 = com::corvid::zun::l2;

const std::string kApp = "L2App";

// A controller's feature TLV for the L2 app: head, version 1, then `data`.
Bytes Feature(const Bytes& data)
{
    Bytes feature(5, 0);
    TlvCommon::PutBe16(feature.data(), 64);
    TlvCommon::PutBe16(feature.data() + 2, static_cast<uint16_t>(5 + data.size()));
    feature[4] = 1;
    feature.insert(feature.end(), data.begin(), data.end());
    return feature;
}

// A nested TLV whose value is the 16-bit numbers `values`, with `length`
// written as given (0: the real one).
Bytes Nested(uint16_t type, const std::vector<uint16_t>& values, uint16_t length = 0)
{
    Bytes tlv(4 + 2 * values.size(), 0);
    TlvCommon::PutBe16(tlv.data(), type);
    TlvCommon::PutBe16(tlv.data() + 2, length != 0 ? length : static_cast<uint16_t>(tlv.size()));
    for (size_t i = 0; i < values.size(); ++i) {
        TlvCommon::PutBe16(tlv.data() + 4 + 2 * i, values[i]);
    }
    return tlv;
}

Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

TEST(L2HelloFeatureTest, ControllerValuesAreTakenAndMaxPktLenFollowsThePool)
{
    // An unknown type between known ones does not stop the walk.
    const Bytes feature = Feature(Concat({Nested(1, {2000, 200, 40}), Nested(9, {7}), Nested(2, {450}),
                                          Nested(3, {900})}));
    FenRELTest::LogCapture log;
    ASSERT_TRUE(L2HelloFeature::CheckFeatureData(feature.data(), kApp));
    L2HelloFeature hello;
    hello.ApplyHelloFeature(feature.data(), 1500, kApp);
    const L2HelloFeature::Params& params = hello.GetParams();
    EXPECT_EQ(1484, params.maxPktLen);
    EXPECT_EQ(2000, params.freqCtrlPeriod);
    EXPECT_EQ(200, params.freqCtrlQuery);
    EXPECT_EQ(40, params.freqCtrlUpdate);
    EXPECT_EQ(450, params.bteAgeingTime);
    EXPECT_EQ(900, params.arpAgeingTime);
    const std::string& text = log.Text();
    EXPECT_NE(std::string::npos, text.find("L2App: Unknown feature data type in hello message: 9"));
    EXPECT_NE(std::string::npos, text.find("L2App: received freqCtrlPeriod 2000 freqCtrlQuery 200 freqCtrlUpdate 40"));
    EXPECT_NE(std::string::npos, text.find("L2App: received arpAgeingTime 900"));
    EXPECT_NE(std::string::npos,
              text.find("L2App: apply new parameters maxPktLen 1484 freqCtrlPeriod 2000 freqCtrlQuery 200 "
                        "freqCtrlUpdate 40 bteAgeingTime 450 arpAgeingTime 900"));
}

TEST(L2HelloFeatureTest, FeatureWithoutDataKeepsTheValuesButRefreshesMaxPktLen)
{
    L2HelloFeature hello;
    const L2HelloFeature::Params defaults;
    for (const Bytes& feature : {Feature({}), Feature({0x00}), Feature({0x00, 0x01, 0x00})}) {
        EXPECT_TRUE(L2HelloFeature::CheckFeatureData(feature.data(), kApp));
        hello.ApplyHelloFeature(feature.data(), 4096, kApp);
        EXPECT_EQ(4080, hello.GetParams().maxPktLen);
        EXPECT_EQ(defaults.freqCtrlPeriod, hello.GetParams().freqCtrlPeriod);
        EXPECT_EQ(defaults.arpAgeingTime, hello.GetParams().arpAgeingTime);
    }
}

TEST(L2HelloFeatureTest, EqualParametersAreNotAppliedTwice)
{
    const Bytes feature = Feature(Nested(2, {123}));
    L2HelloFeature hello;
    hello.ApplyHelloFeature(feature.data(), 4096, kApp);
    FenRELTest::LogCapture log;
    hello.ApplyHelloFeature(feature.data(), 4096, kApp);
    EXPECT_NE(std::string::npos, log.Text().find("L2App: current parameters maxPktLen 4080"));
    EXPECT_EQ(std::string::npos, log.Text().find("apply new parameters"));
}

struct ShortValueCase {
    uint16_t type;
    size_t valueBytes;
    const char* line;
};

class L2HelloShortValueTest : public testing::TestWithParam<ShortValueCase> {};

TEST_P(L2HelloShortValueTest, IsRefusedWithItsError)
{
    const ShortValueCase& c = GetParam();
    Bytes tlv = Nested(c.type, {});
    tlv.resize(4 + c.valueBytes, 0x11);
    TlvCommon::PutBe16(tlv.data() + 2, static_cast<uint16_t>(tlv.size()));
    // A valid value behind the short one is not reached.
    const Bytes feature = Feature(Concat({tlv, Nested(3, {77})}));
    FenRELTest::LogCapture log;
    EXPECT_FALSE(L2HelloFeature::CheckFeatureData(feature.data(), kApp));
    EXPECT_NE(std::string::npos, log.Text().find(c.line)) << log.Text();
    EXPECT_EQ(std::string::npos, log.Text().find("received arpAgeingTime"));
}

INSTANTIATE_TEST_SUITE_P(
    L2HelloFeature, L2HelloShortValueTest,
    testing::Values(ShortValueCase{1, 5, "L2App: Invalid frequency control payload"},
                    ShortValueCase{1, 0, "L2App: Invalid frequency control payload"},
                    ShortValueCase{2, 1, "L2App: Invalid mac table aging payload"},
                    ShortValueCase{3, 0, "L2App: Invalid arp table aging payload"}));

TEST(L2HelloFeatureDeathTest, NestedTlvPastTheFeatureIsFatal)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Bytes feature = Feature(Concat({Nested(2, {1}), Nested(3, {1}, 12)}));
    EXPECT_DEATH(L2HelloFeature::CheckFeatureData(feature.data(), kApp), "ASSERT");
}

// ---- updates and fragments ----

// An update of about `bytes` bytes of protobuf.
l2::L2UpdateMsg UpdateOfSize(size_t bytes)
{
    l2::L2UpdateMsg update;
    l2::L2MappingUpdateMsg* mapping = update.add_mapping_update();
    mapping->set_type(l2::L2MappingUpdateMsg::VM_MAC);
    mapping->mutable_vn_instance()->set_vni(5001);
    uint64_t mac = 1;
    while (update.ByteSizeLong() < bytes) {
        l2::L2UpdateMappingItemMsg* item = mapping->add_items();
        item->set_op(l2::L2UpdateMappingItemMsg::ADD);
        item->mutable_vm_mac()->mutable_vm_mac()->set_mac(mac++);
    }
    return update;
}

struct FrameCase {
    size_t protobufBytes;
    uint16_t maxPktLen;
};

class L2UpdateFramesTest : public testing::TestWithParam<FrameCase> {};

TEST_P(L2UpdateFramesTest, FramesFitTheLimitAndReassembleToTheUpdate)
{
    const l2::L2UpdateMsg update = UpdateOfSize(GetParam().protobufBytes);
    const size_t size = update.ByteSizeLong();
    const uint16_t max = GetParam().maxPktLen;
    auto frames = L2CtrlMsg::UpdateFrames(64, update, max);

    const size_t per = max - 15u;
    const size_t expected = size + 16 <= max ? 1 : (size + 1 + per - 1) / per;
    ASSERT_EQ(expected, frames.size());
    Bytes stream;
    for (size_t i = 0; i < frames.size(); ++i) {
        const uint8_t* frame = frames[i].get();
        EXPECT_EQ(7, CtrlMsg::Type(frame));
        EXPECT_EQ(64, CtrlMsg::ProtocolId(frame));
        EXPECT_EQ(0xFFFFFFFFu, CtrlMsg::SessionId(frame));
        EXPECT_LE(CtrlMsg::Length(frame), max);
        EXPECT_EQ(i + 1 < frames.size(), CtrlMsg::MoreFragments(frame)) << "frame " << i;
        stream.insert(stream.end(), frame, frame + CtrlMsg::Length(frame));
    }
    EXPECT_EQ(0, frames[0].get()[15]);

    ZUNChannel::CtrlMsgReassembler reassembler;
    std::vector<ZUNChannel::CtrlMsgReassembler::Message> messages;
    ASSERT_EQ(ZUNChannel::CtrlMsgReassembler::Status::kNeedMore,
              reassembler.Feed(stream.data(), stream.size(), max, &messages));
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(size + 16, messages[0].size);
    l2::L2UpdateMsg parsed;
    uint32_t length = 0;
    ASSERT_TRUE(L2CtrlMsg::ParseUpdate(messages[0].buffer.get(), messages[0].size, parsed, length));
    EXPECT_EQ(size, length);
    EXPECT_EQ(update.SerializeAsString(), parsed.SerializeAsString());
}

INSTANTIATE_TEST_SUITE_P(
    L2CtrlMsg, L2UpdateFramesTest,
    testing::Values(FrameCase{100, 116},   // size + 16 == max: whole
                    FrameCase{100, 115},   // one byte over: two fragments
                    FrameCase{40, 16},     // one byte per fragment
                    FrameCase{3000, 1000}, FrameCase{70000, 4096}, FrameCase{1000, 0xFFFF}));

TEST(L2CtrlMsgTest, UpdateProtobufLengthComesFromTheMessageSize)
{
    // 15 and 16 bytes carry an empty protobuf; behind the lead byte, bytes that do not parse.
    const Bytes msg = Concat({Bytes(15, 0), {0x00, 0xFF, 0xFF, 0xFF}});
    for (const auto& [size, parses, expected] :
         std::vector<std::tuple<uint32_t, bool, uint32_t>>{{15, true, 0}, {16, true, 0}, {19, false, 3}}) {
        l2::L2UpdateMsg update;
        uint32_t length = 99;
        EXPECT_EQ(parses, L2CtrlMsg::ParseUpdate(msg.data(), size, update, length)) << size;
        EXPECT_EQ(expected, length) << size;
    }
}

TEST(L2CtrlMsgTest, SessionControlRoundTripAndRefusals)
{
    ZUNChannel::CtrlMsgBuffer msg(L2CtrlMsg::BuildSessionControl(1024, 1, 5001));
    const uint16_t length = CtrlMsg::Length(msg.get());
    EXPECT_EQ(4, CtrlMsg::Type(msg.get()));
    EXPECT_EQ(1024, CtrlMsg::ProtocolId(msg.get()));
    uint8_t type = 0;
    l2::L2SessionParamMsg param;
    ASSERT_TRUE(L2CtrlMsg::ParseSessionControl(msg.get(), length, type, param));
    EXPECT_EQ(1, type);
    EXPECT_EQ(5001u, param.vn_instance().vni());
    EXPECT_FALSE(param.vn_instance().has_transport_switch_id());
    EXPECT_EQ(param.ByteSizeLong() + 16, length);

    // No control type; a control type with nothing behind it; a broken protobuf.
    EXPECT_FALSE(L2CtrlMsg::ParseSessionControl(msg.get(), 15, type, param));
    EXPECT_TRUE(L2CtrlMsg::ParseSessionControl(msg.get(), 16, type, param));
    msg.get()[16] = 0xFF;
    EXPECT_FALSE(L2CtrlMsg::ParseSessionControl(msg.get(), length, type, param));
}

}  // namespace
