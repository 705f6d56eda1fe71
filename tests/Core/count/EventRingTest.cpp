// EventRing: places, what readers see of a ring, and whose ring is taken over.
#include "Core/count/EventRing.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Core/count/Points.h"
#include "support/PoolFixture.h"
#include "support/core/Gate.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint8_t SOME_KIND = 0x35;

size_t ringsInAll() {
    size_t count = 0;
    for (const EventRing* ring = EventRing::First(); ring != nullptr; ring = ring->Next()) {
        ++count;
    }
    return count;
}

// The ring of a thread that did `work` and has ended.
EventRing* ringOfThread(const std::function<void(EventRing&)>& work = {}) {
    EventRing* ring = nullptr;
    std::thread([&] {
        ring = EventRing::Mine();
        if (work) {
            work(*ring);
        }
    }).join();
    return ring;
}

TraceEvent eventAt(const EventRing& ring, uint64_t place) {
    TraceEvent event{};
    ring.Copy(place, 1, &event);
    return event;
}

TEST(EventRing, IsOneForEachThreadAndTheSameEachTime) {
    EventRing* const mine = EventRing::Mine();
    ASSERT_NE(nullptr, mine);
    EXPECT_EQ(mine, EventRing::Mine());
    EXPECT_NE(mine, ringOfThread());
    EXPECT_EQ(2u, ringsInAll());
}

TEST(EventRing, TheHeadTellsWhoseItIs) {
    const DumpThread ended = ringOfThread([](EventRing& ring) {
                                 ring.Put(1, SOME_KIND, 2);
                                 ring.Put(1, SOME_KIND, 3);
                                 EXPECT_EQ(1u, ring.Head().live);
                             })->Head();
    EXPECT_EQ(0u, ended.live);
    EXPECT_EQ(2u, ended.written);
    EXPECT_EQ(2u, ended.count);
    EXPECT_EQ(0u, ended.first);
    EXPECT_EQ(-1, ended.pool);
    ::prctl(PR_SET_NAME, "fifteen letters and more");
    const DumpThread own = EventRing::Mine()->Head();
    EXPECT_EQ(std::string("fifteen letters"), own.name) << "cut, with an end mark";
    EXPECT_EQ(static_cast<uint32_t>(::syscall(SYS_gettid)), own.thread_id);
    EXPECT_EQ(0u, own.written);
    EXPECT_EQ(own.thread_id, EventRing::Mine()->Tail().thread_id);
}

TEST(EventRing, AnEventKeepsItsKindItsObjectAndTheLowerBitsOfItsTime) {
    EventRing& ring = *EventRing::Mine();
    ring.Put(0x1234, SOME_KIND, UINT64_MAX);
    ring.Put(UINT64_MAX, 0xFF, 0);
    EXPECT_EQ(uint64_t{0x1234} << TRACE_TICKS_SHIFT | SOME_KIND, eventAt(ring, 0).ticks_what);
    EXPECT_EQ(UINT64_MAX, eventAt(ring, 0).object);
    EXPECT_EQ(UINT64_MAX, eventAt(ring, 1).ticks_what);
    EXPECT_EQ(0u, eventAt(ring, 1).object);
}

TEST(EventRing, AFullOneLosesItsOldestEvents) {
    EventRing& ring = *EventRing::Mine();
    for (uint64_t number = 0; number < EventRing::PLACES; ++number) {
        ring.Put(number, SOME_KIND, number);
    }
    EXPECT_EQ(EventRing::PLACES, ring.Head().count);
    EXPECT_EQ(0u, eventAt(ring, 0).object);
    ring.Put(0, SOME_KIND, EventRing::PLACES);
    EXPECT_EQ(EventRing::PLACES, eventAt(ring, 0).object);
    EXPECT_EQ(1u, eventAt(ring, 1).object);
    EXPECT_EQ(EventRing::PLACES, ring.Head().count);
    EXPECT_EQ(EventRing::PLACES + 1, ring.Head().written);
    EXPECT_EQ(EventRing::PLACES + 1, ring.Tail().written);
}

TEST(EventRing, CopiesAnyPieceOfIt) {
    EventRing& ring = *EventRing::Mine();
    for (uint64_t number = 0; number < 100; ++number) {
        ring.Put(number, SOME_KIND, 1000 + number);
    }
    TraceEvent events[12] = {};
    ring.Copy(37, 10, events);
    for (uint64_t i = 0; i < 10; ++i) {
        EXPECT_EQ(1037 + i, events[i].object);
    }
    EXPECT_EQ(0u, events[10].object) << "no more than was asked for";
    ring.Copy(0, 0, events);
    EXPECT_EQ(1037u, events[0].object);
}

TEST(EventRing, TheRingOfTheThreadThatEndedFirstIsTakenOverOnceThereAreEnough) {
    std::vector<EventRing*> ended;
    for (size_t i = 0; i < EventRing::MOST_ENDED; ++i) {
        ended.push_back(ringOfThread([i](EventRing& ring) { ring.Put(1, SOME_KIND, i); }));
    }
    EXPECT_EQ(EventRing::MOST_ENDED, std::set<EventRing*>(ended.begin(), ended.end()).size());
    EXPECT_EQ(EventRing::MOST_ENDED, ringsInAll());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(ended[i], ringOfThread([](EventRing& ring) {
                      const DumpThread head = ring.Head();
                      EXPECT_EQ(1u, head.written) << "what the former thread wrote stays counted,";
                      EXPECT_EQ(1u, head.first) << "and is known to be that thread's";
                      EXPECT_EQ(1u, head.live);
                      EXPECT_EQ(static_cast<uint32_t>(::syscall(SYS_gettid)), head.thread_id);
                  }));
    }
    EXPECT_EQ(EventRing::MOST_ENDED, ringsInAll());
    EXPECT_EQ(2u, eventAt(*ended[2], 0).object) << "and can be read until it is written over";
}

TEST(EventRing, ThoseOfLivingThreadsAreNeverTakenOver) {
    Gate gate;
    std::atomic<EventRing*> held{nullptr};
    std::thread living([&] {
        held = EventRing::Mine();
        gate.pass();
        EXPECT_EQ(held.load(), EventRing::Mine());
    });
    ASSERT_TRUE(gate.awaitArrivals(1));
    for (size_t i = 0; i < 2 * EventRing::MOST_ENDED; ++i) {
        EXPECT_NE(held.load(), ringOfThread());
    }
    EXPECT_EQ(EventRing::MOST_ENDED + 1, ringsInAll());
    gate.open();
    living.join();
}

TEST(EventRing, WithoutMemoryThereIsNoneUntilSomebodyHasItTriedAgain) {
    std::thread([] {
        {
            const NoMemory none(0);
            EXPECT_EQ(nullptr, EventRing::Mine());
        }
        EXPECT_EQ(nullptr, EventRing::Mine()) << "there is memory, but nobody asks at each event";
        EventRing::TryAgain();
        EXPECT_NE(nullptr, EventRing::Mine());
    }).join();
    EXPECT_EQ(1u, ringsInAll());
}

TEST(EventRing, AThreadThatEndsGetsNoSecondOne) {
    // Its destructor runs after that of the ring's return, since it was made first.
    struct Late {
        bool* got_one;
        ~Late() { *got_one = EventRing::Mine() != nullptr; }
    };
    bool got_one = true;
    std::thread([&] {
        static thread_local Late late{nullptr};
        late.got_one = &got_one;
        EXPECT_NE(nullptr, EventRing::Mine());
    }).join();
    EXPECT_FALSE(got_one);
    EXPECT_EQ(1u, ringsInAll());
}

class EventRingOfPool : public PoolFixture {};

TEST_F(EventRingOfPool, AWorkersTellsItsPool) {
    auto* handler = new TestHandler;
    std::atomic<int> pool{-2};
    handler->on_message = [&](long, unsigned int, long) {
        pool = EventRing::Mine()->Head().pool;
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    EXPECT_EVENTUALLY(pool == 0);
    closeAndWait(handler);
}

}  // namespace
}  // namespace Orvex::Testing
