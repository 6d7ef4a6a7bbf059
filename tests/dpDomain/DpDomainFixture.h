#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MsgSink.h"
#include "SCConfigTableObserver.h"
#include "ccp_lcp_config.pb.h"
#include "ccp_lcp_l2.pb.h"

namespace FenRELTest {

// The process-wide pieces the data-plane domain stands on, made once per test
// binary and kept: the work group, the state cache, an app manager with the
// session app (not started), and a started CPDomainManager. The control
// plane's end stays, because the config table keeps its local observers for
// the life of the process. Each test gets a DPDomainManager of its own and
// empty caches.
class DpDomainFixture : public testing::Test {
protected:
    void TearDown() override;

    // A logical switch and its VNI property, in the remote config cache.
    static void AddRemoteSwitch(uint64_t id, uint32_t vni);
    // A joined VNI with one VTEP, in the remote L2 cache.
    static void AddRemoteVtep(uint32_t vni, uint32_t vtepIp);
    static void SetRemoteSession(int32_t type, uint32_t index, int32_t state, const std::string& ip);

    static com::corvid::zun::UuidMsg Uuid(uint64_t id);
    static com::corvid::zun::config::ZunStateDeltaMsg Vif(const std::string& id, uint32_t ip);
    // The local state of a VIF's VIF_IP, or 0.
    static uint32_t LocalVifIp(const std::string& id);
};

// Hears every local VIF change, for the life of the process, noting for each
// what a test's probe said as it arrived.
class LocalVifRecorder : public FenREL::SCConfigTableObserver {
public:
    struct Change {
        std::string entityId;
        int32_t operation;
        bool probe;
    };

    static LocalVifRecorder& Get();
    // Takes the changes so far and drops the probe.
    std::vector<Change> Take();
    void SetProbe(std::function<bool()> probe);

    void ProcessRemotePropertyUpdate(const FenREL::RemotePropertyUpdateList&) override {}
    void ProcessLocalStateUpdate(const FenREL::LocalStateUpdateList& updates) override;

private:
    std::mutex _mutex;
    std::vector<Change> _changes;
    std::function<bool()> _probe;
};

// Stands in for the control plane's sink of one dispatcher type while it
// lives, keeping what it was given.
class CpSinkStandIn : public FenREL::MsgSink {
public:
    explicit CpSinkStandIn(uint32_t type);
    ~CpSinkStandIn();

    void Process(uint32_t type, const uint8_t* data, uint32_t length) override;
    std::vector<std::string> Received();

private:
    uint32_t _type;
    std::mutex _mutex;
    std::vector<std::string> _received;
};

}  // namespace FenRELTest
