#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "DataplaneMsgQueue.h"
#include "WaitFor.h"

namespace FenREL {
namespace {

using namespace std::chrono_literals;
using FenRELTest::WaitFor;

uint8_t* Numbered(uint32_t n)
{
    auto* msg = static_cast<uint8_t*>(malloc(sizeof(n)));
    memcpy(msg, &n, sizeof(n));
    return msg;
}

// The blocking put on a full queue is tested through the link's Send.
TEST(DataplaneMsgQueueTest, CloseWakesBlockedTakersAndPuttersAndRefusesLaterPuts)
{
    DataplaneMsgQueue empty;
    std::thread taker([&] { EXPECT_EQ(nullptr, empty.Take()); });
    DataplaneMsgQueue full(1);
    ASSERT_TRUE(full.Put(Numbered(1)));
    std::atomic<int> putResult{-1};
    std::thread putter([&] { putResult = full.Put(Numbered(2)) ? 1 : 0; });
    ASSERT_TRUE(WaitFor([&] { return full.BlockedPutters() == 1; }, 5s, "the put to block"));

    empty.Close();
    full.Close();
    taker.join();
    putter.join();
    // The refused message was freed by the queue (the leak checker would say
    // otherwise), and so is the one it still holds when it goes.
    EXPECT_EQ(0, putResult);
    EXPECT_FALSE(full.Put(Numbered(3)));
    EXPECT_EQ(nullptr, full.Take());
}

}  // namespace
}  // namespace FenREL
