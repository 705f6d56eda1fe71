// A server whose standard error is a pipe that nobody reads: clients whose connections fail fill it with
// lines, and must not stop it with them.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

constexpr int PIPE_BYTES = 4096;
constexpr int RESETS = 150;  // a line each, of about a hundred bytes
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
    size_t filled() const {
        std::string bytes(PIPE_BYTES, '\0');
        ::fcntl(m_pipe[0], F_SETFL, O_NONBLOCK);
        const ssize_t size = ::read(m_pipe[0], bytes.data(), bytes.size());
        return size > 0 ? static_cast<size_t>(size) : 0;
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
    for (int i = 0; i < RESETS; ++i) {
        TcpClient client(port);
        ASSERT_TRUE(client.echoes(REQUEST)) << "after " << i << " clients that were reset";
        ASSERT_TRUE(client.send(REQUEST + REQUEST + REQUEST));
        client.reset();
    }
    TcpClient last(port);
    EXPECT_TRUE(last.echoes(REQUEST)) << "the last one";
    server.signal(SIGTERM);
    EXPECT_EQ(0, server.wait());
    EXPECT_GT(pipe.filled(), static_cast<size_t>(PIPE_BYTES) * 3 / 4) << "the pipe was never full";
}
