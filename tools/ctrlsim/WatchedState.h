#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace CtrlSim {

// A handler's record of a conversation: changed on the simulator's I/O
// thread, copied and awaited from a test's. Every change wakes the waiters.
template <typename State>
class WatchedState {
public:
    // Runs `change` on the state under the lock; returns what it returns.
    template <typename Change>
    auto Update(Change change)
    {
        std::unique_lock<std::mutex> lock(_mutex);
        struct Notify {
            std::condition_variable& changed;
            ~Notify() { changed.notify_all(); }
        } notify{_changed};
        return change(_state);
    }

    // Runs `read` on the state under the lock; returns what it returns.
    template <typename Reader>
    auto Read(Reader read) const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return read(_state);
    }

    State Copy() const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _state;
    }

    // True when `condition` held within `timeout`. It runs under the lock and
    // must not call back into the handler.
    bool WaitUntil(const std::function<bool(const State&)>& condition, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] { return condition(_state); });
    }

private:
    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    State _state;
};

}  // namespace CtrlSim
