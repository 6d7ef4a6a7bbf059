#include "ExtendedApp.h"

#include "Logger.h"
#include "TlvCommon.h"

namespace ZUNChannel {

namespace {
constexpr size_t kFeatureHeaderLen = FenREL::TlvCommon::kHeaderLen + 1;  // TLV header and version
}  // namespace

uint16_t ExtendedApp::WriteHelloFeature(uint8_t* buffer)
{
    const uint16_t dataLen = WriteFeatureData(buffer + kFeatureHeaderLen);
    const uint16_t length = static_cast<uint16_t>(kFeatureHeaderLen + dataLen);
    FenREL::TlvCommon::PutBe16(buffer, _id);
    FenREL::TlvCommon::PutBe16(buffer + 2, length);
    buffer[4] = GetVersion();
    return length;
}

bool ExtendedApp::ValidateHelloFeature(const uint8_t* tlv, bool strict)
{
    if (strict) {
        const uint8_t peerVersion =
            FenREL::TlvCommon::Length(tlv) >= kFeatureHeaderLen ? tlv[4] : 0;
        if (peerVersion != GetVersion()) {
            FLOG_ERROR("%1: current app version is %2, not support version %3", _name,
                       static_cast<unsigned>(GetVersion()), static_cast<unsigned>(peerVersion))
                .AddTag("errorCode:LCP00009");
            return false;
        }
    }
    return CheckFeatureData(tlv);
}

}  // namespace ZUNChannel
