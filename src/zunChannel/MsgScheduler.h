#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/intrusive_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include "AsyncTimer.h"
#include "IoService.h"
#include "MsgWriter.h"
#include "RefCounter.h"
#include "TokenBucket.h"

namespace ZUNChannel {

// The send queue of one controller connection: frames wait here, leave at the
// pace of the token bucket (one token per frame), one write in flight at a
// time. The connection enqueues and kicks after each send; its write
// completion clears the transmit flag and kicks again, and so does every
// refill of the bucket.
//
// Locks: the queue and the flags `enabled` and `closing` are guarded by
// _queueMutex, never held across a call out; everything else runs under the
// global lock (Kick and Stop assert it). Frames are malloc'ed buffers owned by
// the queue until handed to the writer.
//
// Nothing ever waits for a frame: Kick returns on an empty queue, and the next
// Enqueue or refill kicks again. Only a producer can wait, on a full queue.
class MsgScheduler : public RefCounter<MsgScheduler> {
public:
    static constexpr uint32_t kUnlimited = 0xFFFFFFFF;
    static constexpr int32_t kStatsIntervalUs = 30000000;

    // Made by the connection `writer` when it starts, under the global lock;
    // the bucket's refills and the statistics timer start at once. The
    // connection uses no queue limit; `maxSize` and `blockOnFull` are kept for
    // a writer that wants one.
    static boost::intrusive_ptr<MsgScheduler> Create(const boost::intrusive_ptr<MsgWriter>& writer,
                                                     boost::asio::io_context* service = IoService::Get(),
                                                     uint32_t maxSize = kUnlimited, bool blockOnFull = false);
    ~MsgScheduler() override;

    MsgScheduler(const MsgScheduler&) = delete;
    MsgScheduler& operator=(const MsgScheduler&) = delete;

    // Queues a frame, which the queue then owns. False when refused (disabled,
    // or full without blockOnFull, or drained while waiting): the caller keeps
    // the buffer.
    bool Enqueue(uint8_t* buffer);
    // Hands the first frame to the writer when no write is in flight and a
    // token allows it.
    void Kick();

    void SetTxOngoing(bool ongoing) { _txOngoing = ongoing; }
    bool IsTxOngoing() const { return _txOngoing; }
    // Cleared while the connection is down: the queue refuses frames.
    void Enable(bool enabled);
    void SetMsgRate(uint32_t rate) { _tokenBucket->SetRate(rate); }
    uint32_t GetMsgRate() const { return _tokenBucket->GetRate(); }
    bool IsFull() const;
    bool IsEmpty() const;
    size_t GetQueueLength() const;
    // Copies of the frames waiting, in order, for diagnostics and tests.
    std::vector<std::vector<uint8_t>> CopyQueuedFrames() const;
    // Enqueue calls waiting for room in a full queue.
    uint32_t GetBlockedCount() const;
    // Frames handed to the writer since construction.
    uint32_t GetSentCount() const { return _sentCount; }
    const boost::intrusive_ptr<TokenBucket>& GetTokenBucket() const { return _tokenBucket; }

    // Drops every queued frame (a reset), after waking and waiting out any
    // Enqueue blocked on a full queue. Runs under the global lock.
    void Drain();
    // For good: timers cancelled, bucket released, writer dropped (which
    // breaks the writer-scheduler cycle); the queue refuses from now on.
    void Stop();

    // What the statistics timer runs every 30 s; public so that a test can
    // play the timer.
    void OnStatsTimer();

private:
    MsgScheduler(const boost::intrusive_ptr<MsgWriter>& writer, boost::asio::io_context* service,
                 uint32_t maxSize, bool blockOnFull);
    void StartStatsTimer();
    bool IsFullLocked() const;

    mutable boost::mutex _queueMutex;
    std::deque<uint8_t*> _queue;
    const uint32_t _maxSize;
    const bool _blockOnFull;
    bool _enabled = true;
    bool _closing = false;
    uint32_t _blockedWriters = 0;    // Enqueue calls waiting for room
    boost::condition_variable _notFull;
    boost::condition_variable _drained;  // the last blocked Enqueue left while closing

    boost::intrusive_ptr<TokenBucket> _tokenBucket;
    boost::intrusive_ptr<MsgWriter> _conn;
    boost::asio::io_context* _service;
    std::shared_ptr<AsyncTimer<MsgScheduler>> _statsTimer;
    uint32_t _sentCount = 0;
    bool _txOngoing = false;
};

}  // namespace ZUNChannel
