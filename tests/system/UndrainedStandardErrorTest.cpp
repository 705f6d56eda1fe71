// A server whose standard error is a pipe that nobody reads: clients whose connections fail fill it with
// lines, and must not stop it with them.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

constexpr int PIPE_BYTES = 4096;
constexpr int MOST_RESETS = 5000;  // a line for most of them, of about a hundred bytes
const std::string REQUEST = "back to whoever sent it\n";

/// What is started while it lives has such a standard error, and keeps it.
class FullPipe {
public:
    FullPipe() : m_before(::dup(STDERR_FILENO)) {
        EXPECT_EQ(0, ::pipe2(m_pipe, O_CLOEXEC));
        EXPECT_EQ(PIPE_BYTES, ::fcntl(m_pipe[1], F_SETPIPE_SZ, PIPE_BYTES));
        ::dup2(m_pipe[1], STDERR_FILENO);
        ::close(m_pipe[1]);
    }
    ~FullPipe() {
        mend();
        ::close(m_pipe[0]);
    }
    void mend() {
        if (m_before >= 0) {
            ::dup2(m_before, STDERR_FILENO);
            ::close(m_before);
            m_before = -1;
        }
    }
    // The next line does not fit.
    bool isFull() const {
        int bytes = 0;
        EXPECT_EQ(0, ::ioctl(m_pipe[0], FIONREAD, &bytes));
        return bytes > PIPE_BYTES * 3 / 4;
    }

private:
    int m_before;
    int m_pipe[2] = {-1, -1};
};

}  // namespace

TEST(UndrainedStandardError, TheServerGoesOnServingAndEndsWhenItIsTold) {
    FullPipe pipe;
    // It sends by CSockStream, which says what became of that.
    ChildProcess server({RETICOR_BUILD_DIR "/samples/coming_from_program"});
    pipe.mend();
    const std::string line = server.readLine();
    ASSERT_EQ(0U, line.rfind("listening on ", 0)) << line;
    const int port = std::stoi(line.substr(line.rfind(':') + 1));
    int left = 50;  // once it is full
    for (int i = 0; left > 0 && i < MOST_RESETS; ++i) {
        left -= pipe.isFull() ? 1 : 0;
        TcpClient client(port);
        ASSERT_TRUE(client.echoes(REQUEST)) << "after " << i << " clients that were reset";
        ASSERT_TRUE(client.send(REQUEST + REQUEST + REQUEST));
        client.reset();
    }
    EXPECT_TRUE(pipe.isFull());
    TcpClient last(port);
    EXPECT_TRUE(last.echoes(REQUEST)) << "the last one";
    server.signal(SIGTERM);
    EXPECT_EQ(0, server.wait());
}
