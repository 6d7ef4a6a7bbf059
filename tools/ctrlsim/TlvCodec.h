#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Bytes.h"

namespace CtrlSim {

// One TLV: 2 bytes type, 2 bytes length of the whole TLV (these 4 included),
// then the value; big-endian, back to back in a list, no padding.
struct Tlv {
    uint16_t type = 0;
    Bytes value;
};

class TlvCodec {
public:
    // Appends one TLV to `out`. Throws std::invalid_argument when the value
    // does not fit the 16-bit length.
    static void Append(Bytes& out, uint16_t type, const Bytes& value);

    // Reads a whole list. A TLV shorter than its own 4 header bytes, or
    // reaching past the end of the list, gives nullopt with the reason in
    // `error` (when given).
    static std::optional<std::vector<Tlv>> Parse(const uint8_t* data, size_t size, std::string* error = nullptr);
};

}  // namespace CtrlSim
