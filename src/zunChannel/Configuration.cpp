#include "Configuration.h"

#include <boost/thread/thread.hpp>

#include "Assert.h"
#include "CtrlConnPool.h"
#include "GlobalLock.h"

namespace ZUNChannel {
namespace Configuration {

namespace {

uint32_t s_ioThreads = boost::thread::hardware_concurrency();
uint32_t s_workThreads = 32;
std::vector<ConnConfig> s_connList;
std::string s_hostKeyFile;
std::string s_hostCertFile;
std::vector<UUID> s_nodeUuids;

}  // namespace

void SetThreads(uint32_t ioThreads, uint32_t workThreads)
{
    ASSERT(IsLockAvailable());
    // Without an I/O thread nothing ever completes; without a work thread
    // nothing queued ever runs.
    ASSERT(ioThreads >= 1 && workThreads >= 1);
    s_ioThreads = ioThreads;
    s_workThreads = workThreads;
}

void GetThreads(uint32_t& ioThreads, uint32_t& workThreads)
{
    ASSERT(IsLockAvailable());
    ioThreads = s_ioThreads;
    workThreads = s_workThreads;
}

bool GetConnConfig(const std::string& server, ConnConfig& out)
{
    ASSERT(IsLockAvailable());
    for (const ConnConfig& entry : s_connList) {
        if (entry.server == server) {
            out = entry;
            return true;
        }
    }
    return false;
}

void GetConnList(std::vector<ConnConfig>& out)
{
    ASSERT(IsLockAvailable());
    out = s_connList;
}

void SetConnList(const std::vector<ConnConfig>& list)
{
    ASSERT(IsLockAvailable());
    s_connList = list;
    CtrlConnPool::Get()->UpdateControllers(s_connList);
}

void GetControllerIPs(std::vector<std::string>& out)
{
    ASSERT(IsLockAvailable());
    for (const ConnConfig& entry : s_connList) {
        out.push_back(entry.server);
    }
}

bool GetHostCertFiles(std::string& keyFile, std::string& certFile)
{
    ASSERT(IsLockAvailable());
    if (s_hostKeyFile.empty() || s_hostCertFile.empty()) {
        return false;
    }
    keyFile = s_hostKeyFile;
    certFile = s_hostCertFile;
    return true;
}

void SetHostCertFiles(const std::string& keyFile, const std::string& certFile)
{
    ASSERT(IsLockAvailable());
    // The pool would make a context from nothing.
    ASSERT(!keyFile.empty() && !certFile.empty());
    s_hostKeyFile = keyFile;
    s_hostCertFile = certFile;
    CtrlConnPool::Get()->SetHostCert(keyFile, certFile);
}

void AddNodeUuid(const UUID& uuid)
{
    ASSERT(IsLockAvailable());
    s_nodeUuids.push_back(uuid);
}

UUID GetNodeUuid(uint32_t instance)
{
    ASSERT(IsLockAvailable());
    return instance < s_nodeUuids.size() ? s_nodeUuids[instance] : UUID();
}

void ClearNodeUuids()
{
    ASSERT(IsLockAvailable());
    s_nodeUuids.clear();
}

}  // namespace Configuration
}  // namespace ZUNChannel
