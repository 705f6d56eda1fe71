// SocketPair: a connection whose near end goes into the reactor and whose far end is the test's.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

namespace Orvex::Testing {

// Both ends are non-blocking. A socketpair unless it comes from overTcp().
class SocketPair {
public:
    SocketPair() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
        near.Attach(ends[0]);
        far.Attach(ends[1]);
    }

    static std::unique_ptr<SocketPair> overTcp() {
        std::unique_ptr<SocketPair> pair(new SocketPair(Empty()));
        Reticor::CSockAcceptor acceptor;
        Reticor::CSockAddrIPv4 addr("127.0.0.1", 0);
        EXPECT_EQ(0, acceptor.Open(addr));
        EXPECT_EQ(0, acceptor.GetLocalAddr(&addr));
        pair->far.SetBlockOpt(true);
        EXPECT_EQ(0, pair->far.Connect(addr, nullptr));
        pair->far.SetBlockOpt(false);
        acceptor.SetBlockOpt(true);
        EXPECT_EQ(0, acceptor.Accept(pair->near, nullptr));
        return pair;
    }

    int fd() const { return near.GetHandle(); }

    // Makes the near end readable.
    void write(const std::string& bytes = "x") {
        EXPECT_EQ(static_cast<int>(bytes.size()),
                  far.Send(bytes.data(), static_cast<unsigned int>(bytes.size())));
    }

    // The same; if there is no more room the near end is readable anyway.
    void poke() { far.Send("x", 1); }

    // Fills the near end's way out until it takes no more.
    void fill() {
        const std::string block(16384, 'f');
        while (::send(fd(), block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(EAGAIN, errno);
    }

    // Takes what the near end has sent.
    void drainFar() { drain(far.GetHandle()); }

    // Reads a socket empty. The number of bytes, or -1 if the connection is over.
    static int drain(int fd) {
        char buffer[4096];
        int total = 0;
        for (;;) {
            const ssize_t got = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (got <= 0) {
                return got == 0 ? -1 : total;
            }
            total += static_cast<int>(got);
        }
    }

    Reticor::CSockStream near;
    Reticor::CSockStream far;

private:
    struct Empty {};
    explicit SocketPair(Empty) {}
};

// A CSock for a descriptor that somebody else owns: registers it, and does not close it.
class BorrowedSock : public Reticor::CSock {
public:
    explicit BorrowedSock(int fd) { m_handle = fd; }
    ~BorrowedSock() override { Detach(); }
};

// Lets this process open at least `count` descriptors.
inline void allowDescriptors(rlim_t count) {
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur < count) {
        limit.rlim_cur = count;
        limit.rlim_max = limit.rlim_max < count ? count : limit.rlim_max;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit)) << "the system allows too few descriptors";
    }
}

// While it lives, only `spare` more descriptors can be opened: the rest meet EMFILE.
class DescriptorShortage {
public:
    explicit DescriptorShortage(std::size_t spare) {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &m_before));
        rlimit limit = m_before;
        limit.rlim_cur = LIMIT;
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        for (int fd = openOne(); fd != -1; fd = openOne()) {
            m_fillers.push_back(fd);
        }
        EXPECT_GE(m_fillers.size(), spare);
        for (std::size_t i = 0; i < spare; ++i) {
            ::close(m_fillers.back());
            m_fillers.pop_back();
        }
    }
    ~DescriptorShortage() {
        ::setrlimit(RLIMIT_NOFILE, &m_before);
        for (const int fd : m_fillers) {
            ::close(fd);
        }
    }
    DescriptorShortage(const DescriptorShortage&) = delete;
    DescriptorShortage& operator=(const DescriptorShortage&) = delete;

private:
    static constexpr rlim_t LIMIT = 256;

    static int openOne() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

    rlimit m_before{};
    std::vector<int> m_fillers;
};

}  // namespace Orvex::Testing
