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

// The data path's end of the dispatcher: keeps what it is given.
class DataPathSink : public FenREL::MsgSink {
public:
    void Process(uint32_t type, const uint8_t* data, uint32_t length) override
    {
        calls.push_back({type, Frame(data, data + length)});
    }
    std::vector<std::pair<uint32_t, Frame>> calls;
};

class TraceflowAppTest : public FenRELTest::ConfigAppFixture {
protected:
    void SetUp() override
    {
        ConfigAppFixture::SetUp();
        _traceflow = new FenREL::TraceflowApp();
        AppManager::Get()->RegisterApp(_traceflow);
        MsgDispatcher::Get().RegisterSink(MsgDispatcher::DP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, &_dataPath);
    }

    void TearDown() override
    {
        MsgDispatcher::Get().UnRegisterSink(MsgDispatcher::DP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW);
        _traceflow.reset();
        ConfigAppFixture::TearDown();
    }

    // An observation as the data-plane domain hands it over.
    static void FromDataPath(const Frame& payload)
    {
        MsgDispatcher::Get().Dispatch(MsgDispatcher::CP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, payload.data(),
                                      static_cast<uint32_t>(payload.size()));
    }

    boost::intrusive_ptr<FenREL::TraceflowApp> _traceflow;
    DataPathSink _dataPath;
};

TEST_F(TraceflowAppTest, ObservationsGoOutOnTheConfigSession)
{
    SessionUp();
    TakeFrames();
    for (const size_t size : {size_t(0), size_t(5), size_t(3000)}) {
        SCOPED_TRACE(size);
        Frame payload(size);
        for (size_t i = 0; i < size; ++i) {
            payload[i] = static_cast<uint8_t>(i * 7 + 1);
        }
        FromDataPath(payload);
        Frame expected(16, 0);
        CtrlMsg::WriteHeader(expected.data(), 0, SessionId(), CtrlMsg::kTypeData, static_cast<uint16_t>(size + 16),
                             APP_ID_TRACEFLOW);
        expected.insert(expected.end(), payload.begin(), payload.end());
        EXPECT_EQ(std::vector<Frame>{expected}, TakeFrames());
    }
}

TEST_F(TraceflowAppTest, ObservationIsLostWhileTheConfigSessionIsDown)
{
    FenRELTest::LogCapture log(FenREL::LOGLEVEL_ERROR);
    FromDataPath(Frame{1, 2, 3});
    EXPECT_NE(std::string::npos, log.Text().find("Config: Session is not ready"));
    EXPECT_NE(std::string::npos, log.Text().find("LCP00503"));
    EXPECT_TRUE(SentFrames(kServer).empty());
}

TEST_F(TraceflowAppTest, PacketOutReachesTheDataPathAsItCame)
{
    Frame withPayload = Update("\x0a\x02\x08\x01", APP_ID_TRACEFLOW);
    withPayload[15] = 9;  // not looked at
    Frame headerOnly = Update("", APP_ID_TRACEFLOW);
    headerOnly.resize(15);
    const struct {
        Frame frame;
        Frame expected;
    } cases[] = {
        {withPayload, Frame{0x0a, 0x02, 0x08, 0x01}},
        {Update("", APP_ID_TRACEFLOW), Frame{}},
        {headerOnly, Frame{}},
    };
    for (const auto& c : cases) {
        _dataPath.calls.clear();
        _traceflow->HandleMsg(c.frame.data(), static_cast<uint32_t>(c.frame.size()), ConnKey(kServer, 0));
        ASSERT_EQ(1u, _dataPath.calls.size());
        EXPECT_EQ(MsgDispatcher::DP_MSG_TRACEFLOW, _dataPath.calls[0].first);
        EXPECT_EQ(c.expected, _dataPath.calls[0].second);
    }
}

}  // namespace
