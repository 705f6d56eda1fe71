// The default sink and what may come of a write to standard error: refused, interrupted, done in part.
#if defined(__clang__)
// Here a lock is entered in a way that the analysis cannot follow.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/Log.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <Infra/Thread.h>

#include "DefaultSink.h"
#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/StepThread.h"
#include "support/foundation/SmallPipe.h"
#include "support/foundation/StandardErrorSeam.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

// Each of its own place, so that no limit is met.
void write_line(const std::string& text) {
    static int place = 0;
    logFilter(2, "", "write.cpp", "", ++place, "", "%s\n", text.c_str());
}

// What a library thread does now and then.
void let_a_thread_flush() {
    CThread::sleep(0);
}

class DefaultSinkWrite : public testing::Test {
protected:
    void fails(int error) { seam.then({0, error}); }
    void takes(ssize_t bytes) { seam.then({bytes, 0}); }

    SmallPipe pipe;
    StandardErrorSeam seam{{}};
};

TEST_F(DefaultSinkWrite, WhereNoWriteCanBeRefusedRoomIsAskedForBeforeAnOrdinaryOne) {
    int asked = 0;
    for (const int error : {EOPNOTSUPP, ENOSYS, EINVAL, ESPIPE}) {
        fails(error);
        write_line("line");
        EXPECT_EQ("line\n", pipe.read()) << error;
        EXPECT_EQ(++asked, seam.roomAsked()) << error;
    }
}

TEST_F(DefaultSinkWrite, WithoutRoomTheLineIsKeptUntilThereIsSome) {
    seam.setRoom(false);
    fails(EOPNOTSUPP);
    write_line("first");
    fails(EOPNOTSUPP);
    write_line("second");
    EXPECT_EQ("", pipe.read());
    seam.setRoom(true);
    let_a_thread_flush();
    EXPECT_EQ("first\nsecond\n", pipe.read());
    EXPECT_EQ(0u, seam.left());
}

TEST_F(DefaultSinkWrite, AnInterruptedWriteIsRepeated) {
    fails(EINTR);
    fails(EINTR);
    write_line("line");
    EXPECT_EQ("line\n", pipe.read());
    EXPECT_EQ(0u, seam.left());
}

TEST_F(DefaultSinkWrite, TheRestOfALineThatWentOutInPartComesBeforeTheNext) {
    takes(3);
    write_line("first");
    EXPECT_EQ("fir", pipe.read());
    takes(1);
    write_line("second");
    EXPECT_EQ("s", pipe.read());
    takes(0);
    let_a_thread_flush();
    EXPECT_EQ("", pipe.read());
    write_line("third");
    EXPECT_EQ("t\nsecond\nthird\n", pipe.read());
}

TEST_F(DefaultSinkWrite, ALineThatIsRefusedForGoodIsGoneAndNotCounted) {
    fails(EIO);
    write_line("lost");
    write_line("next");
    let_a_thread_flush();
    EXPECT_EQ("next\n", pipe.read());
}

TEST_F(DefaultSinkWrite, TheRestOfALineThatIsRefusedForGoodDoesNotCutTheNext) {
    takes(3);
    write_line("first");
    fails(EPIPE);
    write_line("second");
    EXPECT_EQ("firsecond\n", pipe.read());
}

TEST_F(DefaultSinkWrite, AFlushThatWritesNothingLeavesErrnoAlone) {
    fails(EAGAIN);
    write_line("line");
    fails(EAGAIN);
    errno = ECONNRESET;
    let_a_thread_flush();
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_EQ("", pipe.read());
    let_a_thread_flush();
    EXPECT_EQ("line\n", pipe.read());
}

// With nothing owed a flush does not even look at standard error.
TEST_F(DefaultSinkWrite, NothingIsTriedWhenNothingIsOwed) {
    fails(EIO);
    let_a_thread_flush();
    EXPECT_EQ(1u, seam.left());
}

// Threads that sleep often do not wait for those that write.
TEST_F(DefaultSinkWrite, AFlushOfNothingDoesNotEvenEnterTheLock) {
    write_line("line");
    StepThread writer;
    ASSERT_TRUE(writer.take([] { Detail::g_default_sink.hold(); }));
    StepThread sleeper;
    EXPECT_TRUE(sleeper.take(&let_a_thread_flush));
    EXPECT_TRUE(writer.take([] { Detail::g_default_sink.release(); }));
}

// Whatever the writes come to, as long as none fails for good: every byte comes once and in order.
TEST_F(DefaultSinkWrite, EveryByteComesOnceHoweverTheWritesEnd) {
    SeededRandom random;
    std::string wanted;
    std::string found;
    for (int i = 0; i < 500; ++i) {
        switch (random.between(0, 5)) {
            case 0:
                fails(EAGAIN);
                break;
            case 1:
                fails(EINTR);
                break;
            case 2:
                fails(EOPNOTSUPP);
                break;
            case 3:
                takes(random.between(0, 20));
                break;
            default:
                break;
        }
        const std::string text(random.between<size_t>(20, 60), static_cast<char>('a' + i % 26));
        wanted += text + "\n";
        write_line(text);
        found += pipe.read();
    }
    for (int i = 0; i < 1000 && found.size() < wanted.size(); ++i) {
        let_a_thread_flush();
        found += pipe.read();
    }
    EXPECT_EQ(wanted, found);
}

// Lets standard error be what `fd` leads to, which is closed at the end.
class OtherStandardError {
public:
    explicit OtherStandardError(int fd) : m_before(::dup(STDERR_FILENO)), m_fd(fd) {
        EXPECT_NE(-1, fd);
        ::dup2(fd, STDERR_FILENO);
    }
    ~OtherStandardError() {
        ::dup2(m_before, STDERR_FILENO);
        ::close(m_before);
        ::close(m_fd);
    }
    OtherStandardError(const OtherStandardError&) = delete;
    OtherStandardError& operator=(const OtherStandardError&) = delete;

private:
    const int m_before;
    const int m_fd;
};

std::string content_of(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(DefaultSink, AFileGetsEveryLine) {
    char path[] = "/tmp/infra_sink_XXXXXX";
    const int fd = ::mkstemp(path);
    std::string wanted;
    {
        const OtherStandardError file(fd);
        for (int i = 0; i < 300; ++i) {
            const std::string text = "line " + std::to_string(i);
            wanted += text + "\n";
            write_line(text);
        }
        EXPECT_EVENTUALLY([&] {
            let_a_thread_flush();
            return content_of(path).size() >= wanted.size();
        }());
    }
    EXPECT_EQ(wanted, content_of(path));
    ::unlink(path);
}

// A terminal, and its other end.
class Terminal {
public:
    Terminal() : m_reader(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
        EXPECT_EQ(0, ::grantpt(m_reader));
        EXPECT_EQ(0, ::unlockpt(m_reader));
        char name[64] = "";
        EXPECT_EQ(0, ::ptsname_r(m_reader, name, sizeof(name)));
        m_terminal = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios mode{};
        EXPECT_EQ(0, ::tcgetattr(m_terminal, &mode));
        mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        EXPECT_EQ(0, ::tcsetattr(m_terminal, TCSANOW, &mode));
    }
    ~Terminal() { ::close(m_reader); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // For OtherStandardError, which closes it.
    int fd() const { return m_terminal; }
    std::string read() const {
        std::string all;
        char buffer[4096];
        for (ssize_t size; (size = ::read(m_reader, buffer, sizeof(buffer))) > 0;) {
            all.append(buffer, static_cast<size_t>(size));
        }
        return all;
    }

private:
    int m_reader;
    int m_terminal = -1;
};

TEST(DefaultSink, ATerminalGetsEveryLine) {
    const Terminal terminal;
    const OtherStandardError standard_error(terminal.fd());
    write_line("first");
    write_line("second");
    std::string found;
    EXPECT_EVENTUALLY([&] {
        let_a_thread_flush();
        found += terminal.read();
        return found.size() >= 13;
    }());
    EXPECT_EQ("first\nsecond\n", found);
}

// A terminal that was stopped, or whose window hangs. It has room for less than a line at times, and would
// then keep an ordinary write waiting for the rest.
TEST(DefaultSink, NeverWaitsForATerminalThatNobodyReads) {
    const Terminal terminal;
    const OtherStandardError standard_error(terminal.fd());
    std::atomic<bool> ended{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            write_line(std::string(1500, 'x'));
        }
        ended = true;
    });
    EXPECT_TRUE(eventually([&] { return ended.load(); }, 5000));
    while (!ended) {
        terminal.read();
        std::this_thread::yield();
    }
    writer.join();
}

}  // namespace
}  // namespace Orvex::Infra
