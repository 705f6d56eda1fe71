// Connection: its calls, its output, and its one end.
#include <Reticor/kit/Connection.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/ConnectionFixture.h"
#include "support/socket/Allocations.h"

using namespace Orvex::Testing;
using Orvex::Infra::CSemaphore;
using Orvex::Infra::CTime;
namespace Kit = Orvex::Reticor::Kit;
using Kit::CloseReason;
using Kit::Connection;
using namespace std::chrono_literals;

namespace {

class KitConnection : public ConnectionFixture {};

}  // namespace

TEST_F(KitConnection, AnswersWhatItIsSent) {
    open([](Connection& self) {
        self.onInput([](Connection& c, std::string_view bytes) { c.write({"<", bytes, ">"}); });
    });
    m_peer->send("hello");
    EXPECT_EQ("<hello>", m_peer->receive(7));
}

TEST_F(KitConnection, TellsItsEndOnceWhenThePeerHasGone) {
    open(counted());
    m_peer->hang_up();
    EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
    EXPECT_EQ(CloseReason::PEER_CLOSED, m_reason);
}

TEST_F(KitConnection, IsClosedFromAnyThreadAnyNumberOfTimes) {
    Connection connection = open(counted());
    connection.close();
    connection.close();
    connection.abort();
    EXPECT_TRUE(m_peer->is_ended());
    EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
    EXPECT_FALSE(connection.isOpen());
    EXPECT_FALSE(connection.write("late"));
    Live late;
    EXPECT_EVENTUALLY(!connection.post([token = late.token()](Connection&) mutable { token.use(); }));
    EXPECT_EVENTUALLY(late.count() == 0);
}

TEST_F(KitConnection, RunsWhatWasPostedBeforeTheEndAndThatBeforeOnClose) {
    for (int round = 0; round < 50; ++round) {
        Live live;
        std::atomic<int> used_at_end{-1};
        Connection connection = open([&](Connection& self) {
            self.onClose([&](Connection&, CloseReason) { used_at_end = live.used(); });
        });
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(connection.post([token = live.token()](Connection&) mutable { token.use(); }));
        }
        round % 2 == 0 ? connection.close() : connection.abort();
        EXPECT_EVENTUALLY(used_at_end == 20 && live.count() == 0);
    }
}

TEST_F(KitConnection, DestroysWhatItsLambdasCaptureAlsoAReferenceOnItself) {
    Connection connection = open([this](Connection& self) {
        self.onInput([own = self.share(), token = m_live.token()](Connection&, std::string_view) {});
        self.onDrained([own = self.share(), token = m_live.token()](Connection&) {});
        self.after(1h, [own = self.share(), token = m_live.token()](Connection&) mutable { token.use(); });
        self.readOnce([token = m_live.token()](Connection&, std::string_view) {});
    });
    EXPECT_EVENTUALLY(m_live.count() == 4);
    connection.close();
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_EQ(0, m_live.used());
}

// Written, fed and closed from three threads at once: without one lock of the user's.
TEST_F(KitConnection, KeepsItsCallsApart) {
    constexpr int CONNECTIONS = 60;
    struct Scene {
        int inside = 0;  // no atomic: that is the point
        int calls = 0;
        bool closed = false;
    };
    std::vector<std::unique_ptr<Scene>> scenes;
    std::vector<Connection> connections;
    std::vector<std::unique_ptr<Peer>> peers;
    std::atomic<int> overlaps{0};
    std::atomic<int> ends{0};
    const auto enter = [&overlaps](Scene& scene) {
        overlaps += ++scene.inside != 1 || scene.closed ? 1 : 0;
        ++scene.calls;
        --scene.inside;
    };
    for (int i = 0; i < CONNECTIONS; ++i) {
        Scene* const scene = scenes.emplace_back(std::make_unique<Scene>()).get();
        connections.push_back(open([&, scene](Connection& self) {
            self.onInput([&, scene](Connection& c, std::string_view bytes) {
                enter(*scene);
                c.write(bytes);
            });
            self.onClose([&, scene](Connection&, CloseReason) {
                enter(*scene);
                scene->closed = true;
                ++ends;
            });
        }));
        peers.push_back(std::move(m_peer));
    }
    std::atomic<bool> stop{false};
    std::thread poster([&] {
        for (int round = 0; round < 100; ++round) {
            for (int i = 0; i < CONNECTIONS; ++i) {
                Scene* const scene = scenes[static_cast<size_t>(i)].get();
                connections[static_cast<size_t>(i)].post([&enter, scene](Connection&) { enter(*scene); });
                connections[static_cast<size_t>(i)].after(1ms,
                                                          [&enter, scene](Connection&) { enter(*scene); });
            }
        }
    });
    std::thread feeder([&] {
        while (!stop) {
            for (const auto& peer : peers) {
                peer->feed();
            }
        }
    });
    poster.join();
    for (Connection& connection : connections) {
        connection.close();
    }
    EXPECT_EVENTUALLY(ends == CONNECTIONS);
    stop = true;
    feeder.join();
    m_pool.stop();
    EXPECT_EQ(0, overlaps);
    for (const auto& scene : scenes) {
        EXPECT_GE(scene->calls, 100);
    }
}

TEST_F(KitConnection, KeepsOutputInOrderAndTellsWhenAllIsSent) {
    std::atomic<int> drained{0};
    Connection connection = open([&](Connection& self) { self.onDrained([&](Connection&) { ++drained; }); },
                                 [] {
                                     Kit::ConnectionOptions options;
                                     options.max_output = 4 << 20;
                                     return options;
                                 }());
    ASSERT_TRUE(connection.write(MEGABYTE));
    ASSERT_TRUE(connection.write({"a", std::string_view(MEGABYTE), "z"}));
    EXPECT_GT(connection.waiting(), 0U);
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EQ("a", m_peer->receive(1));
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EQ("z", m_peer->receive(1));
    EXPECT_EVENTUALLY(drained >= 1 && connection.waiting() == 0);
}

TEST_F(KitConnection, TakesAllOfAPieceOrNothing) {
    Kit::ConnectionOptions options;
    options.max_output = 1 << 20;
    Connection connection = open(counted(), options);
    EXPECT_FALSE(connection.write(MEGABYTE + "more than ever fits"));
    EXPECT_EQ(0U, connection.waiting());
    ASSERT_TRUE(connection.write(MEGABYTE));
    const size_t waiting = connection.waiting();
    EXPECT_FALSE(connection.write(MEGABYTE));
    EXPECT_EQ(waiting, connection.waiting());
    EXPECT_EQ(0U, connection.dropped());
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_TRUE(connection.isOpen());
}

TEST_F(KitConnection, DropsAndCountsWhatDoesNotFitIfItIsToldSo) {
    Kit::ConnectionOptions options;
    options.policy = Kit::OutputPolicy::DROP;
    Connection connection = open(counted(), options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    EXPECT_FALSE(connection.write(MEGABYTE));
    EXPECT_EQ(1U, connection.dropped());
    EXPECT_TRUE(connection.isOpen());
}

TEST_F(KitConnection, EndsWhenTooMuchWaitsIfItIsToldSo) {
    Kit::ConnectionOptions options;
    options.policy = Kit::OutputPolicy::CLOSE;
    Connection connection = open(counted(), options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    EXPECT_FALSE(connection.write(MEGABYTE));
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::OVERFLOW, m_reason);
}

// Whoever does not read is not listened to.
TEST_F(KitConnection, ReadsNothingWhileTooMuchWaits) {
    std::atomic<size_t> read{0};
    Connection connection = open([&](Connection& self) {
        self.onInput([&](Connection& c, std::string_view bytes) {
            read += bytes.size();
            c.write(MEGABYTE);
        });
    });
    m_peer->send("1");
    EXPECT_EVENTUALLY(read == 1 && connection.waiting() > 0);
    m_peer->send("2");
    see_workers_at_work();
    EXPECT_EQ(1U, read);
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EVENTUALLY(read == 2);
}

TEST_F(KitConnection, ReadsOnWhileLittleWaits) {
    Kit::ConnectionOptions options;
    options.max_output = 8 << 20;
    std::atomic<size_t> read{0};
    Connection connection = open(
        [&](Connection& self) {
            self.onInput([&](Connection&, std::string_view bytes) { read += bytes.size(); });
        },
        options);
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(connection.write(MEGABYTE));
    }
    ASSERT_GT(connection.waiting(), options.max_output / 4);
    m_peer->send("1");
    see_workers_at_work();
    EXPECT_EQ(0U, read);
    while (connection.waiting() > options.max_output / 8) {
        EXPECT_EQ(4096U, m_peer->receive(4096).size());
    }
    EXPECT_EVENTUALLY(read == 1);
    EXPECT_GT(connection.waiting(), 0U);
}

TEST_F(KitConnection, SeesByAWriteThatThePeerIsLost) {
    Connection connection = open(counted());
    connection.pause();
    m_peer->hang_up();
    EXPECT_FALSE(connection.write("x"));
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::PEER_LOST, m_reason);
}

TEST_F(KitConnection, SeesByWhatWaitsThatThePeerIsLost) {
    Connection connection = open(counted());
    connection.pause();
    ASSERT_TRUE(connection.write(MEGABYTE));
    m_peer->hang_up();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::PEER_LOST, m_reason);
}

TEST_F(KitConnection, EndsWhenThereIsNoMemoryForWhatWaits) {
    Connection connection = open(counted());
    {
        const OneAllocationFails fails(0);
        EXPECT_FALSE(connection.write(MEGABYTE));
    }
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::ABORTED, m_reason);
}

TEST_F(KitConnection, TakesNothingOnceItIsToEnd) {
    Connection closed = open(counted());
    ASSERT_TRUE(closed.write(MEGABYTE));
    closed.close();
    EXPECT_FALSE(closed.write("x"));
    EXPECT_FALSE(closed.finish());

    CSemaphore done(0);
    Connection aborted = open([&](Connection& self) {
        self.abort();
        EXPECT_FALSE(self.write("x"));
        EXPECT_FALSE(self.finish());
        done.post();
    });
    done.pend();
}

TEST_F(KitConnection, EndsAPeerThatTakesNothing) {
    Kit::ConnectionOptions options;
    options.max_output_age = 30ms;
    Connection connection = open(counted(), options);
    ASSERT_TRUE(connection.write(MEGABYTE));
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::STALLED, m_reason);
}

TEST_F(KitConnection, AgeOfWhatWaitsBeginsAnewWhenThePeerTakesSome) {
    Kit::ConnectionOptions options;
    options.max_output_age = 60ms;
    Connection connection = open(counted(), options);
    const uint64_t begin = CTime::getCurrentMicroSecond();
    ASSERT_TRUE(connection.write(MEGABYTE));
    const size_t waiting = connection.waiting();
    while (CTime::getCurrentMicroSecond() < begin + 20000) {
    }
    uint64_t not_yet = begin;  // nothing had been taken by then
    for (uint64_t now = not_yet; m_ends == 0 && connection.waiting() == waiting;
         now = CTime::getCurrentMicroSecond()) {
        not_yet = now;
        m_peer->receive(4096);
    }
    const bool taken = connection.isOpen();  // or this thread stood still for so long
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::STALLED, m_reason);
    EXPECT_GE(m_ended_us, (taken ? not_yet : begin) + 60000);
}

// On a machine that stands still for so long it may end earlier than bytes could move again.
TEST_F(KitConnection, EndsWhenItIsIdleAndNotWhileSomethingComes) {
    Kit::ConnectionOptions options;
    options.idle_timeout = 60ms;
    std::atomic<size_t> read{0};
    Connection connection = open(
        [&](Connection& self) {
            counted()(self);
            self.onInput([&](Connection&, std::string_view bytes) { read += bytes.size(); });
        },
        options);
    const uint64_t begin = CTime::getCurrentMicroSecond();
    uint64_t last = begin;
    for (size_t sent = 0; m_ends == 0 && last < begin + 40000;) {
        const uint64_t before = CTime::getCurrentMicroSecond();
        sent += m_peer->feed();
        EXPECT_EVENTUALLY(read == sent || m_ends == 1);
        last = read == sent ? before : last;
    }
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::IDLE, m_reason);
    EXPECT_GE(m_ended_us, last + 60000);
}

TEST_F(KitConnection, IsNotIdleWhileSomethingGoes) {
    Kit::ConnectionOptions options;
    options.idle_timeout = 60ms;
    Connection connection = open(counted(), options);
    const uint64_t begin = CTime::getCurrentMicroSecond();
    uint64_t last = begin;
    while (m_ends == 0 && last < begin + 40000) {
        const uint64_t before = CTime::getCurrentMicroSecond();
        last = connection.write("x") ? before : last;
        m_peer->take_all();
    }
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::IDLE, m_reason);
    EXPECT_GE(m_ended_us, last + 60000);
}

TEST_F(KitConnection, TakesIdleTimesBeyondThoseOfATimer) {
    Kit::ConnectionOptions options;
    options.idle_timeout = std::chrono::hours(24 * 365);
    LogCapture log;
    Connection connection = open(
        [](Connection& self) { self.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); }); },
        options);
    m_peer->send("x");
    EXPECT_EQ("x", m_peer->receive(1));
    EXPECT_EQ(0U, log.countLevel(2)) << log.dump();
}

TEST_F(KitConnection, EndsOneDirectionAndReadsOn) {
    std::string read;
    Connection connection = open([&](Connection& self) {
        self.onInput([&](Connection&, std::string_view bytes) { read += bytes; });
        self.onEnd([](Connection& c) { c.close(); });
        counted()(self);
    });
    EXPECT_TRUE(connection.write("all"));
    EXPECT_TRUE(connection.finish());
    EXPECT_FALSE(connection.write("more"));
    EXPECT_EQ("all", m_peer->receive(3));
    EXPECT_TRUE(m_peer->is_ended());
    m_peer->send("answer");
    m_peer->finish();
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ("answer", read);
    EXPECT_EQ(CloseReason::CLOSED, m_reason);
}

TEST_F(KitConnection, EndsItsDirectionAfterAllThatWaits) {
    Connection connection = open(counted());
    ASSERT_TRUE(connection.write(MEGABYTE));
    EXPECT_TRUE(connection.finish());
    EXPECT_FALSE(connection.write("more"));
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_TRUE(m_peer->is_ended());
    EXPECT_EQ(0, m_ends);
}

TEST_F(KitConnection, WritesOnToAPeerThatHasEndedItsDirection) {
    Connection connection = open([](Connection& self) {
        self.onEnd([](Connection& c) {
            c.write("bye");
            c.close();
        });
    });
    m_peer->finish();
    EXPECT_EQ("bye", m_peer->receive(3));
    EXPECT_TRUE(m_peer->is_ended());
}

TEST_F(KitConnection, SendsWhatWaitsBeforeItCloses) {
    Connection connection = open(counted());
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.close();
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_TRUE(m_peer->is_ended());
    EXPECT_EVENTUALLY(m_ends == 1);
    EXPECT_EQ(CloseReason::CLOSED, m_reason);
}

TEST_F(KitConnection, PausesAndGoesOn) {
    std::atomic<size_t> read{0};
    Connection connection = open([&](Connection& self) {
        self.onInput([&](Connection& c, std::string_view bytes) {
            read += bytes.size();
            c.pause();
        });
    });
    m_peer->send("12");
    EXPECT_EVENTUALLY(read == 2);
    m_peer->send("34");
    CSemaphore turn(0);
    connection.after(20ms, [&](Connection&) { turn.post(); });
    turn.pend();
    EXPECT_EQ(2U, read);
    connection.resume();
    EXPECT_EVENTUALLY(read == 4);
}

TEST_F(KitConnection, ReadsByAsking) {
    std::string read;
    std::atomic<int> answers{0};
    Connection connection = open([&](Connection& self) {
        self.readOnce([&](Connection&, std::string_view bytes) {
            read += bytes;
            ++answers;
        });
    });
    m_peer->send("one");
    EXPECT_EVENTUALLY(answers == 1);
    m_peer->send("two");
    CSemaphore turn(0);
    connection.after(20ms, [&](Connection&) { turn.post(); });
    turn.pend();
    EXPECT_EQ(1, answers);
    const auto ask = [&] {
        connection.readOnce([&](Connection&, std::string_view bytes) {
            read += bytes.empty() ? "." : bytes;
            ++answers;
        });
    };
    ask();  // from a thread that is no worker
    EXPECT_EVENTUALLY(answers == 2);
    EXPECT_EQ("onetwo", read);
    ask();
    connection.close();
    EXPECT_EVENTUALLY(answers == 3);
    ask();
    EXPECT_EVENTUALLY(answers == 4);
    EXPECT_EQ("onetwo..", read);
}

TEST_F(KitConnection, TellsWhenThereIsRoom) {
    Connection connection = open(counted());
    std::atomic<int> rooms{0};
    connection.whenRoom([&](Connection&, bool open) { rooms += open ? 1 : 100; });
    EXPECT_EVENTUALLY(rooms == 1);
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.whenRoom([&](Connection&, bool open) { rooms += open ? 1 : 100; });
    EXPECT_EQ(1, rooms);
    EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
    EXPECT_EVENTUALLY(rooms == 2);
    ASSERT_TRUE(connection.write(MEGABYTE));
    connection.whenRoom([&](Connection&, bool open) { rooms += open ? 1 : 100; });
    connection.abort();
    EXPECT_EVENTUALLY(rooms == 102);
}

TEST_F(KitConnection, EndsWhenACallBackThrowsAndNothingElseDoes) {
    LogCapture log;
    Connection connection = open([this](Connection& self) {
        counted()(self);
        self.onInput([](Connection&, std::string_view) { throw std::runtime_error("not understood"); });
    });
    m_peer->send("x");
    EXPECT_EVENTUALLY(m_ends == 1 && m_live.count() == 0);
    EXPECT_EQ(CloseReason::FAILED, m_reason);
    EXPECT_TRUE(log.containsMatching(2, "a call-back of a Connection .*: not understood\n"));
    open([](Connection& self) {
        self.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
    });
    m_peer->send("on");
    EXPECT_EQ("on", m_peer->receive(2));
}

TEST_F(KitConnection, MayChangeACallBackInsideIt) {
    Connection connection = open([this](Connection& self) {
        self.onInput([token = m_live.token()](Connection& c, std::string_view) mutable {
            c.onInput([](Connection& again, std::string_view) { again.write("second"); });
            token.use();  // what runs is still there
            c.write("first");
        });
    });
    m_peer->send("x");
    EXPECT_EQ("first", m_peer->receive(5));
    EXPECT_EVENTUALLY(m_live.count() == 0);
    m_peer->send("x");
    EXPECT_EQ("second", m_peer->receive(6));
}

TEST_F(KitConnection, OutlivesItsPoolAsAHandleThatDoesNothing) {
    Connection connection = open(counted());
    EXPECT_EQ(0U, m_pool.stop().stayed);
    EXPECT_EQ(1, m_ends);
    EXPECT_EQ(0, m_live.count());
    EXPECT_FALSE(connection.isOpen());
    EXPECT_FALSE(connection.write("x"));
    EXPECT_FALSE(connection.post([](Connection&) {}));
    connection.close();
    Connection other = connection.share();
    EXPECT_TRUE(other == connection);
    EXPECT_EQ("", other.peer());
}

TEST_F(KitConnection, ClosesADescriptorThatNobodyTakes) {
    Kit::Pool none;
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    Peer peer(ends[1]);
    LogCapture log;
    EXPECT_FALSE(Connection::adopt(none, ends[0], {}, [](Connection&) {}));
    EXPECT_TRUE(peer.is_ended());
    EXPECT_TRUE(log.containsMatching(2, "descriptor [0-9]+ is closed: [^]*"));
}
