// StatsServer: who may ask, what is answered, that it needs no worker, and what bad clients can do.
#include "Core/stats/StatsServer.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Time.h>
#include <Reticor/Recorder.h>
#include <Reticor/Stats.h>

#include "support/ThreadFault.h"
#include "support/core/AcceptFault.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class StatsClient {
public:
    explicit StatsClient(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        m_error = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    }
    ~StatsClient() { ::close(m_fd); }
    int error() const { return m_error; }
    void ask(const std::string& line) {
        EXPECT_EQ(static_cast<ssize_t>(line.size()), ::send(m_fd, line.data(), line.size(), MSG_NOSIGNAL));
    }
    // Until the connection is closed.
    std::string answer() {
        std::string text;
        char room[4096];
        for (ssize_t got = 0; (got = ::recv(m_fd, room, sizeof room, 0)) > 0;) {
            text.append(room, static_cast<size_t>(got));
        }
        return text;
    }
    // Nothing more will be asked.
    void endAsking() { EXPECT_EQ(0, ::shutdown(m_fd, SHUT_WR)); }
    // Sends without waiting, and whatever comes of it.
    void throwIn(const std::string& bytes) {
        (void)::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    // Whether something can be read; the end of the connection as well.
    bool hears() const {
        pollfd look{m_fd, POLLIN, 0};
        return ::poll(&look, 1, 0) == 1;
    }

private:
    const int m_fd;
    int m_error;
};

class StatsServing : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        char name[] = "/tmp/reticor_stats_XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(name));
        folder = name;
        path = folder + "/socket";
        ASSERT_EQ(0, CNetThread::ServeStats(path.c_str()));
    }
    void TearDown() override {
        CNetThread::StopServingStats();
        EXPECT_EQ(0, ::rmdir(folder.c_str())) << "the path is gone";
        PoolFixture::TearDown();
    }
    std::string ask(const std::string& line) {
        StatsClient client(path);
        EXPECT_EQ(0, client.error());
        client.ask(line);
        return client.answer();
    }
    std::string folder;
    std::string path;
};

TEST_F(StatsServing, AnswersEachRequestAndNobodyElseMayAsk) {
    struct stat there {};
    ASSERT_EQ(0, ::lstat(path.c_str(), &there));
    EXPECT_EQ(0600u, there.st_mode & 07777u);
    EXPECT_EQ('{', ask("json\n").at(0));
    EXPECT_NE(std::string::npos, ask("metrics\r\n").find("\nreticor_build_info{"));
    EXPECT_NE(std::string::npos, ask("text\n").find("pool 0: "));
    EXPECT_EQ(0u, ask("handlers\n").find("age_s"));
    EXPECT_NE(std::string::npos, ask("something\n").find("unknown request"));
    EXPECT_EQ("timing on\n", ask("timing on\n"));
    EXPECT_NE(std::string::npos, ask("json\n").find("\"timing\":true"));
    EXPECT_EQ("timing off\n", ask("timing off\n"));
}

TEST_F(StatsServing, SwitchesTheRecorderAndDumpsIt) {
    EXPECT_EQ("recorder on\n", ask("recorder on\n"));
    EXPECT_TRUE(CRecorder::IsOn());
    const std::string name = "reticor-" + std::to_string(::getpid()) + ".dump";
    ASSERT_EQ(0, ::chdir(folder.c_str()));
    EXPECT_EQ("written to " + name + "\n", ask("recorder dump\n"));
    EXPECT_EQ(0, ::unlink(name.c_str()));
    EXPECT_EQ("recorder off\n", ask("recorder off\n"));
    EXPECT_FALSE(CRecorder::IsOn());
    ASSERT_EQ(0, ::mkdir(name.c_str(), 0700));
    EXPECT_EQ(name + ": Is a directory\n", ask("recorder dump\n"));
    EXPECT_EQ(0, ::rmdir(name.c_str()));
}

TEST_F(StatsServing, AnswersWhileAllWorkersHang) {
    Gate gate;
    auto* handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    const int all = ThreadPoolProbe::workers(*PoolTable::Get(0));
    for (int i = 0; i < all + 3; ++i) {
        handler->Notify(handler->GetID(), 100, 0);
    }
    ASSERT_TRUE(gate.awaitArrivals(all));
    const std::string busy = "\"workers\":" + std::to_string(all) + ",\"busy\":" + std::to_string(all);
    EXPECT_NE(std::string::npos, ask("json\n").find(busy));
    gate.open();
    EXPECT_EVENTUALLY(handler->life->messages == all + 3);
    closeAndWait(handler);
}

TEST_F(StatsServing, ServesOneWhileOthersSayNothingAndTheOldestGivesWay) {
    std::vector<std::unique_ptr<StatsClient>> silent;
    for (int i = 0; i < 16; ++i) {
        silent.push_back(std::make_unique<StatsClient>(path));
        ASSERT_EQ(0, silent.back()->error());
    }
    EXPECT_EQ('{', ask("json\n").at(0));
    EXPECT_EQ("", silent.front()->answer()) << "it was closed";
    silent.back()->ask("js");
    silent.back()->ask("on\n");
    EXPECT_EQ('{', silent.back()->answer().at(0)) << "a request may come in pieces";
}

TEST_F(StatsServing, TakesOverAPathThatNobodyListensAtAndNoOther) {
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::ServeStats((folder + "/second").c_str())) << "it serves already";
    EXPECT_EQ(0, CNetThread::StopServingStats());
    EXPECT_EQ(-1, CNetThread::StopServingStats());
    // Left behind by a process that is gone.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ::close(fd);
    EXPECT_EQ(0, CNetThread::ServeStats(path.c_str()));
    EXPECT_EQ('{', ask("json\n").at(0));
    CNetThread::StopServingStats();
    // One that lives, and a file.
    const int other = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, ::bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(other, 1));
    EXPECT_EQ(-1, CNetThread::ServeStats(path.c_str()));
    ::close(other);
    ::unlink(path.c_str());
    EXPECT_EQ(-1, CNetThread::ServeStats(std::string(200, 'x').c_str()));
    EXPECT_EQ(3u, log.countMatching(2, ".*ServeStats.*\n")) << log.dump();
}

// The look at what is there has errors of its own.
TEST_F(StatsServing, SaysThatAPathIsTakenWhateverHasTakenIt) {
    EXPECT_EQ(0, CNetThread::StopServingStats());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::ServeStats(path.c_str()));
    EXPECT_EQ(1u, log.countMatching(2, ".*ServeStats.* can't serve at .*, Address already in use\n"))
        << log.dump();
    ::close(fd);
    ::unlink(path.c_str());
    EXPECT_EQ(0, CNetThread::ServeStats(path.c_str()));
}

// ---- bad clients ---------------------------------------------------------------------------------------

int ownDescriptors() {
    DIR* const all = ::opendir("/proc/self/fd");
    int count = 0;
    while (::readdir(all) != nullptr) {
        ++count;
    }
    ::closedir(all);
    return count;
}

constexpr char UNKNOWN[] =
    "unknown request; there are: text json metrics handlers timing on timing off recorder on recorder off "
    "recorder dump holders on holders off\n";

TEST_F(StatsServing, ARequestMayComeByteByByteWhileOthersAreServed) {
    StatsClient slow(path);
    for (const char letter : std::string("metrics\r\n")) {
        EXPECT_FALSE(slow.hears());
        EXPECT_EQ('{', ask("json\n").at(0));
        slow.ask(std::string(1, letter));
    }
    EXPECT_EQ(0u, slow.answer().find("# HELP reticor_build_info "));
}

TEST_F(StatsServing, ARequestIsTheFirstLineToTheLetter) {
    EXPECT_EQ(0u, ask("\n").find("handlers ")) << "an empty one asks for the text";
    EXPECT_EQ(0u, ask("\r\n").find("handlers "));
    EXPECT_EQ("timing off\n", ask("timing off\njson\n")) << "one request for each connection";
    for (const char* wrong :
         {"JSON\n", " json\n", "json \n", "json\r\r\n", "timing\n", "timing maybe\n", "jso\n"}) {
        EXPECT_EQ(UNKNOWN, ask(wrong)) << wrong;
    }
    EXPECT_EQ(UNKNOWN, ask(std::string("json\0\n", 6))) << "a zero is a letter like others";
    EXPECT_EQ(UNKNOWN, ask(std::string(1, '\xff') + "\n"));
}

TEST_F(StatsServing, ARequestOf255BytesIsReadAndALongerOneEndsTheConnection) {
    EXPECT_EQ(UNKNOWN, ask(std::string(255, 'x') + "\n"));
    StatsClient exact(path);
    exact.ask(std::string(255, 'x'));
    StatsClient longer(path);
    longer.ask(std::string(256, 'x'));
    EXPECT_EQ("", longer.answer());
    EXPECT_FALSE(exact.hears()) << "its line may still end";
    exact.ask("\n");
    EXPECT_EQ(UNKNOWN, exact.answer());
    StatsClient flood(path);
    for (int i = 0; i < 50; ++i) {
        flood.throwIn(std::string(4096, 'x'));
    }
    EXPECT_EQ("", flood.answer());
    EXPECT_EQ('{', ask("json\n").at(0));
}

TEST_F(StatsServing, WhoeverEndsAskingIsAnsweredIfTheLineWasWhole) {
    StatsClient whole(path);
    whole.ask("json\n");
    whole.endAsking();
    EXPECT_EQ('{', whole.answer().at(0));
    StatsClient half(path);
    half.ask("js");
    half.endAsking();
    EXPECT_EQ("", half.answer());
    StatsClient nothing(path);
    nothing.endAsking();
    EXPECT_EQ("", nothing.answer());
}

// Each would leave a descriptor for ever.
TEST_F(StatsServing, ClientsThatGoAwayAtAnyPointLeaveNothingBehind) {
    EXPECT_EQ('{', ask("json\n").at(0));
    const int before = ownDescriptors();
    const std::string request = "metrics\n";
    for (int round = 0; round < 10; ++round) {
        for (size_t size = 0; size <= request.size(); ++size) {
            StatsClient client(path);
            client.throwIn(request.substr(0, size));
        }
    }
    EXPECT_EQ('{', ask("json\n").at(0));
    EXPECT_EVENTUALLY(ownDescriptors() == before);
}

// A list that does not fit into a socket.
class StatsOfMany : public StatsServing {
protected:
    static constexpr int HANDLERS = 5000;
    void SetUp() override {
        StatsServing::SetUp();
        for (int i = 0; i < HANDLERS; ++i) {
            handlers.push_back(new TestHandler);
        }
    }
    void TearDown() override {
        std::vector<std::shared_ptr<HandlerLife>> lives;
        for (TestHandler* handler : handlers) {
            lives.push_back(handler->life);
            handler->Close();
        }
        EXPECT_EVENTUALLY(
            std::all_of(lives.begin(), lives.end(), [](const auto& life) { return life->closes == 1; }));
        StatsServing::TearDown();
    }
    std::vector<TestHandler*> handlers;
};

TEST_F(StatsOfMany, AClientThatNeverReadsHoldsUpNobodyAndGetsAllOfItOnceItDoes) {
    StatsClient slow(path);
    slow.ask("handlers\n");
    EXPECT_EVENTUALLY(slow.hears());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ('{', ask("json\n").at(0));
    }
    slow.throwIn("json\n");  // is not read any more
    const std::string text = slow.answer();
    EXPECT_GT(text.size(), 300000u);
    EXPECT_EQ(HANDLERS + 1, std::count(text.begin(), text.end(), '\n')) << "the head, and a line for each";
    for (const TestHandler* handler : {handlers.front(), handlers.back()}) {
        const std::string id = std::to_string(const_cast<TestHandler*>(handler)->GetID());
        EXPECT_NE(std::string::npos, text.find(" " + id + " ")) << id;
    }
}

TEST_F(StatsOfMany, ClientsThatGoAwayInTheMiddleOfAnAnswerLeaveNothingBehind) {
    EXPECT_EQ('{', ask("json\n").at(0));
    const int before = ownDescriptors();
    for (int i = 0; i < 8; ++i) {
        StatsClient client(path);
        client.ask("handlers\n");
        EXPECT_EVENTUALLY(client.hears());
    }
    EXPECT_EVENTUALLY(ownDescriptors() == before);
    EXPECT_EQ('{', ask("json\n").at(0));
}

TEST_F(StatsOfMany, TheEndDoesNotWaitForClients) {
    StatsClient reads_nothing(path);
    reads_nothing.ask("handlers\n");
    EXPECT_EVENTUALLY(reads_nothing.hears());
    StatsClient asks_nothing(path);
    StatsClient asks_half(path);
    asks_half.ask("js");
    EXPECT_EQ(0, CNetThread::StopServingStats());
    EXPECT_EQ("", asks_nothing.answer());
    EXPECT_EQ("", asks_half.answer());
    EXPECT_LT(reads_nothing.answer().size(), 300000u) << "the rest was not sent";
    StatsClient late(path);
    EXPECT_EQ(ENOENT, late.error());
}

TEST_F(StatsServing, OfManySilentClientsTheLast16Stay) {
    constexpr size_t ALL = 30;
    constexpr size_t MOST = 16;
    std::vector<std::unique_ptr<StatsClient>> silent;
    for (size_t i = 0; i < ALL; ++i) {
        silent.push_back(std::make_unique<StatsClient>(path));
        ASSERT_EQ(0, silent.back()->error());
    }
    for (size_t i = 0; i < ALL - MOST; ++i) {
        EXPECT_EQ("", silent[i]->answer()) << i;
    }
    for (size_t i = ALL - MOST; i < ALL; ++i) {
        silent[i]->ask("json\n");
        EXPECT_EQ('{', silent[i]->answer().at(0)) << i;
    }
}

TEST_F(StatsServing, ManyClientsAtATimeAreAllAnswered) {
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 8; ++n) {
        threads.emplace_back([this, n, &answered] {
            const char* const requests[] = {"json\n", "metrics\n", "text\n", "handlers\n"};
            for (int i = 0; i < 15; ++i) {
                StatsClient client(path);
                const std::string request = requests[(i + n) % 4];
                client.throwIn(request.substr(0, 3));
                client.throwIn(request.substr(3));
                answered += client.answer().empty() ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8 * 15, answered);
}

// ---- shortages -----------------------------------------------------------------------------------------

// The listener stays ready while nobody can be let in, and the thread would try again and again.
TEST_F(StatsServing, WithoutDescriptorsItRestsBetweenTriesAndThenLetsTheClientIn) {
    const int before = ownDescriptors();
    StatsClient client(path);
    EXPECT_EVENTUALLY(ownDescriptors() == before + 2);  // both ends: it is in
    {
        const AcceptFault fault(EMFILE);
        StatsClient refused(path);
        ASSERT_EQ(0, refused.error());
        EXPECT_EVENTUALLY(fault.calls() >= 1);
        const uint64_t begin_us = Infra::CTime::getCurrentMicroSecond();
        EXPECT_EVENTUALLY(fault.calls() >= 4);
        EXPECT_GE(Infra::CTime::getCurrentMicroSecond() - begin_us, 150000u);
        client.ask("json\n");
        EXPECT_EQ('{', client.answer().at(0)) << "whoever is in is served";
    }
    EXPECT_EQ('{', ask("json\n").at(0));
}

TEST_F(StatsServing, AClientThatGaveUpBeforeItWasAcceptedIsNoShortage) {
    for (int error : {ECONNABORTED, EINTR, EAGAIN}) {
        const AcceptFault fault(error);
        const StatsClient client(path);
        EXPECT_EVENTUALLY(fault.calls() >= 1000) << "it goes on at once";
    }
    EXPECT_EQ('{', ask("json\n").at(0));
}

class StatsStarting : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/reticor_stats_XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(name));
        folder = name;
        path = folder + "/socket";
    }
    void TearDown() override {
        server.Stop();
        EXPECT_EQ(0, ::rmdir(folder.c_str())) << "nothing is left there";
    }
    // It does not start, tells why, and starts once the reason has gone.
    void expectRefused(int error) {
        EXPECT_EQ(error, errno);
        EXPECT_EQ(-1, ::access(path.c_str(), F_OK)) << "no socket is left at the path";
        EXPECT_TRUE(server.Start(path.c_str()));
        StatsClient client(path);
        client.ask("timing off\n");
        EXPECT_EQ("timing off\n", client.answer());
    }

    std::string folder;
    std::string path;
    StatsServer server;
};

TEST_F(StatsStarting, WithoutAThreadNothingIsLeftAtThePath) {
    {
        const ThreadFault fault(0);
        EXPECT_FALSE(server.Start(path.c_str()));
    }
    expectRefused(EAGAIN);
}

TEST_F(StatsStarting, WithoutDescriptorsNothingIsLeftAtThePath) {
    std::thread([] {}).join();  // what the program needs for its first thread is opened
    const int before = ownDescriptors();
    for (size_t spare : {0u, 1u}) {
        int error = 0;
        {
            const DescriptorShortage shortage(spare);
            EXPECT_FALSE(server.Start(path.c_str()));
            error = errno;
        }
        EXPECT_EQ(EMFILE, error) << spare;
        EXPECT_EQ(before, ownDescriptors()) << spare;
    }
    errno = EMFILE;
    expectRefused(EMFILE);
}

TEST_F(StatsStarting, APathMayHave107BytesAndNoMore) {
    const std::string longest = folder + "/" + std::string(107 - folder.size() - 1, 'x');
    EXPECT_FALSE(server.Start((longest + "x").c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
    ASSERT_TRUE(server.Start(longest.c_str()));
    StatsClient client(longest);
    EXPECT_EQ(0, client.error());
    client.ask("timing off\n");
    EXPECT_EQ("timing off\n", client.answer());
}

TEST_F(StatsStarting, APathWithoutItsFolderIsRefused) {
    EXPECT_FALSE(server.Start((folder + "/none/socket").c_str()));
    expectRefused(ENOENT);
}

// An empty name is one without a file: every user of the machine could open it.
TEST_F(StatsStarting, AnEmptyPathIsRefused) {
    EXPECT_FALSE(server.Start(""));
    expectRefused(ENOENT);
}

TEST_F(StatsStarting, WhatIsNoSocketStaysWhereItIs) {
    ASSERT_EQ(0, ::symlink("/nowhere", path.c_str()));
    EXPECT_FALSE(server.Start(path.c_str()));
    EXPECT_EQ(EADDRINUSE, errno);
    char target[32] = {};
    EXPECT_EQ(8, ::readlink(path.c_str(), target, sizeof target));
    EXPECT_STREQ("/nowhere", target);
    ::unlink(path.c_str());
    const int file = ::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    EXPECT_EQ(4, ::write(file, "kept", 4));
    EXPECT_FALSE(server.Start(path.c_str()));
    EXPECT_EQ(EADDRINUSE, errno);
    struct stat there {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &there));
    EXPECT_EQ(4, there.st_size);
    ::close(file);
    ::unlink(path.c_str());
    errno = EADDRINUSE;
    expectRefused(EADDRINUSE);
}

TEST_F(StatsStarting, MayBeStoppedTwiceAndStartedAgain) {
    server.Stop();  // before anything
    for (int life = 0; life < 3; ++life) {
        ASSERT_TRUE(server.Start(path.c_str())) << life;
        StatsClient client(path);
        EXPECT_EQ(0, client.error());
        server.Stop();
        server.Stop();
        EXPECT_EQ("", client.answer());
    }
}

}  // namespace
}  // namespace Orvex::Testing
