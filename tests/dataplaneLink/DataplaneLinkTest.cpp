#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "DataplaneKrnlink.h"
#include "DataplaneMsgQueue.h"
#include "DpMsg.h"
#include "IoService.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "WaitFor.h"
#include "WorkGroup.h"
#include "ZunaDPLink.h"

namespace FenREL {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Statuses = std::vector<DataplaneLink::LinkStatus>;
using FenRELTest::WaitFor;
constexpr DataplaneLink::LinkStatus kUp = DataplaneLink::LinkUp;
constexpr DataplaneLink::LinkStatus kDown = DataplaneLink::LinkDown;

// Two loops per open link run on the work group.
class WorkGroupEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ZUNChannel::WorkGroup::Get().Start(12);
    }
};
testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new WorkGroupEnvironment);

// Reading is tested through the links, from a peer's bytes.
TEST(DpMsgHdrDeathTest, WritesZeroFlagsTypeAndBigEndianLengthAndAssertsOnAShortOne)
{
    uint8_t hdr[DpMsgHdr::kSize];
    memset(hdr, 0xFF, sizeof(hdr));
    DpMsgHdr::Init(hdr, DpMsgHdr::DP_MSG_HDR_SERVICE, 0x01020306);
    EXPECT_EQ((Bytes{0x00, 0x04, 0x01, 0x02, 0x03, 0x06}), Bytes(hdr, hdr + sizeof(hdr)));
    EXPECT_DEATH(DpMsgHdr::Init(hdr, 1, 5), "Panic: ASSERT common/DpMsg.cpp");
}

// The blocking put on a full queue is tested through the link's Send.
TEST(DataplaneMsgQueueTest, CloseWakesBlockedTakersAndPuttersAndRefusesLaterPuts)
{
    DataplaneMsgQueue empty;
    DataplaneMsgQueue full(1);
    ASSERT_TRUE(full.Put(static_cast<uint8_t*>(malloc(1))));
    std::thread taker([&] { EXPECT_EQ(nullptr, empty.Take()); });
    std::atomic<int> putResult{-1};
    std::thread putter([&] { putResult = full.Put(static_cast<uint8_t*>(malloc(1))) ? 1 : 0; });
    EXPECT_TRUE(WaitFor([&] { return full.BlockedPutters() == 1; }, 5s, "the put to block"));

    empty.Close();
    full.Close();
    taker.join();
    putter.join();
    // The refused message was freed by the queue (the leak checker would say
    // otherwise), and so is the one it still holds when it goes.
    EXPECT_EQ(0, putResult);
    EXPECT_FALSE(full.Put(static_cast<uint8_t*>(malloc(1))));
    EXPECT_EQ(nullptr, full.Take());
}

// The two kinds of link, by what tells them apart on the wire: the agent's
// header is flags, type and a 32-bit length, the kernel's a 16-bit type and a
// 16-bit length; both lengths count the header.
struct LinkKind {
    const char* name;
    bool kernel;
    size_t headerSize;
    // What the link logs when the peer closes between messages; %s is the path.
    const char* peerClosedText;

    Bytes Frame(const std::string& body) const
    {
        const size_t n = body.size() + headerSize;
        Bytes frame = kernel ? Bytes{0, 4, uint8_t(n >> 8), uint8_t(n)}
                             : Bytes{0, 1, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        frame.insert(frame.end(), body.begin(), body.end());
        return frame;
    }
};

void PrintTo(const LinkKind& kind, std::ostream* out)
{
    *out << kind.name;
}

const LinkKind kZuna{"Zuna", false, 6, "ZunaDPLink %s: recv 0 byte header, the peer has performed an orderly shutdown"};
const LinkKind kKernel{"Kernel", true, 4, "krnlink %s: recv error: 0:Success"};

// The far end of a link: a listening unix socket and the one connection it
// accepted, every wait bounded by five seconds.
class UnixPeer {
public:
    explicit UnixPeer(const std::string& path) : _path(path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        _listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) << path;
        EXPECT_EQ(0, listen(_listenFd, 8));
    }
    ~UnixPeer()
    {
        CloseConnection();
        close(_listenFd);
        unlink(_path.c_str());
    }

    // Takes the next connection, closing the one before.
    bool Accept()
    {
        pollfd request{_listenFd, POLLIN, 0};
        if (poll(&request, 1, 5000) != 1) {
            return false;
        }
        CloseConnection();
        _fd = accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        const timeval timeout{5, 0};
        return _fd >= 0 && setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0;
    }
    bool Write(const Bytes& bytes)
    {
        return send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // A whole message of `kind`; nullopt on time-out or close.
    std::optional<Bytes> ReadFrame(const LinkKind& kind)
    {
        Bytes frame(kind.headerSize);
        if (!Read(frame.data(), frame.size())) {
            return std::nullopt;
        }
        size_t length = 0;
        for (size_t i = 2; i < kind.headerSize; ++i) {
            length = (length << 8) | frame[i];
        }
        if (length < kind.headerSize) {
            return std::nullopt;
        }
        frame.resize(length);
        return Read(frame.data() + kind.headerSize, length - kind.headerSize) ? std::optional<Bytes>(frame)
                                                                              : std::nullopt;
    }
    void CloseConnection()
    {
        if (_fd >= 0) {
            close(_fd);
            _fd = -1;
        }
    }

private:
    bool Read(uint8_t* buffer, size_t size)
    {
        return size == 0 || recv(_fd, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    std::string _path;
    int _listenFd = -1;
    int _fd = -1;
};

class LinkTest : public testing::Test {
protected:
    void TearDown() override
    {
        for (const auto& link : _links) {
            link->Stop();
            EXPECT_EQ(0, link->RunningLoops());
        }
        _links.clear();
        // Lets the cancelled timers release the links they hold.
        ZUNChannel::IoService::Get()->poll();
        ZUNChannel::IoService::Get()->restart();
    }

    // A link that records what it reports, and whose check notes the
    // descriptor it is asked about and answers `_healthy`.
    boost::intrusive_ptr<UnixSocketLink> Make(const LinkKind& kind, const std::string& path)
    {
        auto receive = [this](const unsigned char* msg, int length) {
            std::lock_guard<std::mutex> lock(_mutex);
            _messages.emplace_back(msg, msg + length);
        };
        auto status = [this](DataplaneLink*, DataplaneLink::LinkStatus linkStatus) {
            std::lock_guard<std::mutex> lock(_mutex);
            _statuses.push_back(linkStatus);
        };
        auto check = [this](int fd) {
            _checkedFd = fd;
            return _healthy.load();
        };
        boost::intrusive_ptr<UnixSocketLink> link;
        if (kind.kernel) {
            link = new DataplaneKrnlink(path, receive, status, check, false);
        } else {
            link = new ZunaDPLink(path, receive, status, check);
        }
        _links.push_back(link);
        return link;
    }

    static bool Send(UnixSocketLink& link, const Bytes& bytes)
    {
        auto* buffer = static_cast<uint8_t*>(malloc(bytes.size() + 1));
        memcpy(buffer, bytes.data(), bytes.size());
        return link.Send(buffer, static_cast<uint32_t>(bytes.size()));
    }

    Statuses GetStatuses()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _statuses;
    }
    std::vector<Bytes> GetMessages()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _messages;
    }

    // A path of `size` bytes; the links use the longest a socket takes.
    std::string Path(size_t size = 107) const
    {
        return _dir.Path() + "/" + std::string(size - _dir.Path().size() - 1, 'p');
    }

    FenRELTest::TempDir _dir;
    std::mutex _mutex;
    Statuses _statuses;
    std::vector<Bytes> _messages;
    std::atomic<bool> _healthy{true};
    std::atomic<int> _checkedFd{-2};
    std::vector<boost::intrusive_ptr<UnixSocketLink>> _links;
};

class EveryLinkTest : public LinkTest, public testing::WithParamInterface<LinkKind> {};

TEST_P(EveryLinkTest, TimerRoundsConnectAnAbsentPeerAndReconnectAfterAFailedCheckOrThePeersClose)
{
    const LinkKind& kind = GetParam();
    auto link = Make(kind, Path());
    EXPECT_TRUE(link->Open());
    EXPECT_FALSE(link->IsConnected());
    const Bytes early = kind.Frame("sent while down");
    ASSERT_TRUE(Send(*link, early));

    UnixPeer peer(Path());
    link->OnTimer();
    EXPECT_EQ(-2, _checkedFd);  // not asked without a descriptor
    EXPECT_EQ(Statuses{kUp}, GetStatuses());
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(early, peer.ReadFrame(kind));

    // A round on a link that is up asks the check, and changes nothing while it holds.
    link->OnTimer();
    EXPECT_EQ(link->GetFd(), _checkedFd);
    EXPECT_EQ(1u, GetStatuses().size());
    // Otherwise it disconnects, and the same round connects again.
    _healthy = false;
    link->OnTimer();
    EXPECT_EQ((Statuses{kUp, kDown, kUp}), GetStatuses());
    ASSERT_TRUE(peer.Accept());

    // The peer's close takes the link down at once; the next round connects again.
    {
        FenRELTest::LogCapture log(LOGLEVEL_ERROR);
        peer.CloseConnection();
        ASSERT_TRUE(WaitFor([&] { return GetStatuses().size() >= 4; }, 5s, "the link to go down"));
        char expected[256];
        snprintf(expected, sizeof(expected), kind.peerClosedText, Path().c_str());
        EXPECT_NE(std::string::npos, log.Text().find(expected)) << log.Text();
    }
    EXPECT_EQ(-1, link->GetFd());
    link->OnTimer();
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ((Statuses{kUp, kDown, kUp, kDown, kUp}), GetStatuses());
    const Bytes msg = kind.Frame("after the reconnect");
    ASSERT_TRUE(Send(*link, msg));
    EXPECT_EQ(msg, peer.ReadFrame(kind));
}

TEST_P(EveryLinkTest, CarriesWholeMessagesEitherWayWhateverTheSplit)
{
    const LinkKind& kind = GetParam();
    UnixPeer peer(Path());
    auto link = Make(kind, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept());

    const Bytes first = kind.Frame("first");
    const Bytes second = kind.Frame("");
    const Bytes third = kind.Frame(std::string(3000, 'x'));
    Bytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    ASSERT_TRUE(peer.Write(both));
    // The third in pieces: inside the header, then inside the body.
    ASSERT_TRUE(peer.Write(Bytes(third.begin(), third.begin() + 3)));
    ASSERT_TRUE(peer.Write(Bytes(third.begin() + 3, third.begin() + 1000)));
    ASSERT_TRUE(peer.Write(Bytes(third.begin() + 1000, third.end())));
    ASSERT_TRUE(WaitFor([&] { return GetMessages().size() >= 3; }, 5s, "three messages"));
    EXPECT_EQ((std::vector<Bytes>{first, second, third}), GetMessages());

    const Bytes out1 = kind.Frame("to the peer");
    const Bytes out2 = kind.Frame(std::string(10000, 'y'));
    ASSERT_TRUE(Send(*link, out1));
    // A kernel message of length 0 goes as nothing at all.
    ASSERT_TRUE(!kind.kernel || Send(*link, Bytes{0, 4, 0, 0}));
    ASSERT_TRUE(Send(*link, out2));
    EXPECT_EQ(out1, peer.ReadFrame(kind));
    EXPECT_EQ(out2, peer.ReadFrame(kind));
}

INSTANTIATE_TEST_SUITE_P(Links, EveryLinkTest, testing::Values(kZuna, kKernel),
                         [](const testing::TestParamInfo<LinkKind>& info) { return info.param.name; });

TEST_F(LinkTest, SendWithAFullQueueBlocksUntilTheWriterTakesOne)
{
    auto link = Make(kZuna, Path());
    link->Open();
    // Closed: the writer takes nothing, the queue fills.
    for (uint32_t i = 0; i < DataplaneMsgQueue::kCapacity; ++i) {
        ASSERT_TRUE(Send(*link, kZuna.Frame(std::to_string(i))));
    }
    std::atomic<bool> lastSent{false};
    std::thread sender([&] {
        EXPECT_TRUE(Send(*link, kZuna.Frame("1024")));
        lastSent = true;
    });
    EXPECT_TRUE(WaitFor([&] { return link->BlockedSenders() == 1; }, 5s, "the 1025th send to block"));
    EXPECT_FALSE(lastSent);

    UnixPeer peer(Path());
    link->OnTimer();
    EXPECT_TRUE(peer.Accept());
    for (uint32_t i = 0; i <= DataplaneMsgQueue::kCapacity; ++i) {
        if (peer.ReadFrame(kZuna) != kZuna.Frame(std::to_string(i))) {
            ADD_FAILURE() << "message " << i;
            break;
        }
    }
    link->Stop();  // frees the sender, should the writer not have
    sender.join();
    EXPECT_TRUE(lastSent);
}

TEST_F(LinkTest, CloseKeepsTheLoopsButStopEndsThemSilentlyAndLaterSendsFail)
{
    UnixPeer peer(Path());
    auto link = Make(kZuna, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept());
    link->Close();
    EXPECT_FALSE(peer.ReadFrame(kZuna));  // the end of the stream
    EXPECT_EQ(2, link->RunningLoops());
    link->OnTimer();
    ASSERT_TRUE(peer.Accept());
    link->Stop();
    EXPECT_EQ(0, link->RunningLoops());
    EXPECT_FALSE(peer.ReadFrame(kZuna));
    // The owner gave the link up: its handlers hear nothing of the close.
    EXPECT_EQ((Statuses{kUp, kDown, kUp}), GetStatuses());
    EXPECT_FALSE(link->Open());
    link->OnTimer();
    EXPECT_FALSE(link->IsConnected());
    FenRELTest::LogCapture log(LOGLEVEL_ERROR);
    EXPECT_FALSE(Send(*link, kZuna.Frame("late")));
    EXPECT_FALSE(link->Send(nullptr, 0));
    EXPECT_NE(std::string::npos, log.Text().find("errorCode=\"LCP00008\"] Msg Queue is full!")) << log.Text();
}

// Each of these ends the process: what it awaits after the fault never comes.
using LinkDeathTest = LinkTest;

TEST_F(LinkDeathTest, PathOf108BytesAsserts)
{
    EXPECT_DEATH(Make(kZuna, Path(108))->Open(), "Panic: ASSERT src/framework/dataplaneLink/UnixSocketLink.cpp");
}

TEST_F(LinkDeathTest, PeerLengthBelowTheHeaderAsserts)
{
    const std::pair<const LinkKind*, const char*> cases[] = {
        {&kZuna, "Panic: ASSERT common/DpMsg.cpp"},
        {&kKernel, "Panic: ASSERT src/framework/dataplaneLink/DataplaneKrnlink.cpp"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(
            {
                UnixPeer peer(Path());
                Make(*c.first, Path())->Open();
                peer.Accept();
                Bytes frame = c.first->Frame("x");
                frame[c.first->headerSize - 1] = static_cast<uint8_t>(c.first->headerSize - 1);
                peer.Write(frame);
                WaitFor([] { return false; }, 10s, "the reader's assertion");
            },
            c.second);
    }
}

}  // namespace
}  // namespace FenREL
