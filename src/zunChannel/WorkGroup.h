#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "WorkItem.h"

namespace ZUNChannel {

// The fixed pool of threads behind every work item of the agent, serving one
// first-in-first-out queue. The IOWorkers that run the I/O service are taken
// out of the same pool, so `ioThreads` of them never return to the queue.
//
// The queue and its counters are guarded by _mutex, which is never held while
// an item runs.
class WorkGroup {
public:
    static WorkGroup& Get();

    WorkGroup() = default;
    ~WorkGroup();
    WorkGroup(const WorkGroup&) = delete;
    WorkGroup& operator=(const WorkGroup&) = delete;

    void Start(uint32_t threads);
    // Refused only with a queue limit and a full queue; the limit is unset here.
    bool Post(std::shared_ptr<WorkItem> item);
    // Lets the threads finish the queue, then joins them.
    void Stop();

    uint32_t GetThreadCount() const { return _threadLimit; }

private:
    void WorkLoop();

    uint32_t _threadLimit = 0;
    int64_t _maxQueueLength = -1;
    bool _running = false;
    uint32_t _waitingThreads = 0;
    std::deque<std::shared_ptr<WorkItem>> _queue;
    boost::mutex _mutex;
    boost::condition_variable _cond;
    boost::thread_group _threads;
};

}  // namespace ZUNChannel
