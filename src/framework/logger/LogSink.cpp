#include "LogSink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "RootPath.h"
#include "Rfc5424.h"
#include "LogLevel.h"

namespace FenREL {

namespace {

// A dead syslog server costs one write attempt per period; lines in between are lost.
constexpr std::chrono::seconds kUdpRetryPeriod(3);
// At most 256 characters a line, plus the terminating NUL that fgets adds.
constexpr size_t kMaxConfigLine = 256 + 1;

std::string ReadHostName()
{
    char name[256] = {0};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        return "-";
    }
    return name;
}

}  // namespace

LogSink& LogSink::Get()
{
    static LogSink* sink = [] {
        auto* s = new LogSink();  // never destroyed: threads log until the process ends
        s->ConfigureFromFile(RootPath("/etc/rsyslog.conf"));
        return s;
    }();
    return *sink;
}

// The sink is set up before main, as the first log line may come from any thread.
static const bool s_sinkReady = (LogSink::Get(), true);

LogSink::LogSink(Clock clock) : _clock(std::move(clock)), _hostName(ReadHostName()), _pid(getpid())
{
}

LogSink::~LogSink()
{
    if (_udpFd >= 0) {
        close(_udpFd);
    }
}

void LogSink::ConfigureFromFile(const std::string& path)
{
    if (_udpFd >= 0) {
        close(_udpFd);
        _udpFd = -1;
    }
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        syslog(LOG_INFO, "Use default syslog");
        return;
    }
    std::string address = "127.0.0.1";
    int port = 514;
    bool udpWanted = false;
    bool formatWanted = false;
    char line[kMaxConfigLine];
    while (fgets(line, sizeof(line), file) != nullptr) {
        if (line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        std::vector<std::string> words;
        std::string word;
        while (fields >> word) {
            words.push_back(word);
        }
        if (words.size() != 2) {
            continue;
        }
        if (words[0] == "$UDPServerAddress") {
            address = words[1];
        } else if (words[0] == "$UDPServerRun") {
            port = atoi(words[1].c_str());
            udpWanted = true;
        } else if (words[0] == "$ActionFileDefaultTemplate" &&
                   words[1] == "RSYSLOG_SyslogProtocol23Format") {
            formatWanted = true;
        }
    }
    fclose(file);

    if (!udpWanted || !formatWanted) {
        syslog(LOG_INFO, "Use default syslog");
        return;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        syslog(LOG_ERR, "Failed to create UDP socket for syslog server");
        return;
    }
    struct sockaddr_in server;
    memset(&server, 0, sizeof(server));
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &server.sin_addr) != 1) {
        syslog(LOG_ERR, "Invalid syslog server address %s", address.c_str());
        close(fd);
        return;
    }
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&server), sizeof(server)) != 0) {
        syslog(LOG_ERR, "Failed to connect UDP socket to syslog server");
        close(fd);
        return;
    }
    _udpFd = fd;
    syslog(LOG_INFO, "Emit syslog via UDP %s:%d", address.c_str(), port);
}

void LogSink::Emit(int level, const std::string& msgId, const std::string& entId,
                   const std::vector<std::string>& tags, const std::string& text)
{
    if (level < LOGLEVEL_PANIC || level > LOGLEVEL_TRIVIA) {
        syslog(LOG_ERR, "Invalid log level %d", level);
        return;
    }
    const long tid = syscall(SYS_gettid);
    const std::string sd = Rfc5424::StructuredData(entId, tid, level, tags);
    const int priority = Rfc5424::Priority(level);
    struct timeval now;
    gettimeofday(&now, nullptr);
    const std::string timestamp = Rfc5424::Timestamp(now);

    if (IsUdpEnabled()) {
        WriteUdp(Rfc5424::Header(priority, timestamp, _hostName, _pid, msgId) + " " + sd + " " + text);
    } else {
        syslog(priority, "%s", (sd + " " + text).c_str());
    }
    if (g_logToConsole.load(std::memory_order_relaxed)) {
        const std::string line = timestamp + " " + sd + " " + text + "\n";
        fwrite(line.data(), 1, line.size(), stdout);
        fflush(stdout);
    }
}

void LogSink::WriteUdp(const std::string& line)
{
    std::lock_guard<std::mutex> lock(_mutex);
    const auto now = _clock();
    if (!_lastWriteOk && _attempted && now - _lastAttempt < kUdpRetryPeriod) {
        return;
    }
    _attempted = true;
    _lastAttempt = now;
    if (write(_udpFd, line.data(), line.size()) < 0) {
        _lastWriteOk = false;
        syslog(LOG_ERR, "Failed to emit message to syslog via UDP");
    } else {
        _lastWriteOk = true;
    }
}

}  // namespace FenREL
