#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AppManager.h"
#include "ChannelCore.h"
#include "ConfigManager.h"
#include "Configuration.h"
#include "ControllerSim.h"
#include "CoreApp.h"
#include "CtrlConn.h"
#include "CtrlConnEvent.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "ExtendedApp.h"
#include "GlobalLock.h"
#include "IOWorker.h"
#include "SelfSignedCert.h"
#include "TempDir.h"
#include "WaitFor.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

// The controller channel of this process against simulated controllers over
// real sockets: TLS pinning, hello, keep-alive, framing faults, reconnect
// timing and large messages.
namespace {

using namespace ZUNChannel;
using namespace std::chrono_literals;
using FenRELTest::WaitFor;

constexpr uint16_t kTestAppId = 0x0200;

// The I/O threads run for the whole test binary, as in the daemon.
class ChannelEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        WorkGroup::Get().Start(6);
        for (int i = 0; i < 2; ++i) {
            boost::intrusive_ptr<IOWorker> worker(new IOWorker());
            WorkGroup::Get().Post(std::make_shared<WorkItemImpl<IOWorker>>(worker, &IOWorker::Run));
        }
    }
};
testing::Environment* const s_environment = testing::AddGlobalTestEnvironment(new ChannelEnvironment());

// An application that keeps what reaches it; read under the global lock.
class TestApp : public ExtendedApp {
public:
    TestApp() : ExtendedApp(kTestAppId, 0, "TestApp") {}
    void HandleEvent(const boost::intrusive_ptr<Event>& event) override
    {
        if (event->GetCategory() == Event::CTRL_CONN_EVENT) {
            events.push_back(static_cast<const CtrlConnEvent*>(event.get())->IsConnLost() ? "lost" : "ready");
        }
    }
    void HandleMsg(const uint8_t* message, uint32_t size, const ConnKey&) override
    {
        messages.emplace_back(message, message + size);
    }

    std::vector<std::string> events;
    std::vector<std::vector<uint8_t>> messages;
};

class ChannelTest : public testing::Test {
protected:
    void SetUp() override
    {
        _controllerCert = CtrlSim::SelfSignedCert::Make(_dir.Path(), "controller");
        _hostCert = CtrlSim::SelfSignedCert::Make(_dir.Path(), "host");
        GlobalLockGuard lock;
        ChannelCore::Create();
        _app = new TestApp();
        AppManager::Get()->RegisterApp(_app);
        CoreApp::Get()->Start();
    }

    void TearDown() override
    {
        for (auto& sim : _sims) {
            sim->Stop();
        }
        GlobalLockGuard lock;
        ChannelCore::Destroy();
    }

    CtrlSim::ControllerSim& StartSim(bool tls, const std::string& address = "127.0.0.1")
    {
        CtrlSim::ControllerSim::Options options;
        options.address = address;
        if (tls) {
            options.keyFile = _controllerCert.keyFile;
            options.certFile = _controllerCert.certFile;
        }
        _sims.push_back(std::make_unique<CtrlSim::ControllerSim>(options));
        _sims.back()->Start();
        return *_sims.back();
    }

    // Points the controller list at `sim`, pinning `pem` when TLS is on, and
    // has the test app use the connection.
    void Connect(CtrlSim::ControllerSim& sim, bool tls, const std::string& pem, bool hostCert = true)
    {
        GlobalLockGuard lock;
        if (hostCert) {
            Configuration::SetHostCertFiles(_hostCert.keyFile, _hostCert.certFile);
        }
        X509* cert = nullptr;
        if (!pem.empty()) {
            BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
            cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
            BIO_free(bio);
        }
        Configuration::SetConnList({ConnConfig(sim.Address(), sim.Port(), "", cert, tls)});
        _key = ConnKey(sim.Address(), 0);
        CtrlConnPool::Get()->RegisterConn(_key, _app->GetKey());
    }

    std::string Status()
    {
        GlobalLockGuard lock;
        return CtrlConnPool::Get()->GetConnStatus(_key);
    }

    testing::AssertionResult WaitForStatus(const std::string& prefix, std::chrono::milliseconds timeout)
    {
        return WaitFor([&] { return Status().compare(0, prefix.size(), prefix) == 0; }, timeout,
                       "connection status \"" + prefix + "\"", [&] { return Status(); });
    }

    testing::AssertionResult WaitForReady(std::chrono::milliseconds timeout)
    {
        return WaitFor(
            [&] {
                GlobalLockGuard lock;
                return CtrlConnPool::Get()->IsReady(_key);
            },
            timeout, "the connection to become ready", [&] { return _sims.back()->Summary(); });
    }

    FenRELTest::TempDir _dir;
    CtrlSim::SelfSignedCert _controllerCert;
    CtrlSim::SelfSignedCert _hostCert;
    boost::intrusive_ptr<TestApp> _app;
    std::vector<std::unique_ptr<CtrlSim::ControllerSim>> _sims;
    ConnKey _key;
};

TEST_F(ChannelTest, ConnectionFailuresHaveTheirOwnStatus)
{
    auto& tls = StartSim(true);
    const auto forget = [&] {
        GlobalLockGuard lock;
        CtrlConnPool::Get()->UnregisterConn(_key, _app->GetKey());
        Configuration::SetConnList({});
    };
    // Another controller's certificate than the pinned one.
    Connect(tls, true, CtrlSim::SelfSignedCert::Make(_dir.Path(), "impostor").certPem);
    EXPECT_TRUE(WaitForStatus("host_rejected_controller_cert", 10s));
    EXPECT_EQ(0u, tls.MessageCount());
    forget();

    {
        GlobalLockGuard lock;
        Configuration::SetHostCertFiles(_dir.Path() + "/no-key.pem", _dir.Path() + "/no-cert.pem");
    }
    Connect(tls, true, _controllerCert.certPem, false);
    EXPECT_TRUE(WaitForStatus("incomplete_host_cert", 10s));
    forget();

    Connect(tls, true, "", true);
    EXPECT_TRUE(WaitForStatus("incomplete_controller_cert", 10s));
    forget();
    auto& plain = StartSim(false, "127.0.0.2");
    plain.SetAcceptMode(CtrlSim::ControllerSim::AcceptMode::NotListening);
    Connect(plain, false, "", false);
    EXPECT_TRUE(WaitForStatus("connection_refused", 10s));
}

TEST_F(ChannelTest, AgentSendsKeepAlivesWhenItHasNothingElseToSay)
{
    auto& sim = StartSim(false);
    auto hello = CtrlSim::Hello::ControllerDefault();
    hello.keepAliveInterval = 1;
    sim.Core().SetHello(hello);
    Connect(sim, false, "");
    ASSERT_TRUE(WaitForReady(10s));
    EXPECT_TRUE(sim.WaitForMessageCount(CtrlSim::ControllerSim::MessageOf(CtrlSim::MsgType::KeepAlive, 0), 2, 10s))
        << sim.Summary();
    // The controller's own keep-alives keep the connection up.
    EXPECT_EQ(1u, sim.AcceptedCount());
    EXPECT_TRUE(sim.Violations().empty()) << sim.Summary();
}

TEST_F(ChannelTest, ControllerOfANewerVersionIsNeverReadyAndIsResetAfterThreeIntervals)
{
    auto& sim = StartSim(false);
    auto hello = CtrlSim::Hello::ControllerDefault();
    hello.version = 2;
    sim.Core().SetHello(hello);
    sim.Core().SetKeepAliveEnabled(false);
    {
        // The test runs the keep-alive sweeps itself.
        GlobalLockGuard lock;
        CoreApp::Get()->Stop();
    }
    Connect(sim, false, "");
    boost::intrusive_ptr<CtrlConn> conn;
    ASSERT_TRUE(WaitFor(
        [&] {
            GlobalLockGuard lock;
            conn = CtrlConnPool::Get()->FindConn(_key);
            return conn && conn->GetRxMsgCount() == 1;
        },
        10s, "the controller's hello", [&] { return sim.Summary(); }));
    {
        GlobalLockGuard lock;
        // Eleven sweeps are less than three intervals of four.
        for (int sweep = 0; sweep < 11; ++sweep) {
            CoreApp::Get()->CheckKeepAlive();
        }
        EXPECT_EQ("", Status());
        EXPECT_EQ(CtrlConn::kHelloSent, conn->GetHelloFlags());
        CoreApp::Get()->CheckKeepAlive();
        EXPECT_EQ("keep_alive_timeout", Status());
    }
    ASSERT_TRUE(sim.WaitForClosed(0, 10s)) << sim.Summary();
    // Silent for a whole interval and more, but never ready: no keep-alive.
    const auto messages = sim.Messages();
    EXPECT_EQ(0, std::count_if(messages.begin(), messages.end(),
                               CtrlSim::ControllerSim::MessageOf(CtrlSim::MsgType::KeepAlive, 0)))
        << sim.Summary();
    GlobalLockGuard lock;
    EXPECT_EQ(_app->events.end(), std::find(_app->events.begin(), _app->events.end(), "ready"));
}

struct PeerFault {
    const char* name;
    std::function<bool(CtrlSim::ControllerSim&)> inflict;
    const char* status;
};

PeerFault BadFrame(const char* name, const CtrlSim::Bytes& bytes, const char* status)
{
    return PeerFault{name, [bytes](CtrlSim::ControllerSim& sim) { return sim.SendRaw(bytes); }, status};
}

void PrintTo(const PeerFault& fault, std::ostream* out)
{
    *out << fault.name;
}

class PeerFaultTest : public ChannelTest, public testing::WithParamInterface<PeerFault> {};

TEST_P(PeerFaultTest, ResetsAndReconnects)
{
    auto& sim = StartSim(false);
    Connect(sim, false, "");
    ASSERT_TRUE(WaitForReady(10s));
    ASSERT_TRUE(GetParam().inflict(sim));
    EXPECT_TRUE(WaitForStatus(GetParam().status, 10s));
    EXPECT_TRUE(sim.WaitForUp(1, 10s)) << sim.Summary();
    EXPECT_TRUE(WaitForReady(10s));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, PeerFaultTest,
    testing::Values(BadFrame("WrongMarker", {1, 0xBA, 0xDB, 0xEF, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 2, 0, 15, 0, 0},
                             "other_error: received wrong marker"),
                    // 4097 bytes against the default frame limit of 4096.
                    BadFrame("Overlong", {1, 0xBA, 0xDB, 0xEE, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 7, 0x10, 0x01, 0, 0},
                             "other_error: received wrong message length"),
                    PeerFault{"ShutDownByPeer",
                              [](CtrlSim::ControllerSim& sim) { return sim.CloseConnection(); },
                              "other_error: receiving message failed"},
                    PeerFault{"ResetByPeer",
                              [](CtrlSim::ControllerSim& sim) { return sim.CloseConnection(std::nullopt, true); },
                              "other_ssl_error: Connection reset by peer"}),
    [](const testing::TestParamInfo<PeerFault>& info) { return info.param.name; });

TEST_F(ChannelTest, FailedAttemptsRetryEveryFiveSeconds)
{
    auto& sim = StartSim(true);
    sim.SetAcceptMode(CtrlSim::ControllerSim::AcceptMode::CloseAtOnce);
    Connect(sim, true, _controllerCert.certPem);
    ASSERT_TRUE(sim.WaitForAccepted(3, 20s)) << sim.Summary();
    const auto connections = sim.Connections();
    for (size_t i = 1; i < 3; ++i) {
        const auto gap = connections[i].accepted - connections[i - 1].accepted;
        EXPECT_GE(gap, 4500ms) << "attempt " << i;
        EXPECT_LT(gap, 6500ms) << "attempt " << i;
    }
    EXPECT_EQ("controller_rejected_host_cert", Status());
}

TEST_F(ChannelTest, FragmentedMessageArrivesWholeAndAStrayOneIsDropped)
{
    auto& sim = StartSim(false);
    sim.Core().SetKeepAliveEnabled(false);
    Connect(sim, false, "");
    ASSERT_TRUE(WaitForReady(10s));
    uint32_t countBefore = 0;
    {
        GlobalLockGuard lock;
        countBefore = CtrlConnPool::Get()->FindConn(_key)->GetRxMsgCount();
    }
    // No application owns this protocolID: counted, dropped, nothing else.
    CtrlSim::OutMessage stray;
    stray.type = CtrlSim::MsgType::AppData;
    stray.protocolId = kTestAppId + 1;
    stray.body = {1, 2, 3};
    ASSERT_TRUE(sim.SendMessage(stray));
    CtrlSim::OutMessage big;
    big.type = CtrlSim::MsgType::AppData;
    big.protocolId = kTestAppId;
    big.body.resize(70000 - 15);
    for (size_t i = 0; i < big.body.size(); ++i) {
        big.body[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    big.frameLimit = 4096;
    ASSERT_TRUE(sim.SendMessage(big));
    ASSERT_TRUE(WaitFor(
        [&] {
            GlobalLockGuard lock;
            return !_app->messages.empty();
        },
        10s, "the message at the test app"));
    GlobalLockGuard lock;
    EXPECT_EQ(countBefore + 2, CtrlConnPool::Get()->FindConn(_key)->GetRxMsgCount());
    EXPECT_TRUE(CtrlConnPool::Get()->IsConnected(_key));
    ASSERT_EQ(1u, _app->messages.size());
    const std::vector<uint8_t>& got = _app->messages.front();
    ASSERT_EQ(70000u, got.size());
    // The 16-bit length of a reassembled message is truncated; its size is not.
    EXPECT_EQ(4464, CtrlMsg::Length(got.data()));
    EXPECT_EQ(kTestAppId, CtrlMsg::ProtocolId(got.data()));
    EXPECT_EQ(0, CtrlMsg::Flags(got.data()));
    EXPECT_TRUE(std::equal(big.body.begin(), big.body.end(), got.begin() + 15));
}

// Writes a controller file naming `servers` (address, port), plain TCP.
std::string ControllerFile(const std::vector<std::pair<std::string, uint16_t>>& servers)
{
    std::string xml = "<config><connectionList>";
    for (const auto& server : servers) {
        xml += "<connection><server>" + server.first + "</server><port>" + std::to_string(server.second) +
               "</port><sslEnabled>false</sslEnabled></connection>";
    }
    return xml + "</connectionList></config>";
}

TEST_F(ChannelTest, ReloadedListResetsAChangedControllerAndDropsARemovedOne)
{
    auto& first = StartSim(false, "127.0.0.1");
    auto& removed = StartSim(false, "127.0.0.2");
    const std::string listFile = _dir.Write("controller-info.xml", ControllerFile({{"127.0.0.1", first.Port()},
                                                                                  {"127.0.0.2", removed.Port()}}));
    const std::string mainFile = _dir.Write(
        "fenrel.xml", "<config><fenrel><configManager><configFile>" + listFile +
                          "</configFile><hostPrivateKeyFile>none</hostPrivateKeyFile><hostCertificateFile>none"
                          "</hostCertificateFile></configManager></fenrel></config>");
    FenREL::ConfigManager::Init(mainFile);
    FenREL::ConfigManager::Get()->ConfigLoad();
    FenREL::ConfigManager::Get()->ApplyToChannel();
    {
        GlobalLockGuard lock;
        CtrlConnPool::Get()->RegisterConn(ConnKey("127.0.0.1", 0), _app->GetKey());
        CtrlConnPool::Get()->RegisterConn(ConnKey("127.0.0.2", 0), _app->GetKey());
        // Only the list's share holds the second connection from now on.
        CtrlConnPool::Get()->UnregisterConn(ConnKey("127.0.0.2", 0), _app->GetKey());
    }
    // The agent's hello shows that its side of each connection is up too: a
    // change of configuration resets only a connected connection, and leaves
    // an attempt under way to the old port.
    const auto hello = CtrlSim::ControllerSim::MessageOf(CtrlSim::MsgType::Hello, 0);
    ASSERT_TRUE(first.WaitForMessage(hello, 10s));
    ASSERT_TRUE(removed.WaitForMessage(hello, 10s));

    // The same controller address moves to another port; the second leaves.
    auto& moved = StartSim(false, "127.0.0.1");
    _dir.Write("controller-info.xml", ControllerFile({{"127.0.0.1", moved.Port()}}));
    ASSERT_TRUE(FenREL::ConfigManager::Get()->ReloadFromFile(listFile));

    EXPECT_TRUE(first.WaitForClosed(0, 10s)) << first.Summary();
    EXPECT_TRUE(moved.WaitForUp(0, 10s)) << moved.Summary();
    EXPECT_TRUE(removed.WaitForClosed(0, 10s)) << removed.Summary();
    {
        GlobalLockGuard lock;
        EXPECT_FALSE(CtrlConnPool::Get()->FindConn(ConnKey("127.0.0.2", 0)));
    }
    // The removed controller is not tried again.
    EXPECT_FALSE(removed.WaitForAccepted(2, 2s));
    FenREL::ConfigManager::Destroy();
}

}  // namespace
