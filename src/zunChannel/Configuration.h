#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ConnConfig.h"
#include "Uuid.h"

namespace ZUNChannel {

// The channel's configuration module: thread counts, the controller list, the
// host's key and certificate file names and the node UUIDs. Guarded by the
// global lock: every accessor asserts the calling discipline.
namespace Configuration {

// Both counts must be at least 1.
void SetThreads(uint32_t ioThreads, uint32_t workThreads);
void GetThreads(uint32_t& ioThreads, uint32_t& workThreads);

// Copies the entry whose `server` equals `server` exactly; false if absent.
bool GetConnConfig(const std::string& server, ConnConfig& out);
void GetConnList(std::vector<ConnConfig>& out);
// Replaces the list and hands it to the connection pool.
void SetConnList(const std::vector<ConnConfig>& list);
void GetControllerIPs(std::vector<std::string>& out);

// False if either name is still empty.
bool GetHostCertFiles(std::string& keyFile, std::string& certFile);
// Both names must be set; the pool then makes its TLS context from them.
void SetHostCertFiles(const std::string& keyFile, const std::string& certFile);

// The node UUIDs, indexed by connection instance in the hello.
void AddNodeUuid(const UUID& uuid);
// The UUID of an instance, or the nil UUID beyond the vector.
UUID GetNodeUuid(uint32_t instance);
void ClearNodeUuids();

}  // namespace Configuration
}  // namespace ZUNChannel
