#pragma once

#include <cstdint>
#include <string>

#include <boost/intrusive_ptr.hpp>

#include "AppKey.h"
#include "ConnKey.h"
#include "Event.h"
#include "RefCounter.h"

namespace ZUNChannel {

// Application ids, which are also the wire protocolID.
enum AppId : uint16_t {
    APP_ID_CORE = 0,
    APP_ID_L2 = 64,
    APP_ID_CONFIG = 256,
    APP_ID_SESSION = 257,
    APP_ID_VXLAN = 1024,
    APP_ID_VDRB = 1025,
    APP_ID_TRACEFLOW = 1026,
    APP_ID_PIGEON = 1027,
};

// An application owns one protocolID (and instance) on the controller
// channel. It is called under the global lock.
class App : public RefCounter<App> {
public:
    App(uint16_t id, uint32_t instance, std::string name)
        : _id(id), _instance(instance), _name(std::move(name))
    {
    }
    ~App() override = default;

    virtual void GetName(std::string& out) const { out = _name; }
    virtual void Start() {}
    virtual void Stop() {}
    virtual void HandleEvent(const boost::intrusive_ptr<Event>& event) = 0;
    // `message` is a whole control message, header included, `size` its real
    // length (a reassembled message's header length is truncated to 16 bits).
    // The buffer is freed after the call: keep a copy of what is needed.
    virtual void HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key) = 0;
    // A controller session of this application went up or down.
    virtual void OnSessionStateChange(const ConnKey& /*key*/, bool /*down*/) {}

    uint16_t GetId() const { return _id; }
    uint32_t GetInstance() const { return _instance; }
    AppKey GetKey() const { return AppKey(_id, _instance); }
    const std::string& Name() const { return _name; }

protected:
    uint16_t _id;
    uint32_t _instance;
    std::string _name;
};

}  // namespace ZUNChannel
