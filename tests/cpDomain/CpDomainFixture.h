#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AppManager.h"
#include "CPDomainManager.h"
#include "Configuration.h"
#include "CoreApp.h"
#include "CtrlConn.h"
#include "CtrlConnPool.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "MsgScheduler.h"
#include "ShardingMgr.h"
#include "StateCache.h"

namespace FenRELTest {

using Frame = std::vector<uint8_t>;

// The channel singletons, the state cache and the control-plane domain
// manager for one test, without sockets: connections are registered and
// started but never connect, so what an app sends stays queued in the
// connection's scheduler, where SentFrames finds it. The test thread holds
// the global lock throughout.
class CpDomainFixture : public testing::Test {
protected:
    void SetUp() override
    {
        ZUNChannel::AppManager::Create();
        ZUNChannel::CtrlConnPool::Init();
        ZUNChannel::ShardingMgr::Init();
        ZUNChannel::CoreApp::Init();
        ZUNChannel::AppManager::Get()->RegisterApp(ZUNChannel::CoreApp::Get());
        FenREL::StateCache::Init();
        FenREL::CPDomainManager::Create()->Start(ZUNChannel::AppManager::Get());
    }

    void TearDown() override
    {
        // The manager stays for the process: the config table keeps its local
        // observers for good.
        FenREL::CPDomainManager::Get()->Stop();
        ZUNChannel::Configuration::SetConnList({});
        ZUNChannel::CoreApp::Destroy();
        ZUNChannel::CtrlConnPool::Destroy();
        ZUNChannel::ShardingMgr::Destroy();
        ZUNChannel::AppManager::Destroy();
        ZUNChannel::Configuration::ClearNodeUuids();
        ZUNChannel::IoService::Get()->poll();
        ZUNChannel::IoService::Get()->restart();
    }

    // Makes `servers` the controller list (plain TCP, port 1).
    static void SetControllers(const std::vector<std::string>& servers)
    {
        std::vector<ZUNChannel::ConnConfig> list;
        for (const std::string& server : servers) {
            list.emplace_back(server, 1, "", nullptr, false);
        }
        ZUNChannel::Configuration::SetConnList(list);
    }

    // The frames waiting on the connection to `server`, in order; the core
    // app's hello is not among them, since no connection ever comes up.
    static std::vector<Frame> SentFrames(const std::string& server)
    {
        auto conn = ZUNChannel::CtrlConnPool::Get()->FindConn(ZUNChannel::ConnKey(server, 0));
        if (!conn || !conn->GetScheduler()) {
            return {};
        }
        return conn->GetScheduler()->CopyQueuedFrames();
    }

    // Marks the connection to `server` ready, as the hello exchange would.
    static void MakeReady(const std::string& server)
    {
        ZUNChannel::CtrlConnPool::Get()->SetHelloFlag(ZUNChannel::ConnKey(server, 0), ZUNChannel::CtrlConn::kReady);
    }

    ZUNChannel::GlobalLockGuard _lock;
};

}  // namespace FenRELTest
