#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FrameBytes.h"
#include "TlvCommon.h"

namespace {

using FenREL::TlvCommon;
using FenRELTest::Bytes;
using TypeAndLength = std::pair<uint16_t, uint16_t>;

// The (type, length) of each TLV the iterator visits in the first `len` bytes.
std::vector<TypeAndLength> Walk(const Bytes& list, size_t len)
{
    std::vector<TypeAndLength> seen;
    const uint8_t* end = list.data() + len;
    for (const uint8_t* tlv = TlvCommon::First(list.data(), len); tlv != nullptr && seen.size() < 100;
         tlv = TlvCommon::Next(tlv, end)) {
        seen.emplace_back(TlvCommon::Type(tlv), TlvCommon::Length(tlv));
    }
    return seen;
}

struct WalkCase {
    const char* name;
    Bytes list;
    size_t len;
    std::vector<TypeAndLength> expected;
};

void PrintTo(const WalkCase& c, std::ostream* out)
{
    *out << c.name;
}

class TlvWalkTest : public testing::TestWithParam<WalkCase> {};

TEST_P(TlvWalkTest, VisitsTheListAsDeclared)
{
    EXPECT_EQ(GetParam().expected, Walk(GetParam().list, GetParam().len));
}

INSTANTIATE_TEST_SUITE_P(
    Lists, TlvWalkTest,
    testing::Values(
        WalkCase{"Empty", {0, 1, 0, 4}, 0, {}},
        WalkCase{"ShorterThanAHeader", {0, 1, 0, 3}, 3, {}},
        WalkCase{"ExactlyFour", {0, 7, 0, 4}, 4, {{7, 4}}},
        // With exactly 4 bytes, a longer declaration means no TLV rather than a panic.
        WalkCase{"ExactlyFourDeclaringMore", {0, 7, 0, 5, 0}, 4, {}},
        WalkCase{"BackToBack", {0, 1, 0, 6, 0xAA, 0xBB, 0, 2, 0, 8, 1, 2, 3, 4, 0, 3, 0, 4}, 18,
                 {{1, 6}, {2, 8}, {3, 4}}},
        // A TLV of length 0 cannot be stepped over: the list ends with it.
        WalkCase{"ZeroLengthEndsTheList", {0, 1, 0, 6, 0xAA, 0xBB, 0, 2, 0, 0, 0, 3, 0, 4}, 14, {{1, 6}, {2, 0}}},
        WalkCase{"ZeroLengthFirst", {0, 9, 0, 0, 0, 3, 0, 4}, 8, {{9, 0}}},
        // A short length is stepped over as it stands: the next TLV starts 2 bytes on.
        WalkCase{"ShortLengthSteppedOver", {0, 1, 0, 2, 0, 4}, 6, {{1, 2}, {2, 4}}},
        WalkCase{"OnlyTheGivenLengthCounts", {0, 1, 0, 4, 0, 2, 0, 4}, 4, {{1, 4}}}),
    [](const testing::TestParamInfo<WalkCase>& info) { return std::string(info.param.name); });

struct TlvDeathCase {
    const char* name;
    Bytes list;
};

void PrintTo(const TlvDeathCase& c, std::ostream* out)
{
    *out << c.name;
}

class TlvDeathTest : public testing::TestWithParam<TlvDeathCase> {};

// A TLV that claims more than its list holds panics: deliberate, also on a
// controller's hello.
TEST_P(TlvDeathTest, TlvLongerThanItsListPanics)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Walk(GetParam().list, GetParam().list.size()), "Panic: ASSERT common/TlvCommon.cpp");
}

INSTANTIATE_TEST_SUITE_P(
    Lists, TlvDeathTest,
    testing::Values(TlvDeathCase{"First", {0, 1, 0, 9, 1, 2, 3, 4}},
                    TlvDeathCase{"Second", {0, 1, 0, 4, 0, 2, 0, 7, 1, 2}},
                    TlvDeathCase{"SecondHeaderCutOff", {0, 1, 0, 4, 0, 2}},
                    // Exactly 4 bytes declaring 2: the step lands 2 bytes before the end.
                    TlvDeathCase{"ExactlyFourDeclaringTwo", {0, 1, 0, 2}}),
    [](const testing::TestParamInfo<TlvDeathCase>& info) { return std::string(info.param.name); });

TEST(TlvCommonTest, TypedValuesNeedTheirLength)
{
    for (uint16_t length = 4; length <= 24; ++length) {
        Bytes tlv = {0, 1, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
        for (uint8_t i = 1; i <= 20; ++i) {
            tlv.push_back(i);
        }
        uint16_t u16 = 0;
        uint32_t u32 = 0;
        uint8_t u128[16] = {};
        EXPECT_EQ(length >= 6, TlvCommon::ReadU16(tlv.data(), u16)) << length;
        EXPECT_EQ(length >= 8, TlvCommon::ReadU32(tlv.data(), u32)) << length;
        EXPECT_EQ(length >= 20, TlvCommon::ReadU128(tlv.data(), u128)) << length;
        EXPECT_EQ(length >= 4 ? length - 4u : 0u, TlvCommon::ValueLength(tlv.data()));
        if (length >= 20) {
            EXPECT_EQ(0x0102, u16);
            EXPECT_EQ(0x01020304u, u32);
            EXPECT_EQ(Bytes(tlv.begin() + 4, tlv.begin() + 20), Bytes(u128, u128 + 16));
        }
    }
}

TEST(TlvCommonTest, WritersProduceBigEndianTlvs)
{
    uint8_t out[64];
    uint8_t uuid[16];
    for (uint8_t i = 0; i < 16; ++i) {
        uuid[i] = static_cast<uint8_t>(0xF0 + i);
    }
    size_t n = TlvCommon::WriteU16(out, 2, 0xBEEF);
    EXPECT_EQ(Bytes({0, 2, 0, 6, 0xBE, 0xEF}), Bytes(out, out + n));
    n = TlvCommon::WriteU32(out, 5, 0x01020304);
    EXPECT_EQ(Bytes({0, 5, 0, 8, 1, 2, 3, 4}), Bytes(out, out + n));
    n = TlvCommon::WriteU128(out, 6, uuid);
    ASSERT_EQ(20u, n);
    EXPECT_EQ(Bytes({0, 6, 0, 20}), Bytes(out, out + 4));
    EXPECT_EQ(Bytes(uuid, uuid + 16), Bytes(out + 4, out + 20));
    EXPECT_EQ(4u, TlvCommon::Write(out, 0x0102, nullptr, 0));
    EXPECT_EQ(Bytes({1, 2, 0, 4}), Bytes(out, out + 4));
}

}  // namespace
