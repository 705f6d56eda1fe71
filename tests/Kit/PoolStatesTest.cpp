// Pool: empty, moved, stopping; where calls run, in which order, and what its end finds.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>
#include <Reticor/kit/Timer.h>

#include "Kit/MailboxBody.h"
#include "Kit/PoolState.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/ThreadFault.h"
#include "support/kit/Live.h"
#include "support/kit/Peer.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;

/// Keeps workers of a pool inside calls until it lets them go.
class Keeper {
public:
    /// Returns when the workers are inside.
    Keeper(Kit::Pool& pool, int workers) : m_workers(workers) {
        for (int i = 0; i < workers; ++i) {
            pool.post([doors = m_doors] {
                doors->inside.post();
                doors->go.pend();
            });
        }
        for (int i = 0; i < workers; ++i) {
            m_doors->inside.pend();
        }
    }
    void let_go() {
        for (; m_workers > 0; --m_workers) {
            m_doors->go.post();
        }
    }

private:
    struct Doors {
        CSemaphore inside{0};
        CSemaphore go{0};
    };
    int m_workers;
    const std::shared_ptr<Doors> m_doors = std::make_shared<Doors>();
};

/// A pool of one thread is as large as the machine has processors.
int least_workers() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

using Ways =
    std::vector<std::pair<const char*, std::function<bool(Kit::Pool&, Kit::UniqueFunction<void()>)>>>;

Ways ways_to_post() {
    return {
        {"post", [](Kit::Pool& pool, auto call) { return pool.post(std::move(call)); }},
        {"postSerial", [](Kit::Pool& pool, auto call) { return pool.postSerial(std::move(call)); }},
        {"postIO", [](Kit::Pool& pool, auto call) { return pool.postIO(std::move(call)); }},
    };
}

class KitPoolState : public testing::Test {
protected:
    auto use() {
        return [token = m_live.token()]() mutable { token.use(); };
    }
    Live m_live;
};

TEST_F(KitPoolState, AnEmptyOneTakesNothing) {
    Kit::Pool with_file_workers(1, true);
    Kit::Pool none;
    EXPECT_FALSE(none.isOpen());
    EXPECT_EQ(-1, none.index());
    for (const auto& way : ways_to_post()) {
        EXPECT_FALSE(way.second(none, use())) << way.first;
        EXPECT_EQ(0, m_live.count()) << way.first;
    }
    const Kit::StopReport report = none.stop();
    EXPECT_EQ(0U, report.cut + report.stayed);
    Kit::Pool moved = std::move(none);
    EXPECT_FALSE(moved.isOpen());
}

TEST_F(KitPoolState, NullIsTakenInNoWay) {
    Kit::Pool pool(1, true);
    for (const auto& way : ways_to_post()) {
        EXPECT_FALSE(way.second(pool, nullptr)) << way.first;
    }
    EXPECT_EQ(0U, pool.stop().stayed);
}

TEST_F(KitPoolState, MovesItsWorkersAndEndsThoseItHadBefore) {
    Kit::Pool first(1);
    Kit::Pool second(1);
    const int index = first.index();
    ASSERT_NE(index, second.index());
    EXPECT_TRUE(second.post(use()));
    second = std::move(first);
    EXPECT_EQ(1, m_live.used()) << "the call ran before the pool that it was posted to ended";
    EXPECT_FALSE(first.isOpen());
    EXPECT_FALSE(first.post(use()));
    EXPECT_EQ(index, second.index());
    EXPECT_TRUE(second.post(use()));
    EXPECT_EVENTUALLY(m_live.used() == 2);
    Kit::Pool third(std::move(second));
    EXPECT_FALSE(second.isOpen());
    EXPECT_EQ(index, third.index());
    third = Kit::Pool();
    EXPECT_FALSE(third.isOpen());
    EXPECT_EQ(0, m_live.count());
}

TEST_F(KitPoolState, StoppedTwiceDoesNothingAndTakesNothing) {
    Kit::Pool pool(1, true);
    pool.stop();
    EXPECT_EQ(-1, pool.index());
    const Kit::StopReport again = pool.stop(-5ms);
    EXPECT_EQ(0U, again.cut + again.stayed);
    for (const auto& way : ways_to_post()) {
        EXPECT_FALSE(way.second(pool, use())) << way.first;
    }
    EXPECT_EQ(0, m_live.count());
}

// Also what a call posts to its own pool that is stopping is run, or refused visibly.
TEST_F(KitPoolState, WhileItStopsItRefusesAndForgetsNothing) {
    Kit::Pool pool(1);
    CSemaphore inside(0);
    CSemaphore go(0);
    std::atomic<bool> taken{true};
    pool.post([&] {
        inside.post();
        go.pend();
        taken = pool.post(use());
    });
    pool.post(use());
    inside.pend();
    std::thread stopper([&] { EXPECT_EQ(0U, pool.stop().stayed); });
    EXPECT_EVENTUALLY(!pool.post([] {}));
    go.post();
    stopper.join();
    EXPECT_FALSE(taken);
    EXPECT_EQ(1, m_live.used());
    EXPECT_EQ(0, m_live.count());
}

TEST_F(KitPoolState, BeginsCallsInTheOrderOfTheirPosting) {
    Kit::Pool pool(1);
    const int workers = least_workers();
    Keeper others(pool, workers - 1);  // so that one is left
    std::vector<int> order;
    CSemaphore done(0);
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(pool.post([&order, i] { order.push_back(i); }));
    }
    ASSERT_TRUE(pool.post([&done] { done.post(); }));
    done.pend();
    others.let_go();
    ASSERT_EQ(500U, order.size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(KitPoolState, RunsCallsSideBySideAndSerialOnesNot) {
    CSemaphore met(0);
    CSemaphore here(0);
    Kit::Pool pool(2 *
                   static_cast<unsigned>(least_workers()));  // ends first: its calls use what stands above
    const auto meet = [&] {                                  // neither goes on without the other
        here.post();
        met.pend();
    };
    ASSERT_TRUE(pool.post(meet));
    ASSERT_TRUE(pool.post(meet));
    here.pend();
    here.pend();
    met.post();
    met.post();

    int inside = 0;  // no atomic: that is the point
    std::atomic<int> overlaps{0};
    std::atomic<int> runs{0};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
        posters.emplace_back([&] {
            for (int k = 0; k < 300; ++k) {
                EXPECT_TRUE(pool.postSerial([&] {
                    overlaps += ++inside != 1 ? 1 : 0;
                    --inside;
                    ++runs;
                }));
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_EVENTUALLY(runs == 900);
    EXPECT_EQ(0, overlaps);
}

TEST_F(KitPoolState, BlockingCallsTakeNoWorker) {
    Kit::Pool pool(1, true);
    CSemaphore go(0);
    const int blocked = 2 * least_workers();
    for (int i = 0; i < blocked; ++i) {
        ASSERT_TRUE(pool.postIO([&go] { go.pend(); }));
    }
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(pool.post(use()));
    }
    EXPECT_EVENTUALLY(m_live.used() == 20);
    for (int i = 0; i < blocked; ++i) {
        go.post();
    }
    EXPECT_EQ(0U, pool.stop().stayed);
}

TEST_F(KitPoolState, WaitsForBlockingCallsBeforeItEnds) {
    Kit::Pool pool(1, true);
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(pool.postIO(use()));
    }
    EXPECT_EQ(0U, pool.stop().stayed);
    EXPECT_EQ(200, m_live.used());
    EXPECT_EQ(0, m_live.count());
}

// As many as waited at a time are kept for the next ones, and no more than a thousand of them.
TEST_F(KitPoolState, LettersOfAGreatBurstAreGivenBack) {
    Kit::Pool pool(1);
    size_t allocated = 0;
    for (int burst = 1; burst <= 2; ++burst) {
        Keeper all(pool, least_workers());
        const size_t before = allocationCount();
        for (int i = 0; i < 3000; ++i) {
            ASSERT_TRUE(pool.post(use()));
        }
        allocated = allocationCount() - before;
        all.let_go();
        EXPECT_EVENTUALLY(m_live.used() == burst * 3000 && m_live.count() == 0);
    }
    EXPECT_GE(allocated, 3000U - 1024U);
    EXPECT_LE(allocated, 3000U);
}

TEST_F(KitPoolState, SaysWhenItHasNoThreads) {
    LogCapture log;
    {
        const ThreadFault none;
        Kit::Pool pool(2);
        EXPECT_FALSE(pool.isOpen());
        EXPECT_FALSE(pool.post(use()));
        EXPECT_EQ(0, m_live.count());
    }
    EXPECT_GE(log.countLevel(2) + log.countLevel(1), 1U) << "the library has logged why";
    Kit::Pool next(2);
    EXPECT_TRUE(next.isOpen());
}

TEST_F(KitPoolState, OneThatIsMadeLaterHasNothingToDoWithHandlesOfAnEndedOne) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    Peer peer(ends[1]);
    Kit::Connection connection;
    Kit::Timer timer;
    int index = -1;
    {
        Kit::Pool ended(1);
        index = ended.index();
        connection = Kit::Connection::adopt(ended, ends[0], {}, [](Kit::Connection&) {});
        timer = Kit::Timer(ended, 1h, use());
    }
    Kit::Pool next(1);
    EXPECT_EQ(index, next.index()) << "it stands in the same place";
    EXPECT_FALSE(connection.isOpen());
    EXPECT_FALSE(connection.post([](Kit::Connection&) {}));
    connection.close();
    timer.cancel();
    EXPECT_FALSE(timer.isArmed());
    EXPECT_TRUE(next.post(use()));
    EXPECT_EVENTUALLY(m_live.used() == 1);
}

/// Connections of a pool, with their peers.
struct Clients {
    Kit::Connection& come(Kit::Pool& pool, Kit::Connection::Event start) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        peers.emplace_back(ends[1]);
        connections.push_back(Kit::Connection::adopt(pool, ends[0], {}, std::move(start)));
        return connections.back();
    }
    std::vector<Peer> peers;
    std::vector<Kit::Connection> connections;
};

TEST_F(KitPoolState, CountsWhomItCutsWithBytesThatWait) {
    const std::string megabyte(1 << 20, 'm');
    for (const auto drain : {10ms, 0ms, -5ms}) {
        Kit::Pool pool(2);
        Clients clients;
        for (int i = 0; i < 5; ++i) {
            Kit::Connection& connection = clients.come(pool, [](Kit::Connection&) {});
            if (i < 3) {
                EXPECT_TRUE(connection.write(megabyte));
            }
        }
        const Kit::StopReport report = pool.stop(drain);
        EXPECT_EQ(3U, report.cut);
        EXPECT_EQ(0U, report.stayed);
    }
}

TEST_F(KitPoolState, NamesWhoStaysOnceForEachClass) {
    struct Doors {
        CSemaphore inside{0};
        CSemaphore go{0};
    };
    const auto doors = std::make_shared<Doors>();
    const auto stay = [doors] {
        doors->inside.post();
        doors->go.pend();
    };
    Kit::Pool pool(4);
    Clients clients;
    for (int i = 0; i < 2; ++i) {
        clients.come(pool, [stay](Kit::Connection&) { stay(); });
    }
    ASSERT_TRUE(pool.post(stay));
    for (int i = 0; i < 3; ++i) {
        doors->inside.pend();
    }
    LogCapture log;
    std::thread release([&] {
        EXPECT_TRUE(log.eventuallyContainsMatching(2, "the pools are stopped[^]*"));
        doors->go.post(3, 3);
    });
    EXPECT_EQ(3U, pool.stop(0ms).stayed);
    release.join();
    EXPECT_EQ(1U, log.count(2,
                            "the pools are stopped, but 3 stay in call-backs that do not return: 2 of class "
                            "Connection, 1 of class posted call\n"))
        << log.dump();
}

TEST_F(KitPoolState, ACallThatEndsItsThreadIsOver) {
    Kit::Pool pool(4);
    ASSERT_TRUE(pool.post([token = m_live.token()]() mutable {
        token.use();
        pthread_exit(nullptr);
    }));
    EXPECT_EVENTUALLY(m_live.used() == 1 && m_live.count() == 0);
    ASSERT_TRUE(pool.post(use()));
    EXPECT_EVENTUALLY(m_live.used() == 2);
    EXPECT_EQ(0U, pool.stop().stayed);
}

// Whatever is posted, in whatever way, by whom and when: it is run once, or destroyed once without that, and
// what was refused is not run.
TEST_F(KitPoolState, RandomPostsAreRunOrDestroyedOnce) {
    SeededRandom random;
    for (int round = 0; round < 20; ++round) {
        struct Sum {
            std::atomic<int> taken{0};
            std::atomic<int> refused{0};
            std::atomic<int> nested{0};
        } sum;
        Live live;
        const Ways ways = ways_to_post();
        Kit::Pool pool(2, true);
        std::vector<std::thread> posters;
        for (int i = 0; i < 3; ++i) {
            posters.emplace_back([&, mine = random.fork()]() mutable {
                for (int k = 0; k < 200; ++k) {
                    const auto& way = ways[mine.between<size_t>(0, 1)];
                    const bool nests = mine.oneIn(4);
                    const bool good = way.second(pool, [&, nests, token = live.token()]() mutable {
                        token.use();
                        if (nests && pool.post([inner = live.token()]() mutable { inner.use(); })) {
                            ++sum.nested;
                        }
                    });
                    ++(good ? sum.taken : sum.refused);
                }
            });
        }
        const auto drain = std::chrono::milliseconds(random.between(0, 1) * 5000);
        if (random.oneIn(2)) {
            for (std::thread& poster : posters) {
                poster.join();
            }
            posters.clear();
        }
        EXPECT_EQ(0U, pool.stop(drain).stayed);
        for (std::thread& poster : posters) {
            poster.join();
        }
        EXPECT_EQ(0, live.count());
        EXPECT_EQ(600, sum.taken + sum.refused);
        EXPECT_LE(live.used(), sum.taken + sum.nested);
        if (drain.count() != 0) {
            EXPECT_EQ(live.used(), sum.taken + sum.nested);
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
