#include "MsgDispatcher.h"

#include "Logger.h"

namespace FenREL {

MsgDispatcher& MsgDispatcher::Get()
{
    static MsgDispatcher* dispatcher = new MsgDispatcher();
    return *dispatcher;
}

bool MsgDispatcher::RegisterSink(Domain domain, uint32_t type, MsgSink* sink)
{
    if (sink == nullptr) {
        FLOG_WARNING("In RegisterSink, sink is NULL");
        return false;
    }
    if (!_sinks[domain].emplace(type, sink).second) {
        FLOG_WARNING("sink already exists: %1", type);
        return false;
    }
    FLOG_INFO("register sink %1", type);
    return true;
}

bool MsgDispatcher::UnRegisterSink(Domain domain, uint32_t type)
{
    if (_sinks[domain].erase(type) == 0) {
        FLOG_WARNING("sink NOT exists: %1 %2", type, static_cast<uint32_t>(domain));
        return false;
    }
    return true;
}

void MsgDispatcher::Dispatch(Domain domain, uint32_t type, const uint8_t* data, uint32_t length) const
{
    auto it = _sinks[domain].find(type);
    if (it != _sinks[domain].end()) {
        it->second->Process(type, data, length);
    }
}

}  // namespace FenREL
