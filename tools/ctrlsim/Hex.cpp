#include "Hex.h"

namespace CtrlSim {

namespace {

int DigitValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::string ToHex(const uint8_t* data, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        text.push_back(digits[data[i] >> 4]);
        text.push_back(digits[data[i] & 0x0F]);
    }
    return text;
}

std::string ToHex(const Bytes& bytes)
{
    return ToHex(bytes.data(), bytes.size());
}

std::optional<Bytes> FromHex(const std::string& text)
{
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ' ' || c == ':' || c == '-') {
            if (high >= 0) {
                return std::nullopt;  // a separator inside a byte
            }
            continue;
        }
        const int value = DigitValue(c);
        if (value < 0) {
            return std::nullopt;
        }
        if (high < 0) {
            high = value;
        } else {
            bytes.push_back(static_cast<uint8_t>((high << 4) | value));
            high = -1;
        }
    }
    if (high >= 0) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace CtrlSim
