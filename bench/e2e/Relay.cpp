#include "Relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <google/protobuf/arena.h>

#include "DataPathClient.h"

namespace FenRELBench {

namespace {

// The controller frame header: version, marker (3), flags, sessionID (4),
// type (2), length (2, the whole frame), protocolID (2); big-endian.
constexpr size_t kHeaderSize = 15;
constexpr uint8_t kMoreFragments = 0x80;
constexpr uint16_t kAppData = 7;
constexpr uint16_t kL2ProtocolId = 64;
// The data path's header: flags, type, length (4, header included).
constexpr size_t kDpHeaderSize = 6;
constexpr uint8_t kDpConfigType = 1;
// A delta of a hundred MACs takes some 15 KB of objects.
constexpr size_t kArenaBlock = 16 * 1024;

uint16_t Read16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

std::string Errno(const std::string& what)
{
    return what + ": " + strerror(errno);
}

}  // namespace

Relay::Relay(Mode mode, int socketBuffers) : _mode(mode), _socketBuffers(socketBuffers)
{
    _arenaBlocks.start_block_size = kArenaBlock;
    _arenaBlocks.max_block_size = kArenaBlock;
}

Relay::~Relay()
{
    Stop();
}

void Relay::Start(const std::string& address, uint16_t port, const std::string& dataPathSocket)
{
    _controllerFd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in controller{};
    controller.sin_family = AF_INET;
    controller.sin_port = htons(port);
    if (_controllerFd < 0 || inet_pton(AF_INET, address.c_str(), &controller.sin_addr) != 1 ||
        connect(_controllerFd, reinterpret_cast<sockaddr*>(&controller), sizeof(controller)) != 0) {
        throw std::runtime_error(Errno("relay: connect to " + address));
    }
    const int on = 1;
    setsockopt(_controllerFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));

    _context = SSL_CTX_new(TLS_client_method());
    if (_context == nullptr || SSL_CTX_set_min_proto_version(_context, TLS1_2_VERSION) != 1) {
        throw std::runtime_error("relay: no TLS context");
    }
    SSL_CTX_set_verify(_context, SSL_VERIFY_NONE, nullptr);
    _tls = SSL_new(_context);
    if (_tls == nullptr || SSL_set_fd(_tls, _controllerFd) != 1 || SSL_connect(_tls) != 1) {
        throw std::runtime_error("relay: TLS handshake with " + address + " failed");
    }

    if (_mode == Mode::Forward) {
        _dataPath = std::make_unique<DataPathClient>(dataPathSocket, _socketBuffers);
        // The agent's first message to the data path is its full sync: an empty one.
        com::corvid::zun::lcp::LcpDpMsg fullSync;
        fullSync.set_atomic_update_end(true);
        WriteToDataPath(fullSync);
    }
    _thread = std::thread([this] { ReadFrames(); });
}

void Relay::Stop()
{
    if (_controllerFd >= 0) {
        shutdown(_controllerFd, SHUT_RDWR);
    }
    if (_dataPath) {
        _dataPath->Shutdown();
    }
    if (_thread.joinable()) {
        _thread.join();
    }
    if (_tls != nullptr) {
        SSL_free(_tls);
        _tls = nullptr;
    }
    if (_context != nullptr) {
        SSL_CTX_free(_context);
        _context = nullptr;
    }
    _dataPath.reset();
    if (_controllerFd >= 0) {
        close(_controllerFd);
        _controllerFd = -1;
    }
}

std::string Relay::Error() const
{
    std::lock_guard<std::mutex> lock(_errorMutex);
    return _error;
}

void Relay::Fail(const std::string& error)
{
    std::lock_guard<std::mutex> lock(_errorMutex);
    if (_error.empty()) {
        _error = error;
    }
}

double Relay::CpuSeconds()
{
    clockid_t clock;
    timespec cpu{};
    if (!_thread.joinable() || pthread_getcpuclockid(_thread.native_handle(), &clock) != 0 ||
        clock_gettime(clock, &cpu) != 0) {
        return 0;
    }
    return static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9;
}

void Relay::ReadFrames()
{
    std::vector<uint8_t> buffer(256 * 1024);
    size_t begin = 0;  // first unread byte
    size_t end = 0;    // one past the last byte read
    for (;;) {
        if (end == buffer.size()) {
            // Keep the partial frame at the front.
            memmove(buffer.data(), buffer.data() + begin, end - begin);
            end -= begin;
            begin = 0;
        }
        const int got = SSL_read(_tls, buffer.data() + end, static_cast<int>(buffer.size() - end));
        if (got <= 0) {
            return;  // closed, or stopped
        }
        end += static_cast<size_t>(got);
        while (end - begin >= kHeaderSize) {
            const uint8_t* header = buffer.data() + begin;
            const uint16_t length = Read16(header + 11);
            if (length < kHeaderSize) {
                Fail("relay: frame length below the header's size");
                return;
            }
            if (end - begin < length) {
                break;
            }
            const uint8_t* body = header + kHeaderSize;
            const size_t bodySize = length - kHeaderSize;
            if ((header[4] & kMoreFragments) != 0) {
                _partial.insert(_partial.end(), body, body + bodySize);
            } else if (!_partial.empty()) {
                _partial.insert(_partial.end(), body, body + bodySize);
                OnMessage(Read16(header + 9), Read16(header + 13), _partial.data(), _partial.size());
                _partial.clear();
            } else {
                OnMessage(Read16(header + 9), Read16(header + 13), body, bodySize);
            }
            begin += length;
        }
        if (begin == end) {
            begin = end = 0;
        }
    }
}

void Relay::OnMessage(uint16_t type, uint16_t protocolId, const uint8_t* body, size_t size)
{
    if (type != kAppData || protocolId != kL2ProtocolId || size == 0) {
        return;  // keep-alives and anything else
    }
    if (_mode == Mode::Forward) {
        // After the lead byte, the update; it becomes the LcpDpMsg's l2_update.
        // Its objects come from an arena, as fenrel's do.
        google::protobuf::Arena arena(_arenaBlocks);
        auto& msg = *google::protobuf::Arena::CreateMessage<com::corvid::zun::lcp::LcpDpMsg>(&arena);
        if (!msg.mutable_l2_update()->ParseFromArray(body + 1, static_cast<int>(size - 1))) {
            Fail("relay: an L2 update that does not parse");
            return;
        }
        msg.set_atomic_update_end(true);
        WriteToDataPath(msg);
    }
    _messages.fetch_add(1, std::memory_order_relaxed);
}

void Relay::WriteToDataPath(const com::corvid::zun::lcp::LcpDpMsg& msg)
{
    _frame.assign(kDpHeaderSize, '\0');
    if (!msg.AppendToString(&_frame)) {
        Fail("relay: could not serialise");
        return;
    }
    _frame[1] = static_cast<char>(kDpConfigType);
    const uint32_t length = htonl(static_cast<uint32_t>(_frame.size()));
    memcpy(&_frame[2], &length, sizeof(length));
    if (!_dataPath->Write(_frame.data(), _frame.size())) {
        Fail(Errno("relay: write to the data path"));
    }
}

}  // namespace FenRELBench
