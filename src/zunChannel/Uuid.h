#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace ZUNChannel {

// A 128-bit identifier held as 16 bytes, most significant first. Its text
// forms are lower-case hexadecimal, dashed 8-4-4-4-12 or without dashes.
class UUID {
public:
    using Bytes = std::array<uint8_t, 16>;

    UUID() { _bytes.fill(0); }
    explicit UUID(const Bytes& bytes) : _bytes(bytes) {}

    static UUID FromBytes(const uint8_t* bytes);
    // The two 64-bit halves of a UuidMsg, `left` the most significant.
    static UUID FromHalves(uint64_t left, uint64_t right);
    // Reads the dashed form (and tolerates the undashed one and braces).
    // Logs "UUID FromString failed, error: %1" and returns false on bad text.
    static bool FromString(const std::string& text, UUID& out);

    std::string ToString() const;
    std::string ToStringNoDash() const;

    uint64_t GetLeft() const;
    uint64_t GetRight() const;
    const Bytes& GetBytes() const { return _bytes; }
    bool IsNil() const;

    bool operator==(const UUID& other) const { return _bytes == other._bytes; }
    bool operator!=(const UUID& other) const { return _bytes != other._bytes; }
    bool operator<(const UUID& other) const { return _bytes < other._bytes; }

private:
    Bytes _bytes;
};

inline std::string ToLogArg(const UUID& uuid) { return uuid.ToString(); }

}  // namespace ZUNChannel
