// The echo server as a whole program: with clients that were written elsewhere, with thousands of
// connections, out of descriptors, and to its end.
#include <sys/resource.h>
#include <unistd.h>
#include <chrono>
#include <list>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

constexpr size_t kMiB = 1 << 20;

std::string randomBytes(size_t count) {
    SeededRandom random;
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random.between(0, 255));
    }
    return bytes;
}

void allowDescriptors(unsigned long count) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    ASSERT_GE(limit.rlim_max, count)
        << "this machine lets no process open so many descriptors: see ulimit -Hn";
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
}

std::string address(const ServerProgram& server) {
    return server.host() + ":" + std::to_string(server.port());
}

/// Milliseconds since the object was made.
class StopWatch {
public:
    long elapsed_ms() const {
        const auto time = std::chrono::steady_clock::now() - m_begin;
        return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
    }

private:
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

}  // namespace

// Its input ends before the answer has come: the client closes its direction and goes on reading.
TEST(EchoServer, ServesSocatThatClosesItsDirectionFirst) {
    ServerProgram server("echo_server");
    const std::string bytes = randomBytes(kMiB);
    ChildProcess socat({"socat", "-t", "30", "-", "TCP:" + address(server)});
    EXPECT_TRUE(socat.exchange(bytes) == bytes);
    EXPECT_EQ(0, socat.wait());
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, ServesNcatThatClosesItsDirectionFirst) {
    ServerProgram server("echo_server");
    const std::string bytes = randomBytes(kMiB);
    ChildProcess ncat({"ncat", server.host(), std::to_string(server.port())});
    EXPECT_TRUE(ncat.exchange(bytes) == bytes);
    EXPECT_EQ(0, ncat.wait());
    EXPECT_EQ(0, server.end());
}

// Sixteen times as much as the other two send, which is more than the kernel's buffers take on the way.
TEST(EchoServer, ServesSocatThatReadsSlowly) {
    ServerProgram server("echo_server");
    const std::string bytes = randomBytes(16 * kMiB);
    ChildProcess socat({"socat", "-t", "30", "-b", "2048", "-", "TCP:" + address(server) + ",rcvbuf=4096"});
    EXPECT_TRUE(socat.exchange(bytes, true) == bytes);
    EXPECT_EQ(0, socat.wait());
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, AnswersAConversationLineByLine) {
    ServerProgram server("echo_server");
    ChildProcess ncat({"ncat", server.host(), std::to_string(server.port())});
    for (int i = 0; i < 20; ++i) {
        const std::string line = "line " + std::to_string(i);
        ncat.write(line + "\n");
        ASSERT_EQ(ncat.readLine(), line);
    }
    EXPECT_EQ("", ncat.exchange(""));
    EXPECT_EQ(0, ncat.wait());
    EXPECT_EQ(0, server.end());
}

// What a client does not take must not pile up in the server: it stops reading, and the client cannot send.
TEST(EchoServer, StopsReadingFromAClientThatDoesNotRead) {
    ServerProgram server("echo_server");
    const std::string bytes = randomBytes(32 * kMiB);
    TcpClient client(server.port(), "127.0.0.1", 4096);
    const size_t sent = client.sendUntilStuck(bytes, scaledMs(500));
    EXPECT_LT(sent, bytes.size());
    EXPECT_TRUE(client.receive(sent) == bytes.substr(0, sent));
    EXPECT_TRUE(client.echoes("and now on"));
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, ClosesAnIdleConnectionAndKeepsABusyOne) {
    const int idle_ms = scaledMs(1500);
    ServerProgram server("echo_server", {"--idle-timeout", std::to_string(idle_ms)});
    TcpClient busy(server.port());
    TcpClient idle(server.port());
    const StopWatch silence;  // the server's begins when it has read this
    ASSERT_TRUE(idle.echoes("once"));
    EXPECT_EVENTUALLY(busy.echoes("again") && idle.isClosed());
    EXPECT_GE(silence.elapsed_ms(), idle_ms - 1);
    EXPECT_TRUE(busy.echoes("still here"));
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, ClosesAConnectionThatHasNeverSaidAnything) {
    ServerProgram server("echo_server", {"--idle-timeout", "200"});
    TcpClient client(server.port());
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    EXPECT_EQ(0, server.end());
}

// The server waits for room, and not for bytes.
TEST(EchoServer, ClosesAClientThatTakesNothing) {
    ServerProgram server("echo_server", {"--idle-timeout", "300"});
    const size_t before = server.descriptors();
    const std::string bytes = randomBytes(32 * kMiB);
    TcpClient client(server.port(), "127.0.0.1", 4096);
    ASSERT_LT(client.sendUntilStuck(bytes, scaledMs(200)), bytes.size());
    EXPECT_EVENTUALLY(server.descriptors() == before);
    client.receiveAll();
    EXPECT_TRUE(client.wasClosed());
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, ServesFourThousandConnectionsAtOnce) {
    constexpr int kConnections = 4000;
    allowDescriptors(kConnections + 100);
    ServerProgram server("echo_server", {"--threads", "2", "--max-per-address", "0"});
    const size_t before = server.descriptors();
    std::list<TcpClient> clients;
    for (int i = 0; i < kConnections; ++i) {
        clients.emplace_back(server.port());
        ASSERT_TRUE(clients.back().isConnected()) << "connection " << i;
        ASSERT_TRUE(clients.back().send("hello from " + std::to_string(i) + "\n"));
    }
    for (int round = 0; round < 2; ++round) {
        int number = 0;
        for (TcpClient& client : clients) {
            ASSERT_EQ(client.receiveLine(), "hello from " + std::to_string(number)) << "round " << round;
            ASSERT_TRUE(client.send("hello from " + std::to_string(number++) + "\n"));
        }
    }
    EXPECT_EQ(server.descriptors(), before + kConnections);
    clients.clear();
    EXPECT_EVENTUALLY(server.descriptors() == before);
    EXPECT_TRUE(TcpClient(server.port()).echoes("and one more"));
    EXPECT_EQ(0, server.end());
}

// More than a pool can watch: whoever is beyond that learns it at once, and need not wait until one of the
// others leaves.
TEST(EchoServer, ClosesConnectionsThatItsPoolHasNoPlaceFor) {
    constexpr int kPlaces = 4000;
    allowDescriptors(kPlaces + 200);
    ServerProgram server("echo_server", {"--max-per-address", "0"});
    const size_t before = server.descriptors();
    std::list<TcpClient> clients;
    for (int i = 0; i < kPlaces; ++i) {
        clients.emplace_back(server.port());
    }
    EXPECT_EVENTUALLY(server.descriptors() == before + kPlaces);
    TcpClient late(server.port());
    EXPECT_EQ("", late.receiveAll());
    EXPECT_TRUE(late.wasClosed());
    EXPECT_TRUE(clients.back().echoes("all places are taken"));
    clients.pop_front();
    EXPECT_EVENTUALLY(server.descriptors() == before + kPlaces - 1);
    EXPECT_TRUE(TcpClient(server.port()).echoes("there is one again"));
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, LetsNoAddressTakeMoreThanItsShare) {
    ServerProgram server("echo_server", {"--host", "::", "--max-per-address", "2"});
    std::list<TcpClient> clients;
    for (int i = 0; i < 2; ++i) {
        clients.emplace_back(server.port());
        EXPECT_TRUE(clients.back().echoes("one of two"));
    }
    TcpClient third(server.port());
    EXPECT_EQ("", third.receiveAll());
    EXPECT_TRUE(third.wasClosed());
    EXPECT_TRUE(TcpClient(server.port(), "127.0.0.1", 0, "127.0.0.2").echoes("from elsewhere"));
    EXPECT_TRUE(TcpClient(server.port(), "::1").echoes("from elsewhere"));
    clients.pop_front();
    EXPECT_EVENTUALLY(TcpClient(server.port()).echoes("one has left"));
    EXPECT_TRUE(clients.front().echoes("still here"));
    EXPECT_EQ(0, server.end());
}

// In the order in which they came: nobody who is let in is served before the one ahead of it was closed.
TEST(EchoServer, ClosesWhoeverIsTooManyBeforeItServesTheNextClient) {
    ServerProgram server("echo_server", {"--max-per-address", "1"});
    TcpClient first(server.port());
    EXPECT_TRUE(first.echoes("the only one"));
    for (int i = 2; i < 52; ++i) {
        TcpClient excess(server.port());
        ASSERT_TRUE(excess.isConnected());
        TcpClient next(server.port(), "127.0.0.1", 0, "127.0.0." + std::to_string(i));
        EXPECT_TRUE(next.echoes("from elsewhere"));
        // The end is on its way; the system may be slower with it than with another socket's bytes.
        for (int trips = 0; trips < 20 && !excess.isClosed(); ++trips) {
            EXPECT_TRUE(next.echoes("still there?"));
        }
        EXPECT_TRUE(excess.isClosed()) << "number " << i;
    }
    EXPECT_TRUE(first.echoes("still here"));
    EXPECT_EQ(0, server.end());
}

// At least, as often as a second has passed.
TEST(EchoServer, TellsOnceASecondWhomItHasTurnedAway) {
    ChildProcess server(
        {"sh", "-c", "exec " RETICOR_EXAMPLES_DIR "/echo_server --port 0 --max-per-address 1 2>&1"});
    const std::string line = server.readLine();
    const int port = std::stoi(line.substr(line.rfind(':') + 1));
    TcpClient first(port);
    EXPECT_TRUE(first.echoes("the only one"));
    for (int i = 0; i < 20; ++i) {
        TcpClient(port).receiveAll();
    }
    int lines = 0;
    for (std::string text; text.find("since the start: 20") == std::string::npos && !server.hasEnded();
         ++lines) {
        text = server.readLine();
        EXPECT_EQ(
            0U, text.rfind(
                    "echo_server: turned away, for want of a place: 0, with too many of their address: ", 0))
            << text;
    }
    EXPECT_LT(lines, 20);
    server.signal(SIGTERM);
    EXPECT_EQ("", server.exchange(""));
    EXPECT_EQ(0, server.wait());
}

TEST(EchoServer, ClosesWhoeverItHasNoDescriptorFor) {
    constexpr size_t kDescriptors = 64;
    constexpr size_t kConnections = 200;
    ServerProgram server("echo_server", {}, kDescriptors);
    // Every way through the server is gone once before: a sanitizer checks an object's type at the first
    // time, and needs descriptors for that.
    const size_t before = server.descriptors();
    EXPECT_TRUE(TcpClient(server.port()).echoes("nothing is scarce yet"));
    EXPECT_EVENTUALLY(server.descriptors() == before);
    const size_t places = kDescriptors - before;
    std::list<TcpClient> clients;
    for (size_t i = 0; i < places; ++i) {
        clients.emplace_back(server.port());
        ASSERT_TRUE(clients.back().echoes("number " + std::to_string(i)));
    }
    const StopWatch watch;
    for (size_t i = places; i < kConnections; ++i) {
        TcpClient late(server.port());
        ASSERT_TRUE(late.isConnected()) << "the system completes connections without the server";
        EXPECT_EQ("", late.receiveAll());
        EXPECT_TRUE(late.wasClosed()) << "connection " << i;
    }
    // Each at once: a tenth of a second on the average is a busy machine.
    EXPECT_LT(watch.elapsed_ms(), static_cast<long>(kConnections - places) * scaledMs(100));
    for (TcpClient& client : clients) {
        EXPECT_TRUE(client.echoes("served while others are turned away"));
    }
    clients.pop_front();  // whoever leaves makes room
    EXPECT_EVENTUALLY(TcpClient(server.port()).echoes("as before"));
    EXPECT_EQ(0, server.end());
}

// The descriptor that is kept for turning clients away is of no use either: the server rests, and looks
// again.
TEST(EchoServer, RestsWhileNoDescriptorCanBeOpened) {
    ServerProgram server("echo_server");
    EXPECT_TRUE(TcpClient(server.port()).echoes("nothing is scarce yet"));
    rlimit all{};
    ASSERT_EQ(0, prlimit(server.pid(), RLIMIT_NOFILE, nullptr, &all));
    const rlimit none{0, all.rlim_max};
    ASSERT_EQ(0, prlimit(server.pid(), RLIMIT_NOFILE, &none, nullptr));
    TcpClient client(server.port());
    ASSERT_TRUE(client.send("late"));

    // The connection waits, and the listener stays ready: yet the server has next to nothing to do.
    const long before_us = server.processorTime_us();
    const StopWatch watch;
    while (watch.elapsed_ms() < 1000) {
        usleep(50000);
    }
    const long used_us = server.processorTime_us() - before_us;
    EXPECT_LT(used_us, watch.elapsed_ms() * 1000 / 20) << "us in " << watch.elapsed_ms() << " ms";

    ASSERT_EQ(0, prlimit(server.pid(), RLIMIT_NOFILE, &all, nullptr));
    EXPECT_EQ("late", client.receive(4));
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, GivesEveryDescriptorBack) {
    ServerProgram server("echo_server");
    const size_t before = server.descriptors();
    const size_t threads = server.threads();
    for (int i = 0; i < 300; ++i) {
        TcpClient client(server.port());
        ASSERT_TRUE(client.echoes("number " + std::to_string(i)));
        if (i % 3 == 0) {
            client.reset();
        }
    }
    EXPECT_EVENTUALLY(server.descriptors() == before);
    EXPECT_EQ(server.threads(), threads);
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, EndsOnSigtermWithConnectionsOpen) {
    ServerProgram server("echo_server");
    std::list<TcpClient> clients;
    for (int i = 0; i < 50; ++i) {
        clients.emplace_back(server.port());
        ASSERT_TRUE(clients.back().echoes("hello"));
    }
    EXPECT_EQ(0, server.end(SIGTERM));
    for (TcpClient& client : clients) {
        EXPECT_EQ("", client.receiveAll());
        EXPECT_TRUE(client.wasClosed());
    }
    EXPECT_FALSE(TcpClient(server.port()).isConnected());
}

TEST(EchoServer, EndsOnSigintUnderLoad) {
    ServerProgram server("echo_server", {"--threads", "2"});
    const std::string bytes = randomBytes(kMiB);
    std::list<TcpClient> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back(server.port());
        clients.back().sendUntilStuck(bytes, 0);
    }
    EXPECT_EQ(0, server.end(SIGINT));
}

TEST(EchoServer, EndsBeforeAnybodyHasConnected) {
    EXPECT_EQ(0, ServerProgram("echo_server").end());
}

TEST(EchoServer, ServesBothFamiliesOnOneListener) {
    ServerProgram server("echo_server", {"--host", "::"});
    EXPECT_EQ("[::]", server.host());
    EXPECT_TRUE(TcpClient(server.port(), "127.0.0.1").echoes("IPv4"));
    EXPECT_TRUE(TcpClient(server.port(), "::1").echoes("IPv6"));
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, SaysThatItsPortIsTaken) {
    ServerProgram server("echo_server");
    ChildProcess second({RETICOR_EXAMPLES_DIR "/echo_server", "--port", std::to_string(server.port())});
    EXPECT_EQ("", second.readLine());
    EXPECT_EQ(1, second.wait());
    EXPECT_EQ(0, server.end());
}

TEST(EchoServer, RefusesOptionsThatMakeNoSense) {
    for (const char* option : {"--port=70000", "--threads=0", "--idle-timeout=-1", "--surprise"}) {
        ChildProcess server({RETICOR_EXAMPLES_DIR "/echo_server", option});
        EXPECT_EQ("", server.exchange("")) << option;
        EXPECT_GT(server.wait(), 0) << option;
    }
}
