#include <gtest/gtest.h>

#include <vector>

#include "FrameReader.h"
#include "Hex.h"
#include "MessageAssembler.h"
#include "MessageWriter.h"

namespace CtrlSim {
namespace {

OutMessage Out(uint16_t type, uint16_t protocolId, size_t bodySize, size_t frameLimit, uint32_t sessionId = 7)
{
    OutMessage msg;
    msg.type = type;
    msg.protocolId = protocolId;
    for (size_t i = 0; i < bodySize; ++i) {
        msg.body.push_back(static_cast<uint8_t>(i * 7 + 1));
    }
    msg.sessionId = sessionId;
    msg.frameLimit = frameLimit;
    return msg;
}

TEST(CtrlSimFramingTest, KeepAliveIsTheFixedFifteenBytes)
{
    EXPECT_EQ(ToHex(MessageWriter::KeepAlive()), "01badbee00ffffffff0002000f0000");
}

// Messages written under a frame limit (0: none), fragmented or not, empty,
// and one led by a bare 15-byte header with the more flag: whatever the split
// of the stream, the same messages come out, each from the frames that went in.
TEST(CtrlSimFramingTest, WrittenMessagesReassembleTheSameUnderAnySplit)
{
    const std::vector<OutMessage> messages = {Out(1, 0, 21, 0),         Out(7, 64, 5, 20),
                                              Out(7, 64, 6, 20),        Out(7, 64, 300, 40),
                                              Out(4, 257, 0, 0),        Out(7, 256, 9000, 4096),
                                              Out(7, 257, 40, 16, 0x01020304), Out(7, 1026, 3, 0, 0xFFFFFFFF)};
    const std::vector<size_t> frameCounts = {1, 1, 2, 12, 1, 3, 40, 2};
    Bytes stream;
    for (const OutMessage& msg : messages) {
        if (&msg == &messages.back()) {
            FrameHeader empty;
            empty.flags = FrameHeader::MoreFragmentsFlag;
            empty.type = 7;
            empty.protocolId = 1026;
            stream.resize(stream.size() + FrameHeader::Size);
            empty.Write(stream.data() + stream.size() - FrameHeader::Size);
        }
        const std::vector<Bytes> frames = MessageWriter::Frames(msg);
        for (size_t i = 0; i < frames.size(); ++i) {
            const FrameHeader header = FrameHeader::Parse(frames[i].data());
            EXPECT_EQ(header.length, frames[i].size());
            // Every fragment but the last fills the limit exactly.
            EXPECT_EQ(i + 1 < frames.size() ? msg.frameLimit : header.length, header.length) << "frame " << i;
            EXPECT_EQ(i + 1 < frames.size() ? 0x80 : 0x00, header.flags) << "frame " << i;
            stream.insert(stream.end(), frames[i].begin(), frames[i].end());
        }
    }
    for (size_t chunk : {size_t(1), size_t(14), size_t(16), size_t(39), size_t(4096), stream.size()}) {
        SCOPED_TRACE("chunk " + std::to_string(chunk));
        FrameReader reader;
        MessageAssembler assembler;
        std::vector<Message> got;
        for (size_t offset = 0; offset < stream.size(); offset += chunk) {
            std::vector<Frame> frames;
            EXPECT_TRUE(reader.Feed(stream.data() + offset, std::min(chunk, stream.size() - offset), frames));
            for (const Frame& frame : frames) {
                std::string complaint;
                if (auto msg = assembler.Add(frame, &complaint)) {
                    got.push_back(std::move(*msg));
                }
                EXPECT_EQ(complaint, "");
            }
        }
        EXPECT_EQ(reader.Pending(), 0u);
        ASSERT_EQ(got.size(), messages.size());
        Bytes raw;
        for (size_t i = 0; i < messages.size(); ++i) {
            EXPECT_EQ(got[i].header.type, messages[i].type) << "message " << i;
            EXPECT_EQ(got[i].header.protocolId, messages[i].protocolId) << "message " << i;
            EXPECT_EQ(got[i].header.sessionId, messages[i].sessionId) << "message " << i;
            EXPECT_EQ(got[i].body, messages[i].body) << "message " << i;
            EXPECT_EQ(got[i].frameCount, frameCounts[i]) << "message " << i;
            raw.insert(raw.end(), got[i].raw.begin(), got[i].raw.end());
        }
        EXPECT_EQ(raw, stream);
    }
}

TEST(CtrlSimFramingTest, BrokenStreamKeepsTheFramesBeforeTheFault)
{
    for (const auto& [bad, error] : std::vector<std::pair<const char*, const char*>>{
             {"01badb0000ffffffff0002000f0000", "wrong marker 186:219:0"},
             {"01badbee00ffffffff0002000e0000", "frame length 14 below the header size"}}) {
        SCOPED_TRACE(error);
        Bytes stream = MessageWriter::KeepAlive();
        const Bytes badHeader = *FromHex(bad);
        stream.insert(stream.end(), badHeader.begin(), badHeader.end());
        FrameReader reader;
        std::vector<Frame> frames;
        EXPECT_FALSE(reader.Feed(stream.data(), stream.size(), frames));
        EXPECT_EQ(frames.size(), 1u);
        EXPECT_EQ(reader.Error(), error);
        // Nothing more is read after the fault.
        EXPECT_FALSE(reader.Feed(stream.data(), FrameHeader::Size, frames));
        EXPECT_EQ(frames.size(), 1u);
    }
}

}  // namespace
}  // namespace CtrlSim
