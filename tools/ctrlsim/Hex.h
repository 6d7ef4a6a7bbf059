#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Bytes.h"

namespace CtrlSim {

// Lower-case hexadecimal, two digits a byte, no separators.
std::string ToHex(const uint8_t* data, size_t size);
std::string ToHex(const Bytes& bytes);

// Reads hexadecimal digits; spaces, ':' and '-' between bytes are ignored.
// Empty text gives no bytes; an odd digit count or another character gives nullopt.
std::optional<Bytes> FromHex(const std::string& text);

}  // namespace CtrlSim
