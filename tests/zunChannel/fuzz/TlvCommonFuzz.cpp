// Fuzz target of the TLV iterator: the input is a TLV list as a controller's
// hello carries it, walked as the hello handler walks it, with type 1 holding
// a nested list (the feature list). Every TLV visited must lie inside its
// list, every walk must end, and the typed readers must accept exactly the
// lengths that hold their value. A TLV longer than its list ASSERTs: an
// allowed outcome, which ends the input cleanly.

#include <cstdint>

#include "FuzzSupport.h"
#include "TlvCommon.h"

namespace {

using FenREL::TlvCommon;

constexpr int kMaxDepth = 4;

void Walk(const uint8_t* list, size_t len, int depth)
{
    const uint8_t* end = list + len;
    size_t steps = 0;
    for (const uint8_t* tlv = TlvCommon::First(list, len); tlv != nullptr; tlv = TlvCommon::Next(tlv, end)) {
        // Every step moves on by at least one byte.
        FUZZ_CHECK(++steps <= len);
        FUZZ_CHECK(tlv >= list && end - tlv >= static_cast<ptrdiff_t>(TlvCommon::kHeaderLen));
        const uint16_t length = TlvCommon::Length(tlv);
        FUZZ_CHECK(length <= end - tlv);

        uint16_t u16 = 0;
        uint32_t u32 = 0;
        uint8_t u128[16];
        FUZZ_CHECK(TlvCommon::ReadU16(tlv, u16) == (length >= 6));
        FUZZ_CHECK(TlvCommon::ReadU32(tlv, u32) == (length >= 8));
        FUZZ_CHECK(TlvCommon::ReadU128(tlv, u128) == (length >= 20));
        if (TlvCommon::Type(tlv) == 1 && depth < kMaxDepth) {
            Walk(TlvCommon::Value(tlv), TlvCommon::ValueLength(tlv), depth + 1);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FenRELTest::RunFuzzInput([&] { Walk(data, size, 0); });
    return 0;
}
