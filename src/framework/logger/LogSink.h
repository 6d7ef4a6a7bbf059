#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace FenREL {

// Where log messages go: RFC 5424 datagrams to the syslog server named in
// "/etc/rsyslog.conf" when that file asks for it, otherwise the C library's
// syslog; and the console when `config.log.outputToConsole` is set.
//
// Any thread emits; only the UDP socket and its state are under _mutex.
class LogSink {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // The process-wide sink, set up from "/etc/rsyslog.conf" (under
    // $FENREL_ROOT) during static initialisation.
    static LogSink& Get();

    explicit LogSink(Clock clock = std::chrono::steady_clock::now);
    ~LogSink();

    LogSink(const LogSink&) = delete;
    LogSink& operator=(const LogSink&) = delete;

    // Reads an rsyslog configuration: "$UDPServerAddress", "$UDPServerRun" and
    // "$ActionFileDefaultTemplate RSYSLOG_SyslogProtocol23Format" together
    // turn UDP output on; anything less keeps the C library's syslog.
    void ConfigureFromFile(const std::string& path);
    bool IsUdpEnabled() const { return _udpFd >= 0; }

    void Emit(int level, const std::string& msgId, const std::string& entId,
              const std::vector<std::string>& tags, const std::string& text);

private:
    void WriteUdp(const std::string& line);

    Clock _clock;
    std::string _hostName;
    int _pid;
    int _udpFd = -1;
    std::mutex _mutex;  // guards the three fields below and writes to _udpFd
    bool _lastWriteOk = true;
    bool _attempted = false;
    std::chrono::steady_clock::time_point _lastAttempt;
};

}  // namespace FenREL
