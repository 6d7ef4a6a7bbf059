#include "ShardingElemID.h"

#include "CtrlSession.h"

namespace ZUNChannel {

ShardingElemID::ShardingElemID(uint32_t id) : _id(id)
{
}

ShardingElemID::~ShardingElemID() = default;

const ConnKey* ShardingElemID::GetController() const
{
    return _session ? &_session->GetKey() : nullptr;
}

void ShardingElemID::SetSession(const boost::intrusive_ptr<CtrlSession>& session)
{
    _session = session;
}

}  // namespace ZUNChannel
