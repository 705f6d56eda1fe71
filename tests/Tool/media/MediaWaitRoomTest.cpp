// Senders that wait until their sockets have room: when they are tried, every end, lost places.
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <Reticor/SimulatorStream.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockDgram.h>
#include <Reticor/StreamSender.h>

#include "support/HandClock.h"
#include "support/media/RoomStand.h"

namespace Orvex::Testing {

using namespace Reticor;

class MediaWaitRoom : public RoomStand {
protected:
    // One with a limit of a second that stands, without a byte of it written, at a frame that is not a key
    // frame.
    MediaClient& lateClient(const HandClock&, MediaResume mode) {
        MediaClient& made = waitingClient();
        made.sender->SetResumePolicy(1000, mode);
        put(10, 1, 5);
        made.sock.setRoom(10);
        put(10, 1, 5);
        put(10, 1, 5);  // finds it full, and is not begun
        made.sock.clearCalls();
        return made;
    }
};

TEST_F(MediaWaitRoom, AFullSocketIsNotTriedByFramesNorByTicks) {
    MediaClient& slow = fullClient();
    put(10, 1, 5);
    tick(3);
    put(10, 1, 5);
    EXPECT_EQ(1U, slow.sock.calls().size());
    EXPECT_EQ(0U, roomStats(slow).full_tries);
    EXPECT_EQ(1U, roomStats(slow).waits);
    EXPECT_EQ(1U, roomStats(slow).waiting);
    EXPECT_TRUE(isWatched(slow));
}

TEST_F(MediaWaitRoom, WhenThereIsRoomItGoesOnAlone) {
    MediaClient& slow = fullClient();
    MediaClient& other = fullClient();
    put(10, 1, 5);
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    senders.erase(other.sock.GetHandle());
    haveRoom();
    EXPECT_EQ(40U, slow.sock.wire().size());
    EXPECT_EQ(4U, other.sock.wire().size());
    EXPECT_FALSE(isWatched(slow));
    EXPECT_EQ(0U, roomStats(slow).waiting);
    EXPECT_EQ(1U, roomStats(slow).resumes);
}

TEST_F(MediaWaitRoom, WithoutTheWishItIsTriedAtEachStep) {
    MediaClient& slow = joinedClient();
    slow.sock.setRoom(4);
    put(10, 1, 5);
    tick(3);
    EXPECT_EQ(4U, slow.sock.calls().size());
    EXPECT_EQ(3U, roomStats(slow).full_tries);
}

TEST_F(MediaWaitRoom, WhatItIsPastGoesWithTheNextStep) {
    MediaClient& slow = fullClient();
    released.clear();
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    EXPECT_TRUE(released.empty());
    tick();
    EXPECT_EQ(1U, released.size());
}

TEST_F(MediaWaitRoom, AWriteThatFillsItAgainWaitsAnew) {
    MediaClient& slow = fullClient();
    slow.sock.setRoom(3);
    haveRoom();
    EXPECT_EQ(7U, slow.sock.wire().size());
    EXPECT_TRUE(isWatched(slow));
    slow.sock.setRoom(3);
    haveRoom();
    EXPECT_EQ(10U, slow.sock.wire().size());
    EXPECT_FALSE(isWatched(slow));
    EXPECT_EQ(0U, roomStats(slow).full_tries);
}

// Every way off the list.

TEST_F(MediaWaitRoom, TakenOffItIsNotWatchedAnyMore) {
    MediaClient& slow = fullClient();
    buffer->DelSender(slow.sender);
    EXPECT_FALSE(isWatched(slow));
    EXPECT_EQ(-1, slow.sender->WaitRoom(12345));
}

TEST_F(MediaWaitRoom, ClearedItIsNotWatchedAnyMore) {
    MediaClient& slow = fullClient();
    LogCapture quiet(1);
    buffer->Clear();
    EXPECT_FALSE(isWatched(slow));
    EXPECT_FALSE(slow.sender->GetStats().listed);
}

TEST_F(MediaWaitRoom, AtTheBuffersEndItIsNotWatchedAnyMore) {
    MediaClient& slow = fullClient();
    LogCapture quiet(1);
    buffer.reset();
    EXPECT_FALSE(isWatched(slow));
    haveRoom();
    EXPECT_EQ(4U, slow.sock.wire().size());
}

TEST_F(MediaWaitRoom, AFailureWithRoomTakesItOffAndTells) {
    MediaClient& slow = fullClient();
    slow.sender->WaitException(waiter->GetID());
    slow.sock.fail(EPIPE);
    for (CEvent* ev : rig.poll()) {
        rig.serve(ev);
    }
    EXPECT_FALSE(isWatched(slow));
    EXPECT_FALSE(slow.sender->GetStats().listed);
    const auto told = messages();
    ASSERT_EQ(1U, told.size());
    EXPECT_EQ(SentMessage(waiter->GetID(), MEDIA_MSG_SOCKET_FAILED, 0), told[0]);
}

TEST_F(MediaWaitRoom, TakenOffInACallBackItIsNotWatchedFromThenOn) {
    MediaClient& slow = fullClient();
    MediaClient& quick = joinedClient();
    bool watched = true;
    struct Proc {
        std::function<void()> run;
        void call(CMediaPacket*, int, int) { run(); }
    } proc{[&] {
        buffer->DelSender(slow.sender);
        watched = isWatched(slow);
    }};
    quick.sender->AttachSendProc({&Proc::call, &proc});
    put(10, 1, 5);
    quick.sender->DetachSendProc();
    EXPECT_FALSE(watched);
    EXPECT_FALSE(slow.sender->GetStats().listed);
}

TEST_F(MediaWaitRoom, SwitchedOffItIsTriedAgain) {
    MediaClient& slow = fullClient();
    EXPECT_EQ(0, slow.sender->WaitRoom(0));
    EXPECT_FALSE(isWatched(slow));
    tick();
    EXPECT_EQ(2U, slow.sock.calls().size());
}

// No place.

TEST_F(MediaWaitRoom, WithoutAnOwnerThatReadsItGoesOnTrying) {
    MediaClient& slow = joinedClient();
    EXPECT_EQ(0, slow.sender->WaitRoom(owner->GetID()));
    slow.sock.setRoom(4);
    put(10, 1, 5);
    tick(2);
    EXPECT_EQ(3U, slow.sock.calls().size());
    EXPECT_EQ(3U, roomStats(slow).without_place);
}

TEST_F(MediaWaitRoom, WithTheOwnersEndItGoesOnTrying) {
    MediaClient& slow = fullClient();
    TestHandler* const gone = owner;
    owner = nullptr;
    gone->Close();
    serveAll();
    haveRoom();  // finds nobody
    tick();
    EXPECT_EQ(2U, slow.sock.calls().size());
    EXPECT_LE(1U, roomStats(slow).without_place);
}

TEST_F(MediaWaitRoom, WhenTheSocketIsTakenOutOfThePoolItGoesOnTrying) {
    MediaClient& slow = fullClient();
    owner->RemoveSock(slow.sock);
    tick();
    EXPECT_EQ(2U, slow.sock.calls().size());
}

TEST_F(MediaWaitRoom, WhenAnotherHandlerReadsTheSocketItGoesOnTrying) {
    MediaClient& slow = fullClient();
    waiter->RegisterSock(slow.sock, SOCK_READ, 0);
    EXPECT_FALSE(isWatched(slow));
    tick();
    EXPECT_EQ(2U, slow.sock.calls().size());
    waiter->RemoveSock(slow.sock);
}

TEST_F(MediaWaitRoom, AtThePoolsEndItGoesOnTrying) {
    MediaClient& slow = fullClient();
    {
        StillPool other;
        auto* const reader = new TestHandler(StillPool::INDEX);
        MediaClient& elsewhere = joinedClient();
        reader->RegisterSock(elsewhere.sock, SOCK_READ, 0);
        EXPECT_EQ(0, elsewhere.sender->WaitRoom(reader->GetID()));
        elsewhere.sock.setRoom(4);
        put(10, 1, 5);
        tick();
        EXPECT_EQ(1U, elsewhere.sock.calls().size());
        reader->RemoveSock(elsewhere.sock);
        elsewhere.sock.clearCalls();
        reader->RegisterSock(elsewhere.sock, SOCK_READ, 0);
        tick();
        EXPECT_EQ(1U, elsewhere.sock.calls().size());
        elsewhere.sock.clearCalls();
        reader->RemoveSock(elsewhere.sock);
        other.close(reader);
    }
    MediaClient& elsewhere = *clients.back();
    tick();
    EXPECT_EQ(1U, elsewhere.sock.calls().size());
    EXPECT_EQ(1U, slow.sock.calls().size());
}

TEST_F(MediaWaitRoom, ASecondWriterOfTheSocketKeepsItFromWaiting) {
    MediaClient& slow = waitingClient();
    owner->RegisterSock(slow.sock, SOCK_WRITE, 0);
    slow.sock.setRoom(4);
    put(10, 1, 5);
    tick();
    EXPECT_EQ(2U, slow.sock.calls().size());
    EXPECT_EQ(2U, roomStats(slow).without_place);
}

TEST_F(MediaWaitRoom, WhoeverElseWritesNeitherEndsItsInterestNorLosesHisOwn) {
    MediaClient& slow = fullClient();
    owner->RegisterSock(slow.sock, SOCK_WRITE, 0);
    owner->UnregisterSock(slow.sock, SOCK_WRITE);
    EXPECT_TRUE(isWatched(slow));
    owner->RegisterSock(slow.sock, SOCK_WRITE, 0);
    buffer->DelSender(slow.sender);
    EXPECT_TRUE(isWatched(slow));
    owner->UnregisterSock(slow.sock, SOCK_WRITE);
    EXPECT_FALSE(isWatched(slow));
}

TEST_F(MediaWaitRoom, AnIdleTimeOutOfTheOwnerRunsOn) {
    MediaClient& slow = waitingClient();
    owner->RegisterSock(slow.sock, SOCK_READ, 2000000);
    const CEvent* const record = rig.record(slow.sock.GetHandle());
    const int64_t deadline = record->m_timer.m_sock_deadline;
    slow.sock.setRoom(4);
    put(10, 1, 5);
    EXPECT_TRUE(isWatched(slow));
    EXPECT_EQ(deadline, record->m_timer.m_sock_deadline);
    EXPECT_TRUE(CSockTimer::IsLinked(record));
    buffer->DelSender(slow.sender);
    EXPECT_EQ(deadline, record->m_timer.m_sock_deadline);
    EXPECT_TRUE(CSockTimer::IsLinked(record));
}

TEST_F(MediaWaitRoom, ASimulatorsSocketIsRefused) {
    CSimulatorStream simulator;
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    sender->Attach(&simulator);
    EXPECT_EQ(-1, sender->WaitRoom(owner->GetID()));
    EXPECT_EQ(-1, sender->handle_output(0));
    sender->Close();
}

// Time.

TEST_F(MediaWaitRoom, AStallIsToldByTheTimerFromTheShortWriteOn) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    HandClock clock;
    MediaClient& slow = waitingClient();
    slow.sender->SetSendTimeout(3);
    slow.sender->WaitException(waiter->GetID());
    slow.sock.setRoom(4);
    put(10, 1, 5);
    const long timer = slow.state().m_room.timer();
    ASSERT_NE(0, timer);
    clock.advanceUs(2999999);
    EXPECT_EQ(1, slow.sender->handle_timeout(timer));
    EXPECT_TRUE(messages().empty());
    clock.advanceUs(1);
    EXPECT_EQ(3000000, slow.sender->handle_timeout(timer));
    ASSERT_EQ(1U, messages().size());
    EXPECT_EQ(1U, slow.sock.calls().size());
    EXPECT_TRUE(slow.sender->GetStats().listed);
    buffer->DelSender(slow.sender);
    EXPECT_EQ(-1, slow.sender->handle_timeout(timer));
}

TEST_F(MediaWaitRoom, BytesNowAndThenDoNotEndAStall) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    HandClock clock;
    MediaClient& slow = fullClient();
    slow.sender->SetSendTimeout(2);
    slow.sender->WaitException(waiter->GetID());
    const long timer = slow.state().m_room.timer();
    ASSERT_NE(0, timer);
    clock.advanceUs(1500000);
    slow.sock.setRoom(1);
    haveRoom();
    clock.advanceUs(500000);
    slow.sender->handle_timeout(timer);
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaWaitRoom, AFloorCountsFromTheShortWriteOnAndSparesWhoeverIsSteady)
INFRA_NO_THREAD_SAFETY_ANALYSIS {
    HandClock clock;
    MediaClient& slow = waitingClient();
    slow.sender->SetSendTimeout(3);
    slow.sender->SetStallFloor(6);
    slow.sender->WaitException(waiter->GetID());
    slow.sock.setRoom(4);
    put(1000, 1, 5);
    const long timer = slow.state().m_room.timer();
    const auto threeSeconds = [&](std::size_t taken) {
        for (int i = 0; i < 3; ++i) {
            clock.advanceUs(1000000);
            slow.sock.setRoom(taken);
            haveRoom();
        }
        slow.sender->handle_timeout(timer);
        return messages().size();
    };
    EXPECT_EQ(0U, threeSeconds(2) + threeSeconds(2));
    EXPECT_EQ(1U, threeSeconds(1));
    slow.sender->WaitException(waiter->GetID());
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    slow.sock.setRoom(4);
    put(10, 1, 5);
    EXPECT_EQ(1U, threeSeconds(0)) << "at the first look, since nothing came from the short write on";
}

TEST_F(MediaWaitRoom, TheRateOfItsLinkIsMeasuredByWhatWorkersWrite) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    HandClock clock;
    MediaClient& slow = waitingClient();
    slow.sender->SetKernelLag(100);
    slow.sock.setRoom(4);
    put(4000000, 1, 5);
    for (int i = 0; i < 20; ++i) {
        clock.advanceUs(100000);
        slow.sock.setRoom(100000);
        haveRoom();
    }
    EXPECT_EQ(100000U, slow.state().m_kernel_lag.bound());
    EXPECT_EQ(2000004U, slow.sock.wire().size());
}

// UDP over loopback is never full: under the socket's number lies one whose queue is short.
TEST_F(MediaWaitRoom, AFullDatagramSocketIsTriedOnce) {
    CSockDgram dgram;
    CSockAddrIPv4 somewhere("127.0.0.1", 9);
    ASSERT_EQ(0, dgram.Open(nullptr));
    ASSERT_EQ(0, dgram.SetRemote(&somewhere));
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    ASSERT_EQ(dgram.GetHandle(), ::dup2(ends[0], dgram.GetHandle()));
    ::close(ends[0]);
    ends[0] = dgram.GetHandle();
    CSock far;
    far.Attach(ends[1]);
    MediaClient& viewer = client();
    viewer.sender->Attach(&dgram);
    owner->RegisterSock(dgram, SOCK_READ, 0);
    senders[ends[0]] = viewer.sender;
    EXPECT_EQ(0, viewer.sender->WaitRoom(owner->GetID()));
    buffer->AddSender(viewer.sender);
    for (int i = 0; i < 10000 && roomStats(viewer).full_tries == 0; ++i) {
        put(10, 1, 1);
    }
    const uint64_t sent = viewer.sender->GetStats().frames;
    put(10, 1, 1);
    put(10, 1, 1);
    tick(3);
    EXPECT_EQ(1U, roomStats(viewer).full_tries);
    EXPECT_TRUE(isWatched(ends[0]));
    char bytes[16];
    while (::recv(ends[1], bytes, sizeof bytes, 0) > 0) {
    }
    haveRoom();
    EXPECT_EQ(sent + 3, viewer.sender->GetStats().frames);
    EXPECT_EQ(1U, roomStats(viewer).full_tries);
    buffer->DelSender(viewer.sender);
    owner->RemoveSock(dgram);
    viewer.sender->Detach();
    viewer.sender->Attach(&viewer.sock);
}

TEST_F(MediaWaitRoom, AFrameThatIsLateIsLeftWithoutAWrite) {
    HandClock clock;
    MediaClient& slow = lateClient(clock, MediaResume::AHEAD);
    const std::string before = slow.sock.wire();
    tick();
    clock.advanceUs(1100000);
    const std::string key = put(10, 1, 1);
    EXPECT_TRUE(slow.sock.calls().empty());
    EXPECT_EQ(1U, roomStats(slow).steps_ahead);
    EXPECT_EQ(1U, buffer->GetStats().kept_frames);
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    EXPECT_EQ(before + key, slow.sock.wire());
}

// It stands still until that has gone, as one that tries does: the frames that come meanwhile are not lost.
TEST_F(MediaWaitRoom, OtherDataGoesBeforeAStepAhead) {
    HandClock clock;
    MediaClient& slow = lateClient(clock, MediaResume::STRICT);
    slow.sender->SendOtherData("#", 1);
    const std::string before = slow.sock.wire();
    clock.advanceUs(1100000);
    put(10, 1, 5);
    EXPECT_EQ(0U, roomStats(slow).steps_ahead);
    const std::string key = put(10, 1, 1);
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    EXPECT_EQ(before + "#" + key, slow.sock.wire());
}

// Whoever begins anew at a key frame begins at the newest one, late or not.
TEST_F(MediaWaitRoom, AfterAGapItGoesOnToEachNewKeyFrameWithoutAWrite) {
    HandClock clock;
    MediaClient& slow = lateClient(clock, MediaResume::AHEAD);
    clock.advanceUs(1100000);
    put(10, 1, 1);
    EXPECT_EQ(1U, roomStats(slow).steps_ahead);
    put(10, 1, 1);
    EXPECT_EQ(2U, roomStats(slow).steps_ahead);
    tick();
    EXPECT_EQ(1U, buffer->GetStats().kept_frames);
    EXPECT_TRUE(slow.sock.calls().empty());
}

// A channel of key frames that follows another one is never late; one that does not follow any more is.
TEST_F(MediaWaitRoom, ItStepsAheadWhenItsChannelCeasesToFollow) {
    HandClock clock;
    MediaClient& slow = waitingClient();
    slow.sender->SetResumePolicy(1000);
    put(10, 1, 5, 0);
    put(10, 1, 1, 1);
    put(10, 1, 1, 1);
    slow.sock.setRoom(0);
    put(10, 1, 1, 1);
    slow.sock.clearCalls();
    put(10, 1, 1, 1);
    clock.advanceUs(1100000);
    put(10, 1, 5, 0);
    EXPECT_EQ(0U, roomStats(slow).steps_ahead);
    put(10, 1, 5, 1);
    EXPECT_EQ(1U, roomStats(slow).steps_ahead);
    EXPECT_TRUE(slow.sock.calls().empty());
}

TEST_F(MediaWaitRoom, AStrictOneThatCaughtUpTakesTheNextKeyFrameWithoutAWrite) {
    HandClock clock;
    MediaClient& slow = waitingClient();
    slow.sender->SetResumePolicy(1000, MediaResume::STRICT);
    slow.sock.setRoom(10);
    put(10, 1, 5);
    put(10, 1, 5);
    slow.sock.clearCalls();
    slow.sock.clearWire();
    clock.advanceUs(1100000);
    put(10, 1, 5);
    const std::string key = put(10, 1, 1);
    const std::string next = put(10, 1, 5);
    EXPECT_TRUE(slow.sock.calls().empty());
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    EXPECT_EQ(key + next, slow.sock.wire());
}

TEST_F(MediaWaitRoom, OtherDataThatBlockedGoesFirst) {
    MediaClient& slow = waitingClient();
    slow.sock.setRoom(0);
    slow.sender->SendOtherData("other", 5);
    put(10, 1, 5);  // lost to it
    tick(2);
    EXPECT_EQ(1U, slow.sock.calls().size());
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    haveRoom();
    EXPECT_EQ("other", slow.sock.wire());
    const std::string next = put(10, 1, 1);
    EXPECT_EQ("other" + next, slow.sock.wire());
}

// The lock.

TEST_F(MediaWaitRoom, AWorkerThatFindsTheBufferBusyDoesNotWait) {
    MediaClient& slow = fullClient();
    MediaClient& quick = joinedClient();
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    std::size_t during = 0;
    struct Proc {
        std::function<void()> run;
        void call(CMediaPacket*, int, int) { run(); }
    } proc{[&] {
        std::thread worker([&] { haveRoom(); });
        worker.join();  // it would not end if it waited
        during = slow.sock.wire().size();
    }};
    quick.sender->AttachSendProc({&Proc::call, &proc});
    put(10, 1, 5);
    quick.sender->DetachSendProc();
    EXPECT_EQ(4U, during);
    EXPECT_EQ(30U, slow.sock.wire().size());  // whoever had the lock has served it
    EXPECT_FALSE(isWatched(slow));
}

TEST_F(MediaWaitRoom, CalledInsideACallBackItIsServedWhenThatIsOver) {
    MediaClient& slow = fullClient();
    MediaClient& quick = joinedClient();
    slow.sock.setRoom(ShapedStream::UNLIMITED);
    std::size_t during = 0;
    struct Proc {
        std::function<void()> run;
        void call(CMediaPacket*, int, int) { run(); }
    } proc{[&] {
        EXPECT_EQ(0, slow.sender->handle_output(slow.sock.GetHandle()));
        during = slow.sock.wire().size();
    }};
    quick.sender->AttachSendProc({&Proc::call, &proc});
    put(10, 1, 5);
    quick.sender->DetachSendProc();
    EXPECT_EQ(4U, during);
    EXPECT_EQ(30U, slow.sock.wire().size());
}

TEST_F(MediaWaitRoom, StatsFillWhatTheCallerHas) {
    MediaClient& slow = fullClient();
    struct {
        std::uint32_t size;
        std::uint32_t version;
        std::uint64_t full_tries;
        std::uint64_t after;
    } old{0, 0, 7, 7};
    EXPECT_EQ(0, slow.sender->GetRoomStats(reinterpret_cast<MediaRoomStats*>(&old), 16));
    EXPECT_EQ(16U, old.size);
    EXPECT_EQ(1U, old.version);
    EXPECT_EQ(0U, old.full_tries);
    EXPECT_EQ(7U, old.after);
    EXPECT_EQ(-1, slow.sender->GetRoomStats(nullptr, 16));
    EXPECT_EQ(-1, slow.sender->GetRoomStats(reinterpret_cast<MediaRoomStats*>(&old), 7));
}

}  // namespace Orvex::Testing
