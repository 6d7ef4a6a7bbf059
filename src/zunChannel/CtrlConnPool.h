#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "AppKey.h"
#include "ConnConfig.h"
#include "ConnKey.h"
#include "RefCounter.h"
#include "Uuid.h"

namespace boost {
namespace asio {
namespace ssl {
class context;
}  // namespace ssl
}  // namespace asio
}  // namespace boost

namespace ZUNChannel {

class CtrlConn;

// Owns every controller connection and shares one per ConnKey among the
// applications; holds the TLS client context and the channel-wide frame
// limit and keep-alive interval (set by the last hello from any controller),
// and the last failure of each connection for display.
//
// A connection's user count starts at 1, the share of the controller list;
// each registration adds one. The list gives its share up once when the
// controller leaves it, and takes it back if the controller returns while the
// connection is still held. The connection goes when the count reaches zero:
// when its controller left the list and no application uses it any more.
//
// Everything runs under the global lock.
class CtrlConnPool : public RefCounter<CtrlConnPool> {
public:
    static constexpr uint16_t kDefaultMaxPktLen = 4096;
    static constexpr uint16_t kDefaultKeepAliveInterval = 10;
    static constexpr uint32_t kRetryIntervalSeconds = 5;

    using ConnMap = std::map<ConnKey, boost::intrusive_ptr<CtrlConn>>;

    static void Init();
    static boost::intrusive_ptr<CtrlConnPool> Get();
    // Stops every connection and drops the pool (tests).
    static void Destroy();

    void RegisterConn(const ConnKey& key, const AppKey& appKey);
    bool UnregisterConn(const ConnKey& key, const AppKey& appKey);
    // Takes the message; an unknown key frees it and fails.
    bool SendMsg(const ConnKey& key, uint8_t* message);

    // Makes the TLS context from the host's key and certificate, then resets
    // every TLS connection so it reconnects with the new identity.
    void SetHostCert(const std::string& keyFile, const std::string& certFile);
    // Follows a new controller list: a changed controller is reset, a removed
    // one dropped; new ones wait for an application to register them.
    void UpdateControllers(const std::vector<ConnConfig>& list);

    // Pass-throughs by key: no-ops, false or zero for an unknown key.
    void SetHelloFlag(const ConnKey& key, uint32_t flag);
    uint32_t GetHelloFlags(const ConnKey& key) const;
    bool IsReady(const ConnKey& key) const;
    void Reset(const ConnKey& key);
    void SetMsgRate(const ConnKey& key, uint32_t rate);
    uint32_t GetMsgRate(const ConnKey& key) const;
    void SetControllerUuid(const ConnKey& key, const UUID& uuid);
    UUID GetControllerUuid(const ConnKey& key) const;
    bool GetLocalAddr(const ConnKey& key, std::string& address, uint16_t& port) const;
    bool GetConfig(const ConnKey& key, ConnConfig& out) const;
    // Whether the key's connection is up; `exists` says whether it is known.
    bool IsConnected(const ConnKey& key, bool* exists = nullptr) const;
    boost::intrusive_ptr<CtrlConn> FindConn(const ConnKey& key) const;

    const ConnMap& GetConnections() const;

    uint16_t GetMaxPktLen() const { return _maxPktLen; }
    void SetMaxPktLen(uint16_t length) { _maxPktLen = length; }
    uint16_t GetKeepAliveInterval() const { return _keepAliveInterval; }
    void SetKeepAliveInterval(uint16_t seconds) { _keepAliveInterval = seconds; }

    // A non-empty text records the connection's last failure; an empty one clears it.
    void SetConnStatus(const ConnKey& key, const std::string& text);
    std::string GetConnStatus(const ConnKey& key) const;

    // Session ids are unique for the life of the process.
    uint32_t NextSessionID() { return _nextSessionID++; }

    std::shared_ptr<boost::asio::ssl::context> GetSslContext() const { return _sslContext; }

private:
    CtrlConnPool() = default;
    // Stops and forgets a connection without users; returns the next one.
    ConnMap::iterator RemoveConn(ConnMap::iterator it);

    ConnMap _connections;
    uint32_t _nextSessionID = 1;
    std::shared_ptr<boost::asio::ssl::context> _sslContext;
    uint16_t _maxPktLen = kDefaultMaxPktLen;
    uint16_t _keepAliveInterval = kDefaultKeepAliveInterval;
    std::map<ConnKey, std::string> _connStatus;
};

}  // namespace ZUNChannel
