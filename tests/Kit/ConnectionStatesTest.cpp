// Connection: empty, open, closing and ended; what each operation does then, and in which order calls come.
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Kit/PoolState.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/kit/ConnectionFixture.h"
#include "support/socket/Loopback.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;

class KitConnectionState : public ConnectionFixture {
protected:
    /// A connection that has begun.
    Connection begun(Kit::ConnectionOptions options = {}) {
        Connection connection = open(counted(), options);
        wait_for_calls_of(connection);
        return connection;
    }
    /// One that has ended.
    Connection ended() {
        Connection connection = begun();
        connection.abort();
        EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
        wait_for_calls_of(connection);
        return connection;
    }

    /// Nothing is taken, what asks is answered at once and by nobody, and what is refused is destroyed.
    void expect_that_nothing_is_taken(Connection& connection) {
        Live live;
        const std::string_view pieces[] = {"a", "b"};
        EXPECT_FALSE(connection.isOpen());
        EXPECT_FALSE(connection.isInside());
        EXPECT_FALSE(connection.write("x"));
        EXPECT_FALSE(connection.write({"x", "y"}));
        EXPECT_FALSE(connection.write(pieces, 2));
        EXPECT_FALSE(connection.finish());
        EXPECT_FALSE(connection.post([token = live.token()](Connection&) mutable { token.use(); }));
        EXPECT_FALSE(connection.after(0ms, [token = live.token()](Connection&) mutable { token.use(); }));
        EXPECT_EQ(0U, connection.waiting());
        EXPECT_EQ(0U, connection.dropped());
        EXPECT_EQ("", connection.peer());
        EXPECT_EQ("", connection.local());
        connection.onInput([token = live.token()](Connection&, std::string_view) {});
        connection.onEnd([token = live.token()](Connection&) {});
        connection.onDrained([token = live.token()](Connection&) {});
        connection.onClose([token = live.token()](Connection&, CloseReason) mutable { token.use(); });
        connection.pause();
        connection.resume();
        connection.readByAsking();
        connection.close();
        connection.abort();
        EXPECT_EQ(0, live.used());
        EXPECT_EQ(0, live.count());

        connection.whenRoom([token = live.token()](Connection& given, bool room) mutable {
            EXPECT_FALSE(given);
            EXPECT_FALSE(room);
            token.use();
        });
        connection.readOnce([token = live.token()](Connection& given, std::string_view bytes) mutable {
            EXPECT_FALSE(given);
            EXPECT_EQ("", bytes);
            token.use();
        });
        EXPECT_EQ(2, live.used());
        EXPECT_EQ(0, live.count());
        struct Asks : Connection::Reader {
            Asks() : Reader{&answered} {}
            static void answered(Reader& self, std::string_view bytes) {
                static_cast<Asks&>(self).answers += bytes.empty() ? 1 : 100;
            }
            int answers = 0;
        } asks;
        connection.readOnce(asks);
        EXPECT_EQ(1, asks.answers);
    }

    std::vector<std::string> m_order;  ///< Of calls of one connection: they need no lock.
};

TEST_F(KitConnectionState, AnEmptyOneTakesNothing) {
    Connection empty;
    EXPECT_FALSE(empty);
    EXPECT_FALSE(empty.share());
    expect_that_nothing_is_taken(empty);
}

TEST_F(KitConnectionState, AnEndedOneTakesNothing) {
    Connection connection = ended();
    EXPECT_TRUE(connection);
    expect_that_nothing_is_taken(connection);
    EXPECT_EQ(1, m_ends);
}

TEST_F(KitConnectionState, NullIsTakenByNobody) {
    Connection connection = begun();
    EXPECT_FALSE(connection.post(nullptr));
    EXPECT_FALSE(connection.after(0ms, nullptr));
    connection.whenRoom(nullptr);
    connection.readOnce(nullptr);
    m_peer->send("x");
    wait_for_calls_of(connection);
    EXPECT_TRUE(connection.isOpen());
}

TEST_F(KitConnectionState, ReferencesAreMovedSharedAndCompared) {
    Connection first = begun();
    Connection second = first.share();
    const std::unique_ptr<Peer> its_peer = std::move(m_peer);
    Connection other = begun();
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first != second);
    EXPECT_TRUE(first != other);
    Connection moved = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(moved == second);
    EXPECT_TRUE(first != second);
    moved = std::move(other);
    EXPECT_FALSE(other);
    EXPECT_TRUE(moved != second);
    Connection& same = moved;
    moved = std::move(same);
    EXPECT_TRUE(moved) << "moved to itself it stays what it is";
    EXPECT_TRUE(second.isOpen()) << "whoever drops a reference does not end the connection";
}

// The body goes with the last reference, and not with the connection.
TEST_F(KitConnectionState, HandleMayBeTheLastThingOfAConnectionAndOfItsPool) {
    Connection connection = ended();
    Connection another = connection.share();
    connection = Connection();
    m_pool.stop(0ms);
    EXPECT_TRUE(another);
    EXPECT_FALSE(another.isOpen());
    EXPECT_FALSE(another.write("x"));
}

TEST_F(KitConnectionState, IsInsideInItsOwnCallsAndNowhereElse) {
    CSemaphore done(0);
    int inside = 0;
    Connection other = open([](Connection&) {});
    wait_for_calls_of(other);
    const auto look = [&](Connection& self) {
        inside += self.isInside() ? 1 : 100;
        inside += other.isInside() ? 100 : 1;
    };
    Connection connection = open([&](Connection& self) {
        look(self);
        self.onInput([&](Connection& c, std::string_view) { look(c); });
        self.onEnd([&](Connection& c) {
            look(c);
            c.write(MEGABYTE);
        });
        self.onDrained([&](Connection& c) {
            look(c);
            c.whenRoom([&](Connection& again, bool) {
                look(again);
                again.after(0ms, [&](Connection& last) {
                    look(last);
                    last.close();
                });
            });
        });
        self.onClose([&](Connection& c, CloseReason) {
            look(c);
            done.post();
        });
    });
    EXPECT_FALSE(connection.isInside());
    EXPECT_TRUE(connection.post([&](Connection& c) { look(c); }));
    m_peer->send("x");
    wait_for_calls_of(connection);
    see_workers_at_work();
    m_peer->finish();
    EXPECT_EVENTUALLY(connection.waiting() != 0);  // one who reads meanwhile can make room for all of it
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    done.pend();
    EXPECT_EQ(2 * 8, inside);
}

TEST_F(KitConnectionState, ReadsAndThrowsAwayWhatNobodyWants) {
    Connection connection = open([](Connection& self) {
        self.onInput([](Connection&, std::string_view) { FAIL() << "it was taken away"; });
        self.onInput(nullptr);
        self.onEnd([](Connection& c) { c.close(); });
    });
    for (size_t sent = 0; sent < 4 * MEGABYTE.size(); sent += MEGABYTE.size()) {
        m_peer->send(MEGABYTE);  // more than the system keeps
    }
    m_peer->finish();
    EXPECT_TRUE(m_peer->is_ended());
}

TEST_F(KitConnectionState, TellsOfTheEndOfThePeerOnceAndStaysOpen) {
    std::atomic<int> told{0};
    Connection connection = open([&](Connection& self) {
        count_end_of(self);
        self.onInput([](Connection&, std::string_view) { FAIL() << "nothing has come"; });
        self.onEnd([&](Connection&) { ++told; });
    });
    m_peer->finish();
    EXPECT_EVENTUALLY(told == 1);
    connection.pause();
    connection.resume();
    see_workers_at_work();
    EXPECT_EQ(1, told);
    EXPECT_EQ(0, m_ends);
    EXPECT_TRUE(connection.write("still here"));
    EXPECT_EQ("still here", m_peer->receive(10));
}

TEST_F(KitConnectionState, TellsThatAllIsSentOnlyIfSomethingHadToWait) {
    std::atomic<int> drained{0};
    Connection connection = open([&](Connection& self) {
        count_end_of(self);
        self.onDrained([&](Connection& c) {
            EXPECT_EQ(0U, c.waiting());
            ++drained;
        });
    });
    EXPECT_TRUE(connection.write("at once"));
    EXPECT_EQ("at once", m_peer->receive(7));
    see_workers_at_work();
    EXPECT_EQ(0, drained);
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(connection.write(MEGABYTE));
        EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
        EXPECT_EVENTUALLY(drained == round);
    }
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.close();
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(3, drained) << "it is closing, and only its end is told";
}

TEST_F(KitConnectionState, OrderAtTheEndIsPostedCallsQuestionsRoomAndLastTheEnd) {
    Connection connection = open([&](Connection& self) {
        self.onClose([&](Connection& c, CloseReason) {
            m_order.emplace_back("end");
            EXPECT_FALSE(c.post([](Connection&) { FAIL(); }));
            EXPECT_FALSE(c.write("x"));
            c.whenRoom([&](Connection&, bool open) { m_order.emplace_back(open ? "?" : "no room"); });
            c.readOnce([&](Connection&, std::string_view) { m_order.emplace_back("no bytes"); });
        });
        self.onDrained([&, token = m_live.token()](Connection&) { m_order.emplace_back("drained"); });
    });
    ASSERT_TRUE(connection.write(MEGABYTE));
    ASSERT_TRUE(connection.post([&](Connection& c) {
        c.whenRoom([&](Connection&, bool open) { m_order.emplace_back(open ? "?" : "room"); });
        c.readOnce([&](Connection&, std::string_view bytes) {
            m_order.emplace_back(bytes.empty() ? "question" : "?");
        });
        c.after(1h, [&](Connection&) { m_order.emplace_back("late"); });
        c.abort();
        c.post([&](Connection&) { m_order.emplace_back("posted"); });
    }));
    EXPECT_EVENTUALLY(m_live.count() == 0);
    wait_for_calls_of(connection);
    m_pool.stop(0ms);
    EXPECT_EQ((std::vector<std::string>{"posted", "question", "room", "end", "no room", "no bytes"}),
              m_order);
}

/// Notes when it goes, and on which thread.
class Farewell {
public:
    Farewell(std::vector<std::string>& order, std::string name, std::atomic<int>* thread = nullptr)
        : m_order(&order), m_name(std::move(name)), m_thread(thread) {}
    Farewell(Farewell&& other) noexcept
        : m_order(std::exchange(other.m_order, nullptr)),
          m_name(std::move(other.m_name)),
          m_thread(other.m_thread) {}
    Farewell& operator=(Farewell&&) = delete;
    ~Farewell() {
        if (m_order != nullptr) {
            m_order->push_back(m_name);
            if (m_thread != nullptr) {
                *m_thread = kernelThreadId();
            }
        }
    }

private:
    std::vector<std::string>* m_order;
    std::string m_name;
    std::atomic<int>* m_thread;
};

TEST_F(KitConnectionState, WhatLambdasCaptureGoesAfterTheEndAndOnThePool) {
    std::atomic<int> threads[3] = {};
    Connection connection = open([&](Connection& self) {
        self.onInput([last = Farewell(m_order, "captured", &threads[0])](Connection&, std::string_view) {});
        self.after(1h, [last = Farewell(m_order, "captured", &threads[1])](Connection&) {});
        self.onClose([this, last = Farewell(m_order, "captured", &threads[2])](Connection&, CloseReason) {
            m_order.emplace_back("end");
        });
    });
    wait_for_calls_of(connection);
    connection.close();
    for (const std::atomic<int>& thread : threads) {
        EXPECT_EVENTUALLY(thread != 0);
        EXPECT_NE(kernelThreadId(), thread);
    }
    m_pool.stop(0ms);
    EXPECT_EQ((std::vector<std::string>{"end", "captured", "captured", "captured"}), m_order);
}

TEST_F(KitConnectionState, CallsComeInTheOrderOfTheirPosting) {
    Connection connection = begun();
    std::vector<int> order;
    CSemaphore done(0);
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(connection.post([&order, i](Connection& c) {
            order.push_back(i);
            if (i % 3 == 0) {
                c.post([&order, i](Connection&) { order.push_back(1000 + i); });
            }
        }));
    }
    ASSERT_TRUE(connection.post([&](Connection& c) { c.post([&](Connection&) { done.post(); }); }));
    done.pend();
    int plain = 0;
    int nested = 1000;
    for (const int number : order) {
        EXPECT_EQ(number < 1000 ? plain : nested, number);
        number < 1000 ? ++plain : nested += 3;
    }
    EXPECT_EQ(300, plain);
    EXPECT_EQ(1300, nested);
}

TEST_F(KitConnectionState, CallsComeAfterTheirTimeAndEachOnce) {
    Connection connection = begun();
    std::atomic<int> calls{0};
    std::atomic<bool> early{false};
    const uint64_t begin = Infra::CTime::getCurrentMicroSecond();
    for (const int ms : {40, -5, 0, 20, 1, 20}) {
        ASSERT_TRUE(connection.after(std::chrono::milliseconds(ms), [&, ms](Connection&) {
            const uint64_t now = Infra::CTime::getCurrentMicroSecond();
            early = early || now + 3000 < begin + static_cast<uint64_t>(std::max(ms, 0)) * 1000;
            ++calls;
        }));
    }
    ASSERT_TRUE(connection.after(std::chrono::hours(24 * 365), [&](Connection&) { calls += 100; }));
    EXPECT_EVENTUALLY(calls == 6);
    EXPECT_FALSE(early);
    connection.close();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(6, calls);
}

TEST_F(KitConnectionState, PausedDoesNotNoticeTheEndOfThePeerUntilItGoesOn) {
    Connection connection = begun();
    connection.pause();
    connection.pause();
    m_peer->hang_up();
    see_workers_at_work();
    EXPECT_EQ(0, m_ends);
    connection.resume();  // once is enough
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::PEER_CLOSED, m_reason);
}

TEST_F(KitConnectionState, PausedOrUnaskedGoesIdle) {
    Kit::ConnectionOptions options;
    options.idle_timeout = 30ms;
    for (const bool asked : {false, true}) {
        m_ends = 0;
        Connection connection = begun(options);
        asked ? connection.readByAsking() : connection.pause();
        m_peer->offer("nobody reads this");
        EXPECT_EVENTUALLY(m_ends == 1);
        EXPECT_EQ(CloseReason::IDLE, m_reason);
    }
}

TEST_F(KitConnectionState, PauseBeforeTheFirstByteHolds) {
    std::atomic<size_t> read{0};
    Connection connection = open([&](Connection& self) {
        self.onInput([&](Connection&, std::string_view bytes) { read += bytes.size(); });
        self.pause();
    });
    m_peer->send("early");
    wait_for_calls_of(connection);
    see_workers_at_work();
    EXPECT_EQ(0U, read);
    connection.resume();
    EXPECT_EVENTUALLY(read == 5);
}

TEST_F(KitConnectionState, CloseInsideInputDeliversNoMore) {
    std::atomic<int> inputs{0};
    Connection connection = open([&](Connection& self) {
        count_end_of(self);
        self.onInput([&](Connection& c, std::string_view) {
            ++inputs;
            c.close();
        });
    });
    m_peer->send("1");
    EXPECT_EVENTUALLY(inputs == 1);
    m_peer->offer("2");
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(1, inputs);
    EXPECT_EQ(CloseReason::CLOSED, m_reason);
}

TEST_F(KitConnectionState, AbortLosesWhatWaitsAlsoWhileItCloses) {
    Connection connection = begun();
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.close();
    EXPECT_FALSE(connection.isOpen());
    EXPECT_GT(connection.waiting(), 0U);
    EXPECT_EQ(0, m_ends);
    connection.abort();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::ABORTED, m_reason);
    EXPECT_EQ(0U, connection.waiting());
    EXPECT_LT(m_peer->receive(1 << 20).size(), MEGABYTE.size());
}

TEST_F(KitConnectionState, KeepsTheFirstReasonOfItsEnd) {
    Connection aborted = open([this](Connection& self) {
        count_end_of(self);
        self.abort();
        self.close();
    });
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::ABORTED, m_reason);

    Connection connection = begun();
    ASSERT_TRUE(connection.write(MEGABYTE));
    m_peer->finish();
    EXPECT_EVENTUALLY([&] {
        m_peer->take(4096);
        return !connection.isOpen();
    }());
    connection.close();
    EXPECT_EVENTUALLY([&] {
        m_peer->take(MEGABYTE.size());
        return m_ends == 2;
    }());
    EXPECT_EQ(CloseReason::PEER_CLOSED, m_reason);
}

TEST_F(KitConnectionState, WhatWaitsMayWaitForEverIfItIsToldSo) {
    Kit::ConnectionOptions options;
    options.max_output_age = 0ms;
    Connection connection = begun(options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    CSemaphore later(0);
    ASSERT_TRUE(connection.after(20ms, [&](Connection&) { later.post(); }));
    later.pend();
    EXPECT_EQ(0, m_ends);
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
}

TEST_F(KitConnectionState, WhatAPostedCallCapturesIsGoneBeforeTheNextOne) {
    Live live;
    CSemaphore done(0);
    int left = -1;
    Connection connection = open([&](Connection& self) {
        self.post([token = live.token()](Connection&) {});
        self.post([&](Connection&) {
            left = live.count();
            done.post();
        });
    });
    done.pend();
    EXPECT_EQ(0, left);
}

TEST_F(KitConnectionState, AClosingOneStillRunsWhatIsPostedAndItsTimers) {
    std::atomic<int> calls{0};
    Connection connection = begun();
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.close();
    EXPECT_TRUE(connection.post([&](Connection&) { ++calls; }));
    EXPECT_TRUE(connection.after(1ms, [&](Connection&) { ++calls; }));
    EXPECT_EVENTUALLY(calls == 2);
    EXPECT_EQ(0, m_ends);
    m_peer->hang_up();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::PEER_LOST, m_reason);
}

TEST_F(KitConnectionState, AnEndBeforeTheStartStillStartsFirst) {
    CSemaphore held(0);
    CSemaphore go(0);
    // Both workers are kept, so that the start waits.
    for (int i = 0; i < 2; ++i) {
        m_pool.post([&] {
            held.post();
            go.pend();
        });
    }
    held.pend();
    held.pend();
    Connection connection = open([&](Connection& self) {
        m_order.emplace_back("start");
        self.onClose([&, token = m_live.token()](Connection&, CloseReason) { m_order.emplace_back("end"); });
    });
    EXPECT_TRUE(connection.post([&](Connection&) { m_order.emplace_back("posted"); }));
    connection.abort();
    go.post();
    go.post();
    EXPECT_EVENTUALLY(m_live.count() == 0);
    m_pool.stop(0ms);
    EXPECT_EQ((std::vector<std::string>{"start", "posted", "end"}), m_order);
}

TEST_F(KitConnectionState, NothingFitsWhereNothingMayWait) {
    Kit::ConnectionOptions options;
    options.max_output = 0;
    Connection connection = begun(options);
    EXPECT_TRUE(connection.write(""));
    EXPECT_FALSE(connection.write("x"));
    EXPECT_TRUE(connection.isOpen());
}

TEST_F(KitConnectionState, EmptyPiecesAreTakenAndSendNothing) {
    Connection connection = begun();
    EXPECT_TRUE(connection.write(""));
    EXPECT_TRUE(connection.write({}));
    EXPECT_TRUE(connection.write({"", ""}));
    EXPECT_TRUE(connection.write(nullptr, 0));
    EXPECT_TRUE(m_peer->is_quiet());
    ASSERT_TRUE(connection.write(MEGABYTE));
    const size_t waiting = connection.waiting();
    EXPECT_TRUE(connection.write(""));
    EXPECT_TRUE(connection.write({"", ""}));
    EXPECT_EQ(waiting, connection.waiting());
}

TEST_F(KitConnectionState, DropsAreCountedOneByOne) {
    Kit::ConnectionOptions options;
    options.policy = Kit::OutputPolicy::DROP;
    Connection connection = begun(options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    for (uint64_t i = 1; i <= 3; ++i) {
        EXPECT_FALSE(connection.write({MEGABYTE, "x"}));
        EXPECT_EQ(i, connection.dropped());
    }
    connection.close();
    EXPECT_FALSE(connection.write("x"));
    EXPECT_EQ(3U, connection.dropped()) << "it was refused, and not dropped";
}

// The system reads no input of such a peer; other policies read on.
TEST_F(KitConnectionState, DroppingReadsOnWhateverWaits) {
    Kit::ConnectionOptions options;
    options.policy = Kit::OutputPolicy::DROP;
    std::atomic<size_t> read{0};
    Connection connection = open(
        [&](Connection& self) {
            self.onInput([&](Connection&, std::string_view bytes) { read += bytes.size(); });
        },
        options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    m_peer->send("x");
    EXPECT_EVENTUALLY(read == 1);
    EXPECT_GT(connection.waiting(), 0U);
}

class KitConnectionOverTcp : public KitConnectionState {
protected:
    /// A connection over the loopback; the client is the peer.
    Connection adopt_server(const Kit::ConnectionOptions& options = {}) {
        EXPECT_TRUE(m_pair.connected);
        m_descriptor = m_pair.server.Detach();
        return Connection::adopt(m_pool, m_descriptor, options, counted());
    }
    int no_delay() const {
        int on = -1;
        socklen_t length = sizeof on;
        EXPECT_EQ(0, getsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, &length));
        return on != 0 ? 1 : 0;
    }

    LoopbackPair m_pair;
    int m_descriptor = -1;
};

TEST_F(KitConnectionOverTcp, SendsSmallPiecesAtOnceUnlessToldOtherwise) {
    Connection connection = adopt_server();
    EXPECT_EQ(1, no_delay());
    m_pair = LoopbackPair();
    Kit::ConnectionOptions options;
    options.no_delay = false;
    Connection other = adopt_server(options);
    EXPECT_EQ(0, no_delay());
}

TEST_F(KitConnectionOverTcp, TellsBothAddressesWhileItIsOpen) {
    Connection connection = adopt_server();
    const std::string mine = connection.local();
    const std::string theirs = connection.peer();
    EXPECT_EQ(0U, mine.rfind("127.0.0.1:", 0));
    EXPECT_EQ(0U, theirs.rfind("127.0.0.1:", 0));
    EXPECT_NE(mine, theirs);
    char text[8];
    EXPECT_EQ(7U, connection.peer(text, sizeof text));
    EXPECT_STREQ("127.0.0", text);
    EXPECT_EQ(0U, connection.local(text, 0));
    connection.abort();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ("", connection.peer());
    EXPECT_EQ("", connection.local());
}

TEST_F(KitConnectionOverTcp, SeesAResetByWhatItReads) {
    Connection connection = adopt_server();
    wait_for_calls_of(connection);
    closeWithReset(m_pair.client);
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::PEER_LOST, m_reason);
}

}  // namespace
}  // namespace Orvex::Testing
