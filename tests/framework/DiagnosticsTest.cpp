#include <string>

#include <gtest/gtest.h>

#include "ProductVersionProvider.h"
#include "StressOptions.h"
#include "TempDir.h"

namespace {

using FenREL::ProductVersionProvider;

TEST(ProductVersionTest, FileGivesTheVersionAndAnythingElseGivesOneDotZero)
{
    FenRELTest::TempDir dir;
    const ProductVersionProvider full(dir.Write("full", "4.1.2.3.rc1.9876\n"));
    EXPECT_EQ(4u, full.GetVersion().major);
    EXPECT_EQ(1u, full.GetVersion().minor);
    EXPECT_EQ(2u, full.GetVersion().maintenance);
    EXPECT_EQ(3u, full.GetVersion().patch);
    EXPECT_EQ("rc1", full.GetVersion().suffix);
    EXPECT_EQ(9876u, full.GetVersion().buildNumber);

    // Three parts are legal; the rest keep their defaults.
    const ProductVersionProvider partial(dir.Write("partial", "3.2.1"));
    EXPECT_EQ(3u, partial.GetVersion().major);
    EXPECT_EQ(1u, partial.GetVersion().maintenance);
    EXPECT_EQ(0u, partial.GetVersion().patch);
    EXPECT_EQ("", partial.GetVersion().suffix);

    for (const char* bad : {"", "1.2.3.4.x.5.6", "1.two.3", "1.2.3.4.x.build"}) {
        const ProductVersionProvider fallback(dir.Write("bad", bad));
        EXPECT_EQ(1u, fallback.GetVersion().major) << "\"" << bad << "\"";
        EXPECT_EQ(0u, fallback.GetVersion().minor) << "\"" << bad << "\"";
        EXPECT_EQ("0", fallback.GetVersion().suffix) << "\"" << bad << "\"";
    }
    const ProductVersionProvider missing(dir.File("absent"));
    EXPECT_EQ(1u, missing.GetVersion().major);
}

TEST(StressOptionsTest, SetStaysWithinTheBoundsBothIncluded)
{
    EXPECT_FALSE(FenREL::StressOptions::Set("unknown", 1));
    FenREL::StressOptions::Add("drop-rate", 0, 100, 5, 1, "percent of frames dropped");
    auto option = FenREL::StressOptions::Find("drop-rate");
    ASSERT_TRUE(option);
    EXPECT_EQ(5, option->value);
    EXPECT_TRUE(FenREL::StressOptions::Set("drop-rate", 0));
    EXPECT_TRUE(FenREL::StressOptions::Set("drop-rate", 100));
    EXPECT_EQ(100, option->value);
    EXPECT_FALSE(FenREL::StressOptions::Set("drop-rate", 101));
    EXPECT_FALSE(FenREL::StressOptions::Set("drop-rate", -1));
    EXPECT_EQ(100, option->value);
}

}  // namespace
