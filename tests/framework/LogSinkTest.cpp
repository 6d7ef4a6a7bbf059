#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "LogLevel.h"
#include "LogSink.h"
#include "TempDir.h"

namespace {

using FenREL::LogSink;
using FenRELTest::TempDir;

// A UDP socket on 127.0.0.1 standing in for the syslog server.
class UdpReceiver {
public:
    explicit UdpReceiver(uint16_t port = 0)
    {
        _fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, bind(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
        socklen_t len = sizeof(addr);
        getsockname(_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        _port = ntohs(addr.sin_port);
    }
    ~UdpReceiver() { close(_fd); }
    uint16_t Port() const { return _port; }
    // One datagram, or "" when none comes within the timeout.
    std::string Receive(int timeoutMs = 2000)
    {
        struct pollfd p = {_fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) != 1) {
            return "";
        }
        char buf[4096];
        const ssize_t n = recv(_fd, buf, sizeof(buf), 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

private:
    int _fd = -1;
    uint16_t _port = 0;
};

std::string RsyslogConf(const std::string& address, uint16_t port, bool withTemplate = true)
{
    return "# forwarded to the collector\n$UDPServerAddress " + address + "\n$UDPServerRun " +
           std::to_string(port) + "\n$ModLoad imudp extra-field\n" +  // three fields: ignored
           (withTemplate ? "$ActionFileDefaultTemplate RSYSLOG_SyslogProtocol23Format\n" : "");
}

class LogSinkTest : public testing::Test {
protected:
    void SetUp() override { FenREL::g_logToConsole = false; }
    void TearDown() override { FenREL::g_logToConsole = _savedConsole; }

    TempDir _dir;
    const bool _savedConsole = FenREL::g_logToConsole;
};

TEST_F(LogSinkTest, UdpNeedsTheServerLineAndTheTemplateLine)
{
    const std::pair<std::string, bool> confs[] = {
        {RsyslogConf("127.0.0.1", 5514, false), false},
        {RsyslogConf("not-an-address", 5514), false},
        {"#$UDPServerRun 5514\n$ActionFileDefaultTemplate RSYSLOG_SyslogProtocol23Format\n", false},
        {RsyslogConf("127.0.0.1", 5514), true},
    };
    LogSink sink;
    sink.ConfigureFromFile(_dir.File("missing.conf"));
    EXPECT_FALSE(sink.IsUdpEnabled());
    for (const auto& conf : confs) {
        sink.ConfigureFromFile(_dir.Write("rsyslog.conf", conf.first));
        EXPECT_EQ(conf.second, sink.IsUdpEnabled()) << conf.first;
    }
}

TEST_F(LogSinkTest, DatagramsAreRfc5424LinesAndAFailedWriteBacksOffForThreeSeconds)
{
    auto now = std::chrono::steady_clock::now();
    LogSink sink([&now] { return now; });
    uint16_t port = 0;
    {
        UdpReceiver probe;
        port = probe.Port();
    }
    // Nobody listens: the first datagram draws an ICMP refusal, which on
    // loopback is delivered before send() returns and fails the next write.
    sink.ConfigureFromFile(_dir.Write("rsyslog.conf", RsyslogConf("127.0.0.1", port)));
    ASSERT_TRUE(sink.IsUdpEnabled());
    sink.Emit(FenREL::LOGLEVEL_INFO, "", "", {}, "first");
    sink.Emit(FenREL::LOGLEVEL_INFO, "", "", {}, "refused");

    UdpReceiver server(port);
    now += std::chrono::seconds(2);
    sink.Emit(FenREL::LOGLEVEL_INFO, "", "", {}, "inside the back-off");
    EXPECT_EQ("", server.Receive(100));

    now += std::chrono::seconds(1);
    sink.Emit(FenREL::LOGLEVEL_WARNING, "MSG1", "ent", {"errorCode:LCP00016"}, "after the back-off");
    const std::string line = server.Receive();
    EXPECT_EQ(0u, line.find("<180>1 ")) << line;
    EXPECT_NE(std::string::npos, line.find(" ZUN " + std::to_string(getpid()) + " MSG1 [zun@31415 ")) << line;
    EXPECT_NE(std::string::npos, line.find("level=\"warning\" errorCode=\"LCP00016\"] after the back-off")) << line;
    now += std::chrono::milliseconds(1);
    sink.Emit(FenREL::LOGLEVEL_INFO, "", "", {}, "working again");
    EXPECT_NE(std::string::npos, server.Receive().find("working again"));
}

}  // namespace
