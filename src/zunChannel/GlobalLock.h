#pragma once

#include <boost/thread/recursive_mutex.hpp>

namespace ZUNChannel {

// The one process-wide recursive lock that serialises the channel, the apps
// and the state cache. Every I/O completion, timer callback and work item
// that touches them takes it first.
class GlobalLock {
public:
    static boost::recursive_mutex& Mutex();
};

// Holds the global lock for a scope.
class GlobalLockGuard {
public:
    GlobalLockGuard() { GlobalLock::Mutex().lock(); }
    ~GlobalLockGuard() { GlobalLock::Mutex().unlock(); }
    GlobalLockGuard(const GlobalLockGuard&) = delete;
    GlobalLockGuard& operator=(const GlobalLockGuard&) = delete;
};

// True unless another thread holds the global lock (true for the holder, as
// the lock is recursive). Functions that must run under the lock assert it.
bool IsLockAvailable();

}  // namespace ZUNChannel
