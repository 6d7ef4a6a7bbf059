#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "FrameReader.h"
#include "Hex.h"
#include "MessageAssembler.h"
#include "MessageWriter.h"

namespace CtrlSim {
namespace {

Bytes Body(size_t size)
{
    Bytes body(size);
    for (size_t i = 0; i < size; ++i) {
        body[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    return body;
}

OutMessage Out(uint16_t type, uint16_t protocolId, size_t bodySize, size_t frameLimit, uint32_t sessionId = 7)
{
    OutMessage msg;
    msg.type = type;
    msg.protocolId = protocolId;
    msg.body = Body(bodySize);
    msg.sessionId = sessionId;
    msg.frameLimit = frameLimit;
    return msg;
}

Bytes Concat(const std::vector<Bytes>& parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

TEST(CtrlSimFramingTest, KeepAliveIsTheFixedFifteenBytes)
{
    EXPECT_EQ(ToHex(MessageWriter::KeepAlive()), "01badbee00ffffffff0002000f0000");
}

struct FragmentCase {
    size_t bodySize;
    size_t frameLimit;
    std::vector<size_t> frameLengths;
};

class CtrlSimFragmentTest : public testing::TestWithParam<FragmentCase> {};

TEST_P(CtrlSimFragmentTest, FramesFollowTheLimitAndTheMoreFlag)
{
    const FragmentCase& c = GetParam();
    const OutMessage msg = Out(7, 257, c.bodySize, c.frameLimit, 0x01020304);
    const std::vector<Bytes> frames = MessageWriter::Frames(msg);

    ASSERT_EQ(frames.size(), c.frameLengths.size());
    Bytes body;
    for (size_t i = 0; i < frames.size(); ++i) {
        const FrameHeader header = FrameHeader::Parse(frames[i].data());
        EXPECT_EQ(frames[i].size(), c.frameLengths[i]) << "frame " << i;
        EXPECT_EQ(header.length, c.frameLengths[i]) << "frame " << i;
        EXPECT_EQ(header.flags, i + 1 < frames.size() ? 0x80 : 0x00) << "frame " << i;
        EXPECT_EQ(header.sessionId, 0x01020304u);
        EXPECT_EQ(header.type, 7);
        EXPECT_EQ(header.protocolId, 257);
        EXPECT_TRUE(header.MarkerOk());
        body.insert(body.end(), frames[i].begin() + FrameHeader::Size, frames[i].end());
    }
    EXPECT_EQ(body, msg.body);
}

INSTANTIATE_TEST_SUITE_P(Limits, CtrlSimFragmentTest,
                         testing::Values(FragmentCase{0, 20, {15}},             // no body
                                         FragmentCase{5, 20, {20}},             // exactly one chunk
                                         FragmentCase{6, 20, {20, 16}},         // one byte over
                                         FragmentCase{10, 20, {20, 20}},        // two whole chunks
                                         FragmentCase{100, 0, {115}},           // no limit
                                         FragmentCase{100, 115, {115}},         // fits exactly
                                         FragmentCase{100, 16, std::vector<size_t>(100, 16)}));

TEST(CtrlSimFramingTest, WriterRefusesWhatTheHeaderCannotExpress)
{
    EXPECT_THROW(MessageWriter::Frames(Out(7, 1, 10, 15)), std::invalid_argument);
    EXPECT_THROW(MessageWriter::Frames(Out(7, 1, 65521, 0)), std::invalid_argument);
    EXPECT_EQ(MessageWriter::Frames(Out(7, 1, 65520, 0)).size(), 1u);
    EXPECT_EQ(MessageWriter::Frames(Out(7, 1, 70000, 4096)).size(), 18u);
}

// A stream of several messages: fragmented, empty, a 15-byte fragment with
// the more flag (legal, adds nothing), and a keep-alive.
std::vector<OutMessage> StreamMessages()
{
    return {Out(1, 0, 21, 0), Out(7, 64, 300, 40), Out(4, 257, 0, 0), Out(7, 256, 9000, 4096),
            Out(2, 0, 0, 0, 0xFFFFFFFF)};
}

Bytes StreamBytes()
{
    Bytes stream;
    for (const OutMessage& msg : StreamMessages()) {
        const Bytes frames = Concat(MessageWriter::Frames(msg));
        stream.insert(stream.end(), frames.begin(), frames.end());
    }
    // An empty fragment with the more flag, then its last frame of 3 bytes.
    FrameHeader empty;
    empty.flags = FrameHeader::MoreFragmentsFlag;
    empty.type = 7;
    empty.protocolId = 1026;
    Bytes emptyFrame(FrameHeader::Size);
    empty.Write(emptyFrame.data());
    const Bytes last = MessageWriter::Frames(Out(7, 1026, 3, 0, 0xFFFFFFFF))[0];
    stream.insert(stream.end(), emptyFrame.begin(), emptyFrame.end());
    stream.insert(stream.end(), last.begin(), last.end());
    return stream;
}

std::vector<Message> Assemble(const Bytes& stream, size_t chunk)
{
    FrameReader reader;
    MessageAssembler assembler;
    std::vector<Message> messages;
    for (size_t offset = 0; offset < stream.size(); offset += chunk) {
        std::vector<Frame> frames;
        EXPECT_TRUE(reader.Feed(stream.data() + offset, std::min(chunk, stream.size() - offset), frames));
        for (const Frame& frame : frames) {
            std::string complaint;
            if (auto msg = assembler.Add(frame, &complaint)) {
                messages.push_back(std::move(*msg));
            }
            EXPECT_EQ(complaint, "");
        }
    }
    EXPECT_EQ(reader.Pending(), 0u);
    EXPECT_FALSE(assembler.InProgress());
    return messages;
}

TEST(CtrlSimFramingTest, ReassemblesTheSameMessagesUnderAnySplit)
{
    const Bytes stream = StreamBytes();
    std::vector<OutMessage> expected = StreamMessages();
    expected.push_back(Out(7, 1026, 3, 0, 0xFFFFFFFF));

    for (size_t chunk : {size_t(1), size_t(2), size_t(14), size_t(15), size_t(16), size_t(39), size_t(4096),
                         stream.size()}) {
        SCOPED_TRACE("chunk " + std::to_string(chunk));
        const std::vector<Message> messages = Assemble(stream, chunk);
        ASSERT_EQ(messages.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(messages[i].header.type, expected[i].type) << "message " << i;
            EXPECT_EQ(messages[i].header.protocolId, expected[i].protocolId) << "message " << i;
            EXPECT_EQ(messages[i].header.sessionId, expected[i].sessionId) << "message " << i;
            EXPECT_EQ(messages[i].body, expected[i].body) << "message " << i;
        }
        EXPECT_EQ(messages[1].frameCount, 12u);  // 300 bytes in chunks of 25
        EXPECT_EQ(messages[5].frameCount, 2u);
        EXPECT_EQ(Concat({messages[0].raw, messages[1].raw, messages[2].raw, messages[3].raw, messages[4].raw,
                          messages[5].raw}),
                  stream);
    }
}

TEST(CtrlSimFramingTest, BrokenStreamKeepsTheFramesBeforeTheFault)
{
    struct Case {
        const char* name;
        Bytes badHeader;
        const char* error;
    };
    const Case cases[] = {
        {"wrong marker", *FromHex("01badb0000ffffffff0002000f0000"), "wrong marker 186:219:0"},
        {"length below header", *FromHex("01badbee00ffffffff0002000e0000"), "frame length 14 below the header size"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes stream = MessageWriter::KeepAlive();
        stream.insert(stream.end(), c.badHeader.begin(), c.badHeader.end());
        FrameReader reader;
        std::vector<Frame> frames;
        EXPECT_FALSE(reader.Feed(stream.data(), stream.size(), frames));
        EXPECT_EQ(frames.size(), 1u);
        EXPECT_EQ(reader.Error(), c.error);
        const Bytes more = MessageWriter::KeepAlive();
        EXPECT_FALSE(reader.Feed(more.data(), more.size(), frames));
        EXPECT_EQ(frames.size(), 1u);
    }
}

TEST(CtrlSimFramingTest, FragmentOfAnotherMessageIsReported)
{
    MessageAssembler assembler;
    const std::vector<Bytes> first = MessageWriter::Frames(Out(7, 64, 30, 20));
    const std::vector<Bytes> other = MessageWriter::Frames(Out(7, 256, 3, 0));
    std::string complaint;
    EXPECT_FALSE(assembler.Add(Frame{FrameHeader::Parse(first[0].data()), first[0]}, &complaint));
    EXPECT_EQ(complaint, "");
    const auto joined = assembler.Add(Frame{FrameHeader::Parse(other[0].data()), other[0]}, &complaint);
    ASSERT_TRUE(joined);
    EXPECT_NE(complaint.find("does not match"), std::string::npos) << complaint;
    EXPECT_EQ(joined->body.size(), 5u + 3u);
}

}  // namespace
}  // namespace CtrlSim
