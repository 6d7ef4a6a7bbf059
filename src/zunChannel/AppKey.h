#pragma once

#include <cstdint>
#include <string>
#include <tuple>

namespace ZUNChannel {

// Identity of an application: its id, which is also the wire protocolID, and
// its instance. Ordered by id, then instance.
struct AppKey {
    uint16_t id = 0;
    uint32_t instance = 0;

    AppKey() = default;
    AppKey(uint16_t appId, uint32_t appInstance) : id(appId), instance(appInstance) {}

    bool operator<(const AppKey& other) const
    {
        return std::tie(id, instance) < std::tie(other.id, other.instance);
    }
    bool operator==(const AppKey& other) const { return id == other.id && instance == other.instance; }
    bool operator!=(const AppKey& other) const { return !(*this == other); }

    std::string ToString() const { return std::to_string(id) + ":" + std::to_string(instance); }
};

}  // namespace ZUNChannel
