#include "ConfigManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <locale>
#include <sstream>

#include <boost/filesystem/operations.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "Assert.h"
#include "ConfigProxyLink.h"
#include "Configuration.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MemAlloc.h"
#include "MainConfig.h"
#include "TlvCommon.h"
#include "Uuid.h"
#include "mp_lcp_config.pb.h"

namespace FenREL {

namespace pt = boost::property_tree;
using ZUNChannel::GlobalLockGuard;
using ZUNChannel::IsLockAvailable;

const char* const ConfigManager::kControllerInfoTypeName = "com.corvid.zun.config.MpLcpMsg";

namespace {

boost::intrusive_ptr<ConfigManager> s_instance;

bool PathExists(const std::string& path)
{
    boost::system::error_code error;
    return boost::filesystem::exists(path, error);
}

bool IsDirectory(const std::string& path)
{
    boost::system::error_code error;
    return boost::filesystem::is_directory(path, error);
}

// The directory part of a file name, split at its last "/".
std::string DirectoryOf(const std::string& file)
{
    const size_t slash = file.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : file.substr(0, slash);
}

// An IPv4 address held as an integer in host order, as dotted text.
std::string Ipv4ToString(uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
           std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

bool SameEndpoint(const ZUNChannel::ConnConfig& a, const std::string& server, int32_t port)
{
    return a.server == server && a.port == port;
}

// The file is read without trimming, as certificates span lines; the layout
// between elements is dropped here so that rewrites do not pile it up.
void DropLayoutWhitespace(pt::ptree& node)
{
    if (!node.empty() && node.data().find_first_not_of(" \t\r\n") == std::string::npos) {
        node.data().clear();
    }
    for (pt::ptree::value_type& child : node) {
        DropLayoutWhitespace(child.second);
    }
}

bool WriteAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Writes and syncs a whole file, so that a rename after it publishes complete content.
bool WriteWholeFile(const std::string& name, const char* data, size_t size)
{
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const bool written = WriteAll(fd, data, size) && fsync(fd) == 0;
    return close(fd) == 0 && written;
}

}  // namespace

void ConfigManager::Init(const std::string& mainConfigFile)
{
    // The main configuration was loaded moments ago; its absence now means the
    // start-up itself is broken.
    ASSERT(PathExists(mainConfigFile));
    ASSERT(!s_instance);
    s_instance.reset(new ConfigManager(mainConfigFile));
}

boost::intrusive_ptr<ConfigManager> ConfigManager::Get()
{
    ASSERT(s_instance);
    return s_instance;
}

void ConfigManager::Destroy()
{
    GlobalLockGuard lock;
    s_instance.reset();
}

ConfigManager::ConfigManager(const std::string& mainConfigFile)
{
    pt::ptree mainTree;
    pt::read_xml(mainConfigFile, mainTree, pt::xml_parser::no_comments | pt::xml_parser::trim_whitespace,
                 std::locale());
    const pt::ptree& options = mainTree.get_child("config.fenrel.configManager");
    _configFile = options.get<std::string>("configFile", MainConfig::ConfigDir() + "controller-info.xml");
    _hostPrivateKeyFile =
        options.get<std::string>("hostPrivateKeyFile", MainConfig::ConfigDir() + "host-privkey.pem");
    _hostCertificateFile =
        options.get<std::string>("hostCertificateFile", MainConfig::ConfigDir() + "host-cert.pem");

    _configDir = DirectoryOf(_configFile);
    // Every rewrite of the controller list goes through a file in this
    // directory; without it the agent could never keep what it is told.
    ASSERT(IsDirectory(_configDir));

    _cfgTypeNames[CFG_TYPE_CONTROLLER_INFO] = "CFG_TYPE_CONTROLLER_INFO";
    _cfgTypeNames[CFG_TYPE_CONTROLLER_INFO_REQUEST] = "CFG_TYPE_CONTROLLER_INFO_REQUEST";

    // The proxy client comes through SetProxyLink. The timer must not keep a
    // dropped manager alive, so it holds no reference; the destructor stops it.
    GlobalLockGuard lock;
    _requestTimer = ZUNChannel::AsyncTimer<ConfigManager>::Create(
        this, &ConfigManager::RequestControllerInfo, ZUNChannel::AsyncTimer<ConfigManager>::OwnerRef::Weak);
    ArmRequestTimer(kRequestRetryInterval);
}

ConfigManager::~ConfigManager()
{
    GlobalLockGuard lock;
    _requestTimer->Stop();
}

void ConfigManager::SetProxyLink(std::shared_ptr<ConfigProxyLink> link)
{
    GlobalLockGuard lock;
    _proxyLink = std::move(link);
}

void ConfigManager::SetControllerListListener(ControllerListListener listener)
{
    GlobalLockGuard lock;
    _controllerListListener = std::move(listener);
}

void ConfigManager::SetHostCertListener(HostCertListener listener)
{
    GlobalLockGuard lock;
    _hostCertListener = std::move(listener);
}

std::vector<KelConnConfig> ConfigManager::GetConnections() const
{
    GlobalLockGuard lock;
    return _connections;
}

bool ConfigManager::GotControllerInfo() const
{
    GlobalLockGuard lock;
    return _gotControllerInfo;
}

int32_t ConfigManager::LastRequestInterval() const
{
    GlobalLockGuard lock;
    return _lastRequestInterval;
}

std::string ConfigManager::CfgTypeText(int32_t cfgType) const
{
    const auto name = _cfgTypeNames.find(cfgType);
    return (name != _cfgTypeNames.end() ? name->second : std::string("UNKNOWN")) + " : " +
           std::to_string(cfgType);
}

// ---------------------------------------------------------------------------
// Reading the controller file

bool ConfigManager::ReadControllerFile(const std::string& file, pt::ptree& tree, std::string& error)
{
    try {
        pt::read_xml(file, tree, pt::xml_parser::no_comments);
        DropLayoutWhitespace(tree);
    } catch (const std::exception& failure) {
        error = failure.what();
        tree.clear();
        return false;
    }
    return true;
}

void ConfigManager::ReadConnections(const pt::ptree& tree, std::vector<KelConnConfig>& list,
                                    const char* addedFormat)
{
    const boost::optional<const pt::ptree&> connectionList = tree.get_child_optional("config.connectionList");
    if (!connectionList) {
        return;
    }
    for (const pt::ptree::value_type& child : *connectionList) {
        if (child.first != "connection") {
            continue;
        }
        const pt::ptree& node = child.second;
        KelConnConfig conn(node.get<std::string>("server", ""), node.get<int32_t>("port", 0),
                           node.get<std::string>("peername", ""), nullptr,
                           node.get<bool>("sslEnabled", false));
        if (conn.sslEnabled) {
            const std::string pem = node.get<std::string>("pemKey", "");
            if (!pem.empty()) {
                X509* certificate = PemToX509(pem);
                if (certificate == nullptr) {
                    // Kept without certificate: its connection reports the missing certificate.
                    FLOG_INFO("Read certificate for server %1 failed", conn.server);
                }
                conn.SetCertificate(certificate);
            }
        }
        bool known = false;
        for (const KelConnConfig& entry : list) {
            known = known || entry.SameAs(conn);
        }
        if (known) {
            continue;
        }
        list.push_back(conn);
        FLOG_VERBOSE(addedFormat, conn.ToString());
    }
}

void ConfigManager::ReadNodeUuid()
{
    const boost::optional<pt::ptree&> transportNode = _tree.get_child_optional("config.transportNode");
    if (!transportNode) {
        return;
    }
    const std::string text = transportNode->get<std::string>("UUID", "");
    ZUNChannel::UUID uuid;
    if (!ZUNChannel::UUID::FromString(text, uuid)) {
        FLOG_INFO("Invalid node UUID %1", text);
        return;
    }
    ZUNChannel::Configuration::AddNodeUuid(uuid);
    FLOG_VERBOSE("Restored node UUID %1", uuid.ToString());
}

void ConfigManager::ConfigLoad()
{
    FLOG_VERBOSE("ConfigLoad: entry");
    GlobalLockGuard lock;
    _connections.clear();
    _configNode = nullptr;
    std::string error;
    if (!ReadControllerFile(_configFile, _tree, error)) {
        FLOG_INFO("Failed to load configuration : %1.", error);
        return;
    }
    const boost::optional<pt::ptree&> config = _tree.get_child_optional("config");
    _configNode = config ? &*config : nullptr;
    ReadConnections(_tree, _connections, "Restored conn %1");
    ReadNodeUuid();
}

void ConfigManager::ApplyToChannel()
{
    GlobalLockGuard lock;
    if (!_hostPrivateKeyFile.empty() && !_hostCertificateFile.empty() && PathExists(_hostPrivateKeyFile) &&
        PathExists(_hostCertificateFile)) {
        ZUNChannel::Configuration::SetHostCertFiles(_hostPrivateKeyFile, _hostCertificateFile);
        if (_hostCertListener) {
            _hostCertListener(_hostPrivateKeyFile, _hostCertificateFile);
        }
    }
    if (!_connections.empty()) {
        PublishConnList();
    }
}

bool ConfigManager::ReloadFromFile(const std::string& file)
{
    FLOG_INFO("Reload controller list from file %1", file);
    pt::ptree tree;
    std::string error;
    if (!ReadControllerFile(file, tree, error)) {
        FLOG_INFO("Failed to reload controller list: %1.", error);
        return false;
    }
    GlobalLockGuard lock;
    std::vector<KelConnConfig> list;
    ReadConnections(tree, list, "Added conn %1");
    ZUNChannel::Configuration::SetConnList(std::vector<ZUNChannel::ConnConfig>(list.begin(), list.end()));
    return true;
}

void ConfigManager::PublishConnList()
{
    const std::vector<ZUNChannel::ConnConfig> list(_connections.begin(), _connections.end());
    ZUNChannel::Configuration::SetConnList(list);
    if (_controllerListListener) {
        _controllerListListener(list);
    }
}

// ---------------------------------------------------------------------------
// Configuration update handlers

void ConfigManager::RegisterConfigUpdate(uint16_t appId, int32_t cfgType, UpdateHandler handler)
{
    FLOG_VERBOSE("ConfigManager::RegisterConfigUpdate appId %1, cfgType %2", appId, CfgTypeText(cfgType));
    GlobalLockGuard lock;
    _updateHandlers.emplace(cfgType, std::make_pair(appId, std::move(handler)));
}

bool ConfigManager::DispatchConfigUpdate(const ConfigUpdate& update)
{
    ASSERT(IsLockAvailable());
    FLOG_VERBOSE("type %1", update.cfgType);
    GlobalLockGuard lock;
    bool ok = true;
    const auto handlers = _updateHandlers.equal_range(update.cfgType);
    for (auto handler = handlers.first; handler != handlers.second; ++handler) {
        ok = handler->second.second(update) && ok;
    }
    return ok;
}

// ---------------------------------------------------------------------------
// Asking the management plane for the controller list
//
// The request is one record for the proxy client:
//
//   0      2        4
//   +------+--------+---------------------------------------+
//   | 3    | length | MpLcpMsg with sync_request present    |
//   +------+--------+---------------------------------------+
//
// type CFG_TYPE_CONTROLLER_INFO_REQUEST and the total length, both 16 bits
// big-endian: the TLV form of the control channel.

void ConfigManager::ArmRequestTimer(int32_t intervalMicroseconds)
{
    _lastRequestInterval = intervalMicroseconds;
    _requestTimer->Start(intervalMicroseconds);
}

uint8_t* ConfigManager::BuildSyncRequest(uint32_t& length) const
{
    com::corvid::zun::config::MpLcpMsg request;
    request.mutable_sync_request();
    const std::string body = request.SerializeAsString();
    length = static_cast<uint32_t>(TlvCommon::kHeaderLen + body.size());
    uint8_t* buffer = MemAlloc::Buffer(length);
    TlvCommon::Write(buffer, CFG_TYPE_CONTROLLER_INFO_REQUEST, body.data(), body.size());
    return buffer;
}

void ConfigManager::RequestControllerInfo()
{
    GlobalLockGuard lock;
    if (_gotControllerInfo) {
        _requestTimer->Cancel();
        return;
    }
    FLOG_INFO("Request controller info ...");
    uint32_t length = 0;
    uint8_t* buffer = BuildSyncRequest(length);
    bool sent = false;
    if (_proxyLink) {
        sent = _proxyLink->Send(buffer, length);
    } else {
        free(buffer);
    }
    ArmRequestTimer(sent ? kRequestWaitInterval : kRequestRetryInterval);
}

void ConfigManager::OnProxyLinkStatus(bool up)
{
    GlobalLockGuard lock;
    // A request sent before the proxy took us in was refused or lost with the
    // old registration: ask at once rather than at the next retry.
    if (up && !_gotControllerInfo) {
        ArmRequestTimer(0);
    }
}

// ---------------------------------------------------------------------------
// The management plane's controller list

void ConfigManager::HandleProxyMessage(const std::string& typeName, const uint8_t* payload, size_t length)
{
    if (typeName != kControllerInfoTypeName) {
        FLOG_ERROR("Get unknown message type: %1", typeName).AddTag("errorCode:LCP00204");
        return;
    }
    HandleControllerInfo(payload, length);
}

bool ConfigManager::ValidateControllerList(const com::corvid::zun::config::MpLcpUpdateMsg& update,
                                           std::vector<KelConnConfig>& out)
{
    for (const com::corvid::zun::config::ControllerInfoMsg& info : update.controller_list()) {
        // An address without its IPv4 part names no controller this agent can reach.
        if (!info.has_ip() || !info.ip().has_ipv4()) {
            FLOG_ERROR("no IP in controller info message").AddTag("errorCode:LCP00205");
            return false;
        }
        if (!info.has_port()) {
            FLOG_ERROR("no port in controller info message").AddTag("errorCode:LCP00205");
            return false;
        }
        if (!info.has_ssl_enabled()) {
            FLOG_WARNING("no sslEnabled in controller info message").AddTag("errorCode:LCP00205");
            return false;
        }
        X509* certificate = nullptr;
        if (info.ssl_enabled()) {
            if (!info.has_certificate()) {
                FLOG_ERROR("no certificate in controller info message").AddTag("errorCode:LCP00205");
                return false;
            }
            certificate = PemToX509(info.certificate());
            if (certificate == nullptr) {
                FLOG_ERROR("controller certificate format error").AddTag("errorCode:LCP00205");
                return false;
            }
        }
        out.emplace_back(Ipv4ToString(info.ip().ipv4()), static_cast<int32_t>(info.port()), "", certificate,
                         info.ssl_enabled(), true);
    }
    return true;
}

void ConfigManager::HandleControllerInfo(const uint8_t* payload, size_t length)
{
    com::corvid::zun::config::MpLcpMsg message;
    if (length > static_cast<size_t>(INT_MAX) ||
        !message.ParseFromArray(payload != nullptr ? payload : reinterpret_cast<const uint8_t*>(""),
                                static_cast<int>(length))) {
        FLOG_ERROR("Failed to parse controller info message").AddTag("errorCode:LCP00205");
        return;
    }
    if (!message.has_update()) {
        FLOG_ERROR("Invalid message payload").AddTag("errorCode:LCP00205");
        return;
    }
    FLOG_INFO("Received controller info message numConn %1", message.update().controller_list_size());

    // The whole list is checked before anything is touched: a bad entry
    // anywhere leaves the agent's list, its marks and the file as they were.
    std::vector<KelConnConfig> received;
    if (!ValidateControllerList(message.update(), received)) {
        return;
    }

    GlobalLockGuard lock;
    for (KelConnConfig& known : _connections) {
        known.updatedByKel = false;
    }
    if (received.empty()) {
        // Deliberately the purge below still runs: an empty list empties the
        // agent's controller list, whatever this line says.
        FLOG_INFO("Do nothing no change of controller info");
    } else {
        for (const KelConnConfig& entry : received) {
            MergeReceived(entry);
        }
        _gotControllerInfo = true;
        WriteTree();
    }
    PurgeUnmarked();
    PublishConnList();
}

void ConfigManager::MergeReceived(const KelConnConfig& received)
{
    SetConfigViewConn(received, false);
    for (KelConnConfig& known : _connections) {
        if (!SameEndpoint(known, received.server, received.port)) {
            continue;
        }
        // The management plane says nothing of the peer name: an entry that
        // differs only there keeps its own.
        if (known.sslEnabled != received.sslEnabled ||
            !ZUNChannel::SameCertificate(known.certificate, received.certificate)) {
            known = received;
        } else {
            known.updatedByKel = true;
        }
        FLOG_INFO("Updated conn %1", known.ToString());
        return;
    }
    _connections.push_back(received);
    FLOG_INFO("Added conn %1", received.ToString());
}

void ConfigManager::PurgeUnmarked()
{
    for (auto conn = _connections.begin(); conn != _connections.end();) {
        if (conn->updatedByKel) {
            ++conn;
            continue;
        }
        // A second entry of a kept controller (another peer name in the file)
        // leaves the tree alone: its element is now the kept one's.
        bool endpointKept = false;
        for (const KelConnConfig& other : _connections) {
            endpointKept = endpointKept || (other.updatedByKel && SameEndpoint(other, conn->server, conn->port));
        }
        if (!endpointKept) {
            SetConfigViewConn(*conn, true);
        }
        FLOG_VERBOSE("Purged conn %1", conn->ToString());
        conn = _connections.erase(conn);
    }
    WriteTree();
}

// ---------------------------------------------------------------------------
// The tree of "controller-info.xml"

void ConfigManager::SetConfigViewConn(const KelConnConfig& conn, bool unset)
{
    ASSERT(IsLockAvailable());
    if (_configNode == nullptr) {
        FLOG_VERBOSE("_configNode is NULL");
        return;
    }
    std::string pem;
    if (!unset && conn.sslEnabled && !X509ToPem(conn.certificate, pem)) {
        FLOG_INFO("Controller %1 certificate format error", conn.server);
        return;
    }

    boost::optional<pt::ptree&> existing = _configNode->get_child_optional("connectionList");
    if (!existing && unset) {
        FLOG_VERBOSE("Not exist config view conn %1", conn.ToString());
        return;
    }
    pt::ptree& connectionList = existing ? *existing : _configNode->add_child("connectionList", pt::ptree());

    // A hand-edited file may name a controller twice: every copy goes, so
    // that the file ends with one entry per controller, or none.
    bool found = false;
    for (auto entry = connectionList.begin(); entry != connectionList.end();) {
        if (entry->first == "connection" && entry->second.get<std::string>("server", "") == conn.server &&
            entry->second.get<int32_t>("port", 0) == conn.port) {
            entry = connectionList.erase(entry);
            found = true;
        } else {
            ++entry;
        }
    }
    if (unset) {
        if (found) {
            FLOG_VERBOSE("Unset config view conn %1", conn.ToString());
        } else {
            FLOG_VERBOSE("Not exist config view conn %1", conn.ToString());
        }
        return;
    }
    if (found) {
        FLOG_VERBOSE("Delete and re-add controller entry %1", conn.ToString());
    }

    // The id is the number of entries the list held when this one was added.
    pt::ptree entry;
    entry.put("<xmlattr>.id", connectionList.count("connection"));
    entry.put("server", conn.server);
    entry.put("port", conn.port);
    entry.put("sslEnabled", conn.sslEnabled);
    if (conn.sslEnabled) {
        entry.put("pemKey", pem);
    }
    connectionList.push_back(pt::ptree::value_type("connection", entry));
    FLOG_VERBOSE("Set config view conn %1", conn.ToString());
}

bool ConfigManager::WriteTree()
{
    std::ostringstream text;
    pt::write_xml(text, _tree, pt::xml_writer_make_settings<std::string>('\t', 1));
    const std::string data = text.str();
    return ConfigWriteFile(_configFile, data.data(), data.size());
}

// ---------------------------------------------------------------------------
// Files and certificates

bool ConfigManager::ConfigWriteFile(const std::string& name, const char* data, size_t size)
{
    // Files are written under the global lock, one writer at a time.
    ASSERT(IsLockAvailable());
    FLOG_VERBOSE("ConfigManager::ConfigWriteFile");
    if (name.empty()) {
        FLOG_VERBOSE("file name is not given");
        return false;
    }
    const std::string tmpName = name + ".tmp";
    if (!WriteWholeFile(tmpName, data, size) || rename(tmpName.c_str(), name.c_str()) != 0) {
        FLOG_VERBOSE("Failed to replace %1 with %2", name, tmpName);
        unlink(tmpName.c_str());
        return false;
    }
    return true;
}

bool ConfigManager::ConfigReadFile(const std::string& name, char* buffer, size_t* size)
{
    ASSERT(IsLockAvailable() && size != nullptr);
    FLOG_VERBOSE("ConfigManager::ConfigReadFile");
    if (name.empty()) {
        FLOG_VERBOSE("file name is not given");
        return false;
    }
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            FLOG_VERBOSE("File %1 does not exist", name);
        } else {
            FLOG_VERBOSE("Failed to open %1 : %2", name, strerror(errno));
        }
        return false;
    }
    size_t total = 0;
    bool ok = true;
    while (total < *size) {
        const ssize_t got = read(fd, buffer + total, *size - total);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            ok = got == 0;
            break;
        }
        total += static_cast<size_t>(got);
    }
    close(fd);
    *size = total;
    return ok;
}

X509* ConfigManager::PemToX509(const std::string& pem)
{
    if (pem.size() > static_cast<size_t>(INT_MAX)) {
        return nullptr;
    }
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    if (bio == nullptr) {
        MemAlloc::Failed();
    }
    X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    if (certificate == nullptr) {
        // Leave no stale reason behind for the next TLS call on this thread.
        ERR_clear_error();
    }
    return certificate;
}

bool ConfigManager::X509ToPem(const X509* certificate, std::string& pem)
{
    if (certificate == nullptr) {
        return false;
    }
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) {
        MemAlloc::Failed();
    }
    bool ok = PEM_write_bio_X509(bio, const_cast<X509*>(certificate)) == 1;
    if (ok) {
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        ok = length > 0 && data != nullptr;
        if (ok) {
            pem.assign(data, static_cast<size_t>(length));
        }
    }
    BIO_free(bio);
    if (!ok) {
        ERR_clear_error();
    }
    return ok;
}

}  // namespace FenREL
