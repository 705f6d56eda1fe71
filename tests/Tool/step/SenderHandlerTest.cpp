// CSenderHandler: one timer for all buffers with auto-send, over the life of the library.
#include "Tool/step/SenderHandler.h"

#include <atomic>
#include <thread>

#include "support/KernelThread.h"
#include "support/PoolFixture.h"
#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"
#include "support/media/SenderHandlerProbe.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

CSenderHandler* running() {
    return SenderHandlerProbe::running();
}
uint64_t intervalOf(const CSenderHandler& handler) {
    return SenderHandlerProbe::interval(handler);
}
long timerOf(const CSenderHandler& handler) {
    return SenderHandlerProbe::timer(handler);
}

struct CountingTarget : SendTarget_IF {
    void do_send() override {
        ++sends;
        if (on_send) {
            on_send();
        }
    }
    std::atomic<int> sends{0};
    std::function<void()> on_send;
};

}  // namespace

// Without threads: the test is the timer.
using SenderHandler = MediaFixture;

TEST_F(SenderHandler, TheFirstTargetStartsItAndTheTickAfterTheLastOneEndsIt) {
    EXPECT_EQ(nullptr, running());
    CountingTarget first;
    CountingTarget second;
    CSenderHandler::Add(0, &first);
    CSenderHandler* const handler = running();
    ASSERT_NE(nullptr, handler);
    CSenderHandler::Add(0, &second, 50);
    EXPECT_EQ(running(), handler);
    EXPECT_EQ(100U, intervalOf(*handler)) << "the interval is that of the first";
    const long id = timerOf(*handler);
    EXPECT_EQ(0, handler->handle_timeout(id));
    EXPECT_EQ(1, first.sends);
    EXPECT_EQ(1, second.sends);
    CSenderHandler::Remove(0, &first);
    CSenderHandler::Remove(0, &first);
    CSenderHandler::Remove(1, &second);
    EXPECT_EQ(0, handler->handle_timeout(id));
    EXPECT_EQ(1, first.sends);
    EXPECT_EQ(2, second.sends);
    CSenderHandler::Remove(0, &second);
    EXPECT_EQ(running(), handler);
    EXPECT_EQ(-1, handler->handle_timeout(id));
    EXPECT_EQ(nullptr, running());
    serveAll();
    CSenderHandler::Add(0, &first, 50);
    EXPECT_EQ(50U, intervalOf(*running()));
    CSenderHandler::Remove(0, &first);
    running()->handle_timeout(timerOf(*running()));
}

TEST_F(SenderHandler, AnotherTimersTickSweepsNothing) {
    CountingTarget target;
    CSenderHandler::Add(0, &target);
    CSenderHandler* const handler = running();
    EXPECT_EQ(-1, handler->handle_timeout(timerOf(*handler) + 1));
    EXPECT_EQ(0, target.sends);
    CSenderHandler::Remove(0, &target);
    EXPECT_EQ(-1, handler->handle_timeout(timerOf(*handler)));
}

TEST_F(SenderHandler, ATargetThatIsThereTwiceIsSentTwice) {
    CountingTarget target;
    CSenderHandler::Add(0, &target);
    CSenderHandler::Add(0, &target);
    CSenderHandler::Add(0, nullptr);
    CSenderHandler::Remove(0, nullptr);
    running()->handle_timeout(timerOf(*running()));
    EXPECT_EQ(2, target.sends);
    CSenderHandler::Remove(0, &target);
    running()->handle_timeout(timerOf(*running()));
    EXPECT_EQ(3, target.sends);
    CSenderHandler::Remove(0, &target);
    running()->handle_timeout(timerOf(*running()));
}

TEST_F(SenderHandler, TheSweepSurvivesTargetsThatChangeTheList) {
    CountingTarget first;
    CountingTarget second;
    CountingTarget third;
    first.on_send = [&] {
        CSenderHandler::Remove(0, &first);
        CSenderHandler::Add(0, &third);
    };
    CSenderHandler::Add(0, &first);
    CSenderHandler::Add(0, &second);
    running()->handle_timeout(timerOf(*running()));
    EXPECT_EQ(1, third.sends);
    for (CountingTarget* target : {&second, &third}) {
        CSenderHandler::Remove(0, target);
    }
    running()->handle_timeout(timerOf(*running()));
}

TEST_F(SenderHandler, ASecondBuffersIntervalChangesNothing) {
    CMediaBuffer second;
    buffer->EnableAutoSend();
    second.EnableAutoSend(50);
    EXPECT_EQ(100U, intervalOf(*running()));
    buffer->DisableAutoSend();
    second.DisableAutoSend();
    EXPECT_EQ(-1, running()->handle_timeout(timerOf(*running())));
}

TEST_F(SenderHandler, ABufferIsRegisteredOnceAndItsEndTakesItOff) {
    MediaClient& a = joinedClient();
    buffer->EnableAutoSend(20);
    buffer->EnableAutoSend();
    CSenderHandler* const handler = running();
    EXPECT_EQ(20U, intervalOf(*handler));
    a.sock.setRoom(0);
    const CFrame* frame = current();
    put(10);
    EXPECT_EQ(0, frame->m_age);
    handler->handle_timeout(timerOf(*handler));
    EXPECT_EQ(1, frame->m_age) << "one sweep, one tick";
    buffer->DisableAutoSend();
    buffer->DisableAutoSend();
    EXPECT_EQ(-1, handler->handle_timeout(timerOf(*handler)));
    serveAll();
    buffer->EnableAutoSend();
    buffer->DelSender(a.sender);
    buffer.reset();
    EXPECT_EQ(-1, running()->handle_timeout(timerOf(*running())));
    EXPECT_EQ(nullptr, running());
}

TEST_F(SenderHandler, ItIsDeletedWhenItsLastCallIsOver) {
    CountingTarget target;
    CSenderHandler::Add(0, &target);
    CSenderHandler* const handler = running();
    EXPECT_EQ(1, HandlerProbe::references(*handler));
    HandlerDrops drops;
    CSenderHandler::Suspend(
        drops);  // without a worker that could take the close message; ASan looks for the leak
    EXPECT_EQ(nullptr, running());
    CountingTarget late;
    CSenderHandler::Add(0, &late);
    EXPECT_EQ(nullptr, running()) << "on the way down nothing is started";
    CSenderHandler::Resume();
    ASSERT_NE(nullptr, running());
    running()->handle_timeout(timerOf(*running()));
    EXPECT_EQ(1, target.sends);
    EXPECT_EQ(1, late.sends);
    CSenderHandler::Remove(0, &target);
    CSenderHandler::Remove(0, &late);
    running()->handle_timeout(timerOf(*running()));
}

// With the library's own threads.
using SenderHandlerLive = PoolFixture;

TEST_F(SenderHandlerLive, TheTimerLetsBlockedSendersGoOn) {
    CMediaBuffer buffer;
    ShapedStream sock;
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    sender->Attach(&sock);
    buffer.AddSender(sender);
    std::vector<int> released;
    std::atomic<int> done{0};
    TestPacket first(0, "first", &released);
    TestPacket second(1, "second", &released);
    second.on_release = [&done] { ++done; };
    buffer.Put(&first, 5, 1, 1);
    sock.setRoom(0);
    buffer.Put(&second, 6, 1, 1);
    sock.setRoom(ShapedStream::UNLIMITED);
    buffer.EnableAutoSend(5);
    EXPECT_EVENTUALLY(done == 1);
    buffer.DisableAutoSend();
    EXPECT_EQ("firstsecond", sock.wire());
    buffer.DelSender(sender);
    sender->Close();
}

// The first tick can come before the thread that arms the timer has stored its id. It waits for that thread.
TEST_F(SenderHandler, ATickThatComesBeforeTheTimersIdIsKnownIsNoStrangers) {
    constexpr long ID = -12345;
    CountingTarget target;
    CSenderHandler::Add(0, &target);
    CSenderHandler* const handler = running();
    Infra::CMutex& list_mutex = *stateOf(ProbeDetail::HandlerListMutex{});
    list_mutex.enter();
    std::atomic<int> worker_id{0};
    int64_t result = -2;
    std::thread worker([&] {
        worker_id = kernelThreadId();
        result = handler->handle_timeout(ID);
    });
    EXPECT_EVENTUALLY(worker_id != 0 && sleepsInFutex(worker_id));
    handler->*stateOf(ProbeDetail::HandlerTimer{}) = ID;
    list_mutex.leave();
    worker.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(1, target.sends);
    CSenderHandler::Remove(0, &target);
    handler->handle_timeout(ID);
}

TEST_F(SenderHandlerLive, AShortIntervalDoesNotLoseTheTimer) {
    for (int i = 0; i < 20; ++i) {
        CountingTarget target;
        CSenderHandler::Add(0, &target, 0);
        EXPECT_EVENTUALLY(target.sends >= 2);
        CSenderHandler::Remove(0, &target);
        EXPECT_EVENTUALLY(running() == nullptr);
    }
}

TEST(SenderHandlerTeardown, AutoSendGoesOnInTheLibrarysNextLife) {
    CountingTarget target;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        if (i == 0) {
            CSenderHandler::Add(0, &target, 5);
        }
        const int before = target.sends;
        EXPECT_EVENTUALLY(target.sends > before + 1);
        ASSERT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EQ(nullptr, running());
    }
    CSenderHandler::Remove(0, &target);
}

TEST(SenderHandlerTeardown, ALifeThatEndsRightAfterTheLastBufferLeavesNothingBehind) {
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        CMediaBuffer buffer;
        buffer.EnableAutoSend();
        buffer.DisableAutoSend();
        ASSERT_EQ(0, CNetThread::DestroyThreadPool());
    }
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    CountingTarget target;
    CSenderHandler::Add(0, &target, 5);
    EXPECT_EVENTUALLY(target.sends > 0) << "a timer that was forgotten would never be started again";
    CSenderHandler::Remove(0, &target);
    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST_F(SenderHandlerLive, RacingSwitchesLeaveNoRecordBehind) {
    for (int i = 0; i < 50; ++i) {
        auto buffer = std::make_unique<CMediaBuffer>();
        std::thread other([&buffer] {
            for (int j = 0; j < 20; ++j) {
                buffer->EnableAutoSend(3);
                buffer->DisableAutoSend();
            }
        });
        for (int j = 0; j < 20; ++j) {
            buffer->DisableAutoSend();
            buffer->EnableAutoSend(3);
        }
        other.join();
        buffer.reset();  // a sweep that still knew it would run into freed memory
    }
}

}  // namespace Orvex::Testing
