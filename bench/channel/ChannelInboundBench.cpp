// Inbound throughput of one controller connection over TLS on loopback: a
// server streams pre-built 4096-byte frames (the default frame limit) to an
// application registered in this process's channel, as the daemon runs it
// (two I/O threads, the global lock, one message buffer per frame).
//
// The limit, measured in the same run: the same server and the same bytes
// read by a plain Boost.Asio TLS stream into one buffer, with a client
// context made as the connection pool makes its own.
//
// The clock runs from the request to the server until the last byte (the
// limit) or the last message (the channel) is in.

#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>

#include "AppManager.h"
#include "ChannelCore.h"
#include "Configuration.h"
#include "CoreApp.h"
#include "CtrlConnPool.h"
#include "CtrlMsg.h"
#include "ExtendedApp.h"
#include "GlobalLock.h"
#include "Hello.h"
#include "IOWorker.h"
#include "LogLevel.h"
#include "MessageWriter.h"
#include "SelfSignedCert.h"
#include "TempDir.h"
#include "TlsStreamServer.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using FenRELBench::TlsStreamServer;

constexpr uint16_t kSinkAppId = 0x0200;
constexpr size_t kFrameSize = 4096;
constexpr size_t kFramesPerBuffer = 256;  // 1 MiB
constexpr size_t kBuffersPerIteration = 16;
constexpr size_t kFramesPerIteration = kFramesPerBuffer * kBuffersPerIteration;
constexpr size_t kBytesPerIteration = kFrameSize * kFramesPerIteration;
constexpr auto kTimeout = 60s;

[[noreturn]] void Die(const std::string& why)
{
    fprintf(stderr, "channel_inbound_bench: %s\n", why.c_str());
    exit(1);
}

// 256 whole messages of one frame each, for the sink application.
std::vector<uint8_t> Frames()
{
    std::vector<uint8_t> bytes(kFrameSize * kFramesPerBuffer);
    for (size_t i = 0; i < kFramesPerBuffer; ++i) {
        uint8_t* frame = bytes.data() + i * kFrameSize;
        ZUNChannel::CtrlMsg::WriteHeader(frame, 0, ZUNChannel::CtrlMsg::kUnstampedSessionId,
                                         ZUNChannel::CtrlMsg::kTypeData, kFrameSize, kSinkAppId);
        for (size_t j = ZUNChannel::CtrlMsg::kHeaderSize; j < kFrameSize; ++j) {
            frame[j] = static_cast<uint8_t>(i + j);
        }
    }
    return bytes;
}

std::vector<uint8_t> ControllerHello()
{
    std::vector<uint8_t> bytes;
    for (const CtrlSim::Bytes& frame : CtrlSim::MessageWriter::Frames(CtrlSim::Hello::ControllerDefault().ToMessage())) {
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    return bytes;
}

// Counts what reaches it; the benchmark waits for a count.
class SinkApp : public ZUNChannel::ExtendedApp {
public:
    SinkApp() : ExtendedApp(kSinkAppId, 0, "Sink") {}
    void HandleEvent(const boost::intrusive_ptr<ZUNChannel::Event>& /*event*/) override {}
    void HandleMsg(const uint8_t* /*message*/, uint32_t /*size*/, const ZUNChannel::ConnKey& /*key*/) override
    {
        if (++_messages == _target.load()) {
            std::lock_guard<std::mutex> lock(_mutex);
            _reached.notify_all();
        }
    }

    bool WaitFor(uint64_t target)
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _target = target;
        return _reached.wait_for(lock, kTimeout, [&] { return _messages.load() >= target; });
    }
    uint64_t Messages() const { return _messages.load(); }

private:
    std::atomic<uint64_t> _messages{0};
    std::atomic<uint64_t> _target{0};
    std::mutex _mutex;
    std::condition_variable _reached;
};

// Identities and the frames, made once for the whole run.
struct Fixture {
    FenRELTest::TempDir dir;
    CtrlSim::SelfSignedCert controller = CtrlSim::SelfSignedCert::Make(dir.Path(), "controller");
    CtrlSim::SelfSignedCert host = CtrlSim::SelfSignedCert::Make(dir.Path(), "host");
    std::vector<uint8_t> frames = Frames();

    static Fixture& Get()
    {
        static Fixture fixture;
        return fixture;
    }
};

// The channel as the daemon sets it up, with one connection to `server`
// used by the sink application. Made once; it lives until the process ends,
// as the daemon's does.
struct Channel {
    TlsStreamServer server;
    boost::intrusive_ptr<SinkApp> sink;
    uint64_t expected = 0;

    Channel()
        : server(Fixture::Get().controller.keyFile, Fixture::Get().controller.certFile, ControllerHello()),
          sink(new SinkApp())
    {
        using namespace ZUNChannel;
        FenREL::g_logLevel = FenREL::LOGLEVEL_INFO;  // the packaged level
        FenREL::g_logToConsole = false;
        WorkGroup::Get().Start(8);
        for (int i = 0; i < 2; ++i) {
            boost::intrusive_ptr<IOWorker> worker(new IOWorker());
            WorkGroup::Get().Post(std::make_shared<WorkItemImpl<IOWorker>>(worker, &IOWorker::Run));
        }
        const ConnKey key("127.0.0.1", 0);
        {
            GlobalLockGuard lock;
            ChannelCore::Create();
            AppManager::Get()->RegisterApp(sink);
            CoreApp::Get()->Start();
            Configuration::SetHostCertFiles(Fixture::Get().host.keyFile, Fixture::Get().host.certFile);
            const std::string& pem = Fixture::Get().controller.certPem;
            BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
            X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
            BIO_free(bio);
            Configuration::SetConnList({ConnConfig("127.0.0.1", server.Port(), "", cert, true)});
            CtrlConnPool::Get()->RegisterConn(key, sink->GetKey());
        }
        const auto deadline = Clock::now() + kTimeout;
        for (;;) {
            {
                GlobalLockGuard lock;
                if (CtrlConnPool::Get()->IsReady(key)) {
                    break;
                }
            }
            if (Clock::now() > deadline) {
                Die("the channel's connection did not become ready");
            }
            std::this_thread::sleep_for(10ms);
        }
    }

    static Channel& Get()
    {
        static Channel channel;
        return channel;
    }
};

// A TLS client as the pool makes one, reading into one buffer.
struct PlainReader {
    boost::asio::io_context io;
    boost::asio::ssl::context tls{boost::asio::ssl::context::tls_client};
    TlsStreamServer server{Fixture::Get().controller.keyFile, Fixture::Get().controller.certFile, {}};
    boost::asio::ssl::stream<boost::asio::ip::tcp::socket> stream{io, tls};
    std::vector<uint8_t> buffer = std::vector<uint8_t>(64 * 1024);

    PlainReader()
    {
        SSL_CTX_set_min_proto_version(tls.native_handle(), TLS1_2_VERSION);
        tls.use_certificate_chain_file(Fixture::Get().host.certFile);
        tls.use_private_key_file(Fixture::Get().host.keyFile, boost::asio::ssl::context::pem);
        stream.lowest_layer().connect(
            boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), server.Port()));
        stream.lowest_layer().set_option(boost::asio::ip::tcp::no_delay(true));
        stream.handshake(boost::asio::ssl::stream_base::client);
        if (!server.WaitForPeer(kTimeout)) {
            Die("the plain reader's server saw no handshake");
        }
    }

    static PlainReader& Get()
    {
        static PlainReader reader;
        return reader;
    }
};

void Report(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytesPerIteration));
    state.counters["frames/s"] = benchmark::Counter(static_cast<double>(state.iterations() * kFramesPerIteration),
                                                    benchmark::Counter::kIsRate);
}

void BM_PlainTlsReadLimit(benchmark::State& state)
{
    PlainReader& reader = PlainReader::Get();
    const std::vector<uint8_t>& frames = Fixture::Get().frames;
    for (auto _ : state) {
        const auto start = Clock::now();
        reader.server.Stream(frames, kBuffersPerIteration);
        size_t received = 0;
        while (received < kBytesPerIteration) {
            received += reader.stream.read_some(boost::asio::buffer(reader.buffer));
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    Report(state);
}
BENCHMARK(BM_PlainTlsReadLimit)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ChannelInbound(benchmark::State& state)
{
    Channel& channel = Channel::Get();
    const std::vector<uint8_t>& frames = Fixture::Get().frames;
    for (auto _ : state) {
        const auto start = Clock::now();
        channel.expected += kFramesPerIteration;
        channel.server.Stream(frames, kBuffersPerIteration);
        if (!channel.sink->WaitFor(channel.expected)) {
            Die("the sink got " + std::to_string(channel.sink->Messages()) + " of " +
                std::to_string(channel.expected) + " messages");
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    Report(state);
}
BENCHMARK(BM_ChannelInbound)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
