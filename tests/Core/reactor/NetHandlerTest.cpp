// CNetHandler: its life, and the services that a derived class uses.
#include <Reticor/NetHandler.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <Reticor/SockStream.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/service/Message.h"
#include "Core/service/NetTimer.h"
#include "support/PoolFixture.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::PoolFixture;
using Testing::TestHandler;

using Life = std::shared_ptr<HandlerLife>;

/// A connected pair: one end on a socket object, the other as a number.
struct Pair {
    Pair() {
        int ends[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
        near.Attach(ends[0]);
        far = ends[1];
    }
    ~Pair() { ::close(far); }
    void speak() const { EXPECT_EQ(1, ::send(far, "x", 1, MSG_NOSIGNAL)); }

    CSockStream near;
    int far;
};

// Enough for calls that block each other.
class NetHandler : public PoolFixture {
protected:
    NetHandler() { workers = 4; }

    // Closes a handler whose handle_close leaves it allocated. The last reference goes on this thread, so
    // that no worker is in the object any more.
    static void endByHand(CNetHandler* handler) {
        handler->AddRef();
        const long id = handler->GetID();
        handler->Close();
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
        EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1);
        EXPECT_FALSE(HandlerProbe::closeCalled(*handler));
        handler->DecRef();
        EXPECT_TRUE(HandlerProbe::closeCalled(*handler));
    }
};

// ---- the run from creation to the end --------------------------------------------------------------------

TEST_F(NetHandler, AFullRunFromTheFirstMessageToTheEnd) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    const long id = handler->GetID();
    EXPECT_LT(id, -101);
    EXPECT_EQ(0, INDEX_OF_ID(id));
    EXPECT_EQ(1, HandlerProbe::references(*handler));
    std::atomic<long> got_attach{0};
    std::atomic<int64_t> references{0};
    handler->on_message = [&](long sender, unsigned int msg, long attach) {
        EXPECT_EQ(-500, sender);
        EXPECT_EQ(7u, msg);
        references = HandlerProbe::references(*handler);
        got_attach = attach;
        return 0;
    };
    CMessage::Notify(-500, id, 7, 42, false);
    EXPECT_EVENTUALLY(life->messages == 1);
    EXPECT_EQ(42, got_attach);
    EXPECT_EQ(2, references);
    EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(1, life->deleted);
    CMessage::Notify(-500, id, 7, 43, false);  // accepted, and dropped by a worker
    EXPECT_FALSE(PoolTable::FindHandler(id));
}

TEST_F(NetHandler, IdsOfAPoolCountDownAndCarryItsIndex) {
    const int pool = CNetThread::CreatePrivatePool(2, false);
    ASSERT_EQ(1, pool);
    auto* first = new TestHandler(pool);
    auto* second = new TestHandler(pool);
    EXPECT_EQ((-100 * 256 + 1) * 256, first->GetID());
    EXPECT_EQ((-101 * 256 + 1) * 256, second->GetID());
    closeAndWait(first);
    closeAndWait(second);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
}

TEST_F(NetHandler, TheDefaultsOfAllSlotsAreMinusOne) {
    class Plain : public CNetHandler {};
    auto* handler = new Plain;
    EXPECT_EQ(-1, handler->handle_input(0));
    EXPECT_EQ(-1, handler->handle_output(0));
    EXPECT_EQ(-1, handler->handle_exception(0));
    EXPECT_EQ(-1, handler->handle_input_timeout(0));
    EXPECT_EQ(-1, handler->handle_output_timeout(0));
    EXPECT_EQ(-1, handler->handle_exception_timeout(0));
    EXPECT_EQ(-1, handler->handle_timeout(0));
    EXPECT_EQ(-1, handler->handle_message(0, 0, 0));
    EXPECT_EQ(-1, handler->handle_close(handler));  // and leaves the object
    endByHand(handler);
    delete handler;
}

TEST_F(NetHandler, AClassThatDoesNotOverrideHandleCloseIsNamed) {
    class Forgetful : public CNetHandler {};
    auto* handler = new Forgetful;
    LogCapture log;
    endByHand(handler);
    EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    EXPECT_TRUE(log.containsMatching(
        2, "a .*::Forgetful is closed and nobody deletes it: its handle_close is not overridden\n"))
        << log.dump();
    delete handler;
}

// ---- wrong uses ----------------------------------------------------------------------------------------

class NetHandlerDeath : public NetHandler {};

TEST(NetHandlerWithoutPoolDeath, AHandlerBeforeItsPoolIsLoggedAndAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        TestHandler(0),
        "\\[Src/Core/NetHandler.cpp:[0-9]+\\] this:0x[0-9a-f]+ tid:[0-9]+, Can't find the thread pool 0, "
        "create thread pool first!\n(.|\n)*Assertion `0' failed");
}

TEST_F(NetHandlerDeath, APoolIndexOf64IsAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TestHandler(64),
                 "Can't find the thread pool 64, create thread pool first!\n(.|\n)*Assertion `0' failed");
    EXPECT_DEATH(TestHandler(-1),
                 "Can't find the thread pool -1, create thread pool first!\n(.|\n)*Assertion `0' failed");
}

TEST_F(NetHandlerDeath, DeletingAnOpenHandlerIsAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(delete new TestHandler, "Assertion `__m_magic == 0x0202' failed");
}

TEST_F(NetHandlerDeath, AHandlerThatSentItselfTheCloseNumberIsStillOpenWhenItIsDeleted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto* handler = new TestHandler;
            handler->Notify(handler->GetID(), 12, 0);
            ::sleep(60);  // the assertion fires on the worker
        },
        "Assertion `__m_magic == 0x0202' failed");
}

// ---- closing -------------------------------------------------------------------------------------------

TEST_F(NetHandler, ASecondCloseChangesNothingAndPostsNothing) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    handler->AddRef();
    handler->Close();
    handler->Close();
    std::thread([&] { handler->Close(); }).join();
    EXPECT_EVENTUALLY(!PoolTable::FindHandler(handler->GetID()));
    EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1);
    EXPECT_EQ(0, life->closes);
    handler->DecRef();
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(1, life->deleted);
}

TEST_F(NetHandler, WithTwoReferencesHeldTheSecondDecRefClosesOnTheApplicationsThread) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    handler->AddRef();
    handler->AddRef();
    std::thread::id closer;
    handler->on_close = [&] { closer = std::this_thread::get_id(); };
    const long id = handler->GetID();
    handler->Close();
    EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 2);
    EXPECT_FALSE(PoolTable::FindHandler(id));
    handler->DecRef();
    EXPECT_EQ(0, life->closes);
    handler->DecRef();
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(std::this_thread::get_id(), closer);
}

TEST_F(NetHandler, HandleCloseRunsOnceAlsoWhenTheCountReachesZeroTwice) {
    auto* handler = new TestHandler;
    handler->keep_after_close = true;
    const Life life = handler->life;
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    handler->AddRef();
    handler->DecRef();
    EXPECT_EQ(1, life->closes);
    delete handler;
}

TEST_F(NetHandler, TheDefaultHandleCloseLeavesTheObjectAllocated) {
    class Plain : public CNetHandler {
    public:
        explicit Plain(std::atomic<int>& deleted) : m_deleted(deleted) {}
        ~Plain() override { ++m_deleted; }

    private:
        std::atomic<int>& m_deleted;
    };
    std::atomic<int> deleted{0};
    auto* handler = new Plain(deleted);
    endByHand(handler);
    EXPECT_EQ(0, deleted);
    delete handler;
}

TEST_F(NetHandler, TheCloseMessageOvertakesWhatWaitsAndDropsIt) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    const long id = handler->GetID();
    std::atomic<long> allowed{-1};  // calls up to this one may end
    handler->on_message = [&](long, unsigned int, long attach) {
        EXPECT_EVENTUALLY(attach <= allowed);
        return 0;
    };
    const int busy = ThreadPoolProbe::workers(*PoolTable::Get(0));
    for (int i = 0; i < busy; ++i) {
        handler->Notify(id, 1, i);
    }
    EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1 + busy);
    for (int i = 0; i < 10; ++i) {
        handler->Notify(id, 1, 0);
        handler->NotifySerial(id, 1, 0, 0);
    }
    handler->Close();
    allowed = 0;  // one worker is free, and finds the close message first
    EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
    allowed = busy;
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(busy, life->messages);
}

TEST_F(NetHandler, CloseInsideACallLetsTheCallRunToItsEnd) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    std::atomic<int> closes_seen{-1};
    handler->on_message = [&](long, unsigned int, long) {
        const long id = handler->GetID();
        handler->Close();
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
        closes_seen = life->closes.load();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, closes_seen);
}

TEST_F(NetHandler, HandleCloseWaitsForACallOnAnotherThread) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    std::atomic<bool> inside{false};
    std::atomic<bool> go{false};
    handler->on_message = [&](long, unsigned int, long) {
        inside = true;
        EXPECT_EVENTUALLY(go);
        return 0;
    };
    const long id = handler->GetID();
    handler->Notify(id, 1, 0);
    EXPECT_EVENTUALLY(inside);
    handler->Close();
    EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
    EXPECT_EQ(0, life->closes);
    go = true;
    EXPECT_EVENTUALLY(life->closes == 1);
}

TEST_F(NetHandler, TwoCloseMessagesDetachOnce) {
    // A handler that sends itself the close number beside Close: the id goes back once, the reference drops
    // once.
    for (int round = 0; round < 200; ++round) {
        auto* handler = new TestHandler;
        const Life life = handler->life;
        handler->AddRef();
        const long id = handler->GetID();
        const uint32_t waiting = ObjectIdProbe::count(PoolTable::Get(0)->m_ids);
        handler->Notify(id, 12, 0);
        handler->Close();
        handler->Notify(id, 12, 0);
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
        EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1);
        EXPECT_EQ(waiting + 1, ObjectIdProbe::count(PoolTable::Get(0)->m_ids));
        handler->DecRef();
        EXPECT_EQ(1, life->closes);
    }
}

TEST_F(NetHandler, CloseFromManyThreadsEndsTheHandlerOnce) {
    for (int round = 0; round < 100; ++round) {
        auto* handler = new TestHandler;
        const Life life = handler->life;
        handler->AddRef();
        std::vector<std::thread> closers;
        for (int i = 0; i < 4; ++i) {
            closers.emplace_back([&] { handler->Close(); });
        }
        for (std::thread& closer : closers) {
            closer.join();
        }
        handler->DecRef();
        EXPECT_EVENTUALLY(life->closes == 1 && life->deleted == 1);
    }
}

// ---- guarded services ----------------------------------------------------------------------------------

TEST_F(NetHandler, SetTimerAndRegisterSockAfterCloseGiveMinusOneAndLeaveTheReferences) {
    auto* handler = new TestHandler;
    handler->AddRef();
    handler->Close();
    EXPECT_EVENTUALLY(HandlerProbe::references(*handler) == 1);
    Pair pair;
    EXPECT_EQ(-1, handler->SetTimer(10000));
    EXPECT_EQ(-1, handler->RegisterSock(pair.near, 1, 0));
    EXPECT_EQ(1, HandlerProbe::references(*handler));
    EXPECT_EQ(0, HandlerProbe::sockets(*handler));
    handler->DecRef();
}

TEST_F(NetHandler, AHandlerClosedWithASocketRegisteredComplainsAndIsDestroyedAllTheSame) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    Pair pair;
    EXPECT_EQ(0, handler->RegisterSock(pair.near, 1, 0));
    EXPECT_EQ(1, HandlerProbe::sockets(*handler));
    LogCapture log;
    handler->Close();
    EXPECT_EVENTUALLY(life->deleted == 1);
    EXPECT_TRUE(
        log.containsMatching(2,
                             "some sockets registered on obj 0x[0-9a-f]+ has not been removed, please remove "
                             "it before close the obj!\n"))
        << log.dump();
    // The socket is still known; another handler takes it over and removes it.
    auto* heir = new TestHandler;
    EXPECT_EQ(0, heir->RegisterSock(pair.near, 1, 0));
    EXPECT_EQ(0, heir->RemoveSock(pair.near));
    closeAndWait(heir);
}

TEST_F(NetHandler, CheckSockEndsTheWriteInterestOfASocketThatReads) {
    auto* handler = new TestHandler;
    Pair pair;
    handler->on_output = [&](int) { return handler->CheckSock(pair.near); };
    handler->RegisterSock(pair.near, 3, 0);
    EXPECT_EVENTUALLY(handler->life->outputs == 1);
    pair.speak();
    char byte;
    handler->on_input = nullptr;
    EXPECT_EVENTUALLY(handler->life->inputs >= 1);
    EXPECT_EQ(1, handler->life->outputs);
    EXPECT_EQ(1, HandlerProbe::sockets(*handler));
    EXPECT_EQ(1, pair.near.Recv(&byte, 1));
    handler->RemoveSock(pair.near);
    closeAndWait(handler);
}

TEST_F(NetHandler, CheckSockRemovesASocketThatDoesNotRead) {
    auto* handler = new TestHandler;
    Pair pair;
    handler->on_output = [&](int) { return handler->CheckSock(pair.near); };
    handler->RegisterSock(pair.near, 2, 0);
    EXPECT_EVENTUALLY(handler->life->outputs == 1);
    EXPECT_EVENTUALLY(HandlerProbe::sockets(*handler) == 0);
    closeAndWait(handler);
}

TEST_F(NetHandler, CheckSockOfAnUnknownSocketDoesNothing) {
    auto* handler = new TestHandler;
    Pair pair;
    CSockStream none;
    EXPECT_EQ(0, handler->CheckSock(pair.near));
    EXPECT_EQ(0, handler->CheckSock(none));
    closeAndWait(handler);
}

TEST_F(NetHandler, TheShortFormsPostToTheDefaultReceiver) {
    auto* sender = new TestHandler;
    auto* receiver = new TestHandler;
    std::atomic<long> from{0};
    receiver->on_message = [&](long id, unsigned int msg, long attach) {
        from = id;
        EXPECT_EQ(static_cast<long>(msg) * 10, attach);
        return 0;
    };
    sender->SetDefaultRcer(receiver->GetID());
    sender->Notify(3, 30);
    sender->NotifySerial(4, 40, 0);
    EXPECT_EVENTUALLY(receiver->life->messages == 2);
    EXPECT_EQ(sender->GetID(), from);
    closeAndWait(sender);
    closeAndWait(receiver);
}

TEST_F(NetHandler, WithoutADefaultReceiverTheShortFormsAreLoggedAndQueueNothing) {
    auto* handler = new TestHandler;
    LogCapture log;
    handler->Notify(3, 0);
    handler->NotifyIO(3, 0);
    handler->NotifySerial(3, 0, 0);
    EXPECT_EQ(2u, log.count(2, "CMessage::Notify, invalid receiver id: 0\n")) << log.dump();
    EXPECT_EQ(1u, log.count(2, "CMessage::NotifySerial, invalid receiver id: 0\n")) << log.dump();
    closeAndWait(handler);
}

TEST_F(NetHandler, MemoryOfTheWorkerAndSharedMemoryAreWritable) {
    auto* handler = new TestHandler;
    std::atomic<bool> done{false};
    handler->on_message = [&](long, unsigned int, long) {
        for (void* block : {handler->TsMalloc(1500), handler->Malloc(1500)}) {
            std::fill_n(static_cast<char*>(block), 1500, 'x');
            done ? handler->Free(block) : handler->TsFree(block);
            done = true;
        }
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(handler->life->messages == 1);
    closeAndWait(handler);
}

// ---- the end with each kind of outstanding work -----------------------------------------------------------

TEST_F(NetHandler, AnArmedTimerOfAClosedHandlerMakesNoCallAndGivesItsIdBack) {
    auto* handler = new TestHandler;
    const Life life = handler->life;
    EXPECT_LT(handler->SetTimer(300000), -101);
    closeAndWait(handler);
    EXPECT_EVENTUALLY(TimerHeapProbe::waitingIds(CNetTimer::heap(), 0) == 1);
    EXPECT_EQ(0, life->timeouts);
}

TEST_F(NetHandler, ARegistrationThatRacesWithCloseIsSeenBeforeOrAfter) {
    for (int round = 0; round < 200; ++round) {
        auto* handler = new TestHandler;
        const Life life = handler->life;
        handler->AddRef();
        Pair pair;
        std::thread closer([&] { handler->Close(); });
        const int result = handler->RegisterSock(pair.near, 1, 0);
        closer.join();
        if (result == 0) {
            EXPECT_EQ(1, HandlerProbe::sockets(*handler));
            handler->RemoveSock(pair.near);
        }
        EXPECT_EQ(0, HandlerProbe::sockets(*handler));
        handler->DecRef();
        EXPECT_EVENTUALLY(life->closes == 1);
    }
}

}  // namespace
}  // namespace Orvex::Reticor
