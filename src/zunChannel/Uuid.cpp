#include "Uuid.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include "Logger.h"

namespace ZUNChannel {

UUID UUID::FromBytes(const uint8_t* bytes)
{
    Bytes value;
    memcpy(value.data(), bytes, value.size());
    return UUID(value);
}

UUID UUID::FromHalves(uint64_t left, uint64_t right)
{
    Bytes value;
    for (int i = 0; i < 8; ++i) {
        value[i] = static_cast<uint8_t>(left >> (56 - 8 * i));
        value[8 + i] = static_cast<uint8_t>(right >> (56 - 8 * i));
    }
    return UUID(value);
}

bool UUID::FromString(const std::string& text, UUID& out)
{
    try {
        const boost::uuids::uuid parsed = boost::uuids::string_generator()(text);
        out = FromBytes(parsed.data);
        return true;
    } catch (const std::exception& error) {
        FLOG_ERROR("UUID FromString failed, error: %1", error.what());
        return false;
    }
}

std::string UUID::ToString() const
{
    char text[37];
    const uint8_t* b = _bytes.data();
    int written = snprintf(text, sizeof(text),
                           "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0],
                           b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                           b[14], b[15]);
    if (written != 36) {
        FLOG_ERROR("UUID ToString failed, error: %1", written);
        return std::string();
    }
    return text;
}

std::string UUID::ToStringNoDash() const
{
    std::string dashed = ToString();
    std::string plain;
    plain.reserve(32);
    for (char c : dashed) {
        if (c != '-') {
            plain += c;
        }
    }
    return plain;
}

uint64_t UUID::GetLeft() const
{
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8) | _bytes[i];
    }
    return value;
}

uint64_t UUID::GetRight() const
{
    uint64_t value = 0;
    for (int i = 8; i < 16; ++i) {
        value = (value << 8) | _bytes[i];
    }
    return value;
}

bool UUID::IsNil() const
{
    for (uint8_t byte : _bytes) {
        if (byte != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace ZUNChannel
