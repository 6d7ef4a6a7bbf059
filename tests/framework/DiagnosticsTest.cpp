#include <string>

#include <gtest/gtest.h>

#include "ProductVersionProvider.h"
#include "StressOptions.h"
#include "TempDir.h"

namespace {

using FenREL::ProductVersionProvider;

// "major.minor.maintenance.patch.suffix.build", or anything else as 1.0.0.0.0.0.
TEST(ProductVersionTest, FileGivesTheVersionAndAnythingElseGivesOneDotZero)
{
    FenRELTest::TempDir dir;
    const struct {
        const char* content;
        const char* expected;
    } cases[] = {
        {"4.1.2.3.rc1.9876\n", "4 1 2 3 rc1 9876"},
        {"3.2.1", "3 2 1 0  0"},  // the parts not given keep their defaults
        {"", "1 0 0 0 0 0"},
        {"1.2.3.4.x.5.6", "1 0 0 0 0 0"},
        {"1.two.3", "1 0 0 0 0 0"},
        {"1.2.3.4.x.build", "1 0 0 0 0 0"},
        {nullptr, "1 0 0 0 0 0"},  // no file
    };
    for (const auto& c : cases) {
        const ProductVersionProvider::Version v =
            ProductVersionProvider(c.content != nullptr ? dir.Write("version", c.content) : dir.File("absent"))
                .GetVersion();
        EXPECT_EQ(c.expected, std::to_string(v.major) + " " + std::to_string(v.minor) + " " +
                                  std::to_string(v.maintenance) + " " + std::to_string(v.patch) + " " + v.suffix +
                                  " " + std::to_string(v.buildNumber))
            << (c.content != nullptr ? c.content : "no file");
    }
}

TEST(StressOptionsTest, SetStaysWithinTheBoundsBothIncluded)
{
    EXPECT_FALSE(FenREL::StressOptions::Set("unknown", 1));
    FenREL::StressOptions::Add("drop-rate", 0, 100, 5, 1, "percent of frames dropped");
    EXPECT_TRUE(FenREL::StressOptions::Set("drop-rate", 0));
    EXPECT_TRUE(FenREL::StressOptions::Set("drop-rate", 100));
    EXPECT_FALSE(FenREL::StressOptions::Set("drop-rate", 101));
    EXPECT_FALSE(FenREL::StressOptions::Set("drop-rate", -1));
    EXPECT_EQ(100, FenREL::StressOptions::Find("drop-rate")->value);
}

}  // namespace
