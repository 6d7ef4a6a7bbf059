#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/intrusive_ptr.hpp>
#include <boost/system/system_error.hpp>

#include "GlobalLock.h"
#include "IoService.h"
#include "Logger.h"

namespace ZUNChannel {

// A one-shot timer on the I/O service that calls a member of its owner T.
// The owner restarts it from the callback when it wants a period.
//
// An armed wait holds a shared reference to the timer, and by default the
// timer holds a strong reference to its owner, so an armed timer keeps its
// owner alive. An owner that must not be kept alive by its timer (the L2 table)
// makes it with OwnerRef::Weak and calls Stop() from its destructor; a firing
// after that does nothing.
//
// Start, Cancel and Stop run under the global lock, and so does the expiry
// handler: a timer cancelled by its owner never calls back, even when its
// expiry was already queued, and of two Starts in a row only the last one's
// wait can call back.
template <typename T>
class AsyncTimer : public std::enable_shared_from_this<AsyncTimer<T>> {
public:
    using Callback = void (T::*)();
    using ArgCallback = void (T::*)(int64_t);
    enum class OwnerRef { Strong, Weak };

    static std::shared_ptr<AsyncTimer> Create(T* owner, Callback callback,
                                              OwnerRef ref = OwnerRef::Strong,
                                              boost::asio::io_context* service = IoService::Get())
    {
        return std::shared_ptr<AsyncTimer>(new AsyncTimer(owner, callback, nullptr, -1, ref, service));
    }

    static std::shared_ptr<AsyncTimer> Create(T* owner, ArgCallback callback, int64_t arg,
                                              OwnerRef ref = OwnerRef::Strong,
                                              boost::asio::io_context* service = IoService::Get())
    {
        return std::shared_ptr<AsyncTimer>(new AsyncTimer(owner, nullptr, callback, arg, ref, service));
    }

    ~AsyncTimer()
    {
        boost::system::error_code ignored;
        _timer.cancel(ignored);
        FLOG_TRIVIA("AsyncTimer destruct, timerObj is %1, pObj is %2", static_cast<const void*>(this),
                    static_cast<const void*>(_rawOwner));
    }

    AsyncTimer(const AsyncTimer&) = delete;
    AsyncTimer& operator=(const AsyncTimer&) = delete;

    void Start(int64_t intervalMicroseconds)
    {
        _cancelled = false;
        try {
            if (_pending) {
                _timer.cancel();
            }
            _timer.expires_at(Deadline(intervalMicroseconds));
            const uint64_t generation = ++_generation;
            _pending = true;
            std::shared_ptr<AsyncTimer> self = this->shared_from_this();
            _timer.async_wait([self, generation](const boost::system::error_code& error) {
                self->OnExpiry(generation, error);
            });
        } catch (const boost::system::system_error& error) {
            _pending = false;
            FLOG_ERROR("async_wait failed, interval %1 us, error : %2", intervalMicroseconds, error.what())
                .AddTag("errorCode:LCP00113");
        }
    }

    void Cancel()
    {
        _cancelled = true;
        boost::system::error_code error;
        _timer.cancel(error);
        if (error) {
            FLOG_ERROR("cancel timer failed : %1", error.message()).AddTag("errorCode:LCP00114");
        }
    }

    // For an owner that gives the timer up for good.
    void Stop()
    {
        _stopped = true;
        if (!_cancelled) {
            Cancel();
        }
    }

    bool IsPending() const { return _pending; }
    // When the last Start's wait ends.
    std::chrono::steady_clock::time_point GetExpiry() const { return _timer.expiry(); }
    bool IsCancelled() const { return _cancelled; }
    bool IsStopped() const { return _stopped; }

private:
    AsyncTimer(T* owner, Callback callback, ArgCallback argCallback, int64_t arg, OwnerRef ref,
               boost::asio::io_context* service)
        : _timer(*service),
          _callback(callback),
          _argCallback(argCallback),
          _owner(ref == OwnerRef::Strong ? owner : nullptr),
          _rawOwner(owner),
          _arg(arg)
    {
        FLOG_TRIVIA("AsyncTimer construct, timerObj is %1, pObj is %2", static_cast<const void*>(this),
                    static_cast<const void*>(owner));
    }

    static std::chrono::steady_clock::time_point Deadline(int64_t intervalMicroseconds)
    {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point now = Clock::now();
        const std::chrono::microseconds interval(intervalMicroseconds);
        if (interval.count() > 0 && Clock::time_point::max() - now < interval) {
            return Clock::time_point::max();
        }
        return now + interval;
    }

    void OnExpiry(uint64_t generation, const boost::system::error_code& error)
    {
        GlobalLockGuard lock;
        const bool current = generation == _generation;
        if (current) {
            _pending = false;
        }
        if (error || !current || _cancelled || _stopped) {
            FLOG_TRIVIA("timer callback failed, Error code : %1, %2", error.value(),
                        current ? error.message() : std::string("superseded by a later start"));
            return;
        }
        if (_arg == -1) {
            (_rawOwner->*_callback)();
        } else {
            (_rawOwner->*_argCallback)(_arg);
        }
    }

    boost::asio::steady_timer _timer;
    bool _pending = false;
    Callback _callback;
    ArgCallback _argCallback;
    boost::intrusive_ptr<T> _owner;  // null for a weak owner
    T* _rawOwner;
    int64_t _arg;
    bool _cancelled = false;
    bool _stopped = false;
    uint64_t _generation = 0;
};

}  // namespace ZUNChannel
