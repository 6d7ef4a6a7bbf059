#include "TlvCodec.h"

#include <stdexcept>

namespace CtrlSim {

namespace {

constexpr size_t TlvHeaderSize = 4;

}  // namespace

void TlvCodec::Append(Bytes& out, uint16_t type, const Bytes& value)
{
    const size_t length = TlvHeaderSize + value.size();
    if (length > 0xFFFF) {
        throw std::invalid_argument("TLV of type " + std::to_string(type) + " is too long");
    }
    Append16(out, type);
    Append16(out, static_cast<uint16_t>(length));
    out.insert(out.end(), value.begin(), value.end());
}

std::optional<std::vector<Tlv>> TlvCodec::Parse(const uint8_t* data, size_t size, std::string* error)
{
    std::vector<Tlv> list;
    size_t offset = 0;
    while (offset < size) {
        const auto fail = [&](const std::string& why) {
            if (error != nullptr) {
                *error = "TLV at offset " + std::to_string(offset) + ": " + why;
            }
            return std::nullopt;
        };
        if (size - offset < TlvHeaderSize) {
            return fail("only " + std::to_string(size - offset) + " bytes left");
        }
        const uint16_t type = Read16(data + offset);
        const uint16_t length = Read16(data + offset + 2);
        if (length < TlvHeaderSize) {
            return fail("type " + std::to_string(type) + " has length " + std::to_string(length));
        }
        if (length > size - offset) {
            return fail("type " + std::to_string(type) + " of length " + std::to_string(length) +
                        " passes the end of the list");
        }
        list.push_back(Tlv{type, Bytes(data + offset + TlvHeaderSize, data + offset + length)});
        offset += length;
    }
    return list;
}

}  // namespace CtrlSim
