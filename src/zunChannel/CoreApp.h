#pragma once

#include <cstdint>
#include <memory>

#include <boost/intrusive_ptr.hpp>

#include "App.h"
#include "AsyncTimer.h"

namespace ZUNChannel {

// Owner of protocolID 0: negotiates with each controller through the hello
// and watches every connection with keep-alives.
//
// The agent's hello, type 1, sent as soon as a connection is up:
//
//   0        15           16
//   +--------+------------+--------------------------------------------+
//   | header | helloFlags | TLVs: [1 feature list] 6 node UUID          |
//   +--------+------------+--------------------------------------------+
//
// helloFlags bit 7 asks for strict version matching of the features. The
// controller's hello may also carry 2 Max Pkt Len, 3 KeepAlive Interval,
// 4 Msg Frequency (16 bits each) and 5 ShardingSlice length (32 bits).
//
// A connection is ready once our hello went out and the controller's came in
// (helloFlags 0x11). The keep-alive sweep runs every interval / 4: a connection
// silent for three intervals is reset, and one that sent nothing for a whole
// interval sends a keep-alive. All under the global lock.
class CoreApp : public App {
public:
    static constexpr uint8_t kStrictVersion = 0x80;
    static constexpr uint16_t kTlvFeatureList = 1;
    static constexpr uint16_t kTlvMaxPktLen = 2;
    static constexpr uint16_t kTlvKeepAliveInterval = 3;
    static constexpr uint16_t kTlvMsgFrequency = 4;
    static constexpr uint16_t kTlvSliceLength = 5;
    static constexpr uint16_t kTlvNodeUuid = 6;
    static constexpr int32_t kInitialCheckIntervalUs = 2500000;
    static constexpr uint32_t kKeepAliveCheckDiv = 4;

    static void Init();
    static boost::intrusive_ptr<CoreApp> Get();
    static void Destroy();

    void Start() override;
    void Stop() override;
    void HandleEvent(const boost::intrusive_ptr<Event>& /*event*/) override {}
    void HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key) override;

    // Called by a connection as it comes up.
    void SendHello(const ConnKey& key);
    // Builds the agent's hello for a connection of `instance`.
    static uint8_t* BuildHello(uint32_t instance);

    // One keep-alive sweep over the pool; the timer's callback.
    void CheckKeepAlive();
    int64_t GetKeepAliveCheckIntervalUs() const { return _keepAliveCheckIntervalUs; }

private:
    CoreApp();
    void HandleHello(const uint8_t* message, uint32_t size, const ConnKey& key);
    void ReadyStep(const ConnKey& key);

    int64_t _keepAliveCheckIntervalUs = kInitialCheckIntervalUs;
    uint32_t _keepAliveCheckDiv = kKeepAliveCheckDiv;
    std::shared_ptr<AsyncTimer<CoreApp>> _checkConnectionTimer;
};

}  // namespace ZUNChannel
