#include "TraceflowApp.h"

#include <algorithm>
#include <cstring>

#include "AppManager.h"
#include "Assert.h"
#include "ConfigApp.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MsgDispatcher.h"

namespace FenREL {

using ZUNChannel::CtrlMsg;
using ZUNChannel::IsLockAvailable;

TraceflowApp::TraceflowApp() : ExtendedApp(ZUNChannel::APP_ID_TRACEFLOW, 0, "Traceflow") {}

boost::intrusive_ptr<TraceflowApp> TraceflowApp::Get()
{
    boost::intrusive_ptr<TraceflowApp> app(dynamic_cast<TraceflowApp*>(
        ZUNChannel::AppManager::Get()->FindApp(ZUNChannel::APP_ID_TRACEFLOW, 0).get()));
    ASSERT(app);
    return app;
}

void TraceflowApp::Start()
{
    FLOG_VERBOSE("%1: Start", _name);
}

void TraceflowApp::Stop()
{
    FLOG_VERBOSE("%1: Stop", _name);
}

void TraceflowApp::HandleMsg(const uint8_t* message, uint32_t size, const ZUNChannel::ConnKey& key)
{
    ASSERT(IsLockAvailable());
    const uint16_t type = CtrlMsg::Type(message);
    if (type != CtrlMsg::kTypeData) {
        FLOG_ERROR("%1: unknown message from controller (type %2)", _name, type);
        return;
    }
    FLOG_VERBOSE("%1: receive UPDATE from controller %2", _name, key);
    // A message without payload still reaches the data path, as length 0.
    const uint32_t offset = std::min<uint32_t>(size, ConfigApp::kPayloadOffset);
    MsgDispatcher::Get().Dispatch(MsgDispatcher::DP_DOMAIN, MsgDispatcher::DP_MSG_TRACEFLOW, message + offset,
                                  size - offset);
}

void TraceflowApp::SendToController(const uint8_t* data, uint32_t length)
{
    ASSERT(IsLockAvailable());
    // Beyond 65519 bytes the header's length wraps; the buffer still holds it all.
    uint8_t* message = ConfigApp::NewUpdateMsg(_id, length);
    if (length > 0) {
        memcpy(message + ConfigApp::kPayloadOffset, data, length);
    }
    ConfigApp::SendMsg(message);
}

void TraceflowApp::ProcessDataPathMsg(uint32_t /*type*/, const uint8_t* data, uint32_t length)
{
    SendToController(data, length);
}

}  // namespace FenREL
