#include <gtest/gtest.h>

#include <cstdint>

#include "DpMsg.h"

namespace FenREL {
namespace {

TEST(DpMsgHdrTest, WritesZeroFlagsTypeAndBigEndianLength)
{
    uint8_t hdr[DpMsgHdr::kSize];
    memset(hdr, 0xFF, sizeof(hdr));
    DpMsgHdr::Init(hdr, DpMsgHdr::DP_MSG_HDR_SERVICE, 0x01020306);
    const uint8_t expected[] = {0x00, 0x04, 0x01, 0x02, 0x03, 0x06};
    EXPECT_EQ(0, memcmp(expected, hdr, sizeof(expected)));
}

TEST(DpMsgHdrTest, ReadsFieldsAndIgnoresThePeersFlags)
{
    const uint8_t hdr[] = {0x80, 0x02, 0x00, 0x01, 0x00, 0x00};
    EXPECT_EQ(0x80, DpMsgHdr::GetFlags(hdr));
    EXPECT_EQ(DpMsgHdr::DP_MSG_HDR_DFW, DpMsgHdr::GetType(hdr));
    EXPECT_EQ(65536u, DpMsgHdr::GetLength(hdr));
    const uint8_t bare[] = {0x00, 0x01, 0x00, 0x00, 0x00, 0x06};
    EXPECT_EQ(6u, DpMsgHdr::GetLength(bare));
}

// A length that cannot hold the header itself stops the process, whether a
// peer sent it or we are about to.
TEST(DpMsgHdrDeathTest, LengthBelowTheHeaderAsserts)
{
    const uint8_t five[] = {0x00, 0x01, 0x00, 0x00, 0x00, 0x05};
    const uint8_t zero[] = {0x00, 0x01, 0x00, 0x00, 0x00, 0x00};
    EXPECT_DEATH(DpMsgHdr::GetLength(five), "Panic: ASSERT common/DpMsg.cpp");
    EXPECT_DEATH(DpMsgHdr::GetLength(zero), "Panic: ASSERT common/DpMsg.cpp");
    uint8_t out[DpMsgHdr::kSize];
    EXPECT_DEATH(DpMsgHdr::Init(out, 1, 5), "Panic: ASSERT common/DpMsg.cpp");
}

}  // namespace
}  // namespace FenREL
