// PoolTable: how records, handlers and ids find their pool, and what becomes of them without one.
#include "Core/pool/PoolTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <memory>
#include <thread>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "support/core/SocketPair.h"
#include "support/core/StillPool.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::SocketPair;
using Testing::StillPool;
using Testing::TestHandler;

constexpr int INDEX = StillPool::INDEX;
/// No pool is there, or can be.
constexpr int NOWHERE[] = {INDEX + 1, 63, 64, 255, -1, INT_MAX, INT_MIN};

CEvent* messageOf(int64_t attach) {
    CEvent* const ev = get_event();
    ev->m_key = EVENT_KEY_MESSAGE;
    ev->m_attach = attach;
    ev->m_next = nullptr;
    return ev;
}

// A chain of `count` messages with the attachments from `first` on.
CEvent* messageChain(int64_t first, int64_t count) {
    CEvent* chain = nullptr;
    for (int64_t attach = first + count - 1; attach >= first; --attach) {
        CEvent* const ev = messageOf(attach);
        ev->m_next = chain;
        chain = ev;
    }
    return chain;
}

// The attachments in the pool's queue, in order. Gives the records back.
std::vector<int64_t> queued(StillPool& rig) {
    std::vector<int64_t> found;
    for (CEvent* ev : rig.takeQueue()) {
        found.push_back(ev->m_attach);
        put_event(ev);
    }
    return found;
}

TEST(PoolTable, GetIsNullForWhatIsNotThere) {
    StillPool rig;
    EXPECT_EQ(&rig.pool(), PoolTable::Get(INDEX));
    for (int index : NOWHERE) {
        EXPECT_EQ(nullptr, PoolTable::Get(index)) << index;
    }
}

// ---- records -------------------------------------------------------------------------------------------

TEST(PoolTable, ChainsAndSingleRecordsAreQueuedInTheOrderOfPushingAndFrontOnesAheadOfAll) {
    StillPool rig;
    EXPECT_EQ(0, PoolTable::PushEvent(INDEX, messageChain(1, 3)));
    EXPECT_EQ(0, PoolTable::PushEvent(INDEX, messageOf(4)));
    EXPECT_EQ(0, PoolTable::PushFrontEvent(INDEX, messageOf(5)));
    EXPECT_EQ(0, PoolTable::PushFrontEvent(INDEX, messageOf(6)));
    EXPECT_EQ((std::vector<int64_t>{6, 5, 1, 2, 3, 4}), queued(rig));
}

TEST(PoolTable, WithoutAPoolAllRecordsOfAChainGoToTheFreeList) {
    for (int index : NOWHERE) {
        CEvent* const chain = messageChain(1, 3);
        std::vector<CEvent*> records;
        for (CEvent* ev = chain; ev != nullptr; ev = ev->m_next) {
            records.push_back(ev);
        }
        EXPECT_EQ(0, PoolTable::PushEvent(index, chain)) << index;
        // The one that was put last comes first.
        for (auto record = records.rbegin(); record != records.rend(); ++record) {
            EXPECT_EQ(*record, get_event()) << index;
        }
        for (CEvent* ev : records) {
            put_event(ev);
        }
    }
}

TEST(PoolTable, WithoutAPoolFrontAndSerialRecordsGoToTheFreeListAsWell) {
    for (int index : NOWHERE) {
        CEvent* const front = messageOf(1);
        EXPECT_EQ(0, PoolTable::PushFrontEvent(index, front));
        EXPECT_EQ(front, get_event()) << index;
        EXPECT_EQ(0, PoolTable::PushSerialEvent(index, front));
        EXPECT_EQ(front, get_event()) << index;
        put_event(front);
    }
}

TEST(PoolTable, ASerialRecordWaitsInLineAndRousesTheDrainOnce) {
    StillPool rig;
    // A pool without workers has not made its first drain: the token is on its way.
    EXPECT_FALSE(ThreadPoolProbe::serialIdle(rig.pool()));
    for (int64_t attach = 1; attach <= 3; ++attach) {
        EXPECT_EQ(0, PoolTable::PushSerialEvent(INDEX, messageOf(attach)));
    }
    EXPECT_TRUE(queued(rig).empty()) << "it is not a record of the main queue";
    const CEventQueue::Amounts line = rig.pool().SerialAmounts();
    EXPECT_EQ(3u, line.pushed);
    EXPECT_EQ(0u, line.taken);
    CEventQueue& serial = ThreadPoolProbe::serialQueue(rig.pool());
    for (int64_t attach = 1; attach <= 3; ++attach) {
        CEvent* const ev = serial.TryPop();
        ASSERT_NE(nullptr, ev);
        EXPECT_EQ(attach, ev->m_attach);
        put_event(ev);
    }
}

// ---- handlers ------------------------------------------------------------------------------------------

TEST(PoolTable, AnOpenHandlerIsFoundByItsIdAndPinnedMeanwhile) {
    StillPool rig;
    auto* const handler = new TestHandler(INDEX);
    const int64_t id = handler->GetID();
    const int64_t references = HandlerProbe::references(*handler);
    {
        const HandlerPin pin = PoolTable::FindHandler(id);
        EXPECT_EQ(handler, pin.get());
        EXPECT_EQ(references + 1, HandlerProbe::references(*handler));
    }
    EXPECT_EQ(references, HandlerProbe::references(*handler));
    EXPECT_TRUE(PoolTable::IsOpen(id));
    EXPECT_EQ(references, HandlerProbe::references(*handler)) << "a look takes none";
    rig.close(handler);
    EXPECT_FALSE(PoolTable::FindHandler(id));
    EXPECT_FALSE(PoolTable::IsOpen(id));
}

TEST(PoolTable, NumbersThatAreNobodysIdFindNobody) {
    StillPool rig;
    auto* const handler = new TestHandler(INDEX);
    const int64_t id = handler->GetID();
    for (const int64_t other : {id + 1, id - 1, id - 65536, id + 65536, int64_t{0}, int64_t{-1}, int64_t{7},
                                id ^ int64_t{0x100}, INT64_MAX, INT64_MIN}) {
        EXPECT_FALSE(PoolTable::FindHandler(other)) << other;
        EXPECT_FALSE(PoolTable::IsOpen(other)) << other;
        EXPECT_FALSE(PoolTable::Detach(other)) << other;
    }
    EXPECT_TRUE(PoolTable::IsOpen(id));
    rig.close(handler);
}

TEST(PoolTable, DetachGivesThePoolsReferenceOnceAndTheIdBack) {
    StillPool rig;
    auto* const handler = new TestHandler(INDEX);
    const std::shared_ptr<HandlerLife> life = handler->life;
    const int64_t id = handler->GetID();
    const uint32_t waiting = ObjectIdProbe::count(rig.pool().m_ids);
    handler->Close();
    for (CEvent* ev : rig.takeQueue()) {
        put_event(ev);  // the close message: this is what its worker does
    }
    {
        const HandlerPin pin = PoolTable::Detach(id);
        EXPECT_EQ(handler, pin.get());
        EXPECT_FALSE(PoolTable::IsOpen(id));
        EXPECT_FALSE(PoolTable::FindHandler(id));
        EXPECT_FALSE(PoolTable::Detach(id)) << "a second close message";
        EXPECT_EQ(waiting + 1, ObjectIdProbe::count(rig.pool().m_ids));
        EXPECT_EQ(0, life->closes);
    }
    EXPECT_EQ(1, life->closes) << "that was the last reference";
}

TEST(PoolTable, AnOpenHandlerIsOutOfReachWithoutItsPool) {
    StillPool rig;
    auto* const handler = new TestHandler(INDEX);
    const int64_t id = handler->GetID();
    PoolTable::Set(INDEX, nullptr);
    EXPECT_FALSE(PoolTable::FindHandler(id));
    EXPECT_FALSE(PoolTable::IsOpen(id));
    EXPECT_FALSE(PoolTable::Detach(id));
    PoolTable::Set(INDEX, &rig.pool());
    EXPECT_TRUE(PoolTable::IsOpen(id));
    rig.close(handler);
}

// ---- ids and places ------------------------------------------------------------------------------------

TEST(PoolTable, IdsComeFromThePoolThatIsAskedAndGoBackToTheOneTheyName) {
    StillPool first(INDEX);
    StillPool second(INDEX + 1);
    const long one = PoolTable::AllocId(INDEX);
    const long other = PoolTable::AllocId(INDEX + 1);
    EXPECT_EQ(INDEX, INDEX_OF_ID(one));
    EXPECT_EQ(INDEX + 1, INDEX_OF_ID(other));
    const uint32_t at_first = ObjectIdProbe::count(first.pool().m_ids);
    const uint32_t at_second = ObjectIdProbe::count(second.pool().m_ids);
    PoolTable::ReleaseId(other);
    EXPECT_EQ(at_first, ObjectIdProbe::count(first.pool().m_ids));
    EXPECT_EQ(at_second + 1, ObjectIdProbe::count(second.pool().m_ids));
    PoolTable::ReleaseId(one);
    EXPECT_EQ(at_first + 1, ObjectIdProbe::count(first.pool().m_ids));
}

TEST(PoolTable, WithoutAPoolThereIsNoIdAndOneThatComesBackIsForgotten) {
    for (int index : NOWHERE) {
        EXPECT_EQ(0, PoolTable::AllocId(index)) << index;
        EXPECT_EQ(-1, PoolTable::SocksWithoutPlace(index)) << index;
    }
    PoolTable::ReleaseId((-100L * 256 + INDEX) * 256);
    StillPool rig;
    EXPECT_EQ(0u, ObjectIdProbe::count(rig.pool().m_ids));
    EXPECT_EQ(0, PoolTable::SocksWithoutPlace(INDEX));
}

// Whoever waits for room in a socket of the pool has to look after his place.
TEST(PoolTable, AnEmptiedSlotCountsAsALossOfPlacesAndAFilledOneDoesNot) {
    StillPool rig;
    const uint32_t before = RoomLosses::count();
    PoolTable::Set(INDEX, nullptr);
    EXPECT_EQ(before + 1, RoomLosses::count());
    PoolTable::Set(INDEX, &rig.pool());
    EXPECT_EQ(before + 1, RoomLosses::count());
}

// ---- races ---------------------------------------------------------------------------------------------

// Posting threads and the pool's end: each record is in the queue or back in the free list, none is lost.
TEST(PoolTable, RecordsThatMeetTheEndOfTheirPoolAreQueuedOrGivenBack) {
    StillPool rig;
    std::atomic<bool> stop{false};
    std::atomic<int64_t> pushed{0};
    std::atomic<int64_t> goal{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            while (!stop) {
                if (pushed >= goal) {
                    std::this_thread::yield();
                    continue;
                }
                CEvent* const ev = messageOf(1);
                switch (++pushed % 3) {
                    case 0:
                        PoolTable::PushFrontEvent(INDEX, ev);
                        break;
                    case 1:
                        PoolTable::PushEvent(INDEX, ev);
                        break;
                    default:
                        PoolTable::PushSerialEvent(INDEX, ev);
                }
            }
        });
    }
    size_t taken = 0;
    for (int round = 0; round < 200; ++round) {
        goal = pushed + 100;
        EXPECT_EVENTUALLY(pushed > goal - 90);
        PoolTable::Set(INDEX, nullptr);
        // Nobody pushes any more: both queues have what they have.
        const size_t main_size = queued(rig).size();
        CEventQueue& serial = ThreadPoolProbe::serialQueue(rig.pool());
        for (CEvent* ev = serial.TryPop(); ev != nullptr; ev = serial.TryPop()) {
            put_event(ev);
            ++taken;
        }
        EXPECT_TRUE(queued(rig).empty()) << "somebody has pushed into a pool that is out of reach";
        taken += main_size;
        PoolTable::Set(INDEX, &rig.pool());
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(taken, 0u);
    queued(rig);
}

// Lookups from outside while handlers come and go: what is found is alive, and its last reference is dropped
// by whoever was last.
TEST(PoolTable, LookupsOfOtherThreadsMeetHandlersThatClose) {
    StillPool rig;
    std::atomic<bool> stop{false};
    std::atomic<int64_t> present{0};
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            while (!stop) {
                const int64_t id = present;
                const HandlerPin pin = PoolTable::FindHandler(id);
                if (pin) {
                    ++found;
                    EXPECT_EQ(0, static_cast<TestHandler*>(pin.get())->life->deleted);
                } else {
                    EXPECT_FALSE(PoolTable::IsOpen(id)) << "ids do not come back so soon";
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int round = 0; round < 200; ++round) {
        auto* const handler = new TestHandler(INDEX);
        const std::shared_ptr<HandlerLife> life = handler->life;
        present = handler->GetID();
        const int before = found;
        EXPECT_EVENTUALLY(found > before);
        handler->Close();
        for (CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
        EXPECT_EVENTUALLY(life->closes == 1 && life->deleted == 1);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
