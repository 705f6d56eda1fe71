// Connection, Timer, Pool: everything at once from several threads. What races shows under a sanitizer; what
// is lost, doubled or late shows here.
#include <atomic>
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

#include "support/Eventually.h"
#include "support/Rounds.h"
#include "support/SeededRandom.h"
#include "support/kit/Live.h"
#include "support/kit/Peer.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;
using Kit::CloseReason;
using Kit::Connection;

/// Threads that begin at the same moment, and are waited for.
class Crowd {
public:
    ~Crowd() { join(); }
    void add(std::function<void()> act) {
        m_threads.emplace_back([this, act = std::move(act)] {
            m_begin.pend();
            act();
        });
    }
    void run() {
        for (size_t i = 0; i < m_threads.size(); ++i) {
            m_begin.post();
        }
        join();
    }

private:
    void join() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
    }

    CSemaphore m_begin{0};
    std::vector<std::thread> m_threads;
};

class KitRace : public testing::Test {
protected:
    /// A connection whose calls are checked: none beside another one, and none after the end.
    Connection open(Kit::Pool& pool) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_peer = std::make_unique<Peer>(ends[1]);
        m_scene = std::make_shared<Scene>();
        return Connection::adopt(
            pool, ends[0], {}, [this, scene = m_scene, token = m_live.token()](Connection& self) {
                self.onInput([scene](Connection& c, std::string_view bytes) {
                    scene->enter();
                    c.write(bytes);
                });
                self.onEnd([scene](Connection&) { scene->enter(); });
                self.onDrained([scene](Connection&) { scene->enter(); });
                self.onClose([this, scene, last = m_live.token()](Connection&, CloseReason) {
                    scene->enter();
                    scene->ended = true;
                    ++m_ends;
                });
            });
    }

    struct Scene {
        int inside = 0;  // no atomic: that is the point
        bool ended = false;
        bool wrong = false;
        void enter() {
            wrong = wrong || ended || ++inside != 1;
            --inside;
        }
    };

    Live m_live;
    std::shared_ptr<Scene> m_scene;
    std::unique_ptr<Peer> m_peer;
    std::atomic<int> m_ends{0};
};

using End = std::function<void(Connection&, Peer&)>;

TEST_F(KitRace, AnEndBesideEverythingElseComesOnceAndLast) {
    const End ends[] = {
        [](Connection& c, Peer&) { c.close(); },
        [](Connection& c, Peer&) { c.abort(); },
        [](Connection&, Peer& peer) { peer.finish(); },
        [](Connection& c, Peer&) { c.post([](Connection& self) { self.abort(); }); },
    };
    Kit::Pool pool(2);
    int number = 0;
    for (Rounds rounds(80); rounds.next(); ++number) {
        Connection connection = open(pool);
        std::atomic<int> taken{0};
        std::atomic<int> ran{0};
        std::atomic<int> rooms{0};
        std::atomic<int> answers{0};
        const auto scene = m_scene;
        Crowd crowd;
        crowd.add([&] {
            for (int i = 0; i < 50; ++i) {
                connection.write({"some", " ", "bytes"});
                m_peer->feed();
            }
        });
        crowd.add([&] {
            for (int i = 0; i < 50; ++i) {
                taken += connection.post([&, scene, token = m_live.token()](Connection&) {
                    scene->enter();
                    ++ran;
                })
                             ? 1
                             : 0;
                connection.after(std::chrono::microseconds(100 * i),
                                 [scene, token = m_live.token()](Connection&) { scene->enter(); });
                i % 2 == 0 ? connection.pause() : connection.resume();
            }
        });
        crowd.add([&] {
            for (int i = 0; i < 20; ++i) {
                connection.whenRoom([&rooms](Connection&, bool) { ++rooms; });
                connection.readOnce([&answers](Connection&, std::string_view) { ++answers; });
                connection.onDrained([scene](Connection&) { scene->enter(); });
                static_cast<void>(connection.waiting() + connection.peer().size());
            }
        });
        crowd.add([&] { ends[static_cast<size_t>(number) % 4](connection, *m_peer); });
        crowd.run();
        connection.close();
        EXPECT_EVENTUALLY([&] {
            m_peer->take_all();
            return m_ends == number + 1 && m_live.count() == 0;
        }());
        EXPECT_FALSE(scene->wrong);
        EXPECT_EQ(taken, ran);
        EXPECT_EVENTUALLY(rooms == 20 && answers == 20);
    }
}

TEST_F(KitRace, APoolThatEndsBesideItsUsersLeavesNothing) {
    int number = 0;
    for (Rounds rounds(40); rounds.next(); ++number) {
        auto pool = std::make_unique<Kit::Pool>(2);
        Connection connection = open(*pool);
        Connection other = connection.share();
        std::atomic<bool> stopped{false};
        Crowd crowd;
        crowd.add([&] {
            while (!stopped) {
                connection.write("x");
                connection.post([](Connection&) {});
                m_peer->feed();
            }
        });
        crowd.add([&] {
            while (!stopped) {
                other.after(1ms, [token = m_live.token()](Connection&) {});
                pool->post([token = m_live.token()] {});
                Kit::Timer(*pool, 1ms, [token = m_live.token()] {}).detach();
                Kit::Every every(*pool, 5ms, [token = m_live.token()] {});
            }
        });
        crowd.add([&] {
            EXPECT_EQ(0U, pool->stop(std::chrono::milliseconds(number % 3)).stayed);
            stopped = true;
        });
        crowd.run();
        EXPECT_EQ(number + 1, m_ends);
        EXPECT_EQ(0, m_live.count());
        EXPECT_FALSE(m_scene->wrong);
        EXPECT_FALSE(connection.isOpen());
        EXPECT_FALSE(other.write("x"));
        pool.reset();
    }
}

TEST_F(KitRace, TimersEndedWhileTheyRunOutAreCalledOnceAtMost) {
    Kit::Pool pool(2);
    SeededRandom random;
    for (Rounds rounds(60); rounds.next();) {
        Live live;
        std::vector<Kit::Timer> timers;
        for (int i = 0; i < 40; ++i) {
            timers.emplace_back(pool, std::chrono::microseconds(random.between(0, 6000)),
                                [token = live.token()]() mutable { token.use(); });
        }
        Crowd crowd;
        for (size_t part = 0; part < 2; ++part) {
            crowd.add([&, part, delay = random.between(0, 6)] {
                for (int i = 0; i < delay * 100000; ++i) {  // some of them are due by then
                    static_cast<void>(timers[part].isArmed());
                }
                for (size_t i = part; i < timers.size(); i += 2) {
                    timers[i].cancel();
                }
            });
        }
        crowd.run();
        EXPECT_EVENTUALLY(live.count() == 0);
        EXPECT_LE(live.used(), 40);
    }
}

// Connections that write to each other, are shared and dropped by others, and end at any moment.
TEST_F(KitRace, ConnectionsThatUseEachOtherEnd) {
    Kit::Pool pool(2);
    SeededRandom random;
    for (Rounds rounds(40); rounds.next();) {
        constexpr size_t COUNT = 4;
        std::atomic<int> ends{0};
        std::vector<Connection> connections;
        std::vector<std::unique_ptr<Peer>> peers;
        for (size_t i = 0; i < COUNT; ++i) {
            int pair[2];
            ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
            peers.push_back(std::make_unique<Peer>(pair[1]));
            connections.push_back(
                Connection::adopt(pool, pair[0], {}, [&ends, token = m_live.token()](Connection& self) {
                    self.onClose([&ends](Connection&, CloseReason) { ++ends; });
                }));
        }
        for (size_t i = 0; i < COUNT; ++i) {
            // Each holds the next one, round in a circle: that ends with the connections.
            connections[i].onInput([next = connections[(i + 1) % COUNT].share(), token = m_live.token()](
                                       Connection& self, std::string_view bytes) mutable {
                next.write(bytes);
                next.post([own = self.share()](Connection&) mutable { own.write("."); });
            });
        }
        Crowd crowd;
        for (size_t i = 0; i < COUNT; ++i) {
            crowd.add([&, i, feeds = random.between(1, 60), by_abort = random.oneIn(2)] {
                for (int k = 0; k < feeds; ++k) {
                    peers[i]->feed();
                }
                by_abort ? connections[i].abort() : peers[i]->hang_up();
            });
        }
        crowd.run();
        for (Connection& connection : connections) {
            connection.abort();
        }
        EXPECT_EVENTUALLY(ends == static_cast<int>(COUNT) && m_live.count() == 0);
    }
}

}  // namespace
}  // namespace Orvex::Testing
