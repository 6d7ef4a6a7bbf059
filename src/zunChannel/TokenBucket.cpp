#include "TokenBucket.h"

#include <algorithm>
#include <limits>

#include "GlobalLock.h"
#include "Logger.h"
#include "MsgScheduler.h"

namespace ZUNChannel {

using Lock = boost::lock_guard<boost::recursive_mutex>;

boost::intrusive_ptr<TokenBucket> TokenBucket::Create(MsgScheduler* scheduler, boost::asio::io_context* service)
{
    boost::intrusive_ptr<TokenBucket> bucket(new TokenBucket());
    bucket->_scheduler = scheduler;
    bucket->_refillTimer = AsyncTimer<TokenBucket>::Create(bucket.get(), &TokenBucket::OnRefillTimer,
                                                            AsyncTimer<TokenBucket>::OwnerRef::Strong, service);
    bucket->_refillTimer->Start(kRefillIntervalUs);
    return bucket;
}

TokenBucket::~TokenBucket()
{
    FLOG_VERBOSE("Tokenbucket destructed");
}

uint32_t TokenBucket::Consume(uint32_t n)
{
    Lock lock(_mutex);
    if (_tokens >= n) {
        _tokens -= n;
        return n;
    }
    const uint32_t taken = _tokens;
    _tokens = 0;
    return taken;
}

void TokenBucket::Refill(uint32_t n)
{
    Lock lock(_mutex);
    _tokens = static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(_tokens) + n, _capacity));
}

void TokenBucket::SetRate(uint32_t rate)
{
    Lock lock(_mutex);
    _rate = std::max(rate, kMinRate);
    // Twice a rate of 2^31 or more does not fit in 32 bits: saturate, as a
    // wrapped capacity could be 0 and would stop the connection for good.
    _capacity = static_cast<uint32_t>(
        std::min<uint64_t>(2 * static_cast<uint64_t>(_rate), std::numeric_limits<uint32_t>::max()));
    _tokens = std::min(_tokens, _capacity);
}

uint32_t TokenBucket::GetRate() const
{
    Lock lock(_mutex);
    return _rate;
}

uint32_t TokenBucket::GetTokens() const
{
    Lock lock(_mutex);
    return _tokens;
}

uint32_t TokenBucket::GetCapacity() const
{
    Lock lock(_mutex);
    return _capacity;
}

void TokenBucket::OnRefillTimer()
{
    {
        Lock lock(_mutex);
        // Integer division: a rate of 15 refills 1 token, 10 frames a second.
        Refill(_rate / 10);
    }
    GlobalLockGuard global;
    if (_scheduler) {
        _refillTimer->Start(kRefillIntervalUs);
        _scheduler->Kick();
    }
}

void TokenBucket::Stop()
{
    _scheduler.reset();
    if (_refillTimer) {
        // The timer holds this bucket: dropping it ends the cycle.
        _refillTimer->Stop();
        _refillTimer.reset();
    }
}

std::chrono::steady_clock::time_point TokenBucket::GetNextRefill() const
{
    return _refillTimer ? _refillTimer->GetExpiry() : std::chrono::steady_clock::time_point::max();
}

}  // namespace ZUNChannel
