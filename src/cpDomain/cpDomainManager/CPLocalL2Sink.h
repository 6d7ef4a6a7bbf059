#pragma once

#include "ccp_lcp_l2.pb.h"

namespace FenREL {

// The app that reports the local L2 state to the controllers (the L2 app).
class CPLocalL2Sink {
public:
    virtual void ProcessLocalL2Update(const com::corvid::zun::l2::L2UpdateMsg& update) = 0;

protected:
    ~CPLocalL2Sink() = default;
};

}  // namespace FenREL
