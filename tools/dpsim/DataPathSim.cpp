#include "DataPathSim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace DpSim {

namespace {

using com::corvid::zun::lcp::LcpDpMsg;

const std::vector<L2View::MappingCount> kNothingCounted;

// "config 3 local 1 l2 sessions 2 end": which parts a message holds.
std::string Parts(const LcpDpMsg& msg)
{
    std::string text;
    auto add = [&text](const std::string& part) { text += (text.empty() ? "" : " ") + part; };
    if (msg.remote_config_update_size() > 0) {
        add("config " + std::to_string(msg.remote_config_update_size()));
    }
    if (msg.local_config_update_size() > 0) {
        add("local " + std::to_string(msg.local_config_update_size()));
    }
    if (msg.has_l2_update()) {
        add("l2");
    }
    if (msg.session_state_size() > 0) {
        add("sessions " + std::to_string(msg.session_state_size()));
    }
    if (msg.has_l3_update()) {
        add("l3");
    }
    if (msg.has_traceflow_update()) {
        add("traceflow");
    }
    if (msg.has_dfw_update()) {
        add("dfw");
    }
    if (msg.has_dne_update()) {
        add("dne");
    }
    if (msg.has_service_update()) {
        add("service");
    }
    if (msg.atomic_update_end()) {
        add("end");
    }
    return text.empty() ? "empty" : text;
}

}  // namespace

std::string ReceivedMessage::ToString() const
{
    return "conn " + std::to_string(connection) + " recv type " + std::to_string(headerType) + " len " +
           std::to_string(length) + (fullSync ? " fullsync " : " ") + (parsed ? Parts(msg) : "unparsable body");
}

DataPathSim::DataPathSim(Options options) : _options(std::move(options)), _autoFullSync(_options.autoFullSync)
{
    _view.SetL2CountOnly(_options.countL2Only);
}

DataPathSim::~DataPathSim()
{
    Stop();
}

void DataPathSim::Start()
{
    if (_started) {
        throw std::runtime_error("the simulator runs already");
    }
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (_options.path.empty() || _options.path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("bad socket path '" + _options.path + "'");
    }
    memcpy(address.sun_path, _options.path.data(), _options.path.size());
    const std::filesystem::path parent = std::filesystem::path(_options.path).parent_path();
    std::error_code ignored;
    if (!parent.empty()) {
        std::filesystem::create_directories(parent, ignored);
    }
    unlink(_options.path.c_str());

    _listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (_listenFd < 0 || bind(_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(_listenFd, 4) != 0 || pipe2(_wakePipe, O_CLOEXEC) != 0) {
        const std::string error = strerror(errno);
        if (_listenFd >= 0) {
            close(_listenFd);
            _listenFd = -1;
        }
        throw std::runtime_error("cannot listen on " + _options.path + ": " + error);
    }
    _started = true;
    _thread = std::thread([this] { Run(); });
}

void DataPathSim::Stop()
{
    if (!_started) {
        return;
    }
    _started = false;
    const char stop = 's';
    while (write(_wakePipe[1], &stop, 1) < 0 && errno == EINTR) {
    }
    _thread.join();
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_connFd >= 0) {
            close(_connFd);
            _connFd = -1;
            _closed[_currentConnection] = true;
        }
    }
    close(_listenFd);
    close(_wakePipe[0]);
    close(_wakePipe[1]);
    _listenFd = -1;
    unlink(_options.path.c_str());
    _changed.notify_all();
}

void DataPathSim::SetEventLog(EventLog log)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _eventLog = std::move(log);
}

void DataPathSim::Run()
{
    for (;;) {
        int connFd;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            connFd = _connFd;  // only this thread changes it
        }
        pollfd fds[3] = {{_wakePipe[0], POLLIN, 0}, {_listenFd, POLLIN, 0}, {connFd, POLLIN, 0}};
        const int ready = poll(fds, connFd >= 0 ? 3 : 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (connFd >= 0 && fds[2].revents != 0) {
            ReadConnection();
        }
        if (fds[1].revents != 0) {
            Accept();
        }
    }
}

void DataPathSim::Accept()
{
    const int fd = accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    bool replacing;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        replacing = _connFd >= 0;
    }
    if (replacing) {
        CloseCurrent("replaced by a new connection");
    }
    bool autoFullSync;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _connFd = fd;
        _currentConnection = _accepted++;
        _closed.push_back(false);
        _firstSent = false;
        _firstReceived = false;
        _closing = false;
        _reader = DpFrameReader();
        autoFullSync = _autoFullSync;
        Log("conn " + std::to_string(_currentConnection) + " accepted");
        _changed.notify_all();
    }
    if (autoFullSync) {
        std::lock_guard<std::mutex> send(_sendMutex);
        SendFullSyncLocked();
    }
}

void DataPathSim::ReadConnection()
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        fd = _connFd;
    }
    uint8_t buffer[65536];
    const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (got <= 0) {
        bool closing;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            closing = _closing;
        }
        CloseCurrent(closing ? "closed by simulator"
                             : got == 0 ? "closed by peer" : std::string("recv failed: ") + strerror(errno));
        return;
    }
    std::string fault;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _reader.Feed(buffer, static_cast<size_t>(got));
        while (std::optional<DpFrame> frame = _reader.Next()) {
            Record(*frame);
        }
        // Once for all the messages of this read: a waiter looks at them together.
        _changed.notify_all();
        fault = _reader.Fault();
        if (!fault.empty()) {
            _violations.push_back("conn " + std::to_string(_currentConnection) + ": " + fault);
            Log("conn " + std::to_string(_currentConnection) + " violation " + fault);
        }
    }
    if (!fault.empty()) {
        CloseCurrent("violation");
    }
}

void DataPathSim::Record(const DpFrame& frame)
{
    ReceivedMessage record;
    record.index = _messages.size();
    record.connection = _currentConnection;
    record.received = std::chrono::steady_clock::now();
    record.flags = frame.flags;
    record.headerType = frame.type;
    record.length = frame.length;
    record.fullSync = !_firstReceived;
    _firstReceived = true;
    // Counting, the L2 update is read from the bytes and the rest parsed.
    const bool counted = _options.countL2Only && _counter.Read(frame.body.data(), frame.body.size());
    if (counted) {
        record.parsed = record.msg.ParseFromString(_counter.Rest());
        if (_counter.HasL2()) {
            record.msg.mutable_l2_update();
        }
    } else {
        record.parsed = record.msg.ParseFromArray(frame.body.data(), static_cast<int>(frame.body.size()));
    }
    if (record.parsed) {
        _view.Apply(record.msg, record.fullSync, counted ? _counter.Mappings() : kNothingCounted);
    } else {
        _violations.push_back("conn " + std::to_string(_currentConnection) + ": message " +
                              std::to_string(record.index) + " is not an LcpDpMsg");
    }
    if (_eventLog) {
        Log(record.ToString());
    }
    _messages.push_back(std::move(record));
}

void DataPathSim::CloseCurrent(const std::string& reason)
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        fd = _connFd;
    }
    if (fd < 0) {
        return;
    }
    // Wakes a sender blocked on a peer that does not read.
    shutdown(fd, SHUT_RDWR);
    std::lock_guard<std::mutex> send(_sendMutex);
    std::lock_guard<std::mutex> lock(_mutex);
    close(_connFd);
    _connFd = -1;
    _closed[_currentConnection] = true;
    Log("conn " + std::to_string(_currentConnection) + " closed (" + reason + ")");
    _changed.notify_all();
}

void DataPathSim::SetAutoFullSync(bool on)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _autoFullSync = on;
}

bool DataPathSim::SendFullSync()
{
    std::lock_guard<std::mutex> send(_sendMutex);
    return SendFullSyncLocked();
}

bool DataPathSim::SendFullSyncLocked()
{
    LcpDpMsg msg;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        msg = _local.FullSyncMessage();
    }
    return SendLocked(1, msg);
}

std::string DataPathSim::ChangeLocal(const std::function<std::string(LocalState&, LcpDpMsg&)>& change)
{
    std::lock_guard<std::mutex> send(_sendMutex);
    LcpDpMsg msg;
    bool deltaDue;
    std::string error;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        error = change(_local, msg);
        // Before the first message a change waits for the full sync that holds it.
        deltaDue = error.empty() && _firstSent;
    }
    if (deltaDue) {
        SendLocked(1, msg);
    }
    return error;
}

std::string DataPathSim::SetVif(const std::string& id, const LocalState::Vif& vif)
{
    return ChangeLocal([&](LocalState& local, LcpDpMsg& msg) {
        msg = local.SetVif(id, vif);
        return std::string();
    });
}

std::string DataPathSim::RemoveVif(const std::string& id)
{
    return ChangeLocal([&](LocalState& local, LcpDpMsg& msg) {
        std::optional<LcpDpMsg> removal = local.RemoveVif(id);
        if (!removal) {
            return "no vif " + id;
        }
        msg = *removal;
        return std::string();
    });
}

std::string DataPathSim::AddL2(uint32_t vni, int32_t type, const LocalState::L2UpdateMappingItemMsg& item)
{
    return ChangeLocal([&](LocalState& local, LcpDpMsg& msg) { return local.AddL2(vni, type, item, msg); });
}

std::string DataPathSim::DeleteL2(uint32_t vni, int32_t type, const LocalState::L2UpdateMappingItemMsg& item)
{
    return ChangeLocal([&](LocalState& local, LcpDpMsg& msg) { return local.DeleteL2(vni, type, item, msg); });
}

std::string DataPathSim::LeaveVni(uint32_t vni)
{
    return ChangeLocal([&](LocalState& local, LcpDpMsg& msg) { return local.LeaveVni(vni, msg); });
}

bool DataPathSim::SendMessage(uint8_t headerType, const LcpDpMsg& msg)
{
    std::lock_guard<std::mutex> send(_sendMutex);
    return SendLocked(headerType, msg);
}

bool DataPathSim::SendLocked(uint8_t headerType, const LcpDpMsg& msg)
{
    const Bytes frame = DpFrame::Encode(headerType, msg.SerializeAsString());
    if (!SendRawLocked(frame)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(_mutex);
    Log("conn " + std::to_string(_currentConnection) + " sent type " + std::to_string(headerType) + " len " +
        std::to_string(frame.size()) + " " + Parts(msg));
    return true;
}

bool DataPathSim::SendRaw(const Bytes& bytes)
{
    std::lock_guard<std::mutex> send(_sendMutex);
    return SendRawLocked(bytes);
}

bool DataPathSim::SendRawLocked(const Bytes& bytes)
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        fd = _connFd;
        if (fd < 0) {
            return false;
        }
        // Whatever it holds, the first message is the agent's full sync.
        _firstSent = true;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

bool DataPathSim::CloseConnection()
{
    size_t connection;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_connFd < 0) {
            return false;
        }
        connection = _currentConnection;
        _closing = true;
        // The simulator's thread sees the end and closes.
        shutdown(_connFd, SHUT_RDWR);
    }
    return WaitForClosed(connection, std::chrono::seconds(5));
}

std::vector<ReceivedMessage> DataPathSim::Messages() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _messages;
}

DataPathView DataPathSim::View() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _view;
}

size_t DataPathSim::AcceptedCount() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _accepted;
}

bool DataPathSim::IsConnected() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _connFd >= 0;
}

bool DataPathSim::FirstMessageSent() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _firstSent;
}

std::vector<std::string> DataPathSim::Violations() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _violations;
}

std::string DataPathSim::Summary() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    std::string text = "accepted " + std::to_string(_accepted) + " connected " + (_connFd >= 0 ? "yes" : "no") +
                       " messages " + std::to_string(_messages.size()) + " violations " +
                       std::to_string(_violations.size()) + "\n";
    for (const std::string& violation : _violations) {
        text += "violation " + violation + "\n";
    }
    for (const ReceivedMessage& msg : _messages) {
        text += msg.ToString() + "\n";
    }
    return text + _view.Describe();
}

template <typename Condition>
bool DataPathSim::WaitUntil(Condition condition, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, timeout, condition);
}

bool DataPathSim::WaitForAccepted(size_t count, std::chrono::milliseconds timeout) const
{
    return WaitUntil([&] { return _accepted >= count; }, timeout);
}

bool DataPathSim::WaitForClosed(size_t connection, std::chrono::milliseconds timeout) const
{
    return WaitUntil([&] { return connection < _closed.size() && _closed[connection]; }, timeout);
}

std::optional<ReceivedMessage> DataPathSim::WaitForMessage(const MessagePredicate& match,
                                                           std::chrono::milliseconds timeout, size_t fromIndex) const
{
    std::optional<ReceivedMessage> found;
    WaitUntil(
        [&] {
            for (size_t i = fromIndex; i < _messages.size(); ++i) {
                if (match(_messages[i])) {
                    found = _messages[i];
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

bool DataPathSim::WaitForMessageCount(size_t count, std::chrono::milliseconds timeout) const
{
    return WaitUntil([&] { return _messages.size() >= count; }, timeout);
}

bool DataPathSim::WaitForView(const std::function<bool(const DataPathView&)>& condition,
                              std::chrono::milliseconds timeout) const
{
    return WaitUntil([&] { return condition(_view); }, timeout);
}

DataPathSim::MessagePredicate DataPathSim::IsFullSync()
{
    return [](const ReceivedMessage& msg) { return msg.fullSync; };
}

DataPathSim::MessagePredicate DataPathSim::HeaderTypeIs(uint8_t type)
{
    return [type](const ReceivedMessage& msg) { return msg.headerType == type; };
}

void DataPathSim::Log(const std::string& line) const
{
    if (_eventLog) {
        _eventLog(line);
    }
}

}  // namespace DpSim
