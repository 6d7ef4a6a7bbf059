#include <gtest/gtest.h>

#include "FrameReader.h"
#include "Hello.h"
#include "Hex.h"
#include "MessageAssembler.h"

namespace CtrlSim {
namespace {

Message ToReceived(const Bytes& frame)
{
    MessageAssembler assembler;
    return *assembler.Add(Frame{FrameHeader::Parse(frame.data()), frame});
}

Message FromHexFrame(const std::string& hex)
{
    return ToReceived(*FromHex(hex));
}

TEST(CtrlSimHelloTest, EveryTlvLaidOutAsOnTheWire)
{
    Hello hello;
    hello.features = {HelloFeature{257, 1, {0x01, 0x02}}};
    hello.maxPktLen = 0x1000;
    hello.keepAliveInterval = 10;
    hello.msgFrequency = 200;
    hello.shardingSliceLength = 0x00400000;
    hello.nodeUuid = Uuid{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                          0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
    hello.extraTlvs = {0x00, 0x07, 0x00, 0x04};  // an unknown type, empty

    const std::vector<Bytes> frames = MessageWriter::Frames(hello.ToMessage());
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(ToHex(frames[0]),
              "01badbee00ffffffff0001004d0000"  // header: hello, 77 bytes, protocolID 0
              "80"                              // helloFlags: strict version
              "0001000b" "0101000701" "0102"    // feature list: app 257, length 7, version 1, data
              "000200061000"                    // Max Pkt Len 4096
              "00030006000a"                    // KeepAlive Interval 10
              "0004000600c8"                    // Msg Frequency 200
              "0005000800400000"                // ShardingSlice length 2^22
              "00060014000102030405060708090a0b0c0d0e0f"  // Node UUID
              "00070004");
}

TEST(CtrlSimHelloTest, VersionAndFlagsAreTheCallersToChoose)
{
    Hello hello;
    hello.version = 2;
    hello.helloFlags = 0x00;
    EXPECT_EQ(ToHex(MessageWriter::Frames(hello.ToMessage())[0]), "02badbee00ffffffff00010010000000");
}

TEST(CtrlSimHelloTest, DecodesTheAgentsHello)
{
    // What the agent sends without features: 36 bytes, strict flag, Node UUID.
    const Message plain =
        FromHexFrame("01badbee00ffffffff000100240000" "80" "00060014" "c7125a0000004000800000000000002a");
    std::string error;
    const auto decoded = Hello::Decode(plain, &error);
    ASSERT_TRUE(decoded) << error;
    EXPECT_EQ(decoded->version, 1);
    EXPECT_EQ(decoded->helloFlags, 0x80);
    ASSERT_TRUE(decoded->nodeUuid);
    EXPECT_EQ(UuidToString(*decoded->nodeUuid), "c7125a00-0000-4000-8000-00000000002a");
    EXPECT_TRUE(decoded->features.empty());
    EXPECT_FALSE(decoded->maxPktLen);

    // With a feature list of one application, version 1, no data: 40 + 5 bytes.
    const Message withFeature = FromHexFrame("01badbee00ffffffff0001002d0000" "80" "00010009" "0101000501"
                                             "00060014" "c7125a0000004000800000000000002a");
    const auto featured = Hello::Decode(withFeature, &error);
    ASSERT_TRUE(featured) << error;
    ASSERT_EQ(featured->features.size(), 1u);
    EXPECT_EQ(featured->features[0].appId, 257);
    EXPECT_EQ(featured->features[0].version, 1);
    EXPECT_TRUE(featured->features[0].data.empty());
}

TEST(CtrlSimHelloTest, RoundTripKeepsUnknownTlvs)
{
    Hello hello = Hello::ControllerDefault();
    hello.features = {HelloFeature{64, 3, {0xaa}}, HelloFeature{1027, 1, {}}};
    hello.extraTlvs = *FromHex("0009000601ff");
    const auto decoded = Hello::Decode(ToReceived(MessageWriter::Frames(hello.ToMessage())[0]));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(ToHex(decoded->Body()), ToHex(hello.Body()));
}

TEST(CtrlSimHelloTest, MalformedHellosDoNotDecode)
{
    struct Case {
        const char* name;
        const char* body;
    };
    const Case cases[] = {
        {"no helloFlags", ""},
        {"Max Pkt Len of length 5", "80" "0002000510"},
        {"KeepAlive Interval of length 5", "80" "0003000510"},
        {"ShardingSlice length of length 7", "80" "0005000700400000"},
        {"UUID of 15 bytes", "80" "00060013000102030405060708090a0b0c0d0e"},
        {"TLV past the end", "80" "00020008" "1000"},
        {"TLV shorter than its header", "80" "00020003" "00"},
        {"feature without version", "80" "00010008" "01010004"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        OutMessage msg;
        msg.type = MsgType::Hello;
        msg.protocolId = CoreProtocolId;
        msg.body = *FromHex(c.body);
        std::string error;
        EXPECT_FALSE(Hello::Decode(ToReceived(MessageWriter::Frames(msg)[0]), &error));
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
}  // namespace CtrlSim
