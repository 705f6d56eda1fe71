// A server whose standard error is a pipe that nobody reads: clients whose connections fail fill it with
// lines, and must not stop it with them.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

constexpr int PIPE_BYTES = 4096;
constexpr int RESETS = 150;  // a line each, of about a hundred bytes
const std::string REQUEST = "OPTIONS rtsp://x/ RTSP/1.0\r\nCSeq: 1\r\n\r\n";

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

/// It sends by CSockStream, which says what became of that.
bool answers(TcpClient& client) {
    return client.send(REQUEST) && client.receive(12) == "RTSP/1.0 200";
}

}  // namespace

TEST(UndrainedStandardError, TheServerGoesOnServingAndEndsWhenItIsTold) {
    FullPipe pipe;
    ServerProgram server("rtsp_options");
    pipe.mend();
    for (int i = 0; i < RESETS; ++i) {
        TcpClient client(server.port());
        ASSERT_TRUE(answers(client)) << "after " << i << " clients that were reset";
        ASSERT_TRUE(client.send(REQUEST + REQUEST + REQUEST));
        client.reset();
    }
    TcpClient last(server.port());
    EXPECT_TRUE(answers(last)) << "the last one";
    EXPECT_EQ(0, server.end());
    EXPECT_GT(pipe.filled(), static_cast<size_t>(PIPE_BYTES) * 3 / 4) << "the pipe was never full";
}
