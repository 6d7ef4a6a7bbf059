#include "DataplaneMsgQueue.h"

#include <cstdlib>

#include "Logger.h"

namespace FenREL {

DataplaneMsgQueue::DataplaneMsgQueue(size_t capacity) : _capacity(capacity) {}

DataplaneMsgQueue::~DataplaneMsgQueue()
{
    for (uint8_t* msg : _messages) {
        free(msg);
    }
}

bool DataplaneMsgQueue::Put(uint8_t* msg)
{
    std::unique_lock<std::mutex> lock(_mutex);
    ++_blockedPutters;
    _notFull.wait(lock, [this] { return _closed || _messages.size() < _capacity; });
    --_blockedPutters;
    if (_closed) {
        lock.unlock();
        FLOG_ERROR("Msg Queue is full!").AddTag("errorCode:LCP00008");
        free(msg);
        return false;
    }
    _messages.push_back(msg);
    _notEmpty.notify_one();
    return true;
}

uint8_t* DataplaneMsgQueue::Take()
{
    std::unique_lock<std::mutex> lock(_mutex);
    _notEmpty.wait(lock, [this] { return _closed || !_messages.empty(); });
    if (_closed) {
        return nullptr;
    }
    uint8_t* msg = _messages.front();
    _messages.pop_front();
    _notFull.notify_one();
    return msg;
}

void DataplaneMsgQueue::Close()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _closed = true;
    _notEmpty.notify_all();
    _notFull.notify_all();
}

size_t DataplaneMsgQueue::Size() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _messages.size();
}

bool DataplaneMsgQueue::IsClosed() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _closed;
}

size_t DataplaneMsgQueue::BlockedPutters() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _blockedPutters;
}

}  // namespace FenREL
