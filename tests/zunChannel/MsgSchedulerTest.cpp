#include <chrono>
#include <future>
#include <ostream>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "LogCapture.h"
#include "MsgScheduler.h"
#include "MsgWriter.h"
#include "TokenBucket.h"
#include "WaitFor.h"

namespace {

using FenRELTest::LogCapture;
using FenRELTest::WaitFor;
using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlMsgBuffer;
using ZUNChannel::GlobalLockGuard;
using ZUNChannel::MsgScheduler;
using ZUNChannel::MsgWriter;
using ZUNChannel::TokenBucket;

// Plays the connection: keeps what it is given, and holds the transmit flag
// until the test completes the write.
class FakeWriter : public MsgWriter {
public:
    bool WriteMsg(uint8_t* buffer, uint32_t size) override
    {
        if (!connected) {
            free(buffer);
            return false;
        }
        written.emplace_back(buffer);
        sizes.push_back(size);
        scheduler->SetTxOngoing(true);
        return true;
    }

    // The write completion: clear the flag, ask for the next frame.
    void Complete()
    {
        scheduler->SetTxOngoing(false);
        scheduler->Kick();
    }

    // Completes writes until the scheduler stops handing out frames.
    void CompleteAll()
    {
        while (scheduler->IsTxOngoing()) {
            Complete();
        }
    }

    MsgScheduler* scheduler = nullptr;
    bool connected = true;
    std::vector<CtrlMsgBuffer> written;
    std::vector<uint32_t> sizes;
};

class MsgSchedulerTest : public testing::Test {
protected:
    void SetUp() override { Make(MsgScheduler::kUnlimited, false); }

    void Make(uint32_t maxSize, bool blockOnFull)
    {
        if (_scheduler) {
            StopAndCheckReleased();
        }
        _writer.reset(new FakeWriter());
        _scheduler = MsgScheduler::Create(_writer, &_io, maxSize, blockOnFull);
        _writer->scheduler = _scheduler.get();
    }

    void TearDown() override { StopAndCheckReleased(); }

    // Stop breaks every cycle: once the cancelled timers have run, the test
    // holds the only references.
    void StopAndCheckReleased()
    {
        _scheduler->Stop();
        _io.restart();
        _io.poll();
        EXPECT_EQ(1, _scheduler->GetRefCount());
        EXPECT_EQ(1, _scheduler->GetTokenBucket()->GetRefCount());
        EXPECT_EQ(1, _writer->GetRefCount());
    }

    // A frame of `bodyLength` bytes whose first body byte is `tag`.
    static uint8_t* Frame(uint8_t tag, size_t bodyLength = 1)
    {
        uint8_t* msg = CtrlMsg::New(CtrlMsg::kTypeData, 64, bodyLength);
        msg[CtrlMsg::kHeaderSize] = tag;
        return msg;
    }

    void EnqueueFrames(int count)
    {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(_scheduler->Enqueue(Frame(static_cast<uint8_t>(i))));
        }
    }

    std::vector<uint8_t> WrittenTags() const
    {
        std::vector<uint8_t> tags;
        for (const CtrlMsgBuffer& frame : _writer->written) {
            tags.push_back(frame.get()[CtrlMsg::kHeaderSize]);
        }
        return tags;
    }

    GlobalLockGuard _lock;  // Kick, Stop and the timers run under it
    boost::asio::io_context _io;
    boost::intrusive_ptr<FakeWriter> _writer;
    boost::intrusive_ptr<MsgScheduler> _scheduler;
};

struct RateCase {
    uint32_t rate;
    uint32_t effectiveRate;
    size_t framesPerTenRefills;
};

void PrintTo(const RateCase& c, std::ostream* out)
{
    *out << "rate " << c.rate;
}

class TokenRateTest : public MsgSchedulerTest, public testing::WithParamInterface<RateCase> {};

// Ten refills are one second: the integer division by 10 rounds the real
// rate down, and a rate below 10 is raised to 10.
TEST_P(TokenRateTest, TenRefillsSendRateOverTenFramesEach)
{
    _scheduler->SetMsgRate(GetParam().rate);
    EXPECT_EQ(GetParam().effectiveRate, _scheduler->GetMsgRate());
    EnqueueFrames(600);
    for (int refill = 0; refill < 10; ++refill) {
        _scheduler->GetTokenBucket()->OnRefillTimer();
        _writer->CompleteAll();
    }
    EXPECT_EQ(GetParam().framesPerTenRefills, _writer->written.size());
    EXPECT_EQ(GetParam().framesPerTenRefills, _scheduler->GetSentCount());
}

INSTANTIATE_TEST_SUITE_P(Rates, TokenRateTest,
                         testing::Values(RateCase{15, 15, 10}, RateCase{19, 19, 10}, RateCase{20, 20, 20},
                                         RateCase{9, 10, 10}, RateCase{0, 10, 10}, RateCase{200, 200, 200},
                                         // twice this rate does not fit in 32 bits
                                         RateCase{0x80000000, 0x80000000, 600}));

TEST(TokenBucketTest, ConsumeRefillAndRateChanges)
{
    GlobalLockGuard lock;
    boost::asio::io_context io;
    boost::intrusive_ptr<TokenBucket> bucket = TokenBucket::Create(nullptr, &io);
    EXPECT_EQ(0u, bucket->GetTokens());
    EXPECT_EQ(200u, bucket->GetRate());
    EXPECT_EQ(400u, bucket->GetCapacity());

    bucket->Refill(1000);
    EXPECT_EQ(400u, bucket->GetTokens());  // capped at twice the rate
    EXPECT_EQ(3u, bucket->Consume(3));
    EXPECT_EQ(397u, bucket->GetTokens());

    bucket->SetRate(50);  // lowering the rate cuts the tokens to the new capacity
    EXPECT_EQ(100u, bucket->GetCapacity());
    EXPECT_EQ(100u, bucket->GetTokens());
    bucket->SetRate(5);
    EXPECT_EQ(10u, bucket->GetRate());
    EXPECT_EQ(20u, bucket->GetTokens());
    bucket->SetRate(300);  // raising it adds none
    EXPECT_EQ(20u, bucket->GetTokens());

    EXPECT_EQ(20u, bucket->Consume(25));  // short: what there was
    EXPECT_EQ(0u, bucket->GetTokens());
    bucket->OnRefillTimer();  // without a scheduler: refills, does not rearm
    EXPECT_EQ(30u, bucket->GetTokens());

    bucket->Stop();
    io.restart();
    io.poll();
    EXPECT_EQ(1, bucket->GetRefCount());
}

TEST_F(MsgSchedulerTest, EmptyBucketSendsTheFirstFrameAtTheNextRefill)
{
    uint8_t* frame = Frame(7, 30);
    ASSERT_TRUE(_scheduler->Enqueue(frame));
    _scheduler->Kick();
    EXPECT_TRUE(_writer->written.empty());

    _scheduler->GetTokenBucket()->OnRefillTimer();
    ASSERT_EQ(1u, _writer->written.size());
    EXPECT_EQ(frame, _writer->written[0].get());
    EXPECT_EQ(45u, _writer->sizes[0]);
    EXPECT_EQ(1u, _scheduler->GetSentCount());
}

TEST_F(MsgSchedulerTest, OneWriteInFlightInQueueOrder)
{
    _scheduler->GetTokenBucket()->Refill(100);
    EnqueueFrames(3);
    _scheduler->Kick();
    _scheduler->Kick();
    EXPECT_EQ(std::vector<uint8_t>({0}), WrittenTags());

    _writer->Complete();
    EXPECT_EQ(std::vector<uint8_t>({0, 1}), WrittenTags());
    _writer->CompleteAll();
    EXPECT_EQ(std::vector<uint8_t>({0, 1, 2}), WrittenTags());
    EXPECT_EQ(97u, _scheduler->GetTokenBucket()->GetTokens());  // one token per frame
}

TEST_F(MsgSchedulerTest, FrameRefusedByTheWriterIsNotCounted)
{
    _scheduler->GetTokenBucket()->Refill(10);
    EnqueueFrames(1);
    _writer->connected = false;
    _scheduler->Kick();
    EXPECT_EQ(0u, _scheduler->GetSentCount());
    EXPECT_TRUE(_scheduler->IsEmpty());
    EXPECT_EQ(9u, _scheduler->GetTokenBucket()->GetTokens());
}

TEST_F(MsgSchedulerTest, DrainDropsTheQueueWhole)
{
    _scheduler->GetTokenBucket()->Refill(100);
    EnqueueFrames(5);
    _scheduler->Drain();
    EXPECT_TRUE(_scheduler->IsEmpty());
    _scheduler->Kick();
    EXPECT_TRUE(_writer->written.empty());

    // The queue still takes frames after a drain.
    EnqueueFrames(1);
    _scheduler->Kick();
    EXPECT_EQ(1u, _writer->written.size());
}

TEST_F(MsgSchedulerTest, RefusedFrameStaysWithTheCaller)
{
    CtrlMsgBuffer frame(Frame(1));
    _scheduler->Enable(false);
    EXPECT_FALSE(_scheduler->Enqueue(frame.get()));
    EXPECT_TRUE(_scheduler->IsEmpty());
    _scheduler->Enable(true);
    ASSERT_TRUE(_scheduler->Enqueue(frame.release()));

    _scheduler->Stop();
    CtrlMsgBuffer late(Frame(2));
    EXPECT_FALSE(_scheduler->Enqueue(late.get()));
    _scheduler->GetTokenBucket()->Refill(10);
    _scheduler->Kick();  // no writer any more
    EXPECT_TRUE(_writer->written.empty());
    EXPECT_EQ(1u, _scheduler->GetQueueLength());  // freed with the scheduler
}

TEST_F(MsgSchedulerTest, LimitedQueueRefusesWhenFull)
{
    Make(2, false);
    EnqueueFrames(2);
    EXPECT_TRUE(_scheduler->IsFull());
    CtrlMsgBuffer third(Frame(3));
    {
        LogCapture log(FenREL::LOGLEVEL_VERBOSE);
        EXPECT_FALSE(_scheduler->Enqueue(third.get()));
        EXPECT_NE(std::string::npos, log.Text().find("Msg Queue is full!")) << log.Text();
        EXPECT_NE(std::string::npos, log.Text().find("errorCode=\"LCP00008\""));
        EXPECT_NE(std::string::npos, log.Text().find("Failed to queue message!"));
    }
    _scheduler->GetTokenBucket()->Refill(1);
    _scheduler->Kick();
    EXPECT_FALSE(_scheduler->IsFull());
    EXPECT_TRUE(_scheduler->Enqueue(third.release()));
}

TEST_F(MsgSchedulerTest, DrainReleasesAnEnqueueBlockedOnAFullQueue)
{
    Make(1, true);
    EnqueueFrames(1);
    CtrlMsgBuffer blocked(Frame(9));
    std::future<bool> result = std::async(std::launch::async, [&] { return _scheduler->Enqueue(blocked.get()); });
    ASSERT_TRUE(WaitFor([&] { return _scheduler->GetBlockedCount() == 1; }, std::chrono::seconds(10),
                        "the second Enqueue to block"));
    _scheduler->Drain();
    ASSERT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(10)));
    EXPECT_FALSE(result.get());  // the caller keeps `blocked`
    EXPECT_TRUE(_scheduler->IsEmpty());
}

// The refill is armed 100 ms ahead when the bucket is made and again by each
// refill; the armed timer's expiry is what refills and kicks.
TEST_F(MsgSchedulerTest, RefillTimerKicksEveryHundredMilliseconds)
{
    using Clock = std::chrono::steady_clock;
    constexpr auto kPeriod = std::chrono::milliseconds(100);
    const Clock::time_point beforeMake = Clock::now();
    Make(MsgScheduler::kUnlimited, false);
    const Clock::time_point afterMake = Clock::now();
    boost::intrusive_ptr<TokenBucket> bucket = _scheduler->GetTokenBucket();
    EXPECT_GE(bucket->GetNextRefill(), beforeMake + kPeriod);
    EXPECT_LE(bucket->GetNextRefill(), afterMake + kPeriod);

    _scheduler->SetMsgRate(10);  // one token per refill
    EnqueueFrames(2);
    const Clock::time_point beforeRefill = Clock::now();
    bucket->OnRefillTimer();
    const Clock::time_point afterRefill = Clock::now();
    EXPECT_EQ(1u, _writer->written.size());
    EXPECT_GE(bucket->GetNextRefill(), beforeRefill + kPeriod);
    EXPECT_LE(bucket->GetNextRefill(), afterRefill + kPeriod);

    _writer->CompleteAll();
    _io.restart();  // Make ran it out of work
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (_writer->written.size() < 2 && _io.run_one_until(deadline) > 0) {
    }
    EXPECT_EQ(2u, _writer->written.size());
}

}  // namespace
