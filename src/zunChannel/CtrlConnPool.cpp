#include "CtrlConnPool.h"

#include <openssl/ssl.h>

#include <cstdlib>
#include <exception>

#include <boost/asio/ssl/context.hpp>

#include "AppManager.h"
#include "Assert.h"
#include "Configuration.h"
#include "CtrlConn.h"
#include "CtrlConnEvent.h"
#include "GlobalLock.h"
#include "Logger.h"

namespace ZUNChannel {

namespace {

boost::intrusive_ptr<CtrlConnPool> s_pool;

// A client context that presents the host's identity. The version-flexible
// method with TLS 1.2 as the floor; the peer is pinned after the handshake,
// so the library itself verifies nothing.
std::shared_ptr<boost::asio::ssl::context> MakeClientContext(const std::string& keyFile,
                                                             const std::string& certFile)
{
    auto context = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_verify_mode(boost::asio::ssl::verify_none);
    context->use_certificate_chain_file(certFile);
    context->use_private_key_file(keyFile, boost::asio::ssl::context::pem);
    return context;
}

}  // namespace

void CtrlConnPool::Init()
{
    ASSERT(!s_pool);
    s_pool.reset(new CtrlConnPool());
    FLOG_INFO("CtrlConnPool initialized!");
}

boost::intrusive_ptr<CtrlConnPool> CtrlConnPool::Get()
{
    ASSERT(s_pool);
    return s_pool;
}

void CtrlConnPool::Destroy()
{
    if (!s_pool) {
        return;
    }
    for (auto& entry : s_pool->_connections) {
        if (entry.second->GetState() != CtrlConn::CONN_END) {
            entry.second->Stop();
        }
    }
    s_pool->_connections.clear();
    s_pool.reset();
}

void CtrlConnPool::RegisterConn(const ConnKey& key, const AppKey& appKey)
{
    ASSERT(IsLockAvailable());
    ConnConfig config;
    if (!Configuration::GetConnConfig(key.server, config)) {
        FLOG_VERBOSE("Controller %1 configuration is not ready, use the default configuration", key);
        config = ConnConfig();
    }
    auto it = _connections.find(key);
    if (it == _connections.end()) {
        boost::intrusive_ptr<CtrlConn> conn(new CtrlConn(key, config, kRetryIntervalSeconds));
        it = _connections.emplace(key, conn).first;
        FLOG_VERBOSE("App %1 register connection to new controller %2 port %3", appKey.ToString(), key.server,
                     config.port);
        conn->Start();
    } else {
        FLOG_VERBOSE("App %1 register connection to existing controller to %2 port %3", appKey.ToString(),
                     key.server, it->second->GetConfig().port);
        if (it->second->IsReady()) {
            // A late joiner learns what the other users already know.
            AppManager::Get()->PostEvent(new CtrlConnEvent(key, false, appKey));
        }
    }
    it->second->AddUser();
}

CtrlConnPool::ConnMap::iterator CtrlConnPool::RemoveConn(ConnMap::iterator it)
{
    const ConnKey key = it->first;
    it->second->Stop();
    it = _connections.erase(it);
    FLOG_INFO("No user of connection %1, removed", key);
    return it;
}

bool CtrlConnPool::UnregisterConn(const ConnKey& key, const AppKey& appKey)
{
    ASSERT(IsLockAvailable());
    FLOG_INFO("App %1 unregister connection to %2", appKey.ToString(), key);
    auto it = _connections.find(key);
    if (it == _connections.end()) {
        FLOG_VERBOSE("Can not find connection to %1", key);
        return false;
    }
    if (it->second->RemoveUser() <= 0) {
        RemoveConn(it);
    } else {
        FLOG_INFO("User of connection %1", key);
    }
    return true;
}

bool CtrlConnPool::SendMsg(const ConnKey& key, uint8_t* message)
{
    auto it = _connections.find(key);
    if (it == _connections.end()) {
        free(message);
        FLOG_TRIVIA("SendMsg failed: can not find connection: %1", key);
        return false;
    }
    return it->second->SendMsg(message);
}

void CtrlConnPool::SetHostCert(const std::string& keyFile, const std::string& certFile)
{
    ASSERT(IsLockAvailable());
    FLOG_VERBOSE("KEL configured privateKeyFile %1, certificate %2", keyFile, certFile);
    try {
        _sslContext = MakeClientContext(keyFile, certFile);
    } catch (const std::exception& error) {
        FLOG_ERROR("Create SSL context from file failed: %1", error.what()).AddTag("errorCode:LCP00112");
        _sslContext.reset();
        return;
    }
    for (auto& entry : _connections) {
        if (entry.second->GetConfig().sslEnabled) {
            entry.second->Reset();
        }
    }
}

void CtrlConnPool::UpdateControllers(const std::vector<ConnConfig>& list)
{
    ASSERT(IsLockAvailable());
    for (auto it = _connections.begin(); it != _connections.end();) {
        boost::intrusive_ptr<CtrlConn> conn = it->second;
        const ConnConfig* entry = nullptr;
        for (const ConnConfig& candidate : list) {
            if (candidate.server == it->first.server) {
                entry = &candidate;
                break;
            }
        }
        if (entry != nullptr) {
            if (!entry->SameAs(conn->GetConfig())) {
                FLOG_INFO("controller configuration is updated, need to reset controller %1", it->first);
                conn->SetConfig(*entry);
                conn->Reset();
            }
            ++it;
            continue;
        }
        if (!conn->HoldsListShare()) {
            // An earlier list already left it out; only its applications hold it.
            ++it;
            continue;
        }
        FLOG_INFO("need to disconnect controller %1, it is not in the new controller list", it->first);
        conn->UnsetConfig();
        if (conn->GetUsers() > 0) {
            conn->Reset();
            ++it;
        } else {
            it = RemoveConn(it);
        }
    }
}

boost::intrusive_ptr<CtrlConn> CtrlConnPool::FindConn(const ConnKey& key) const
{
    auto it = _connections.find(key);
    return it == _connections.end() ? nullptr : it->second;
}

void CtrlConnPool::SetHelloFlag(const ConnKey& key, uint32_t flag)
{
    if (auto conn = FindConn(key)) {
        conn->SetHelloFlag(flag);
    }
}

uint32_t CtrlConnPool::GetHelloFlags(const ConnKey& key) const
{
    auto conn = FindConn(key);
    return conn ? conn->GetHelloFlags() : 0;
}

bool CtrlConnPool::IsReady(const ConnKey& key) const
{
    auto conn = FindConn(key);
    return conn && conn->IsReady();
}

void CtrlConnPool::Reset(const ConnKey& key)
{
    if (auto conn = FindConn(key)) {
        conn->Reset();
    }
}

void CtrlConnPool::SetMsgRate(const ConnKey& key, uint32_t rate)
{
    if (auto conn = FindConn(key)) {
        conn->SetMsgRate(rate);
    }
}

uint32_t CtrlConnPool::GetMsgRate(const ConnKey& key) const
{
    auto conn = FindConn(key);
    return conn ? conn->GetMsgRate() : 0;
}

void CtrlConnPool::SetControllerUuid(const ConnKey& key, const UUID& uuid)
{
    if (auto conn = FindConn(key)) {
        conn->SetControllerUuid(uuid);
    }
}

UUID CtrlConnPool::GetControllerUuid(const ConnKey& key) const
{
    auto conn = FindConn(key);
    return conn ? conn->GetControllerUuid() : UUID();
}

bool CtrlConnPool::GetLocalAddr(const ConnKey& key, std::string& address, uint16_t& port) const
{
    auto conn = FindConn(key);
    if (!conn) {
        return false;
    }
    address = conn->GetLocalAddr();
    port = conn->GetLocalPort();
    return true;
}

bool CtrlConnPool::GetConfig(const ConnKey& key, ConnConfig& out) const
{
    auto conn = FindConn(key);
    if (!conn) {
        return false;
    }
    out = conn->GetConfig();
    return true;
}

bool CtrlConnPool::IsConnected(const ConnKey& key, bool* exists) const
{
    auto conn = FindConn(key);
    if (exists != nullptr) {
        *exists = static_cast<bool>(conn);
    }
    return conn && conn->GetState() == CtrlConn::CONN_CONNECTED;
}

const CtrlConnPool::ConnMap& CtrlConnPool::GetConnections() const
{
    ASSERT(IsLockAvailable());
    return _connections;
}

void CtrlConnPool::SetConnStatus(const ConnKey& key, const std::string& text)
{
    if (text.empty()) {
        _connStatus.erase(key);
    } else {
        _connStatus[key] = text;
    }
}

std::string CtrlConnPool::GetConnStatus(const ConnKey& key) const
{
    auto it = _connStatus.find(key);
    return it == _connStatus.end() ? std::string() : it->second;
}

}  // namespace ZUNChannel
