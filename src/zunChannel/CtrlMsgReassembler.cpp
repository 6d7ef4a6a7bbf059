#include "CtrlMsgReassembler.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "Assert.h"
#include "Logger.h"

namespace ZUNChannel {

CtrlMsgReassembler::ReadTarget CtrlMsgReassembler::NextRead()
{
    if (!_frame) {
        return {_header + _received, CtrlMsg::kHeaderSize - _received};
    }
    return {_frame.get() + _received, _frameLength - _received};
}

CtrlMsgReassembler::Status CtrlMsgReassembler::Commit(size_t count, uint16_t maxPktLen, Message* out)
{
    // The connection reads no more once the stream went bad.
    ASSERT(_failure == Status::kNeedMore);
    ASSERT(count <= NextRead().size);
    _received += static_cast<uint32_t>(count);
    if (!_frame) {
        if (_received < CtrlMsg::kHeaderSize) {
            return Status::kNeedMore;
        }
        const Status checked = CheckHeader(maxPktLen);
        if (checked != Status::kNeedMore) {
            return checked;
        }
        // One buffer per frame, the final one: the body is read straight into it.
        _frame.reset(CtrlMsg::AllocBuffer(_frameLength));
        memcpy(_frame.get(), _header, CtrlMsg::kHeaderSize);
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

CtrlMsgReassembler::Status CtrlMsgReassembler::FrameDone(Message* out)
{
    CtrlMsgBuffer frame = std::move(_frame);
    const uint32_t length = _frameLength;
    _received = 0;
    _frameLength = 0;
    const bool last = !CtrlMsg::MoreFragments(frame.get());
    if (last && _fragments.empty()) {
        out->buffer = std::move(frame);
        out->size = length;
        return Status::kMessage;
    }
    _fragmentBodyBytes += length - CtrlMsg::kHeaderSize;
    _fragments.push_back(std::move(frame));
    if (!last) {
        return Status::kNeedMore;
    }
    Assemble(out);
    return Status::kMessage;
}

void CtrlMsgReassembler::Assemble(Message* out)
{
    const size_t size = CtrlMsg::kHeaderSize + _fragmentBodyBytes;
    // A message made of bare headers has nothing to deliver.
    ASSERT(size > CtrlMsg::kHeaderSize);
    // The real size travels as 32 bits; more would not fit in memory anyway.
    ASSERT(size <= std::numeric_limits<uint32_t>::max());
    const uint8_t* first = _fragments.front().get();
    uint8_t* msg = CtrlMsg::AllocBuffer(size);
    out->buffer.reset(msg);
    out->size = static_cast<uint32_t>(size);
    // `length` keeps only the low 16 bits of the size, deliberately: the
    // receivers take the size that travels beside the buffer.
    CtrlMsg::WriteHeader(msg, 0, CtrlMsg::SessionId(first), CtrlMsg::Type(first), static_cast<uint16_t>(size),
                         CtrlMsg::ProtocolId(first));
    uint8_t* body = msg + CtrlMsg::kHeaderSize;
    for (const CtrlMsgBuffer& fragment : _fragments) {
        const size_t bodyLength = CtrlMsg::Length(fragment.get()) - CtrlMsg::kHeaderSize;
        memcpy(body, fragment.get() + CtrlMsg::kHeaderSize, bodyLength);
        body += bodyLength;
    }
    _fragments.clear();
    _fragmentBodyBytes = 0;
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
    _frame.reset();
    _frameLength = 0;
    _received = 0;
    _fragments.clear();
    _fragmentBodyBytes = 0;
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
