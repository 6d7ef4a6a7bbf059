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
// the next bytes go and how many are wanted, and Commit() is told how many
// arrived. A frame is read in two steps: the 15-byte header into a fixed
// buffer, then the body into the message buffer. For the first frame of a
// message that buffer is malloc'ed at the frame's `length` with the header
// copied in, so that a message of one frame is delivered in the buffer it was
// read into. The frames that follow a frame with flags bit 7 set append their
// bodies to the same buffer, grown as needed, and the last one completes the
// message: 15 bytes of header (version 1, flags 0, sessionID, type and
// protocolID of the first fragment, `length` cut to 16 bits) and the bodies in
// order. Every byte is thus copied once, by the read itself.
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

    // Where the next bytes of the stream go, and how many are wanted (never
    // 0). Valid until the next Commit or Reset.
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

    // Bytes of the current frame received so far, and fragments of the
    // current message held (frames with the more bit).
    size_t GetReceived() const { return _received; }
    size_t GetFragmentCount() const { return _fragments; }

private:
    Status CheckHeader(uint16_t maxPktLen);
    void StartBody();
    Status FrameDone(Message* out);

    uint8_t _header[CtrlMsg::kHeaderSize] = {};
    uint32_t _frameLength = 0;  // `length` of the current frame, 0 while its header is read
    uint32_t _received = 0;     // bytes of the current frame, header included
    CtrlMsgBuffer _msg;         // the message being read: header, then bodies
    size_t _msgSize = 0;        // bytes of _msg filled by finished frames
    size_t _capacity = 0;       // bytes allocated for _msg
    size_t _fragments = 0;
    Status _failure = Status::kNeedMore;
};

}  // namespace ZUNChannel
