#pragma once

#include <cstdint>

#include <boost/intrusive_ptr.hpp>

#include "CPDataPathMsgSink.h"
#include "ExtendedApp.h"

namespace FenREL {

// Passes traceflow messages between the controller and the data path without
// reading them: a controller's packet-out request goes to the data path, the
// data path's observations go to the controller. It has no session of its own
// and sends over the config channel, so the controller that holds the config
// session hears every observation of this host.
//
// Both directions, type 7, protocolID 0x0402:
//
//   0        15     16
//   +--------+------+--------------------------+
//   | header | 0x00 | TraceflowMsg (opaque)    |
//   +--------+------+--------------------------+
//
// Runs under the global lock (asserted).
class TraceflowApp : public ZUNChannel::ExtendedApp, public CPDataPathMsgSink {
public:
    // Made by the app factory, which registers it.
    TraceflowApp();

    // The registered app; asserts that there is one.
    static boost::intrusive_ptr<TraceflowApp> Get();

    void Start() override;
    void Stop() override;
    void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& /*event*/) override {}
    void HandleMsg(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key) override;
    uint8_t GetVersion() const override { return 1; }

    // An observation from the data path. Lost, with the config app's line,
    // while the config session is down.
    void SendToController(const uint8_t* data, uint32_t length);
    void ProcessDataPathMsg(uint32_t type, const uint8_t* data, uint32_t length) override;
};

}  // namespace FenREL
