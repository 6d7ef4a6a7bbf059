// Fuzz target of the frame reassembler, the first code to see a controller's
// bytes. The first input byte picks the mode:
//
//   even: the rest is a peer's byte stream:
//     [mode][maxPktLen, 2 bytes][split seed][stream ...]
//     Fed whole and fed in random pieces, it must give the same messages and
//     the same verdict, and every message delivered must be well formed.
//
//   odd: the rest describes messages that we send:
//     [mode][maxPktLen, 2 bytes][split seed] then records of 11 bytes
//     [kind][type, 2][protocolID, 2][sessionID, 4][length, 2]
//     Each message is fragmented as the connection sends it (kind bit 0: a
//     large body cut by FragmentBody, kind bit 1: its length times 4), the
//     frames are read back through NextRead/Commit in random pieces, and the
//     messages must come back byte for byte.
//
// ASSERTs of the agent (a `length` below 15, a message of bare headers) are
// allowed outcomes and end an input cleanly.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "CtrlMsgReassembler.h"
#include "FuzzSupport.h"
#include "TlvCommon.h"

namespace {

using FenREL::TlvCommon;
using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlMsgBuffer;
using ZUNChannel::CtrlMsgFragmenter;
using ZUNChannel::CtrlMsgReassembler;
using Status = CtrlMsgReassembler::Status;
using Message = CtrlMsgReassembler::Message;
using Bytes = std::vector<uint8_t>;

constexpr size_t kPrefix = 4;
constexpr size_t kRecord = 11;
// Keeps one input fast: at most this much body, and this many frames.
constexpr size_t kMaxBodyBytes = 100000;
constexpr size_t kMaxFrames = 4096;

// Read sizes: mostly short, now and then long, as a socket gives them.
class Pieces {
public:
    explicit Pieces(uint8_t seed) : _state(0x9E3779B9u ^ (seed + 1u)) {}
    size_t Next()
    {
        _state ^= _state << 13;
        _state ^= _state >> 17;
        _state ^= _state << 5;
        return (_state & 3) == 0 ? 1 + (_state >> 8) % 9000 : 1 + (_state >> 8) % 24;
    }

private:
    uint32_t _state;
};

struct Outcome {
    std::vector<Bytes> messages;
    Status status = Status::kNeedMore;
};

void CheckWellFormed(const Message& msg, uint16_t maxPktLen)
{
    const uint8_t* m = msg.buffer.get();
    FUZZ_CHECK(msg.size >= CtrlMsg::kHeaderSize);
    FUZZ_CHECK(CtrlMsg::HasMarker(m));
    FUZZ_CHECK(!CtrlMsg::MoreFragments(m));
    // Raw, as an assembled message's `length` may read below 15.
    FUZZ_CHECK(TlvCommon::GetBe16(m + 11) == static_cast<uint16_t>(msg.size));
    // Beyond the frame limit only an assembled message, which we wrote.
    FUZZ_CHECK(msg.size <= maxPktLen || (CtrlMsg::Version(m) == CtrlMsg::kVersion && CtrlMsg::Flags(m) == 0));
}

Outcome FeedInPieces(const uint8_t* stream, size_t size, uint16_t maxPktLen, Pieces* pieces)
{
    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    Outcome outcome;
    size_t offset = 0;
    while (offset < size && outcome.status == Status::kNeedMore) {
        const size_t piece = pieces == nullptr ? size - offset : std::min(pieces->Next(), size - offset);
        outcome.status = reassembler.Feed(stream + offset, piece, maxPktLen, &messages);
        offset += piece;
    }
    for (const Message& msg : messages) {
        CheckWellFormed(msg, maxPktLen);
        outcome.messages.emplace_back(msg.buffer.get(), msg.buffer.get() + msg.size);
    }
    return outcome;
}

void PeerStream(const uint8_t* data, size_t size)
{
    const uint16_t maxPktLen = TlvCommon::GetBe16(data + 1);
    Pieces pieces(data[3]);
    const Outcome whole = FeedInPieces(data + kPrefix, size - kPrefix, maxPktLen, nullptr);
    const Outcome split = FeedInPieces(data + kPrefix, size - kPrefix, maxPktLen, &pieces);
    FUZZ_CHECK(whole.status == split.status);
    FUZZ_CHECK(whole.messages == split.messages);
}

uint8_t PatternByte(size_t index, size_t i)
{
    return static_cast<uint8_t>(i * 31 + index * 7 + (i >> 8));
}

void RoundTrip(const uint8_t* data, size_t size)
{
    const uint16_t maxPktLen = std::max<uint16_t>(CtrlMsg::kHeaderSize + 1, TlvCommon::GetBe16(data + 1));
    const size_t chunk = maxPktLen - CtrlMsg::kHeaderSize;
    const size_t budget = std::min(kMaxBodyBytes, kMaxFrames * chunk);
    Pieces pieces(data[3]);

    std::vector<Bytes> expected;
    Bytes stream;
    size_t bodyBytes = 0;
    for (size_t at = kPrefix; at + kRecord <= size; at += kRecord) {
        const uint8_t* r = data + at;
        const uint16_t type = TlvCommon::GetBe16(r + 1);
        const uint16_t protocolId = TlvCommon::GetBe16(r + 3);
        const uint32_t sessionId = TlvCommon::GetBe32(r + 5);
        const size_t length = TlvCommon::GetBe16(r + 9) * ((r[0] & 2) != 0 ? 4u : 1u);
        const size_t index = expected.size();

        Bytes body;
        CtrlMsgFragmenter::Frames frames;
        uint32_t stamped = sessionId;
        if ((r[0] & 1) == 0) {
            body.resize(std::min(length, CtrlMsg::kMaxLength - CtrlMsg::kHeaderSize));
            for (size_t i = 0; i < body.size(); ++i) {
                body[i] = PatternByte(index, i);
            }
            uint8_t* msg = CtrlMsg::Build(type, protocolId, body.data(), body.size());
            CtrlMsg::StampSessionId(msg, sessionId);
            frames = CtrlMsgFragmenter::Fragment(CtrlMsgBuffer(msg), maxPktLen);
        } else {
            body.resize(1 + length);
            for (size_t i = 0; i < body.size(); ++i) {
                body[i] = PatternByte(index, i);
            }
            frames = CtrlMsgFragmenter::FragmentBody(type, protocolId, body[0], body.data() + 1, length, maxPktLen);
            stamped = CtrlMsg::kUnstampedSessionId;
        }
        bodyBytes += body.size();
        if (bodyBytes > budget) {
            break;
        }
        for (const CtrlMsgBuffer& frame : frames) {
            const uint8_t* f = frame.get();
            FUZZ_CHECK(CtrlMsg::Length(f) <= maxPktLen);
            stream.insert(stream.end(), f, f + CtrlMsg::Length(f));
        }
        Bytes whole(CtrlMsg::kHeaderSize);
        CtrlMsg::WriteHeader(whole.data(), 0, stamped, type,
                             static_cast<uint16_t>(CtrlMsg::kHeaderSize + body.size()), protocolId);
        whole.insert(whole.end(), body.begin(), body.end());
        expected.push_back(std::move(whole));
    }

    // Read back as the connection reads: never more than NextRead asks for.
    CtrlMsgReassembler reassembler;
    std::vector<Bytes> received;
    size_t offset = 0;
    while (offset < stream.size()) {
        const CtrlMsgReassembler::ReadTarget target = reassembler.NextRead();
        FUZZ_CHECK(target.size > 0);
        const size_t count = std::min({target.size, stream.size() - offset, pieces.Next()});
        memcpy(target.data, stream.data() + offset, count);
        offset += count;
        Message msg;
        const Status status = reassembler.Commit(count, maxPktLen, &msg);
        FUZZ_CHECK(status == Status::kNeedMore || status == Status::kMessage);
        if (status == Status::kMessage) {
            received.emplace_back(msg.buffer.get(), msg.buffer.get() + msg.size);
        }
    }
    FUZZ_CHECK(received == expected);
    FUZZ_CHECK(reassembler.GetReceived() == 0 && reassembler.GetFragmentCount() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < kPrefix) {
        return 0;
    }
    FenRELTest::RunFuzzInput([&] {
        if ((data[0] & 1) == 0) {
            PeerStream(data, size);
        } else {
            RoundTrip(data, size);
        }
    });
    return 0;
}
