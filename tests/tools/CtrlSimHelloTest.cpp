#include <gtest/gtest.h>

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

TEST(CtrlSimHelloTest, EveryTlvLaidOutAsOnTheWireAndReadBack)
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

    // Decoding gives back every TLV, the unknown one included.
    const auto decoded = Hello::Decode(ToReceived(frames[0]));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(ToHex(decoded->Body()), ToHex(hello.Body()));
}

TEST(CtrlSimHelloTest, MalformedHellosDoNotDecode)
{
    for (const char* body : {"",                                          // no helloFlags
                             "80" "0002000510",                           // Max Pkt Len of length 5
                             "80" "0005000700400000",                     // ShardingSlice length of length 7
                             "80" "00060013000102030405060708090a0b0c0d0e",  // UUID of 15 bytes
                             "80" "00020008" "1000",                      // TLV past the end
                             "80" "00020003" "00",                        // TLV shorter than its header
                             "80" "00010008" "01010004"}) {               // feature without version
        SCOPED_TRACE(body);
        OutMessage msg;
        msg.type = MsgType::Hello;
        msg.protocolId = CoreProtocolId;
        msg.body = *FromHex(body);
        std::string error;
        EXPECT_FALSE(Hello::Decode(ToReceived(MessageWriter::Frames(msg)[0]), &error));
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
}  // namespace CtrlSim
