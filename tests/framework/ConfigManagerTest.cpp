#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include "ConfigManager.h"
#include "ConfigProxyLink.h"
#include "Configuration.h"
#include "CtrlConnPool.h"
#include "GlobalLock.h"
#include "LogCapture.h"
#include "MainConfigXml.h"
#include "TempDir.h"
#include "Uuid.h"
#include "fuzz/ConfigManagerFuzzFixture.h"
#include "mp_lcp_config.pb.h"

namespace {

using FenREL::ConfigManager;
using FenREL::KelConnConfig;
using FenRELTest::LogCapture;
namespace cfg = com::corvid::zun::config;
namespace pt = boost::property_tree;

const std::string kNodeUuid = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";
// The fuzz targets' fixed certificates.
const std::string kCertA = FenRELTest::ConfigManagerFuzzFixture::kCertA;
const std::string kCertB = FenRELTest::ConfigManagerFuzzFixture::kCertB;

bool Has(LogCapture& log, const std::string& text)
{
    return log.Text().find(text) != std::string::npos;
}

std::string PemOf(const X509* certificate)
{
    std::string pem;
    ConfigManager::X509ToPem(certificate, pem);
    return pem;
}

// A proxy link that keeps every record it is given and accepts or refuses them.
class FakeProxyLink : public FenREL::ConfigProxyLink {
public:
    bool Send(uint8_t* buffer, uint32_t length) override
    {
        records.emplace_back(buffer, buffer + length);
        free(buffer);
        return accept;
    }

    bool accept = false;
    std::vector<std::vector<uint8_t>> records;
};

std::string Connection(const std::string& server, int port, bool ssl, const std::string& pem = "",
                       const std::string& peername = "")
{
    std::string xml = "<connection><server>" + server + "</server><port>" + std::to_string(port) + "</port>";
    if (!peername.empty()) {
        xml += "<peername>" + peername + "</peername>";
    }
    xml += std::string("<sslEnabled>") + (ssl ? "true" : "false") + "</sslEnabled>";
    if (!pem.empty()) {
        xml += "<pemKey>" + pem + "</pemKey>";
    }
    return xml + "</connection>";
}

std::string ControllerFile(const std::string& connections, const std::string& uuid = kNodeUuid)
{
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config>\n<!-- kept by the agent -->\n<connectionList>" +
           connections + "</connectionList>\n<transportNode><UUID>" + uuid + "</UUID></transportNode>\n</config>\n";
}

cfg::ControllerInfoMsg Controller(uint32_t ipv4, uint32_t port, const std::string* pem = nullptr)
{
    cfg::ControllerInfoMsg info;
    info.mutable_ip()->set_ipv4(ipv4);
    info.set_port(port);
    info.set_ssl_enabled(pem != nullptr);
    if (pem != nullptr) {
        info.set_certificate(*pem);
    }
    return info;
}

std::string UpdateBytes(std::initializer_list<cfg::ControllerInfoMsg> controllers)
{
    cfg::MpLcpMsg message;
    cfg::MpLcpUpdateMsg* update = message.mutable_update();
    for (const cfg::ControllerInfoMsg& info : controllers) {
        *update->add_controller_list() = info;
    }
    return message.SerializeAsString();
}

// "server:port:ssl" of each entry, the part of a list the management plane sets.
template <typename Conn>
std::vector<std::string> Endpoints(const std::vector<Conn>& list)
{
    std::vector<std::string> out;
    for (const Conn& conn : list) {
        out.push_back(conn.server + ":" + std::to_string(conn.port) + (conn.sslEnabled ? ":ssl" : ""));
    }
    return out;
}

// Same entries, names, certificates and marks.
template <typename A, typename B>
testing::AssertionResult SameList(const std::vector<A>& a, const std::vector<B>& b)
{
    if (a.size() != b.size()) {
        return testing::AssertionFailure() << a.size() << " entries against " << b.size();
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (!a[i].SameAs(b[i]) || a[i].ToString() != b[i].ToString()) {
            return testing::AssertionFailure() << a[i].ToString() << " against " << b[i].ToString();
        }
    }
    return testing::AssertionSuccess();
}

// The `connection` elements of the controller file: "id server", then
// " pemKey" and " peername" when present.
std::vector<std::string> FileEntries(const std::string& file)
{
    pt::ptree tree;
    pt::read_xml(file, tree);
    std::vector<std::string> entries;
    const boost::optional<pt::ptree&> list = tree.get_child_optional("config.connectionList");
    for (const auto& child : list ? *list : pt::ptree()) {
        if (child.first == "connection") {
            entries.push_back(child.second.get<std::string>("<xmlattr>.id", "") + " " +
                              child.second.get<std::string>("server", "") +
                              (child.second.count("pemKey") != 0 ? " pemKey" : "") +
                              (child.second.count("peername") != 0 ? " peername" : ""));
        }
    }
    return entries;
}

class ConfigManagerTest : public testing::Test {
protected:
    void SetUp() override
    {
        ZUNChannel::CtrlConnPool::Init();
        ZUNChannel::Configuration::ClearNodeUuids();
        _controllerFile = _dir.File("zun/controller-info.xml");
        boost::filesystem::create_directories(_dir.File("zun"));
        _mainFile = WriteMainConfig("<configFile>" + _controllerFile + "</configFile><hostPrivateKeyFile>" +
                                    _dir.File("zun/host-privkey.pem") + "</hostPrivateKeyFile><hostCertificateFile>" +
                                    _dir.File("zun/host-cert.pem") + "</hostCertificateFile>");
    }
    void TearDown() override
    {
        ConfigManager::Destroy();
        ZUNChannel::GlobalLockGuard lock;
        ZUNChannel::CtrlConnPool::Destroy();
    }

    std::string WriteMainConfig(const std::string& configManagerXml)
    {
        FenRELTest::MainConfigXml main;
        main.configManager = configManagerXml;
        return _dir.Write("fenrel.xml", main.ToXml());
    }

    // Writes the controller file, makes the manager and loads the file.
    ConfigManager& Start(const std::string& controllerXml)
    {
        _dir.Write("zun/controller-info.xml", controllerXml);
        return StartWithoutFile();
    }

    ConfigManager& StartWithoutFile()
    {
        ConfigManager::Init(_mainFile);
        ConfigManager& manager = *ConfigManager::Get();
        manager.SetControllerListListener(
            [this](const std::vector<ZUNChannel::ConnConfig>& list) { _published.push_back(list); });
        manager.SetProxyLink(_link);
        manager.ConfigLoad();
        return manager;
    }

    void Receive(ConfigManager& manager, const std::string& bytes,
                 const std::string& type = ConfigManager::kControllerInfoTypeName)
    {
        manager.HandleProxyMessage(type, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }

    std::string ControllerFileText() const { return _dir.Read("zun/controller-info.xml"); }

    FenRELTest::TempDir _dir;
    std::string _mainFile;
    std::string _controllerFile;
    std::shared_ptr<FakeProxyLink> _link = std::make_shared<FakeProxyLink>();
    std::vector<std::vector<ZUNChannel::ConnConfig>> _published;
};

using ConfigManagerDeathTest = ConfigManagerTest;

TEST_F(ConfigManagerDeathTest, MissingMainFileOrControllerDirectoryAborts)
{
    EXPECT_DEATH(ConfigManager::Get(), "Panic: ASSERT src/framework/configMgr/ConfigManager.cpp:[0-9]+");
    EXPECT_DEATH(ConfigManager::Init(_dir.File("absent.xml")), "Panic: ASSERT .*ConfigManager.cpp");
    const std::string main = WriteMainConfig("<configFile>" + _dir.File("no-such-dir/controller-info.xml") +
                                             "</configFile>");
    EXPECT_DEATH(ConfigManager::Init(main), "Panic: ASSERT .*ConfigManager.cpp");
}

TEST_F(ConfigManagerTest, LoadKeepsDistinctEntriesAndTheirCertificates)
{
    LogCapture log;
    ConfigManager& manager = Start(ControllerFile(
        Connection("10.0.0.1", 1234, true, kCertA, "ctl-a") +
        // The same again is skipped; with another name it is another entry.
        Connection("10.0.0.1", 1234, true, kCertA, "ctl-a") + Connection("10.0.0.1", 1234, true, kCertA, "ctl-a2") +
        // Without TLS the key is not even read.
        Connection("10.0.0.2", 1235, false, kCertB) +
        // An unreadable certificate leaves the entry without one.
        Connection("10.0.0.3", 1236, true, "not a certificate") + "<connection><server>10.0.0.4</server></connection>"));
    const std::vector<KelConnConfig> list = manager.GetConnections();
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234:ssl", "10.0.0.1:1234:ssl", "10.0.0.2:1235",
                                        "10.0.0.3:1236:ssl", "10.0.0.4:0"}),
              Endpoints(list));
    ASSERT_EQ(5u, list.size());
    EXPECT_EQ("ctl-a", list[0].peername);
    EXPECT_EQ(kCertA, PemOf(list[0].certificate));
    EXPECT_EQ(nullptr, list[2].certificate);
    EXPECT_EQ(nullptr, list[3].certificate);
    EXPECT_TRUE(Has(log, "Restored conn 10.0.0.1:1234:ctl-a:ssl enabled\n"));
    EXPECT_TRUE(Has(log, "Read certificate for server 10.0.0.3 failed"));
    EXPECT_FALSE(Has(log, "Read certificate for server 10.0.0.2 failed"));
    EXPECT_EQ(kNodeUuid, ZUNChannel::Configuration::GetNodeUuid(0).ToString());
}

TEST_F(ConfigManagerTest, UnreadableFileOrNodeUuidIsLeftOut)
{
    for (const char* content : {"<config><connectionList>", "\x01\x02 binary"}) {
        LogCapture log;
        EXPECT_TRUE(Start(content).GetConnections().empty());
        EXPECT_TRUE(Has(log, "Failed to load configuration : ")) << content;
        ConfigManager::Destroy();
    }
    LogCapture log;
    Start(ControllerFile(Connection("10.0.0.1", 1234, false), "not-a-uuid"));
    EXPECT_TRUE(Has(log, "Invalid node UUID not-a-uuid"));
    EXPECT_TRUE(ZUNChannel::Configuration::GetNodeUuid(0).IsNil());
}

// With no tree from the file, a received list is used but cannot be kept in it.
TEST_F(ConfigManagerTest, MissingFileStillTakesTheReceivedList)
{
    ConfigManager& manager = StartWithoutFile();
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234)}));
    ASSERT_EQ(1u, _published.size());
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234"}), Endpoints(_published[0]));
    EXPECT_TRUE(FileEntries(_controllerFile).empty());
}

TEST_F(ConfigManagerTest, ApplyToChannelHandsOverHostFilesOnlyWhenBothExistAndAListOnlyIfAny)
{
    std::vector<std::string> handed;
    auto listen = [&handed](const std::string& key, const std::string& cert) { handed = {key, cert}; };
    _dir.Write("zun/host-privkey.pem", "key");
    ConfigManager& bare = Start(ControllerFile(""));
    bare.SetHostCertListener(listen);
    bare.ApplyToChannel();
    EXPECT_TRUE(handed.empty());
    EXPECT_TRUE(_published.empty());

    ConfigManager::Destroy();
    _dir.Write("zun/host-cert.pem", "cert");
    ConfigManager& manager =
        Start(ControllerFile(Connection("10.0.0.1", 1234, true, kCertA, "ctl") + Connection("10.0.0.2", 1235, false)));
    manager.SetHostCertListener(listen);
    manager.ApplyToChannel();
    EXPECT_EQ((std::vector<std::string>{_dir.File("zun/host-privkey.pem"), _dir.File("zun/host-cert.pem")}), handed);
    ASSERT_EQ(1u, _published.size());
    EXPECT_TRUE(SameList(_published[0], manager.GetConnections()));
}

TEST_F(ConfigManagerTest, RequestRetriesEveryFiveSecondsUntilTakenThenEveryThirtyUntilAListArrives)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, false)));
    EXPECT_EQ(5000000, manager.LastRequestInterval());
    manager.SetProxyLink(nullptr);
    manager.RequestControllerInfo();
    EXPECT_EQ(5000000, manager.LastRequestInterval());
    manager.SetProxyLink(_link);
    manager.RequestControllerInfo();  // refused
    EXPECT_EQ(5000000, manager.LastRequestInterval());
    _link->accept = true;
    manager.RequestControllerInfo();
    EXPECT_EQ(30000000, manager.LastRequestInterval());
    ASSERT_EQ(2u, _link->records.size());

    // type 3 and the total length, big-endian, then an MpLcpMsg asking for a sync.
    const std::vector<uint8_t>& record = _link->records.back();
    ASSERT_GE(record.size(), 4u);
    EXPECT_EQ(0x0003, (record[0] << 8) | record[1]);
    EXPECT_EQ(record.size(), static_cast<size_t>((record[2] << 8) | record[3]));
    cfg::MpLcpMsg request;
    ASSERT_TRUE(request.ParseFromArray(record.data() + 4, static_cast<int>(record.size() - 4)));
    EXPECT_TRUE(request.has_sync_request());
    EXPECT_FALSE(request.has_update());

    // The proxy's registration coming up asks at once.
    manager.OnProxyLinkStatus(true);
    EXPECT_EQ(0, manager.LastRequestInterval());

    // An empty list does not stop the requests; a real one does.
    Receive(manager, UpdateBytes({}));
    manager.RequestControllerInfo();
    EXPECT_EQ(3u, _link->records.size());
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234)}));
    EXPECT_TRUE(manager.GotControllerInfo());
    manager.RequestControllerInfo();
    manager.OnProxyLinkStatus(true);
    EXPECT_EQ(3u, _link->records.size());
    EXPECT_EQ(30000000, manager.LastRequestInterval());
}

// One malformed message: its type name, how to build its bytes, and the line
// it must log (level, error code and text as on the console).
struct BadMessageCase {
    const char* name;
    const char* type;
    std::function<std::string()> bytes;
    const char* logLine;
};

// A list of a good entry and `bad`, changed from a good one by `spoil`.
std::function<std::string()> WithBadEntry(std::function<void(cfg::ControllerInfoMsg&)> spoil, bool withCert = false)
{
    return [spoil, withCert] {
        cfg::ControllerInfoMsg bad = Controller(0x0A000001, 1234, withCert ? &kCertA : nullptr);
        spoil(bad);
        return UpdateBytes({Controller(0x0A000009, 9999), bad});
    };
}

const char* const kType = ConfigManager::kControllerInfoTypeName;

const BadMessageCase kBadMessages[] = {
    {"WrongType", "com.corvid.zun.config.Other", [] { return UpdateBytes({Controller(0x0A000009, 9999)}); },
     "level=\"error\" errorCode=\"LCP00204\"] Get unknown message type: com.corvid.zun.config.Other"},
    {"Unparsable", kType, [] { return std::string("\xff\xff\xff"); },
     "level=\"error\" errorCode=\"LCP00205\"] Failed to parse controller info message"},
    {"NoUpdate", kType,
     [] {
         cfg::MpLcpMsg syncOnly;
         syncOnly.mutable_sync_request();
         return syncOnly.SerializeAsString();
     },
     "level=\"error\" errorCode=\"LCP00205\"] Invalid message payload"},
    {"NoIp", kType, WithBadEntry([](cfg::ControllerInfoMsg& info) { info.clear_ip(); }),
     "level=\"error\" errorCode=\"LCP00205\"] no IP in controller info message"},
    {"Ipv6Only", kType,
     WithBadEntry([](cfg::ControllerInfoMsg& info) {
         info.mutable_ip()->clear_ipv4();
         info.mutable_ip()->set_ipv6("::1");
     }),
     "level=\"error\" errorCode=\"LCP00205\"] no IP in controller info message"},
    {"NoPort", kType, WithBadEntry([](cfg::ControllerInfoMsg& info) { info.clear_port(); }),
     "level=\"error\" errorCode=\"LCP00205\"] no port in controller info message"},
    {"NoSslFlag", kType, WithBadEntry([](cfg::ControllerInfoMsg& info) { info.clear_ssl_enabled(); }),
     "level=\"warning\" errorCode=\"LCP00205\"] no sslEnabled in controller info message"},
    {"NoCertificate", kType, WithBadEntry([](cfg::ControllerInfoMsg& info) { info.clear_certificate(); }, true),
     "level=\"error\" errorCode=\"LCP00205\"] no certificate in controller info message"},
    {"BadCertificate", kType,
     WithBadEntry([](cfg::ControllerInfoMsg& info) { info.set_certificate(kCertA.substr(0, 100)); }, true),
     "level=\"error\" errorCode=\"LCP00205\"] controller certificate format error"},
};

class BadControllerMessageTest : public ConfigManagerTest, public testing::WithParamInterface<BadMessageCase> {};

TEST_P(BadControllerMessageTest, ChangesNothing)
{
    ConfigManager& manager =
        Start(ControllerFile(Connection("10.0.0.1", 1234, true, kCertA, "ctl") + Connection("10.0.0.2", 1235, false)));
    // A first good list marks both entries; a bad message must not clear the marks.
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &kCertA), Controller(0x0A000002, 1235)}));
    const std::string fileBefore = ControllerFileText();
    const std::vector<KelConnConfig> before = manager.GetConnections();
    _published.clear();

    LogCapture log;
    Receive(manager, GetParam().bytes(), GetParam().type);
    EXPECT_TRUE(Has(log, GetParam().logLine)) << log.Text();
    EXPECT_TRUE(SameList(before, manager.GetConnections()));
    EXPECT_EQ(fileBefore, ControllerFileText());
    EXPECT_TRUE(_published.empty());
}

INSTANTIATE_TEST_SUITE_P(Validation, BadControllerMessageTest, testing::ValuesIn(kBadMessages),
                         [](const testing::TestParamInfo<BadMessageCase>& info) { return info.param.name; });

TEST_F(ConfigManagerTest, ReceivedListIsWrittenWithIdsAndTheKeyOfTlsEntriesOnly)
{
    ConfigManager& manager = Start(ControllerFile(""));
    Receive(manager, UpdateBytes({Controller(0x0A000002, 1235)}));
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
              "<config>\n"
              "\t<connectionList>\n"
              "\t\t<connection id=\"0\">\n"
              "\t\t\t<server>10.0.0.2</server>\n"
              "\t\t\t<port>1235</port>\n"
              "\t\t\t<sslEnabled>false</sslEnabled>\n"
              "\t\t</connection>\n"
              "\t</connectionList>\n"
              "\t<transportNode>\n"
              "\t\t<UUID>" + kNodeUuid + "</UUID>\n"
              "\t</transportNode>\n"
              "</config>\n",
              ControllerFileText());
    EXPECT_FALSE(boost::filesystem::exists(_controllerFile + ".tmp"));

    // A certificate sent with TLS off is dropped.
    cfg::ControllerInfoMsg plainWithCert = Controller(0x0A000004, 1237);
    plainWithCert.set_certificate(kCertB);
    Receive(manager, UpdateBytes({Controller(0x0A000002, 1235), Controller(0x0A000003, 1236, &kCertA), plainWithCert}));
    EXPECT_EQ((std::vector<std::string>{"0 10.0.0.2", "1 10.0.0.3 pemKey", "2 10.0.0.4"}),
              FileEntries(_controllerFile));
    EXPECT_EQ(nullptr, manager.GetConnections()[2].certificate);

    // The list as written is the list that loads.
    ConfigManager::Destroy();
    const std::vector<KelConnConfig> reloaded = StartWithoutFile().GetConnections();
    EXPECT_EQ((std::vector<std::string>{"10.0.0.2:1235", "10.0.0.3:1236:ssl", "10.0.0.4:1237"}), Endpoints(reloaded));
    EXPECT_EQ(kCertA, PemOf(reloaded.at(1).certificate));
}

TEST_F(ConfigManagerTest, UpdateEqualToTheListRewritesTheFileAndResetsNothing)
{
    ConfigManager& manager =
        Start(ControllerFile(Connection("10.0.0.1", 1234, true, kCertA, "ctl-a") + Connection("10.0.0.2", 1235, false)));
    manager.ApplyToChannel();
    {
        ZUNChannel::GlobalLockGuard lock;
        ZUNChannel::CtrlConnPool::Get()->RegisterConn(ZUNChannel::ConnKey("10.0.0.1", 0), ZUNChannel::AppKey(257, 0));
    }
    LogCapture log;
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &kCertA), Controller(0x0A000002, 1235)}));

    // The pool sees the same list and leaves its connection alone.
    EXPECT_FALSE(Has(log, "need to reset controller")) << log.Text();
    ASSERT_EQ(2u, _published.size());
    EXPECT_TRUE(SameList(_published[0], _published[1]));
    // The peer name lives on in memory, but the rewritten entry has none.
    EXPECT_EQ("ctl-a", manager.GetConnections()[0].peername);
    EXPECT_EQ((std::vector<std::string>{"1 10.0.0.1 pemKey", "1 10.0.0.2"}), FileEntries(_controllerFile));
}

TEST_F(ConfigManagerTest, NewCertificateReplacesTheEntryAndEntriesLeftOutArePurged)
{
    ConfigManager& manager =
        Start(ControllerFile(Connection("10.0.0.1", 1234, true, kCertA, "ctl-a") + Connection("10.0.0.2", 1235, false)));
    LogCapture log;
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &kCertB), Controller(0x0A000003, 1236)}));

    EXPECT_TRUE(Has(log, "Purged conn 10.0.0.2:1235::ssl disabled\n"));
    const std::vector<KelConnConfig> list = manager.GetConnections();
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234:ssl", "10.0.0.3:1236"}), Endpoints(list));
    EXPECT_EQ(kCertB, PemOf(list[0].certificate));
    EXPECT_EQ("", list[0].peername);
    ASSERT_EQ(1u, _published.size());
    EXPECT_EQ(Endpoints(list), Endpoints(_published[0]));
    // 10.0.0.1 was re-added behind 10.0.0.2, 10.0.0.3 behind both.
    EXPECT_EQ((std::vector<std::string>{"1 10.0.0.1 pemKey", "2 10.0.0.3"}), FileEntries(_controllerFile));
}

TEST_F(ConfigManagerTest, EmptyListRemovesEveryControllerDespiteItsLogLine)
{
    ConfigManager& manager =
        Start(ControllerFile(Connection("10.0.0.1", 1234, false) + Connection("10.0.0.2", 1235, false)));
    LogCapture log;
    Receive(manager, UpdateBytes({}));
    EXPECT_TRUE(Has(log, "Do nothing no change of controller info"));
    EXPECT_TRUE(manager.GetConnections().empty());
    ASSERT_EQ(1u, _published.size());
    EXPECT_TRUE(_published[0].empty());
    EXPECT_TRUE(FileEntries(_controllerFile).empty());
    // What is not a controller stays in the file.
    EXPECT_NE(std::string::npos, ControllerFileText().find(kNodeUuid));
}

// A failed parse must not leave its reason for the next TLS call on the thread.
TEST(ConfigManagerPemTest, FailedConversionsLeaveNoErrorBehind)
{
    ERR_clear_error();
    for (const std::string& bad : {std::string(), std::string("garbage"), kCertA.substr(0, 100)}) {
        EXPECT_EQ(nullptr, ConfigManager::PemToX509(bad));
        EXPECT_EQ(0u, ERR_peek_error());
    }
    std::string pem;
    EXPECT_FALSE(ConfigManager::X509ToPem(nullptr, pem));
}

}  // namespace
