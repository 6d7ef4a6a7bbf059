#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CtrlMsg.h"

namespace ZUNChannel {

// Turns the byte stream of one controller connection back into messages.
//
// The connection reads straight into buffers held here: NextRead() says where
// the next bytes go and how many are wanted, first the rest of the 15-byte
// header, then the rest of the frame, whose buffer is malloc'ed at the
// header's `length` with the header already copied in; Commit() is told how
// many arrived. A frame with flags bit 7 waits in the fragment list; the frame
// that ends a message either is the message or completes the list, which is
// then assembled into one new buffer (15 + the sum of the bodies).
//
// Bad frames: a `length` below 15 is an assertion (deliberate, on peer data);
// a `length` above maxPktLen or a wrong marker is a reason to reset the
// connection, reported by Commit. The version byte is not looked at here.
//
// Used under the global lock by the connection's read path; no lock of its own.
class CtrlMsgReassembler {
public:
    enum class Status {
        kNeedMore,     // nothing complete yet
        kMessage,      // a whole message was handed out
        kWrongLength,  // `length` above maxPktLen: reset the connection
        kWrongMarker,  // marker bytes not BA DB EE: reset the connection
    };

    // A whole message; `size` is its real size, which the 16-bit `length` of an
    // assembled message may not tell.
    struct Message {
        CtrlMsgBuffer buffer;
        uint32_t size = 0;
    };

    struct ReadTarget {
        uint8_t* data;
        size_t size;
    };

    CtrlMsgReassembler() = default;
    ~CtrlMsgReassembler() = default;
    CtrlMsgReassembler(const CtrlMsgReassembler&) = delete;
    CtrlMsgReassembler& operator=(const CtrlMsgReassembler&) = delete;

    // Where the next bytes of the stream go, and how many are wanted (never 0).
    ReadTarget NextRead();

    // `count` bytes (at most NextRead().size) were written at NextRead().data.
    // `maxPktLen` is the current frame limit. On kMessage, `out` receives the
    // message and its ownership. On kWrongLength or kWrongMarker the stream is
    // unusable: LogBadMessage and StatusSuffix say why, and nothing more may be
    // committed before Reset().
    Status Commit(size_t count, uint16_t maxPktLen, Message* out);

    // Takes bytes of the stream in any split, through the same path as
    // NextRead/Commit, appending every whole message to `out`. Returns kNeedMore
    // once all bytes are taken, or the first bad-frame status (the bytes behind
    // the bad header are not looked at).
    Status Feed(const uint8_t* data, size_t size, uint16_t maxPktLen, std::vector<Message>* out);

    // Drops the partial frame and the fragments: the connection was reset.
    void Reset();

    // After a bad frame: logs "Received bad message on <connName>: ..." at
    // error with "errorCode:LCP00016".
    void LogBadMessage(const std::string& connName) const;
    // After a bad frame: what goes behind "other_error" in the connection status.
    const char* StatusSuffix() const;

    // Bytes of the current frame received so far, and fragments waiting.
    size_t GetReceived() const { return _received; }
    size_t GetFragmentCount() const { return _fragments.size(); }

private:
    Status CheckHeader(uint16_t maxPktLen);
    Status FrameDone(Message* out);
    void Assemble(Message* out);

    uint8_t _header[CtrlMsg::kHeaderSize] = {};
    CtrlMsgBuffer _frame;        // null while the header is read
    uint32_t _frameLength = 0;   // `length` of the current frame
    uint32_t _received = 0;      // bytes of the current frame, header included
    std::vector<CtrlMsgBuffer> _fragments;
    size_t _fragmentBodyBytes = 0;
    Status _failure = Status::kNeedMore;
};

}  // namespace ZUNChannel
