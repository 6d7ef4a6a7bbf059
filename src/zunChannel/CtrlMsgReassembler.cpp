#include "CtrlMsgReassembler.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "Assert.h"
#include "Logger.h"

namespace ZUNChannel {

CtrlMsgReassembler::ReadTarget CtrlMsgReassembler::NextRead()
{
    if (_frameLength == 0) {
        return {_header + _received, CtrlMsg::kHeaderSize - _received};
    }
    const size_t bodyRead = _received - CtrlMsg::kHeaderSize;
    const size_t bodyAt = _fragments == 0 ? CtrlMsg::kHeaderSize : _msgSize;
    return {_msg.get() + bodyAt + bodyRead, _frameLength - _received};
}

CtrlMsgReassembler::Status CtrlMsgReassembler::Commit(size_t count, uint16_t maxPktLen, Message* out)
{
    // The connection reads no more once the stream went bad.
    ASSERT(_failure == Status::kNeedMore);
    ASSERT(count <= NextRead().size);
    _received += static_cast<uint32_t>(count);
    if (_frameLength == 0) {
        if (_received < CtrlMsg::kHeaderSize) {
            return Status::kNeedMore;
        }
        const Status checked = CheckHeader(maxPktLen);
        if (checked != Status::kNeedMore) {
            return checked;
        }
        StartBody();
    }
    if (_received < _frameLength) {
        return Status::kNeedMore;
    }
    return FrameDone(out);
}

CtrlMsgReassembler::Status CtrlMsgReassembler::CheckHeader(uint16_t maxPktLen)
{
    const uint16_t length = CtrlMsg::Length(_header);
    if (length > maxPktLen) {
        _failure = Status::kWrongLength;
    } else if (!CtrlMsg::HasMarker(_header)) {
        _failure = Status::kWrongMarker;
    } else {
        _frameLength = length;
    }
    return _failure;
}

void CtrlMsgReassembler::StartBody()
{
    if (_fragments == 0) {
        // A message's first frame: its own buffer, which a message of one
        // frame keeps.
        _capacity = _frameLength;
        _msg.reset(CtrlMsg::AllocBuffer(_capacity));
        memcpy(_msg.get(), _header, CtrlMsg::kHeaderSize);
        return;
    }
    // A fragment that follows: its body goes behind the bodies so far.
    const size_t needed = _msgSize + (_frameLength - CtrlMsg::kHeaderSize);
    // The real size travels as 32 bits; more would not fit in memory anyway.
    ASSERT(needed <= std::numeric_limits<uint32_t>::max());
    if (needed > _capacity) {
        _capacity = std::max(needed, 2 * _capacity);
        _msg.reset(CtrlMsg::ReallocBuffer(_msg.release(), _capacity));
    }
}

CtrlMsgReassembler::Status CtrlMsgReassembler::FrameDone(Message* out)
{
    const size_t bodyLength = _frameLength - CtrlMsg::kHeaderSize;
    _msgSize = (_fragments == 0 ? CtrlMsg::kHeaderSize : _msgSize) + bodyLength;
    _frameLength = 0;
    _received = 0;
    if (CtrlMsg::MoreFragments(_header)) {
        ++_fragments;
        return Status::kNeedMore;
    }
    if (_fragments > 0) {
        // A message made of bare headers has nothing to deliver.
        ASSERT(_msgSize > CtrlMsg::kHeaderSize);
        // The first fragment's header is in place; `length` keeps only the low
        // 16 bits of the size, deliberately: receivers take the size that
        // travels beside the buffer.
        uint8_t* msg = _msg.get();
        CtrlMsg::WriteHeader(msg, 0, CtrlMsg::SessionId(msg), CtrlMsg::Type(msg), static_cast<uint16_t>(_msgSize),
                             CtrlMsg::ProtocolId(msg));
    }
    out->buffer = std::move(_msg);
    out->size = static_cast<uint32_t>(_msgSize);
    _msgSize = 0;
    _capacity = 0;
    _fragments = 0;
    return Status::kMessage;
}

CtrlMsgReassembler::Status CtrlMsgReassembler::Feed(const uint8_t* data, size_t size, uint16_t maxPktLen,
                                                    std::vector<Message>* out)
{
    size_t offset = 0;
    while (offset < size) {
        const ReadTarget target = NextRead();
        const size_t count = std::min(target.size, size - offset);
        memcpy(target.data, data + offset, count);
        offset += count;
        Message msg;
        const Status status = Commit(count, maxPktLen, &msg);
        if (status == Status::kMessage) {
            out->push_back(std::move(msg));
        } else if (status != Status::kNeedMore) {
            return status;
        }
    }
    return Status::kNeedMore;
}

void CtrlMsgReassembler::Reset()
{
    _msg.reset();
    _msgSize = 0;
    _capacity = 0;
    _fragments = 0;
    _frameLength = 0;
    _received = 0;
    _failure = Status::kNeedMore;
}

void CtrlMsgReassembler::LogBadMessage(const std::string& connName) const
{
    if (_failure == Status::kWrongLength) {
        FLOG_ERROR("Received bad message on %1: wrong message length %2", connName, CtrlMsg::Length(_header))
            .AddTag("errorCode:LCP00016");
    } else if (_failure == Status::kWrongMarker) {
        FLOG_ERROR("Received bad message on %1: wrong marker %2:%3:%4", connName, _header[1], _header[2],
                   _header[3])
            .AddTag("errorCode:LCP00016");
    }
}

const char* CtrlMsgReassembler::StatusSuffix() const
{
    switch (_failure) {
    case Status::kWrongLength:
        return ": received wrong message length";
    case Status::kWrongMarker:
        return ": received wrong marker";
    default:
        return "";
    }
}

}  // namespace ZUNChannel
