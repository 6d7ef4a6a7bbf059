#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "App.h"
#include "RefCounter.h"
#include "ShardingSegment.h"

namespace ZUNChannel {

// Routes received messages and posted events to the applications, and
// collects their hello features. Everything runs under the global lock.
class AppManager : public RefCounter<AppManager> {
public:
    static void Create();
    static boost::intrusive_ptr<AppManager> Get();
    // Drops the singleton; only a failed start-up and tests do this.
    static void Destroy();

    // A second application under the same key is ignored; the first stays.
    void RegisterApp(const boost::intrusive_ptr<App>& app);
    // The core (0) and config (256) applications serve every instance: they
    // are always found under instance 0.
    boost::intrusive_ptr<App> FindApp(uint16_t id, uint32_t instance) const;
    const std::map<AppKey, boost::intrusive_ptr<App>>& GetApps() const { return _apps; }

    void StartAll();
    void StopAll();
    // Synchronous, in map order, to all applications or to the target alone.
    void PostEvent(const boost::intrusive_ptr<Event>& event);

    uint16_t GetHelloFeatureLen(uint32_t instance) const;
    // Writes the feature TLVs of this instance's applications; returns the length.
    uint16_t WriteHelloFeatures(uint8_t* buffer, uint32_t instance) const;
    bool ValidateHelloFeature(const uint8_t* tlv, bool strict, uint32_t instance) const;
    void ApplyHelloFeature(const uint8_t* tlv, uint32_t instance) const;

    // Passed on to every multi-controller application; `revoke` is 0 for an
    // assignment, 1 for a revocation.
    void UpdateSharding(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments,
                        const std::string& controller, uint32_t revoke);
    void CheckSessions();

private:
    AppManager() = default;

    std::map<AppKey, boost::intrusive_ptr<App>> _apps;
    // Looks every application up by its exact instance; false in this agent.
    bool _exactInstanceLookup = false;
};

}  // namespace ZUNChannel
