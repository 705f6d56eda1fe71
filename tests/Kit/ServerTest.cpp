// Server: who comes in, who is turned away, and the end.
#include <Reticor/kit/Server.h>

#include <sys/resource.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <string>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Reticor/kit/Timer.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/Live.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;
using Orvex::Infra::CSemaphore;
namespace Kit = Orvex::Reticor::Kit;
using Kit::CloseReason;
using Kit::Connection;
using namespace std::chrono_literals;

namespace {

void echo(Connection& client) {
    client.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
}

}  // namespace

TEST(KitServer, AnswersOnBothFamilies) {
    Kit::Server server(echo);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    ASSERT_TRUE(server.listen("::1", 0));
    ASSERT_TRUE(server.listen("::", 0));
    EXPECT_EQ(server.address(0), "127.0.0.1:" + std::to_string(server.port(0)));
    EXPECT_EQ(server.address(1), "[::1]:" + std::to_string(server.port(1)));
    EXPECT_EQ("", server.address(3));
    EXPECT_TRUE(TcpClient(server.port(0)).echoes("four"));
    EXPECT_TRUE(TcpClient(server.port(1), "::1").echoes("six"));
    EXPECT_TRUE(TcpClient(server.port(2), "127.0.0.1").echoes("four by six"));
    EXPECT_TRUE(TcpClient(server.port(2), "::1").echoes("six"));
    EXPECT_EVENTUALLY(server.counts().open == 0);
    EXPECT_EQ(4U, server.counts().accepted);
}

// A listener for every address does not say by which of them a client has come; the connection does.
TEST(KitServer, ConnectionTellsWhereTheClientHasFoundIt) {
    Kit::Server server([](Connection& client) { client.write({client.local(), " ", client.peer(), "\n"}); });
    ASSERT_TRUE(server.listen("0.0.0.0", 0));
    TcpClient client(server.port(), "127.0.0.2", 0, "127.0.0.3");
    EXPECT_EQ(0U,
              client.receiveLine().rfind("127.0.0.2:" + std::to_string(server.port()) + " 127.0.0.3:", 0));
    EXPECT_EQ("", Connection().local());
}

TEST(KitServer, AnOrderlyEndIsSilent) {
    LogCapture log;
    {
        Kit::Server server(echo);
        ASSERT_TRUE(server.listen("127.0.0.1", 0));
        EXPECT_TRUE(TcpClient(server.port()).echoes("once"));
        EXPECT_EQ(0U, server.stop().stayed);
    }
    EXPECT_EQ(0U, log.countLevel(2)) << log.dump();
}

TEST(KitServer, SaysWhereItCannotListen) {
    Kit::Server server(echo);
    LogCapture log;
    EXPECT_FALSE(server.listen("192.0.2.1", 1));
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    EXPECT_FALSE(server.listen("127.0.0.1", server.port()));
    EXPECT_GE(log.countLevel(2), 2U);
    EXPECT_TRUE(TcpClient(server.port()).echoes("the first goes on"));
}

TEST(KitServer, TurnsAwayWhoeverFindsNoPlaceAndTellsOfIt) {
    LogCapture log;
    Kit::ServerOptions options;
    options.most_connections = 2;
    Kit::Server server(echo, options);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    std::list<TcpClient> clients;
    for (int i = 0; i < 2; ++i) {
        clients.emplace_back(server.port());
        EXPECT_TRUE(clients.back().echoes("in"));
    }
    for (int i = 0; i < 5; ++i) {
        TcpClient late(server.port());
        late.receiveAll();
        EXPECT_TRUE(late.wasClosed());
    }
    EXPECT_EQ(5U, server.counts().refused_places);
    clients.pop_front();
    EXPECT_EVENTUALLY(TcpClient(server.port()).echoes("one has left"));
    server.stop();
    EXPECT_TRUE(log.containsMatching(
        2, ".*: turned away, for want of a place: [0-9]+, .*; since the start: [0-9]+\n"))
        << log.dump();
}

TEST(KitServer, LetsNoAddressTakeMoreThanItsShare) {
    Kit::ServerOptions options;
    options.most_per_address = 1;
    Kit::Server server(echo, options);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient first(server.port());
    EXPECT_TRUE(first.echoes("the only one"));
    TcpClient second(server.port());
    second.receiveAll();
    EXPECT_TRUE(second.wasClosed());
    EXPECT_TRUE(TcpClient(server.port(), "127.0.0.1", 0, "127.0.0.2").echoes("from elsewhere"));
    EXPECT_EQ(1U, server.counts().refused_address);
}

// More than a pool has places for came and went; RETICOR_KIT_CLIENTS asks for more of them.
TEST(KitServer, IsNotDeafAfterManyHaveComeAndGone) {
    const char* const asked = std::getenv("RETICOR_KIT_CLIENTS");
    const int rounds = (asked != nullptr ? std::atoi(asked) : 600) / 60;
    Kit::ServerOptions options;
    options.most_connections = 50;
    Kit::Server server(echo, options);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    for (int round = 0; round < rounds; ++round) {
        std::list<TcpClient> clients;
        for (int i = 0; i < 60; ++i) {  // ten too many
            clients.emplace_back(server.port());
            clients.back().send("x");
        }
    }
    // Some of those who have gone may still wait to be accepted, and take the places for a moment.
    EXPECT_EVENTUALLY(TcpClient(server.port()).echoes("still there?"));
    EXPECT_EVENTUALLY(server.counts().open == 0);
    EXPECT_GE(server.counts().refused(), 1U);
}

TEST(KitServer, MakesAPoolForEachFourThousand) {
    Kit::ServerOptions options;
    options.most_connections = 8001;
    Kit::Server server(echo, options);
    Kit::Pool next(1);
    EXPECT_EQ(server.pool().index() + 3, next.index());
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    std::list<TcpClient> clients;
    for (int i = 0; i < 12; ++i) {
        clients.emplace_back(server.port());
        EXPECT_TRUE(clients.back().echoes("on one of them"));
    }
}

TEST(KitServer, ServesWhoeverWritesToWhom) {
    // Two connections that write to each other for as long as the peers do.
    Connection ends[2];
    std::atomic<int> come{0};
    Kit::Server server([&](Connection& client) {
        const int mine = come++;
        ends[mine] = client.share();
        client.onInput([&ends, mine](Connection&, std::string_view bytes) { ends[1 - mine].write(bytes); });
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient ann(server.port());
    EXPECT_EVENTUALLY(come == 1);
    TcpClient bob(server.port());
    EXPECT_EVENTUALLY(come == 2);
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(ann.send("to bob\n"));
        ASSERT_TRUE(bob.send("to ann\n"));
        ASSERT_EQ("to ann", ann.receiveLine());
        ASSERT_EQ("to bob", bob.receiveLine());
    }
}

TEST(KitServer, SendsWhatWaitsBeforeItEnds) {
    const std::string megabyte(1 << 20, 'm');
    CSemaphore written(0);
    Kit::Server server([&](Connection& client) {
        client.write(megabyte);
        written.post();
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port(), "127.0.0.1", 4096);
    written.pend();
    std::string read;
    Kit::Pool other(1);
    ASSERT_TRUE(other.post([&] { read = client.receiveAll(); }));
    const Kit::StopReport report = server.stop(std::chrono::seconds(scaledMs(10)));
    EXPECT_EQ(0U, report.cut);
    EXPECT_EQ(0U, report.stayed);
    other.stop();
    EXPECT_TRUE(read == megabyte);
    EXPECT_EQ(0U, server.counts().open);
    EXPECT_FALSE(TcpClient(server.port()).isConnected());
}

TEST(KitServer, CutsWhoeverTakesNothingAtTheDeadline) {
    const std::string megabyte(1 << 20, 'm');
    std::atomic<CloseReason> reason{CloseReason::CLOSED};
    CSemaphore written(0);
    Kit::ServerOptions options;
    options.connection.max_output = 32 << 20;
    Kit::Server server(
        [&](Connection& client) {
            for (int i = 0; i < 16; ++i) {
                client.write(megabyte);
            }
            client.onClose([&](Connection&, CloseReason why) { reason = why; });
            written.post();
        },
        options);
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port(), "127.0.0.1", 4096);
    written.pend();
    const Kit::StopReport report = server.stop(20ms);
    EXPECT_EQ(1U, report.cut);
    EXPECT_EQ(0U, report.stayed);
    EXPECT_EQ(CloseReason::ABORTED, reason);
}

TEST(KitServer, SaysWhoStaysByClass) {
    LogCapture log;
    CSemaphore inside(0);
    CSemaphore go(0);
    Kit::Server server([&](Connection& client) {
        client.onInput([&](Connection&, std::string_view) {
            inside.post();
            go.pend();
        });
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    Kit::Timer hour(server.pool(), 1h, [] {});
    TcpClient client(server.port());
    client.send("x");
    inside.pend();
    const Kit::StopReport report = server.stop(0ms);
    EXPECT_EQ(1U, report.stayed);
    EXPECT_TRUE(log.contains(
        2, "the pools are stopped, but 1 stay in call-backs that do not return: 1 of class Connection\n"))
        << log.dump();
    go.post();
}

TEST(KitServer, RunsUntilItIsAskedToStopInsideACallBack) {
    Live live;
    Kit::Server* self = nullptr;
    Kit::Server server([&](Connection& client) {
        client.onInput([&, token = live.token()](Connection& c, std::string_view bytes) {
            c.write(bytes);
            self->stop();  // which is a request
        });
    });
    self = &server;
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    LogCapture log;
    TcpClient client(server.port());
    client.send("end");
    EXPECT_EQ(0, server.run());
    EXPECT_EQ("end", client.receiveAll());
    EXPECT_EQ(0, live.count());
    EXPECT_TRUE(log.containsMatching(2, "a server cannot be stopped inside a call-back[^]*"));
}

TEST(KitServer, WithoutACallBackServesNobody) {
    LogCapture log;
    Kit::Server server(nullptr);
    EXPECT_FALSE(server.listen("127.0.0.1", 0));
    EXPECT_EQ(1, server.run());
    EXPECT_FALSE(server.pool().isOpen());
    EXPECT_TRUE(log.contains(2, "a server without a call-back for its connections serves nobody\n"));
}
