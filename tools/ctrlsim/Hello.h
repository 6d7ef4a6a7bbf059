#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Bytes.h"
#include "Frame.h"
#include "MessageWriter.h"

namespace CtrlSim {

// TLV types of a hello body.
namespace HelloTlv {
constexpr uint16_t FeatureList = 1;          // nested feature TLVs
constexpr uint16_t MaxPktLen = 2;            // 16-bit
constexpr uint16_t KeepAliveInterval = 3;    // 16-bit, seconds
constexpr uint16_t MsgFrequency = 4;         // 16-bit, messages per second
constexpr uint16_t ShardingSliceLength = 5;  // 32-bit
constexpr uint16_t NodeUuid = 6;             // 16 bytes
}  // namespace HelloTlv

// One application's entry in the feature list: a TLV whose type is the
// application id and whose value is a version byte, then the data.
struct HelloFeature {
    uint16_t appId = 0;
    uint8_t version = 1;
    Bytes data;
};

using Uuid = std::array<uint8_t, 16>;

// The content of a hello, either side's. Its body:
//
//   15          16
//   +-----------+----------------------------------------------+
//   | helloFlags| TLV list (feature list, 2..6, extra TLVs)    |
//   +-----------+----------------------------------------------+
//
// Each TLV is written only when set, in the order of the fields below.
struct Hello {
    static constexpr uint8_t StrictVersion = 0x80;  // helloFlags bit 7

    uint8_t version = 1;  // the header's version byte
    uint8_t helloFlags = StrictVersion;
    std::vector<HelloFeature> features;  // written only when not empty
    std::optional<uint16_t> maxPktLen;
    std::optional<uint16_t> keepAliveInterval;
    std::optional<uint16_t> msgFrequency;
    std::optional<uint32_t> shardingSliceLength;
    std::optional<Uuid> nodeUuid;
    // Bytes placed after the TLVs above as they stand: malformed or unknown
    // TLVs for the tests of the agent's hello handling.
    Bytes extraTlvs;

    // What a controller says by default: packet length 4096, keep-alive 10 s,
    // 200 messages per second, slices of 2^22 identifiers, and a fixed node UUID.
    static Hello ControllerDefault();

    Bytes Body() const;
    // The hello as a message: type 1, protocolID 0, the version above.
    OutMessage ToMessage() const;

    // Reads a received hello. A body without helloFlags, a TLV list that does
    // not parse, or a known TLV too short for its value gives nullopt with
    // the reason in `error` (when given). Unknown TLVs land in extraTlvs.
    static std::optional<Hello> Decode(const Message& msg, std::string* error = nullptr);

    // "v1 flags 0x80 maxPktLen 4096 ... uuid 01234567-89ab-... features 257:v1:"
    std::string ToString() const;
};

// The dashed lower-case text form of a UUID.
std::string UuidToString(const Uuid& uuid);

}  // namespace CtrlSim
