// Server: who is counted by what, errors of accept(2), signals, and what it does without listeners or pools.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Server.h>
#include <Reticor/kit/Timer.h>

#include "Kit/ServerState.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/AcceptSeam.h"
#include "support/kit/Live.h"
#include "support/kit/Peer.h"
#include "support/kit/Shortage.h"
#include "support/program/TcpClient.h"
#include "support/socket/Loopback.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;
using Infra::CTime;
using Kit::CloseReason;
using Kit::Connection;

void answer(Connection& client) {
    client.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
}

// ---- whom it lets in, without a listener -----------------------------------------------------------------

class KitServerDoor : public testing::Test {
protected:
    void make(const Kit::ServerOptions& options, size_t pools = 1) {
        m_server = std::make_unique<Kit::ServerState>(Connection::Event([](Connection&) {}), options);
        for (size_t i = 0; i < pools; ++i) {
            m_server->m_pools.emplace_back(1U);
        }
        for (Kit::Pool& pool : m_server->m_pools) {
            m_server->m_states.push_back(Kit::PoolState::of(pool));
        }
    }
    void TearDown() override {
        m_server->m_pools.clear();  // waits for the connections, which tell it of their end
    }

    static sockaddr_storage address(const std::string& text) {
        sockaddr_storage address{};
        auto& four = reinterpret_cast<sockaddr_in&>(address);
        auto& six = reinterpret_cast<sockaddr_in6&>(address);
        const bool is_six = text.find(':') != std::string::npos;
        address.ss_family = is_six ? AF_INET6 : AF_INET;
        void* const place = is_six ? static_cast<void*>(&six.sin6_addr) : static_cast<void*>(&four.sin_addr);
        EXPECT_EQ(1, inet_pton(address.ss_family, text.c_str(), place));
        return address;
    }
    /// Somebody comes from there. Whether it is let in.
    bool come(const std::string& from) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_peers.emplace_back(ends[1]);
        const uint64_t refused = m_server->counts().refused();
        m_server->serve(ends[0], address(from));
        if (m_server->counts().refused() == refused) {
            return true;
        }
        EXPECT_TRUE(m_peers.back().is_ended()) << "it is closed at once";
        m_peers.pop_back();
        return false;
    }

    std::unique_ptr<Kit::ServerState> m_server;
    std::list<Peer> m_peers;
};

TEST_F(KitServerDoor, CountsAnAddressByWhatOneHostHas) {
    const struct {
        const char* first;
        const char* second;
        bool same;
    } cases[] = {
        {"10.0.0.1", "10.0.0.1", true},
        {"10.0.0.1", "10.0.0.2", false},
        {"10.0.0.1", "::ffff:10.0.0.1", true},
        {"::ffff:10.0.0.1", "::ffff:10.0.0.2", false},
        {"2001:db8:1:2::1", "2001:db8:1:2:ffff:ffff:ffff:ffff", true},
        {"2001:db8:1:2::1", "2001:db8:1:3::1", false},
        {"fe80::1", "fe80::1", true},
        {"fe80::1", "fe80::2", false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.first) + " and " + each.second);
        Kit::ServerOptions options;
        options.most_per_address = 1;
        make(options);
        EXPECT_TRUE(come(each.first));
        EXPECT_EQ(!each.same, come(each.second));
        EXPECT_EQ(each.same ? 1U : 0U, m_server->counts().refused_address);
        EXPECT_EQ(0U, m_server->counts().refused_places);
        EXPECT_EQ(each.same ? 1U : 2U, m_server->counts().open);
        EXPECT_EQ(each.same ? 1U : 2U, m_server->counts().accepted);
        m_peers.clear();
        m_server->m_pools.clear();
    }
}

TEST_F(KitServerDoor, AnAddressHasItsPlaceAgainWhenOneOfItsOwnHasGone) {
    Kit::ServerOptions options;
    options.most_per_address = 2;
    make(options);
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(come("10.0.0.1"));
        EXPECT_TRUE(come("10.0.0.1"));
        EXPECT_FALSE(come("10.0.0.1"));
        EXPECT_TRUE(come("10.0.0.2"));
        m_peers.clear();
        EXPECT_EVENTUALLY(m_server->counts().open == 0);
    }
    EXPECT_EQ(9U, m_server->counts().accepted);
    EXPECT_EQ(3U, m_server->counts().refused_address);
    EXPECT_EQ(3U, m_server->counts().refused());
}

TEST_F(KitServerDoor, NobodyComesInWhereNobodyMay) {
    Kit::ServerOptions options;
    options.most_connections = 0;
    make(options);
    EXPECT_FALSE(come("10.0.0.1"));
    EXPECT_EQ(1U, m_server->counts().refused_places);
    EXPECT_EQ(0U, m_server->counts().open);
    EXPECT_EQ(0U, m_server->counts().accepted);
}

TEST_F(KitServerDoor, SpreadsThemOverItsPoolsAndRefusesWhenAllAreFull) {
    Kit::ServerOptions options;
    options.most_connections = 100000;
    make(options, 2);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(come("10.0.0.1"));
    }
    EXPECT_EQ(5, m_server->m_states[0]->places_taken());
    EXPECT_EQ(5, m_server->m_states[1]->places_taken());
    for (Kit::PoolState* const pool : m_server->m_states) {
        while (pool->take_place()) {
        }
    }
    EXPECT_EQ(nullptr, m_server->choose());
    EXPECT_FALSE(come("10.0.0.1"));
    EXPECT_EQ(1U, m_server->counts().refused_places);
    EXPECT_EQ(10U, m_server->counts().open);
    m_server->m_states[1]->give_place();
    EXPECT_EQ(m_server->m_states[1], m_server->choose());
    EXPECT_TRUE(come("10.0.0.1"));
}

TEST_F(KitServerDoor, TurnsAwayWithoutMemoryAndThrowsNothing) {
    Kit::ServerOptions options;
    options.most_per_address = 100;
    make(options);
    for (const char* const from : {"10.0.0.1", "fe80::1"}) {
        SCOPED_TRACE(from);
        const sockaddr_storage there = address(from);
        const size_t failures = sweepShortages([&](size_t number) {
            int ends[2];
            EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
            Peer peer(ends[1]);
            const Kit::ServerCounts before = m_server->counts();
            const bool failed = withOneFailing(number, [&] { m_server->serve(ends[0], there); });
            const Kit::ServerCounts after = m_server->counts();
            EXPECT_EQ(1U, after.accepted - before.accepted + after.refused() - before.refused());
            EXPECT_EQ(after.accepted - before.accepted, after.open - before.open);
            if (after.refused() != before.refused()) {
                EXPECT_TRUE(peer.is_ended());
            }
            peer.hang_up();
            EXPECT_EVENTUALLY(m_server->counts().open == 0 && m_server->m_states[0]->places_taken() == 0);
            return failed;
        });
        EXPECT_GE(failures, 2U);
    }
}

TEST_F(KitServerDoor, TellsOnlyOfThoseWhoWereRefusedSinceTheLastLine) {
    make({});
    LogCapture log;
    EXPECT_FALSE(m_server->has_news());
    m_server->tell();
    EXPECT_EQ(0U, log.countLevel(2));
    for (const auto why : {Kit::ServerState::NO_PLACE, Kit::ServerState::NO_PLACE, Kit::ServerState::TOO_MANY,
                           Kit::ServerState::NO_DESCRIPTOR}) {
        m_server->refuse(why);
    }
    EXPECT_TRUE(m_server->has_news());
    m_server->tell();
    EXPECT_FALSE(m_server->has_news());
    m_server->tell();
    m_server->refuse(Kit::ServerState::TOO_MANY);
    m_server->tell();
    const std::string begin = "[^]*: turned away, for want of a place: ";
    EXPECT_EQ(2U, log.countLevel(2)) << log.dump();
    EXPECT_EQ(1U, log.countMatching(2, begin + "2, with too many of their address: 1, for want of a "
                                               "descriptor: 1; since the start: 4\n"));
    EXPECT_EQ(1U, log.countMatching(2, begin + "0, with too many of their address: 1, for want of a "
                                               "descriptor: 0; since the start: 5\n"));
}

// ---- errors of the system ---------------------------------------------------------------------------------

class KitListener : public testing::Test {
protected:
    KitListener() { EXPECT_TRUE(m_server.listen("127.0.0.1", 0)); }

    Kit::Server m_server{answer};
};

TEST_F(KitListener, WhoeverFindsNoDescriptorIsClosedAtOnceAndCounted) {
    const int late = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in there{};
    there.sin_family = AF_INET;
    there.sin_port = htons(m_server.port());
    there.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    {
        const NoDescriptors none;
        ASSERT_EQ(0, connect(late, reinterpret_cast<sockaddr*>(&there), sizeof there));
        Peer client(late);
        EXPECT_TRUE(client.is_over());
        EXPECT_EVENTUALLY(m_server.counts().refused_descriptors == 1);
    }
    EXPECT_EQ(0U, m_server.counts().open);
    EXPECT_EQ(1U, m_server.counts().refused());
    EXPECT_TRUE(TcpClient(m_server.port()).echoes("there is one again"));
}

TEST_F(KitListener, RestsWhenTheSystemHasNoMemoryAndGoesOn) {
    const AcceptSeam fails({ENOMEM, ENOBUFS, ENOMEM});
    const uint64_t begin = CTime::getCurrentMicroSecond();
    EXPECT_TRUE(TcpClient(m_server.port()).echoes("at last"));
    EXPECT_GE(CTime::getCurrentMicroSecond() - begin, 3 * 47000U);
    EXPECT_EQ(0, AcceptSeam::left());
    EXPECT_EQ(0U, m_server.counts().refused());
}

TEST_F(KitListener, RestsWhenEvenTheSpareDescriptorIsOfNoUse) {
    const AcceptSeam fails({EMFILE, ENFILE, ENFILE, EMFILE});
    const uint64_t begin = CTime::getCurrentMicroSecond();
    EXPECT_TRUE(TcpClient(m_server.port()).echoes("at last"));
    EXPECT_GE(CTime::getCurrentMicroSecond() - begin, 2 * 47000U);
    EXPECT_EQ(0, AcceptSeam::left());
    EXPECT_EQ(0U, m_server.counts().refused_descriptors);
}

TEST_F(KitListener, PassesOverWhoeverHasGoneAlready) {
    const AcceptSeam fails({ECONNABORTED, EPROTO, EINTR, ECONNABORTED});
    EXPECT_TRUE(TcpClient(m_server.port()).echoes("the next one"));
    EXPECT_EQ(0, AcceptSeam::left());
    EXPECT_EQ(0U, m_server.counts().refused());
}

TEST_F(KitListener, WhoeverIsTurnedAwayByTheSpareDescriptorIsCounted) {
    const AcceptSeam fails({EMFILE});
    TcpClient first(m_server.port());
    EXPECT_EQ("", first.receiveAll());
    EXPECT_EVENTUALLY(m_server.counts().refused_descriptors == 1);
    EXPECT_TRUE(TcpClient(m_server.port()).echoes("the next one"));
}

// ---- the face ---------------------------------------------------------------------------------------------

TEST(KitServerFace, SaysNoWhereItCannotListen) {
    Kit::Server server(answer);
    LogCapture log;
    EXPECT_FALSE(server.listen(nullptr, 0));
    EXPECT_EQ(1U, log.count(2, "a server without pools, or without a host, cannot listen\n"));
    EXPECT_FALSE(server.listen("nobody.test", 0));
    EXPECT_EQ(1U, log.count(2,
                            "cannot listen on 'nobody.test': it is neither an address nor a name of this "
                            "machine\n"))
        << log.dump();
    EXPECT_EQ(0, server.port());
    EXPECT_EQ("", server.address());
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    EXPECT_EQ(0, server.port(1));
    char text[10];
    EXPECT_EQ(9U, server.address(0, text, sizeof text));
    EXPECT_STREQ("127.0.0.1", text);
    server.stop();
    EXPECT_FALSE(server.listen("127.0.0.1", 0));
    EXPECT_EQ(1U, log.countMatching(2, "cannot listen on '127.0.0.1': the server is stopping[^]*"));
}

TEST(KitServerFace, ListensOnANameOfThisMachine) {
    Kit::Server server(answer);
    ASSERT_TRUE(server.listen("localhost", 0));
    const std::string address = server.address();
    EXPECT_TRUE(TcpClient(server.port(), address[0] == '[' ? "::1" : "127.0.0.1").echoes("by its name"));
}

TEST(KitServerFace, HasAPoolForEverythingElse) {
    Live live;
    Kit::Server server(answer);
    EXPECT_TRUE(server.pool().isOpen());
    EXPECT_TRUE(server.pool().post([token = live.token()]() mutable { token.use(); }));
    Kit::Timer timer(server.pool(), 1ms, [token = live.token()]() mutable { token.use(); });
    EXPECT_EVENTUALLY(live.used() == 2 && live.count() == 0);
    server.stop();
    EXPECT_FALSE(server.pool().isOpen());
    EXPECT_FALSE(server.pool().post([] {}));
}

TEST(KitServerFace, CountsFromItsBeginning) {
    Kit::Server server(answer);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    EXPECT_EQ(0U, server.counts().accepted);
    {
        std::list<TcpClient> clients;
        for (uint64_t i = 1; i <= 5; ++i) {
            clients.emplace_back(server.port());
            EXPECT_TRUE(clients.back().echoes("x"));
            EXPECT_EQ(i, server.counts().accepted);
            EXPECT_EQ(i, server.counts().open);
        }
    }
    EXPECT_EVENTUALLY(server.counts().open == 0);
    EXPECT_EQ(5U, server.counts().accepted);
    EXPECT_EQ(0U, server.counts().refused());
}

TEST(KitServerFace, StopsInStepsAndOnce) {
    std::atomic<CloseReason> quiet{CloseReason::FAILED};
    std::atomic<CloseReason> full{CloseReason::FAILED};
    CSemaphore ready(0);
    Kit::Server server([&](Connection& client) {
        client.onInput([&](Connection& c, std::string_view bytes) {
            const bool is_full = bytes == "fill";
            if (is_full) {
                while (c.write(std::string(1 << 20, 'm'))) {
                }
            }
            c.onClose([&, is_full](Connection&, CloseReason why) { (is_full ? full : quiet) = why; });
            c.post([&](Connection&) { ready.post(); });
        });
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient first(server.port());
    TcpClient second(server.port(), "127.0.0.1", 4096);
    first.send("rest");
    second.send("fill");
    ready.pend();
    ready.pend();
    const Kit::StopReport report = server.stop(20ms);
    EXPECT_EQ(1U, report.cut);
    EXPECT_EQ(0U, report.stayed);
    EXPECT_EQ(CloseReason::CLOSED, quiet);
    EXPECT_EQ(CloseReason::ABORTED, full);
    EXPECT_FALSE(TcpClient(server.port()).isConnected());
    EXPECT_EQ(1U, server.stop().cut) << "the second one tells what the first one has found";
}

class KitServerRun : public testing::Test {
protected:
    KitServerRun() { EXPECT_TRUE(m_server.listen("127.0.0.1", 0)); }

    static bool is_blocked(int signal) {
        sigset_t set;
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        return sigismember(&set, signal) == 1;
    }
    static bool is_pending(int signal) {
        sigset_t set;
        sigpending(&set);
        return sigismember(&set, signal) == 1;
    }

    const Kit::EndSignals m_signals;  // before the threads of the pools
    Kit::Server m_server{answer};
};

TEST_F(KitServerRun, EndsByEitherSignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Kit::Server server(answer);
        ASSERT_TRUE(server.listen("127.0.0.1", 0));
        ASSERT_EQ(0, kill(getpid(), signal));
        EXPECT_EQ(0, server.run());
        EXPECT_FALSE(is_pending(signal)) << "it is taken";
        EXPECT_FALSE(server.pool().isOpen());
    }
}

TEST_F(KitServerRun, ComesBackAtOnceIfItWasAskedBefore) {
    m_server.requestStop();
    m_server.requestStop();
    EXPECT_EQ(0, m_server.run());
    EXPECT_FALSE(is_pending(SIGTERM));
}

TEST_F(KitServerRun, IsAskedFromAnyThreadAnyNumberOfTimesAndLeavesNoSignal) {
    std::thread asker([this] {
        TcpClient client(m_server.port());
        EXPECT_TRUE(client.echoes("it runs"));
        for (int i = 0; i < 100; ++i) {
            m_server.requestStop();
        }
    });
    EXPECT_EQ(0, m_server.run());
    asker.join();
    m_server.requestStop();
    EXPECT_FALSE(is_pending(SIGTERM));
}

TEST_F(KitServerRun, IsOneIfSomebodyStays) {
    struct Doors {
        CSemaphore inside{0};
        CSemaphore go{0};
    };
    const auto doors = std::make_shared<Doors>();
    ASSERT_TRUE(m_server.pool().post([doors] {
        doors->inside.post();
        doors->go.pend();
    }));
    doors->inside.pend();
    m_server.requestStop();
    EXPECT_EQ(1, m_server.run(0ms));
    doors->go.post();
}

TEST(KitServerSignals, AreBlockedWhileTheObjectLivesAndWhatTheyWereAfterIt) {
    const auto blocked = [](int signal) {
        sigset_t set;
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        return sigismember(&set, signal) == 1;
    };
    sigset_t only_int;
    sigemptyset(&only_int);
    sigaddset(&only_int, SIGINT);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &only_int, nullptr));
    {
        const Kit::EndSignals signals;
        EXPECT_TRUE(blocked(SIGINT));
        EXPECT_TRUE(blocked(SIGTERM));
        bool of_thread = false;
        std::thread([&] { of_thread = blocked(SIGTERM); }).join();
        EXPECT_TRUE(of_thread);
    }
    EXPECT_TRUE(blocked(SIGINT)) << "as it was before";
    EXPECT_FALSE(blocked(SIGTERM));
}

TEST(KitServerFace, WithoutAListenerDoesNotRun) {
    LogCapture log;
    Kit::Server server(answer);
    EXPECT_EQ(1, server.run());
    EXPECT_EQ(1U, log.count(2, "a server that listens nowhere does not run\n"));
}

}  // namespace
}  // namespace Orvex::Testing
