#include "MsgScheduler.h"

#include <cstdlib>

#include "Assert.h"
#include "CtrlMsg.h"
#include "GlobalLock.h"
#include "Logger.h"

namespace ZUNChannel {

using QueueLock = boost::unique_lock<boost::mutex>;

boost::intrusive_ptr<MsgScheduler> MsgScheduler::Create(const boost::intrusive_ptr<MsgWriter>& writer,
                                                        boost::asio::io_context* service, uint32_t maxSize,
                                                        bool blockOnFull)
{
    boost::intrusive_ptr<MsgScheduler> scheduler(new MsgScheduler(writer, service, maxSize, blockOnFull));
    scheduler->_tokenBucket = TokenBucket::Create(scheduler.get(), service);
    scheduler->StartStatsTimer();
    return scheduler;
}

MsgScheduler::MsgScheduler(const boost::intrusive_ptr<MsgWriter>& writer, boost::asio::io_context* service,
                           uint32_t maxSize, bool blockOnFull)
    : _maxSize(maxSize), _blockOnFull(blockOnFull), _conn(writer), _service(service)
{
}

MsgScheduler::~MsgScheduler()
{
    FLOG_VERBOSE("MsgScheduler: destructor");
    for (uint8_t* frame : _queue) {
        free(frame);
    }
}

void MsgScheduler::StartStatsTimer()
{
    // A new timer object each period; the old one is normally the one calling
    // back, and is given up in any case.
    if (_statsTimer) {
        _statsTimer->Stop();
    }
    _statsTimer = AsyncTimer<MsgScheduler>::Create(this, &MsgScheduler::OnStatsTimer,
                                                   AsyncTimer<MsgScheduler>::OwnerRef::Strong, _service);
    _statsTimer->Start(kStatsIntervalUs);
}

void MsgScheduler::OnStatsTimer()
{
    if (!_statsTimer) {
        return;  // stopped
    }
    FLOG_TRIVIA("MsgScheduler: current msg count (interval = %1s)  %2", kStatsIntervalUs / 1000000, _sentCount);
    StartStatsTimer();
}

bool MsgScheduler::IsFullLocked() const
{
    return _maxSize != kUnlimited && _queue.size() >= _maxSize;
}

bool MsgScheduler::Enqueue(uint8_t* buffer)
{
    QueueLock lock(_queueMutex);
    bool queued = false;
    bool full = false;
    if (!_enabled) {
        // refused: the connection is down
    } else if (!IsFullLocked()) {
        queued = true;
    } else if (!_blockOnFull) {
        full = true;
    } else {
        ++_blockedWriters;
        while (IsFullLocked() && !_closing) {
            _notFull.wait(lock);
        }
        --_blockedWriters;
        queued = !_closing && _enabled;
        if (_closing && _blockedWriters == 0) {
            _drained.notify_all();
        }
    }
    if (!queued) {
        // The log's sink may do I/O: not under the queue mutex.
        lock.unlock();
        if (full) {
            FLOG_ERROR("Msg Queue is full!").AddTag("errorCode:LCP00008");
        }
        FLOG_VERBOSE("Failed to queue message!");
        return false;
    }
    _queue.push_back(buffer);
    return true;
}

void MsgScheduler::Kick()
{
    // The writer and the flags below belong to the global lock.
    ASSERT(IsLockAvailable());
    if (!_conn) {
        return;
    }
    if (_txOngoing) {
        FLOG_TRIVIA("MsgScheduler: Tx ongoing");
        return;
    }
    if (IsEmpty()) {
        FLOG_TRIVIA("MsgScheduler: no msg");
        return;
    }
    if (_tokenBucket->Consume(1) == 0) {
        // The next refill kicks again.
        FLOG_TRIVIA("MsgScheduler: no token");
        return;
    }
    uint8_t* frame = nullptr;
    {
        QueueLock lock(_queueMutex);
        // Only Kick and Drain take frames out, both under the global lock, so
        // the queue still holds what IsEmpty saw.
        if (!_queue.empty()) {
            frame = _queue.front();
            _queue.pop_front();
        }
        if (_blockedWriters > 0) {
            _notFull.notify_one();
        }
    }
    // A null frame was queued, or the queue emptied behind the lock's back.
    ASSERT(frame != nullptr);
    if (_conn->WriteMsg(frame, CtrlMsg::Length(frame))) {
        ++_sentCount;
    }
}

void MsgScheduler::Enable(bool enabled)
{
    QueueLock lock(_queueMutex);
    _enabled = enabled;
}

bool MsgScheduler::IsFull() const
{
    QueueLock lock(_queueMutex);
    return IsFullLocked();
}

bool MsgScheduler::IsEmpty() const
{
    QueueLock lock(_queueMutex);
    return _queue.empty();
}

size_t MsgScheduler::GetQueueLength() const
{
    QueueLock lock(_queueMutex);
    return _queue.size();
}

std::vector<std::vector<uint8_t>> MsgScheduler::CopyQueuedFrames() const
{
    QueueLock lock(_queueMutex);
    std::vector<std::vector<uint8_t>> frames;
    for (const uint8_t* frame : _queue) {
        frames.emplace_back(frame, frame + CtrlMsg::Length(frame));
    }
    return frames;
}

uint32_t MsgScheduler::GetBlockedCount() const
{
    QueueLock lock(_queueMutex);
    return _blockedWriters;
}

void MsgScheduler::Drain()
{
    std::deque<uint8_t*> dropped;
    {
        QueueLock lock(_queueMutex);
        _closing = true;
        _notFull.notify_all();
        while (_blockedWriters > 0) {
            _drained.wait(lock);
        }
        dropped.swap(_queue);
        _closing = false;
    }
    for (uint8_t* frame : dropped) {
        free(frame);
    }
}

void MsgScheduler::Stop()
{
    // The timers, bucket and writer belong to the global lock.
    ASSERT(IsLockAvailable());
    if (_statsTimer) {
        _statsTimer->Stop();
        _statsTimer.reset();
    }
    _tokenBucket->Stop();
    Enable(false);
    _conn.reset();
}

}  // namespace ZUNChannel
