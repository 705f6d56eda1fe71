// RoomWatch: the write interest of a sender that waits for room, beside whatever else happens to the socket.
#include "Core/service/RoomWatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/core/StillHandler.h"

namespace Orvex::Reticor {
namespace {

using Testing::SocketPair;
using Testing::StillHandler;
using Testing::StillPool;
using Testing::TestHandler;

constexpr uint32_t WAITS = SOCK_WRITE | SOCK_ROOM;

class RoomWatching : public StillHandler {
protected:
    void TearDown() override {
        handler->RemoveSock(pair.near);
        StillHandler::TearDown();
    }

    // The socket is read by the handler, and takes no more bytes.
    void readFull() {
        add(pair.near);
        pair.fill();
    }
    RoomPlace begin() { return RoomWatch::begin(handler->GetID(), pair.fd()); }
    uint32_t mask() {
        const CEvent* const record = rig.record(pair.fd());
        return record != nullptr ? record->m_event_mask : 0;
    }
    int writePlaces() { return rig.places(1); }

    // Begin gives nothing, and nothing is changed.
    void expectRefused(int64_t owner, int fd) {
        const uint32_t mask_before = mask();
        const int places_before = writePlaces();
        const uint64_t begun_before = RoomWatch::begun();
        const RoomPlace place = RoomWatch::begin(owner, fd);
        EXPECT_FALSE(place.is_taken());
        EXPECT_FALSE(RoomWatch::stands(place));
        EXPECT_EQ(mask_before, mask());
        EXPECT_EQ(places_before, writePlaces());
        EXPECT_EQ(begun_before, RoomWatch::begun());
    }

    SocketPair pair;
};

TEST_F(RoomWatching, TheReaderIsCalledOnceThereIsRoomAndNotBefore) {
    readFull();
    const uint64_t before = RoomWatch::begun();
    RoomPlace place = begin();
    EXPECT_TRUE(place.is_taken());
    EXPECT_TRUE(RoomWatch::stands(place));
    EXPECT_EQ(before + 1, RoomWatch::begun());
    EXPECT_EQ(SOCK_READ | WAITS, mask());
    EXPECT_EQ(1, writePlaces());
    EXPECT_EQ(0u, rig.pollAndServe()) << "the socket is full";
    pair.drainFar();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
    EXPECT_EQ(0, handler->life->inputs);
    RoomWatch::end(place);
}

TEST_F(RoomWatching, AfterItsEndTheReaderReadsAsBefore) {
    readFull();
    RoomPlace place = begin();
    const RoomPlace copy = place;
    RoomWatch::end(place);
    EXPECT_FALSE(place.is_taken());
    EXPECT_FALSE(RoomWatch::stands(copy));
    EXPECT_EQ(SOCK_READ, mask());
    EXPECT_EQ(0, writePlaces());
    pair.drainFar();
    EXPECT_EQ(0u, rig.pollAndServe()) << "nobody waits for the room";
    pair.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
    EXPECT_EQ(0, handler->life->outputs);
}

TEST_F(RoomWatching, AnEmptyPlaceEndsWithoutAnything) {
    readFull();
    RoomPlace empty;
    RoomWatch::end(empty);
    EXPECT_FALSE(RoomWatch::stands(empty));
    RoomPlace place = begin();
    RoomPlace twice = place;
    RoomWatch::end(place);
    RoomWatch::end(place);
    RoomWatch::end(twice);  // of the same registration: there is no interest left to take
    EXPECT_EQ(SOCK_READ, mask());
}

// ---- where there cannot be a place ---------------------------------------------------------------------

TEST_F(RoomWatching, IsRefusedWhereNobodyReadsTheSocket) {
    expectRefused(handler->GetID(), -1);
    expectRefused(handler->GetID(), pair.fd());  // not registered
    add(pair.near, SOCK_EXCEPT);
    expectRefused(handler->GetID(), pair.fd());
    handler->RemoveSock(pair.near);
    add(pair.near, SOCK_WRITE);
    expectRefused(handler->GetID(), pair.fd());
}

TEST_F(RoomWatching, IsRefusedToWhomeverTheSocketIsNotRegisteredFor) {
    readFull();
    auto* const other = new TestHandler(StillPool::INDEX);
    expectRefused(other->GetID(), pair.fd());
    expectRefused(0, pair.fd());
    expectRefused(-1, pair.fd());
    expectRefused(handler->GetID() - 65536 * 500, pair.fd());
    const int64_t id = other->GetID();
    rig.close(other);
    expectRefused(id, pair.fd());
}

TEST_F(RoomWatching, IsRefusedWhileAnotherWriterHasTheDirection) {
    add(pair.near, SOCK_READ | SOCK_WRITE);
    expectRefused(handler->GetID(), pair.fd());
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    RoomPlace place = begin();
    EXPECT_TRUE(place.is_taken());
    expectRefused(handler->GetID(), pair.fd());  // one waits already
    EXPECT_TRUE(RoomWatch::stands(place));
    RoomWatch::end(place);
}

TEST_F(RoomWatching, IsRefusedWhileTheSocketIsOnItsWayOut) {
    add(pair.near);
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    handler->RemoveSock(pair.near);
    expectRefused(handler->GetID(), pair.fd());
    rig.serve(ready[0]);
}

TEST_F(RoomWatching, IsRefusedInAPoolWhoseWriteSetIsFull) {
    constexpr int ALL = 4096;
    Testing::allowDescriptors(ALL + 200);
    SocketPair filler;
    filler.fill();
    std::vector<std::unique_ptr<Testing::BorrowedSock>> socks;
    for (int i = 0; i < ALL; ++i) {
        socks.push_back(std::make_unique<Testing::BorrowedSock>(::fcntl(filler.fd(), F_DUPFD_CLOEXEC, 0)));
        add(*socks.back(), SOCK_WRITE);
    }
    add(pair.near);
    expectRefused(handler->GetID(), pair.fd());
    EXPECT_EQ(0, rig.pool().m_mux.SocksWithoutPlace()) << "nobody waits for a place that came free";
    // In flight it is too early to tell.
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    RoomPlace early = begin();
    EXPECT_TRUE(RoomWatch::stands(early));
    rig.serve(ready[0]);
    EXPECT_FALSE(RoomWatch::stands(early));
    RoomWatch::end(early);
    handler->RemoveSock(*socks.back());
    RoomPlace place = begin();
    EXPECT_TRUE(place.is_taken());
    RoomWatch::end(place);
    for (const auto& sock : socks) {
        handler->RemoveSock(*sock);
        ::close(sock->GetHandle());
    }
}

// ---- beside others -------------------------------------------------------------------------------------

TEST_F(RoomWatching, AWriterThatComesMeanwhileKeepsItsInterestWhenTheWaitEnds) {
    readFull();
    RoomPlace place = begin();
    add(pair.near, SOCK_WRITE);
    EXPECT_TRUE(RoomWatch::stands(place));
    const RoomPlace copy = place;
    RoomWatch::end(place);
    EXPECT_FALSE(RoomWatch::stands(copy)) << "the direction is the writer's alone";
    EXPECT_EQ(SOCK_READ | SOCK_WRITE, mask());
    EXPECT_EQ(1, writePlaces());
    pair.drainFar();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
}

TEST_F(RoomWatching, AWriterThatGoesMeanwhileEndsNobodysWait) {
    readFull();
    RoomPlace place = begin();
    handler->UnregisterSock(pair.near, SOCK_WRITE);  // of one that never asked
    EXPECT_EQ(SOCK_READ | WAITS, mask());
    add(pair.near, SOCK_WRITE);
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    EXPECT_EQ(SOCK_READ | WAITS, mask());
    EXPECT_TRUE(RoomWatch::stands(place));
    RoomWatch::end(place);
    EXPECT_EQ(SOCK_READ, mask());
}

TEST_F(RoomWatching, AnIdleTimeoutRunsOnAsItWas) {
    add(pair.near, SOCK_READ, 1000000);
    pair.fill();
    rig.tick();
    const int64_t deadline = rig.record(pair.fd())->m_timer.m_sock_deadline;
    RoomPlace place = begin();
    EXPECT_EQ(deadline, rig.record(pair.fd())->m_timer.m_sock_deadline);
    rig.tick();
    RoomWatch::end(place);
    EXPECT_EQ(deadline, rig.record(pair.fd())->m_timer.m_sock_deadline);
    EXPECT_TRUE(CSockTimer::IsLinked(rig.record(pair.fd())));
    for (CEvent* ev : rig.tick(2)) {
        rig.serve(ev);
    }
    EXPECT_EQ(1, handler->life->input_timeouts);
}

TEST_F(RoomWatching, EndsForWhicheverSenderWaits) {
    readFull();
    RoomPlace place = begin();
    RoomWatch::end_all(handler->GetID() - 65536 * 500, pair.fd());
    RoomWatch::end_all(handler->GetID(), pair.fd() + 100);
    RoomWatch::end_all(handler->GetID(), -1);
    EXPECT_TRUE(RoomWatch::stands(place)) << "none of those was meant";
    RoomWatch::end_all(handler->GetID(), pair.fd());
    EXPECT_FALSE(RoomWatch::stands(place));
    EXPECT_EQ(SOCK_READ, mask());
    RoomWatch::end_all(handler->GetID(), pair.fd());
    EXPECT_EQ(SOCK_READ, mask());
}

// ---- in flight -----------------------------------------------------------------------------------------

TEST_F(RoomWatching, ASocketInFlightIsWatchedForRoomWhenItsWorkerIsDone) {
    readFull();
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    RoomPlace place = begin();
    EXPECT_TRUE(place.is_taken());
    EXPECT_TRUE(RoomWatch::is_placed(rig.record(pair.fd()))) << "it will be";
    EXPECT_EQ(0, writePlaces());
    rig.serve(ready[0]);
    EXPECT_EQ(1, handler->life->inputs);
    EXPECT_EQ(1, writePlaces());
    EXPECT_TRUE(RoomWatch::stands(place));
    pair.drainFar();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
    RoomWatch::end(place);
}

TEST_F(RoomWatching, AWaitThatEndsInFlightIsNotWatchedAgain) {
    readFull();
    RoomPlace place = begin();
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    RoomWatch::end(place);
    EXPECT_EQ(1, rig.places(0)) << "the wake end's: a socket in flight has none";
    rig.serve(ready[0]);
    EXPECT_EQ(SOCK_READ, mask());
    EXPECT_EQ(0, writePlaces());
    pair.drainFar();
    EXPECT_EQ(0u, rig.pollAndServe());
}

// ---- places that are lost ------------------------------------------------------------------------------

TEST_F(RoomWatching, ARemovalTakesThePlaceAndSaysSo) {
    readFull();
    RoomPlace place = begin();
    const uint32_t losses = RoomLosses::count();
    handler->RemoveSock(pair.near);
    EXPECT_NE(losses, RoomLosses::count());
    EXPECT_FALSE(RoomWatch::stands(place));
    RoomWatch::end(place);
    EXPECT_FALSE(place.is_taken());
}

// The number may be another connection's by then.
TEST_F(RoomWatching, APlaceOfAnEarlierRegistrationEndsNothingOfALaterOne) {
    readFull();
    RoomPlace old = begin();
    handler->RemoveSock(pair.near);
    add(pair.near);
    EXPECT_FALSE(RoomWatch::stands(old));
    RoomPlace present = begin();
    EXPECT_TRUE(RoomWatch::stands(present));
    EXPECT_FALSE(RoomWatch::stands(old));
    RoomWatch::end(old);
    EXPECT_TRUE(RoomWatch::stands(present));
    EXPECT_EQ(SOCK_READ | WAITS, mask());
    RoomWatch::end(present);
}

TEST_F(RoomWatching, AnotherReaderOfTheSocketTakesThePlaceAndSaysSo) {
    readFull();
    RoomPlace place = begin();
    const uint32_t losses = RoomLosses::count();
    auto* const heir = new TestHandler(StillPool::INDEX);
    EXPECT_EQ(0, heir->RegisterSock(pair.near, SOCK_READ, 0));
    EXPECT_NE(losses, RoomLosses::count());
    EXPECT_FALSE(RoomWatch::stands(place));
    EXPECT_EQ(SOCK_READ, mask());
    RoomPlace next = RoomWatch::begin(heir->GetID(), pair.fd());
    EXPECT_TRUE(RoomWatch::stands(next));
    EXPECT_FALSE(RoomWatch::stands(place)) << "the heir would be called";
    heir->RemoveSock(pair.near);
    rig.close(heir);
    EXPECT_FALSE(RoomWatch::stands(next)) << "its reader has gone";
    RoomWatch::end(next);
}

TEST_F(RoomWatching, AReaderThatIsClosedOrNotFoundCallsNobody) {
    auto* const reader = new TestHandler(StillPool::INDEX);
    EXPECT_EQ(0, reader->RegisterSock(pair.near, SOCK_READ, 0));
    pair.fill();
    RoomPlace place = RoomWatch::begin(reader->GetID(), pair.fd());
    ASSERT_TRUE(RoomWatch::stands(place));
    const uint32_t losses = RoomLosses::count();
    rig.close(reader);  // its socket is still registered
    EXPECT_FALSE(RoomWatch::stands(place));
    pair.drainFar();
    rig.pollAndServe();
    EXPECT_NE(losses, RoomLosses::count()) << "the call found nobody";
    RoomWatch::end(place);
}

TEST_F(RoomWatching, IsRefusedToAReaderThatIsClosedThoughItsSocketIsStillThere) {
    auto* const reader = new TestHandler(StillPool::INDEX);
    EXPECT_EQ(0, reader->RegisterSock(pair.near, SOCK_READ, 0));
    const int64_t id = reader->GetID();
    rig.close(reader);
    expectRefused(id, pair.fd());
}

TEST(RoomWatchPools, APlaceInAPoolThatHasEndedIsNoHarm) {
    SocketPair pair;
    RoomPlace place;
    int64_t owner = 0;
    uint32_t losses = 0;
    {
        StillPool rig;
        auto* const reader = new TestHandler(StillPool::INDEX);
        owner = reader->GetID();
        EXPECT_EQ(0, reader->RegisterSock(pair.near, SOCK_READ, 0));
        place = RoomWatch::begin(owner, pair.fd());
        EXPECT_TRUE(place.is_taken());
        rig.close(reader);
        losses = RoomLosses::count();
    }
    EXPECT_NE(losses, RoomLosses::count()) << "the end of a pool takes places as well";
    EXPECT_FALSE(RoomWatch::stands(place));
    RoomWatch::end_all(owner, pair.fd());
    RoomWatch::end(place);
    EXPECT_FALSE(place.is_taken());
    EXPECT_FALSE(RoomWatch::begin(owner, pair.fd()).is_taken());
}

// ---- races ---------------------------------------------------------------------------------------------

// Senders begin and end on threads of their own, while the socket goes in and out of its calls.
TEST_F(RoomWatching, BeginningAndEndingOnOtherThreadsLeavesTheReadingAlone) {
    add(pair.near);
    const int64_t owner = handler->GetID();
    const int fd = pair.fd();
    std::atomic<bool> stop{false};
    std::atomic<int> taken{0};
    std::vector<std::thread> senders;
    for (int n = 0; n < 2; ++n) {
        senders.emplace_back([&] {
            while (!stop) {
                RoomPlace place = RoomWatch::begin(owner, fd);
                if (place.is_taken()) {
                    ++taken;
                    EXPECT_TRUE(RoomWatch::stands(place)) << "nobody takes it away";
                    RoomWatch::end(place);
                }
            }
        });
    }
    int reads = 0;
    for (int round = 0; round < 300 || taken < 100; ++round) {
        pair.write();
        ++reads;
        EXPECT_EVENTUALLY((rig.pollAndServe(), handler->life->inputs >= reads));
    }
    stop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    rig.pollAndServe();  // room that was reported before the last wait ended
    EXPECT_EQ(SOCK_READ, mask());
    EXPECT_EQ(0, writePlaces());
    EXPECT_EQ(1, rig.places(0) - 1) << "the wake end, and the socket";
}

}  // namespace
}  // namespace Orvex::Reticor
