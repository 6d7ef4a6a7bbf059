#pragma once

#include <cstddef>
#include <cstdint>

namespace FenREL {

// Type-length-value items placed back to back, big-endian, no padding:
//
//   0      2        4
//   +------+--------+------------------------+
//   | type | length | value (length - 4)     |
//   +------+--------+------------------------+
//
// `length` counts the 4 header bytes. Used in hello messages (nested: a
// feature list TLV holds feature TLVs, which may hold TLV lists) and in the
// router's kernel messages.
//
// The iterator asserts on a TLV that claims more bytes than its list holds:
// those assertions stand in the path of peer data on purpose.
class TlvCommon {
public:
    static constexpr size_t kHeaderLen = 4;

    // The first TLV of a list of `len` bytes, or null when there is none.
    static const uint8_t* First(const uint8_t* list, size_t len);
    // The TLV behind `current`, or null at `end`. A TLV of length 0 ends the
    // list; any other length, however short, is stepped over as it stands.
    static const uint8_t* Next(const uint8_t* current, const uint8_t* end);

    static uint16_t Type(const uint8_t* tlv);
    static uint16_t Length(const uint8_t* tlv);
    static const uint8_t* Value(const uint8_t* tlv) { return tlv + kHeaderLen; }
    // Bytes of value, 0 for a TLV shorter than its header.
    static size_t ValueLength(const uint8_t* tlv);

    // Typed values need a length of at least 6, 8 and 20; false otherwise.
    static bool ReadU16(const uint8_t* tlv, uint16_t& out);
    static bool ReadU32(const uint8_t* tlv, uint32_t& out);
    // A 128-bit value: two 64-bit big-endian halves, most significant first.
    static bool ReadU128(const uint8_t* tlv, uint8_t out[16]);

    // Write one TLV at `out` and return its total length.
    static size_t Write(uint8_t* out, uint16_t type, const void* value, size_t valueLen);
    static size_t WriteU16(uint8_t* out, uint16_t type, uint16_t value);
    static size_t WriteU32(uint8_t* out, uint16_t type, uint32_t value);
    static size_t WriteU128(uint8_t* out, uint16_t type, const uint8_t value[16]);

    static uint16_t GetBe16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
    static uint32_t GetBe32(const uint8_t* p)
    {
        return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
               (static_cast<uint32_t>(p[2]) << 8) | p[3];
    }
    static void PutBe16(uint8_t* p, uint16_t v)
    {
        p[0] = static_cast<uint8_t>(v >> 8);
        p[1] = static_cast<uint8_t>(v);
    }
    static void PutBe32(uint8_t* p, uint32_t v)
    {
        p[0] = static_cast<uint8_t>(v >> 24);
        p[1] = static_cast<uint8_t>(v >> 16);
        p[2] = static_cast<uint8_t>(v >> 8);
        p[3] = static_cast<uint8_t>(v);
    }
};

}  // namespace FenREL
