#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogLevel.h"
#include "StateCache.h"
#include "StateCacheRemoteSessionTable.h"
#include "StateCacheTestSupport.h"

namespace FenRELTest {
namespace {

using FenREL::StateCache;

// The cache is process-wide: this test runs in a fresh process of its own,
// before anything could have made it.
TEST(StateCacheDeathTest, GetInstanceBeforeInitStops)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(StateCache::GetInstance(), "Panic: ASSERT src/stateCache/StateCache.cpp");
}

TEST(StateCacheTest, DumpWritesFiveHeadersAtInfoAndTheTablesAtVerbose)
{
    StateCache::Init();
    StateCache* cache = StateCache::GetInstance();
    cache->GetRemoteSessionTable()->UpdateSessionState(1, 0, 2);

    LogCapture info(FenREL::LOGLEVEL_INFO);
    cache->DumpCache();
    EXPECT_THAT(info.Text(), testing::ContainsRegex("Dump local ConfigCacheTable.*Dump remote ConfigCacheTable.*"
                                                    "Dump local L2CacheTable.*Dump remote L2CacheTable.*"
                                                    "Dump remote session CacheTable"));
    EXPECT_EQ(5, Count(info, "level=\"info\""));

    LogCapture verbose(FenREL::LOGLEVEL_VERBOSE);
    cache->DumpCache();
    EXPECT_EQ(1, Count(verbose, "SessionType is : 1, index is : 0, sessionState is 2, controllerIP is "));
    EXPECT_EQ(1, Count(verbose, "Dump L2 local StateCache"));
}

}  // namespace
}  // namespace FenRELTest
