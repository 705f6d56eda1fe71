// The example line_gateway as a whole program, with the example echo_server as the server, and with one of
// the test's own that comes and goes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

std::vector<std::string> to(int port) {
    return {"--server", std::to_string(port)};
}

/// A server that is driven by hand.
class Backend {
public:
    Backend() {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof local;
        EXPECT_EQ(0, bind(m_listener, reinterpret_cast<sockaddr*>(&local), size));
        EXPECT_EQ(0, getsockname(m_listener, reinterpret_cast<sockaddr*>(&local), &size));
        m_port = ntohs(local.sin_port);
    }
    ~Backend() {
        hangUp();
        close(m_listener);
    }
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;

    int port() const { return m_port; }
    void begin() const { EXPECT_EQ(0, listen(m_listener, 1)); }

    /// Waits for the gateway.
    void accept() {
        const timeval limit{scaledMs(15000) / 1000, 0};
        setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        m_peer = ::accept(m_listener, nullptr, nullptr);
        ASSERT_GE(m_peer, 0) << "the gateway does not come";
        setsockopt(m_peer, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    std::string receive(size_t count) const {
        std::string bytes(count, '\0');
        const ssize_t got = recv(m_peer, bytes.data(), count, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    bool hasInput() const {
        pollfd ready{m_peer, POLLIN, 0};
        return poll(&ready, 1, 10) > 0;
    }
    void hangUp() {
        if (m_peer >= 0) {
            close(m_peer);
            m_peer = -1;
        }
    }

private:
    const int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_peer = -1;
    int m_port = 0;
};

/// Whether a line gets this answer, and not another one.
bool hears(TcpClient& client, const std::string& line, const std::string& answer) {
    return client.send(line + "\n") && client.receiveLine() == answer;
}

/// Asks until a question arrives at the server, which is when the gateway knows that it has the connection.
void askUntilHeard(TcpClient& client, const Backend& backend) {
    ASSERT_TRUE(client.send("hello\n"));
    EXPECT_EVENTUALLY([&] {
        if (!client.isSilentFor(0)) {
            EXPECT_EQ("! nobody is there", client.receiveLine());
            EXPECT_TRUE(client.send("hello\n"));
        }
        return backend.hasInput();
    }());
    EXPECT_EQ("1 hello\n", backend.receive(8));
    backend.send("1 good day\n");
    EXPECT_EQ("good day", client.receiveLine());
}

}  // namespace

// More than one pool can watch: 4100 of the 10,000 that it takes.
TEST(LineGateway, EveryClientGetsItsOwnAnswersAlsoBeyondOnePool) {
    constexpr int CLIENTS = 4100;
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    ASSERT_GE(limit.rlim_max, CLIENTS + 100U) << "see ulimit -Hn";
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    ServerProgram server("echo_server");
    ServerProgram gateway("line_gateway", to(server.port()));
    std::list<TcpClient> clients;
    clients.emplace_back(gateway.port());
    EXPECT_EVENTUALLY(hears(clients.front(), "I am 0", "I am 0"));
    for (int i = 1; i < CLIENTS; ++i) {
        clients.emplace_back(gateway.port());
        ASSERT_TRUE(clients.back().send("I am " + std::to_string(i) + "\nand I am\n"));
    }
    int number = 0;
    for (TcpClient& client : clients) {
        if (number != 0) {
            ASSERT_EQ("I am " + std::to_string(number), client.receiveLine());
            ASSERT_EQ("and I am", client.receiveLine());
        }
        ++number;
    }
    EXPECT_EQ(0, gateway.end());
    EXPECT_EQ(0, server.end());
}

TEST(LineGateway, FindsAServerThatComesAndGoes) {
    Backend backend;
    ServerProgram gateway("line_gateway", to(backend.port()));
    TcpClient first(gateway.port());
    EXPECT_TRUE(hears(first, "anybody?", "! nobody is there"));
    backend.begin();
    for (int round = 0; round < 2; ++round) {
        ASSERT_NO_FATAL_FAILURE(backend.accept());
        askUntilHeard(first, backend);
        backend.hangUp();
    }
    backend.accept();
    EXPECT_EQ(0, gateway.end());
}

TEST(LineGateway, AnswersForNobodyAreThrownAwayAndALongLineIsTheLast) {
    Backend backend;
    backend.begin();
    ServerProgram gateway("line_gateway", to(backend.port()));
    backend.accept();
    TcpClient first(gateway.port());
    askUntilHeard(first, backend);
    TcpClient second(gateway.port());
    ASSERT_TRUE(second.send(std::string(4097, 'x')));
    EXPECT_EQ("", second.receiveAll());
    EXPECT_TRUE(second.wasClosed());
    backend.send("99 for nobody\nno number\n\n1 for the first\n");
    EXPECT_EQ("for the first", first.receiveLine());
    EXPECT_EQ(0, gateway.end());
}
