// CMediaLanes: what the producer puts comes to the clients of all lanes, and its calls can be made anywhere.
#include <Reticor/MediaLanes.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <functional>
#include <set>
#include <utility>

#include <Infra/Semaphore.h>
#include <Reticor/MediaBuffer.h>
#include <Reticor/SockStream.h>

#include "support/ObjectFigures.h"
#include "support/core/SocketPair.h"
#include "support/media/LaneStand.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaLanesCalls = LaneStand;

namespace {

// Runs a test's code inside a send procedure.
struct Procedure {
    std::function<void()> code;
    int calls = 0;
    void run(CMediaPacket*, int, int) {
        ++calls;
        code();
    }
};

class CodeTap : public CLevel2Buffer_IF {
public:
    int Put(CMediaPacket* packet, int len, int mark, int level) override {
        ++calls;
        return code ? code(packet, len, mark, level) : 0;
    }
    std::function<int(CMediaPacket*, int, int, int)> code;
    int calls = 0;
};

}  // namespace

// ---- create and destroy --------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, WithoutLanesWhatHasAResultRefuses) {
    LogCapture log(2);
    SharedPacket& one = packet(3);
    CMediaLanes::Place place;
    MediaLanesStats found;
    MediaClient viewer;
    EXPECT_EQ(-1, lanes.Put(&one, 3, MEDIA_MARK_LAST, 1));
    EXPECT_EQ(-1, lanes.PutFrameInfo(&one, 1));
    EXPECT_EQ(-1, lanes.Next(SOCK_READ, place));
    EXPECT_EQ(-1, lanes.Next(SOCK_READ, place, viewer.sock));
    EXPECT_EQ(-1, lanes.AddSender(viewer.sender));
    EXPECT_EQ(-1, lanes.AddSender(viewer.sender, place));
    EXPECT_EQ(-1, lanes.DelSender(viewer.sender));
    EXPECT_EQ(-1, lanes.Clear());
    EXPECT_EQ(-1, lanes.EnableAutoSend());
    EXPECT_EQ(-1, lanes.DisableAutoSend());
    EXPECT_EQ(-1, lanes.SetDisposableLevel(7));
    EXPECT_EQ(-1, lanes.SetKeepLimits(1, 1));
    EXPECT_EQ(-1, lanes.SetStartCache(1, 1));
    EXPECT_EQ(-1, lanes.SetWriteBatch(1));
    EXPECT_EQ(-1, lanes.SetInboxLimits(1, 1));
    EXPECT_EQ(-1, lanes.GetStats(&found, sizeof found));
    EXPECT_EQ(-1, lanes.Destroy());
    EXPECT_EQ(nullptr, lanes.GetTap());
    EXPECT_EQ(0, lanes.GetBacklog());
    EXPECT_EQ(-1, place.GetPool());
    EXPECT_EQ(-1, place.GetLane());
    lanes.do_send();
    CodeTap tap;
    lanes.AddLevel2Buffer(&tap);
    lanes.DelLevel2Buffer(&tap);
    EXPECT_EQ(0, one.asked);
    viewer.sender->Close();
}

TEST_F(MediaLanesCalls, NumbersThatCannotBeAndASecondCreateAreRefusedWithALine) {
    LogCapture log(2);
    EXPECT_EQ(-1, lanes.Create(0, 1));
    EXPECT_EQ(-1, lanes.Create(64, 1));
    EXPECT_EQ(0, lanes.Create(1, 1));
    EXPECT_EQ(-1, lanes.Create(1, 1));
    EXPECT_EQ(3U, log.countMatching(2, "Can't create \\d+ lanes, 1 to 63 can be made, once!\n"))
        << log.dump();
}

TEST_F(MediaLanesCalls, LanesComeAndGo) {
    for (int round = 0; round < 3; ++round) {
        open(2);
        put(10);
        EXPECT_EQ(2U, stats().lanes);
        EXPECT_EQ(0, lanes.Destroy());
        EXPECT_EQ(1, packets.back().releases) << "what waits is released at the end";
    }
}

TEST_F(MediaLanesCalls, ClientsThatAreStillThereAreLetGoAtTheEnd) {
    open(2);
    const MediaClient& one = client(0);
    const MediaClient& other = client(1);
    send(10);
    EXPECT_EQ(0, lanes.Destroy());
    EXPECT_FALSE(one.sender->GetStats().listed);
    EXPECT_FALSE(other.sender->GetStats().listed);
}

TEST_F(MediaLanesCalls, LaneWhosePoolHasEndedKeepsFramesUpToItsBounds) {
    open(2);
    ASSERT_EQ(0, lanes.SetInboxLimits(3, 1000));
    CMediaLanes::Place place;
    ASSERT_EQ(0, lanes.Next(SOCK_READ, place));
    const int lane = place.GetLane();
    settle();
    ASSERT_EQ(0, CNetThread::DestroyPrivatePool(place.GetPool()));
    const MediaClient& other = client(lane == 0 ? 1 : 0);
    std::string sent;
    for (int i = 0; i < 10; ++i) {
        sent += put(10);
        EXPECT_EVENTUALLY(stats(lane == 0 ? 1 : 0).waiting_frames == 0);
    }
    EXPECT_EQ(3U, stats(lane).waiting_frames);
    EXPECT_EQ(7U, stats(lane).lost_frames);
    MediaLanesState::of(lanes).m_seats[lane == 0 ? 1U : 0U].lane->serve(1);
    EXPECT_EQ(sent, other.sock.wire()) << "the other lane goes on";
}

// ---- the choice of a lane ------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, ClientsAreSpreadEvenlyAndNameTheirPool) {
    open(3);
    std::vector<CMediaLanes::Place> places(9);
    int counts[3] = {};
    std::set<int> pools;
    for (CMediaLanes::Place& place : places) {
        ASSERT_EQ(0, lanes.Next(SOCK_READ | SOCK_WRITE, place));
        ++counts[place.GetLane()];
        pools.insert(place.GetPool());
        EXPECT_GT(place.GetPool(), 0);
    }
    EXPECT_EQ(3, counts[0]);
    EXPECT_EQ(3, counts[1]);
    EXPECT_EQ(3, counts[2]);
    EXPECT_EQ(3U, pools.size());
}

TEST_F(MediaLanesCalls, PlaceThatWasGivenBackIsTakenNext) {
    open(2);
    CMediaLanes::Place one;
    CMediaLanes::Place two;
    ASSERT_EQ(0, lanes.Next(SOCK_READ, one));
    ASSERT_EQ(0, lanes.Next(SOCK_READ, two));
    EXPECT_NE(one.GetLane(), two.GetLane());
    const int lane = one.GetLane();
    one.Release();
    EXPECT_EQ(-1, one.GetLane());
    CMediaLanes::Place three;
    ASSERT_EQ(0, lanes.Next(SOCK_READ, three));
    EXPECT_EQ(lane, three.GetLane());
}

TEST_F(MediaLanesCalls, FullLanesAndAMaskOfNothingAreRefused) {
    open(1);
    CMediaLanes::Place none;
    EXPECT_EQ(-1, lanes.Next(0, none));
    std::vector<CMediaLanes::Place> places(CPoolSet::PLACES - 1);
    for (CMediaLanes::Place& place : places) {
        ASSERT_EQ(0, lanes.Next(SOCK_READ, place));
    }
    EXPECT_EQ(0, lanes.Next(SOCK_READ, none)) << "the last one";
    CMediaLanes::Place more;
    EXPECT_EQ(-1, lanes.Next(SOCK_READ, more));
    none.Release();
    EXPECT_EQ(0, lanes.Next(SOCK_READ, more));
}

TEST_F(MediaLanesCalls, ClientsOfOneProcessorGetOneLane) {
    open(2);
    MediaClient viewer;
    CMediaLanes::Place one;
    CMediaLanes::Place two;
    ASSERT_EQ(0, lanes.Next(SOCK_READ, one, viewer.sock));
    ASSERT_EQ(0, lanes.Next(SOCK_READ, two, viewer.sock));
    int processor = -1;
    socklen_t size = sizeof processor;
    ASSERT_EQ(0, ::getsockopt(viewer.sock.GetHandle(), SOL_SOCKET, SO_INCOMING_CPU, &processor, &size));
    if (processor >= 0) {
        EXPECT_EQ(processor % 2, one.GetLane());
        EXPECT_EQ(one.GetLane(), two.GetLane());
    } else {
        EXPECT_NE(one.GetLane(), two.GetLane());
    }
    viewer.sender->Close();
}

TEST_F(MediaLanesCalls, SocketThatKnowsNoProcessorGetsTheEmptiestLane) {
    open(2);
    CMediaLanes::Place one;
    CMediaLanes::Place two;
    CSockStream none;
    ASSERT_EQ(0, lanes.Next(SOCK_READ, one, none));
    ASSERT_EQ(0, lanes.Next(SOCK_READ, two, none));
    EXPECT_NE(one.GetLane(), two.GetLane());
}

TEST_F(MediaLanesCalls, SenderFollowsTheOwnerThatItWaitsWith) {
    open(3);
    CMediaLanes::Place place;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, lanes.Next(SOCK_READ, place));
    }
    auto* const owner = new TestHandler(place.GetPool());
    MediaClient viewer;
    ASSERT_EQ(0, viewer.sender->WaitRoom(owner->GetID()));
    EXPECT_EQ(0, lanes.AddSender(viewer.sender));
    EXPECT_EQ(1U, stats(place.GetLane()).senders);
    EXPECT_EQ(0, lanes.DelSender(viewer.sender));
    viewer.sender->Close();
    closeAndWait(owner);
}

TEST_F(MediaLanesCalls, SendersWithoutAPlaceTakeTurns) {
    open(2);
    MediaClient one;
    MediaClient two;
    lanes.AddSender(one.sender);
    lanes.AddSender(two.sender);
    EXPECT_EQ(1U, stats(0).senders);
    EXPECT_EQ(1U, stats(1).senders);
    for (const MediaClient* viewer : {&one, &two}) {
        lanes.DelSender(viewer->sender);
        viewer->sender->Close();
    }
}

// ---- packets -------------------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, EveryClientGetsEveryFrameFromOneCopyOfIt) {
    open(3);
    for (unsigned int lane : {0U, 1U, 2U, 0U}) {
        client(lane);
    }
    std::string sent;
    for (int i = 0; i < 20; ++i) {
        sent += put(5, i == 0 ? 1 : 5, MEDIA_MARK_MORE);
        sent += put(7, i == 0 ? 1 : 5);
    }
    settle();
    for (const auto& viewer : clients) {
        EXPECT_EQ(sent, viewer->sock.wire());
    }
    for (const SharedPacket& packet : packets) {
        EXPECT_EQ(1, packet.asked);
        EXPECT_EQ(1, packet.releases);
    }
    EXPECT_EQ(20U, stats().puts);
}

TEST_F(MediaLanesCalls, LaneThatIsBlockedHoldsBackNeitherTheProducerNorTheOthers) {
    open(2);
    MediaClient& slow = client(0);
    const MediaClient& fast = client(1);
    std::string sent = send(10);
    slow.sock.setRoom(0);
    for (int i = 0; i < 200; ++i) {
        sent += send(10, i % 25 == 0 ? 1 : 5);
    }
    EXPECT_EQ(sent, fast.sock.wire());
    EXPECT_GT(stats(0).expired_frames, 0U) << "it throws away by age, in its own buffer";
    EXPECT_EQ(0U, stats(1).expired_frames);
    EXPECT_EQ(0U, stats(1).frames);
}

TEST_F(MediaLanesCalls, StreamThatRunsMakesNoPackets) {
    open(2);
    client(0);
    client(1);
    for (int i = 0; i < 10; ++i) {
        send(10);
    }
    const uint64_t before = made();
    for (int i = 0; i < 200; ++i) {
        send(10);
    }
    EXPECT_EQ(before, made());
}

// The lane's worker is held in a call, so that it is not told of each frame, and each round has as many
// frames at a time.
TEST_F(MediaLanesCalls, PutTakesNoMemoryOnTheProducersThread) {
    open(1);
    MediaClient& viewer = client(0);
    Infra::CSemaphore entered{0};
    Infra::CSemaphore gate{0};
    Procedure procedure;
    procedure.code = [&] {
        if (procedure.calls % 21 == 1) {
            entered.post();
            gate.pend();
        }
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    size_t taken = 0;
    for (int round = 0; round < 3; ++round) {
        put(10);
        entered.pend();
        for (int i = 0; i < 20; ++i) {
            SharedPacket& one = packet(10);
            const size_t before = allocationCount();
            lanes.Put(&one, 10, MEDIA_MARK_LAST, 1);
            taken += round == 0 ? 0 : allocationCount() - before;
        }
        gate.post();
        ASSERT_EVENTUALLY(packets.back().releases == 1);
    }
    EXPECT_EQ(0U, taken);
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, PacketsThatCannotBeAreRefusedWithALine) {
    open(2);
    SharedPacket& one = packet(3);
    LogCapture log(2);
    EXPECT_EQ(-1, lanes.Put(nullptr, 3, MEDIA_MARK_LAST, 1));
    EXPECT_EQ(-1, lanes.Put(&one, -1, MEDIA_MARK_LAST, 1));
    EXPECT_EQ(-1, lanes.Put(&one, 3, MEDIA_MARK_LAST, mediaLevel(8, 1)));
    EXPECT_EQ(-1, lanes.Put(&one, 3, MEDIA_MARK_LAST, mediaLevel(200, 1)));
    EXPECT_EQ(4U, log.countLevel(2)) << log.dump();
    EXPECT_EQ(0, one.asked);
    EXPECT_EQ(0, lanes.PutFrameInfo(nullptr, 1));
    EXPECT_EQ(0U, stats().puts);
}

TEST_F(MediaLanesCalls, WithoutMemoryThePacketStaysTheCallers) {
    open(1);
    SharedPacket& one = packet(3);
    SharedPacket& two = packet(3);
    lanes.Put(&one, 3, MEDIA_MARK_MORE, 1);
    int results[2] = {0, 0};
    {
        const LogCapture quiet(1);
        const NoMemory none;
        results[0] = lanes.Put(&two, 3, MEDIA_MARK_LAST, 1);
        results[1] = lanes.PutFrameInfo(&two, 1);
    }
    EXPECT_EQ(-1, results[0]);
    EXPECT_EQ(-1, results[1]);
    EXPECT_EQ(0, two.asked);
    const MediaClient& viewer = client(0);
    EXPECT_EQ(0, lanes.Put(&two, 3, MEDIA_MARK_LAST, 1));
    settle();
    EXPECT_EQ(one.bytes() + two.bytes(), viewer.sock.wire());
}

TEST_F(MediaLanesCalls, InformationThatIsReplacedIsReleasedOnce) {
    open(3);
    Procedure procedure;
    std::pair<CMediaPacket*, int> told;
    struct Told {
        std::pair<CMediaPacket*, int>& to;
        void note(CMediaPacket* info, int arg, int) { to = {info, arg}; }
    } notes{told};
    MediaClient& viewer = client(1);
    viewer.sender->AttachSendProc({&Told::note, &notes});
    const SharedPacket& first = putInfo(1);
    SharedPacket& second = putInfo(2);
    EXPECT_EQ(1, first.releases);
    send(10);
    EXPECT_EQ(&second, told.first);
    EXPECT_EQ(2, told.second);
    EXPECT_EQ(1, second.releases);
    viewer.sender->DetachSendProc();
}

// ---- ticks ---------------------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, TickLetsBlockedClientsOfAllLanesGoOn) {
    open(2);
    client(0);
    client(1);
    std::string sent = send(10);
    for (const auto& viewer : clients) {
        viewer->sock.setRoom(4);
    }
    sent += send(10);
    for (const auto& viewer : clients) {
        viewer->sock.setRoom(ShapedStream::UNLIMITED);
    }
    const std::string head = put(3, 5, MEDIA_MARK_MORE);
    lanes.do_send();
    settle();
    EXPECT_NE(sent, clients[0]->sock.wire()) << "not while a frame is half filled";
    sent += head + send(3, 5);
    EXPECT_EQ(sent, clients[0]->sock.wire());
    clients[1]->sock.setRoom(2);
    send(10, 5);
    clients[1]->sock.setRoom(ShapedStream::UNLIMITED);
    lanes.do_send();
    settle();
    EXPECT_EQ(clients[0]->sock.wire(), clients[1]->sock.wire());
}

TEST_F(MediaLanesCalls, SharedTimerPostsTicksUntilItIsSwitchedOff) {
    open(2);
    MediaClient& viewer = client(1);
    send(10);
    viewer.sock.setRoom(4);
    send(10);
    settle();
    viewer.sock.setRoom(ShapedStream::UNLIMITED);
    ASSERT_EQ(0, lanes.EnableAutoSend(10));
    EXPECT_EVENTUALLY(viewer.sender->GetStats().frames == 2);
    EXPECT_EQ(0, lanes.DisableAutoSend());
}

// ---- taps ----------------------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, TapsSeeEachPacketOnceBeforeTheLanes) {
    open(3);
    CodeTap tap;
    SharedPacket* now = nullptr;
    bool asked_before = false;
    tap.code = [&](CMediaPacket* shown, int, int, int) {
        now = static_cast<SharedPacket*>(shown);
        asked_before = asked_before || now->asked != 0;
        return 0;
    };
    lanes.AddLevel2Buffer(&tap);
    send(10);
    EXPECT_EQ(1, tap.calls);
    EXPECT_EQ(&packets.back(), now);
    EXPECT_FALSE(asked_before);
    tap.code = [](CMediaPacket*, int, int, int) { return -1; };
    send(10);
    send(10);
    EXPECT_EQ(2, tap.calls) << "it has taken itself off";
    LogCapture log;
    lanes.AddLevel2Buffer(&tap);
    lanes.AddLevel2Buffer(&tap);
    EXPECT_TRUE(log.containsMatching(3, "CMediaLanes::AddLevel2Buffer, tap:.* is on the list already\n"));
    lanes.DelLevel2Buffer(&tap);
}

TEST_F(MediaLanesCalls, TapCannotPutIntoItsOwnLanes) {
    open(1);
    CodeTap tap;
    SharedPacket& other = packet(3);
    int result = 0;
    tap.code = [&](CMediaPacket*, int, int, int) {
        result = lanes.Put(&other, 3, MEDIA_MARK_LAST, 1);
        return 0;
    };
    lanes.AddLevel2Buffer(&tap);
    LogCapture log(2);
    send(10);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(1U, log.count(2, "CMediaLanes, Put inside a tap of the same lanes\n")) << log.dump();
    EXPECT_EQ(0, other.asked);
    lanes.DelLevel2Buffer(&tap);
}

TEST_F(MediaLanesCalls, LanesAreATapOfABuffer) {
    open(2);
    const MediaClient& far = client(1);
    CMediaBuffer buffer;
    buffer.AddLevel2Buffer(lanes.GetTap());
    MediaClient near;
    buffer.AddSender(near.sender);
    std::string sent;
    std::deque<SharedPacket> shown;
    for (int i = 0; i < 5; ++i) {
        shown.emplace_back(std::string(10, static_cast<char>('a' + i)));
        sent += shown.back().bytes();
        buffer.Put(&shown.back(), 10, MEDIA_MARK_LAST, 1);
    }
    settle();
    EXPECT_EQ(sent, near.sock.wire());
    EXPECT_EQ(sent, far.sock.wire());
    for (const SharedPacket& one : shown) {
        EXPECT_EQ(2, one.asked) << "once by each holder";
        EXPECT_EQ(2, one.releases);
    }
    buffer.DelLevel2Buffer(lanes.GetTap());
    buffer.DelSender(near.sender);
    near.sender->Close();
}

TEST_F(MediaLanesCalls, TapWithoutMemoryLetsTheWholeFrameGo) {
    open(1);
    const MediaClient& viewer = client(0);
    std::string sent = send(10);
    std::deque<SharedPacket> shown;
    const auto show = [&](int mark, bool memory) {
        shown.emplace_back(std::string(4, 'x'));
        if (memory) {
            return lanes.GetTap()->Put(&shown.back(), 4, mark, 5);
        }
        const NoMemory none;
        return lanes.GetTap()->Put(&shown.back(), 4, mark, 5);
    };
    EXPECT_EQ(0, show(MEDIA_MARK_MORE, true));
    EXPECT_EQ(0, show(MEDIA_MARK_MORE, true));
    EXPECT_EQ(0, show(MEDIA_MARK_MORE, false));
    EXPECT_EQ(0, show(MEDIA_MARK_LAST, true));
    for (const SharedPacket& one : shown) {
        EXPECT_EQ(1, one.releases);
    }
    sent += send(10);
    EXPECT_EQ(sent, viewer.sock.wire());
    EXPECT_EQ(1U, stats().lost_frames);
    EXPECT_EQ(1U, viewer.sender->GetStats().holes) << "a client is told of a gap";
}

// ---- settings, Clear, figures --------------------------------------------------------------------------

TEST_F(MediaLanesCalls, NewClientBeginsAtOnceWithTheStartCacheOfItsLane) {
    open(2);
    ASSERT_EQ(0, lanes.SetStartCache(1000000, 1 << 20));
    std::string sent = send(10, 1);
    sent += send(10, 5);
    for (unsigned int lane : {0U, 1U}) {
        clients.push_back(std::make_unique<MediaClient>());
        clients.back()->sender->SetResumePolicy(1000000);
        MediaLanesState::of(lanes).add_sender(*clients.back()->sender, lane);
        EXPECT_EQ(sent, clients.back()->sock.wire());
    }
    EXPECT_EQ(0, packets.back().releases);
    EXPECT_EQ(0, lanes.SetStartCache(0, 0));
    send(10, 5);
    EXPECT_EQ(1, packets.front().releases);
}

TEST_F(MediaLanesCalls, EachLaneHandsItsWritesOverTogether) {
    open(2);
    if (lanes.SetWriteBatch(1) != 0) {
        std::printf("left out: the kernel refuses io_uring: %s\n", std::strerror(errno));
        return;
    }
    const auto batching = [&]() INFRA_NO_THREAD_SAFETY_ANALYSIS {  // the lanes are at rest
        int count = 0;
        MediaLanesState::of(lanes).for_each(
            [&](Lane& lane) INFRA_NO_THREAD_SAFETY_ANALYSIS { count += lane.state().m_batch.on() ? 1 : 0; });
        return count;
    };
    EXPECT_EQ(2, batching());
    EXPECT_EQ(0, lanes.SetWriteBatch(0));
    EXPECT_EQ(0, batching());
}

TEST_F(MediaLanesCalls, ClearLetsEverythingGoAndTheLanesGoOn) {
    open(2);
    CodeTap tap;
    lanes.AddLevel2Buffer(&tap);
    MediaClient& viewer = client(1);
    send(10);
    viewer.sock.setRoom(3);
    send(10);
    put(10, 5, MEDIA_MARK_MORE);
    putInfo(3);
    EXPECT_EQ(0, lanes.Clear());
    for (const SharedPacket& one : packets) {
        EXPECT_EQ(1, one.releases);
    }
    EXPECT_EQ(0U, stats().senders);
    EXPECT_EQ(0U, stats().frames);
    send(10);
    EXPECT_EQ(3, tap.calls) << "it was on the list until then";
}

TEST_F(MediaLanesCalls, FiguresAreThoseOfAllLanesOrOfOne) {
    open(3);
    client(0);
    client(0);
    client(2);
    send(10);
    EXPECT_EQ(3U, stats().senders);
    EXPECT_EQ(3U, stats().lanes);
    EXPECT_EQ(2U, stats(0).senders);
    EXPECT_EQ(0U, stats(1).senders);
    EXPECT_EQ(1U, stats(2).lanes);
    MediaLanesStats found;
    EXPECT_EQ(-1, lanes.GetStats(nullptr, sizeof found));
    EXPECT_EQ(-1, lanes.GetStats(&found, 7));
    EXPECT_EQ(-1, lanes.GetStats(&found, sizeof found, 3));
    EXPECT_EQ(-1, lanes.GetStats(&found, sizeof found, -2));
    found.senders = 77;
    EXPECT_EQ(0, lanes.GetStats(&found, 12));
    EXPECT_EQ(12U, found.size);
    EXPECT_EQ(77U, found.senders) << "beyond what the caller has";
}

TEST_F(MediaLanesCalls, SnapshotsHaveWhatWaitsOnTheWayToEachLane) {
    open(2);
    ASSERT_EQ(0, lanes.SetInboxLimits(3, 1000));
    MediaLanesState& state = MediaLanesState::of(lanes);
    const auto figures = [&](size_t lane) { return figuresOf("lane", state.m_seats[lane].lane->handler()); };
    EXPECT_EQ(figures(0).at("buffer") + 1, figures(1).at("buffer"));
    const long one = state.m_seats[0].lane->handler();
    state.m_seats[0].lane->set_handler(0);  // nobody serves it
    for (int i = 0; i < 10; ++i) {
        put(10);
    }
    EXPECT_EQ(3U, figuresOf("lane", one).at("waiting_frames"));
    EXPECT_EQ(30U, figuresOf("lane", one).at("waiting_bytes"));
    EXPECT_EQ(7U, figuresOf("lane", one).at("lost_frames"));
    EXPECT_EQ(70U, figuresOf("lane", one).at("lost_bytes"));
    EXPECT_EVENTUALLY(figures(1).at("waiting_frames") == 0);
    state.m_seats[0].lane->set_handler(one);
    settle();
    EXPECT_EQ(0U, figures(0).at("waiting_frames"));
    EXPECT_EQ(0U, figures(0).at("waiting_bytes"));
    EXPECT_EQ(7U, figures(0).at("lost_frames"));
    EXPECT_EQ(0, lanes.Destroy());
    EXPECT_TRUE(figuresOf("lane", one).empty());
}

TEST_F(MediaLanesCalls, LimitsThatCannotBeAreRefusedWithALine) {
    open(1);
    LogCapture log(2);
    EXPECT_EQ(-1, lanes.SetInboxLimits(0, 1));
    EXPECT_EQ(-1, lanes.SetInboxLimits(1025, 1));
    EXPECT_EQ(-1, lanes.SetInboxLimits(1, 0));
    EXPECT_EQ(3U, log.countLevel(2)) << log.dump();
    EXPECT_EQ(0, lanes.SetInboxLimits(1024, 1));
    EXPECT_EQ(0, lanes.SetDisposableLevel(7));
    EXPECT_EQ(0, lanes.SetKeepLimits(100, 1000));
}

// ---- inside call-backs ---------------------------------------------------------------------------------

TEST_F(MediaLanesCalls, WhatWouldWaitForLanesIsRefusedInsideACallBack) {
    open(2);
    MediaClient& viewer = client(0);
    Procedure procedure;
    std::vector<int> results;
    procedure.code = [&] {
        MediaLanesStats found;
        results = {lanes.Clear(),
                   lanes.EnableAutoSend(),
                   lanes.DisableAutoSend(),
                   lanes.Destroy(),
                   lanes.SetKeepLimits(1, 1),
                   lanes.SetDisposableLevel(1),
                   lanes.SetStartCache(1, 1),
                   lanes.SetWriteBatch(1),
                   lanes.GetStats(&found, sizeof found)};
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    LogCapture log(2);
    send(10);
    EXPECT_EQ(std::vector<int>(9, -1), results);
    EXPECT_EQ(9U, log.countMatching(2, "CMediaLanes.*not inside a call-back\n")) << log.dump();
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, PutWorksInsideACallBackOfALane) {
    open(2);
    MediaClient& viewer = client(0);
    const MediaClient& other = client(1);
    SharedPacket& more = packet(5);
    Procedure procedure;
    procedure.code = [&] {
        if (procedure.calls == 1) {
            EXPECT_EQ(0, lanes.Put(&more, 5, MEDIA_MARK_LAST, 1));
            EXPECT_GE(lanes.GetBacklog(), 0);
        }
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    const std::string first = send(10);
    settle();
    EXPECT_EQ(first + more.bytes(), viewer.sock.wire());
    EXPECT_EQ(first + more.bytes(), other.sock.wire());
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderOfTheSameLaneIsOffAtOnceInsideACallBack) {
    open(2);
    MediaClient& viewer = client(0);
    MediaClient& same = client(0);
    Procedure procedure;
    int result = -1;
    procedure.code = [&] { result = lanes.DelSender(same.sender); };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    EXPECT_EQ(0, result);
    EXPECT_FALSE(same.sender->GetStats().listed);
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderOfAnotherLaneIsOffWhenTheCallBackIsOver) {
    open(2);
    MediaClient& viewer = client(0);
    MediaClient& other = client(1);
    Procedure procedure;
    int result = -1;
    procedure.code = [&] {
        if (procedure.calls == 1) {
            result = lanes.DelSender(other.sender);
        }
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    EXPECT_EQ(1, result);
    EXPECT_EVENTUALLY(lanes.DelSender(other.sender) == 0);
    EXPECT_FALSE(other.sender->GetStats().listed);
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderThatIsAddedInsideACallBackComesWhenThatIsOver) {
    open(2);
    MediaClient& viewer = client(0);
    clients.push_back(std::make_unique<MediaClient>());
    MediaClient& added = *clients.back();
    Procedure procedure;
    int result = -1;
    procedure.code = [&] {
        if (procedure.calls == 1) {
            result = lanes.AddSender(added.sender);
        }
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    EXPECT_EQ(1, result);
    EXPECT_EVENTUALLY(added.sender->GetStats().listed);
    const std::string next = send(10);
    EXPECT_EQ(next, added.sock.wire());
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderThatIsTakenOffAndAddedInsideACallBackIsOnItsLaneAfterwards) {
    open(2);
    MediaClient& viewer = client(0);
    MediaClient& other = client(1);
    Procedure procedure;
    procedure.code = [&] {
        EXPECT_EQ(1, lanes.DelSender(other.sender));
        EXPECT_EQ(1, lanes.AddSender(other.sender));
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    std::string sent = put(10);
    EXPECT_EVENTUALLY(viewer.sender->GetStats().frames == 1);
    settle();
    viewer.sender->DetachSendProc();
    EXPECT_EQ(1U, stats(1).senders);
    sent += send(10);
    EXPECT_EQ(sent, other.sock.wire());
}

TEST_F(MediaLanesCalls, SenderThatIsTakenOffAndAddedTwiceInsideACallBackIsOnItsLaneAfterwards) {
    open(2);
    MediaClient& viewer = client(0);
    MediaClient& other = client(1);
    Procedure procedure;
    procedure.code = [&] {
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(1, lanes.DelSender(other.sender));
            EXPECT_EQ(1, lanes.AddSender(other.sender));
        }
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    viewer.sender->DetachSendProc();
    EXPECT_EQ(1U, stats(1).senders);
    const std::string before = other.sock.wire();
    const std::string next = send(10);
    EXPECT_EQ(before + next, other.sock.wire());
}

TEST_F(MediaLanesCalls, SenderThatIsTakenOffLastInsideACallBackIsOffAfterwards) {
    open(2);
    MediaClient& viewer = client(0);
    const MediaClient& other = client(1);
    Procedure procedure;
    procedure.code = [&] {
        EXPECT_EQ(1, lanes.DelSender(other.sender));
        EXPECT_EQ(1, lanes.AddSender(other.sender));
        EXPECT_EQ(1, lanes.DelSender(other.sender));
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    EXPECT_EVENTUALLY(!other.sender->GetStats().listed);
    EXPECT_EQ(0U, stats(1).senders);
    viewer.sender->DetachSendProc();
}

// The sender comes on the thread that has noted it first, while the other one has still to take it off.
TEST_F(MediaLanesCalls, SenderThatComesBeforeAnotherThreadHasTakenItOffStaysOnItsLane) {
    open(3);
    MediaClient& first_viewer = client(0);
    MediaClient& second_viewer = client(1);
    const MediaClient& other = client(2);
    LogCapture log(3);
    Infra::CSemaphore noted{0};
    Infra::CSemaphore added{0};
    Procedure adds;
    adds.code = [&] {
        EXPECT_EQ(1, lanes.AddSender(other.sender));
        noted.post();
        added.pend();
    };
    Procedure removes_and_adds;
    removes_and_adds.code = [&] {
        noted.pend();
        EXPECT_EQ(1, lanes.DelSender(other.sender));
        EXPECT_EQ(1, lanes.AddSender(other.sender));
        added.post();
        EXPECT_EVENTUALLY(log.countMatching(3, ".*is on the list already\n") == 1);
    };
    first_viewer.sender->AttachSendProc({&Procedure::run, &adds});
    second_viewer.sender->AttachSendProc({&Procedure::run, &removes_and_adds});
    send(10);
    EXPECT_EQ(1U, stats(2).senders);
    first_viewer.sender->DetachSendProc();
    second_viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderThatIsAddedAndTakenOffInsideOneCallBackNeverComes) {
    open(2);
    MediaClient& viewer = client(0);
    clients.push_back(std::make_unique<MediaClient>());
    MediaClient& added = *clients.back();
    Procedure procedure;
    procedure.code = [&] {
        lanes.AddSender(added.sender);
        EXPECT_EQ(0, lanes.DelSender(added.sender));
    };
    viewer.sender->AttachSendProc({&Procedure::run, &procedure});
    send(10);
    EXPECT_FALSE(added.sender->GetStats().listed);
    EXPECT_EQ("", added.sock.wire());
    viewer.sender->DetachSendProc();
}

TEST_F(MediaLanesCalls, SenderOnNoLaneIsIgnored) {
    open(1);
    MediaClient viewer;
    EXPECT_EQ(0, lanes.DelSender(viewer.sender));
    CMediaLanes::Place place;
    LogCapture log(2);
    EXPECT_EQ(-1, lanes.AddSender(viewer.sender, place));
    EXPECT_EQ(1U, log.countMatching(2, "CMediaLanes, no lane for sender:.*\n")) << log.dump();
    viewer.sender->Close();
}

TEST_F(MediaLanesCalls, EndInsideACallBackAsserts) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            auto* const doomed = new CMediaLanes;
            TargetStepMark::enter();
            delete doomed;
        },
        "nor a buffer destroyed, inside a call-back");
}

}  // namespace Orvex::Testing
