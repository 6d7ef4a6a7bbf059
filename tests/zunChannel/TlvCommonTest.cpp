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

}  // namespace
