// What the kit's operations do when each of their allocations fails: no exception, no crash, no call lost.
#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <Reticor/kit/Connect.h>
#include <Reticor/kit/Server.h>
#include <Reticor/kit/Timer.h>

#include "Kit/PoolState.h"
#include "support/Eventually.h"
#include "support/kit/ConnectionFixture.h"
#include "support/kit/Names.h"
#include "support/kit/Shortage.h"
#include "support/kit/SilentPort.h"
#include "support/program/TcpClient.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;

class KitShortage : public ConnectionFixture {
protected:
    /// A connection that has begun.
    Connection begun(Kit::ConnectionOptions options = {}) {
        Connection connection = open(counted(), options);
        wait_for_calls_of(connection);
        return connection;
    }
};

TEST_F(KitShortage, AQuestionForInputIsAnsweredAllTheSame) {
    sweepShortages([this](size_t number) {
        Connection connection = begun();
        std::atomic<int> answers{0};
        std::atomic<size_t> bytes{0};
        const bool failed = withOneFailing(number, [&] {
            connection.readOnce([&](Connection&, std::string_view come) {
                bytes += come.size();
                ++answers;
            });
        });
        m_peer->send("x");
        EXPECT_EVENTUALLY(answers == 1);
        EXPECT_TRUE(failed || bytes == 1U);
        connection.abort();
        m_pool.stop();
        EXPECT_EQ(1, answers);
        m_pool = Kit::Pool(2);
        return failed;
    });
}

TEST_F(KitShortage, WhoeverWaitsForRoomIsToldAllTheSame) {
    for (const bool full : {false, true}) {
        sweepShortages([this, full](size_t number) {
            Connection connection = begun();
            if (full) {
                EXPECT_TRUE(connection.write(MEGABYTE));
            }
            std::atomic<int> told{0};
            std::atomic<int> nobodys{0};
            const auto note = [&](Connection& given, bool) {
                nobodys += given ? 0 : 1;
                ++told;
            };
            const bool failed = withOneFailing(number, [&] {
                connection.whenRoom(note);
                connection.whenRoom(note);
            });
            EXPECT_TRUE(nobodys == 0 || !connection.isOpen());
            if (full && connection.isOpen()) {
                EXPECT_TRUE(m_peer->receive(1 << 20) == MEGABYTE);
            }
            EXPECT_EVENTUALLY(told == 2);
            return failed;
        });
    }
}

TEST_F(KitShortage, CallBacksAreSetAtTheStartWithoutMemory) {
    std::atomic<size_t> allocated{1};
    Connection connection = open([&](Connection& self) {
        const size_t before = allocationCount();
        self.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
        self.onEnd([](Connection& c) { c.close(); });
        self.onDrained([](Connection&) {});
        self.onClose([this](Connection&, CloseReason) { ++m_ends; });
        allocated = allocationCount() - before;
    });
    m_peer->send("answer");
    EXPECT_EQ("answer", m_peer->receive(6));
    EXPECT_EQ(0U, allocated);
    m_peer->finish();
    EXPECT_EVENTUALLY(m_ends == 1);
}

/// What a lambda captures: little, or more than fits without an allocation.
struct Captured {
    Live::Token token;
    size_t ballast;
};
struct MuchCaptured : Captured {
    std::array<char, 100> more{};
};

class KitShortageOfACall : public KitShortage {
protected:
    /// `way(captured)` gives whether a call that uses what it captures was taken.
    template <typename Way>
    void sweep(Way way) {
        sweep_with([this] { return Captured{m_live.token(), 0}; }, way);
        sweep_with([this] { return MuchCaptured{{m_live.token(), 0}, {}}; }, way);
    }

private:
    template <typename Make, typename Way>
    void sweep_with(Make make, Way way) {
        int used = m_live.used();
        const int live = m_live.count();
        sweepShortages([&](size_t number) {
            bool taken = false;
            const bool failed = withOneFailing(number, [&] { taken = way(make()); });
            EXPECT_TRUE(taken || m_live.count() == live) << "refused, and not destroyed at once";
            used += taken ? 1 : 0;
            EXPECT_EVENTUALLY(m_live.used() == used && m_live.count() == live);
            return failed;
        });
    }
};

TEST_F(KitShortageOfACall, OfAPoolRunsOnceOrIsRefused) {
    sweep([this](auto captured) {
        return m_pool.post([c = std::move(captured)]() mutable { c.token.use(); });
    });
    sweep([this](auto captured) {
        return m_pool.postSerial([c = std::move(captured)]() mutable { c.token.use(); });
    });
}

TEST_F(KitShortageOfACall, OfAConnectionRunsOnceOrIsRefused) {
    Connection connection = begun();
    sweep([&](auto captured) {
        return connection.post([c = std::move(captured)](Connection&) mutable { c.token.use(); });
    });
    sweep([&](auto captured) {
        return connection.after(1ms, [c = std::move(captured)](Connection&) mutable { c.token.use(); });
    });
}

TEST_F(KitShortageOfACall, OfATimerIsArmedOrDestroyed) {
    const auto timer_with = [this](auto captured) {
        Kit::Timer timer(m_pool, 1h, [c = std::move(captured)]() mutable { c.token.use(); });
        return timer.isArmed() ? 1 : 0;
    };
    for (const bool much : {false, true}) {
        int armed = 0;
        const size_t failures = sweepShortages([&](size_t number) {
            const bool failed = withOneFailing(number, [&] {
                armed += much ? timer_with(MuchCaptured{{m_live.token(), 0}, {}})
                              : timer_with(Captured{m_live.token(), 0});
            });
            EXPECT_EVENTUALLY(m_live.count() == 0);
            return failed;
        });
        EXPECT_GE(failures, much ? 2U : 1U);
        EXPECT_GE(armed, 1);
    }
    EXPECT_EQ(0, m_live.used());
}

/// Makes a timer when it goes, as a user's object may.
class MakesATimerAtItsEnd {
public:
    MakesATimerAtItsEnd(Kit::Pool& pool, int& ends) : m_pool(&pool), m_ends(ends) {}
    MakesATimerAtItsEnd(MakesATimerAtItsEnd&& other) noexcept
        : m_pool(std::exchange(other.m_pool, nullptr)), m_ends(other.m_ends) {}
    MakesATimerAtItsEnd& operator=(MakesATimerAtItsEnd&&) = delete;
    ~MakesATimerAtItsEnd() {
        if (m_pool != nullptr) {
            const Kit::Timer timer(*m_pool, 1h, [] {});
            ++m_ends;
        }
    }

private:
    Kit::Pool* m_pool;
    int& m_ends;
};

TEST_F(KitShortageOfACall, WhatIsRefusedIsDestroyedUnderNoLock) {
    int ends = 0;
    size_t made = 0;
    const size_t failures = sweepShortages([&](size_t number) {
        ++made;
        return withOneFailing(number, [&] {
            const Kit::Timer timer(m_pool, 1h, [last = MakesATimerAtItsEnd(m_pool, ends)] {});
        });
    });
    EXPECT_GE(failures, 2U);
    m_pool.stop(0ms);
    EXPECT_EQ(made, static_cast<size_t>(ends));
}

TEST_F(KitShortage, AWriteIsTakenWholeOrEndsTheConnection) {
    Kit::ConnectionOptions options;
    options.max_output_age = 1h;
    options.max_output = 2 << 20;
    for (const bool in_pieces : {false, true}) {
        const size_t failures = sweepShortages([&](size_t number) {
            m_ends = 0;
            Connection connection = begun(options);
            bool taken = false;
            const bool failed = withOneFailing(number, [&] {
                taken = in_pieces ? connection.write({"<", MEGABYTE}) : connection.write(MEGABYTE);
            });
            if (taken) {
                EXPECT_EQ(MEGABYTE.size() + (in_pieces ? 1 : 0),
                          m_peer->receive(MEGABYTE.size() + (in_pieces ? 1 : 0)).size());
                connection.abort();
            }
            EXPECT_EVENTUALLY(m_ends == 1);
            EXPECT_EQ(CloseReason::ABORTED, m_reason);
            return failed;
        });
        EXPECT_GE(failures, 1U);
    }
}

// A peer that takes nothing is ended in time, or there is no connection at all.
TEST_F(KitShortage, TimeOutsHoldOrTheConnectionEnds) {
    Kit::ConnectionOptions options;
    options.max_output_age = 20ms;
    const size_t stalled = sweepShortages([&](size_t number) {
        m_ends = 0;
        Connection connection = begun(options);
        bool taken = false;
        const bool failed = withOneFailing(number, [&] { taken = connection.write(MEGABYTE); });
        EXPECT_EVENTUALLY(m_ends == 1);
        EXPECT_EQ(taken ? CloseReason::STALLED : CloseReason::ABORTED, m_reason);
        return failed;
    });
    EXPECT_GE(stalled, 2U);
}

TEST_F(KitShortage, ACallBackThatIsChangedIsTheNewOneOrTheConnectionEnds) {
    int ended = 0;
    const size_t failures = sweepShortages([&](size_t number) {
        m_ends = 0;
        Connection connection = begun();
        const bool failed = withOneFailing(number, [&] {
            connection.onInput([](Connection& c, std::string_view bytes) {
                c.write(bytes);
                c.close();
            });
        });
        m_peer->offer("x");
        const std::string answer = m_peer->receive(1);
        EXPECT_EVENTUALLY(m_ends == 1);
        EXPECT_EQ(answer.empty() ? CloseReason::ABORTED : CloseReason::CLOSED, m_reason);
        EXPECT_TRUE(failed || answer == "x");
        ended += answer.empty() ? 1 : 0;
        return failed;
    });
    EXPECT_GE(failures, 2U);
    EXPECT_GE(ended, 2);
}

TEST_F(KitShortage, AnAdoptedDescriptorIsServedOrClosed) {
    const size_t failures = sweepShortages([&](size_t number) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        Peer peer(ends[1]);
        Connection connection;
        const bool failed = withOneFailing(number, [&] {
            connection =
                Connection::adopt(m_pool, ends[0], {}, [](Connection& self) { self.write("served"); });
        });
        EXPECT_EQ(connection ? "served" : "", peer.receive(6));
        connection.close();
        EXPECT_TRUE(peer.is_ended());
        EXPECT_EVENTUALLY(Kit::PoolState::of(m_pool)->places_taken() == 0);
        return failed;
    });
    EXPECT_GE(failures, 2U);
}

TEST(KitShortageOfAServer, ListensAndAnswersOrSaysNo) {
    const size_t failures = sweepShortages([](size_t number) {
        std::optional<Kit::Server> server;
        bool listens = false;
        const bool failed = withOneFailing(number, [&] {
            server.emplace([](Kit::Connection& client) { client.write("here"); });
            listens = server->listen("127.0.0.1", 0);
        });
        EXPECT_EQ(listens, server->port() != 0);
        if (listens) {
            EXPECT_EQ("here", TcpClient(server->port()).receive(4));
        }
        EXPECT_EQ(0U, server->stop().stayed);
        return failed;
    });
    EXPECT_GE(failures, 5U);
}

class KitShortageOfAConnect : public KitShortage {
protected:
    /// Connects to a port where nobody answers, with each of the allocations failing.
    void sweep(const char* host) {
        SilentPort silent;
        names().addresses = {{"127.0.0.1", silent.number()}, {"127.0.0.1", silent.number()}};
        Kit::ConnectOptions options;
        options.deadline = 20ms;
        const auto port = static_cast<unsigned short>(silent.number());
        const size_t failed = sweepShortages([&](size_t number) {
            Live live;
            bool taken = false;
            const bool short_of_it = withOneFailing(number, [&] {
                taken = Kit::connect(
                    m_pool, host, port, options,
                    [token = live.token()](Connection&, Kit::ConnectResult, int) mutable { token.use(); });
            });
            EXPECT_EVENTUALLY(live.count() == 0);
            EXPECT_EQ(taken ? 1 : 0, live.used());
            return short_of_it;
        });
        EXPECT_GE(failed, 2U);
    }
};

TEST_F(KitShortageOfAConnect, AnAttemptAtAnAddressEndsOnceOrIsRefused) {
    sweep("127.0.0.1");
}

TEST_F(KitShortageOfAConnect, AnAttemptAtANameEndsOnceOrIsRefused) {
    sweep("listed.test");
}

TEST_F(KitShortageOfAConnect, AnAttemptAtALongNameEndsOnceOrIsRefused) {
    sweep("a.name.that.is.longer.than.most.nobody.test");
}

}  // namespace
}  // namespace Orvex::Testing
