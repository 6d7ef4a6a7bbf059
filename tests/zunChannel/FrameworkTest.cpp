#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "App.h"
#include "AppManager.h"
#include "Assert.h"
#include "AsyncTimer.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "RefCounter.h"
#include "Uuid.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

namespace {

using namespace ZUNChannel;
using namespace std::chrono_literals;

// Counts its callbacks and its own destruction.
class Owner : public RefCounter<Owner> {
public:
    explicit Owner(std::atomic<int>* destroyed = nullptr) : _destroyed(destroyed) {}
    ~Owner() override
    {
        if (_destroyed != nullptr) {
            ++*_destroyed;
        }
    }
    void Fire() { ++fired; }
    void FireWith(int64_t arg) { lastArg = arg; }

    std::atomic<int> fired{0};
    int64_t lastArg = 0;

private:
    std::atomic<int>* _destroyed;
};

// Runs the I/O service on this thread until `condition` holds or time is up.
bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    boost::asio::io_context* service = IoService::Get();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        service->run_for(10ms);
        service->restart();
    }
    return condition();
}

class AsyncTimerTest : public testing::Test {
protected:
    void TearDown() override
    {
        IoService::Get()->poll();
        IoService::Get()->restart();
    }
};

TEST_F(AsyncTimerTest, RestartWithTheFirstExpiryQueuedCallsBackOnceForTheSecond)
{
    boost::intrusive_ptr<Owner> owner(new Owner());
    auto timer = AsyncTimer<Owner>::Create(owner.get(), &Owner::Fire);
    std::future<void> io;
    {
        GlobalLockGuard lock;
        timer->Start(0);
        // The first expiry completes on another thread and waits for the lock we hold.
        io = std::async(std::launch::async, [&] { RunUntil([&] { return owner->fired > 0; }, 2s); });
        std::this_thread::sleep_for(100ms);
        timer->Start(50000);
    }
    // The queued first expiry must not call back; the second does, once.
    EXPECT_TRUE(timer->IsPending());
    EXPECT_EQ(0, owner->fired);
    io.wait();
    ASSERT_TRUE(RunUntil([&] { return owner->fired > 0; }, 2s));
    RunUntil([] { return false; }, 100ms);
    EXPECT_EQ(1, owner->fired);
    EXPECT_FALSE(timer->IsPending());

    auto withArg = AsyncTimer<Owner>::Create(owner.get(), &Owner::FireWith, 77);
    withArg->Start(0);
    ASSERT_TRUE(RunUntil([&] { return owner->lastArg == 77; }, 2s));
    EXPECT_EQ(1, owner->fired);
}

TEST_F(AsyncTimerTest, CancelledTimerNeverCallsBackEvenWithItsExpiryQueued)
{
    boost::intrusive_ptr<Owner> owner(new Owner());
    auto timer = AsyncTimer<Owner>::Create(owner.get(), &Owner::Fire);
    std::future<void> io;
    {
        GlobalLockGuard lock;
        timer->Start(0);
        // The expiry completes on another thread and waits for the lock we hold.
        io = std::async(std::launch::async, [] { RunUntil([] { return false; }, 300ms); });
        std::this_thread::sleep_for(100ms);
        timer->Cancel();
    }
    io.wait();
    EXPECT_EQ(0, owner->fired);
}

TEST_F(AsyncTimerTest, ArmedTimerKeepsItsOwnerAliveUnlessWeak)
{
    std::atomic<int> destroyed{0};
    std::shared_ptr<AsyncTimer<Owner>> timer;
    {
        boost::intrusive_ptr<Owner> owner(new Owner(&destroyed));
        timer = AsyncTimer<Owner>::Create(owner.get(), &Owner::Fire);
    }
    EXPECT_EQ(0, destroyed);
    timer.reset();
    EXPECT_EQ(1, destroyed);

    Owner* raw = new Owner(&destroyed);
    boost::intrusive_ptr<Owner> weakOwner(raw);
    auto weak = AsyncTimer<Owner>::Create(raw, &Owner::Fire, AsyncTimer<Owner>::OwnerRef::Weak);
    weak->Start(0);
    weak->Stop();  // what the owner's destructor does
    weakOwner.reset();
    EXPECT_EQ(2, destroyed);
    RunUntil([] { return false; }, 50ms);
}

TEST(RefCounterDeathTest, ReleaseOfAnUnheldObjectPanics)
{
    EXPECT_DEATH(
        {
            Owner owner;
            intrusive_ptr_release(&owner);
        },
        "Panic: ASSERT src/zunChannel/RefCounter.h:");
}

TEST(WorkItemTest, QueuedItemKeepsItsObjectAlive)
{
    std::atomic<int> destroyed{0};
    Owner* raw = nullptr;
    std::shared_ptr<WorkItem> item;
    {
        boost::intrusive_ptr<Owner> owner(new Owner(&destroyed));
        raw = owner.get();
        item = std::make_shared<WorkItemImpl<Owner>>(owner, &Owner::Fire);
    }
    EXPECT_EQ(0, destroyed);
    item->Run();
    EXPECT_EQ(1, raw->fired);
    item.reset();
    EXPECT_EQ(1, destroyed);
}

// A work item that counts its runs.
class Counter : public WorkItem {
public:
    explicit Counter(std::atomic<int>& runs) : _runs(runs) {}
    void Run() override { ++_runs; }

private:
    std::atomic<int>& _runs;
};

TEST(WorkGroupTest, ThreadsServeTheQueueAndStopFinishesIt)
{
    std::atomic<int> runs{0};
    WorkGroup group;
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(group.Post(std::make_shared<Counter>(runs)));
    }
    group.Start(3);
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(group.Post(std::make_shared<Counter>(runs)));
    }
    group.Stop();
    EXPECT_EQ(100, runs);
}

TEST(GlobalLockTest, AvailableToItsHolderButNotToOthers)
{
    EXPECT_TRUE(IsLockAvailable());
    GlobalLockGuard lock;
    EXPECT_TRUE(IsLockAvailable());
    EXPECT_FALSE(std::async(std::launch::async, [] { return IsLockAvailable(); }).get());
}

// An app that, like the agent's own, checks the global lock when it starts.
class LockCheckingApp : public App {
public:
    LockCheckingApp() : App(APP_ID_TRACEFLOW, 0, "LockChecking") {}
    void Start() override
    {
        ASSERT(IsLockAvailable());
        started = true;
    }
    void HandleEvent(const boost::intrusive_ptr<Event>&) override {}
    void HandleMsg(const uint8_t*, uint32_t, const ConnKey&) override {}
    bool started = false;
};

// At start-up another thread (the data-path link's) may hold the global lock
// when the apps are started: they wait their turn instead of failing the check.
TEST(AppManagerTest, AppsStartInTurnWithAnotherThreadHoldingTheLock)
{
    AppManager::Create();
    boost::intrusive_ptr<LockCheckingApp> app(new LockCheckingApp());
    AppManager::Get()->RegisterApp(app);
    std::promise<void> held;
    std::atomic<bool> released{false};
    std::thread holder([&] {
        GlobalLockGuard lock;
        held.set_value();
        std::this_thread::sleep_for(100ms);
        released = true;
    });
    held.get_future().wait();
    AppManager::Get()->StartAll();
    EXPECT_TRUE(app->started);
    EXPECT_TRUE(released);
    holder.join();
    AppManager::Destroy();
}

// The logs name routing domains and switches by this text; a node UUID may come in either case.
TEST(UuidTest, TextFormOfTheHalvesAndParsingInEitherCase)
{
    const UUID uuid = UUID::FromHalves(0x0011223344556677ULL, 0x8899aabbccddeeffULL);
    EXPECT_EQ("00112233-4455-6677-8899-aabbccddeeff", uuid.ToString());
    UUID parsed;
    ASSERT_TRUE(UUID::FromString("00112233-4455-6677-8899-AABBCCDDEEFF", parsed));
    EXPECT_EQ(uuid, parsed);
}

}  // namespace
