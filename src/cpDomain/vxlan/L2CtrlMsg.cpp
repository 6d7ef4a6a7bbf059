#include "L2CtrlMsg.h"

#include <algorithm>
#include <string>

#include "Assert.h"
#include "CtrlMsg.h"
#include "Logger.h"
#include "TlvCommon.h"

namespace FenREL {

using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlMsgFragmenter;

namespace {

constexpr size_t kControlTypeOffset = CtrlMsg::kHeaderSize;
constexpr size_t kErrorOffset = CtrlMsg::kHeaderSize;
constexpr size_t kSubOffset = kErrorOffset + 2;
constexpr size_t kVniOffset = kSubOffset + 2;

void AssertHeader(uint32_t size)
{
    // Not even a header: the framing below us is broken.
    ASSERT(size >= CtrlMsg::kHeaderSize);
}

// Bytes of protobuf behind the lead byte of a message of `size` bytes.
uint32_t ProtobufLength(uint32_t size)
{
    AssertHeader(size);
    return size > L2CtrlMsg::kPayloadOffset ? size - L2CtrlMsg::kPayloadOffset : 0;
}

}  // namespace

uint8_t* L2CtrlMsg::BuildSessionControl(uint16_t protocolId, uint8_t controlType, uint32_t vni)
{
    L2SessionParamMsg param;
    param.mutable_vn_instance()->set_vni(vni);
    const size_t size = param.ByteSizeLong();
    uint8_t* msg = CtrlMsg::New(kTypeSessionControl, protocolId, size + 1);
    msg[kControlTypeOffset] = controlType;
    param.SerializeToArray(msg + kPayloadOffset, static_cast<int>(size));
    return msg;
}

bool L2CtrlMsg::ParseSessionControl(const uint8_t* msg, uint32_t size, uint8_t& controlType,
                                    L2SessionParamMsg& param)
{
    const uint32_t length = ProtobufLength(size);
    if (size == CtrlMsg::kHeaderSize) {
        return false;
    }
    controlType = msg[kControlTypeOffset];
    return param.ParseFromArray(length > 0 ? msg + kPayloadOffset : nullptr, static_cast<int>(length));
}

uint8_t* L2CtrlMsg::BuildUpdate(uint16_t protocolId, const L2UpdateMsg& update)
{
    const size_t size = update.ByteSizeLong();
    const size_t total = size + kPayloadOffset;
    uint8_t* msg = CtrlMsg::AllocBuffer(total);
    CtrlMsg::WriteHeader(msg, 0, CtrlMsg::kUnstampedSessionId, kTypeUpdate, static_cast<uint16_t>(total),
                         protocolId);
    msg[CtrlMsg::kHeaderSize] = 0;
    update.SerializeToArray(msg + kPayloadOffset, static_cast<int>(size));
    return msg;
}

CtrlMsgFragmenter::Frames L2CtrlMsg::UpdateFrames(uint16_t protocolId, const L2UpdateMsg& update,
                                                  uint16_t maxPktLen)
{
    if (update.ByteSizeLong() + kPayloadOffset <= maxPktLen) {
        CtrlMsgFragmenter::Frames frames;
        frames.emplace_back(BuildUpdate(protocolId, update));
        return frames;
    }
    const std::string bytes = update.SerializeAsString();
    return CtrlMsgFragmenter::FragmentBody(kTypeUpdate, protocolId, 0, reinterpret_cast<const uint8_t*>(bytes.data()),
                                           bytes.size(), maxPktLen);
}

bool L2CtrlMsg::ParseUpdate(const uint8_t* msg, uint32_t size, L2UpdateMsg& update, uint32_t& protobufLength)
{
    protobufLength = ProtobufLength(size);
    return update.ParseFromArray(protobufLength > 0 ? msg + kPayloadOffset : nullptr,
                                 static_cast<int>(protobufLength));
}

bool L2CtrlMsg::ParseNotification(const uint8_t* msg, uint32_t size, Notification& out)
{
    AssertHeader(size);
    if (size < kNotificationSize) {
        return false;
    }
    out.error = TlvCommon::GetBe16(msg + kErrorOffset);
    out.sub = TlvCommon::GetBe16(msg + kSubOffset);
    out.vni = TlvCommon::GetBe32(msg + kVniOffset);
    return true;
}

bool L2CtrlMsg::AcceptNotification(const std::string& appName, const Notification& notification,
                                   std::initializer_list<uint16_t> knownSubs)
{
    FLOG_VERBOSE("%1: notification from controller error/sub:%2/%3", appName, notification.error, notification.sub);
    if (notification.error != kErrorVni) {
        FLOG_ERROR("%1: error/sub:%2/%3 need handler", appName, notification.error, notification.sub)
            .AddTag("errorCode:LCP00409");
        return false;
    }
    if (std::find(knownSubs.begin(), knownSubs.end(), notification.sub) == knownSubs.end()) {
        FLOG_ERROR("%1: error/sub %2/%3 need handler", appName, notification.error, notification.sub)
            .AddTag("errorCode:LCP00409");
        return false;
    }
    return true;
}

bool L2CtrlMsg::IsVniEntryAdd(const L2MappingUpdateMsg& mapping, const std::string& appName)
{
    if (mapping.items_size() == 0) {
        FLOG_WARNING("%1: entry of VNI %2 has no item, reading the default item", appName,
                     mapping.vn_instance().vni());
        return com::corvid::zun::l2::L2UpdateMappingItemMsg::default_instance().op() ==
               com::corvid::zun::l2::L2UpdateMappingItemMsg::ADD;
    }
    return mapping.items(0).op() == com::corvid::zun::l2::L2UpdateMappingItemMsg::ADD;
}

}  // namespace FenREL
