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

// A controller's feature TLV for the L2 app: head, version 1, then nested
// TLVs (type, 16-bit values) with their real length.
Bytes Feature(const std::vector<std::pair<uint16_t, std::vector<uint16_t>>>& nested)
{
    Bytes feature(5, 0);
    for (const auto& [type, values] : nested) {
        const size_t at = feature.size();
        feature.resize(at + 4 + 2 * values.size());
        TlvCommon::PutBe16(feature.data() + at, type);
        TlvCommon::PutBe16(feature.data() + at + 2, static_cast<uint16_t>(4 + 2 * values.size()));
        for (size_t i = 0; i < values.size(); ++i) {
            TlvCommon::PutBe16(feature.data() + at + 4 + 2 * i, values[i]);
        }
    }
    TlvCommon::PutBe16(feature.data(), 64);
    TlvCommon::PutBe16(feature.data() + 2, static_cast<uint16_t>(feature.size()));
    feature[4] = 1;
    return feature;
}

TEST(L2HelloFeatureTest, HostAsksForProactiveModeAndTakesTheControllersValues)
{
    uint8_t data[8] = {};
    ASSERT_EQ(5, L2HelloFeature::WriteFeatureData(data, kApp));
    EXPECT_EQ((Bytes{0x00, 0x04, 0x00, 0x05, 0x02}), Bytes(data, data + 5));

    // An unknown type between known ones does not stop the walk.
    const Bytes feature = Feature({{1, {2000, 200, 40}}, {9, {7}}, {2, {450}}, {3, {900}}});
    ASSERT_TRUE(L2HelloFeature::CheckFeatureData(feature.data(), kApp));
    L2HelloFeature hello;
    hello.ApplyHelloFeature(feature.data(), 1500, kApp);
    const L2HelloFeature::Params& params = hello.GetParams();
    EXPECT_EQ((std::vector<uint16_t>{1484, 2000, 200, 40, 450, 900}),
              (std::vector<uint16_t>{params.maxPktLen, params.freqCtrlPeriod, params.freqCtrlQuery,
                                     params.freqCtrlUpdate, params.bteAgeingTime, params.arpAgeingTime}));

    // A feature without data keeps the values but follows the pool's limit.
    const Bytes empty = Feature({});
    EXPECT_TRUE(L2HelloFeature::CheckFeatureData(empty.data(), kApp));
    hello.ApplyHelloFeature(empty.data(), 4096, kApp);
    EXPECT_EQ(4080, hello.GetParams().maxPktLen);
    EXPECT_EQ(900, hello.GetParams().arpAgeingTime);
}

// A known value too short is refused with its error, and what follows it is not read.
TEST(L2HelloFeatureTest, ShortValuesAreRefusedWithTheirError)
{
    const std::vector<std::tuple<uint16_t, std::vector<uint16_t>, std::string>> cases = {
        {1, {1, 2}, "errorCode=\"LCP00401\"] L2App: Invalid frequency control payload"},
        {2, {}, "errorCode=\"LCP00402\"] L2App: Invalid mac table aging payload"},
        {3, {}, "errorCode=\"LCP00403\"] L2App: Invalid arp table aging payload"},
    };
    for (const auto& [type, values, line] : cases) {
        const Bytes feature = Feature({{type, values}, {3, {77}}});
        FenRELTest::LogCapture log;
        EXPECT_FALSE(L2HelloFeature::CheckFeatureData(feature.data(), kApp));
        EXPECT_NE(std::string::npos, log.Text().find(line)) << log.Text();
        EXPECT_EQ(std::string::npos, log.Text().find("received arpAgeingTime"));
    }
}

TEST(L2HelloFeatureDeathTest, NestedTlvPastTheFeatureIsFatal)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Bytes feature = Feature({{2, {1}}, {3, {1}}});
    TlvCommon::PutBe16(feature.data() + 13, 12);  // the second nested TLV's length
    EXPECT_DEATH(L2HelloFeature::CheckFeatureData(feature.data(), kApp), "ASSERT");
}

// An update goes whole while size + 16 fits the limit, else in fragments
// (which the channel's fragmenter cuts) that reassemble to it.
TEST(L2CtrlMsgTest, UpdateIsWholeUpToTheLimitAndFragmentedBeyond)
{
    l2::L2UpdateMsg update;
    for (uint64_t mac = 1; mac <= 20; ++mac) {
        update.add_mapping_update()->add_items()->mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
    }
    const size_t size = update.ByteSizeLong();
    for (const auto& [max, count] : std::vector<std::pair<size_t, size_t>>{{size + 16, 1}, {size + 15, 2}}) {
        const auto frames = L2CtrlMsg::UpdateFrames(64, update, static_cast<uint16_t>(max));
        ASSERT_EQ(count, frames.size()) << max;
        Bytes stream;
        for (const auto& frame : frames) {
            EXPECT_EQ(7, CtrlMsg::Type(frame.get()));
            EXPECT_EQ(64, CtrlMsg::ProtocolId(frame.get()));
            stream.insert(stream.end(), frame.get(), frame.get() + CtrlMsg::Length(frame.get()));
        }
        ZUNChannel::CtrlMsgReassembler reassembler;
        std::vector<ZUNChannel::CtrlMsgReassembler::Message> messages;
        reassembler.Feed(stream.data(), stream.size(), static_cast<uint16_t>(max), &messages);
        ASSERT_EQ(1u, messages.size());
        EXPECT_EQ(0, messages[0].buffer.get()[15]);
        l2::L2UpdateMsg parsed;
        uint32_t length = 0;
        ASSERT_TRUE(L2CtrlMsg::ParseUpdate(messages[0].buffer.get(), messages[0].size, parsed, length));
        EXPECT_EQ(size, length);
        EXPECT_EQ(update.SerializeAsString(), parsed.SerializeAsString());
    }
}

TEST(L2CtrlMsgTest, UpdateProtobufLengthComesFromTheMessageSize)
{
    // 15 and 16 bytes carry an empty protobuf; behind the lead byte, bytes that do not parse.
    const Bytes msg = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0xFF, 0xFF, 0xFF};
    for (const auto& [size, parses, expected] :
         std::vector<std::tuple<uint32_t, bool, uint32_t>>{{15, true, 0}, {16, true, 0}, {19, false, 3}}) {
        l2::L2UpdateMsg update;
        uint32_t length = 99;
        EXPECT_EQ(parses, L2CtrlMsg::ParseUpdate(msg.data(), size, update, length)) << size;
        EXPECT_EQ(expected, length) << size;
    }
}

}  // namespace
