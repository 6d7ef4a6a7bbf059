#include <unistd.h>

#include <cstdlib>
#include <cstring>
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
#include "KelConnConfig.h"
#include "LogLevel.h"
#include "MainConfigXml.h"
#include "RootPath.h"
#include "TempDir.h"
#include "TestCertificate.h"
#include "Uuid.h"
#include "mp_lcp_config.pb.h"

namespace {

using FenREL::ConfigManager;
using FenREL::KelConnConfig;
using FenRELTest::TestCertificate;
namespace cfg = com::corvid::zun::config;
namespace pt = boost::property_tree;

const std::string kNodeUuid = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

const TestCertificate& CertA()
{
    static TestCertificate cert("controller-a");
    return cert;
}

const TestCertificate& CertB()
{
    static TestCertificate cert("controller-b");
    return cert;
}

// The console log at every level, from construction to End(). Test failures
// are printed to the console too: End() comes before the expectations.
class LogCapture {
public:
    LogCapture() : _level(FenREL::g_logLevel.load()), _console(FenREL::g_logToConsole.load())
    {
        FenREL::g_logLevel = FenREL::LOGLEVEL_TRIVIA;
        FenREL::g_logToConsole = true;
        testing::internal::CaptureStdout();
    }
    ~LogCapture() { End(); }

    const std::string& End()
    {
        if (_capturing) {
            _text = testing::internal::GetCapturedStdout();
            _capturing = false;
            FenREL::g_logLevel = _level;
            FenREL::g_logToConsole = _console;
        }
        return _text;
    }
    bool Has(const std::string& line) { return End().find(line) != std::string::npos; }

private:
    int _level;
    bool _console;
    bool _capturing = true;
    std::string _text;
};

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
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config>\n<!-- kept by the agent -->\n";
    xml += "<connectionList>" + connections + "</connectionList>\n";
    if (!uuid.empty()) {
        xml += "<transportNode><UUID>" + uuid + "</UUID></transportNode>\n";
    }
    return xml + "</config>\n";
}

cfg::ControllerInfoMsg Controller(uint32_t ipv4, uint32_t port, const TestCertificate* cert = nullptr)
{
    cfg::ControllerInfoMsg info;
    info.mutable_ip()->set_ipv4(ipv4);
    info.set_port(port);
    info.set_ssl_enabled(cert != nullptr);
    if (cert != nullptr) {
        info.set_certificate(cert->CertPem());
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

// The `connection` elements of a written file: id, server, port, ssl, pemKey.
struct FileEntry {
    std::string id;
    std::string server;
    std::string port;
    std::string sslEnabled;
    boost::optional<std::string> pemKey;
    boost::optional<std::string> peername;
};

std::vector<FileEntry> ReadFileEntries(const std::string& file)
{
    pt::ptree tree;
    pt::read_xml(file, tree);
    std::vector<FileEntry> entries;
    const boost::optional<pt::ptree&> list = tree.get_child_optional("config.connectionList");
    if (!list) {
        return entries;
    }
    for (const auto& child : *list) {
        if (child.first == "connection") {
            entries.push_back({child.second.get<std::string>("<xmlattr>.id", ""),
                               child.second.get<std::string>("server", ""),
                               child.second.get<std::string>("port", ""),
                               child.second.get<std::string>("sslEnabled", ""),
                               child.second.get_optional<std::string>("pemKey"),
                               child.second.get_optional<std::string>("peername")});
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
        _mainFile = WriteMainConfig("<configFile>" + _controllerFile + "</configFile>" +
                                    "<hostPrivateKeyFile>" + _dir.File("zun/host-privkey.pem") +
                                    "</hostPrivateKeyFile>" + "<hostCertificateFile>" +
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

// ---------------------------------------------------------------------------
// Start-up

TEST_F(ConfigManagerDeathTest, MissingMainFileOrControllerDirectoryAborts)
{
    EXPECT_DEATH(ConfigManager::Get(), "Panic: ASSERT src/framework/configMgr/ConfigManager.cpp:[0-9]+");
    EXPECT_DEATH(ConfigManager::Init(_dir.File("absent.xml")), "Panic: ASSERT .*ConfigManager.cpp");
    const std::string main = WriteMainConfig("<configFile>" + _dir.File("no-such-dir/controller-info.xml") +
                                             "</configFile>");
    EXPECT_DEATH(ConfigManager::Init(main), "Panic: ASSERT .*ConfigManager.cpp");
}

TEST_F(ConfigManagerDeathTest, DefaultsAreTheFixedPathsUnderTheRoot)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The re-executed child keeps the root the parent set, so that its static
    // defaults are resolved under it.
    setenv("FENREL_ROOT", _dir.Path().c_str(), 0);
    const std::string main = WriteMainConfig("");
    EXPECT_EXIT(
        {
            boost::filesystem::create_directories(FenREL::RootPath("/etc/corvid/zun"));
            ConfigManager::Init(main);
            const ConfigManager& manager = *ConfigManager::Get();
            const bool ok =
                manager.GetConfigFile() == FenREL::RootPath("/etc/corvid/zun/controller-info.xml") &&
                manager.GetHostPrivateKeyFile() == FenREL::RootPath("/etc/corvid/zun/host-privkey.pem") &&
                manager.GetHostCertificateFile() == FenREL::RootPath("/etc/corvid/zun/host-cert.pem") &&
                manager.GetConfigDir() == FenREL::RootPath("/etc/corvid/zun") &&
                manager.GetConfigFile() != "/etc/corvid/zun/controller-info.xml";
            fprintf(stderr, "configFile %s\n", manager.GetConfigFile().c_str());
            ConfigManager::Destroy();
            boost::filesystem::remove_all(_dir.Path());  // the child's own; it ends without unwinding
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "configFile");
    unsetenv("FENREL_ROOT");
    GTEST_FLAG_SET(death_test_style, "fast");
}

TEST_F(ConfigManagerTest, ConstructionArmsTheRequestTimerAtFiveSeconds)
{
    ConfigManager& manager = StartWithoutFile();
    EXPECT_EQ(ConfigManager::kRequestRetryInterval, manager.LastRequestInterval());
    EXPECT_EQ("CFG_TYPE_CONTROLLER_INFO_REQUEST : 3",
              manager.CfgTypeText(ConfigManager::CFG_TYPE_CONTROLLER_INFO_REQUEST));
}

// ---------------------------------------------------------------------------
// Loading the controller file

TEST_F(ConfigManagerTest, LoadKeepsDistinctEntriesAndTheirCertificates)
{
    LogCapture log;
    ConfigManager& manager = Start(ControllerFile(
        Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl-a") +
        // The same again is skipped; with another name it is another entry.
        Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl-a") +
        Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl-a2") +
        // Without TLS the key is not even read.
        Connection("10.0.0.2", 1235, false, CertB().CertPem()) +
        // An unreadable certificate leaves the entry without one.
        Connection("10.0.0.3", 1236, true, "not a certificate") +
        "<connection><server>10.0.0.4</server></connection>"));
    log.End();
    const std::vector<KelConnConfig> list = manager.GetConnections();

    ASSERT_EQ(5u, list.size());
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234:ssl", "10.0.0.1:1234:ssl", "10.0.0.2:1235",
                                        "10.0.0.3:1236:ssl", "10.0.0.4:0"}),
              Endpoints(list));
    EXPECT_EQ("ctl-a", list[0].peername);
    ASSERT_NE(nullptr, list[0].certificate);
    EXPECT_EQ(0, X509_cmp(list[0].certificate, CertA().Cert()));
    EXPECT_EQ(nullptr, list[2].certificate);
    EXPECT_EQ(nullptr, list[3].certificate);
    EXPECT_EQ(nullptr, list[4].certificate);
    EXPECT_FALSE(list[0].updatedByKel);

    EXPECT_TRUE(log.Has("ConfigLoad: entry"));
    EXPECT_TRUE(log.Has("Restored conn 10.0.0.1:1234:ctl-a:ssl enabled\n"));
    EXPECT_TRUE(log.Has("Read certificate for server 10.0.0.3 failed"));
    EXPECT_FALSE(log.Has("Read certificate for server 10.0.0.2 failed"));
    EXPECT_TRUE(log.Has("Restored conn 10.0.0.4:0::ssl disabled"));
    EXPECT_TRUE(log.Has("Restored node UUID " + kNodeUuid));
    EXPECT_EQ(kNodeUuid, ZUNChannel::Configuration::GetNodeUuid(0).ToString());
}

TEST_F(ConfigManagerTest, InvalidNodeUuidIsLoggedAndNotKept)
{
    LogCapture log;
    Start(ControllerFile(Connection("10.0.0.1", 1234, false), "not-a-uuid"));
    EXPECT_TRUE(log.Has("Invalid node UUID not-a-uuid"));
    EXPECT_TRUE(ZUNChannel::Configuration::GetNodeUuid(0).IsNil());
}

TEST_F(ConfigManagerTest, UnreadableFileLeavesEverythingEmpty)
{
    for (const char* content : {"<config><connectionList>", "\x01\x02 binary", "<config"}) {
        ConfigManager::Destroy();
        LogCapture log;
        ConfigManager& manager = Start(content);
        log.End();
        EXPECT_TRUE(manager.GetConnections().empty());
        EXPECT_TRUE(log.Has("Failed to load configuration : ")) << content;
    }
}

// With no tree from the file, a received list is used but cannot be kept in it.
TEST_F(ConfigManagerTest, MissingFileStillTakesTheReceivedList)
{
    LogCapture log;
    ConfigManager& manager = StartWithoutFile();
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234)}));
    log.End();
    EXPECT_TRUE(log.Has("Failed to load configuration : "));
    EXPECT_TRUE(log.Has("_configNode is NULL"));
    ASSERT_EQ(1u, _published.size());
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234"}), Endpoints(_published[0]));
    EXPECT_TRUE(ReadFileEntries(_controllerFile).empty());
}

// ---------------------------------------------------------------------------
// Handing the configuration to the channel

TEST_F(ConfigManagerTest, ApplyToChannelHandsOverHostFilesOnlyWhenBothExist)
{
    std::vector<std::string> handed;
    for (bool withCert : {false, true}) {
        ConfigManager::Destroy();
        _dir.Write("zun/host-privkey.pem", CertA().KeyPem());
        if (withCert) {
            _dir.Write("zun/host-cert.pem", CertA().CertPem());
        }
        ConfigManager& manager = Start(ControllerFile(""));
        manager.SetHostCertListener(
            [&handed](const std::string& key, const std::string& cert) { handed = {key, cert}; });
        manager.ApplyToChannel();
        if (withCert) {
            EXPECT_EQ((std::vector<std::string>{_dir.File("zun/host-privkey.pem"), _dir.File("zun/host-cert.pem")}),
                      handed);
        } else {
            EXPECT_TRUE(handed.empty());
        }
        // An empty list is not handed on.
        EXPECT_TRUE(_published.empty());
    }
}

TEST_F(ConfigManagerTest, ApplyToChannelPublishesTheLoadedList)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl") +
                                                  Connection("10.0.0.2", 1235, false)));
    manager.ApplyToChannel();
    ASSERT_EQ(1u, _published.size());
    const std::vector<KelConnConfig> loaded = manager.GetConnections();
    ASSERT_EQ(loaded.size(), _published[0].size());
    for (size_t i = 0; i < loaded.size(); ++i) {
        EXPECT_TRUE(_published[0][i].SameAs(loaded[i])) << i;
    }
}

// ---------------------------------------------------------------------------
// Asking the management plane

TEST_F(ConfigManagerTest, RequestIntervalFollowsTheProxyLink)
{
    ConfigManager& manager = StartWithoutFile();

    manager.SetProxyLink(nullptr);
    manager.RequestControllerInfo();
    EXPECT_EQ(ConfigManager::kRequestRetryInterval, manager.LastRequestInterval());

    manager.SetProxyLink(_link);
    _link->accept = false;
    for (int i = 0; i < 3; ++i) {
        LogCapture log;
        manager.RequestControllerInfo();
        EXPECT_TRUE(log.Has("Request controller info ..."));
        EXPECT_EQ(ConfigManager::kRequestRetryInterval, manager.LastRequestInterval());
    }
    _link->accept = true;
    manager.RequestControllerInfo();
    EXPECT_EQ(ConfigManager::kRequestWaitInterval, manager.LastRequestInterval());
    ASSERT_EQ(4u, _link->records.size());

    // type 3 and the total length, big-endian, then an MpLcpMsg asking for a sync.
    const std::vector<uint8_t>& record = _link->records.back();
    ASSERT_GE(record.size(), 4u);
    EXPECT_EQ(0x00, record[0]);
    EXPECT_EQ(0x03, record[1]);
    EXPECT_EQ(record.size(), static_cast<size_t>((record[2] << 8) | record[3]));
    cfg::MpLcpMsg request;
    ASSERT_TRUE(request.ParseFromArray(record.data() + 4, static_cast<int>(record.size() - 4)));
    EXPECT_TRUE(request.has_sync_request());
    EXPECT_FALSE(request.has_update());

    // The proxy's registration coming up sends the request at once.
    manager.OnProxyLinkStatus(true);
    EXPECT_EQ(0, manager.LastRequestInterval());
}

TEST_F(ConfigManagerTest, RequestsStopOnceAListArrivedButNotForAnEmptyOne)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, false)));
    _link->accept = true;

    Receive(manager, UpdateBytes({}));
    EXPECT_FALSE(manager.GotControllerInfo());
    manager.RequestControllerInfo();
    EXPECT_EQ(1u, _link->records.size());

    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234)}));
    EXPECT_TRUE(manager.GotControllerInfo());
    manager.RequestControllerInfo();
    manager.OnProxyLinkStatus(true);
    EXPECT_EQ(1u, _link->records.size());
    EXPECT_EQ(ConfigManager::kRequestWaitInterval, manager.LastRequestInterval());
}

// ---------------------------------------------------------------------------
// Receiving the management plane's list

// One malformed message: its type name, how to build its bytes, and the line
// it must log (level, error code and text as on the console).
struct BadMessageCase {
    const char* name;
    const char* type;
    std::function<std::string()> bytes;
    const char* logLine;
};

// A list of a good entry and `bad`, changed from a good one by `spoil`.
std::function<std::string()> WithBadEntry(std::function<void(cfg::ControllerInfoMsg&)> spoil,
                                          bool withCert = false)
{
    return [spoil, withCert] {
        cfg::ControllerInfoMsg bad = Controller(0x0A000001, 1234, withCert ? &CertA() : nullptr);
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
     WithBadEntry(
         [](cfg::ControllerInfoMsg& info) {
             info.set_certificate("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
         },
         true),
     "level=\"error\" errorCode=\"LCP00205\"] controller certificate format error"},
};

class BadControllerMessageTest : public ConfigManagerTest,
                                 public testing::WithParamInterface<BadMessageCase> {};

TEST_P(BadControllerMessageTest, ChangesNothing)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl") +
                                                  Connection("10.0.0.2", 1235, false)));
    // A first good list marks both entries; a bad message must not clear the marks.
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &CertA()), Controller(0x0A000002, 1235)}));
    const std::string fileBefore = ControllerFileText();
    const std::vector<KelConnConfig> before = manager.GetConnections();
    _published.clear();

    LogCapture log;
    Receive(manager, GetParam().bytes(), GetParam().type);

    EXPECT_TRUE(log.Has(GetParam().logLine)) << log.End();
    EXPECT_FALSE(log.Has("Added conn"));
    const std::vector<KelConnConfig> after = manager.GetConnections();
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_TRUE(after[i].SameAs(before[i]));
        EXPECT_EQ(before[i].ToString(), after[i].ToString());
    }
    EXPECT_EQ(fileBefore, ControllerFileText());
    EXPECT_TRUE(_published.empty());
}

INSTANTIATE_TEST_SUITE_P(Validation, BadControllerMessageTest, testing::ValuesIn(kBadMessages),
                         [](const testing::TestParamInfo<BadMessageCase>& info) { return info.param.name; });

TEST_F(ConfigManagerTest, ReceivedListIsWrittenWithIdsAndOneTabPerLevel)
{
    ConfigManager& manager = Start(ControllerFile(""));
    LogCapture log;
    Receive(manager, UpdateBytes({Controller(0x0A000002, 1235)}));
    log.End();

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
    EXPECT_TRUE(log.Has("Received controller info message numConn 1"));
    EXPECT_TRUE(log.Has("Added conn 10.0.0.2:1235::ssl disabled(updated by KEL)"));
    EXPECT_TRUE(log.Has("Set config view conn 10.0.0.2:1235::ssl disabled(updated by KEL)"));
    EXPECT_FALSE(boost::filesystem::exists(_controllerFile + ".tmp"));

    // Two more: the third entry gets id 2; only TLS entries carry their key,
    // and a certificate sent with TLS off is dropped.
    cfg::ControllerInfoMsg plainWithCert = Controller(0x0A000004, 1237);
    plainWithCert.set_certificate(CertB().CertPem());
    Receive(manager, UpdateBytes({Controller(0x0A000002, 1235), Controller(0x0A000003, 1236, &CertA()),
                                  plainWithCert}));
    const std::vector<FileEntry> entries = ReadFileEntries(_controllerFile);
    ASSERT_EQ(3u, entries.size());
    EXPECT_EQ("0", entries[0].id);
    EXPECT_EQ("1", entries[1].id);
    EXPECT_EQ("2", entries[2].id);
    EXPECT_EQ("true", entries[1].sslEnabled);
    ASSERT_TRUE(entries[1].pemKey);
    ZUNChannel::ConnConfig written("", 0, "", ConfigManager::PemToX509(*entries[1].pemKey), true);
    EXPECT_TRUE(ZUNChannel::SameCertificate(CertA().Cert(), written.certificate));
    EXPECT_FALSE(entries[0].pemKey);
    EXPECT_FALSE(entries[2].pemKey);
    EXPECT_EQ(nullptr, manager.GetConnections()[2].certificate);

    // The list as written is the list that loads.
    ConfigManager::Destroy();
    ConfigManager& reloaded = StartWithoutFile();
    EXPECT_EQ((std::vector<std::string>{"10.0.0.2:1235", "10.0.0.3:1236:ssl", "10.0.0.4:1237"}),
              Endpoints(reloaded.GetConnections()));
}

TEST_F(ConfigManagerTest, UpdateEqualToTheListRewritesTheFileAndChangesNoEntry)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl-a") +
                                                  Connection("10.0.0.2", 1235, false)));
    manager.ApplyToChannel();
    {
        ZUNChannel::GlobalLockGuard lock;
        ZUNChannel::CtrlConnPool::Get()->RegisterConn(ZUNChannel::ConnKey("10.0.0.1", 0), ZUNChannel::AppKey(257, 0));
    }
    LogCapture log;
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &CertA()), Controller(0x0A000002, 1235)}));

    // The pool sees the same list and leaves its connection alone.
    EXPECT_FALSE(log.Has("need to reset controller")) << log.End();
    ASSERT_EQ(2u, _published.size());
    ASSERT_EQ(_published[0].size(), _published[1].size());
    for (size_t i = 0; i < _published[0].size(); ++i) {
        EXPECT_TRUE(_published[1][i].SameAs(_published[0][i])) << i;
    }
    // The peer name lives on in memory, but the rewritten entry has none.
    EXPECT_EQ("ctl-a", manager.GetConnections()[0].peername);
    EXPECT_TRUE(log.Has("Updated conn 10.0.0.1:1234:ctl-a:ssl enabled(updated by KEL)"));
    EXPECT_TRUE(log.Has("Delete and re-add controller entry 10.0.0.1:1234::ssl enabled(updated by KEL)"));
    const std::vector<FileEntry> entries = ReadFileEntries(_controllerFile);
    ASSERT_EQ(2u, entries.size());
    EXPECT_FALSE(entries[0].peername);
    EXPECT_FALSE(entries[1].peername);
    EXPECT_FALSE(log.Has("Purged conn"));
    EXPECT_TRUE(manager.GotControllerInfo());
}

TEST_F(ConfigManagerTest, ChangedCertificateReplacesTheEntry)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, true, CertA().CertPem(), "ctl-a")));
    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234, &CertB())}));
    const std::vector<KelConnConfig> list = manager.GetConnections();
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(0, X509_cmp(list[0].certificate, CertB().Cert()));
    EXPECT_EQ("", list[0].peername);
}

TEST_F(ConfigManagerTest, EntriesMissingFromTheUpdateArePurged)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, false) +
                                                  Connection("10.0.0.2", 1235, false)));
    LogCapture log;
    Receive(manager, UpdateBytes({Controller(0x0A000002, 1235), Controller(0x0A000003, 1236)}));

    EXPECT_TRUE(log.Has("Purged conn 10.0.0.1:1234::ssl disabled\n"));
    EXPECT_TRUE(log.Has("Unset config view conn 10.0.0.1:1234::ssl disabled"));
    EXPECT_EQ((std::vector<std::string>{"10.0.0.2:1235", "10.0.0.3:1236"}), Endpoints(manager.GetConnections()));
    ASSERT_EQ(1u, _published.size());
    EXPECT_EQ(Endpoints(manager.GetConnections()), Endpoints(_published[0]));
    // 10.0.0.2 was re-added behind 10.0.0.1, 10.0.0.3 behind both.
    const std::vector<FileEntry> entries = ReadFileEntries(_controllerFile);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ("10.0.0.2", entries[0].server);
    EXPECT_EQ("1", entries[0].id);
    EXPECT_EQ("10.0.0.3", entries[1].server);
    EXPECT_EQ("2", entries[1].id);
}

TEST_F(ConfigManagerTest, ControllerNamedTwiceInTheFileEndsWithOneEntry)
{
    ConfigManager& manager = Start(ControllerFile(
        Connection("10.0.0.1", 1234, false, "", "x") + Connection("10.0.0.1", 1234, false, "", "y") +
        Connection("10.0.0.1", 1234, false, "", "x") + Connection("10.0.0.2", 1235, false)));
    ASSERT_EQ(3u, manager.GetConnections().size());

    Receive(manager, UpdateBytes({Controller(0x0A000001, 1234)}));
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234"}), Endpoints(manager.GetConnections()));
    std::vector<FileEntry> entries = ReadFileEntries(_controllerFile);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("10.0.0.1", entries[0].server);

    ConfigManager::Destroy();
    ConfigManager& again = Start(
        ControllerFile(Connection("10.0.0.1", 1234, false, "", "x") + Connection("10.0.0.1", 1234, false, "", "y")));
    Receive(again, UpdateBytes({Controller(0x0A000002, 1235)}));
    entries = ReadFileEntries(_controllerFile);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("10.0.0.2", entries[0].server);
}

TEST_F(ConfigManagerTest, EmptyListRemovesEveryControllerDespiteItsLogLine)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, false) +
                                                  Connection("10.0.0.2", 1235, false)));
    LogCapture log;
    Receive(manager, UpdateBytes({}));

    EXPECT_TRUE(log.Has("Do nothing no change of controller info"));
    EXPECT_TRUE(manager.GetConnections().empty());
    ASSERT_EQ(1u, _published.size());
    EXPECT_TRUE(_published[0].empty());
    EXPECT_TRUE(ReadFileEntries(_controllerFile).empty());
    // What is not a controller stays in the file.
    EXPECT_NE(std::string::npos, ControllerFileText().find(kNodeUuid));
}

TEST_F(ConfigManagerTest, ReloadReplacesTheChannelsListOnly)
{
    ConfigManager& manager = Start(ControllerFile(Connection("10.0.0.1", 1234, false)));
    const std::string other = _dir.Write("other.xml", ControllerFile(Connection("10.0.0.7", 1240, false) +
                                                                     Connection("10.0.0.8", 1241, false)));
    LogCapture log;
    const bool reloaded = manager.ReloadFromFile(other);
    const bool reloadedAbsent = manager.ReloadFromFile(_dir.File("absent.xml"));
    log.End();
    EXPECT_TRUE(reloaded);
    EXPECT_FALSE(reloadedAbsent);

    EXPECT_TRUE(log.Has("Reload controller list from file " + other));
    EXPECT_TRUE(log.Has("Added conn 10.0.0.8:1241::ssl disabled"));
    EXPECT_TRUE(log.Has("Failed to reload controller list: "));
    std::vector<ZUNChannel::ConnConfig> channel;
    {
        ZUNChannel::GlobalLockGuard lock;
        ZUNChannel::Configuration::GetConnList(channel);
    }
    EXPECT_EQ((std::vector<std::string>{"10.0.0.7:1240", "10.0.0.8:1241"}), Endpoints(channel));
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1:1234"}), Endpoints(manager.GetConnections()));
}

// ---------------------------------------------------------------------------
// Update handlers, certificates, entries

TEST_F(ConfigManagerTest, DispatchCallsEveryHandlerOfTheType)
{
    ConfigManager& manager = StartWithoutFile();
    std::vector<std::string> calls;
    LogCapture log;
    manager.RegisterConfigUpdate(256, ConfigManager::CFG_TYPE_CONTROLLER_INFO, [&calls](const auto& update) {
        calls.push_back("256:" + update.data);
        return false;
    });
    manager.RegisterConfigUpdate(257, ConfigManager::CFG_TYPE_CONTROLLER_INFO, [&calls](const auto& update) {
        calls.push_back("257:" + update.data);
        return true;
    });
    manager.RegisterConfigUpdate(258, ConfigManager::CFG_TYPE_CONTROLLER_INFO_REQUEST, [&calls](const auto&) {
        calls.push_back("258");
        return true;
    });

    const bool infoOk = manager.DispatchConfigUpdate({ConfigManager::CFG_TYPE_CONTROLLER_INFO, "x"});
    const std::vector<std::string> infoCalls = calls;
    const bool requestOk = manager.DispatchConfigUpdate({ConfigManager::CFG_TYPE_CONTROLLER_INFO_REQUEST, ""});
    const bool unhandledOk = manager.DispatchConfigUpdate({2, ""});
    log.End();

    EXPECT_FALSE(infoOk);
    EXPECT_EQ((std::vector<std::string>{"256:x", "257:x"}), infoCalls);
    EXPECT_TRUE(requestOk);
    EXPECT_TRUE(unhandledOk);
    EXPECT_EQ(3u, calls.size());
    EXPECT_TRUE(log.Has("ConfigManager::RegisterConfigUpdate appId 256, cfgType CFG_TYPE_CONTROLLER_INFO : 1\n"));
    EXPECT_TRUE(log.Has("type 1\n"));
}

TEST(ConfigManagerPemTest, RoundTripsAndLeavesNoErrorBehind)
{
    X509* cert = ConfigManager::PemToX509(CertA().CertPem());
    ASSERT_NE(nullptr, cert);
    std::string pem;
    EXPECT_TRUE(ConfigManager::X509ToPem(cert, pem));
    EXPECT_EQ(CertA().CertPem(), pem);
    X509_free(cert);

    ERR_clear_error();
    for (const std::string& bad : {std::string(), std::string("garbage"), CertA().CertPem().substr(0, 100),
                                   CertA().KeyPem()}) {
        EXPECT_EQ(nullptr, ConfigManager::PemToX509(bad));
        EXPECT_EQ(0u, ERR_peek_error());
    }
    EXPECT_FALSE(ConfigManager::X509ToPem(nullptr, pem));
}

TEST(KelConnConfigTest, ToStringNamesTheMark)
{
    KelConnConfig conn("10.0.0.1", 1234, "ctl", nullptr, true);
    EXPECT_EQ("10.0.0.1:1234:ctl:ssl enabled", conn.ToString());
    conn.updatedByKel = true;
    const KelConnConfig copy = conn;
    EXPECT_EQ("10.0.0.1:1234:ctl:ssl enabled(updated by KEL)", copy.ToString());
    const ZUNChannel::ConnConfig& base = copy;
    EXPECT_EQ(copy.ToString(), base.ToString());
}

}  // namespace
