#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChannelFixture.h"
#include "CtrlConn.h"
#include "CtrlMsg.h"
#include "FrameBytes.h"
#include "LogCapture.h"
#include "ShardingMgr.h"

namespace {

using namespace ZUNChannel;
using FenRELTest::Bytes;
using FenRELTest::Concat;

const ConnKey kKey("10.1.1.1", 0);

Bytes Tlv(uint16_t type, const Bytes& value)
{
    const uint16_t length = static_cast<uint16_t>(4 + value.size());
    Bytes tlv = {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type), static_cast<uint8_t>(length >> 8),
                 static_cast<uint8_t>(length)};
    tlv.insert(tlv.end(), value.begin(), value.end());
    return tlv;
}

// A controller's hello: header, flags byte, TLVs.
Bytes Hello(const Bytes& tlvs, uint8_t flags = 0x80, uint8_t version = 1)
{
    Bytes body = {flags};
    body.insert(body.end(), tlvs.begin(), tlvs.end());
    return FenRELTest::RawFrame(0, 1, 0, 0xFFFFFFFF, body, version);
}

class CoreAppTest : public FenRELTest::ChannelFixture {
protected:
    void SetUp() override
    {
        ChannelFixture::SetUp();
        _app = new FenRELTest::RecordingApp(APP_ID_L2, 0);
        AppManager::Get()->RegisterApp(_app);
        CtrlConnPool::Get()->RegisterConn(kKey, _app->GetKey());
        _conn = CtrlConnPool::Get()->FindConn(kKey);
    }

    void Receive(const Bytes& hello) { CoreApp::Get()->HandleMsg(hello.data(), static_cast<uint32_t>(hello.size()), kKey); }

    boost::intrusive_ptr<FenRELTest::RecordingApp> _app;
    boost::intrusive_ptr<CtrlConn> _conn;
};

// Each instance's hello: one feature TLV per extended app of the instance,
// then the instance's node UUID, nil beyond the configured ones.
TEST_F(CoreAppTest, HelloCarriesTheFeaturesAndTheNodeUuidOfItsInstance)
{
    AppManager::Get()->RegisterApp(new FenRELTest::RecordingApp(APP_ID_CONFIG, 0, 3));
    AppManager::Get()->RegisterApp(new FenRELTest::RecordingApp(APP_ID_VDRB, 1));
    UUID uuids[3];
    ASSERT_TRUE(UUID::FromString("11111111-2222-3333-4444-555555555555", uuids[0]));
    ASSERT_TRUE(UUID::FromString("66666666-7777-8888-9999-aaaaaaaaaaaa", uuids[1]));
    Configuration::AddNodeUuid(uuids[0]);
    Configuration::AddNodeUuid(uuids[1]);
    const Bytes features[3] = {Tlv(1, Concat({Tlv(APP_ID_L2, {1}), Tlv(APP_ID_CONFIG, {3})})),
                               Tlv(1, Tlv(APP_ID_VDRB, {1})), {}};
    for (uint32_t instance : {0u, 1u, 2u}) {
        uint8_t* hello = CoreApp::BuildHello(instance);
        const auto& uuid = uuids[instance].GetBytes();
        EXPECT_EQ(Hello(Concat({features[instance], Tlv(6, Bytes(uuid.begin(), uuid.end()))})),
                  Bytes(hello, hello + CtrlMsg::Length(hello)))
            << "instance " << instance;
        free(hello);
    }
}

TEST_F(CoreAppTest, ReadyAfterBothHellosAndOnlyOnce)
{
    CoreApp::Get()->SendHello(kKey);
    EXPECT_EQ(CtrlConn::kHelloSent, _conn->GetHelloFlags());
    EXPECT_TRUE(_app->events.empty());

    Receive(Hello(Tlv(6, Bytes(16, 0xAB))));
    EXPECT_TRUE(_conn->IsReady());
    EXPECT_EQ((std::vector<std::string>{"10.1.1.1:0 ready"}), _app->events);
    EXPECT_EQ(UUID::FromBytes(Bytes(16, 0xAB).data()), _conn->GetControllerUuid());

    // A repeated hello re-applies its values but posts nothing.
    Receive(Hello(Tlv(2, {0x08, 0x00})));
    EXPECT_EQ(1u, _app->events.size());
    EXPECT_EQ(2048, CtrlConnPool::Get()->GetMaxPktLen());
}

TEST_F(CoreAppTest, WholeHelloAppliesInOneGo)
{
    Receive(Hello(Concat({Tlv(2, {0x10, 0x00}), Tlv(3, {0x00, 0x14}), Tlv(4, {0x00, 0x05}),
                          Tlv(5, {0x00, 0x40, 0x00, 0x00}), Tlv(99, {1, 2, 3}), Tlv(1, Tlv(64, {1}))})));
    EXPECT_EQ(4096, CtrlConnPool::Get()->GetMaxPktLen());
    EXPECT_EQ(20, CtrlConnPool::Get()->GetKeepAliveInterval());
    EXPECT_EQ(5000000, CoreApp::Get()->GetKeepAliveCheckIntervalUs());
    // A rate below the floor is raised to 10.
    EXPECT_EQ(10u, _conn->GetMsgRate());
    EXPECT_EQ(1u << 22, ShardingMgr::Get()->GetSliceLength());
    EXPECT_EQ(1, _app->applied);
    // The hello was received, but ours never went out: not ready.
    EXPECT_EQ(CtrlConn::kHelloReceived, _conn->GetHelloFlags());
    EXPECT_TRUE(_app->events.empty());

    // The longest interval a controller can ask for restarts the sweep at a
    // quarter of 65535 s.
    CoreApp::Get()->Start();
    Receive(Hello(Tlv(3, {0xFF, 0xFF})));
    EXPECT_EQ(65535, CtrlConnPool::Get()->GetKeepAliveInterval());
    EXPECT_EQ(16383750000, CoreApp::Get()->GetKeepAliveCheckIntervalUs());
}

struct RefusedHello {
    const char* name;
    Bytes hello;
    const char* logged;
};

class RefusedHelloTest : public CoreAppTest, public testing::WithParamInterface<RefusedHello> {};

// A refused hello applies nothing, not even the TLVs in front of the bad one.
TEST_P(RefusedHelloTest, AppliesNothing)
{
    const uint16_t before = CtrlConnPool::Get()->GetMaxPktLen();
    FenRELTest::LogCapture log;
    Receive(GetParam().hello);
    EXPECT_NE(std::string::npos, log.Text().find(GetParam().logged)) << log.Text();
    EXPECT_EQ(before, CtrlConnPool::Get()->GetMaxPktLen());
    EXPECT_EQ(0, _app->applied);
    EXPECT_EQ(0u, _conn->GetHelloFlags());
}

const Bytes kGoodMaxPkt = Tlv(2, {0x02, 0x00});

INSTANTIATE_TEST_SUITE_P(
    Refusals, RefusedHelloTest,
    testing::Values(
        RefusedHello{"VersionZero", Hello(kGoodMaxPkt, 0x80, 0),
                     "errorCode=\"LCP00301\"] Core: controller 10.1.1.1:0 version is below agent version"},
        RefusedHello{"VersionTwo", Hello(kGoodMaxPkt, 0x80, 2),
                     "errorCode=\"LCP00301\"] Core: controller 10.1.1.1:0 version is above agent version"},
        RefusedHello{"ShortMaxPktLen", Hello(Concat({kGoodMaxPkt, Tlv(2, {0x02})})),
                     "errorCode=\"LCP00303\"] Core: Invalid Max Pkt Len payload from 10.1.1.1:0"},
        RefusedHello{"ShortKeepAlive", Hello(Concat({kGoodMaxPkt, Tlv(3, {})})),
                     "errorCode=\"LCP00304\"] Core: Invalid KeepAlive Interval from 10.1.1.1:0"},
        RefusedHello{"ShortFrequency", Hello(Concat({kGoodMaxPkt, Tlv(4, {7})})),
                     "errorCode=\"LCP00305\"] Core: Invalid Msg Frequency from 10.1.1.1:0"},
        RefusedHello{"ShortSlice", Hello(Concat({kGoodMaxPkt, Tlv(5, {0, 0, 1})})),
                     "Core: Invalid Sharding slice length payload from 10.1.1.1:0"},
        RefusedHello{"ShortUuid", Hello(Concat({kGoodMaxPkt, Tlv(6, Bytes(15, 1))})),
                     "errorCode=\"LCP00306\"] Core: Invalid node UUID length payload from 10.1.1.1:0"},
        RefusedHello{"UnknownFeature", Hello(Concat({kGoodMaxPkt, Tlv(1, Tlv(999, {1}))})),
                     "errorCode=\"LCP00009\"] Can't find hello negotiation app for featureID 999"},
        RefusedHello{"StrictVersionMismatch", Hello(Concat({kGoodMaxPkt, Tlv(1, Tlv(64, {2}))}), 0x80),
                     "errorCode=\"LCP00302\"] Core: Invalid feature param data from 10.1.1.1:0"}),
    [](const testing::TestParamInfo<RefusedHello>& info) { return info.param.name; });

TEST_F(CoreAppTest, LaxHelloAcceptsAnotherFeatureVersion)
{
    Receive(Hello(Tlv(1, Tlv(64, {2})), 0x00));
    EXPECT_EQ(1, _app->applied);
}

TEST_F(CoreAppTest, ShortHellosHaveNoTlvList)
{
    const Bytes bare = FenRELTest::RawFrame(0, 1, 0, 0xFFFFFFFF, {});
    Receive(bare);
    Receive(Hello({}));
    EXPECT_EQ(CtrlConn::kHelloReceived, _conn->GetHelloFlags());
}

}  // namespace
