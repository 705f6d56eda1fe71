// CWINPipe: the pair of sockets that ends a wait from outside.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "Core/watch/Select_win.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {

class Strangers;
thread_local Strangers* t_strangers = nullptr;
// The next connect of this thread only says that it succeeded.
thread_local bool t_swallowed = false;

using namespace Reticor;

// Connects so many others first to where this thread connects next, by the definition of connect below.
class Strangers {
public:
    explicit Strangers(std::size_t count) : m_count(count) { t_strangers = this; }
    ~Strangers() {
        t_strangers = nullptr;
        for (const int fd : m_fds) {
            ::close(fd);
        }
    }
    Strangers(const Strangers&) = delete;
    Strangers& operator=(const Strangers&) = delete;

    void comeFirst(const sockaddr* addr, socklen_t length) {
        while (m_fds.size() < m_count) {
            m_fds.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            EXPECT_EQ(0, ::connect(m_fds.back(), addr, length));
        }
    }
    std::size_t connected() const { return m_fds.size(); }
    // The end of each connection, or its reset, has come.
    bool allTurnedAway() const {
        for (const int fd : m_fds) {
            char byte;
            if (::recv(fd, &byte, 1, 0) > 0) {
                return false;
            }
        }
        return true;
    }

private:
    const std::size_t m_count;
    std::vector<int> m_fds;
};

namespace {

struct Pipe : CWINPipe {
    ~Pipe() {
        for (const int fd : {m_read_fd, m_write_fd}) {
            if (fd != -1) {
                Close(fd);
            }
        }
    }
    // The next byte, waiting for it.
    int readSoon(char* buf, int len) {
        int got = 0;
        EXPECT_EVENTUALLY((got = Read(m_read_fd, buf, len)) != 0);
        return got;
    }
};

sockaddr_in addressOf(int fd, int (*name)(int, sockaddr*, socklen_t*) noexcept) {
    sockaddr_in addr{};
    socklen_t length = sizeof(addr);
    EXPECT_EQ(0, name(fd, reinterpret_cast<sockaddr*>(&addr), &length));
    return addr;
}

std::set<int> openDescriptors() {
    std::set<int> found;
    for (int fd = 0; fd < 256; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) {
            found.insert(fd);
        }
    }
    return found;
}

TEST(WakePipe, EndsAreAbsentAtFirst) {
    const CWINPipe pipe;
    EXPECT_EQ(-1, pipe.m_read_fd);
    EXPECT_EQ(-1, pipe.m_write_fd);
}

TEST(WakePipe, BytesGoFromTheConnectingToTheAcceptedEnd) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    EXPECT_EQ(3, CWINPipe::Write(pipe.m_write_fd, "MMM", 3));
    char buffer[256];
    int total = 0;
    while (total < 3) {
        const int got = pipe.readSoon(buffer, sizeof(buffer));
        ASSERT_GT(got, 0);
        total += got;
    }
    EXPECT_EQ(3, total);
    EXPECT_EQ('M', buffer[0]);
}

TEST(WakePipe, EndsAreEachOthersOnLoopbackAndCloseOnExec) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    const sockaddr_in reader = addressOf(pipe.m_read_fd, &::getpeername);
    const sockaddr_in writer = addressOf(pipe.m_write_fd, &::getsockname);
    EXPECT_EQ(0, std::memcmp(&reader, &writer, sizeof(reader)));
    EXPECT_EQ(INADDR_LOOPBACK, ntohl(reader.sin_addr.s_addr));
    EXPECT_TRUE(::fcntl(pipe.m_read_fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(pipe.m_write_fd, F_GETFD) & FD_CLOEXEC);
}

TEST(WakePipe, BothEndsBlockAsAsked) {
    for (const bool block : {false, true}) {
        Pipe pipe;
        ASSERT_TRUE(pipe.CreatePipe(block));
        for (const int fd : {pipe.m_read_fd, pipe.m_write_fd}) {
            EXPECT_EQ(block, (::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0);
        }
    }
}

TEST(WakePipe, NothingButThePairStaysOpen) {
    const std::set<int> before = openDescriptors();
    {
        Pipe pipe;
        ASSERT_TRUE(pipe.CreatePipe(false));
        EXPECT_EQ(before.size() + 2, openDescriptors().size());
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST(WakePipe, FailsAtEveryShortageOfDescriptorsAndClosesWhatItOpened) {
    const std::set<int> before = openDescriptors();
    for (std::size_t spare = 0; spare <= 3; ++spare) {
        LogCapture quiet(1);
        Pipe pipe;
        {
            DescriptorShortage shortage(spare);
            // The listening socket, the connecting one, the accepted one.
            EXPECT_EQ(spare >= 3, pipe.CreatePipe(false)) << spare;
        }
        EXPECT_EQ(before.size() + (spare >= 3 ? 2 : 0), openDescriptors().size()) << spare;
        EXPECT_EQ(spare >= 3, pipe.m_read_fd != -1);
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST(WakePipe, EmptyPipeReadsAs0InSilence) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    LogCapture log;
    char byte;
    EXPECT_EQ(0, CWINPipe::Read(pipe.m_read_fd, &byte, 1));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(WakePipe, FullPipeWrites0InSilence) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    LogCapture log;
    const std::string block(65536, 'M');
    EXPECT_EVENTUALLY(CWINPipe::Write(pipe.m_write_fd, block.data(), static_cast<int>(block.size())) == 0);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(WakePipe, ClosedWriterReadsAsMinus1WithALine) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    LogCapture log;
    EXPECT_TRUE(CWINPipe::Close(pipe.m_write_fd));
    pipe.m_write_fd = -1;
    char byte;
    EXPECT_EQ(-1, pipe.readSoon(&byte, 1));
    EXPECT_EQ(1u, log.count(2, "socket disconnected\n")) << log.dump();
    EXPECT_EQ(1u, log.lines().size());
    EXPECT_EQ(0u, log.lines()[0].start.find("[Src/Core/WakePipe.cpp:")) << log.lines()[0].start;
    EXPECT_EQ(std::string::npos, log.lines()[0].start.find("this:"));
}

TEST(WakePipe, ResetReadsAsMinus1InSilence) {
    Pipe pipe;
    ASSERT_TRUE(pipe.CreatePipe(false));
    const linger reset = {1, 0};
    ::setsockopt(pipe.m_write_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    LogCapture log;
    EXPECT_TRUE(CWINPipe::Close(pipe.m_write_fd));
    pipe.m_write_fd = -1;
    char byte;
    EXPECT_EQ(-1, pipe.readSoon(&byte, 1));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(WakePipe, OtherReadErrorsAreMinus1WithTheSystemsText) {
    LogCapture log;
    char byte;
    EXPECT_EQ(-1, CWINPipe::Read(-1, &byte, 1));
    EXPECT_EQ(1u, log.count(2, "recv failed, Bad file descriptor\n")) << log.dump();
}

TEST(WakePipe, WriteErrorsAreMinus1WithTheSystemsTextAndNoSignal) {
    LogCapture log;
    EXPECT_EQ(-1, CWINPipe::Write(-1, "M", 1));
    EXPECT_EQ(1u, log.count(2, "send failed! Bad file descriptor\n")) << log.dump();
    SocketPair pair;
    pair.far.Close();
    EXPECT_EQ(-1, CWINPipe::Write(pair.fd(), "M", 1));
    EXPECT_EQ(1u, log.count(2, "send failed! Broken pipe\n")) << log.dump();
}

TEST(WakePipe, CloseOfADeadNumberIsFalse) {
    EXPECT_FALSE(CWINPipe::Close(-1));
    EXPECT_FALSE(CWINPipe::Close(9999));
}

TEST(WakePipe, StrangersInThePassingQueueAreTurnedAwayAndTheOwnEndTaken) {
    const std::set<int> before = openDescriptors();
    {
        Strangers strangers(5);
        Pipe pipe;
        ASSERT_TRUE(pipe.CreatePipe(false));
        EXPECT_EQ(5u, strangers.connected());
        const sockaddr_in reader = addressOf(pipe.m_read_fd, &::getpeername);
        const sockaddr_in writer = addressOf(pipe.m_write_fd, &::getsockname);
        EXPECT_EQ(0, std::memcmp(&reader, &writer, sizeof(reader)));
        EXPECT_TRUE(strangers.allTurnedAway());
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST(WakePipe, ConnectionThatNeverArrivesIsAFailureAfterABoundedWait) {
    const std::set<int> before = openDescriptors();
    LogCapture quiet(1);
    t_swallowed = true;
    Pipe pipe;
    EXPECT_FALSE(pipe.CreatePipe(false));
    EXPECT_EQ(-1, pipe.m_read_fd);
    EXPECT_EQ(before, openDescriptors());
}

TEST(WakePipe, StrangersWithoutEndAreAFailure) {
    const std::set<int> before = openDescriptors();
    {
        Strangers strangers(64);
        Pipe pipe;
        EXPECT_FALSE(pipe.CreatePipe(false));
        EXPECT_EQ(-1, pipe.m_read_fd);
        EXPECT_TRUE(strangers.allTurnedAway());
    }
    EXPECT_EQ(before, openDescriptors());
}

}  // namespace
}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) int connect(int fd, const sockaddr* addr,
                                                              socklen_t length) {
    static auto* const real = reinterpret_cast<decltype(::connect)*>(::dlsym(RTLD_NEXT, "connect"));
    if (std::exchange(Orvex::Testing::t_swallowed, false)) {
        return 0;  // as if connected
    }
    if (Orvex::Testing::Strangers* const strangers = std::exchange(Orvex::Testing::t_strangers, nullptr)) {
        strangers->comeFirst(addr, length);
    }
    return real(fd, addr, length);
}
