// SmallPipe: lets standard error be a small pipe that nobody reads but the test, in blocking mode as a shell
// makes it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace Orvex::Testing {

class SmallPipe {
public:
    static constexpr int BYTES = 4096;  // the least that the kernel gives
    // For cases that do not fill it. Where pipes cannot refuse a write, before Linux 6.5, the sink asks for
    // room first, and a pipe of one page says that it has none as soon as there is a line in it.
    static constexpr int ROOMY = 65536;

    explicit SmallPipe(int bytes = BYTES) : m_before(::dup(STDERR_FILENO)) {
        EXPECT_EQ(0, ::pipe2(m_pipe, O_CLOEXEC));
        EXPECT_EQ(bytes, ::fcntl(m_pipe[1], F_SETPIPE_SZ, bytes));
        ::fcntl(m_pipe[0], F_SETFL, O_NONBLOCK);
        ::dup2(m_pipe[1], STDERR_FILENO);
    }
    ~SmallPipe() {
        ::dup2(m_before, STDERR_FILENO);
        for (const int fd : {m_before, m_pipe[0], m_pipe[1]}) {
            ::close(fd);
        }
    }
    SmallPipe(const SmallPipe&) = delete;
    SmallPipe& operator=(const SmallPipe&) = delete;

    // What has come until now.
    std::string read() {
        std::string all;
        char buffer[BYTES];
        for (ssize_t size; (size = ::read(m_pipe[0], buffer, sizeof(buffer))) > 0;) {
            all.append(buffer, static_cast<size_t>(size));
        }
        return all;
    }
    int flags() const { return ::fcntl(m_pipe[1], F_GETFL); }

private:
    int m_before;
    int m_pipe[2] = {-1, -1};
};

}  // namespace Orvex::Testing
