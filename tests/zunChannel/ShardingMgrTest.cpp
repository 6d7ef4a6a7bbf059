#include <gtest/gtest.h>

#include "ChannelFixture.h"
#include "ShardingElemID.h"
#include "ShardingMgr.h"

namespace {

using ZUNChannel::ShardingMgr;
using ZUNChannel::ShardingSegment;
using Segments = std::vector<boost::intrusive_ptr<ShardingSegment>>;

Segments Segment(const std::string& controller, uint32_t start, uint32_t num)
{
    return {new ShardingSegment(controller, start, num)};
}

class ShardingMgrTest : public FenRELTest::ChannelFixture {
protected:
    boost::intrusive_ptr<ShardingMgr> _mgr = nullptr;
    void SetUp() override
    {
        ChannelFixture::SetUp();
        _mgr = ShardingMgr::Get();
    }
};

TEST_F(ShardingMgrTest, SliceLengthMustBeAPowerOfTwoOfAtLeast2To22)
{
    EXPECT_FALSE(_mgr->SetSliceLength(0));
    EXPECT_FALSE(_mgr->SetSliceLength((1u << 22) - 1));
    EXPECT_FALSE(_mgr->SetSliceLength(3u << 22));
    EXPECT_EQ(0u, _mgr->GetSliceCount());

    ASSERT_TRUE(_mgr->SetSliceLength(1u << 22));
    EXPECT_EQ(1024u, _mgr->GetSliceCount());
    EXPECT_EQ(1u, _mgr->GetSliceIndex(0x00400000));
    EXPECT_EQ(0u, _mgr->GetSliceIndex(0x003FFFFF));
    EXPECT_EQ(1023u, _mgr->GetSliceIndex(0xFFFFFFFF));

    // A refused length leaves the array as it was.
    EXPECT_FALSE(_mgr->SetSliceLength(12345));
    EXPECT_EQ(1024u, _mgr->GetSliceCount());

    ASSERT_TRUE(_mgr->SetSliceLength(1u << 31));
    EXPECT_EQ(2u, _mgr->GetSliceCount());
    EXPECT_EQ(1u, _mgr->GetSliceIndex(0x80000000));
}

TEST_F(ShardingMgrTest, SegmentsFillSlicesUpToTheArrayBoundary)
{
    EXPECT_FALSE(_mgr->UpdateSegments(Segment("10.0.0.1", 0, 1)));  // no array yet
    ASSERT_TRUE(_mgr->SetSliceLength(1u << 30));                   // four slices
    EXPECT_TRUE(_mgr->UpdateSegments({}));

    EXPECT_TRUE(_mgr->UpdateSegments(Segment("10.0.0.1", 0, 4)));   // exactly the count
    Segments overflow = Segment("10.0.0.2", 0, 1);
    overflow.push_back(new ShardingSegment("10.0.0.3", 2, 3));     // one beyond
    overflow.push_back(new ShardingSegment("10.0.0.4", 3, 1));     // never reached
    EXPECT_FALSE(_mgr->UpdateSegments(overflow));

    std::vector<std::string> slices;
    _mgr->CopySlices(slices);
    // The segment before the bad one stays applied; the rest keep their owner.
    EXPECT_EQ((std::vector<std::string>{"10.0.0.2", "10.0.0.1", "10.0.0.1", "10.0.0.1"}), slices);
    EXPECT_EQ("10.0.0.2", _mgr->GetController(0x3FFFFFFF));
    EXPECT_EQ("10.0.0.1", _mgr->GetController(0x40000000));
}

TEST_F(ShardingMgrTest, SameLengthKeepsAssignmentsAndANewOneDropsThem)
{
    ASSERT_TRUE(_mgr->SetSliceLength(1u << 30));
    ASSERT_TRUE(_mgr->UpdateSegments(Segment("10.0.0.1", 1, 2)));
    EXPECT_TRUE(_mgr->SetSliceLength(1u << 30));
    EXPECT_EQ("10.0.0.1", _mgr->GetController(0x40000000));
    EXPECT_TRUE(_mgr->SetSliceLength(1u << 29));
    EXPECT_EQ("", _mgr->GetController(0x40000000));
}

}  // namespace
