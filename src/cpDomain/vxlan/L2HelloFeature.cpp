#include "L2HelloFeature.h"

#include "Assert.h"
#include "CtrlMsg.h"
#include "Logger.h"
#include "TlvCommon.h"

namespace FenREL {

namespace {

// The feature head: type, length, version.
constexpr size_t kFeatureHeadLen = TlvCommon::kHeaderLen + 1;
constexpr size_t kFreqCtrlLen = 6;
constexpr size_t kAgeingLen = 2;

// Calls `visit(tlv)` for each nested TLV of a feature until it returns false.
// A feature shorter than 6 bytes carries no data.
template <typename Visit>
void ForEachNested(const uint8_t* feature, Visit visit)
{
    const uint16_t length = TlvCommon::Length(feature);
    if (length <= kFeatureHeadLen) {
        return;
    }
    const uint8_t* end = feature + length;
    for (const uint8_t* tlv = TlvCommon::First(feature + kFeatureHeadLen, length - kFeatureHeadLen); tlv != nullptr;
         tlv = TlvCommon::Next(tlv, end)) {
        if (!visit(tlv)) {
            return;
        }
    }
}

uint16_t ValueAt(const uint8_t* tlv, size_t index)
{
    return TlvCommon::GetBe16(TlvCommon::Value(tlv) + 2 * index);
}

}  // namespace

bool L2HelloFeature::Params::operator==(const Params& other) const
{
    return maxPktLen == other.maxPktLen && freqCtrlPeriod == other.freqCtrlPeriod &&
           freqCtrlQuery == other.freqCtrlQuery && freqCtrlUpdate == other.freqCtrlUpdate &&
           bteAgeingTime == other.bteAgeingTime && arpAgeingTime == other.arpAgeingTime;
}

uint16_t L2HelloFeature::WriteFeatureData(uint8_t* buffer, const std::string& appName)
{
    FLOG_VERBOSE("%1: build hello parameter and enable proactive mode", appName);
    return static_cast<uint16_t>(TlvCommon::Write(buffer, kTypeProactiveMode, &kProactiveMode, 1));
}

bool L2HelloFeature::CheckFeatureData(const uint8_t* feature, const std::string& appName)
{
    bool valid = true;
    ForEachNested(feature, [&](const uint8_t* tlv) {
        const uint16_t type = TlvCommon::Type(tlv);
        const size_t length = TlvCommon::ValueLength(tlv);
        switch (type) {
        case kTypeFreqCtrl:
            if (length < kFreqCtrlLen) {
                FLOG_ERROR("%1: Invalid frequency control payload", appName).AddTag("errorCode:LCP00401");
                valid = false;
                break;
            }
            FLOG_VERBOSE("%1: received freqCtrlPeriod %2 freqCtrlQuery %3 freqCtrlUpdate %4", appName,
                         ValueAt(tlv, 0), ValueAt(tlv, 1), ValueAt(tlv, 2));
            break;
        case kTypeMacAgeing:
            if (length < kAgeingLen) {
                FLOG_ERROR("%1: Invalid mac table aging payload", appName).AddTag("errorCode:LCP00402");
                valid = false;
                break;
            }
            FLOG_VERBOSE("%1: received bteAgeingTime %2", appName, ValueAt(tlv, 0));
            break;
        case kTypeArpAgeing:
            if (length < kAgeingLen) {
                FLOG_ERROR("%1: Invalid arp table aging payload", appName).AddTag("errorCode:LCP00403");
                valid = false;
                break;
            }
            FLOG_VERBOSE("%1: received arpAgeingTime %2", appName, ValueAt(tlv, 0));
            break;
        default:
            FLOG_VERBOSE("%1: Unknown feature data type in hello message: %2", appName, type);
            break;
        }
        return valid;
    });
    return valid;
}

void L2HelloFeature::ApplyHelloFeature(const uint8_t* feature, uint16_t poolMaxPktLen, const std::string& appName)
{
    FLOG_VERBOSE(
        "%1: current parameters maxPktLen %2 freqCtrlPeriod %3 freqCtrlQuery %4 freqCtrlUpdate %5 bteAgeingTime %6 "
        "arpAgeingTime %7",
        appName, _params.maxPktLen, _params.freqCtrlPeriod, _params.freqCtrlQuery, _params.freqCtrlUpdate,
        _params.bteAgeingTime, _params.arpAgeingTime);
    Params next = _params;
    // CheckFeatureData has passed; a short value is still never read.
    ForEachNested(feature, [&next](const uint8_t* tlv) {
        const size_t length = TlvCommon::ValueLength(tlv);
        switch (TlvCommon::Type(tlv)) {
        case kTypeFreqCtrl:
            if (length >= kFreqCtrlLen) {
                next.freqCtrlPeriod = ValueAt(tlv, 0);
                next.freqCtrlQuery = ValueAt(tlv, 1);
                next.freqCtrlUpdate = ValueAt(tlv, 2);
            }
            break;
        case kTypeMacAgeing:
            if (length >= kAgeingLen) {
                next.bteAgeingTime = ValueAt(tlv, 0);
            }
            break;
        case kTypeArpAgeing:
            if (length >= kAgeingLen) {
                next.arpAgeingTime = ValueAt(tlv, 0);
            }
            break;
        default:
            break;
        }
        return true;
    });
    // A frame limit that holds no update byte: the hello's own check failed.
    ASSERT(poolMaxPktLen >= ZUNChannel::CtrlMsg::kHeaderSize + 1);
    next.maxPktLen = static_cast<uint16_t>(poolMaxPktLen - 16);
    if (next == _params) {
        return;
    }
    _params = next;
    FLOG_VERBOSE(
        "%1: apply new parameters maxPktLen %2 freqCtrlPeriod %3 freqCtrlQuery %4 freqCtrlUpdate %5 bteAgeingTime %6 "
        "arpAgeingTime %7",
        appName, _params.maxPktLen, _params.freqCtrlPeriod, _params.freqCtrlQuery, _params.freqCtrlUpdate,
        _params.bteAgeingTime, _params.arpAgeingTime);
}

}  // namespace FenREL
