// CPoolSet: clients are spread over private pools, as many as these can watch, and no more.
#include <Reticor/PoolSet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <Reticor/NetThread.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/TestHandler.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::SocketPair;
using Testing::TestHandler;
using Place = CPoolSet::Place;

constexpr unsigned int BOTH = SOCK_READ | SOCK_WRITE;

// The number of private pools that there are.
int privatePools() {
    int count = 0;
    for (int index = 1; index < PoolTable::POOL_LIMIT; ++index) {
        count += PoolTable::Get(index) != nullptr ? 1 : 0;
    }
    return count;
}

class PoolSet : public ::testing::Test {
protected:
    void TearDown() override {
        set.Destroy();
        EXPECT_EQ(0, privatePools());
    }
    Place next(unsigned int mask = SOCK_READ) {
        Place place;
        EXPECT_EQ(0, set.Next(mask, place));
        return place;
    }
    // How many of the places are in each pool.
    static std::map<int, int> spread(const std::vector<Place>& places) {
        std::map<int, int> found;
        for (const Place& place : places) {
            ++found[place.GetPool()];
        }
        return found;
    }

    CPoolSet set;
};

// ---- create and destroy --------------------------------------------------------------------------------

TEST_F(PoolSet, MakesItsPoolsAndTakesThemDown) {
    EXPECT_EQ(0, set.Create(3, 2));
    EXPECT_EQ(3, privatePools());
    EXPECT_EQ(0, set.Destroy());
    EXPECT_EQ(0, privatePools());
    EXPECT_EQ(-1, set.Destroy());
    EXPECT_EQ(0, set.Create(1, 2)) << "and again";
    EXPECT_EQ(1, privatePools());
}

TEST_F(PoolSet, TakesItsPoolsDownWithItself) {
    {
        CPoolSet other;
        EXPECT_EQ(0, other.Create(2, 2));
        EXPECT_EQ(2, privatePools());
    }
    EXPECT_EQ(0, privatePools());
}

TEST_F(PoolSet, RefusesNumbersThatCannotBeAndASecondCreateWithALine) {
    LogCapture log;
    EXPECT_EQ(-1, set.Create(0, 2));
    EXPECT_EQ(-1, set.Create(64, 2));
    EXPECT_EQ(-1, set.Create(UINT32_MAX, 2));
    EXPECT_EQ(0, set.Create(1, 2));
    EXPECT_EQ(-1, set.Create(1, 2));
    EXPECT_EQ(4u, log.countLevel(2)) << log.dump();
    EXPECT_EQ(1u, log.count(2, "Can't create 64 pools, a set that has none takes 1 to 63!\n")) << log.dump();
    EXPECT_EQ(1, privatePools());
}

TEST_F(PoolSet, LeavesNothingBehindWhereOneOfThePoolsCannotBe) {
    const int one = CNetThread::CreatePrivatePool(1, false);
    ASSERT_GT(one, 0);
    LogCapture log;
    EXPECT_EQ(-1, set.Create(63, 1));
    EXPECT_EQ(1u, log.count(2, "No more private pool can be created!\n")) << log.dump();
    EXPECT_EQ(1, privatePools());
    Place place;
    EXPECT_EQ(-1, set.Next(SOCK_READ, place));
    EXPECT_EQ(0, set.Create(62, 1));
    EXPECT_EQ(0, set.Destroy());
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(one));
}

TEST_F(PoolSet, WithoutMemoryNothingIsMade) {
    LogCapture log;
    {
        Testing::OneAllocationFails fault(0);
        EXPECT_EQ(-1, set.Create(2, 2));
    }
    EXPECT_EQ(1u, log.count(2, "Can't create 2 pools, there is no memory!\n")) << log.dump();
    EXPECT_EQ(0, privatePools());
    EXPECT_EQ(0, set.Create(2, 2));
}

// ---- places --------------------------------------------------------------------------------------------

TEST_F(PoolSet, WithoutPoolsThereIsNoPlace) {
    Place place;
    EXPECT_EQ(-1, set.Next(SOCK_READ, place));
    EXPECT_EQ(-1, place.GetPool());
    EXPECT_EQ(0, set.GetRoom(SOCK_READ));
    place.Release();  // nothing
}

TEST_F(PoolSet, SpreadsClientsEvenly) {
    ASSERT_EQ(0, set.Create(3, 1));
    std::vector<Place> places;
    for (int i = 0; i < 30; ++i) {
        places.push_back(next());
        const std::map<int, int> found = spread(places);
        EXPECT_EQ(static_cast<size_t>(std::min(i + 1, 3)), found.size());
        for (const auto& pool : found) {
            EXPECT_NE(nullptr, PoolTable::Get(pool.first));
            EXPECT_NEAR(pool.second, i / 3 + 1, 1);
        }
    }
}

TEST_F(PoolSet, TheNextClientComesWhereMostPlacesWereGivenBack) {
    ASSERT_EQ(0, set.Create(3, 1));
    std::vector<Place> places;
    for (int i = 0; i < 9; ++i) {
        places.push_back(next());
    }
    const int left = places[4].GetPool();
    places[4].Release();
    EXPECT_EQ(-1, places[4].GetPool());
    EXPECT_EQ(left, next().GetPool());
    places[4].Release();  // a second time: nothing
    EXPECT_EQ(left, next().GetPool()) << "the last one was given back by its destructor";
}

TEST_F(PoolSet, AClientThatIsWaitedOnForRoomCountsTwice) {
    ASSERT_EQ(0, set.Create(2, 1));
    const Place both = next(BOTH);
    const Place first = next();
    const Place second = next();
    EXPECT_NE(both.GetPool(), first.GetPool());
    EXPECT_EQ(first.GetPool(), second.GetPool());
}

TEST_F(PoolSet, IsFullWhenNoPoolHasAPlaceAndSaysSoEachTime) {
    ASSERT_EQ(0, set.Create(2, 1));
    std::vector<Place> places;
    EXPECT_EQ(2 * CPoolSet::PLACES, set.GetRoom(SOCK_READ));
    for (int i = 0; i < 2 * CPoolSet::PLACES; ++i) {
        places.push_back(next());
    }
    for (const auto& pool : spread(places)) {
        EXPECT_EQ(CPoolSet::PLACES, pool.second);
    }
    EXPECT_EQ(0, set.GetRoom(SOCK_READ));
    for (int i = 0; i < 3; ++i) {
        Place none;
        EXPECT_EQ(-1, set.Next(SOCK_READ, none));
        EXPECT_EQ(-1, none.GetPool());
    }
    const int kept = places[7].GetPool();
    EXPECT_EQ(-1, set.Next(SOCK_READ, places[7]));
    EXPECT_EQ(kept, places[7].GetPool()) << "what was held is held";
    places[7].Release();
    EXPECT_EQ(1, set.GetRoom(SOCK_READ));
    EXPECT_EQ(kept, next().GetPool());
}

TEST_F(PoolSet, DirectionsAreFullOneByOne) {
    ASSERT_EQ(0, set.Create(1, 1));
    std::vector<Place> places;
    for (int i = 0; i < CPoolSet::PLACES; ++i) {
        places.push_back(next(SOCK_WRITE));
    }
    Place place;
    EXPECT_EQ(-1, set.Next(SOCK_WRITE, place));
    EXPECT_EQ(-1, set.Next(BOTH, place));
    EXPECT_EQ(0, set.GetRoom(BOTH));
    EXPECT_EQ(CPoolSet::PLACES, set.GetRoom(SOCK_READ));
    EXPECT_EQ(CPoolSet::PLACES, set.GetRoom(SOCK_READ | SOCK_EXCEPT));
    EXPECT_EQ(0, set.Next(SOCK_READ | SOCK_EXCEPT, place));
    EXPECT_EQ(CPoolSet::PLACES - 1, set.GetRoom(SOCK_EXCEPT));
}

TEST_F(PoolSet, AFullPoolIsPassedOverThoughItHasMorePlacesInAll) {
    ASSERT_EQ(0, set.Create(2, 1));
    std::vector<Place> readers;
    std::vector<Place> writers;
    for (int i = 0; i < 2 * CPoolSet::PLACES; ++i) {
        readers.push_back(next(SOCK_READ));
        writers.push_back(next(SOCK_WRITE));
    }
    const int first = readers[0].GetPool();
    for (Place& writer : writers) {
        if (writer.GetPool() == first) {
            writer.Release();
        }
    }
    const auto elsewhere = std::find_if(readers.begin(), readers.end(),
                                        [&](const Place& reader) { return reader.GetPool() != first; });
    const int second = elsewhere->GetPool();
    elsewhere->Release();
    EXPECT_EQ(second, next(SOCK_READ).GetPool());
    EXPECT_EQ(first, next(SOCK_WRITE).GetPool());
    Place none;
    EXPECT_EQ(-1, set.Next(BOTH, none)) << "each pool has one half of it";
}

TEST_F(PoolSet, MasksThatNameNoDirectionGetNothingAndOtherBitsAreIgnored) {
    ASSERT_EQ(0, set.Create(1, 1));
    Place place;
    EXPECT_EQ(-1, set.Next(0, place));
    EXPECT_EQ(-1, set.Next(8, place));
    EXPECT_EQ(0, set.GetRoom(0));
    EXPECT_EQ(0, set.GetRoom(~7u));
    EXPECT_EQ(0, set.Next(~0u, place));
    EXPECT_EQ(CPoolSet::PLACES - 1, set.GetRoom(SOCK_READ));
    place.Release();
    EXPECT_EQ(CPoolSet::PLACES, set.GetRoom(SOCK_READ));
}

TEST_F(PoolSet, APlaceMovesAndIsGivenBackOnce) {
    ASSERT_EQ(0, set.Create(2, 1));
    const int all = set.GetRoom(SOCK_READ);
    Place first = next();
    const int pool = first.GetPool();
    Place second(std::move(first));
    EXPECT_EQ(pool, second.GetPool());
    EXPECT_EQ(all - 1, set.GetRoom(SOCK_READ));
    Place third = next(BOTH);
    third = std::move(second);
    EXPECT_EQ(pool, third.GetPool());
    EXPECT_EQ(all - 1, set.GetRoom(SOCK_READ)) << "what it held before is given back";
    Place& itself = third;
    third = std::move(itself);
    EXPECT_EQ(pool, third.GetPool());
    EXPECT_EQ(0, set.Next(SOCK_READ, third)) << "the same, by Next";
    EXPECT_EQ(all - 1, set.GetRoom(SOCK_READ));
    third = Place();
    EXPECT_EQ(all, set.GetRoom(SOCK_READ));
}

TEST_F(PoolSet, APlaceMayOutliveItsSet) {
    auto other = std::make_unique<CPoolSet>();
    ASSERT_EQ(0, other->Create(2, 1));
    Place place;
    ASSERT_EQ(0, other->Next(SOCK_READ, place));
    Place later;
    ASSERT_EQ(0, other->Next(BOTH, later));
    EXPECT_EQ(0, other->Destroy());
    EXPECT_EQ(-1, other->Next(SOCK_READ, place));
    EXPECT_EQ(0, other->Create(1, 1));
    EXPECT_EQ(CPoolSet::PLACES, other->GetRoom(SOCK_READ)) << "those places were of other pools";
    place.Release();
    EXPECT_EQ(CPoolSet::PLACES, other->GetRoom(SOCK_READ));
    other.reset();
}  // a leak checker sees whether the last one has taken the rest along

// What is reserved, by pool and direction, and the rule by which the next pool is chosen.
class SetModel {
public:
    explicit SetModel(size_t pools) : m_taken(pools, {0, 0, 0}) {}

    int room(size_t pool, unsigned int mask) const {
        int least = INT_MAX;
        for (unsigned int i = 0; i < 3; ++i) {
            least = (mask >> i & 1) != 0 ? std::min(least, CPoolSet::PLACES - m_taken[pool][i]) : least;
        }
        return least;
    }
    int room(unsigned int mask) const {
        int sum = 0;
        for (size_t pool = 0; pool < m_taken.size(); ++pool) {
            sum += room(pool, mask);
        }
        return sum;
    }
    // The pool with room that has least in it, the first of equals; -1 if there is none.
    int choose(unsigned int mask) const {
        int best = -1;
        int least = INT_MAX;
        for (size_t pool = 0; pool < m_taken.size(); ++pool) {
            const int sum = m_taken[pool][0] + m_taken[pool][1] + m_taken[pool][2];
            if (room(pool, mask) > 0 && sum < least) {
                least = sum;
                best = static_cast<int>(pool);
            }
        }
        return best;
    }
    void add(int pool, unsigned int mask, int count) {
        for (unsigned int i = 0; i < 3; ++i) {
            m_taken[static_cast<size_t>(pool)][i] += (mask >> i & 1) != 0 ? count : 0;
        }
    }

private:
    std::vector<std::array<int, 3>> m_taken;
};

TEST_F(PoolSet, RandomReservationsAgreeWithAPlainCount) {
    Testing::SeededRandom random;
    ASSERT_EQ(0, set.Create(3, 1));
    SetModel model(3);
    std::vector<std::pair<Place, unsigned int>> held;
    const int first = next().GetPool();  // given back at once
    for (int step = 0; step < 60000; ++step) {
        // The set runs full, then half empty, and so on.
        const bool filling = step / 15000 % 2 == 0;
        if (random.between(0, 9) < (filling ? 9 : 3) || held.empty()) {
            const unsigned int mask = random.between(1u, 7u);
            const int expected = model.choose(mask);
            Place place;
            ASSERT_EQ(expected == -1 ? -1 : 0, set.Next(mask, place));
            if (expected != -1) {
                ASSERT_EQ(first + expected, place.GetPool());
                model.add(expected, mask, 1);
                held.emplace_back(std::move(place), mask);
            }
        } else {
            const size_t which = random.between<size_t>(0, held.size() - 1);
            model.add(held[which].first.GetPool() - first, held[which].second, -1);
            std::swap(held[which], held.back());
            held.pop_back();
        }
        if (step % 100 == 0) {
            const unsigned int mask = random.between(1u, 7u);
            ASSERT_EQ(model.room(mask), set.GetRoom(mask));
        }
    }
    held.clear();
    EXPECT_EQ(3 * CPoolSet::PLACES, set.GetRoom(BOTH));
}

TEST_F(PoolSet, ManyThreadsTakeAndGiveBack) {
    ASSERT_EQ(0, set.Create(2, 1));
    const int all = set.GetRoom(BOTH);
    std::vector<Place> others;  // so that the rest is scarce
    for (int i = 0; i < all - 20; ++i) {
        others.push_back(next(BOTH));
    }
    std::atomic<int> held{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&] {
            std::vector<Place> mine(10);
            for (int i = 0; i < 3000; ++i) {
                Place& place = mine[static_cast<size_t>(i * 7 % 10)];
                if (place.GetPool() != -1) {
                    --held;
                    place.Release();
                } else if (set.Next(BOTH, place) == 0) {
                    EXPECT_LE(++held, 20);
                }
            }
            for (const Place& place : mine) {
                held -= place.GetPool() != -1 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, held);
    EXPECT_EQ(20, set.GetRoom(BOTH));
}

// ---- what the places are for ---------------------------------------------------------------------------

// Many numbers for one end of a pair.
class Copies {
public:
    Copies(int fd, int count) {
        Testing::allowDescriptors(static_cast<rlim_t>(count) + 200);
        for (int i = 0; i < count; ++i) {
            m_socks.push_back(std::make_unique<Testing::BorrowedSock>(::fcntl(fd, F_DUPFD_CLOEXEC, 0)));
            EXPECT_GE(m_socks.back()->GetHandle(), 0);
        }
    }
    ~Copies() {
        for (const auto& sock : m_socks) {
            ::close(sock->GetHandle());
        }
    }
    CSock& operator[](int i) { return *m_socks[static_cast<size_t>(i)]; }

private:
    std::vector<std::unique_ptr<Testing::BorrowedSock>> m_socks;
};

TEST_F(PoolSet, APoolWatchesAsManySocketsAsItHasPlacesAndAMarginWhateverIsInFlight) {
    ASSERT_EQ(0, set.Create(1, 2));
    std::vector<Place> places;
    while (set.GetRoom(BOTH) > 0) {
        places.push_back(next(BOTH));
    }
    const int pool = places[0].GetPool();
    auto* const handler = new TestHandler(pool);
    const std::shared_ptr<HandlerLife> life = handler->life;
    SocketPair pair;
    const int count = CPoolSet::PLACES + CPoolSet::MARGIN;
    Copies copies(pair.fd(), count);
    std::atomic<int> calls{0};
    handler->on_input = [&](int) {
        ++calls;
        return 0;
    };
    handler->on_output = handler->on_input;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(0, handler->RegisterSock(copies[i], BOTH, 0));
    }
    // All are ready to write all the time, and go in and out of their calls.
    EXPECT_EVENTUALLY(calls > 3 * count);
    EXPECT_EQ(0, CNetThread::GetSocksWithoutPlace(pool));
    for (int i = 0; i < count; ++i) {
        handler->RemoveSock(copies[i]);
    }
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
}

// A client, as products write it: the place goes with the handler.
class Client : public TestHandler {
public:
    explicit Client(Place place) : TestHandler(place.GetPool()), m_place(std::move(place)) {}

private:
    Place m_place;
};

TEST_F(PoolSet, AHandlerRunsOnThePoolOfItsPlaceAndGivesItBackWithItself) {
    ASSERT_EQ(0, set.Create(2, 1));
    const int all = set.GetRoom(SOCK_READ);
    std::vector<Client*> clients;
    std::vector<std::shared_ptr<HandlerLife>> lives;
    for (int i = 0; i < 4; ++i) {
        Place place = next();
        const int pool = place.GetPool();
        clients.push_back(new Client(std::move(place)));
        lives.push_back(clients.back()->life);
        EXPECT_EQ(pool, INDEX_OF_ID(clients.back()->GetID()));
        clients.back()->Notify(clients.back()->GetID(), 1, 0);
        EXPECT_EVENTUALLY(lives.back()->messages == 1);
    }
    EXPECT_EQ(all - 4, set.GetRoom(SOCK_READ));
    for (Client* client : clients) {
        client->Close();
    }
    for (const auto& life : lives) {
        EXPECT_EVENTUALLY(life->closes == 1);
    }
    EXPECT_EQ(all, set.GetRoom(SOCK_READ));
}

}  // namespace
}  // namespace Orvex::Reticor
