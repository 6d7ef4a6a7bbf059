#pragma once

#include <cstdint>
#include <string>
#include <tuple>

namespace ZUNChannel {

// Identity of a controller connection. Logs print it as "address:instance";
// keys compare on all three fields.
struct ConnKey {
    std::string server;
    uint32_t instance = 0;
    std::string name;

    ConnKey() = default;
    ConnKey(std::string serverAddress, uint32_t connInstance, std::string controllerName = "")
        : server(std::move(serverAddress)), instance(connInstance), name(std::move(controllerName))
    {
    }

    bool operator<(const ConnKey& other) const
    {
        return std::tie(server, instance, name) < std::tie(other.server, other.instance, other.name);
    }
    bool operator==(const ConnKey& other) const
    {
        return server == other.server && instance == other.instance && name == other.name;
    }
    bool operator!=(const ConnKey& other) const { return !(*this == other); }

    std::string ToString() const { return server + ":" + std::to_string(instance); }
};

// Lets a key stand as a log argument.
inline std::string ToLogArg(const ConnKey& key) { return key.ToString(); }

}  // namespace ZUNChannel
