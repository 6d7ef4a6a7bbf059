#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AppManager.h"
#include "ChannelCore.h"
#include "Configuration.h"
#include "CoreApp.h"
#include "CtrlConnEvent.h"
#include "CtrlConnPool.h"
#include "ExtendedApp.h"
#include "GlobalLock.h"
#include "IoService.h"

namespace FenRELTest {

// The channel singletons for one test, made and dropped around it. The I/O
// service is never run, so connections are created and started but never
// connect; the test thread holds the global lock throughout.
class ChannelFixture : public testing::Test {
protected:
    void SetUp() override
    {
        ZUNChannel::ChannelCore::Create();
    }

    void TearDown() override
    {
        ZUNChannel::ChannelCore::Destroy();
        // Let the cancelled timers release what they hold.
        ZUNChannel::IoService::Get()->poll();
        ZUNChannel::IoService::Get()->restart();
    }

    ZUNChannel::GlobalLockGuard _lock;
};

// An application that records the connection events it hears.
class RecordingApp : public ZUNChannel::ExtendedApp {
public:
    RecordingApp(uint16_t id, uint32_t instance, uint8_t version = 1)
        : ExtendedApp(id, instance, "Recording"), _version(version)
    {
    }
    uint8_t GetVersion() const override { return _version; }
    void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& event) override
    {
        if (event->GetCategory() == ZUNChannel::Event::CTRL_CONN_EVENT) {
            const auto* conn = static_cast<const ZUNChannel::CtrlConnEvent*>(event.get());
            events.push_back(conn->GetConnKey().ToString() + (conn->IsConnLost() ? " lost" : " ready"));
        }
    }
    void HandleMsg(const uint8_t*, uint32_t, const ZUNChannel::ConnKey&) override {}
    void ApplyHelloFeature(const uint8_t*) override { ++applied; }

    std::vector<std::string> events;
    int applied = 0;

private:
    uint8_t _version;
};

}  // namespace FenRELTest
