#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
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

uint32_t TakeNumber(DataplaneMsgQueue& queue)
{
    uint8_t* msg = queue.Take();
    EXPECT_NE(nullptr, msg);
    uint32_t n = UINT32_MAX;
    if (msg != nullptr) {
        memcpy(&n, msg, sizeof(n));
        free(msg);
    }
    return n;
}

TEST(DataplaneMsgQueueTest, PutOnAFullQueueWaitsUntilATakeMakesRoom)
{
    DataplaneMsgQueue queue;
    for (uint32_t i = 0; i < DataplaneMsgQueue::kCapacity; ++i) {
        ASSERT_TRUE(queue.Put(Numbered(i)));
    }
    std::atomic<bool> putDone{false};
    std::thread putter([&] {
        EXPECT_TRUE(queue.Put(Numbered(1024)));
        putDone = true;
    });
    ASSERT_TRUE(WaitFor([&] { return queue.BlockedPutters() == 1; }, 5s, "the 1025th put to block"));
    EXPECT_FALSE(putDone);
    EXPECT_EQ(DataplaneMsgQueue::kCapacity, queue.Size());

    EXPECT_EQ(0u, TakeNumber(queue));
    putter.join();
    EXPECT_TRUE(putDone);
    EXPECT_EQ(DataplaneMsgQueue::kCapacity, queue.Size());
    // First in, first out, the late message last.
    for (uint32_t i = 1; i <= 1024; ++i) {
        ASSERT_EQ(i, TakeNumber(queue));
    }
}

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

TEST(DataplaneMsgQueueTest, PutWithoutWaitingFailsOnAFullQueue)
{
    DataplaneMsgQueue queue(2);
    EXPECT_TRUE(queue.Put(Numbered(1), false));
    EXPECT_TRUE(queue.Put(Numbered(2), false));
    EXPECT_FALSE(queue.Put(Numbered(3), false));
    EXPECT_EQ(2u, queue.Size());
    EXPECT_EQ(1u, TakeNumber(queue));
}

}  // namespace
}  // namespace FenREL
