#include "TlvCommon.h"

#include <cstring>

#include "Assert.h"

namespace FenREL {

const uint8_t* TlvCommon::First(const uint8_t* list, size_t len)
{
    if (len == 0 || list == nullptr) {
        return nullptr;
    }
    if (len == kHeaderLen) {
        return Length(list) <= kHeaderLen ? list : nullptr;
    }
    if (len < kHeaderLen) {
        // Not even a length to read.
        return nullptr;
    }
    // A first TLV longer than its whole list: the sender's framing is broken.
    ASSERT(Length(list) <= len);
    return list;
}

const uint8_t* TlvCommon::Next(const uint8_t* current, const uint8_t* end)
{
    const size_t length = Length(current);
    if (length == 0) {
        // A TLV of length 0 would be its own successor: the list ends here
        // rather than spinning on it.
        return nullptr;
    }
    // Sizes, not pointers, so that an overlong TLV never forms a pointer
    // beyond its buffer.
    const size_t remaining = static_cast<size_t>(end - current);
    // The current TLV itself must lie inside the list.
    ASSERT(length <= remaining);
    if (length == remaining) {
        return nullptr;
    }
    // The next TLV, header and value, must lie inside the list.
    const uint8_t* next = current + length;
    const size_t left = remaining - length;
    ASSERT(left >= kHeaderLen && Length(next) <= left);
    return next;
}

uint16_t TlvCommon::Type(const uint8_t* tlv)
{
    return GetBe16(tlv);
}

uint16_t TlvCommon::Length(const uint8_t* tlv)
{
    return GetBe16(tlv + 2);
}

size_t TlvCommon::ValueLength(const uint8_t* tlv)
{
    const uint16_t length = Length(tlv);
    return length > kHeaderLen ? length - kHeaderLen : 0;
}

bool TlvCommon::ReadU16(const uint8_t* tlv, uint16_t& out)
{
    if (Length(tlv) < kHeaderLen + 2) {
        return false;
    }
    out = GetBe16(Value(tlv));
    return true;
}

bool TlvCommon::ReadU32(const uint8_t* tlv, uint32_t& out)
{
    if (Length(tlv) < kHeaderLen + 4) {
        return false;
    }
    out = GetBe32(Value(tlv));
    return true;
}

bool TlvCommon::ReadU128(const uint8_t* tlv, uint8_t out[16])
{
    if (Length(tlv) < kHeaderLen + 16) {
        return false;
    }
    memcpy(out, Value(tlv), 16);
    return true;
}

size_t TlvCommon::Write(uint8_t* out, uint16_t type, const void* value, size_t valueLen)
{
    const size_t total = kHeaderLen + valueLen;
    PutBe16(out, type);
    PutBe16(out + 2, static_cast<uint16_t>(total));
    if (valueLen > 0) {
        memcpy(out + kHeaderLen, value, valueLen);
    }
    return total;
}

size_t TlvCommon::WriteU16(uint8_t* out, uint16_t type, uint16_t value)
{
    uint8_t be[2];
    PutBe16(be, value);
    return Write(out, type, be, sizeof(be));
}

size_t TlvCommon::WriteU32(uint8_t* out, uint16_t type, uint32_t value)
{
    uint8_t be[4];
    PutBe32(be, value);
    return Write(out, type, be, sizeof(be));
}

size_t TlvCommon::WriteU128(uint8_t* out, uint16_t type, const uint8_t value[16])
{
    return Write(out, type, value, 16);
}

}  // namespace FenREL
