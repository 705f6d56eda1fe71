// CNetSock: the ways between the states of a socket's record, taken by several threads at once. Seeds are
// printed; RETICOR_TEST_SEED repeats one.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "Core/record/EventFreeList.h"
#include "support/PoolFixture.h"
#include "support/Rounds.h"
#include "support/SeededRandom.h"
#include "support/core/FastClock.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// One socket, two handlers that read it empty, and what they saw.
class Contested {
public:
    explicit Contested(uint64_t seed) : random(seed) {
        for (TestHandler* handler : {a, b}) {
            handler->on_input = [this](int fd) { return call(fd, true); };
            handler->on_input_timeout = [this](int fd) { return call(fd, false); };
            handler->on_output = handler->on_output_timeout = handler->on_input_timeout;
        }
    }

    // Removes the socket for good, and looks whether all that it held is given back.
    void finish(CThreadPool& pool) {
        a->RemoveSock(pair.near);
        const int before = entered;
        EXPECT_EVENTUALLY(!known(pool, number));
        EXPECT_LE(entered - before, 1) << "only the call that was running";
        EXPECT_EQ(0, overlaps);
        // Each counts its own registrations and removals, so only the sum is certain.
        EXPECT_EQ(0, HandlerProbe::sockets(*a) + HandlerProbe::sockets(*b));
        while (HandlerProbe::sockets(*a) > 0 || HandlerProbe::sockets(*b) > 0) {
            (HandlerProbe::sockets(*a) > 0 ? a : b)->DecSock();  // or its end would be logged
        }
        const std::shared_ptr<HandlerLife> lives[] = {a->life, b->life};
        a->Close();
        b->Close();
        EXPECT_EVENTUALLY(lives[0]->closes == 1 && lives[1]->closes == 1);
    }

    // A registered socket is alive: what arrives is read.
    void expectAlive() {
        const int before = bytes;
        pair.poke();
        EXPECT_EVENTUALLY(bytes > before);
    }

    static bool known(CThreadPool& pool, int fd) {
        pool.m_sock_tree.ReadLock();
        bool found = false;
        pool.m_sock_tree.ForEach(
            [&](void* payload) { found = found || static_cast<CEvent*>(payload)->m_key == fd; });
        pool.m_sock_tree.Unlock();
        return found;
    }

    SeededRandom random;
    SocketPair pair;
    const int number = pair.fd();
    TestHandler* const a = new TestHandler;
    TestHandler* const b = new TestHandler;
    std::function<int()> inside = [] { return 0; };
    std::atomic<int> entered{0};
    std::atomic<int> timeouts{0};
    std::atomic<int> bytes{0};
    std::atomic<int> overlaps{0};

private:
    int call(int fd, bool input) {
        ++entered;
        overlaps += ++m_running != 1 ? 1 : 0;
        EXPECT_EQ(number, fd);
        if (input) {
            bytes += std::max(SocketPair::drain(fd), 0);
        } else {
            ++timeouts;
        }
        const int result = inside();
        --m_running;
        return result;
    }

    std::atomic<int> m_running{0};
};

class NetSockRace : public PoolFixture {
protected:
    NetSockRace() { workers = 4; }

    void TearDown() override {
        CThreadPool& the_pool = pool();
        EXPECT_TRUE(ThreadPoolProbe::sockets(the_pool).empty());
        EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
        EXPECT_EQ(1, MultiplexerProbe::places(the_pool.m_mux, 0));
        EXPECT_EQ(0, MultiplexerProbe::places(the_pool.m_mux, 1));
        EXPECT_EQ(0, MultiplexerProbe::places(the_pool.m_mux, 2));
        PoolFixture::TearDown();
        expectNoRecordTwice();
    }

    static CThreadPool& pool() { return *PoolTable::Get(0); }

    // A record that was given back twice would come out of the free list twice.
    static void expectNoRecordTwice() {
        std::vector<CEvent*> taken;
        for (int i = 0; i < 2000; ++i) {
            taken.push_back(get_event());
        }
        std::vector<CEvent*> sorted = taken;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(sorted.end(), std::adjacent_find(sorted.begin(), sorted.end()));
        for (CEvent* ev : taken) {
            put_event(ev);
        }
    }

    // Runs `step` on a thread of its own while `other` runs here, both `times` times.
    template <typename Step, typename Other>
    static void race(int times, Step step, Other other) {
        std::thread thread([&] {
            for (int i = 0; i < times; ++i) {
                step(i);
            }
        });
        for (int i = 0; i < times; ++i) {
            other(i);
        }
        thread.join();
    }

    SeededRandom seeds;
};

TEST_F(NetSockRace, RemoveRacesWithDelivery) {
    for (Rounds rounds(200); rounds.next();) {
        Contested socket(seeds.engine()());
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        std::thread writer([&] {
            for (int i = 0; i < 5; ++i) {
                socket.pair.poke();
            }
        });
        for (int spin = socket.random.between(0, 3000); spin > 0; --spin) {
            socket.entered.load();
        }
        socket.finish(pool());
        writer.join();
    }
}

TEST_F(NetSockRace, RemoveAndRegisterAgainRaceWithDeliveryAndSecondHalf) {
    for (Rounds rounds(20); rounds.next();) {
        Contested socket(seeds.engine()());
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        race(
            300, [&](int) { socket.pair.poke(); },
            [&](int) {
                socket.a->RemoveSock(socket.pair.near);
                socket.a->RegisterSock(socket.pair.near, SOCK_READ, socket.random.oneIn(4) ? 1000000 : 0);
            });
        EXPECT_EQ(1, HandlerProbe::sockets(*socket.a));
        socket.expectAlive();
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, TwoThreadsRemoveAndRegisterAgainAtOnce) {
    for (Rounds rounds(20); rounds.next();) {
        Contested socket(seeds.engine()());
        socket.inside = [&] {
            socket.pair.poke();  // ready again at once
            return 0;
        };
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        socket.pair.poke();
        const auto toggle = [&](int) {
            socket.a->RemoveSock(socket.pair.near);
            socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0);
        };
        race(2000, toggle, toggle);
        EXPECT_EQ(1, HandlerProbe::sockets(*socket.a));
        socket.expectAlive();
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, RemoveAndRegisterAgainInsideTheCall) {
    for (Rounds rounds(10); rounds.next();) {
        Contested socket(seeds.engine()());
        std::atomic<bool> again{true};
        socket.inside = [&] {
            if (again) {
                socket.a->RemoveSock(socket.pair.near);
                socket.b->RegisterSock(socket.pair.near, SOCK_READ, 0);
            }
            return 0;
        };
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        race(
            200, [&](int) { socket.pair.poke(); },
            [&](int) { socket.b->RegisterSock(socket.pair.near, SOCK_READ, 0); });
        again = false;
        socket.expectAlive();
        socket.expectAlive();  // by a call that began after the last one that registers
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, RegisterByASecondHandlerRacesWithDelivery) {
    for (Rounds rounds(20); rounds.next();) {
        Contested socket(seeds.engine()());
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        race(
            300, [&](int) { socket.pair.poke(); },
            [&](int i) {
                TestHandler* const owner = i % 2 != 0 ? socket.a : socket.b;
                owner->RegisterSock(socket.pair.near, SOCK_READ, 0);
            });
        socket.b->RegisterSock(socket.pair.near, SOCK_READ, 0);
        const int before = socket.b->life->inputs;
        ASSERT_EVENTUALLY([&] {
            socket.pair.poke();
            return socket.b->life->inputs > before;
        }());
        EXPECT_EQ(1, HandlerProbe::sockets(*socket.a));
        EXPECT_EQ(0, HandlerProbe::sockets(*socket.b));
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, RegisterByASecondHandlerRacesWithTheEndOfTheFirst) {
    for (Rounds rounds(100); rounds.next();) {
        Contested socket(seeds.engine()());
        TestHandler* const gone = new TestHandler;
        const std::shared_ptr<HandlerLife> life = gone->life;
        ASSERT_EQ(0, gone->RegisterSock(socket.pair.near, SOCK_READ, 0));
        gone->DecSock();
        socket.a->AddSock();  // it takes the registration over
        socket.pair.poke();
        std::thread closer([&] { gone->Close(); });
        for (int spin = socket.random.between(0, 20000); spin > 0; --spin) {
            socket.entered.load();
        }
        socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0);
        socket.expectAlive();
        socket.finish(pool());
        closer.join();
        EXPECT_EVENTUALLY(life->closes == 1);
    }
}

TEST_F(NetSockRace, UnregisterRacesWithDelivery) {
    for (Rounds rounds(20); rounds.next();) {
        Contested socket(seeds.engine()());
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0));
        race(
            300, [&](int) { socket.pair.poke(); },
            [&](int) {
                socket.a->UnregisterSock(socket.pair.near, SOCK_READ);
                socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0);
            });
        socket.expectAlive();
        socket.a->UnregisterSock(socket.pair.near, SOCK_READ);
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, TimeoutRacesWithReadinessAndNoByteIsLost) {
    FastClock clock;
    for (Rounds rounds(10); rounds.next();) {
        Contested socket(seeds.engine()());
        socket.inside = [&] { return 1000; };
        socket.a->on_input_timeout = [&](int) {
            ++socket.timeouts;
            return 0;
        };
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, SOCK_READ, 1000));
            socket.pair.poke();
            std::this_thread::yield();
        }
        EXPECT_EVENTUALLY(socket.bytes == 200);
        // The last call set a time-out, or one is armed now.
        socket.a->RegisterSock(socket.pair.near, SOCK_READ, 1000);
        const int before = socket.timeouts;
        ASSERT_EVENTUALLY([&] {
            socket.a->RegisterSock(socket.pair.near, SOCK_READ, 1000);
            return socket.timeouts > before;
        }());
        socket.expectAlive();
        socket.finish(pool());
    }
}

TEST_F(NetSockRace, RemoveRacesWithTimeout) {
    FastClock clock;
    for (Rounds rounds(200); rounds.next();) {
        Contested socket(seeds.engine()());
        const unsigned int mask = socket.random.between(1u, 4u);
        ASSERT_EQ(0, socket.a->RegisterSock(socket.pair.near, mask & ~SOCK_WRITE, 1000));
        for (int spin = socket.random.between(0, 30000); spin > 0; --spin) {
            socket.entered.load();
        }
        socket.finish(pool());
    }
}

// Everything at once, on a few sockets.
TEST_F(NetSockRace, EverythingAtOnce) {
    FastClock clock;
    for (Rounds rounds(4); rounds.next();) {
        Contested socket(seeds.engine()());
        SeededRandom other = socket.random.fork();
        const auto step = [&](SeededRandom& random) {
            TestHandler* const who = random.oneIn(2) ? socket.a : socket.b;
            switch (random.between(0, 6)) {
                case 0:
                    who->RemoveSock(socket.pair.near);
                    break;
                case 1:
                    who->UnregisterSock(socket.pair.near, random.between(1u, 7u));
                    break;
                case 2:
                    socket.pair.poke();
                    break;
                case 3:
                    std::this_thread::yield();
                    break;
                default:
                    who->RegisterSock(socket.pair.near, random.between(0u, 7u), random.oneIn(2) ? 1000 : 0);
            }
        };
        race(
            500, [&](int) { step(other); }, [&](int) { step(socket.random); });
        socket.a->RegisterSock(socket.pair.near, SOCK_READ, 0);
        socket.expectAlive();
        socket.a->UnregisterSock(socket.pair.near, SOCK_WRITE);
        socket.finish(pool());
    }
}

}  // namespace
}  // namespace Orvex::Testing
