// The debug server with clients that were written elsewhere: Debian's telnet at a terminal, and ncat.
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <Reticor/R3.h>

#include "support/Eventually.h"
#include "support/debug/DebugServerFixture.h"
#include "support/program/ChildProcess.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// telnet at a terminal of its own, as an operator has it. Only what was started here is ended.
class Telnet {
public:
    explicit Telnet(int port) {
        const std::string number = std::to_string(port);
        m_pid = ::forkpty(&m_terminal, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::setenv("TERM", "vt100", 1);
            ::execlp("telnet", "telnet", "127.0.0.1", number.c_str(), nullptr);
            ::_exit(127);
        }
        EXPECT_GT(m_pid, 0);
    }
    ~Telnet() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::close(m_terminal);
    }
    Telnet(const Telnet&) = delete;
    Telnet& operator=(const Telnet&) = delete;

    // What the terminal shows up to and with `last`, or until nothing more comes.
    std::string shownTo(const std::string& last) {
        size_t end;
        while ((end = m_shown.find(last)) == std::string::npos && fill()) {
        }
        const size_t count = end == std::string::npos ? m_shown.size() : end + last.size();
        const std::string shown = m_shown.substr(0, count);
        m_shown.erase(0, count);
        return shown;
    }

    void type(const std::string& keys) {
        EXPECT_EQ(static_cast<ssize_t>(keys.size()), ::write(m_terminal, keys.data(), keys.size()));
    }

    // Its exit code.
    int wait() {
        int status = -1;
        EXPECT_EVENTUALLY(::waitpid(m_pid, &status, WNOHANG) == m_pid);
        m_pid = -1;
        return WEXITSTATUS(status);
    }

private:
    bool fill() {
        pollfd ready{m_terminal, POLLIN, 0};
        char room[4096];
        if (::poll(&ready, 1, scaledMs(10000)) <= 0) {
            return false;
        }
        const ssize_t got = ::read(m_terminal, room, sizeof(room));
        if (got > 0) {
            m_shown.append(room, static_cast<size_t>(got));
        }
        return got > 0;
    }

    pid_t m_pid = -1;
    int m_terminal = -1;
    std::string m_shown;
};

int sayHello(int number, int, int, int, int, int, int, int, int, int) {
    R3Printf("hello %d\n", number);
    return 0;
}

class R3Clients : public DebugServerFixture {
protected:
    void SetUp() override {
        DebugServerFixture::SetUp();
        R3Register(reinterpret_cast<void*>(&sayHello), "hello", nullptr);
        start(nullptr, true);
    }
    // The banner and the prompt, at the end of what telnet says of itself.
    static void expectGreeting(Telnet& telnet) {
        telnet.shownTo("Escape character is '^]'.\r\n");
        EXPECT_EQ(BANNER + "R3>", telnet.shownTo("R3>"));
    }
};

TEST_F(R3Clients, TelnetShowsBannerAndPrompt) {
    Telnet telnet(port);
    expectGreeting(telnet);
}

TEST_F(R3Clients, TelnetSendsKeysAndTheServerEchoesThem) {
    Telnet telnet(port);
    expectGreeting(telnet);
    telnet.type("hellx");
    EXPECT_EQ("hellx", telnet.shownTo("hellx"));
    telnet.type("\x7f");
    EXPECT_EQ("\x08 \x08", telnet.shownTo(" \x08"));
    telnet.type("\x1b[Ao 7\r");
    EXPECT_EQ("o 7\r\nhello 7\r\nR3>", telnet.shownTo("R3>"));
    telnet.type("threadpools 1\r");
    EXPECT_EQ("threadpools 1\r\n:: command not found\r\nR3>", telnet.shownTo("R3>"));
}

TEST_F(R3Clients, TelnetSaysByeAndEnds) {
    Telnet telnet(port);
    expectGreeting(telnet);
    telnet.type("bye\r");
    EXPECT_EQ("bye\r\nConnection closed by foreign host.\r\n", telnet.shownTo("host.\r\n"));
    EXPECT_EQ(0, telnet.wait());
}

TEST_F(R3Clients, SecondTelnetDisplacesTheFirst) {
    Telnet first(port);
    expectGreeting(first);
    Telnet second(port);
    expectGreeting(second);
    EXPECT_EQ("Connection closed by foreign host.\r\n", first.shownTo("host.\r\n"));
    second.type("hello 2\r");
    EXPECT_EQ("hello 2\r\nhello 2\r\nR3>", second.shownTo("R3>"));
}

TEST_F(R3Clients, NcatGetsEveryByteAsItIs) {
    ChildProcess ncat({"ncat", "127.0.0.1", std::to_string(port)});
    EXPECT_EQ(GREETING + "hello 1 2\r\nhello 1\r\nR3>x\x08 \x08y\r\n:: command not found\r\nR3>bye\r\n",
              ncat.exchange("hello 1 2\rx\x7fy\rbye\r"));
    EXPECT_EQ(0, ncat.wait());
}

TEST_F(R3Clients, NcatWithTelnetAnswersIsUnderstood) {
    ChildProcess ncat({"ncat", "--telnet", "127.0.0.1", std::to_string(port)});
    const std::string shown = ncat.exchange("hello 3\rbye\r");
    const std::string tail = BANNER + "R3>hello 3\r\nhello 3\r\nR3>bye\r\n";
    EXPECT_NE(shown.find(tail), std::string::npos) << shown;
    EXPECT_EQ(0, ncat.wait());
}

}  // namespace
}  // namespace Orvex::Testing
