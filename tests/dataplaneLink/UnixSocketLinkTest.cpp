#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "DataplaneKrnlink.h"
#include "IoService.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "UnixPeer.h"
#include "WaitFor.h"
#include "WorkGroup.h"
#include "ZunaDPLink.h"

namespace FenREL {
namespace {

using namespace std::chrono_literals;
using FenRELTest::Bytes;
using FenRELTest::UnixPeer;
using FenRELTest::WaitFor;

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

// The two kinds of link, by what tells them apart on the wire.
struct LinkKind {
    const char* name;
    bool kernel;
    size_t headerSize;
    size_t lengthBytes;
    Bytes (*frame)(const std::string& body);
    // What the link logs when the peer closes between messages; %s is the path.
    const char* peerClosedText;
};

Bytes ZunaBody(const std::string& body)
{
    return FenRELTest::ZunaFrame(1, body);
}

Bytes KrnBody(const std::string& body)
{
    return FenRELTest::KrnFrame(4, body);
}

const LinkKind kZuna{"Zuna", false, 6, 4, &ZunaBody,
                     "ZunaDPLink %s: recv 0 byte header, the peer has performed an orderly shutdown"};
const LinkKind kKernel{"Kernel", true, 4, 2, &KrnBody, "krnlink %s: recv error: 0:Success"};

// Records what a link reports, from its threads.
struct Recorder {
    std::mutex mutex;
    std::vector<DataplaneLink::LinkStatus> statuses;
    std::vector<Bytes> messages;

    std::vector<DataplaneLink::LinkStatus> Statuses()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return statuses;
    }
    std::vector<Bytes> Messages()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
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

    boost::intrusive_ptr<UnixSocketLink> Make(const LinkKind& kind, const std::string& path,
                                              DataplaneLink::LinkCheck check = nullptr)
    {
        std::shared_ptr<Recorder> recorder = _recorder;
        auto receive = [recorder](const unsigned char* msg, int length) {
            std::lock_guard<std::mutex> lock(recorder->mutex);
            recorder->messages.emplace_back(msg, msg + length);
        };
        auto status = [recorder](DataplaneLink*, DataplaneLink::LinkStatus linkStatus) {
            std::lock_guard<std::mutex> lock(recorder->mutex);
            recorder->statuses.push_back(linkStatus);
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

    testing::AssertionResult WaitForStatuses(size_t count)
    {
        return WaitFor([&] { return _recorder->Statuses().size() >= count; }, 5s,
                       std::to_string(count) + " status changes",
                       [&] { return std::to_string(_recorder->Statuses().size()) + " of them"; });
    }

    std::optional<Bytes> ReadFrame(UnixPeer& peer, const LinkKind& kind)
    {
        return peer.ReadFrame(kind.headerSize, kind.lengthBytes, 5s);
    }

    std::string Path() const { return _dir.File("link.sock"); }

    FenRELTest::TempDir _dir;
    std::shared_ptr<Recorder> _recorder = std::make_shared<Recorder>();
    std::vector<boost::intrusive_ptr<UnixSocketLink>> _links;
};

class EveryLinkTest : public LinkTest, public testing::WithParamInterface<LinkKind> {};

TEST_P(EveryLinkTest, AbsentPeerAtOpenComesUpOnATimerRoundAndGetsWhatWasQueued)
{
    const LinkKind& kind = GetParam();
    auto link = Make(kind, Path());
    EXPECT_TRUE(link->Open());
    EXPECT_FALSE(link->IsConnected());
    EXPECT_EQ(-1, link->GetFd());
    const Bytes early = kind.frame("sent while down");
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(early), early.size()));

    UnixPeer peer(Path());
    link->OnTimer();
    EXPECT_TRUE(link->IsConnected());
    EXPECT_EQ(std::vector<DataplaneLink::LinkStatus>{DataplaneLink::LinkUp}, _recorder->Statuses());
    ASSERT_TRUE(peer.Accept(5s));
    EXPECT_EQ(early, ReadFrame(peer, kind));

    // A round on a link that is up changes nothing.
    link->OnTimer();
    EXPECT_EQ(1u, _recorder->Statuses().size());
}

TEST_P(EveryLinkTest, CarriesWholeMessagesEitherWayWhateverTheSplit)
{
    const LinkKind& kind = GetParam();
    UnixPeer peer(Path());
    auto link = Make(kind, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept(5s));

    const Bytes first = kind.frame("first");
    const Bytes second = kind.frame("");
    const Bytes third = kind.frame(std::string(3000, 'x'));
    Bytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    ASSERT_TRUE(peer.Write(both));
    // The third in pieces: inside the header, then inside the body.
    ASSERT_TRUE(peer.Write(Bytes(third.begin(), third.begin() + 3)));
    ASSERT_TRUE(peer.Write(Bytes(third.begin() + 3, third.begin() + 1000)));
    ASSERT_TRUE(peer.Write(Bytes(third.begin() + 1000, third.end())));
    ASSERT_TRUE(WaitFor([&] { return _recorder->Messages().size() >= 3; }, 5s, "three messages"));
    EXPECT_EQ((std::vector<Bytes>{first, second, third}), _recorder->Messages());

    const Bytes out1 = kind.frame("to the peer");
    const Bytes out2 = kind.frame(std::string(10000, 'y'));
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(out1), out1.size()));
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(out2), out2.size()));
    EXPECT_EQ(out1, ReadFrame(peer, kind));
    EXPECT_EQ(out2, ReadFrame(peer, kind));
}

TEST_P(EveryLinkTest, PeerCloseGivesLinkDownAndTheNextRoundConnectsAgain)
{
    const LinkKind& kind = GetParam();
    UnixPeer peer(Path());
    auto link = Make(kind, Path());
    {
        FenRELTest::LogCapture log(LOGLEVEL_ERROR);
        link->Open();
        ASSERT_TRUE(peer.Accept(5s));
        peer.CloseConnection();
        ASSERT_TRUE(WaitForStatuses(2));
        char expected[256];
        snprintf(expected, sizeof(expected), kind.peerClosedText, Path().c_str());
        EXPECT_NE(std::string::npos, log.Text().find(expected)) << log.Text();
    }
    EXPECT_EQ((std::vector<DataplaneLink::LinkStatus>{DataplaneLink::LinkUp, DataplaneLink::LinkDown}),
              _recorder->Statuses());
    EXPECT_FALSE(link->IsConnected());
    EXPECT_EQ(-1, link->GetFd());

    link->OnTimer();
    ASSERT_TRUE(peer.Accept(5s));
    EXPECT_EQ(DataplaneLink::LinkUp, _recorder->Statuses().back());
    const Bytes msg = kind.frame("after the reconnect");
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
    EXPECT_EQ(msg, ReadFrame(peer, kind));
}

INSTANTIATE_TEST_SUITE_P(Links, EveryLinkTest, testing::Values(kZuna, kKernel),
                         [](const testing::TestParamInfo<LinkKind>& info) { return info.param.name; });

TEST_F(LinkTest, LinkCheckFalseDisconnectsAndTheSameRoundConnectsAgain)
{
    UnixPeer peer(Path());
    std::atomic<bool> healthy{true};
    std::atomic<int> checkedFd{-2};
    auto link = Make(kZuna, Path(), [&](int fd) {
        checkedFd = fd;
        return healthy.load();
    });
    link->Open();
    ASSERT_TRUE(peer.Accept(5s));
    const int firstFd = link->GetFd();

    link->OnTimer();
    EXPECT_EQ(firstFd, checkedFd);
    EXPECT_EQ(1u, _recorder->Statuses().size());

    healthy = false;
    link->OnTimer();
    EXPECT_EQ((std::vector<DataplaneLink::LinkStatus>{DataplaneLink::LinkUp, DataplaneLink::LinkDown,
                                                      DataplaneLink::LinkUp}),
              _recorder->Statuses());
    ASSERT_TRUE(peer.Accept(5s));
    EXPECT_TRUE(link->IsConnected());
}

TEST_F(LinkTest, LinkCheckIsNotAskedWithoutADescriptor)
{
    std::atomic<int> checks{0};
    auto link = Make(kZuna, Path(), [&](int) {
        ++checks;
        return true;
    });
    link->Open();
    link->OnTimer();
    EXPECT_EQ(0, checks);
    EXPECT_TRUE(_recorder->Statuses().empty());
}

TEST_F(LinkTest, SendWithAFullQueueBlocksUntilTheWriterTakesOne)
{
    auto link = Make(kZuna, Path());
    link->Open();
    // Closed: the writer takes nothing, the queue fills.
    for (uint32_t i = 0; i < DataplaneMsgQueue::kCapacity; ++i) {
        const Bytes msg = kZuna.frame(std::to_string(i));
        ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
    }
    std::atomic<bool> lastSent{false};
    std::thread sender([&] {
        const Bytes msg = kZuna.frame("1024");
        EXPECT_TRUE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
        lastSent = true;
    });
    ASSERT_TRUE(WaitFor([&] { return link->BlockedSenders() == 1; }, 5s, "the 1025th send to block"));
    EXPECT_FALSE(lastSent);

    UnixPeer peer(Path());
    link->OnTimer();
    ASSERT_TRUE(peer.Accept(5s));
    for (uint32_t i = 0; i <= DataplaneMsgQueue::kCapacity; ++i) {
        ASSERT_EQ(kZuna.frame(std::to_string(i)), ReadFrame(peer, kZuna)) << "message " << i;
    }
    sender.join();
    EXPECT_TRUE(lastSent);
}

TEST_F(LinkTest, CloseDisconnectsKeepsTheLoopsAndReopenComesBack)
{
    UnixPeer peer(Path());
    auto link = Make(kZuna, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept(5s));
    link->Close();
    EXPECT_EQ(DataplaneLink::LinkDown, _recorder->Statuses().back());
    EXPECT_TRUE(peer.WaitForEof(5s));
    EXPECT_EQ(2, link->RunningLoops());

    link->Reopen();
    link->OnTimer();
    ASSERT_TRUE(peer.Accept(5s));
    const Bytes msg = kZuna.frame("reopened");
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
    EXPECT_EQ(msg, ReadFrame(peer, kZuna));
}

TEST_F(LinkTest, StopEndsTheLoopsSilentlyAndLaterSendsFail)
{
    UnixPeer peer(Path());
    auto link = Make(kZuna, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept(5s));
    link->Stop();
    EXPECT_EQ(0, link->RunningLoops());
    EXPECT_TRUE(peer.WaitForEof(5s));
    // The owner gave the link up: its handlers hear nothing of the close.
    EXPECT_EQ(std::vector<DataplaneLink::LinkStatus>{DataplaneLink::LinkUp}, _recorder->Statuses());
    EXPECT_FALSE(link->Open());
    link->OnTimer();
    EXPECT_FALSE(link->IsConnected());

    FenRELTest::LogCapture log(LOGLEVEL_ERROR);
    const Bytes msg = kZuna.frame("late");
    EXPECT_FALSE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
    EXPECT_FALSE(link->Send(nullptr, 0));
    const std::string& text = log.Text();
    EXPECT_NE(std::string::npos, text.find("Msg Queue is full!")) << text;
    EXPECT_NE(std::string::npos, text.find("ZunaDPLink: failed to put a message into queue")) << text;
    EXPECT_NE(std::string::npos, text.find("errorCode=\"LCP00008\"")) << text;
}

TEST_F(LinkTest, KernelLinkSendsNothingForAZeroLength)
{
    UnixPeer peer(Path());
    auto link = Make(kKernel, Path());
    link->Open();
    ASSERT_TRUE(peer.Accept(5s));
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(Bytes{0, 4, 0, 0}), 4));
    const Bytes msg = kKernel.frame("after the empty one");
    ASSERT_TRUE(link->Send(FenRELTest::MallocCopy(msg), msg.size()));
    EXPECT_EQ(msg, ReadFrame(peer, kKernel));
    EXPECT_TRUE(link->IsConnected());
}

TEST_F(LinkTest, PathOf107BytesConnects)
{
    const std::string path = _dir.Path() + "/" + std::string(107 - _dir.Path().size() - 1, 'p');
    ASSERT_EQ(107u, path.size());
    UnixPeer peer(path);
    auto link = Make(kZuna, path);
    link->Open();
    EXPECT_TRUE(link->IsConnected());
    EXPECT_TRUE(peer.Accept(5s));
}

// Each of these ends the process: what it awaits after the fault never comes.
using LinkDeathTest = LinkTest;

TEST_F(LinkDeathTest, PathOf108BytesAsserts)
{
    const std::string path = _dir.Path() + "/" + std::string(108 - _dir.Path().size() - 1, 'p');
    ASSERT_EQ(108u, path.size());
    EXPECT_DEATH(Make(kZuna, path)->Open(), "Panic: ASSERT src/framework/dataplaneLink/UnixSocketLink.cpp");
}

TEST_F(LinkDeathTest, PeerLengthBelowTheHeaderAsserts)
{
    EXPECT_DEATH(
        {
            UnixPeer peer(Path());
            Make(kZuna, Path())->Open();
            peer.Accept(5s);
            peer.Write(Bytes{0, 1, 0, 0, 0, 5, 0});
            WaitFor([] { return false; }, 10s, "the reader's assertion");
        },
        "Panic: ASSERT common/DpMsg.cpp");
    EXPECT_DEATH(
        {
            UnixPeer peer(Path());
            Make(kKernel, Path())->Open();
            peer.Accept(5s);
            peer.Write(Bytes{0, 4, 0, 3});
            WaitFor([] { return false; }, 10s, "the reader's assertion");
        },
        "Panic: ASSERT src/framework/dataplaneLink/DataplaneKrnlink.cpp");
}

TEST_F(LinkDeathTest, QueuedZunaMessageWithLengthZeroAsserts)
{
    EXPECT_DEATH(
        {
            UnixPeer peer(Path());
            auto link = Make(kZuna, Path());
            link->Open();
            peer.Accept(5s);
            link->Send(FenRELTest::MallocCopy(Bytes{0, 1, 0, 0, 0, 0}), 6);
            WaitFor([] { return false; }, 10s, "the writer's assertion");
        },
        "Panic: ASSERT common/DpMsg.cpp");
}

}  // namespace
}  // namespace FenREL
