#pragma once

#include "ccp_lcp_l2.pb.h"

namespace FenREL {

// Told by StateCacheL2Table what an atomic update really changed, as one
// delta message. Called under the global lock on the writer's thread (or the
// removal timer's): it must not block, and may call back into the tables.
class SCL2TableObserver {
public:
    virtual void ProcessRemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& delta) = 0;
    virtual void ProcessLocalL2Update(const com::corvid::zun::l2::L2UpdateMsg& delta) = 0;

protected:
    ~SCL2TableObserver() = default;
};

}  // namespace FenREL
