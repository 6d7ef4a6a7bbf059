#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/intrusive_ptr.hpp>
#include <boost/property_tree/ptree.hpp>

#include "AsyncTimer.h"
#include "ConnConfig.h"
#include "KelConnConfig.h"
#include "RefCounter.h"

namespace com {
namespace corvid {
namespace zun {
namespace config {
class MpLcpUpdateMsg;
}  // namespace config
}  // namespace zun
}  // namespace corvid
}  // namespace com

namespace FenREL {

class ConfigProxyLink;

// The agent's knowledge of its controllers and of its host identity.
//
// It owns "controller-info.xml": the file is read at start (ConfigLoad) and
// used at once, and the management plane's controller list, which arrives
// through the message proxy, replaces it and is written back. Until the first
// such list arrives a request timer asks the proxy for one. Each new list goes
// to the channel's configuration module and to the listener that start-up
// wires to the session app.
//
// Threads: the request timer fires on an I/O thread, received messages come
// from the proxy library's thread, ConfigLoad and ApplyToChannel run on the
// main thread at start. The list, the tree and every write of the file are
// under the global lock.
class ConfigManager : public ZUNChannel::RefCounter<ConfigManager> {
public:
    enum CfgType : int32_t {
        CFG_TYPE_CONTROLLER_INFO = 1,
        CFG_TYPE_CONTROLLER_INFO_REQUEST = 3,
    };

    // One configuration update for the handlers registered for its type.
    struct ConfigUpdate {
        int32_t cfgType = 0;
        std::string data;
    };

    using UpdateHandler = std::function<bool(const ConfigUpdate& update)>;
    using ControllerListListener = std::function<void(const std::vector<ZUNChannel::ConnConfig>& list)>;
    using HostCertListener = std::function<void(const std::string& keyFile, const std::string& certFile)>;

    // The name the proxy gives the management plane's controller messages.
    static const char* const kControllerInfoTypeName;
    // Request intervals in microseconds: while the proxy refuses the request,
    // and while it has taken one but no answer has come.
    static constexpr int32_t kRequestRetryInterval = 5000000;
    static constexpr int32_t kRequestWaitInterval = 30000000;

    // Builds the singleton from the main configuration file, which must exist,
    // and arms the request timer.
    static void Init(const std::string& mainConfigFile);
    static boost::intrusive_ptr<ConfigManager> Get();
    // Drops the singleton; only tests do this.
    static void Destroy();

    ~ConfigManager() override;
    ConfigManager(const ConfigManager&) = delete;
    ConfigManager& operator=(const ConfigManager&) = delete;

    // Reads the controller list and the node UUID from the controller file.
    void ConfigLoad();
    // Hands the host key and certificate files and the controller list to the
    // channel (and to the listeners).
    void ApplyToChannel();
    // Replaces the channel's controller list by the one in `file`; the
    // manager's own list and file stay as they are. False if unreadable.
    bool ReloadFromFile(const std::string& file);

    void RegisterConfigUpdate(uint16_t appId, int32_t cfgType, UpdateHandler handler);
    // Calls every handler of the update's type; true when none failed.
    bool DispatchConfigUpdate(const ConfigUpdate& update);

    // A message from the proxy client: its type name and its payload.
    void HandleProxyMessage(const std::string& typeName, const uint8_t* payload, size_t length);
    // The proxy client's registration came up or went away. When it comes up
    // before any controller list was received, the request goes out at once.
    void OnProxyLinkStatus(bool up);
    // The request timer's callback.
    void RequestControllerInfo();
    // The interval of the request timer's last arming, in microseconds.
    int32_t LastRequestInterval() const;

    // Start-up wires these; each may be left unset.
    void SetProxyLink(std::shared_ptr<ConfigProxyLink> link);
    void SetControllerListListener(ControllerListListener listener);
    void SetHostCertListener(HostCertListener listener);

    // Copies of the current state, taken under the global lock.
    std::vector<KelConnConfig> GetConnections() const;
    bool GotControllerInfo() const;

    // "CFG_TYPE_CONTROLLER_INFO : 1"; an unknown type has the name "UNKNOWN".
    std::string CfgTypeText(int32_t cfgType) const;

    // Writes `name` through `name` + ".tmp" and a rename, so that the file is
    // always either its old or its new content.
    static bool ConfigWriteFile(const std::string& name, const char* data, size_t size);
    // Reads at most `*size` bytes of `name` into `buffer`; `*size` becomes the
    // number read.
    static bool ConfigReadFile(const std::string& name, char* buffer, size_t* size);

    // A certificate between its PEM text and X509 forms. PemToX509 gives an
    // owned certificate, or null when the text holds none.
    static X509* PemToX509(const std::string& pem);
    static bool X509ToPem(const X509* certificate, std::string& pem);

private:
    explicit ConfigManager(const std::string& mainConfigFile);

    void ArmRequestTimer(int32_t intervalMicroseconds);
    uint8_t* BuildSyncRequest(uint32_t& length) const;

    void HandleControllerInfo(const uint8_t* payload, size_t length);
    // Turns the received list into entries; false, after logging why, at the
    // first entry that is not valid.
    static bool ValidateControllerList(const com::corvid::zun::config::MpLcpUpdateMsg& update,
                                       std::vector<KelConnConfig>& out);
    void MergeReceived(const KelConnConfig& received);
    void PurgeUnmarked();

    // Updates (or, with `unset`, removes) the entry of `conn` in the tree.
    void SetConfigViewConn(const KelConnConfig& conn, bool unset);
    bool WriteTree();
    void PublishConnList();

    // Reads a controller file; false (with the reason) when it does not parse.
    static bool ReadControllerFile(const std::string& file, boost::property_tree::ptree& tree,
                                   std::string& error);
    // Appends the file's distinct `connection` entries to `list`, logging each
    // with `addedFormat`.
    static void ReadConnections(const boost::property_tree::ptree& tree,
                                std::vector<KelConnConfig>& list, const char* addedFormat);
    void ReadNodeUuid();

    std::shared_ptr<ConfigProxyLink> _proxyLink;
    std::multimap<int32_t, std::pair<uint16_t, UpdateHandler>> _updateHandlers;
    std::vector<KelConnConfig> _connections;
    bool _gotControllerInfo = false;
    std::shared_ptr<ZUNChannel::AsyncTimer<ConfigManager>> _requestTimer;
    int32_t _lastRequestInterval = 0;
    std::string _configFile;
    std::string _hostPrivateKeyFile;
    std::string _hostCertificateFile;
    std::string _configDir;
    boost::property_tree::ptree _tree;
    // The `config` element of _tree; null while there is no tree to write to.
    boost::property_tree::ptree* _configNode = nullptr;
    std::map<int32_t, std::string> _cfgTypeNames;
    ControllerListListener _controllerListListener;
    HostCertListener _hostCertListener;
};

}  // namespace FenREL
