#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

namespace FenREL {

// The outgoing queue of a data-plane link: a bounded first-in, first-out
// queue of malloc'ed messages. A put on a full queue waits for room, a take
// from an empty queue waits for a message. The queue owns what it holds and
// frees what it cannot take, and what is left in it when it goes.
//
// Any thread: everything is guarded by _mutex.
class DataplaneMsgQueue {
public:
    static constexpr size_t kCapacity = 1024;

    explicit DataplaneMsgQueue(size_t capacity = kCapacity);
    ~DataplaneMsgQueue();
    DataplaneMsgQueue(const DataplaneMsgQueue&) = delete;
    DataplaneMsgQueue& operator=(const DataplaneMsgQueue&) = delete;

    // Takes ownership of `msg`; a full queue blocks the caller until there
    // is room. False once the queue is closed: "Msg Queue is full!" is logged
    // and `msg` is freed.
    bool Put(uint8_t* msg);
    // The oldest message, now the caller's; blocks while the queue is empty.
    // Null once the queue is closed.
    uint8_t* Take();
    // Wakes every waiter; later puts fail and takes give null.
    void Close();

    size_t Size() const;
    bool IsClosed() const;
    // Callers blocked in Put on a full queue, to observe the back-pressure.
    size_t BlockedPutters() const;

private:
    const size_t _capacity;
    mutable std::mutex _mutex;
    std::condition_variable _notEmpty;
    std::condition_variable _notFull;
    std::deque<uint8_t*> _messages;
    bool _closed = false;
    size_t _blockedPutters = 0;
};

}  // namespace FenREL
