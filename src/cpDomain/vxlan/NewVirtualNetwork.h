#pragma once

#include <cstdint>
#include <list>

#include "RefCounter.h"

namespace FenREL {

// A VNI this host has joined, as the L2 app keeps it: the joins seen from the
// data plane, one per (transport switch, VNI), and whether the controller's
// full sync for the VNI has come on the present session. Under the global
// lock, like its app.
class NewVirtualNetwork : public ZUNChannel::RefCounter<NewVirtualNetwork> {
public:
    struct Instance {
        uint32_t switchId = 0;
        uint32_t vni = 0;

        bool operator==(const Instance& other) const { return switchId == other.switchId && vni == other.vni; }
    };

    enum FullSyncState : uint32_t { FULL_SYNC_PENDING = 0, FULL_SYNC_DONE = 1 };

    explicit NewVirtualNetwork(uint32_t vni) : _vni(vni) {}

    uint32_t GetVni() const { return _vni; }
    // False when the instance is already there (a second join).
    bool AddInstance(const Instance& instance);
    // False when it was not there.
    bool DelInstance(const Instance& instance);
    bool FindInstance(const Instance& instance) const;
    bool HasInstances() const { return !_instances.empty(); }
    const std::list<Instance>& GetInstances() const { return _instances; }

    uint32_t GetFullSyncState() const { return _fullSyncState; }
    void SetFullSyncState(uint32_t state) { _fullSyncState = state; }
    bool IsMcastProxy() const { return _mcastProxy; }
    bool IsArpProxy() const { return _arpProxy; }

private:
    uint32_t _vni;
    bool _mcastProxy = true;
    bool _arpProxy = true;
    std::list<Instance> _instances;
    uint32_t _fullSyncState = FULL_SYNC_PENDING;
};

}  // namespace FenREL
