// CSockStream: Send_n and Recv_n, which wait on their own.
#include <Reticor/SockStream.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>
#include <Infra/Time.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"

namespace Orvex::Reticor {
namespace {

using Testing::closeWithReset;
using ::testing::ElementsAre;
using Testing::Interrupter;
using ::testing::IsEmpty;
using Testing::LogCapture;
using Testing::LoopbackPair;
using Testing::texts;
using Testing::waitFor;

constexpr int a_minute_us = 60 * 1000 * 1000;

// A result, and what errno and the clock said.
struct Outcome {
    int result;
    int error;
    std::int64_t elapsed_us;
};

template <typename Call>
Outcome timed(Call call) {
    const std::uint64_t start_us = Infra::CTime::getCurrentMicroSecond();
    errno = 0;
    const int result = call();
    const int error = errno;
    return {result, error, static_cast<std::int64_t>(Infra::CTime::getCurrentMicroSecond() - start_us)};
}

// Runs a waiting call on a thread of its own.
class Waiter {
public:
    explicit Waiter(std::function<int()> call)
        : m_thread([this, call = std::move(call)] {
              m_kernel_id = Infra::CThread::getCurrentThreadID();
              m_outcome = timed(call);
              m_over = true;
          }) {}
    ~Waiter() { outcome(); }

    int kernelId() const {
        Testing::eventually([this] { return m_kernel_id != 0; });
        return m_kernel_id;
    }
    bool waitUntilAsleep() const { return Interrupter::waitUntilAsleep(kernelId()); }
    bool interrupt(int times) { return m_interrupter.interrupt(m_thread.native_handle(), kernelId(), times); }
    // Whether the call has returned.
    bool over() const { return m_over; }
    // A signal to a call that may be over any moment; false if it is.
    bool interruptOnce() {
        if (m_over) {
            return false;
        }
        ::pthread_kill(m_thread.native_handle(), SIGUSR1);
        return true;
    }
    Outcome outcome() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        return m_outcome;
    }

private:
    Interrupter m_interrupter;
    std::atomic<int> m_kernel_id{0};
    std::atomic<bool> m_over{false};
    Outcome m_outcome{};
    std::thread m_thread;
};

int sendAll(CSockStream& stream, const std::string& bytes, int timeout_us) {
    return stream.Send_n(bytes.data(), static_cast<unsigned>(bytes.size()), timeout_us);
}

TEST(SockStreamSendN, SendsEverythingToAPeerThatReadsSlowly) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const std::string bytes = Testing::pattern(1024 * 1024);
    Waiter waiter([&] { return sendAll(pair.client, bytes, a_minute_us); });
    ASSERT_TRUE(waiter.waitUntilAsleep());
    EXPECT_EQ(Testing::receive(pair.server, bytes.size()), bytes);
    EXPECT_EQ(waiter.outcome().result, static_cast<int>(bytes.size()));
}

TEST(SockStreamSendN, TimeoutOfZeroMakesOneSend) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    EXPECT_EQ(5, pair.client.Send_n("hello", 5, 0));
    EXPECT_EQ("hello", Testing::receive(pair.server, 5));
    const std::string bytes = Testing::pattern(1024 * 1024);
    const int sent = sendAll(pair.client, bytes, 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(bytes.size()));
    Testing::fill(pair.client);
    EXPECT_EQ(0, pair.client.Send_n("x", 1, 0));
}

TEST(SockStreamSendN, NegativeTimeoutDoesNotWait) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    const Outcome outcome = timed([&] { return pair.client.Send_n("x", 1, -1); });
    EXPECT_EQ(0, outcome.result);
    EXPECT_LT(outcome.elapsed_us, 5000000);
}

TEST(SockStreamSendN, OutOfTimeReturnsACountBelowTheLength) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const std::string bytes = Testing::pattern(1024 * 1024);
    const LogCapture log;
    const Outcome outcome = timed([&] { return sendAll(pair.client, bytes, 30000); });
    EXPECT_GT(outcome.result, 0);
    EXPECT_LT(outcome.result, static_cast<int>(bytes.size()));
    EXPECT_GE(outcome.elapsed_us, 30000);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamSendN, TimeoutCoversTheWholeCallAndNotEachWait) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const std::string bytes = Testing::pattern(1024 * 1024);
    Waiter waiter([&] { return sendAll(pair.client, bytes, 300000); });
    // A peer that makes room all the time, and would need seconds for everything.
    while (!waiter.over()) {
        char buffer[8 * 1024];
        pair.server.Recv(buffer, sizeof buffer);
        ::poll(nullptr, 0, 20);
    }
    EXPECT_GT(waiter.outcome().result, 0);
    EXPECT_LT(waiter.outcome().result, static_cast<int>(bytes.size()));
}

TEST(SockStreamSendN, GoesOnAfterInterruptions) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const LogCapture log;
    const std::string bytes = Testing::pattern(1024 * 1024);
    Waiter waiter([&] { return sendAll(pair.client, bytes, a_minute_us); });
    EXPECT_TRUE(waiter.interrupt(3));
    EXPECT_TRUE(waiter.waitUntilAsleep());
    EXPECT_EQ(Testing::receive(pair.server, bytes.size()), bytes);
    EXPECT_EQ(waiter.outcome().result, static_cast<int>(bytes.size()));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamSendN, ClosedOutputWhileWaitingIsLogged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    const LogCapture log;
    Waiter waiter([&] { return pair.client.Send_n("x", 1, a_minute_us); });
    ASSERT_TRUE(waiter.waitUntilAsleep());
    ::shutdown(pair.client.GetHandle(), SHUT_WR);
    const Outcome outcome = waiter.outcome();
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(EPIPE, outcome.error);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockStream::Send_n : send error, Broken pipe\n"));
}

TEST(SockStreamSendN, ResetWhileWaitingIsLogged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    const LogCapture log;
    Waiter waiter([&] { return pair.client.Send_n("x", 1, a_minute_us); });
    ASSERT_TRUE(waiter.waitUntilAsleep());
    closeWithReset(pair.server);
    const Outcome outcome = waiter.outcome();
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(ECONNRESET, outcome.error);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSockStream::Send_n : send error, Connection reset by peer\n"));
}

TEST(SockStreamSendN, NumberThatWasClosedUnderneathIsLogged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    const LogCapture log;
    Waiter waiter([&] { return pair.client.Send_n("x", 1, a_minute_us); });
    ASSERT_TRUE(waiter.waitUntilAsleep());
    // By system call, since ThreadSanitizer takes close under a wait for the mistake that it is. The running
    // wait still holds the connection; the next one meets the dead number.
    ::syscall(SYS_close, pair.client.GetHandle());
    EXPECT_TRUE(waiter.interrupt(1));
    const Outcome outcome = waiter.outcome();
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(EBADF, outcome.error);
    EXPECT_LT(outcome.elapsed_us, a_minute_us);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Send_n : Send_n failed, Bad file descriptor\n"));
    pair.client.Detach();
}

TEST(SockStreamSendN, UrgentDataIsAnException) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    ASSERT_EQ(1, ::send(pair.server.GetHandle(), "!", 1, MSG_OOB));
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLPRI));
    const LogCapture log;
    EXPECT_EQ(0, pair.client.Send_n("x", 1, 0)) << "without waiting nobody looks";
    EXPECT_EQ(-1, pair.client.Send_n("x", 1, a_minute_us));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Send_n : Send_n error, socket exception!\n"));
}

TEST(SockStreamRecvN, TimeoutOfZeroReturnsZeroWithoutReading) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_EQ(4, pair.server.Send("kept", 4));
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLIN));
    char buffer[8] = {};
    EXPECT_EQ(0, pair.client.Recv_n(buffer, sizeof buffer, 0));
    EXPECT_EQ(0, pair.client.Recv_n(buffer, sizeof buffer, -1));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(4, pair.client.Recv(buffer, sizeof buffer));
}

TEST(SockStreamRecvN, ReturnsAShortCountAtOnce) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_EQ(5, pair.server.Send("short", 5));
    char buffer[64] = {};
    const Outcome outcome = timed([&] { return pair.client.Recv_n(buffer, sizeof buffer, a_minute_us); });
    EXPECT_EQ(5, outcome.result);
    EXPECT_LT(outcome.elapsed_us, a_minute_us);
}

TEST(SockStreamRecvN, OutOfTimeReturnsZero) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    char byte = 0;
    const Outcome outcome = timed([&] { return pair.client.Recv_n(&byte, 1, 30000); });
    EXPECT_EQ(0, outcome.result);
    EXPECT_GE(outcome.elapsed_us, 30000);
}

TEST(SockStreamRecvN, WaitsForBytesAndGoesOnAfterInterruptions) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    char byte = 0;
    Waiter waiter([&] { return pair.client.Recv_n(&byte, 1, a_minute_us); });
    EXPECT_TRUE(waiter.interrupt(3));
    EXPECT_TRUE(waiter.waitUntilAsleep());
    ASSERT_EQ(1, pair.server.Send("z", 1));
    EXPECT_EQ(1, waiter.outcome().result);
    EXPECT_EQ('z', byte);
}

TEST(SockStreamRecvN, InterruptionsDoNotProlongTheWait) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    char byte = 0;
    Waiter waiter([&] { return pair.client.Recv_n(&byte, 1, 200000); });
    EXPECT_EVENTUALLY(waiter.interruptOnce() || waiter.over());
    EXPECT_EVENTUALLY(!waiter.interruptOnce() && waiter.over());
    EXPECT_EQ(0, waiter.outcome().result);
    EXPECT_GE(waiter.outcome().elapsed_us, 200000);
}

TEST(SockStreamRecvN, ClosedPeerGivesZeroAtOnce) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.server.Close();
    char byte = 0;
    const Outcome outcome = timed([&] { return pair.client.Recv_n(&byte, 1, a_minute_us); });
    EXPECT_EQ(0, outcome.result);
    EXPECT_LT(outcome.elapsed_us, a_minute_us);
}

TEST(SockStreamRecvN, ResetIsSilent) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    closeWithReset(pair.server);
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLIN));
    char byte = 0;
    const LogCapture log;
    const Outcome outcome = timed([&] { return pair.client.Recv_n(&byte, 1, a_minute_us); });
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(ECONNRESET, outcome.error);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamRecvN, OtherErrorsAreLogged) {
    CSockStream stream;
    ASSERT_EQ(0, stream.Attach(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    char byte = 0;
    const LogCapture log;
    const Outcome outcome = timed([&] { return stream.Recv_n(&byte, 1, a_minute_us); });
    EXPECT_EQ(-1, outcome.result);
    EXPECT_EQ(ENOTCONN, outcome.error);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Recv_n : recv error Transport endpoint is "
                            "not connected\n"));
}

TEST(SockStreamRecvN, ClosedSocketFailsAtOnceAndInSilence) {
    CSockStream never_opened;
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ::close(pair.client.GetHandle());
    char byte = 0;
    const LogCapture log;
    for (CSockStream* stream : {&never_opened, &pair.client}) {
        const Outcome outcome = timed([&] { return stream->Recv_n(&byte, 1, a_minute_us); });
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(EBADF, outcome.error);
        EXPECT_LT(outcome.elapsed_us, a_minute_us);
    }
    EXPECT_THAT(texts(log), IsEmpty());
    pair.client.Detach();
}

TEST(SockStreamRecvN, UrgentDataIsAnException) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_EQ(1, ::send(pair.server.GetHandle(), "!", 1, MSG_OOB));
    char byte = 0;
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Recv_n(&byte, 1, a_minute_us));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Recv_n : Recv_n error, socket exception!\n"));
}

TEST(SockStreamWaits, LimitIsTheTimeThatIsLeftToTheMicrosecond) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    Testing::fill(pair.client);
    char byte = 0;
    {
        const Testing::WaitRecorder recorder;
        EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, 1234));
        EXPECT_EQ(0, pair.client.Send_n("x", 1, 2345));
        ASSERT_GE(recorder.limits().size(), 2u);
        EXPECT_EQ(1234000, recorder.limits()[0]);
        EXPECT_EQ(2345000, recorder.limits().back());
    }
    const Testing::WaitRecorder recorder;
    Waiter receiver([&] { return pair.client.Recv_n(&byte, 1, a_minute_us); });
    EXPECT_TRUE(receiver.interrupt(1));
    EXPECT_EVENTUALLY(recorder.limits().size() == 2);
    Waiter sender([&] { return pair.client.Send_n("x", 1, a_minute_us); });
    EXPECT_TRUE(sender.interrupt(1));
    EXPECT_EVENTUALLY(recorder.limits().size() == 4);
    closeWithReset(pair.server);  // ends both; either may be the one to get the error
    const std::vector<long long> limits = recorder.limits();
    EXPECT_EQ(limits[0], a_minute_us * 1000LL);
    EXPECT_LT(limits[1], limits[0]);
    EXPECT_EQ(limits[2], a_minute_us * 1000LL);
    EXPECT_LT(limits[3], limits[2]);
}

TEST(SockStreamWaits, WorkAtDescriptor5000) {
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = 6000;
    limit.rlim_max = std::max<rlim_t>(limit.rlim_max, limit.rlim_cur);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    CSockStream high;
    ASSERT_EQ(0, high.Attach(::fcntl(pair.client.GetHandle(), F_DUPFD_CLOEXEC, 5000)));
    ASSERT_GE(high.GetHandle(), 5000);
    const std::string bytes = Testing::pattern(1024 * 1024);
    Waiter sender([&] { return sendAll(high, bytes, a_minute_us); });
    ASSERT_TRUE(sender.waitUntilAsleep());
    EXPECT_EQ(Testing::receive(pair.server, bytes.size()), bytes);
    EXPECT_EQ(sender.outcome().result, static_cast<int>(bytes.size()));

    char buffer[8] = {};
    Waiter receiver([&] { return high.Recv_n(buffer, sizeof buffer, a_minute_us); });
    ASSERT_TRUE(receiver.waitUntilAsleep());
    ASSERT_EQ(4, pair.server.Send("high", 4));
    EXPECT_EQ(4, receiver.outcome().result);
    EXPECT_EQ("high", std::string(buffer, 4));
}

}  // namespace
}  // namespace Orvex::Reticor
