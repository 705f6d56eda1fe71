// Connection: call-backs that throw or do not return, questions for input, descriptors without a place.
#include <pthread.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Kit/PoolState.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/ConnectionFixture.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;

class KitConnectionFailure : public ConnectionFixture {
protected:
    /// A connection whose end is counted, and which `start` then sets up.
    Connection open_counted(Connection::Event start) {
        return open([this, start = std::move(start)](Connection& self) mutable {
            count_end_of(self);
            start(self);
        });
    }
};

/// A way by which a call-back that throws comes to be called.
struct Throwing {
    const char* name;
    std::function<void(Reticor::Kit::Connection&)> start;
    std::function<void(Reticor::Kit::Connection&, Peer&)> provoke;
};

[[noreturn]] void fail() {
    throw std::runtime_error("enough");
}

std::vector<Throwing> throwing_call_backs() {
    using Kit::Connection;
    const auto nothing = [](Connection&, Peer&) {};
    const auto send = [](Connection&, Peer& peer) { peer.send("x"); };
    return {
        {"start", [](Connection&) { fail(); }, nothing},
        {"input", [](Connection& c) { c.onInput([](Connection&, std::string_view) { fail(); }); }, send},
        {"the peer's end", [](Connection& c) { c.onEnd([](Connection&) { fail(); }); },
         [](Connection&, Peer& peer) { peer.finish(); }},
        {"drained",
         [](Connection& c) {
             c.onDrained([](Connection&) { fail(); });
             c.write(MEGABYTE);
         },
         [](Connection& c, Peer& peer) {
             EXPECT_EVENTUALLY(c.waiting() != 0);  // one who reads meanwhile can make room for all of it
             peer.receive(MEGABYTE.size());
         }},
        {"room", [](Connection& c) { c.whenRoom([](Connection&, bool) { fail(); }); }, nothing},
        {"an answer", [](Connection& c) { c.readOnce([](Connection&, std::string_view) { fail(); }); }, send},
        {"a posted call", [](Connection&) {},
         [](Connection& c, Peer&) { c.post([](Connection&) { fail(); }); }},
        {"a delayed call", [](Connection& c) { c.after(1ms, [](Connection&) { fail(); }); }, nothing},
    };
}

TEST_F(KitConnectionFailure, WhateverCallBackThrowsItsConnectionEndsByIt) {
    for (const Throwing& way : throwing_call_backs()) {
        SCOPED_TRACE(way.name);
        m_ends = 0;
        LogCapture log;
        Connection connection = open_counted([&](Connection& self) { way.start(self); });
        way.provoke(connection, *m_peer);
        EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
        EXPECT_EQ(CloseReason::FAILED, m_reason);
        EXPECT_EQ(1U, log.countMatching(2, "a call-back of a Connection .* ends it: enough\n")) << log.dump();
        EXPECT_FALSE(connection.isOpen());
    }
}

TEST_F(KitConnectionFailure, WhatThrowsAtTheEndIsALineAndTheEndGoesOn) {
    LogCapture log;
    Connection connection = open([this](Connection& self) {
        self.onClose([this, token = m_live.token()](Connection&, CloseReason) {
            ++m_ends;
            fail();
        });
        self.onInput([token = m_live.token()](Connection&, std::string_view) {});
    });
    connection.close();
    EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
    EXPECT_TRUE(m_peer->is_ended());
    EXPECT_EQ(1U, log.countMatching(2, "a call-back of a Connection .* ends it: enough\n"));
    EXPECT_EQ(0U, m_pool.stop().stayed);
}

TEST_F(KitConnectionFailure, CallsAfterTheOneThatThrowsStillRun) {
    std::atomic<int> calls{0};
    CSemaphore go(0);
    Connection connection = open_counted([&](Connection&) { go.pend(); });
    EXPECT_TRUE(connection.post([](Connection&) { fail(); }));
    EXPECT_TRUE(connection.post([&](Connection&) { ++calls; }));
    go.post();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(1, calls) << "it was posted before the end";
    EXPECT_EQ(CloseReason::FAILED, m_reason);
}

/// A pool that may lose some of its threads.
class KitLostThread : public KitConnectionFailure {
protected:
    void adopt(Connection::Event start) {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_peer = std::make_unique<Peer>(ends[1]);
        ASSERT_TRUE(Connection::adopt(m_large_pool, ends[0], {}, std::move(start)));
    }
    void expect_that_all_has_gone() {
        EXPECT_EVENTUALLY(m_live.count() == 0);
        EXPECT_TRUE(m_peer->is_ended());
        EXPECT_EVENTUALLY(Kit::PoolState::of(m_large_pool)->places_taken() == 0);
        EXPECT_EQ(0U, m_large_pool.stop().stayed);
    }

    Kit::Pool m_large_pool{4};
};

TEST_F(KitLostThread, ThatEndsInsideACallEndsTheConnection) {
    adopt([this](Connection& self) {
        count_end_of(self);
        self.onInput([](Connection&, std::string_view) { pthread_exit(nullptr); });
    });
    m_peer->send("x");
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::FAILED, m_reason);
    expect_that_all_has_gone();
}

TEST_F(KitLostThread, ThatEndsInsideTheLastCallLeavesNothingOfTheConnection) {
    adopt([this](Connection& self) {
        self.onClose([token = m_live.token()](Connection&, CloseReason) { pthread_exit(nullptr); });
        self.onInput([token = m_live.token()](Connection&, std::string_view) {});
        self.after(1h, [token = m_live.token()](Connection&) {});
        self.close();
    });
    expect_that_all_has_gone();
}

class KitQuestion : public KitConnectionFailure {
protected:
    static constexpr const char* LINE = "one question for input at a time: the second gets nothing\n";

    Connection::Input note() {
        return [this](Connection&, std::string_view bytes) {
            m_answers.emplace_back(bytes.empty() ? "nothing" : bytes);
            ++m_count;
        };
    }

    std::vector<std::string> m_answers;
    std::atomic<int> m_count{0};
};

TEST_F(KitQuestion, ASecondOneInsideTheConnectionGetsNothingAndIsOneLine) {
    LogCapture log;
    Connection connection = open([&](Connection& self) {
        self.readOnce(note());
        self.readOnce(note());
    });
    EXPECT_EVENTUALLY(m_count == 1);
    m_peer->send("first");
    EXPECT_EVENTUALLY(m_count == 2);
    EXPECT_EQ((std::vector<std::string>{"nothing", "first"}), m_answers);
    EXPECT_EQ(1U, log.count(2, LINE)) << log.dump();
}

TEST_F(KitQuestion, ASecondOneFromOutsideGetsNothingAndIsOneLine) {
    LogCapture log;
    Connection connection = open([](Connection&) {});
    connection.readOnce(note());
    connection.readOnce(note());
    EXPECT_EVENTUALLY(m_count == 1);
    m_peer->send("first");
    EXPECT_EVENTUALLY(m_count == 2);
    EXPECT_EQ((std::vector<std::string>{"nothing", "first"}), m_answers);
    EXPECT_EQ(1U, log.count(2, LINE)) << log.dump();
}

TEST_F(KitQuestion, IsAnsweredWithNothingFromTheEndOfThePeerOn) {
    LogCapture log;
    std::atomic<int> told{0};
    Connection connection = open_counted([&](Connection& self) {
        self.onEnd([&](Connection&) { ++told; });
        self.readOnce(note());
    });
    m_peer->send("last words");
    EXPECT_EVENTUALLY(m_count == 1);
    m_peer->finish();
    for (int asked = 2; asked <= 4; ++asked) {
        connection.readOnce(note());
        EXPECT_EVENTUALLY(m_count == asked);
    }
    EXPECT_EQ((std::vector<std::string>{"last words", "nothing", "nothing", "nothing"}), m_answers);
    EXPECT_EQ(0, told) << "whoever asks is told by the answer";
    EXPECT_EQ(0, m_ends) << "and closes itself";
    EXPECT_TRUE(connection.write("on"));
    EXPECT_EQ("on", m_peer->receive(2));
    EXPECT_EQ(0U, log.countLevel(2)) << log.dump();
}

TEST_F(KitQuestion, OnInputIsNotCalledOnceItReadsByAsking) {
    Connection connection = open([&](Connection& self) {
        self.onInput([](Connection&, std::string_view) { FAIL() << "nobody has asked"; });
        self.readByAsking();
    });
    m_peer->send("one");
    see_workers_at_work();
    connection.readOnce(note());
    EXPECT_EVENTUALLY(m_count == 1);
    m_peer->send("two");
    see_workers_at_work();
    EXPECT_EQ((std::vector<std::string>{"one"}), m_answers);
    connection.readOnce(note());
    EXPECT_EVENTUALLY(m_count == 2);
    EXPECT_EQ("two", m_answers.back());
}

/// Asks again inside its own answer, until nothing more comes.
struct AsksAgain : Kit::Connection::Reader {
    explicit AsksAgain(Kit::Connection of) : Reader{&answered}, connection(std::move(of)) {}
    static void answered(Reader& self, std::string_view bytes) {
        auto& mine = static_cast<AsksAgain&>(self);
        mine.inside += mine.connection.isInside() ? 0 : 1;
        if (bytes.empty()) {
            mine.over.post();
            return;
        }
        mine.read += bytes;
        mine.connection.readOnce(mine);
    }
    Kit::Connection connection;
    std::string read;
    int inside = 0;
    CSemaphore over{0};
};

TEST_F(KitQuestion, AnObjectAsksAgainInsideItsAnswer) {
    Connection connection = open([](Connection&) {});
    AsksAgain reader(connection.share());
    connection.readOnce(reader);
    std::string sent;
    for (int i = 0; i < 100; ++i) {
        const std::string bytes = std::to_string(i) + ",";
        m_peer->send(bytes);
        sent += bytes;
    }
    m_peer->finish();
    reader.over.pend();
    EXPECT_EQ(sent, reader.read);
    EXPECT_EQ(0, reader.inside);
}

TEST_F(KitQuestion, ASecondObjectIsAnsweredAtOnceInsideTheConnection) {
    LogCapture log;
    Connection connection = open([](Connection&) {});
    wait_for_calls_of(connection);
    AsksAgain first(connection.share());
    AsksAgain second(connection.share());
    ASSERT_TRUE(connection.post([&](Connection& self) {
        self.readOnce(first);
        self.readOnce(second);
    }));
    second.over.pend();
    EXPECT_EQ("", second.read);
    EXPECT_EQ(0, second.inside);
    EXPECT_EQ(1U, log.count(2, LINE));
    m_peer->send("x");
    m_peer->finish();
    first.over.pend();
    EXPECT_EQ("x", first.read);
}

TEST_F(KitQuestion, WhileItWaitsPauseHoldsItUp) {
    Connection connection = open([&](Connection& self) {
        self.readOnce(note());
        self.pause();
    });
    m_peer->send("x");
    see_workers_at_work();
    EXPECT_EQ(0, m_count);
    connection.resume();
    EXPECT_EVENTUALLY(m_count == 1);
}

class KitRoom : public KitConnectionFailure {
protected:
    Connection::Room note(int number) {
        return [this, number](Connection& given, bool room) {
            EXPECT_EQ(room, static_cast<bool>(given) && given.isOpen());
            m_told.push_back(room ? number : -number);
            ++m_count;
        };
    }
    std::vector<int> m_told;
    std::atomic<int> m_count{0};
};

TEST_F(KitRoom, AnotherOneThatWaitsIsToldWhatHoldsThen) {
    Connection connection = open_counted([](Connection&) {});
    ASSERT_TRUE(connection.write(MEGABYTE));
    std::vector<bool> told;
    const auto note_any = [&](Connection&, bool room) {
        told.push_back(room);
        ++m_count;
    };
    connection.whenRoom(note_any);
    connection.whenRoom(note_any);
    EXPECT_EVENTUALLY(m_count == 1);  // the first one, and there is none
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EVENTUALLY(m_count == 2);
    connection.whenRoom(note_any);
    EXPECT_EVENTUALLY(m_count == 3);
    connection.abort();
    EXPECT_EVENTUALLY(m_ends == 1);
    m_pool.stop(0ms);
    EXPECT_EQ((std::vector<bool>{false, true, true}), told);
}

TEST_F(KitRoom, ThatCameBesideAnotherIsFalseAtTheEnd) {
    CSemaphore held(0);
    CSemaphore go(0);
    Connection connection = open_counted([&](Connection& self) {
        held.post();
        go.pend();
        self.abort();
    });
    held.pend();
    connection.whenRoom(note(1));
    connection.whenRoom(note(2));
    go.post();
    EXPECT_EVENTUALLY(m_ends == 1 && m_count == 2);
    EXPECT_EQ((std::vector<int>{-1, -2}), m_told);
}

TEST_F(KitRoom, MayBeAskedForAgainInsideTheCall) {
    constexpr int ROUNDS = 20;
    Connection connection;
    std::atomic<int> rounds{0};
    const std::function<void(Connection&)> next = [&](Connection& self) {
        self.whenRoom([&](Connection& c, bool room) {
            if (room && ++rounds < ROUNDS) {
                c.write(MEGABYTE);
                next(c);
            }
        });
    };
    connection = open_counted([&](Connection& self) { next(self); });
    for (int i = 0; i < ROUNDS - 1; ++i) {
        ASSERT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    }
    EXPECT_EVENTUALLY(rounds == ROUNDS);
}

class KitAdoption : public ConnectionFixture {
protected:
    /// Adopts one end of a pair; whether it was taken. Its other end must read an end if not.
    bool adopt(Kit::Pool& pool, Connection::Event start) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        Peer peer(ends[1]);
        LogCapture log;
        const Connection connection = Connection::adopt(pool, ends[0], {}, std::move(start));
        if (connection) {
            return true;
        }
        EXPECT_TRUE(peer.is_ended());
        EXPECT_EQ(1U, log.count(2, "descriptor " + std::to_string(ends[0]) +
                                       " is closed: no call-back, no pool that takes connections, or no "
                                       "place\n"))
            << log.dump();
        return false;
    }
    Connection::Event start() {
        return [token = m_live.token()](Connection&) {};
    }
};

TEST_F(KitAdoption, IsRefusedWithoutACallBackAndByAPoolThatIsStopped) {
    EXPECT_FALSE(adopt(m_pool, nullptr));
    EXPECT_TRUE(adopt(m_pool, start()));
    m_pool.stop();
    EXPECT_FALSE(adopt(m_pool, start()));
    EXPECT_EQ(0, m_live.count());
}

// A place is free again as soon as the connection is over.
TEST_F(KitAdoption, IsRefusedByAPoolWithoutAPlaceAndEachEndGivesOneBack) {
    Kit::PoolState& state = *Kit::PoolState::of(m_pool);
    for (int i = 0; i < Kit::PoolState::MOST_CONNECTIONS - 1; ++i) {
        ASSERT_TRUE(state.take_place());
    }
    Connection last = open(counted());
    EXPECT_TRUE(last);
    wait_for_calls_of(last);
    EXPECT_EQ(4000, state.places_taken());
    EXPECT_FALSE(state.take_place());
    EXPECT_FALSE(adopt(m_pool, start()));
    EXPECT_EQ(4000, state.places_taken());
    EXPECT_EQ(1, m_live.count()) << "that of the open one";
    last.abort();
    EXPECT_EVENTUALLY(m_ends == 1 && state.places_taken() == 3999);
    EXPECT_TRUE(adopt(m_pool, start()));
}

}  // namespace
}  // namespace Orvex::Testing
