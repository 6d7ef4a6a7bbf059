#include "CoreApp.h"

#include <cstring>
#include <vector>

#include "AppManager.h"
#include "Assert.h"
#include "Configuration.h"
#include "CtrlConn.h"
#include "CtrlConnEvent.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "ShardingMgr.h"
#include "TlvCommon.h"

namespace ZUNChannel {

using FenREL::TlvCommon;

namespace {

boost::intrusive_ptr<CoreApp> s_coreApp;
constexpr size_t kHelloFlagsOffset = CtrlMsg::kHeaderSize;
constexpr size_t kHelloTlvOffset = CtrlMsg::kHeaderSize + 1;
constexpr size_t kUuidTlvLen = TlvCommon::kHeaderLen + 16;

}  // namespace

CoreApp::CoreApp() : App(APP_ID_CORE, 0, "Core")
{
}

void CoreApp::Init()
{
    ASSERT(!s_coreApp);
    s_coreApp.reset(new CoreApp());
}

boost::intrusive_ptr<CoreApp> CoreApp::Get()
{
    ASSERT(s_coreApp);
    return s_coreApp;
}

void CoreApp::Destroy()
{
    if (s_coreApp) {
        s_coreApp->Stop();
    }
    s_coreApp.reset();
}

void CoreApp::Start()
{
    FLOG_INFO("Starting CoreApp");
    if (_checkConnectionTimer) {
        // The wording is the one operators know, though the timer exists here.
        FLOG_VERBOSE("%1: checkConnectionTimer is null", _name);
        return;
    }
    _checkConnectionTimer = AsyncTimer<CoreApp>::Create(this, &CoreApp::CheckKeepAlive);
    FLOG_VERBOSE("%1: scheduling CheckKeepAlive in %2 seconds", _name, _keepAliveCheckIntervalUs / 1000000);
    _checkConnectionTimer->Start(_keepAliveCheckIntervalUs);
}

void CoreApp::Stop()
{
    if (_checkConnectionTimer) {
        _checkConnectionTimer->Stop();
        _checkConnectionTimer.reset();
    }
}

uint8_t* CoreApp::BuildHello(uint32_t instance)
{
    boost::intrusive_ptr<AppManager> manager = AppManager::Get();
    const uint16_t featureLen = manager->GetHelloFeatureLen(instance);
    const size_t featureTlvLen = featureLen > 0 ? TlvCommon::kHeaderLen + featureLen : 0;
    const size_t bodyLen = 1 + featureTlvLen + kUuidTlvLen;
    uint8_t* hello = CtrlMsg::New(CtrlMsg::kTypeHello, APP_ID_CORE, bodyLen);
    uint8_t* cursor = hello + kHelloFlagsOffset;
    *cursor++ = kStrictVersion;
    if (featureLen > 0) {
        TlvCommon::PutBe16(cursor, kTlvFeatureList);
        TlvCommon::PutBe16(cursor + 2, static_cast<uint16_t>(featureTlvLen));
        const uint16_t written = manager->WriteHelloFeatures(cursor + TlvCommon::kHeaderLen, instance);
        // What the applications write must be what they announced.
        ASSERT(written == featureLen);
        cursor += featureTlvLen;
    }
    const UUID node = Configuration::GetNodeUuid(instance);
    TlvCommon::WriteU128(cursor, kTlvNodeUuid, node.GetBytes().data());
    return hello;
}

void CoreApp::SendHello(const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    boost::intrusive_ptr<CtrlConnPool> pool = CtrlConnPool::Get();
    if (!pool->SendMsg(key, BuildHello(key.instance))) {
        pool->Reset(key);
        return;
    }
    pool->SetHelloFlag(key, CtrlConn::kHelloSent);
    FLOG_VERBOSE("%1: Hello sent: %2", _name, key);
    // Our hello goes out before the first read, so it cannot find the
    // connection already ready.
    ASSERT(!pool->IsReady(key));
}

void CoreApp::HandleMsg(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    switch (CtrlMsg::Type(message)) {
    case CtrlMsg::kTypeHello:
        FLOG_VERBOSE("%1: Recvd HELLO from %2", _name, key);
        HandleHello(message, size, key);
        break;
    case CtrlMsg::kTypeKeepAlive:
        // The reception itself already cleared the connection's idle count.
        FLOG_TRIVIA("%1: Recvd KeepAlive from %2", _name, key);
        break;
    default:
        FLOG_VERBOSE("%1: Recvd unknown message type %2 from %3", _name, CtrlMsg::Type(message), key);
        break;
    }
}

void CoreApp::HandleHello(const uint8_t* message, uint32_t size, const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    boost::intrusive_ptr<CtrlConnPool> pool = CtrlConnPool::Get();
    uint16_t maxPktLen = pool->GetMaxPktLen();
    uint16_t keepAliveInterval = pool->GetKeepAliveInterval();
    uint16_t msgRate = static_cast<uint16_t>(pool->GetMsgRate(key));
    uint32_t sliceLength = ShardingMgr::Get()->GetSliceLength();
    uint8_t uuid[16] = {0};

    const uint8_t version = CtrlMsg::Version(message);
    if (version == 0) {
        FLOG_ERROR("%1: controller %2 version is below agent version and it is not supported", _name, key)
            .AddTag("errorCode:LCP00301");
        return;
    }
    if (version >= 2) {
        FLOG_ERROR("%1: controller %2 version is above agent version, waiting for controller's new Hello", _name,
                   key)
            .AddTag("errorCode:LCP00301");
        return;
    }

    const bool strict = size > kHelloFlagsOffset && (message[kHelloFlagsOffset] & kStrictVersion) != 0;
    const uint8_t* list = message + kHelloTlvOffset;
    const size_t listLen = size > kHelloTlvOffset ? size - kHelloTlvOffset : 0;
    const uint8_t* end = list + listLen;
    std::vector<const uint8_t*> features;
    for (const uint8_t* tlv = TlvCommon::First(list, listLen); tlv != nullptr; tlv = TlvCommon::Next(tlv, end)) {
        const uint16_t type = TlvCommon::Type(tlv);
        switch (type) {
        case kTlvFeatureList: {
            const uint8_t* nested = TlvCommon::Value(tlv);
            const size_t nestedLen = TlvCommon::ValueLength(tlv);
            for (const uint8_t* feature = TlvCommon::First(nested, nestedLen); feature != nullptr;
                 feature = TlvCommon::Next(feature, nested + nestedLen)) {
                if (!AppManager::Get()->ValidateHelloFeature(feature, strict, key.instance)) {
                    FLOG_ERROR("%1: Invalid feature param data from %2", _name, key).AddTag("errorCode:LCP00302");
                    return;
                }
                features.push_back(feature);
            }
            break;
        }
        case kTlvMaxPktLen:
            if (!TlvCommon::ReadU16(tlv, maxPktLen)) {
                FLOG_ERROR("%1: Invalid Max Pkt Len payload from %2", _name, key).AddTag("errorCode:LCP00303");
                return;
            }
            FLOG_VERBOSE("%1: Max Pkt Len of peer %2: %3", _name, key, maxPktLen);
            break;
        case kTlvKeepAliveInterval:
            if (!TlvCommon::ReadU16(tlv, keepAliveInterval)) {
                FLOG_ERROR("%1: Invalid KeepAlive Interval from %2", _name, key).AddTag("errorCode:LCP00304");
                return;
            }
            FLOG_VERBOSE("%1: KeepAlive Interval of peer %2: %3", _name, key, keepAliveInterval);
            break;
        case kTlvMsgFrequency:
            if (!TlvCommon::ReadU16(tlv, msgRate)) {
                FLOG_ERROR("%1: Invalid Msg Frequency from %2", _name, key).AddTag("errorCode:LCP00305");
                return;
            }
            FLOG_VERBOSE("%1: Msg Frequency of peer %2: %3", _name, key, msgRate);
            break;
        case kTlvSliceLength:
            if (!TlvCommon::ReadU32(tlv, sliceLength)) {
                FLOG_ERROR("%1: Invalid Sharding slice length payload from %2", _name, key);
                return;
            }
            FLOG_VERBOSE("%1: ShardingSlice length of peer %2: %3", _name, key, sliceLength);
            break;
        case kTlvNodeUuid:
            if (!TlvCommon::ReadU128(tlv, uuid)) {
                FLOG_ERROR("%1: Invalid node UUID length payload from %2", _name, key).AddTag("errorCode:LCP00306");
                return;
            }
            FLOG_VERBOSE("%1: Node UUID of peer %2: %3", _name, key, UUID::FromBytes(uuid));
            break;
        default:
            FLOG_WARNING("%1: Unknown data type for hello message: %2: %3", _name, key, type);
            break;
        }
    }

    // The whole list is good: apply it.
    pool->SetMaxPktLen(maxPktLen);
    pool->SetMsgRate(key, msgRate);
    pool->SetControllerUuid(key, UUID::FromBytes(uuid));
    ShardingMgr::Get()->SetSliceLength(sliceLength);
    if (keepAliveInterval != pool->GetKeepAliveInterval()) {
        FLOG_VERBOSE("%1: reset keepAlive timer", _name);
        pool->SetKeepAliveInterval(keepAliveInterval);
        // Up to 65535 s: a quarter of that in microseconds needs 64 bits.
        _keepAliveCheckIntervalUs = int64_t{keepAliveInterval} * 1000000 / _keepAliveCheckDiv;
        if (_checkConnectionTimer) {
            _checkConnectionTimer->Cancel();
            _checkConnectionTimer->Start(_keepAliveCheckIntervalUs);
        }
    }
    for (const uint8_t* feature : features) {
        AppManager::Get()->ApplyHelloFeature(feature, key.instance);
    }

    if (!pool->IsReady(key)) {
        pool->SetHelloFlag(key, CtrlConn::kHelloReceived);
        ReadyStep(key);
    } else {
        FLOG_VERBOSE("%1: received duplicated hello from controller %2", _name, key);
    }
}

void CoreApp::ReadyStep(const ConnKey& key)
{
    ASSERT(IsLockAvailable());
    if (CtrlConnPool::Get()->GetHelloFlags(key) == CtrlConn::kReady) {
        AppManager::Get()->PostEvent(new CtrlConnEvent(key, false));
        FLOG_VERBOSE("%1: Controller is ready: %2", _name, key);
    }
}

void CoreApp::CheckKeepAlive()
{
    GlobalLockGuard lock;
    boost::intrusive_ptr<CtrlConnPool> pool = CtrlConnPool::Get();
    for (const auto& entry : pool->GetConnections()) {
        const boost::intrusive_ptr<CtrlConn>& conn = entry.second;
        if (conn->GetState() != CtrlConn::CONN_CONNECTED) {
            continue;
        }
        if (++conn->RxIdleTicks() >= 3 * _keepAliveCheckDiv) {
            FLOG_VERBOSE("%1: no KeepAlive, connection %2 is reset by agent", _name, entry.first);
            pool->SetConnStatus(entry.first, "keep_alive_timeout");
            conn->Reset();
            continue;
        }
        if (conn->IsReady() && ++conn->TxIdleTicks() >= _keepAliveCheckDiv) {
            if (conn->SendMsg(CtrlMsg::BuildKeepAlive())) {
                FLOG_TRIVIA("%1: send keepAlive message to %2", _name, entry.first);
            } else {
                FLOG_VERBOSE("%1: failed to send keepAlive message to %2", _name, entry.first);
            }
        }
    }
    if (_checkConnectionTimer) {
        _checkConnectionTimer->Start(_keepAliveCheckIntervalUs);
    }
}

}  // namespace ZUNChannel
