#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

#include <chrono>
#include <optional>

#include "ControllerSim.h"
#include "Hex.h"
#include "SelfSignedCert.h"
#include "TempDir.h"

namespace CtrlSim {
namespace {

using namespace std::chrono_literals;
using tcp = boost::asio::ip::tcp;
namespace ssl = boost::asio::ssl;

// The agent's side at its simplest: a client that writes bytes and reads
// frames with a deadline.
class TestClient {
public:
    TestClient() : _tlsContext(ssl::context::tls_client), _stream(_io, _tlsContext) {}

    boost::system::error_code Connect(uint16_t port, bool tls)
    {
        _tls = tls;
        boost::system::error_code error;
        _stream.next_layer().connect(tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), port), error);
        if (error || !tls) {
            return error;
        }
        error = boost::asio::error::would_block;
        _stream.async_handshake(ssl::stream_base::client,
                                [&](const boost::system::error_code& result) { error = result; });
        Run(5s, error);
        return error;
    }

    void Write(const Bytes& bytes)
    {
        if (_tls) {
            boost::asio::write(_stream, boost::asio::buffer(bytes));
        } else {
            boost::asio::write(_stream.next_layer(), boost::asio::buffer(bytes));
        }
    }

    // Exactly `size` bytes, or nullopt with the reason in LastError().
    std::optional<Bytes> Read(size_t size, std::chrono::milliseconds timeout)
    {
        Bytes bytes(size);
        _error = boost::asio::error::would_block;
        auto handler = [this](const boost::system::error_code& error, size_t) { _error = error; };
        if (_tls) {
            boost::asio::async_read(_stream, boost::asio::buffer(bytes), handler);
        } else {
            boost::asio::async_read(_stream.next_layer(), boost::asio::buffer(bytes), handler);
        }
        Run(timeout, _error);
        return _error ? std::nullopt : std::optional<Bytes>(bytes);
    }

    std::optional<Bytes> ReadFrame(std::chrono::milliseconds timeout = 5s)
    {
        auto frame = Read(FrameHeader::Size, timeout);
        if (!frame) {
            return std::nullopt;
        }
        const auto body = Read(FrameHeader::Parse(frame->data()).length - FrameHeader::Size, timeout);
        if (!body) {
            return std::nullopt;
        }
        frame->insert(frame->end(), body->begin(), body->end());
        return frame;
    }

    // True when the peer ends the stream within `timeout`.
    bool SeesEnd(std::chrono::milliseconds timeout = 5s)
    {
        Read(1, timeout);
        return _error && _error != boost::asio::error::would_block && _error != boost::asio::error::operation_aborted;
    }

    const boost::system::error_code& LastError() const { return _error; }

private:
    // Runs the client's I/O until `pending` is no longer would_block, or
    // cancels it after `timeout`.
    void Run(std::chrono::milliseconds timeout, const boost::system::error_code& pending)
    {
        _io.restart();
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (pending == boost::asio::error::would_block && std::chrono::steady_clock::now() < deadline) {
            _io.run_one_for(deadline - std::chrono::steady_clock::now());
        }
        if (pending == boost::asio::error::would_block) {
            _stream.next_layer().cancel();
            _io.restart();
            _io.run();
        }
    }

    boost::asio::io_context _io;
    ssl::context _tlsContext;
    ssl::stream<tcp::socket> _stream;
    bool _tls = false;
    boost::system::error_code _error;
};

Bytes AgentHello()
{
    return *FromHex("01badbee00ffffffff000100240000" "80" "00060014" "c7125a0000004000800000000000002a");
}

Bytes ExpectedAnswer(ControllerSim& sim)
{
    return MessageWriter::Frames(sim.Core().GetHello().ToMessage())[0];
}

class ControllerSimTest : public testing::Test {
protected:
    void StartSim(ControllerSim::Options options = ControllerSim::Options())
    {
        _sim.emplace(options);
        _sim->Start();
        ASSERT_NE(_sim->Port(), 0);
    }

    // Connects a client, and has it say hello and read the answer.
    void DriveToHelloDone(TestClient& client, bool tls = false)
    {
        ASSERT_FALSE(client.Connect(_sim->Port(), tls));
        client.Write(AgentHello());
        const auto answer = client.ReadFrame();
        ASSERT_TRUE(answer) << client.LastError().message();
        EXPECT_EQ(ToHex(*answer), ToHex(ExpectedAnswer(*_sim)));
    }

    std::optional<ControllerSim> _sim;
};

TEST_F(ControllerSimTest, RecordsASplitHelloAndAnswersIt)
{
    StartSim();
    TestClient client;
    ASSERT_FALSE(client.Connect(_sim->Port(), false));
    const Bytes hello = AgentHello();
    client.Write(Bytes(hello.begin(), hello.begin() + 7));
    ASSERT_TRUE(_sim->WaitUntil([](const Recording& r) { return !r.connections.empty(); }, 5s));
    client.Write(Bytes(hello.begin() + 7, hello.end()));

    const auto answer = client.ReadFrame();
    ASSERT_TRUE(answer) << client.LastError().message();
    EXPECT_EQ(ToHex(*answer), ToHex(ExpectedAnswer(*_sim)));

    const auto recorded = _sim->WaitForMessage(ControllerSim::MessageOf(MsgType::Hello, CoreProtocolId), 5s);
    ASSERT_TRUE(recorded) << _sim->Summary();
    EXPECT_EQ(recorded->connection, 0u);
    EXPECT_EQ(recorded->raw, hello);
    EXPECT_EQ(_sim->Frames().size(), 1u);
    EXPECT_TRUE(_sim->Violations().empty()) << _sim->Summary();
    EXPECT_EQ(_sim->CurrentConnection(), std::optional<size_t>(0));
}

TEST_F(ControllerSimTest, KeepAliveComesAfterAPeriodOfSilenceAndStopsOnCommand)
{
    StartSim();
    _sim->Core().SetKeepAlivePeriod(200ms);
    TestClient client;
    DriveToHelloDone(client);
    const auto helloSeen = std::chrono::steady_clock::now();

    const auto keepAlive = client.ReadFrame(5s);
    ASSERT_TRUE(keepAlive) << client.LastError().message();
    EXPECT_EQ(*keepAlive, MessageWriter::KeepAlive());
    // Never before a whole period of silence (less what the hello took to arrive).
    EXPECT_GE(std::chrono::steady_clock::now() - helloSeen, 100ms);

    _sim->Core().SetKeepAliveEnabled(false);
    client.ReadFrame(300ms);  // one may have been under way
    EXPECT_FALSE(client.ReadFrame(600ms));
    EXPECT_EQ(client.LastError(), boost::asio::error::operation_aborted);
}

TEST_F(ControllerSimTest, SendsFragmentsAndRawBytesInOrder)
{
    StartSim();
    TestClient client;
    DriveToHelloDone(client);

    OutMessage msg;
    msg.type = MsgType::AppData;
    msg.protocolId = 257;
    msg.body = Bytes(30, 0x5a);
    msg.sessionId = 9;
    msg.frameLimit = 25;
    ASSERT_TRUE(_sim->SendMessage(msg));
    ASSERT_TRUE(_sim->SendRaw(*FromHex("01badb00")));

    const std::vector<Bytes> expected = MessageWriter::Frames(msg);
    ASSERT_EQ(expected.size(), 3u);
    for (const Bytes& frame : expected) {
        const auto got = client.ReadFrame();
        ASSERT_TRUE(got);
        EXPECT_EQ(ToHex(*got), ToHex(frame));
    }
    const auto raw = client.Read(4, 5s);
    ASSERT_TRUE(raw);
    EXPECT_EQ(ToHex(*raw), "01badb00");
}

TEST_F(ControllerSimTest, ClosesTellsWhoClosedAndTakesTheNextConnection)
{
    StartSim();
    TestClient first;
    DriveToHelloDone(first);
    ASSERT_TRUE(_sim->CloseConnection());
    EXPECT_TRUE(first.SeesEnd());
    ASSERT_TRUE(_sim->WaitForClosed(0, 5s));
    EXPECT_FALSE(_sim->SendRaw(MessageWriter::KeepAlive()));

    TestClient second;
    DriveToHelloDone(second);
    EXPECT_EQ(_sim->CurrentConnection(), std::optional<size_t>(1));
    second.Write(*FromHex("01badb0000ffffffff0002000f0000"));  // wrong marker
    ASSERT_TRUE(_sim->WaitForClosed(1, 5s));
    EXPECT_TRUE(second.SeesEnd());

    std::optional<TestClient> third(std::in_place);
    DriveToHelloDone(*third);
    third.reset();  // the client goes away
    ASSERT_TRUE(_sim->WaitForClosed(2, 5s));

    const std::vector<ConnectionRecord> connections = _sim->Connections();
    ASSERT_EQ(connections.size(), 3u);
    EXPECT_EQ(connections[0].closeReason, "closed by simulator");
    EXPECT_EQ(connections[1].closeReason, "framing error: wrong marker 186:219:0");
    EXPECT_EQ(connections[2].closeReason, "closed by peer");
    const std::vector<Violation> violations = _sim->Violations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].connection, 1u);
    for (const ConnectionRecord& connection : connections) {
        EXPECT_LE(connection.accepted, *connection.established);
        EXPECT_LE(*connection.established, *connection.closed);
    }
}

TEST_F(ControllerSimTest, RefusesAndStopsListeningOnTheSamePort)
{
    StartSim();
    _sim->SetAcceptMode(ControllerSim::AcceptMode::CloseAtOnce);
    TestClient refused;
    ASSERT_FALSE(refused.Connect(_sim->Port(), false));
    EXPECT_TRUE(refused.SeesEnd());
    ASSERT_TRUE(_sim->WaitForClosed(0, 5s));
    EXPECT_EQ(_sim->Connections()[0].closeReason, "refused");
    EXPECT_FALSE(_sim->Connections()[0].established);

    _sim->SetAcceptMode(ControllerSim::AcceptMode::NotListening);
    TestClient nobody;
    EXPECT_EQ(nobody.Connect(_sim->Port(), false), boost::asio::error::connection_refused);

    _sim->SetAcceptMode(ControllerSim::AcceptMode::Accept);
    TestClient welcome;
    DriveToHelloDone(welcome);
    EXPECT_EQ(_sim->AcceptedCount(), 2u);
}

TEST_F(ControllerSimTest, SpeaksTlsWithAGeneratedIdentity)
{
    FenRELTest::TempDir dir;
    const SelfSignedCert cert = SelfSignedCert::Make(dir.Path(), "controller-a");
    EXPECT_EQ(cert.certPem.rfind("-----BEGIN CERTIFICATE-----", 0), 0u);
    ControllerSim::Options options;
    options.keyFile = cert.keyFile;
    options.certFile = cert.certFile;
    StartSim(options);
    EXPECT_TRUE(_sim->IsTls());

    TestClient client;
    DriveToHelloDone(client, true);
    ASSERT_TRUE(_sim->WaitForUp(0, 5s));
    EXPECT_TRUE(_sim->Violations().empty()) << _sim->Summary();

    TestClient plain;  // a client that never handshakes is not up
    ASSERT_FALSE(plain.Connect(_sim->Port(), false));
    plain.Write(AgentHello());
    ASSERT_TRUE(_sim->WaitForClosed(1, 5s));
    EXPECT_NE(_sim->Connections()[1].closeReason.find("TLS handshake failed"), std::string::npos);
}

TEST_F(ControllerSimTest, HelloModesAndHandlersByProtocol)
{
    class Echo : public MessageHandler {
    public:
        void OnMessage(Peer& peer, const RecordedMessage& msg) override
        {
            OutMessage reply;
            reply.type = msg.header.type;
            reply.protocolId = msg.header.protocolId;
            reply.body = msg.body;
            peer.Send(reply);
        }
    };
    StartSim();
    _sim->Core().SetHelloMode(HelloMode::SendFirst);
    _sim->RegisterHandler(257, std::make_shared<Echo>(), MsgType::SessionControl);

    TestClient client;
    ASSERT_FALSE(client.Connect(_sim->Port(), false));
    const auto first = client.ReadFrame();  // before the agent said anything
    ASSERT_TRUE(first);
    EXPECT_EQ(FrameHeader::Parse(first->data()).type, MsgType::Hello);

    client.Write(AgentHello());  // not answered in this mode
    OutMessage open;
    open.type = MsgType::SessionControl;
    open.protocolId = 257;
    open.body = {0x01, 0x0a};
    client.Write(MessageWriter::Frames(open)[0]);
    const auto echoed = client.ReadFrame();
    ASSERT_TRUE(echoed);
    EXPECT_EQ(*echoed, MessageWriter::Frames(open)[0]);
    EXPECT_TRUE(_sim->WaitForMessageCount([](const RecordedMessage&) { return true; }, 2, 5s));
}

}  // namespace
}  // namespace CtrlSim
