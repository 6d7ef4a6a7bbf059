#include "Hello.h"

#include <algorithm>
#include <cstdio>

#include "Hex.h"
#include "TlvCodec.h"

namespace CtrlSim {

namespace {

Bytes Value16(uint16_t value)
{
    Bytes bytes;
    Append16(bytes, value);
    return bytes;
}

Bytes Value32(uint32_t value)
{
    Bytes bytes;
    Append32(bytes, value);
    return bytes;
}

bool TooShort(const Tlv& tlv, size_t needed, std::string& error)
{
    if (tlv.value.size() >= needed) {
        return false;
    }
    error = "TLV " + std::to_string(tlv.type) + " has " + std::to_string(tlv.value.size()) + " value bytes, needs " +
            std::to_string(needed);
    return true;
}

bool TakeValue(const Tlv& tlv, std::optional<uint16_t>& field, std::string& error)
{
    if (TooShort(tlv, 2, error)) {
        return false;
    }
    field = Read16(tlv.value.data());
    return true;
}

bool TakeValue(const Tlv& tlv, std::optional<uint32_t>& field, std::string& error)
{
    if (TooShort(tlv, 4, error)) {
        return false;
    }
    field = Read32(tlv.value.data());
    return true;
}

bool TakeValue(const Tlv& tlv, std::optional<Uuid>& field, std::string& error)
{
    if (TooShort(tlv, 16, error)) {
        return false;
    }
    Uuid uuid;
    std::copy_n(tlv.value.begin(), uuid.size(), uuid.begin());
    field = uuid;
    return true;
}

bool DecodeFeatures(const Bytes& list, std::vector<HelloFeature>& out, std::string& error)
{
    const auto tlvs = TlvCodec::Parse(list.data(), list.size(), &error);
    if (!tlvs) {
        error = "feature list: " + error;
        return false;
    }
    for (const Tlv& tlv : *tlvs) {
        if (tlv.value.empty()) {
            error = "feature " + std::to_string(tlv.type) + " has no version byte";
            return false;
        }
        out.push_back(HelloFeature{tlv.type, tlv.value[0], Bytes(tlv.value.begin() + 1, tlv.value.end())});
    }
    return true;
}

}  // namespace

Hello Hello::ControllerDefault()
{
    Hello hello;
    hello.maxPktLen = 4096;
    hello.keepAliveInterval = 10;
    hello.msgFrequency = 200;
    hello.shardingSliceLength = 1u << 22;
    hello.nodeUuid = Uuid{0xc7, 0x12, 0x5a, 0x00, 0x00, 0x00, 0x40, 0x00,
                          0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
    return hello;
}

Bytes Hello::Body() const
{
    Bytes body{helloFlags};
    if (!features.empty()) {
        Bytes list;
        for (const HelloFeature& feature : features) {
            Bytes value{feature.version};
            value.insert(value.end(), feature.data.begin(), feature.data.end());
            TlvCodec::Append(list, feature.appId, value);
        }
        TlvCodec::Append(body, HelloTlv::FeatureList, list);
    }
    if (maxPktLen) {
        TlvCodec::Append(body, HelloTlv::MaxPktLen, Value16(*maxPktLen));
    }
    if (keepAliveInterval) {
        TlvCodec::Append(body, HelloTlv::KeepAliveInterval, Value16(*keepAliveInterval));
    }
    if (msgFrequency) {
        TlvCodec::Append(body, HelloTlv::MsgFrequency, Value16(*msgFrequency));
    }
    if (shardingSliceLength) {
        TlvCodec::Append(body, HelloTlv::ShardingSliceLength, Value32(*shardingSliceLength));
    }
    if (nodeUuid) {
        TlvCodec::Append(body, HelloTlv::NodeUuid, Bytes(nodeUuid->begin(), nodeUuid->end()));
    }
    body.insert(body.end(), extraTlvs.begin(), extraTlvs.end());
    return body;
}

OutMessage Hello::ToMessage() const
{
    OutMessage msg;
    msg.type = MsgType::Hello;
    msg.protocolId = CoreProtocolId;
    msg.version = version;
    msg.body = Body();
    return msg;
}

std::optional<Hello> Hello::Decode(const Message& msg, std::string* error)
{
    std::string why;
    const auto fail = [&](const std::string& reason) {
        if (error != nullptr) {
            *error = reason;
        }
        return std::nullopt;
    };
    if (msg.body.empty()) {
        return fail("hello without helloFlags");
    }
    Hello hello;
    hello.version = msg.header.version;
    hello.helloFlags = msg.body[0];
    const auto tlvs = TlvCodec::Parse(msg.body.data() + 1, msg.body.size() - 1, &why);
    if (!tlvs) {
        return fail(why);
    }
    for (const Tlv& tlv : *tlvs) {
        bool good = true;
        switch (tlv.type) {
        case HelloTlv::FeatureList:
            good = DecodeFeatures(tlv.value, hello.features, why);
            break;
        case HelloTlv::MaxPktLen:
            good = TakeValue(tlv, hello.maxPktLen, why);
            break;
        case HelloTlv::KeepAliveInterval:
            good = TakeValue(tlv, hello.keepAliveInterval, why);
            break;
        case HelloTlv::MsgFrequency:
            good = TakeValue(tlv, hello.msgFrequency, why);
            break;
        case HelloTlv::ShardingSliceLength:
            good = TakeValue(tlv, hello.shardingSliceLength, why);
            break;
        case HelloTlv::NodeUuid:
            good = TakeValue(tlv, hello.nodeUuid, why);
            break;
        default:
            TlvCodec::Append(hello.extraTlvs, tlv.type, tlv.value);
            break;
        }
        if (!good) {
            return fail(why);
        }
    }
    return hello;
}

std::string Hello::ToString() const
{
    char head[32];
    snprintf(head, sizeof(head), "v%u flags 0x%02x", version, helloFlags);
    std::string text = head;
    if (maxPktLen) {
        text += " maxPktLen " + std::to_string(*maxPktLen);
    }
    if (keepAliveInterval) {
        text += " keepAlive " + std::to_string(*keepAliveInterval);
    }
    if (msgFrequency) {
        text += " msgFrequency " + std::to_string(*msgFrequency);
    }
    if (shardingSliceLength) {
        text += " slice " + std::to_string(*shardingSliceLength);
    }
    if (nodeUuid) {
        text += " uuid " + UuidToString(*nodeUuid);
    }
    if (!features.empty()) {
        text += " features";
        for (const HelloFeature& feature : features) {
            text += " " + std::to_string(feature.appId) + ":v" + std::to_string(feature.version) + ":" +
                    ToHex(feature.data);
        }
    }
    if (!extraTlvs.empty()) {
        text += " extra " + ToHex(extraTlvs);
    }
    return text;
}

std::string UuidToString(const Uuid& uuid)
{
    const std::string hex = ToHex(uuid.data(), uuid.size());
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" + hex.substr(16, 4) + "-" +
           hex.substr(20);
}

}  // namespace CtrlSim
