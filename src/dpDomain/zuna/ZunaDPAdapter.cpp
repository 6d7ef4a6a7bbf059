#include "ZunaDPAdapter.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Assert.h"
#include "DPDomainManager.h"
#include "DpMsg.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MsgDispatcher.h"
#include "RootPath.h"
#include "UnixSocketLink.h"
#include "ZunaDPLink.h"
#include "ccp_lcp_l3.pb.h"
#include "dne_lcp.pb.h"
#include "edge_services_lcp.pb.h"
#include "firewall_lcp.pb.h"
#include "traceflow.pb.h"

namespace FenREL {

namespace {

using com::corvid::zun::lcp::LcpDpMsg;

// The `%1` of the adapter's lines.
const char* SourceFile()
{
    const char* slash = strrchr(__FILE__, '/');
    return slash != nullptr ? slash + 1 : __FILE__;
}

// The agent's link is gone: the process ends, and its supervisor starts it
// again with both full syncs to come.
void TerminateSelf()
{
    kill(getpid(), SIGTERM);
}

}  // namespace

ZunaDPAdapter::ZunaDPAdapter(const std::string& path, bool isGw)
    : _path(path.empty() ? RootPath(kDefaultPath) : path), _isGw(isGw)
{
    if (_path.size() > UnixSocketLink::kMaxPathLength) {
        _path.resize(UnixSocketLink::kMaxPathLength);
        FLOG_VERBOSE("%1: Zun-Agent socket path too long, truncated to [%2]", SourceFile(), _path);
    }
}

ZunaDPAdapter::~ZunaDPAdapter()
{
    if (_link) {
        _link->Stop();
    }
}

bool ZunaDPAdapter::Init(DPDomainManager* manager)
{
    ASSERT(manager != nullptr);
    _manager = manager;
    if (_isGw) {
        FLOG_INFO("Fenrel operates on public cloud gateway");
        FLOG_WARNING("%1: no public cloud gateway adapter in this build, nothing reaches the data path",
                     SourceFile());
        return false;
    }
    _link = new ZunaDPLink(
        _path, [this](const unsigned char* buffer, int length) { ReceiveHandler(buffer, length); },
        [this](DataplaneLink* link, DataplaneLink::LinkStatus status) { StatusHandler(link, status); },
        [this](int fd) { return LinkCheck(fd); });
    return _link->Open();
}

void ZunaDPAdapter::CPDomainInitFullSyncDone()
{
    FLOG_VERBOSE("In ZunaDPAdapter::CPDomainInitFullSyncDone, doing SendFullSync");
    _cpFullSyncDone = true;
    SendFullSync();
}

void ZunaDPAdapter::RemoteConfigPropObserverImpl(const com::corvid::zun::config::CcpLcpZunConfigMsg& msg)
{
    if (msg.type() != com::corvid::zun::config::CcpLcpZunConfigMsg::ENTITY_PROPERTY) {
        FLOG_ERROR("%1: Message type incorrect: %2", SourceFile(), static_cast<int>(msg.type()))
            .AddTag("errorCode:LCP00001");
        return;
    }
    FLOG_VERBOSE("%1: RemoteConfigPropObserverImpl: %2", SourceFile(), msg.ShortDebugString());
    LcpDpMsg out;
    out.set_atomic_update_end(true);
    *out.mutable_remote_config_update() = msg.entity_property();
    Forward(DpMsgHdr::DP_MSG_HDR_GENERIC, out);
}

void ZunaDPAdapter::RemoteL2Update(const com::corvid::zun::l2::L2UpdateMsg& msg)
{
    LcpDpMsg out;
    out.set_atomic_update_end(true);
    // A delta of a hundred items is four hundred small objects: it is lent to
    // the wrapper for the send rather than copied, and taken back before the
    // wrapper goes, however this scope ends. Logging and serialising only
    // read it (the cached sizes are mutable by design).
    out.unsafe_arena_set_allocated_l2_update(const_cast<com::corvid::zun::l2::L2UpdateMsg*>(&msg));
    struct GiveBack {
        LcpDpMsg& out;
        ~GiveBack() { out.unsafe_arena_release_l2_update(); }
    } giveBack{out};
    Forward(DpMsgHdr::DP_MSG_HDR_GENERIC, out);
}

void ZunaDPAdapter::RemoteSessionUpdate(const std::vector<com::corvid::zun::lcp::CcpSessionStateMsg>& sessions)
{
    LcpDpMsg out;
    out.set_atomic_update_end(true);
    for (const auto& session : sessions) {
        *out.add_session_state() = session;
    }
    Forward(DpMsgHdr::DP_MSG_HDR_GENERIC, out);
}

void ZunaDPAdapter::CPMsgProcessorImpl(uint32_t type, const google::protobuf::Message& msg)
{
    FLOG_VERBOSE("In ZunaDPAdapter::CPMsgProcessorImpl, directly sending message to DP %1", type);
    LcpDpMsg out;
    out.set_atomic_update_end(true);
    uint8_t headerType = DpMsgHdr::DP_MSG_HDR_GENERIC;
    switch (type) {
    case MsgDispatcher::DP_MSG_TRACEFLOW:
        out.mutable_traceflow_update()->CopyFrom(msg);
        break;
    case MsgDispatcher::DP_MSG_L3:
        out.mutable_l3_update()->CopyFrom(msg);
        break;
    case MsgDispatcher::DP_MSG_FIREWALL:
        out.mutable_dfw_update()->CopyFrom(msg);
        headerType = DpMsgHdr::DP_MSG_HDR_DFW;
        break;
    case MsgDispatcher::DP_MSG_ENCRYPTION:
        out.mutable_dne_update()->CopyFrom(msg);
        headerType = DpMsgHdr::DP_MSG_HDR_DNE;
        break;
    case MsgDispatcher::DP_MSG_EDGE_SERVICES:
        out.mutable_service_update()->CopyFrom(msg);
        headerType = DpMsgHdr::DP_MSG_HDR_SERVICE;
        break;
    default:
        break;  // the end marker alone
    }
    Forward(headerType, out);
}

void ZunaDPAdapter::Forward(uint8_t headerType, const LcpDpMsg& msg)
{
    if (!SendMsg(headerType, &msg)) {
        FLOG_VERBOSE("%1: Failed to send data to ZunAgent", SourceFile());
    }
}

bool ZunaDPAdapter::SendMsg(uint8_t headerType, const LcpDpMsg* msg)
{
    FLOG_INFO("%1: SendMsg to ZunAgent, msg is %2", SourceFile(), msg != nullptr ? msg->DebugString() : "");
    if (_isGw) {
        return true;  // the gateway adapter's; there is none to take it
    }
    const size_t bodyLength = msg != nullptr ? msg->ByteSizeLong() : 0;
    const size_t length = bodyLength + DpMsgHdr::kSize;
    // A failed allocation reaches the link as null, which refuses it.
    auto* buffer = static_cast<uint8_t*>(malloc(length));
    if (buffer != nullptr) {
        memset(buffer, 0, length);
        DpMsgHdr::Init(buffer, headerType, static_cast<uint32_t>(length));
        if (msg != nullptr) {
            msg->SerializeWithCachedSizesToArray(buffer + DpMsgHdr::kSize);
        }
    }
    return _link != nullptr && _link->Send(buffer, static_cast<uint32_t>(length));
}

bool ZunaDPAdapter::SendFullSync()
{
    FLOG_INFO("%1: Starting full sync with ZunAgent", SourceFile());
    ZUNChannel::GlobalLockGuard lock;
    com::corvid::zun::config::CcpLcpZunConfigMsg config;
    com::corvid::zun::l2::L2UpdateMsg l2;
    std::vector<com::corvid::zun::lcp::CcpSessionStateMsg> sessions;
    _manager->ReadAllCPData(config, l2, sessions);

    LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    *msg.mutable_remote_config_update() = config.entity_property();
    *msg.mutable_l2_update() = l2;
    for (const auto& session : sessions) {
        *msg.add_session_state() = session;
    }
    if (SendMsg(DpMsgHdr::DP_MSG_HDR_GENERIC, &msg)) {
        FLOG_INFO("%1: Done full sync with ZunAgent", SourceFile());
        return true;
    }
    FLOG_INFO("%1: Failed to end full sync with ZunAgent", SourceFile());
    return false;
}

void ZunaDPAdapter::ReceiveHandler(const unsigned char* buffer, int length)
{
    if (buffer == nullptr || length < 1) {
        return;
    }
    // Messages arrive only once Init has given us the manager.
    ASSERT(_manager != nullptr);
    FLOG_VERBOSE("receive a message from zun-agent");
    LcpDpMsg msg;
    const uint32_t bodyLength = DpMsgHdr::GetLength(buffer) - DpMsgHdr::kSize;
    if (!msg.ParseFromArray(buffer + DpMsgHdr::kSize, static_cast<int>(bodyLength))) {
        FLOG_ERROR("%1: dropped a message from zun-agent that does not parse, %2 bytes", SourceFile(), length);
        return;
    }
    DpPacketHandler(msg);
}

void ZunaDPAdapter::DpPacketHandler(const LcpDpMsg& msg)
{
    FLOG_VERBOSE("In ZunaDPAdapter::DpPacketHandler, and the dump message is: %1", msg.DebugString());
    const bool fullSync = !_dpFullSyncDone;
    if (msg.local_config_update_size() > 0) {
        std::vector<com::corvid::zun::config::ZunStateDeltaMsg> deltas;
        for (const auto& delta : msg.local_config_update()) {
            if (delta.ByteSizeLong() > 0) {
                deltas.push_back(delta);
            }
        }
        _manager->LocalConfigUpdate(deltas, fullSync);
    }
    if (msg.has_l2_update()) {
        _manager->LocalL2Update(msg.l2_update(), fullSync);
    }
    if (msg.has_l3_update()) {
        _manager->SendMsgToCP(MsgDispatcher::DP_MSG_L3, &msg.l3_update());
    }
    if (msg.has_traceflow_update()) {
        _manager->SendMsgToCP(MsgDispatcher::DP_MSG_TRACEFLOW, &msg.traceflow_update());
    }
    _dpFullSyncDone = true;
    if (!_dpInitFullSyncDone.exchange(true)) {
        _manager->DPDomainInitFullSyncDone();
    }
}

void ZunaDPAdapter::StatusHandler(DataplaneLink* link, DataplaneLink::LinkStatus status)
{
    // Only our own link reports to us, and only these two ways.
    ASSERT(link == _link.get());
    ASSERT(status == DataplaneLink::LinkUp || status == DataplaneLink::LinkDown);
    if (status == DataplaneLink::LinkUp) {
        _dpFullSyncDone = false;
        if (_cpFullSyncDone) {
            FLOG_INFO("%1: Connection to ZunAgent is up", SourceFile());
            SendFullSync();
        }
        return;
    }
    FLOG_INFO("%1: Connection to ZunAgent is down", SourceFile());
    TerminateSelf();
}

bool ZunaDPAdapter::LinkCheck(int fd)
{
    if (fd < 0) {
        FLOG_INFO("%1: Connection to zuna is not setup", SourceFile());
        return false;
    }
    uint8_t byte;
    if (recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
        FLOG_ERROR("%1: Connection to zuna detected down", SourceFile()).AddTag("errorCode:LCP00119");
        TerminateSelf();
        return false;
    }
    return true;
}

}  // namespace FenREL
