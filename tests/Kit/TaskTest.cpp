// Task: coroutines on connections, and their end.
#include <Reticor/kit/Task.h>

#include <gtest/gtest.h>

#if defined(__cpp_impl_coroutine)

#include <atomic>
#include <list>
#include <stdexcept>
#include <string>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Server.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/Live.h"
#include "support/program/TcpClient.h"
#include "support/socket/Allocations.h"

using namespace Orvex::Testing;
using Orvex::Infra::CSemaphore;
using Orvex::Infra::CTime;
namespace Kit = Orvex::Reticor::Kit;
using Kit::Connection;
using namespace std::chrono_literals;

namespace {

Kit::Task echo(Connection client, Live::Token token) {
    for (std::string_view bytes; !(bytes = co_await Kit::read(client)).empty();) {
        token.use();
        co_await Kit::write(client, bytes);
    }
}

}  // namespace

TEST(KitTask, AnswersUntilThePeerEnds) {
    Live live;
    Kit::Server server([&](Connection& client) { echo(client.share(), live.token()); });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.echoes("number " + std::to_string(i)));
    }
    client.finish();
    EXPECT_EQ("", client.receiveAll());
    EXPECT_EVENTUALLY(live.count() == 0 && server.counts().open == 0);
}

TEST(KitTask, AllocatesNothingBeyondItsFrame) {
    std::atomic<size_t> grown{0};
    CSemaphore done(0);
    const auto session = [&](Connection client) -> Kit::Task {
        co_await Kit::read(client);
        size_t each = 0;
        for (std::string_view bytes; !(bytes = co_await Kit::read(client)).empty();) {
            const size_t before = allocationCount();  // of this thread, and nothing suspends in between
            const bool taken = co_await Kit::write(client, bytes);
            each += allocationCount() - before + (taken ? 0 : 1);
        }
        grown = each;
        done.post();
    };
    Kit::Server server([&](Connection& client) { session(client.share()); });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    ASSERT_TRUE(client.send("first"));
    EXPECT_EVENTUALLY(server.counts().accepted == 1);
    for (int i = 0; i < 50; ++i) {
        client.send("x");
    }
    client.finish();
    done.pend();
    EXPECT_EQ(0U, grown);
}

TEST(KitTask, LeavesNoFrameWhenItIsCancelledFromAPlainThread) {
    const int sessions = 100;
    Live live;
    std::list<Connection> connections;
    std::atomic<int> waiting{0};
    Orvex::Infra::CMutex mutex;
    const auto session = [&](Connection client, Live::Token, int kind) -> Kit::Task {
        ++waiting;
        if (kind == 0) {
            co_await Kit::read(client);
        } else if (kind == 1) {
            co_await Kit::sleep(client, 1h);
        } else {
            const std::string much(1 << 20, 'x');
            while (co_await Kit::write(client, much)) {
            }
        }
        --waiting;
    };
    int come = 0;
    Kit::Server server([&](Connection& client) {
        {
            const Orvex::Infra::CGuard guard(mutex);
            connections.push_back(client.share());
        }
        session(client.share(), live.token(), come++ % 3);
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    std::list<TcpClient> clients;
    for (int i = 0; i < sessions; ++i) {
        clients.emplace_back(server.port());
    }
    EXPECT_EVENTUALLY(waiting == sessions);
    for (Connection& connection : connections) {
        connection.abort();
    }
    EXPECT_EVENTUALLY(live.count() == 0 && waiting == 0);
    EXPECT_EVENTUALLY(server.counts().open == 0);
}

TEST(KitTask, SleepsAndIsNotEndedByALateTimer) {
    std::atomic<uint64_t> took{0};
    std::atomic<int> over{0};
    const auto session = [&](Connection client) -> Kit::Task {
        const uint64_t begin = CTime::getCurrentMicroSecond();
        for (int i = 0; i < 4; ++i) {
            over += co_await Kit::sleep(client, 10ms) ? 1 : 100;
        }
        took = CTime::getCurrentMicroSecond() - begin;
    };
    Kit::Server server([&](Connection& client) { session(client.share()); });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    EXPECT_EQ("", client.receiveAll());  // it is closed when the coroutine returns
    EXPECT_TRUE(client.wasClosed());
    EXPECT_EQ(4, over);
    EXPECT_GE(took, 28000U);
}

TEST(KitTask, WritesAllToASlowPeer) {
    const std::string piece(300000, 'p');
    const auto session = [&](Connection client) -> Kit::Task {
        for (int i = 0; i < 20; ++i) {
            co_await Kit::write(client, piece);
        }
    };
    Kit::Server server([&](Connection& client) { session(client.share()); });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port(), "127.0.0.1", 4096);
    EXPECT_EQ(20 * piece.size(), client.receiveAll().size());
}

TEST(KitTask, GoesOnOnAPoolAndComesBack) {
    Kit::Pool other(1);
    std::atomic<int> steps{0};
    const auto session = [&](Connection client) -> Kit::Task {
        steps += client.isInside() ? 1 : 100;
        steps += co_await Kit::resumeOn(other) ? 1 : 100;
        steps += client.isInside() ? 100 : 1;
        const std::string_view bytes = co_await Kit::read(client);
        steps += client.isInside() && bytes == "x" ? 1 : 100;
        co_await Kit::write(client, bytes);
    };
    Kit::Server server([&](Connection& client) { session(client.share()); });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    client.send("x");
    EXPECT_EQ("x", client.receiveAll());
    EXPECT_EQ(4, steps);
}

TEST(KitTask, EndsItsConnectionWhenItThrows) {
    LogCapture log;
    Live live;
    std::atomic<Kit::CloseReason> reason{Kit::CloseReason::CLOSED};
    const auto session = [&](Connection client, Live::Token) -> Kit::Task {
        co_await Kit::read(client);
        throw std::runtime_error("not understood");
    };
    Kit::Server server([&](Connection& client) {
        client.onClose([&](Connection&, Kit::CloseReason why) { reason = why; });
        session(client.share(), live.token());
    });
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    client.send("x");
    client.receiveAll();
    EXPECT_EVENTUALLY(live.count() == 0 && reason == Kit::CloseReason::FAILED);
    EXPECT_TRUE(log.containsMatching(2, "a call-back of a Connection .*: not understood\n"));
}

TEST(KitTask, TakesConnectionsOneByOne) {
    Live live;
    Kit::Clients clients;
    std::atomic<bool> over{false};
    const auto acceptor = [&](Live::Token) -> Kit::Task {
        while (Connection client = co_await clients.accept()) {
            echo(std::move(client), live.token());
        }
        over = true;
    };
    {
        Kit::Server server(clients.start());
        ASSERT_TRUE(server.listen("127.0.0.1", 0));
        TcpClient early(server.port());
        early.send("hello");
        EXPECT_EVENTUALLY(server.counts().accepted == 1);
        acceptor(live.token());
        EXPECT_EQ("hello", early.receive(5));
        EXPECT_TRUE(TcpClient(server.port()).echoes("another"));
    }
    EXPECT_TRUE(over);
    EXPECT_EQ(0, live.count());
}

#endif
