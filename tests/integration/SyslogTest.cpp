#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "DaemonProcess.h"
#include "MainConfigXml.h"
#include "TempDir.h"
#include "WaitFor.h"

namespace {

using FenRELTest::DaemonProcess;
using FenRELTest::TempDir;
using namespace std::chrono_literals;

uint16_t FreeUdpPort()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

// The daemon's datagrams go to a real rsyslogd, which must parse them as
// RFC 5424 and hand out each field.
TEST(SyslogTest, RsyslogParsesTheDaemonsDatagrams)
{
    const std::string rsyslogd = "/usr/sbin/rsyslogd";
    // The test scripts install rsyslog: its absence is a broken set-up, not a reason to skip.
    ASSERT_EQ(access(rsyslogd.c_str(), X_OK), 0) << rsyslogd << " is not installed";
    TempDir dir;
    const uint16_t port = FreeUdpPort();
    const std::string received = dir.File("received.log");
    dir.Write("rsyslog/work/.keep", "");
    const std::string conf = dir.Write(
        "rsyslog/rsyslog.conf",
        "global(workDirectory=\"" + dir.File("rsyslog/work") + "\")\n"
        "module(load=\"imudp\")\n"
        "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" + std::to_string(port) + "\")\n"
        "template(name=\"fields\" type=\"string\" string=\"PRI=%pri% APP=%app-name% PROCID=%procid% "
        "MSGID=%msgid% SD=%structured-data% MSG=%msg%\\n\")\n"
        "*.* action(type=\"omfile\" file=\"" + received + "\" template=\"fields\")\n");
    DaemonProcess syslog(rsyslogd, {"-n", "-f", conf, "-i", dir.File("rsyslog/rsyslogd.pid")}, {},
                         dir.Path());
    ASSERT_TRUE(FenRELTest::WaitFor([&] { return access(dir.File("rsyslog/rsyslogd.pid").c_str(), F_OK) == 0; },
                                    20s, "rsyslogd to start", [&] { return syslog.Stderr(); }));

    // fenrel's own rsyslog.conf asks for UDP in the RFC 5424 template.
    dir.Write("root/etc/rsyslog.conf", "$UDPServerAddress 127.0.0.1\n$UDPServerRun " + std::to_string(port) +
                                           "\n$ActionFileDefaultTemplate RSYSLOG_SyslogProtocol23Format\n");
    // An empty application list ends the start with an error that carries a code.
    FenRELTest::MainConfigXml config;
    const std::string file = dir.Write("root/etc/corvid/zun/fenrel.xml", config.ToXml());
    DaemonProcess daemon(DaemonProcess::FenrelBinary(), {"-c", file}, {{"FENREL_ROOT", dir.File("root")}},
                         dir.Path());
    ASSERT_TRUE(daemon.WaitExit(10s));

    const std::string expected = "PRI=179 APP=ZUN PROCID=" + std::to_string(daemon.Pid()) +
                                 " MSGID=- SD=[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\" tid=\"";
    auto content = [&] { return dir.Read("received.log"); };
    ASSERT_TRUE(FenRELTest::WaitFor(
        [&] { return content().find("Got error when initializing net applications") != std::string::npos; }, 20s,
        "rsyslogd to write the daemon's error", content));
    const std::string log = content();
    EXPECT_NE(std::string::npos, log.find(expected)) << log;
    EXPECT_NE(std::string::npos,
              log.find("level=\"error\" errorCode=\"LCP00014\"] MSG=Got error when initializing net applications"))
        << log;
    // A verbose line travels at priority 183 (local6.debug).
    EXPECT_NE(std::string::npos, log.find("PRI=183 APP=ZUN")) << log;
    syslog.Signal(SIGTERM);
}

}  // namespace
