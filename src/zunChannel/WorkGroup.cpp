#include "WorkGroup.h"

namespace ZUNChannel {

WorkGroup& WorkGroup::Get()
{
    static WorkGroup* group = new WorkGroup();  // its threads may run until exit
    return *group;
}

WorkGroup::~WorkGroup()
{
    Stop();
}

void WorkGroup::Start(uint32_t threads)
{
    {
        boost::lock_guard<boost::mutex> lock(_mutex);
        _threadLimit = threads;
        _running = true;
    }
    for (uint32_t i = 0; i < threads; ++i) {
        _threads.create_thread([this] { WorkLoop(); });
    }
}

bool WorkGroup::Post(std::shared_ptr<WorkItem> item)
{
    boost::lock_guard<boost::mutex> lock(_mutex);
    if (_maxQueueLength >= 0 && static_cast<int64_t>(_queue.size()) >= _maxQueueLength) {
        return false;
    }
    _queue.push_back(std::move(item));
    if (_waitingThreads > 0) {
        _cond.notify_one();
    }
    return true;
}

void WorkGroup::Stop()
{
    {
        boost::lock_guard<boost::mutex> lock(_mutex);
        _running = false;
        _cond.notify_all();
    }
    _threads.join_all();
}

void WorkGroup::WorkLoop()
{
    boost::unique_lock<boost::mutex> lock(_mutex);
    for (;;) {
        if (!_queue.empty()) {
            std::shared_ptr<WorkItem> item = std::move(_queue.front());
            _queue.pop_front();
            lock.unlock();
            item->Run();
            item.reset();
            lock.lock();
            continue;
        }
        if (!_running) {
            return;
        }
        ++_waitingThreads;
        _cond.wait(lock);
        --_waitingThreads;
    }
}

}  // namespace ZUNChannel
