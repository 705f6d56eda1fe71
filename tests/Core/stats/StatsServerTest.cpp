// CNetThread::ServeStats: who may ask, what is answered, and that it needs no worker.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <Reticor/Stats.h>

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

}  // namespace
}  // namespace Orvex::Testing
