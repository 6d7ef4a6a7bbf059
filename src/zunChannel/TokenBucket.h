#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "AsyncTimer.h"
#include "IoService.h"
#include "RefCounter.h"

namespace ZUNChannel {

class MsgScheduler;

// The pace of one connection's sending: one token per frame, whatever its
// size. Every 100 ms a tenth of the rate is added, up to twice the rate, and
// the scheduler is kicked. The rate comes from the controller's hello.
//
// The three counters are guarded by _mutex, always the inner lock: Consume and
// Refill may run with the global lock held. The scheduler and timer fields
// are used under the global lock.
class TokenBucket : public RefCounter<TokenBucket> {
public:
    static constexpr uint32_t kDefaultRate = 200;
    static constexpr uint32_t kMinRate = 10;
    static constexpr int32_t kRefillIntervalUs = 100000;

    // Made by `scheduler` (under the global lock); the refill timer starts now.
    static boost::intrusive_ptr<TokenBucket> Create(MsgScheduler* scheduler,
                                                    boost::asio::io_context* service = IoService::Get());
    ~TokenBucket() override;

    TokenBucket(const TokenBucket&) = delete;
    TokenBucket& operator=(const TokenBucket&) = delete;

    // Takes `n` tokens when there are; otherwise takes and returns what there was.
    uint32_t Consume(uint32_t n);
    // Adds `n` tokens, up to the capacity.
    void Refill(uint32_t n);
    // A rate below 10 becomes 10, so that each refill brings at least one
    // token; the capacity is twice the rate (at most 2^32 - 1), and the
    // tokens are cut to it.
    void SetRate(uint32_t rate);
    uint32_t GetRate() const;
    uint32_t GetTokens() const;
    uint32_t GetCapacity() const;

    // One refill period: what the refill timer runs every 100 ms, under the
    // global lock. Public so that a test can play the timer.
    void OnRefillTimer();
    // Drops the scheduler and ends the refills: the scheduler is stopping.
    void Stop();
    // When the armed refill is due; the clock's maximum once stopped.
    std::chrono::steady_clock::time_point GetNextRefill() const;

private:
    TokenBucket() = default;

    mutable boost::recursive_mutex _mutex;
    uint32_t _tokens = 0;
    uint32_t _rate = kDefaultRate;
    uint32_t _capacity = 2 * kDefaultRate;
    std::shared_ptr<AsyncTimer<TokenBucket>> _refillTimer;
    boost::intrusive_ptr<MsgScheduler> _scheduler;
};

}  // namespace ZUNChannel
