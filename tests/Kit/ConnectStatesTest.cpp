// connect: the order of the addresses, what is closed and refused, and the resolver's few threads.
#include <netdb.h>
#include <netinet/in.h>

#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Connect.h>
#include <Reticor/kit/Server.h>

#include "Kit/PoolState.h"
#include "Kit/connect/Connector.h"
#include "Kit/resolve/Resolver.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/ThreadFault.h"
#include "support/kit/Live.h"
#include "support/kit/Names.h"
#include "support/kit/SilentPort.h"
#include "support/socket/Loopback.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CGuard;
using Infra::CMutex;
using Infra::CSemaphore;
using Infra::CTime;
using Kit::Connection;
using Kit::ConnectResult;

/// What attempts have come to.
class KitAttempt : public testing::Test {
protected:
    void TearDown() override { m_pool.stop(0ms); }

    bool start(const std::string& host, int port, const Kit::ConnectOptions& options = {}) {
        return Kit::connect(
            m_pool, host, static_cast<unsigned short>(port), options,
            [this, token = m_live.token()](Connection& connection, ConnectResult result, int error) {
                CGuard guard(m_mutex);
                m_results.emplace_back(result, error);
                m_connections.push_back(connection.share());
                ++m_calls;
            });
    }
    std::pair<ConnectResult, int> result() {
        CGuard guard(m_mutex);
        return m_results.empty() ? std::pair(ConnectResult::CANCELLED, -1) : m_results.back();
    }
    Connection connection() {
        CGuard guard(m_mutex);
        return m_connections.empty() ? Connection() : m_connections.back().share();
    }

    Kit::Pool m_pool{1};
    Live m_live;
    CMutex m_mutex;
    std::vector<std::pair<ConnectResult, int>> m_results;
    std::vector<Connection> m_connections;
    std::atomic<int> m_calls{0};
};

TEST_F(KitAttempt, IsRefusedWithoutACallAndWithoutAPool) {
    Kit::Pool none;
    Live live;
    const auto call = [&] {
        return [token = live.token()](Connection&, ConnectResult, int) mutable { token.use(); };
    };
    EXPECT_FALSE(Kit::connect(none, "127.0.0.1", 1, call()));
    EXPECT_FALSE(Kit::connect(m_pool, "127.0.0.1", 1, nullptr));
    m_pool.stop();
    EXPECT_FALSE(Kit::connect(m_pool, "127.0.0.1", 1, call()));
    EXPECT_EQ(0, live.used());
    EXPECT_EQ(0, live.count());
}

TEST_F(KitAttempt, SetsItsCallBacksBeforeAnythingElse) {
    Kit::Server server([](Connection& client) {
        client.write("greeting");
        client.close();
    });
    ASSERT_TRUE(server.listen("::1", 0));
    std::string read;
    CSemaphore done(0);
    std::atomic<bool> inside{false};
    ASSERT_TRUE(
        Kit::connect(m_pool, "::1", server.port(), [&](Connection& self, ConnectResult result, int error) {
            EXPECT_EQ(ConnectResult::CONNECTED, result);
            EXPECT_EQ(0, error);
            inside = self.isInside();
            EXPECT_EQ("[::1]:" + std::to_string(server.port()), self.peer());
            self.onInput([&](Connection&, std::string_view bytes) { read += bytes; });
            self.onClose([&](Connection&, Kit::CloseReason) { done.post(); });
        }));
    done.pend();
    EXPECT_TRUE(inside);
    EXPECT_EQ("greeting", read);
}

TEST_F(KitAttempt, GivesTheConnectionItsOptions) {
    Kit::Server server([](Connection&) {});
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    Kit::ConnectOptions options;
    options.connection.max_output = 10;
    ASSERT_TRUE(start("127.0.0.1", server.port(), options));
    EXPECT_EVENTUALLY(m_calls == 1);
    EXPECT_FALSE(connection().write("eleven byte"));
    EXPECT_TRUE(connection().write("ten bytes!"));
}

// IPv6 and IPv4 by turns: the first address never answers, and which of the open ones wins shows the order.
TEST_F(KitAttempt, TakesTheFamiliesByTurns) {
    const SilentPort six("::1");
    const SilentPort four("127.0.0.1");
    Kit::Server server([](Connection&) {});
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    ASSERT_TRUE(server.listen("::1", 0));
    const struct {
        std::vector<std::pair<std::string, int>> listed;
        const char* winner;
    } cases[] = {
        {{{"::1", six.number()}, {"::1", server.port(1)}, {"127.0.0.1", server.port(0)}}, "127.0.0.1"},
        {{{"127.0.0.1", four.number()}, {"127.0.0.1", server.port(0)}, {"::1", server.port(1)}}, "[::1]"},
        {{{"127.0.0.1", four.number()}, {"127.0.0.1", server.port(0)}}, "127.0.0.1"},
    };
    Kit::ConnectOptions options;
    options.stagger = 20ms;
    int calls = 0;
    for (const auto& each : cases) {
        names().addresses = each.listed;
        const uint64_t begin = CTime::getCurrentMicroSecond();
        ASSERT_TRUE(start("listed.test", 1, options));
        EXPECT_EVENTUALLY(m_calls == calls + 1);
        ++calls;
        EXPECT_EQ(ConnectResult::CONNECTED, result().first);
        EXPECT_EQ(0U, connection().peer().rfind(each.winner, 0)) << connection().peer();
        EXPECT_GE(CTime::getCurrentMicroSecond() - begin, 17000U) << "the first one had its time";
    }
    EXPECT_EQ(0, names().lists) << "what the system listed is given back";
}

TEST_F(KitAttempt, GoesThroughAllAddressesByTime) {
    std::list<SilentPort> silent(3);
    Kit::Server server([](Connection&) {});
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    names().addresses.clear();
    for (const SilentPort& each : silent) {
        names().addresses.emplace_back("127.0.0.1", each.number());
    }
    names().addresses.emplace_back("127.0.0.1", server.port());
    Kit::ConnectOptions options;
    options.stagger = 10ms;
    const uint64_t begin = CTime::getCurrentMicroSecond();
    ASSERT_TRUE(start("listed.test", 1, options));
    EXPECT_EVENTUALLY(m_calls == 1);
    EXPECT_EQ(ConnectResult::CONNECTED, result().first);
    EXPECT_GE(CTime::getCurrentMicroSecond() - begin, 3 * 7000U);
}

TEST_F(KitAttempt, ClosesTheOthersWhenOneHasAnswered) {
    // Both take it; the one that is later must see its end, or never see it at all.
    Live ends;
    std::atomic<int> come{0};
    const auto count = [&](Connection& client) {
        ++come;
        client.onClose([token = ends.token()](Connection&, Kit::CloseReason) mutable { token.use(); });
    };
    Kit::Server first(count);
    Kit::Server second(count);
    ASSERT_TRUE(first.listen("127.0.0.1", 0));
    ASSERT_TRUE(second.listen("127.0.0.1", 0));
    names().addresses = {{"127.0.0.1", first.port()}, {"127.0.0.1", second.port()}};
    Kit::ConnectOptions options;
    options.stagger = 0ms;
    for (int round = 1; round <= 20; ++round) {
        ASSERT_TRUE(start("listed.test", 1, options));
        EXPECT_EVENTUALLY(m_calls == round);
        EXPECT_EQ(ConnectResult::CONNECTED, result().first);
    }
    EXPECT_EVENTUALLY(come - ends.used() == 20);
    EXPECT_EQ(20U, m_connections.size());
}

TEST_F(KitAttempt, TellsTheLastErrorWhenAllRefuse) {
    Reticor::CSockStream holder;
    const int refusing = refusingPort(holder);
    names().addresses = {{"127.0.0.1", refusing}, {"127.0.0.1", refusing}, {"::1", refusing}};
    ASSERT_TRUE(start("listed.test", 1));
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(std::pair(ConnectResult::REFUSED, ECONNREFUSED), result());
    EXPECT_FALSE(connection());
}

TEST_F(KitAttempt, AnAddressThatCannotBeTriedIsRefusedAtOnce) {
    ASSERT_TRUE(start("255.255.255.255", 1));  // for all, which is not for a stream
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::REFUSED, result().first);
    EXPECT_NE(0, result().second);
}

TEST_F(KitAttempt, WithoutADescriptorIsRefusedWithTheError) {
    Kit::Server server([](Connection&) {});
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    {
        const NoDescriptors none;
        ASSERT_TRUE(start("127.0.0.1", server.port()));
        EXPECT_EVENTUALLY(m_calls == 1);
    }
    EXPECT_EQ(std::pair(ConnectResult::REFUSED, EMFILE), result());
}

TEST_F(KitAttempt, WithoutAPlaceOnThePoolIsCancelled) {
    Kit::Server server([](Connection&) {});
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    while (Kit::PoolState::of(m_pool)->take_place()) {
    }
    ASSERT_TRUE(start("127.0.0.1", server.port()));
    EXPECT_EVENTUALLY(m_calls == 1);
    EXPECT_EQ(ConnectResult::CANCELLED, result().first);
    EXPECT_FALSE(connection());
    EXPECT_EVENTUALLY(server.counts().accepted == 1 && server.counts().open == 0);
}

TEST_F(KitAttempt, EndsAtItsDeadlineWithTheErrorOfThat) {
    const SilentPort silent;
    names().addresses = {{"127.0.0.1", silent.number()}, {"127.0.0.1", silent.number()}};
    Kit::ConnectOptions options;
    options.stagger = 1ms;
    for (const auto deadline : {-5ms, 0ms, 20ms}) {
        const int before = m_calls;
        const uint64_t begin = CTime::getCurrentMicroSecond();
        options.deadline = deadline;
        ASSERT_TRUE(start("listed.test", 1, options));
        EXPECT_EVENTUALLY(m_calls == before + 1 && m_live.count() == 0);
        EXPECT_EQ(std::pair(ConnectResult::TIMED_OUT, ETIMEDOUT), result());
        EXPECT_GE(CTime::getCurrentMicroSecond() - begin + 3000, deadline > 0ms ? 20000U : 0U);
    }
}

// Two that find an outcome beside each other, as two workers may.
TEST_F(KitAttempt, IsOverOnce) {
    const SilentPort silent;
    Live live;
    auto* const connector = Kit::PoolState::of(m_pool)->make<Kit::Connector>(
        Kit::ConnectOptions(),
        Kit::Connected([token = live.token()](Connection&, ConnectResult, int) mutable { token.use(); }));
    ASSERT_NE(nullptr, connector);
    connector->start("127.0.0.1", static_cast<unsigned short>(silent.number()));
    constexpr unsigned int CANCEL = 2;
    connector->handle_message(0, CANCEL, 0);
    EXPECT_EQ(1, live.used());
    EXPECT_EQ(0, live.count());
    connector->handle_message(0, CANCEL, 0);
    EXPECT_EQ(-1, connector->handle_timeout(1));
    EXPECT_EQ(0, connector->handle_output(silent.number()));
    EXPECT_EQ(1, live.used());
    EXPECT_EQ(1U, Kit::PoolState::of(m_pool)->left()) << "the box for posted calls";
    connector->DecRef();
}

TEST_F(KitAttempt, WithoutAThreadForTheNameIsCancelledAndTheNextOneIsNot) {
    {
        const ThreadFault none;
        ASSERT_TRUE(start("nobody.test", 1));
        EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
        EXPECT_EQ(ConnectResult::CANCELLED, result().first);
    }
    ASSERT_TRUE(start("nobody.test", 1));
    EXPECT_EVENTUALLY(m_calls == 2);
    EXPECT_EQ(std::pair(ConnectResult::NOT_FOUND, EAI_NONAME), result());
}

TEST_F(KitAttempt, ThrowingCallIsALineAndItsConnectionEnds) {
    Live ends;
    Kit::Server server([&](Connection& client) {
        client.onClose([token = ends.token()](Connection&, Kit::CloseReason) mutable { token.use(); });
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    LogCapture log;
    ASSERT_TRUE(Kit::connect(m_pool, "127.0.0.1", server.port(), [](Connection&, ConnectResult, int) {
        throw std::runtime_error("no use for it");
    }));
    EXPECT_EVENTUALLY(ends.used() == 1);
    ASSERT_TRUE(Kit::connect(m_pool, "nobody.test", 1, [](Connection&, ConnectResult, int) {
        throw std::runtime_error("no use for it");
    }));
    EXPECT_TRUE(log.eventuallyContainsMatching(2, "a call-back of a connect .*: no use for it\n"));
    EXPECT_TRUE(log.containsMatching(2, "a call-back of a Connection .*: no use for it\n"));
    EXPECT_EQ(0U, m_pool.stop().stayed);
}

// ---- the resolver's threads ------------------------------------------------------------------------------

class KitResolver : public testing::Test {
protected:
    /// Leaves no thread behind.
    void TearDown() override {
        EXPECT_EVENTUALLY(kernelThreadByName("Reticor::Kit") == 0);
        Kit::Resolver::reap();
    }

    struct Told {
        std::atomic<int> answers{0};
        std::atomic<int> gone{0};
        std::atomic<int> error{0};
        std::atomic<size_t> count{0};
        std::atomic<int> port{0};
    };
    class Question final : public Kit::Resolver::Question {
    public:
        explicit Question(Told& to) : m_told(to) {}
        ~Question() override { ++m_told.gone; }
        void answered(const sockaddr_storage* addresses, size_t count, int error) override {
            m_told.error = error;
            m_told.count = count;
            m_told.port = count != 0 ? ntohs(reinterpret_cast<const sockaddr_in&>(*addresses).sin_port) : 0;
            ++m_told.answers;
        }

    private:
        Told& m_told;
    };

    bool ask(const char* host, unsigned short port = 80) {
        auto question = std::make_unique<Question>(m_told);
        question->host = host;
        question->port = port;
        return Kit::Resolver::ask(std::move(question));
    }

    Told m_told;
};

TEST_F(KitResolver, AnswersOnceAndTheQuestionGoesThen) {
    ASSERT_TRUE(ask("127.0.0.1", 4711));
    EXPECT_EVENTUALLY(m_told.gone == 1);
    EXPECT_EQ(1, m_told.answers);
    EXPECT_EQ(0, m_told.error);
    EXPECT_EQ(1U, m_told.count);
    EXPECT_EQ(4711, m_told.port);
    ASSERT_TRUE(ask("nobody.test"));
    EXPECT_EVENTUALLY(m_told.gone == 2);
    EXPECT_EQ(EAI_NONAME, m_told.error);
    EXPECT_EQ(0U, m_told.count);
}

TEST_F(KitResolver, LooksUpFourNamesAtATimeAndTheOthersInTurn) {
    constexpr int NAMES = 11;
    for (int i = 0; i < NAMES; ++i) {
        ASSERT_TRUE(ask("hangs.test"));
    }
    EXPECT_EVENTUALLY(names().looking == 4);
    EXPECT_EQ(0, m_told.answers);
    for (int let_go = 1; let_go <= NAMES; ++let_go) {
        names().let_go.post();
        EXPECT_EVENTUALLY(m_told.gone == let_go && names().looking == std::min(4, NAMES - let_go));
    }
    EXPECT_EQ(NAMES, m_told.answers);
    EXPECT_EQ(4, names().most);
}

TEST_F(KitResolver, ItsThreadsEndWhenThereIsNothingToDoAndStartAnew) {
    for (int round = 1; round <= 50; ++round) {
        ASSERT_TRUE(ask("nobody.test"));
        EXPECT_EVENTUALLY(m_told.gone == round);
        Kit::Resolver::reap();
    }
    EXPECT_EQ(50, m_told.answers);
}

TEST_F(KitResolver, WithoutThreadsRefusesAndDestroysTheQuestion) {
    {
        const ThreadFault none;
        EXPECT_FALSE(ask("nobody.test"));
        EXPECT_EQ(1, m_told.gone);
        EXPECT_EQ(0, m_told.answers);
    }
    ASSERT_TRUE(ask("nobody.test"));
    EXPECT_EVENTUALLY(m_told.gone == 2);
    EXPECT_EQ(1, m_told.answers);
}

TEST_F(KitResolver, WithoutAFurtherThreadTheOthersTakeIt) {
    ASSERT_TRUE(ask("hangs.test"));
    EXPECT_EVENTUALLY(names().looking == 1);
    {
        const ThreadFault none;
        EXPECT_TRUE(ask("nobody.test"));
        EXPECT_EQ(0, m_told.answers);
    }
    names().let_go.post();
    EXPECT_EVENTUALLY(m_told.gone == 2);
    EXPECT_EQ(2, m_told.answers);
}

// Threads that cannot be started beside each other: each question is refused, or answered once.
TEST_F(KitResolver, AskedFromManyThreadsWithoutThreadsForgetsNobody) {
    std::atomic<int> taken{0};
    std::atomic<int> asked{0};
    CSemaphore begin(0);
    std::vector<std::thread> askers;
    {
        for (int i = 0; i < 4; ++i) {
            askers.emplace_back([&] {
                begin.pend();
                for (int k = 0; k < 100; ++k) {
                    taken += ask("nobody.test") ? 1 : 0;
                    ++asked;
                }
            });
        }
        const ThreadFault none;
        for (size_t i = 0; i < askers.size(); ++i) {
            begin.post();
        }
        for (std::thread& asker : askers) {
            asker.join();
        }
    }
    EXPECT_EQ(400, asked);
    EXPECT_EVENTUALLY(m_told.gone == 400);
    EXPECT_EQ(taken, m_told.answers);
}

}  // namespace
}  // namespace Orvex::Testing
