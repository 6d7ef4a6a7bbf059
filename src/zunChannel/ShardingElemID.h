#pragma once

#include <cstdint>

#include <boost/intrusive_ptr.hpp>

#include "ConnKey.h"
#include "RefCounter.h"

namespace ZUNChannel {

class CtrlSession;

// An application's claim on one sharded identifier (a hashed VNI or router
// id). It lives in the session of the controller that serves its slice, or in
// none while sharding does not place it.
class ShardingElemID : public RefCounter<ShardingElemID> {
public:
    explicit ShardingElemID(uint32_t id);
    ~ShardingElemID() override;

    // The controller of the element's session, or null without session.
    virtual const ConnKey* GetController() const;
    // Writes the element's application state to the log (support dump).
    virtual void Dump() const = 0;

    uint32_t GetId() const { return _id; }
    const boost::intrusive_ptr<CtrlSession>& GetSession() const { return _session; }
    void SetSession(const boost::intrusive_ptr<CtrlSession>& session);

private:
    uint32_t _id;
    boost::intrusive_ptr<CtrlSession> _session;
};

}  // namespace ZUNChannel
