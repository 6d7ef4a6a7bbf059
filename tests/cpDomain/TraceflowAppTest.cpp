#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigAppFixture.h"
#include "LogCapture.h"
#include "MsgDispatcher.h"
#include "MsgSink.h"
#include "TraceflowApp.h"

namespace {

using namespace ZUNChannel;
using FenREL::MsgDispatcher;
using FenRELTest::Frame;
using FenRELTest::Message;

// The data path's end of the dispatcher: keeps the payloads it is given.
class DataPathSink : public FenREL::MsgSink {
public:
    void Process(uint32_t, const uint8_t* data, uint32_t length) override
    {
        payloads.emplace_back(data, data + length);
    }
    std::vector<Frame> payloads;
};

using TraceflowAppTest = FenRELTest::ConfigAppFixture;

// Observations go out on the config session, and packet-outs reach the data
// path as they came, an empty payload included.
TEST_F(TraceflowAppTest, PayloadsPassBothWaysEvenEmpty)
{
    boost::intrusive_ptr<FenREL::TraceflowApp> traceflow(new FenREL::TraceflowApp());
    AppManager::Get()->RegisterApp(traceflow);
    DataPathSink dataPath;
    MsgDispatcher::Get().RegisterSink(MsgDispatcher::DP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, &dataPath);
    auto fromDataPath = [](const Frame& payload) {
        MsgDispatcher::Get().Dispatch(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, payload.data(),
                                      static_cast<uint32_t>(payload.size()));
    };
    {
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_ERROR);
        fromDataPath(Frame{1, 2, 3});  // no session: lost
        EXPECT_NE(std::string::npos, log.Text().find("errorCode=\"LCP00503\"] Config: Session is not ready"));
        EXPECT_TRUE(SentFrames().empty());
    }
    SessionUp();
    TakeFrames();
    for (const Frame& payload : {Frame{}, Frame(3000, 0x5A)}) {
        fromDataPath(payload);
        const std::string body = '\0' + std::string(payload.begin(), payload.end());
        const Frame expected = Message(CtrlMsg::kTypeData, APP_ID_TRACEFLOW, SessionId(), body);
        EXPECT_EQ(std::vector<Frame>{expected}, TakeFrames()) << payload.size();
    }

    Frame withPayload = Update("\x0a\x02\x08\x01", APP_ID_TRACEFLOW);
    withPayload[15] = 9;  // not looked at
    const Frame headerOnly = Message(CtrlMsg::kTypeData, APP_ID_TRACEFLOW, 0xFFFFFFFF, "");
    for (const Frame& frame : {withPayload, Update("", APP_ID_TRACEFLOW), headerOnly}) {
        traceflow->HandleMsg(frame.data(), static_cast<uint32_t>(frame.size()), ConnKey(kServer, 0));
    }
    EXPECT_EQ((std::vector<Frame>{{0x0a, 0x02, 0x08, 0x01}, {}, {}}), dataPath.payloads);
    MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::DP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW);
}

}  // namespace
