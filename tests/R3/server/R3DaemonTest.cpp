// The debug server's daemon: its port, its clients, its end.
#include "R3/server/R3Daemon.h"

#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>

#include <Reticor/R3.h>
#include <Reticor/SockStream.h>

#include "support/LogCapture.h"
#include "support/core/SocketPair.h"
#include "support/debug/DebugServerFixture.h"
#include "support/debug/PeerSeam.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// `count` ports in a row that this test listens on while it lives: below those that the system hands out, so
// that none of them is somebody else's who may go meanwhile.
class OccupiedRange {
public:
    explicit OccupiedRange(int count) {
        LogCapture quiet(0);
        for (first = 20000 + ::getpid() * 137 % 8000; !occupy(count); first += count) {
        }
    }
    int first;

private:
    bool occupy(int count) {
        m_ports.clear();
        for (int i = 0; i < count; ++i) {
            const CSockAddrIPv4 address(0u, static_cast<unsigned short>(first + i));
            if (m_ports.emplace_back().Open(address) != 0) {
                return false;
            }
        }
        return true;
    }

    std::list<CSockAcceptor> m_ports;
};

int portOf(CSockAcceptor& acceptor) {
    CSockAddrIPv4 address;
    EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
    return address.GetPort();
}

double processorTime_s() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// ---- open_port -------------------------------------------------------------------------------------------

TEST(OpenPort, TakesAFreePortAndLogsIt) {
    const unsigned short wanted = freePort();
    const LogCapture log;
    CSockAcceptor acceptor;
    const int taken = open_port(acceptor, wanted);
    EXPECT_GE(taken, wanted);
    EXPECT_EQ(taken, portOf(acceptor));
    ASSERT_EQ(1u, log.count(4, "R3Server Start @port[" + std::to_string(taken) + "]\n")) << log.dump();
    const CapturedLine last = log.lines().back();
    EXPECT_NE(std::string::npos, last.start.find("Src/R3/R3Daemon.cpp:"));
    EXPECT_EQ(std::string::npos, last.start.find("this:"));
}

TEST(OpenPort, WalksUpwardsPastPortsThatAreInUse) {
    const OccupiedRange occupied(5);
    CSockAcceptor acceptor;
    const LogCapture log;
    const int taken = open_port(acceptor, static_cast<unsigned short>(occupied.first));
    EXPECT_GE(taken, occupied.first + 5);
    EXPECT_LE(taken, occupied.first + 100);
    EXPECT_TRUE(log.contains(4, "R3Server Start @port[" + std::to_string(taken) + "]\n"));
}

TEST(OpenPort, TheHundredthPortAboveIsTheLastThatIsTried) {
    const OccupiedRange occupied(101);
    const LogCapture log;
    CSockAcceptor acceptor;
    EXPECT_EQ(0, open_port(acceptor, static_cast<unsigned short>(occupied.first)));
    EXPECT_EQ(101u, log.countMatching(2, "[^]*bind[^]*|[^]*listen[^]*|[^]*Address already in use[^]*"))
        << log.dump();
    EXPECT_EQ(0u, log.countLevel(4));
}

TEST(OpenPort, DoesNotWrapRound) {
    CSockAcceptor last;
    {
        LogCapture quiet(0);
        last.Open(CSockAddrIPv4(0u, 65535));  // or somebody else has it
    }
    const LogCapture log;
    CSockAcceptor acceptor;
    EXPECT_EQ(0, open_port(acceptor, 65535));
    EXPECT_EQ(1u, log.countLevel(2)) << "only that one was tried: " << log.dump();
}

TEST(OpenPort, PortOfTheSystemsChoiceLooksLikeAFailure) {
    CSockAcceptor acceptor;
    EXPECT_EQ(0, open_port(acceptor, 0));
}

// ---- the daemon ------------------------------------------------------------------------------------------

class R3Daemon : public DebugServerFixture {};

TEST_F(R3Daemon, IsEmptyBeforeInit) {
    CR3Daemon* const daemon = CR3Daemon::Create(false);
    ASSERT_NE(nullptr, daemon);
    EXPECT_EQ(0, daemon->Port());
    EXPECT_STREQ("", daemon->PromptName());
    EXPECT_EQ(nullptr, daemon->FuncBox());
    EXPECT_EQ(-1, daemon->Register(reinterpret_cast<void*>(&freePort), "name", nullptr));
    daemon->Print("to nobody");
    daemon->Close();
}

TEST_F(R3Daemon, RegistersInTheTableThatSessionsSearch) {
    CR3Daemon* const daemon = CR3Daemon::Create(false);
    daemon->SetFuncBox(acquire_func_box());
    EXPECT_EQ(g_r3_funcbox, daemon->FuncBox());
    EXPECT_EQ(0, daemon->Register(reinterpret_cast<void*>(&freePort), "name", nullptr));
    EXPECT_NE(nullptr, g_r3_funcbox->Find("name"));
    daemon->Close();
}

TEST_F(R3Daemon, WithoutAPortFails) {
    const OccupiedRange occupied(101);
    CR3Daemon* const daemon = CR3Daemon::Create(false);
    const LogCapture log;
    EXPECT_EQ(-1, daemon->Init(static_cast<unsigned short>(occupied.first), nullptr));
    EXPECT_TRUE(log.contains(2, "CR3Daemon::Create new open_port fail!\n")) << log.dump();
    EXPECT_NE(std::string::npos, log.lines().back().start.find("this:"));
    daemon->Close();
}

TEST_F(R3Daemon, SecondClientDisplacesTheFirstAtOnceAndNeitherIsTold) {
    start();
    const LogCapture log;
    TcpClient first = greeted();
    converse(first, "half a line", "half a line");
    TcpClient second = greeted();
    EXPECT_EQ("", first.receiveAll());
    EXPECT_TRUE(first.wasClosed());
    expectPrompt(second);
    EXPECT_EQ(2u, log.count(6, "R3Server come new connect.\n")) << log.dump();
    TcpClient third = greeted();
    EXPECT_EQ("", second.receiveAll());
    expectPrompt(third);
}

TEST_F(R3Daemon, ManyClientsInARowLeaveNothingBehind) {
    start();
    for (int i = 0; i < 50; ++i) {
        TcpClient client = greeted();
    }
    EXPECT_EVENTUALLY(openHandlers() == 2) << "daemon and session";
    TcpClient client = greeted();
    expectPrompt(client);
}

TEST_F(R3Daemon, CloseEndsTheClientAndThePort) {
    start();
    TcpClient client = greeted();
    end_debug_server();
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    EXPECT_FALSE(TcpClient(port).isConnected());
    EXPECT_EVENTUALLY(openHandlers() == 0);
}

// Out of descriptors: the connection waits, nobody spins over it, and it is served when there is room again.
TEST_F(R3Daemon, RestsWhileItCannotAccept) {
    start();
    std::unique_ptr<TcpClient> client;
    LogCapture log;
    {
        const DescriptorShortage shortage(1);
        client = std::make_unique<TcpClient>(port);
        ASSERT_TRUE(client->isConnected());
        const double before_s = processorTime_s();
        EXPECT_TRUE(client->isSilentFor(300));
        EXPECT_LT(processorTime_s() - before_s, 0.2);
    }
    EXPECT_EQ(GREETING, client->receive(GREETING.size()));
    expectPrompt(*client);
}

// ---- who may come in -------------------------------------------------------------------------------------

class LocalOnly : public R3Daemon {
protected:
    // What a client gets whose address looks like this one.
    std::string greetingFor(const char* address) {
        const PeerSeam peer(address);
        TcpClient client(port);
        EXPECT_TRUE(client.isConnected());
        return client.receive(GREETING.size());
    }
};

TEST_F(LocalOnly, ClientsOfThisMachineAreWelcome) {
    start(nullptr, true);
    LogCapture log;
    for (const char* address : {"127.0.0.1", "127.0.0.2", "127.255.255.254"}) {
        EXPECT_EQ(GREETING, greetingFor(address)) << address;
    }
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
}

TEST_F(LocalOnly, OthersAreClosedBeforeTheFirstByteWithALine) {
    start(nullptr, true);
    for (const char* address : {"10.0.0.1", "126.255.255.255", "128.0.0.1", "192.168.127.1", "0.0.0.0"}) {
        LogCapture log;
        EXPECT_EQ("", greetingFor(address)) << address;
        EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
        EXPECT_TRUE(
            log.contains(2, "R3Server refuses a client of another machine: " + std::string(address) + "\n"))
            << log.dump();
        EXPECT_EQ(0u, log.countLevel(6));
    }
}

TEST_F(LocalOnly, StrangerDoesNotDisplaceThePresentClient) {
    start(nullptr, true);
    TcpClient client = greeted();
    EXPECT_EQ("", greetingFor("10.0.0.1"));
    expectPrompt(client);
}

TEST_F(LocalOnly, EverybodyIsWelcomeToAnOpenServer) {
    start(nullptr, false);
    EXPECT_EQ(GREETING, greetingFor("10.0.0.1"));
    EXPECT_EQ(GREETING, greetingFor("127.0.0.1"));
}

}  // namespace
}  // namespace Orvex::Testing
