// The samples of docs/guide.md, compiled as they are printed, and run.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <netinet/in.h>
#include <unistd.h>
#include <ctime>
#include <list>

#include <gtest/gtest.h>

#include <Infra/Time.h>

#include "support/Eventually.h"
#include "support/program/TcpClient.h"
#include "support/program/TempFolder.h"

#include "guide.inc"  // made of the page

namespace {

using Orvex::Testing::TcpClient;

class Guide : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, CreateThreadPool(2, 0)); }
    void TearDown() override { EXPECT_EQ(0, DestroyThreadPool()); }

    CSemaphore m_gone{0};
};

/// A port of this machine where nobody listens, and nobody can as long as this lives.
class DeadPort {
public:
    DeadPort() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr*>(&m_address), length));
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<sockaddr*>(&m_address), &length));
    }
    ~DeadPort() { close(m_fd); }
    unsigned short number() const { return ntohs(m_address.sin_port); }

private:
    int m_fd;
    sockaddr_in m_address{};
};

}  // namespace

TEST_F(Guide, AServerCountsLetters) {
    std::atomic<int> lines{0};
    Kit::Server server(countLetters(lines));
    ASSERT_TRUE(openOnBothFamilies(server, 0));
    TcpClient client(server.port(), "::1");
    client.send("four\nthre");
    EXPECT_EQ("4 letters", client.receiveLine());
    client.send("e\n");
    EXPECT_EQ("5 letters", client.receiveLine());
    EXPECT_EQ(2, lines);
}

TEST_F(Guide, AServerStaysAwake) {
    std::atomic<int> count{0};
    Kit::Pool pool(1);
    Kit::Every seconds;
    Kit::Server server(stayAwake(seconds, pool, count));
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    TcpClient client(server.port());
    EXPECT_EQ("welcome", client.receiveLine());
    EXPECT_EQ("still here", client.receiveLine());
    EXPECT_TRUE(seconds.isArmed());
}

TEST_F(Guide, AClientAsksForALine) {
    std::atomic<int> lines{0};
    Kit::Server server(countLetters(lines));
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    std::string answer;
    CSemaphore done(0);
    ASSERT_TRUE(askForALine(server.pool(), "127.0.0.1", server.port(), answer, done));
    done.pend();
    EXPECT_EQ("5 letters\n", answer);
}

TEST_F(Guide, PulseBeatsAsOftenAsItWasAskedTo) {
    std::atomic<int> beats{0};
    Pulse::Create(m_gone, beats, 10);
    m_gone.pend();
    EXPECT_EQ(10, beats);
}

TEST_F(Guide, CountdownEndsItselfAndItsTimer) {
    countDown(m_gone, 3);
    m_gone.pend();
}

TEST_F(Guide, AskerLearnsTheSumFromAdder) {
    std::atomic<long> sum{0};
    auto* adder = new Adder(m_gone);
    (new Asker(m_gone, adder->GetID(), 100, sum))->start();
    m_gone.pend();
    EXPECT_EQ(5050, sum);
    adder->Close();
    m_gone.pend();
}

TEST_F(Guide, CallerHearsWhatDoorSays) {
    auto* door = new Door(m_gone);
    ASSERT_TRUE(door->open(CSockAddrIPv4("127.0.0.1", 0)));
    Caller::Result result;
    Caller::Create(m_gone, CSockAddrIPv4("127.0.0.1", static_cast<unsigned short>(door->port())), result);
    m_gone.pend();
    EXPECT_EQ(result.outcome, Caller::Outcome::Done);
    EXPECT_EQ("welcome, 127.0.0.1\n", result.answer);
    door->shut();
    m_gone.pend();
}

TEST_F(Guide, CallerLearnsThatItWasRefused) {
    const DeadPort port;
    Caller::Result result;
    Caller::Create(m_gone, CSockAddrIPv4("127.0.0.1", port.number()), result);
    m_gone.pend();
    EXPECT_EQ(result.outcome, Caller::Outcome::Refused);
    EXPECT_EQ("", result.answer);
}

TEST_F(Guide, OneListenerServesBothFamilies) {
    auto* door = new Door(m_gone);
    ASSERT_TRUE(openForEverybody(*door, 0));
    TcpClient four(door->port(), "127.0.0.1");
    EXPECT_EQ("welcome, ::ffff:127.0.0.1", four.receiveLine());
    TcpClient six(door->port(), "::1");
    EXPECT_EQ("welcome, ::1", six.receiveLine());
    auto* second = new Door(m_gone);
    EXPECT_FALSE(second->open(CSockAddrIPv4("0.0.0.0", static_cast<unsigned short>(door->port()))));
    second->shut();
    door->shut();
    m_gone.pend();
    m_gone.pend();
}

TEST_F(Guide, DoorRestsWhileThereAreNoDescriptors) {
    auto* door = new Door(m_gone);
    ASSERT_TRUE(door->open(CSockAddrIPv4("127.0.0.1", 0)));
    const int port = door->port();
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = 128;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));

    std::list<int> taken;
    for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) {
        taken.push_back(fd);
    }
    close(taken.back());
    taken.pop_back();
    TcpClient client(port);  // has the last one
    ASSERT_TRUE(client.isConnected());
    const clock_t before = clock();
    EXPECT_TRUE(client.isSilentFor(500));
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 10) << "it is called in a circle";
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_EQ("welcome, 127.0.0.1", client.receiveLine());
    door->shut();
    m_gone.pend();
}

TEST_F(Guide, GiverSendsEverythingToASlowReader) {
    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrIPv4 local;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&local));
    TcpClient client(local.GetPort(), "127.0.0.1", 4096);
    CSockStream peer;
    ASSERT_EQ(0, acceptor.Accept(peer, nullptr));
    peer.SetBlockOpt(false);
    std::string bytes;
    while (bytes.size() < 6000000) {
        bytes += std::to_string(bytes.size()) + " ";
    }
    Giver::Create(m_gone, peer, bytes);
    EXPECT_TRUE(client.receiveAll() == bytes);
    EXPECT_TRUE(client.wasClosed());
    m_gone.pend();
}

TEST_F(Guide, GiverEndsWhenItsReaderHangsUp) {
    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrIPv4 local;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&local));
    TcpClient client(local.GetPort());
    CSockStream peer;
    ASSERT_EQ(0, acceptor.Accept(peer, nullptr));
    peer.SetBlockOpt(false);
    Giver::Create(m_gone, peer, std::string(50000000, 'g'));
    EXPECT_EQ(10000u, client.receive(10000).size());
    client.reset();
    m_gone.pend();
}

TEST_F(Guide, MeterAnswersInBothFamilies) {
    for (const char* ip : {"127.0.0.1", "::1"}) {
        auto* meter = new Meter(m_gone);
        meter->AddRef();  // it ends itself, and is asked for its port before that
        ASSERT_TRUE(meter->open(CSockAddrStorage(ip, 0)));
        const CSockAddrStorage remote(ip, static_cast<unsigned short>(meter->port()));
        meter->DecRef();
        CSockDgram sock;
        sock.SetBlockOpt(true);
        const CSockAddrStorage any(ip, 0);
        ASSERT_EQ(0, sock.Open(&any));
        ASSERT_EQ(0, sock.SetRemote(&remote));
        char answer[16] = "";
        EXPECT_EQ(17, sock.Send("seventeen letters", 17, nullptr));
        EXPECT_EQ(2, sock.Recv(answer, sizeof answer, nullptr));
        EXPECT_STREQ("17", answer);
        sock.Send("end", 3, nullptr);
        m_gone.pend();
    }
}

TEST_F(Guide, PlayerPlaysInRealTimeAndFaster) {
    for (const float speed : {1.0F, 4.0F}) {
        std::atomic<int> played{0};
        const uint64_t begin = Orvex::Infra::CTime::getCurrentMilliSecond();
        Player::Create(m_gone, played, 6, speed);
        m_gone.pend();
        EXPECT_EQ(6, played);
        EXPECT_GE(static_cast<float>(Orvex::Infra::CTime::getCurrentMilliSecond() - begin), 100 / speed);
    }
}

TEST_F(Guide, HandlersRunOnAPrivatePool) {
    CSemaphore gone{0};
    const int result = onPrivatePool(2, [&](int pool) {
        EXPECT_GT(pool, 0);
        auto* handler = new Sample(gone, pool);
        handler->Close();
        gone.pend();
    });
    EXPECT_EQ(0, result);
}

TEST_F(Guide, ResidentsAnswerOnSeveralPools) {
    CPoolSet pools;
    ASSERT_EQ(0, pools.Create(2, 2));
    const int room = pools.GetRoom(SOCK_READ);
    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrIPv4 local;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&local));
    std::list<TcpClient> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back(local.GetPort());
        CSockStream peer;
        ASSERT_EQ(0, acceptor.Accept(peer, nullptr));
        peer.SetBlockOpt(false);
        EXPECT_TRUE(Resident::Create(m_gone, pools, peer));
    }
    EXPECT_EQ(room - 4, pools.GetRoom(SOCK_READ));
    for (TcpClient& client : clients) {
        EXPECT_TRUE(client.echoes("who is there?"));
    }
    clients.clear();
    for (int i = 0; i < 4; ++i) {
        m_gone.pend();
    }
    EXPECT_EQ(room, pools.GetRoom(SOCK_READ));
    EXPECT_EQ(0, pools.Destroy());
    CSockStream nobody;
    EXPECT_FALSE(Resident::Create(m_gone, pools, nobody));
}

TEST_F(Guide, SinkCountsErrors) {
    ErrorCount count;
    EXPECT_EQ(-1, CNetThread::DestroyPrivatePool(63));  // none there: one line at level 2
    EXPECT_EQ(1, count.errors());
}

// The system's log is a socket of the test's, which takes few lines: nobody reads it for a while.
TEST_F(Guide, SystemLogGetsTheLinesAndNeverWaits) {
    const Orvex::Testing::TempFolder folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", folder.file("log").c_str());
    const int daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof address));
    {
        SystemLog log("guide", address.sun_path);
        ASSERT_TRUE(log.isConnected());
        while (log.lost() == 0) {
            EXPECT_EQ(-1, CNetThread::DestroyPrivatePool(63));
        }
    }
    char text[4096];
    const ssize_t size = recv(daemon, text, sizeof text, 0);
    const std::string line(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    EXPECT_EQ(0U, line.rfind("<27>guide[" + std::to_string(getpid()) + "]: [Src/Core/", 0)) << line;
    EXPECT_EQ('\n', line.back());
    close(daemon);
}

TEST_F(Guide, ServiceLogCarriesTheTimeAndIsLimited) {
    logAsAService();
    EXPECT_EQ(1U, Orvex::Infra::setLogLimit(100));
    EXPECT_TRUE(Orvex::Infra::setLogTime(false));
}

TEST_F(Guide, ScribeWritesAllThatItWasTold) {
    const std::string path = "/tmp/reticor-guide-" + std::to_string(getpid());
    const std::string text = "all work and no play makes a dull file\n";
    ASSERT_EQ(0, CreateThreadPool(2, 1));  // the file workers live until the fixture lets the library go
    Scribe::Create(m_gone, path, text, 50000);
    m_gone.pend();
    EXPECT_EQ(0, DestroyThreadPool());
    struct stat found {};
    EXPECT_EVENTUALLY(stat(path.c_str(), &found) == 0 &&
                      found.st_size == static_cast<off_t>(50000 * text.size()));
    unlink(path.c_str());
    Scribe::Create(m_gone, "/no/such/folder", text, 1);
    m_gone.pend();
}
