#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "CtrlMsgReassembler.h"
#include "FrameBytes.h"
#include "LogCapture.h"

namespace {

using FenRELTest::Bytes;
using FenRELTest::Concat;
using FenRELTest::LogCapture;
using FenRELTest::Pattern;
using FenRELTest::RawFrame;
using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlMsgBuffer;
using ZUNChannel::CtrlMsgFragmenter;
using ZUNChannel::CtrlMsgReassembler;
using Status = CtrlMsgReassembler::Status;
using Message = CtrlMsgReassembler::Message;

constexpr uint16_t kDefaultMaxPktLen = 4096;

Bytes ToBytes(const uint8_t* data, size_t size)
{
    return Bytes(data, data + size);
}

Bytes ToBytes(const Message& msg)
{
    return ToBytes(msg.buffer.get(), msg.size);
}

Bytes ToBytes(const CtrlMsgFragmenter::Frames& frames)
{
    Bytes stream;
    for (const CtrlMsgBuffer& frame : frames) {
        const uint8_t* f = frame.get();
        stream.insert(stream.end(), f, f + CtrlMsg::Length(f));
    }
    return stream;
}

// How a stream is cut into reads: pieces of a fixed size, or random sizes.
struct Split {
    const char* name;
    size_t piece;  // 0: random, from `seed`
    unsigned seed;
};

const Split kSplits[] = {
    {"Whole", std::numeric_limits<size_t>::max(), 0},
    {"ByteByByte", 1, 0},
    {"Random1", 0, 1},
    {"Random2", 0, 2},
    {"Random3", 0, 3},
};

std::string SplitName(const Split& split)
{
    return split.name;
}

void PrintTo(const Split& split, std::ostream* out)
{
    *out << split.name;
}

// Feeds `stream` in the pieces of `split`; stops at the first bad frame.
Status FeedSplit(CtrlMsgReassembler& reassembler, const Bytes& stream, const Split& split, uint16_t maxPktLen,
                 std::vector<Message>* out)
{
    std::mt19937 random(split.seed);
    size_t offset = 0;
    while (offset < stream.size()) {
        size_t piece = split.piece;
        if (piece == 0) {
            // Mostly short reads, now and then one spanning several frames.
            piece = random() % 4 == 0 ? 1 + random() % 9000 : 1 + random() % 20;
        }
        piece = std::min(piece, stream.size() - offset);
        const Status status = reassembler.Feed(stream.data() + offset, piece, maxPktLen, out);
        if (status != Status::kNeedMore) {
            return status;
        }
        offset += piece;
    }
    return Status::kNeedMore;
}

TEST(CtrlMsgTest, KeepAliveIsFifteenFixedBytes)
{
    CtrlMsgBuffer msg(CtrlMsg::BuildKeepAlive());
    const Bytes expected = {0x01, 0xBA, 0xDB, 0xEE, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x02, 0x00, 0x0F, 0x00, 0x00};
    EXPECT_EQ(expected, ToBytes(msg.get(), 15));
}

TEST(CtrlMsgTest, BuildWritesABigEndianHeaderInFrontOfTheBody)
{
    const Bytes body = {'x', 'y', 'z'};
    CtrlMsgBuffer msg(CtrlMsg::Build(0x0102, 0x0304, body.data(), body.size()));
    EXPECT_EQ(RawFrame(0, 0x0102, 0x0304, 0xFFFFFFFF, body), ToBytes(msg.get(), 18));
    EXPECT_EQ(msg.get() + 15, CtrlMsg::Body(msg.get(), 18));
    EXPECT_EQ(3u, CtrlMsg::BodyLength(18));

    CtrlMsg::StampSessionId(msg.get(), 0x01020304);
    EXPECT_EQ(RawFrame(0, 0x0102, 0x0304, 0x01020304, body), ToBytes(msg.get(), 18));

    CtrlMsgBuffer empty(CtrlMsg::New(CtrlMsg::kTypeData, 64, 300));
    EXPECT_EQ(RawFrame(0, 7, 64, 0xFFFFFFFF, Bytes(300, 0)), ToBytes(empty.get(), 315));
}

// --- Reassembly ------------------------------------------------------------

class ReassemblyTest : public testing::TestWithParam<Split> {};

TEST_P(ReassemblyTest, StreamOfFramesGivesItsMessages)
{
    const Bytes first = Pattern(100, 1);
    const Bytes second = Pattern(37, 2);
    const Bytes keepAlive = RawFrame(0, 2, 0, 0xFFFFFFFF, {});
    const Bytes version0 = RawFrame(0, 7, 64, 5, Pattern(3, 3), 0);
    const Bytes version2 = RawFrame(0, 7, 64, 6, Pattern(4, 4), 2);
    const Bytes atLimit = RawFrame(0, 4, 257, 7, Pattern(kDefaultMaxPktLen - 15, 5));
    const Bytes stream = Concat({keepAlive,
                                 RawFrame(0x80, 7, 256, 42, first),
                                 // A bare header with the more bit adds nothing; only
                                 // the first fragment's fields count.
                                 RawFrame(0x80, 9, 9, 9, {}, 2),
                                 RawFrame(0x00, 9, 9, 9, second, 0),
                                 version0, version2, atLimit});

    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    ASSERT_EQ(Status::kNeedMore, FeedSplit(reassembler, stream, GetParam(), kDefaultMaxPktLen, &messages));
    ASSERT_EQ(5u, messages.size());
    EXPECT_EQ(keepAlive, ToBytes(messages[0]));
    EXPECT_EQ(RawFrame(0, 7, 256, 42, Concat({first, second})), ToBytes(messages[1]));
    // The version byte is the app's business (the hello's), not the framing's.
    EXPECT_EQ(version0, ToBytes(messages[2]));
    EXPECT_EQ(version2, ToBytes(messages[3]));
    EXPECT_EQ(atLimit, ToBytes(messages[4]));
    EXPECT_EQ(0u, reassembler.GetFragmentCount());
    EXPECT_EQ(0u, reassembler.GetReceived());
}

INSTANTIATE_TEST_SUITE_P(Splits, ReassemblyTest, testing::ValuesIn(kSplits),
                         [](const testing::TestParamInfo<Split>& info) { return SplitName(info.param); });

TEST(CtrlMsgReassemblerTest, ResetDropsThePartialFrameAndTheFragments)
{
    const Bytes next = RawFrame(0, 7, 64, 3, Pattern(20, 3));
    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    const Bytes partial = Concat({RawFrame(0x80, 7, 64, 1, Pattern(50, 1)), Bytes(next.begin(), next.begin() + 20)});
    ASSERT_EQ(Status::kNeedMore, reassembler.Feed(partial.data(), partial.size(), kDefaultMaxPktLen, &messages));
    EXPECT_EQ(1u, reassembler.GetFragmentCount());
    EXPECT_EQ(20u, reassembler.GetReceived());

    reassembler.Reset();
    EXPECT_EQ(0u, reassembler.GetFragmentCount());
    EXPECT_EQ(0u, reassembler.GetReceived());
    ASSERT_EQ(Status::kNeedMore, reassembler.Feed(next.data(), next.size(), kDefaultMaxPktLen, &messages));
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(next, ToBytes(messages[0]));
}

struct BadFrameCase {
    const char* name;
    Bytes stream;
    uint16_t maxPktLen;
    size_t goodMessages;  // delivered before the bad frame
    Status status;
    const char* log;
    const char* suffix;
};

Bytes WithMarker(Bytes frame, uint8_t a, uint8_t b, uint8_t c)
{
    frame[1] = a;
    frame[2] = b;
    frame[3] = c;
    return frame;
}

Bytes HeaderOf(const Bytes& frame)
{
    return Bytes(frame.begin(), frame.begin() + 15);
}

void PrintTo(const BadFrameCase& c, std::ostream* out)
{
    *out << c.name;
}

class BadFrameTest : public testing::TestWithParam<BadFrameCase> {};

TEST_P(BadFrameTest, ReportsWhyTheConnectionMustReset)
{
    const BadFrameCase& c = GetParam();
    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    ASSERT_EQ(c.status, reassembler.Feed(c.stream.data(), c.stream.size(), c.maxPktLen, &messages));
    EXPECT_EQ(c.goodMessages, messages.size());
    EXPECT_STREQ(c.suffix, reassembler.StatusSuffix());
    {
        LogCapture log(FenREL::LOGLEVEL_ERROR);
        reassembler.LogBadMessage("10.1.2.3:7");
        const std::string& text = log.Text();
        EXPECT_NE(std::string::npos, text.find(c.log)) << text;
        EXPECT_NE(std::string::npos, text.find("errorCode=\"LCP00016\"")) << text;
    }

    // The connection resets; the next stream starts clean.
    reassembler.Reset();
    const Bytes good = RawFrame(0, 7, 64, 1, Pattern(1, 1));
    messages.clear();
    EXPECT_EQ(Status::kNeedMore, reassembler.Feed(good.data(), good.size(), c.maxPktLen, &messages));
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(good, ToBytes(messages[0]));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, BadFrameTest,
    testing::Values(
        BadFrameCase{"OneAboveTheLimit", RawFrame(0, 7, 64, 1, Pattern(4082, 1)), 4096, 0, Status::kWrongLength,
                     "Received bad message on 10.1.2.3:7: wrong message length 4097",
                     ": received wrong message length"},
        BadFrameCase{"LimitOfTheCaller", Concat({RawFrame(0, 7, 64, 1, Pattern(85, 1)), RawFrame(0, 7, 64, 1, Pattern(86, 1))}),
                     100, 1, Status::kWrongLength, "wrong message length 101", ": received wrong message length"},
        BadFrameCase{"WrongMarker", Concat({RawFrame(0, 2, 0, 0xFFFFFFFF, {}), WithMarker(RawFrame(0, 2, 0, 1, {}), 0xBA, 0xDB, 0xEF)}),
                     4096, 1, Status::kWrongMarker, "Received bad message on 10.1.2.3:7: wrong marker 186:219:239",
                     ": received wrong marker"},
        // The length is judged first.
        BadFrameCase{"LengthBeforeMarker", WithMarker(RawFrame(0, 7, 64, 1, Pattern(200, 1)), 0, 0, 0), 100, 0,
                     Status::kWrongLength, "wrong message length 215", ": received wrong message length"},
        // No body is waited for behind a bad header.
        BadFrameCase{"HeaderAlone", HeaderOf(RawFrame(0, 7, 64, 1, Pattern(5000, 1))), 4096, 0, Status::kWrongLength, "wrong message length 5015", ": received wrong message length"}),
    [](const testing::TestParamInfo<BadFrameCase>& info) { return std::string(info.param.name); });

// --- Fragmentation ---------------------------------------------------------
// FragmentBody (a lead byte in front of a large payload, the 16-bit length
// truncated) is read back byte for byte by the committed corpus of the
// reassembler's fuzz target (roundtrip_large, roundtrip_max_limit).

struct FragmentCase {
    size_t bodyLength;
    uint16_t maxPktLen;
    size_t frames;
};

void PrintTo(const FragmentCase& c, std::ostream* out)
{
    *out << "body " << c.bodyLength << ", maxPktLen " << c.maxPktLen;
}

class FragmentRoundTripTest : public testing::TestWithParam<std::tuple<FragmentCase, Split>> {};

TEST_P(FragmentRoundTripTest, FramesFitTheLimitAndReassembleToTheMessage)
{
    const FragmentCase& c = std::get<0>(GetParam());
    const Bytes body = Pattern(c.bodyLength, 7);
    uint8_t* msg = CtrlMsg::Build(CtrlMsg::kTypeData, 1027, body.data(), body.size());
    CtrlMsg::StampSessionId(msg, 0x0A0B0C0D);
    const Bytes original = ToBytes(msg, 15 + body.size());

    const CtrlMsgFragmenter::Frames frames = CtrlMsgFragmenter::Fragment(CtrlMsgBuffer(msg), c.maxPktLen);
    ASSERT_EQ(c.frames, frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        const uint8_t* frame = frames[i].get();
        const bool last = i + 1 == frames.size();
        // All frames but the last are full, and only they carry the more bit.
        EXPECT_EQ(last ? 0 : 0x80, CtrlMsg::Flags(frame)) << i;
        EXPECT_TRUE(last ? CtrlMsg::Length(frame) <= c.maxPktLen : CtrlMsg::Length(frame) == c.maxPktLen) << i;
        EXPECT_EQ(0x0A0B0C0Du, CtrlMsg::SessionId(frame));
        EXPECT_EQ(CtrlMsg::kTypeData, CtrlMsg::Type(frame));
        EXPECT_EQ(1027, CtrlMsg::ProtocolId(frame));
        EXPECT_EQ(1, CtrlMsg::Version(frame));
        EXPECT_TRUE(CtrlMsg::HasMarker(frame));
    }
    const Bytes stream = ToBytes(frames);
    if (frames.size() == 1) {
        EXPECT_EQ(original, stream);  // sent as it is
    }

    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    ASSERT_EQ(Status::kNeedMore, FeedSplit(reassembler, stream, std::get<1>(GetParam()), c.maxPktLen, &messages));
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(original, ToBytes(messages[0]));
}

const FragmentCase kFragmentCases[] = {
    {0, 16, 1},      {1, 16, 1},       {2, 16, 2},          {4081, 4096, 1},     {4082, 4096, 2},
    {8162, 4096, 2}, {65520, 4096, 17}, {65520, 65535, 1}, {65520, 65534, 2},
};

INSTANTIATE_TEST_SUITE_P(
    Cases, FragmentRoundTripTest, testing::Combine(testing::ValuesIn(kFragmentCases), testing::ValuesIn(kSplits)),
    [](const testing::TestParamInfo<std::tuple<FragmentCase, Split>>& info) {
        const FragmentCase& c = std::get<0>(info.param);
        return "Body" + std::to_string(c.bodyLength) + "Max" + std::to_string(c.maxPktLen) +
               SplitName(std::get<1>(info.param));
    });

// --- Assertions ------------------------------------------------------------

struct DeathCase {
    const char* name;
    std::function<void()> run;
    const char* where;
};

void FeedBytes(const Bytes& stream)
{
    CtrlMsgReassembler reassembler;
    std::vector<Message> messages;
    reassembler.Feed(stream.data(), stream.size(), kDefaultMaxPktLen, &messages);
}

void PrintTo(const DeathCase& c, std::ostream* out)
{
    *out << c.name;
}

class CtrlMsgDeathTest : public testing::TestWithParam<DeathCase> {};

TEST_P(CtrlMsgDeathTest, Panics)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(GetParam().run(), std::string("Panic: ASSERT src/zunChannel/") + GetParam().where);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CtrlMsgDeathTest,
    testing::Values(
        // A peer's header shorter than a header: deliberate, the agent restarts.
        DeathCase{"HeaderLengthBelow15", [] { FeedBytes(RawFrame(0, 7, 64, 1, {}, 1, 14)); }, "CtrlMsg.cpp"},
        DeathCase{"AssembledFromBareHeaders",
                  [] { FeedBytes(Concat({RawFrame(0x80, 7, 64, 1, {}), RawFrame(0, 7, 64, 1, {})})); },
                  "CtrlMsgReassembler.cpp"},
        DeathCase{"BodyOfABareHeader",
                  [] {
                      CtrlMsgBuffer msg(CtrlMsg::BuildKeepAlive());
                      CtrlMsg::Body(msg.get(), 15);
                  },
                  "CtrlMsg.cpp"},
        DeathCase{"FrameLimitOf15",
                  [] { CtrlMsgFragmenter::Fragment(CtrlMsgBuffer(CtrlMsg::Build(7, 64, "ab", 2)), 15); },
                  "CtrlMsgFragmenter.cpp"},
        DeathCase{"MessageAbove65535Bytes", [] { CtrlMsgBuffer msg(CtrlMsg::New(7, 64, 65521)); }, "CtrlMsg.cpp"}),
    [](const testing::TestParamInfo<DeathCase>& info) { return std::string(info.param.name); });

}  // namespace
