// What a product sees: the public headers and the two shared libraries, nothing else. Each case uses one
// corner of the interface, so that a class that is not exported, or not complete in its header, fails here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>

#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>
#include <Infra/Time.h>
#include <Reticor/Reticor.h>

namespace {

using namespace Orvex;

constexpr unsigned WAIT_MS = 60000;

// Holds the public pool for the time of a test.
class PublicInterface : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, Reticor::CreateThreadPool(2, 0)); }
    void TearDown() override { EXPECT_EQ(0, Reticor::DestroyThreadPool()); }
};

// Posts a semaphore for everything that happens to it, and keeps what came.
class CProbe : public Reticor::CNetHandler {
public:
    CProbe(int pool, Infra::CSemaphore& step, Infra::CSemaphore& closed)
        : CNetHandler(pool), m_step(step), m_closed(closed) {}

    long arm(int64_t us) { return SetTimer(us); }
    int watch(Reticor::CSock& sock) {
        m_watched = &sock;
        return RegisterSock(sock, 1, 0);
    }
    void tell_itself(unsigned msg, long attach) { Notify(GetID(), msg, attach); }
    void tell_itself_serially(unsigned msg, long attach) { NotifySerial(GetID(), msg, attach, 0); }

    int handle_input(int fd) override {
        RemoveSock(*m_watched);  // Nobody reads here, so it would be called again and again.
        return seen(fd);
    }
    int handle_message(long, unsigned int msg, long attach) override {
        return seen(static_cast<long>(msg) * 1000 + attach);
    }
    int64_t handle_timeout(long id) override {
        seen(id);
        return -1;
    }
    int handle_close(CNetHandler* self) override {
        Infra::CSemaphore& closed = m_closed;
        delete self;
        closed.post();
        return 0;
    }

    std::atomic<long> m_last{0};

private:
    int seen(long what) {
        m_last = what;
        m_step.post();
        return 0;
    }

    Reticor::CSock* m_watched = nullptr;
    Infra::CSemaphore& m_step;
    Infra::CSemaphore& m_closed;
};

// A handler that is closed, and waited for, at the end of a scope.
class ScopedProbe {
public:
    explicit ScopedProbe(int pool = 0) : m_probe(new CProbe(pool, m_step, m_closed)) {}
    ~ScopedProbe() {
        m_probe->Close();
        EXPECT_EQ(0, m_closed.pend(WAIT_MS));
    }
    ScopedProbe(const ScopedProbe&) = delete;
    ScopedProbe& operator=(const ScopedProbe&) = delete;

    CProbe* operator->() { return m_probe; }
    CProbe* get() { return m_probe; }
    bool waited() { return m_step.pend(WAIT_MS) == 0; }

private:
    Infra::CSemaphore m_step{0};
    Infra::CSemaphore m_closed{0};
    CProbe* const m_probe;
};

TEST_F(PublicInterface, MessageReachesItsHandler) {
    ScopedProbe probe;
    probe->tell_itself(7, 42);
    ASSERT_TRUE(probe.waited());
    EXPECT_EQ(7042, probe->m_last);
}

TEST_F(PublicInterface, TimerFires) {
    ScopedProbe probe;
    const long id = probe->arm(5000);
    ASSERT_TRUE(probe.waited());
    EXPECT_EQ(id, probe->m_last);
}

TEST_F(PublicInterface, ReadableSocketCallsItsHandler) {
    Reticor::CSockAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(Reticor::CSockAddrIPv4("127.0.0.1", 0)));
    Reticor::CSockAddrIPv4 address;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&address));
    ScopedProbe probe;
    ASSERT_EQ(0, probe->watch(acceptor));

    Reticor::CSockStream client;
    client.SetBlockOpt(true);
    ASSERT_EQ(0, client.Connect(address, nullptr));
    ASSERT_TRUE(probe.waited());
    EXPECT_EQ(acceptor.GetHandle(), probe->m_last);

    Reticor::CSockAddrStorage peer;
    const std::unique_ptr<Reticor::CSockStream> server(acceptor.Accept(&peer));
    ASSERT_NE(nullptr, server);
    EXPECT_EQ(5, client.Send_n("hello", 5, 1000000));
    char text[5];
    ASSERT_EQ(5, server->Recv_n(text, 5, 60000000));
    EXPECT_EQ("hello", std::string(text, 5));
}

TEST_F(PublicInterface, PrivatePoolHasHandlersOfItsOwn) {
    const int pool = Reticor::CNetThread::CreatePrivatePool(1, false);
    ASSERT_GT(pool, 0);
    {
        ScopedProbe probe(pool);
        probe->tell_itself_serially(1, 1);
        ASSERT_TRUE(probe.waited());
        EXPECT_EQ(1001, probe->m_last);
    }
    EXPECT_EQ(0, Reticor::CNetThread::DestroyPrivatePool(pool));
}

TEST_F(PublicInterface, MemoryIsRecycledOnAnyThread) {
    void* const block = Reticor::CTsMemory::Malloc(1500);
    ASSERT_NE(nullptr, block);
    std::memset(block, 1, 1500);
    Reticor::CTsMemory::TsFree(block);
}

TEST_F(PublicInterface, DebugCommandCanBeRegistered) {
    EXPECT_EQ(-1, Reticor::R3Register(nullptr, "nobody", nullptr));
    Reticor::R3Printf("nobody listens to %d\n", 1);
}

// Derives from an exported class, and overrides the operation that the library calls.
class CTicked : public Reticor::CNTimerEvent {
public:
    CTicked(Infra::CSemaphore& step, Infra::CSemaphore& closed) : m_step(step), m_closed(closed) {}
    int handle_timer_event() override {
        m_step.post();
        return CNTimerEvent::handle_timer_event();
    }
    int handle_close(CNetHandler* self) override {
        Infra::CSemaphore& closed = m_closed;
        delete self;
        closed.post();
        return 0;
    }

private:
    Infra::CSemaphore& m_step;
    Infra::CSemaphore& m_closed;
};

TEST_F(PublicInterface, TimerCallsItsEvents) {
    Infra::CSemaphore step(0);
    Infra::CSemaphore closed(0);
    Reticor::CNTimer* const timer = Reticor::CNTimer::Create(5000);
    ASSERT_NE(nullptr, timer);
    auto* const event = new CTicked(step, closed);
    timer->PushTimerEvent(event);
    event->Start();
    EXPECT_EQ(0, step.pend(WAIT_MS));
    EXPECT_EQ(0, step.pend(WAIT_MS));
    event->Stop();
    timer->Close();
    EXPECT_EQ(0, closed.pend(WAIT_MS));
}

// A paced receiver of a product: derived, called on a thread of the library's, deleted by itself.
class CPaced : public Reticor::CMediaStreamReceiver {
public:
    CPaced(Infra::CSemaphore& step, Infra::CSemaphore& closed) : m_step(step), m_closed(closed) {}
    long long handle_passive_input() override {
        m_step.post();
        return CMediaStreamReceiver::handle_passive_input();
    }
    int handle_close(CNetHandler* self) override {
        Infra::CSemaphore& closed = m_closed;
        delete self;
        closed.post();
        return 0;
    }

private:
    Infra::CSemaphore& m_step;
    Infra::CSemaphore& m_closed;
};

TEST_F(PublicInterface, ReceiverIsCalled) {
    Infra::CSemaphore step(0);
    Infra::CSemaphore closed(0);
    auto* const receiver = new CPaced(step, closed);
    receiver->SetReceiveMode(Reticor::receiver_passive);
    receiver->StartReceive(0, 1.0F);
    EXPECT_EQ(0, step.pend(WAIT_MS));
    EXPECT_EQ(0, step.pend(WAIT_MS));
    receiver->Close();
    EXPECT_EQ(0, closed.pend(WAIT_MS));
}

TEST_F(PublicInterface, SenderDrainsToItsSocket) {
    ScopedProbe probe;
    Reticor::CSimulatorStream nowhere;
    Reticor::CStreamSender* const sender = Reticor::CStreamSender::Create();
    EXPECT_EQ(0, nowhere.SetBandWidth(1));
    EXPECT_EQ(0, sender->Attach(probe.get(), &nowhere));
    EXPECT_EQ(0, sender->Put("bytes", 5));
    sender->WaitSendFinish(probe->GetID());
    ASSERT_TRUE(probe.waited());
    EXPECT_EQ(static_cast<long>(Reticor::STREAM_SENDER_DRAINED) * 1000, probe->m_last);
    EXPECT_EQ(&nowhere, sender->Detach());
    sender->Close();
}

TEST(Datagrams, GoBothWays) {
    Reticor::CSockDgram sock;
    Reticor::CSockAddrIPv4 address("127.0.0.1", 0);
    sock.SetBlockOpt(true);
    ASSERT_EQ(0, sock.Open(&address));
    ASSERT_EQ(0, sock.GetLocalAddr(&address));
    EXPECT_EQ(4, sock.Send("self", 4, &address));
    char text[4];
    Reticor::CSockAddrStorage from;
    ASSERT_EQ(4, sock.Recv(text, 4, &from));
    EXPECT_EQ("self", std::string(text, 4));
    EXPECT_EQ(address.GetPort(), from.GetPort());
}

TEST(SecureSockets, LinkAndFail) {
    Reticor::CSslStream stream;
    Reticor::CSslAcceptor acceptor;
    EXPECT_EQ(-1, stream.Connect(nullptr));
    EXPECT_EQ(nullptr, acceptor.Accept(nullptr));
}

TEST(Addresses, HoldBothFamilies) {
    EXPECT_EQ(80, Reticor::CSockAddrIPv4("127.0.0.1", 80).GetPort());
    EXPECT_TRUE(Reticor::CSockAddrIPv6("::1", 80).IsValid());
    EXPECT_EQ(Reticor::SOCKADDR_TYPE_STORAGE, Reticor::CSockAddrStorage().GetType());
}

// Products in other languages find these three by their plain names.
TEST(CLinkage, PlainNamesAreExported) {
    for (const char* const name : {"CreateThreadPool", "DestroyThreadPool", "SetRecvThreadPriority"}) {
        EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, name)) << name;
    }
}

TEST(Assertions, AreAliveInEveryBuildType) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(ScopedProbe{5}, "Assertion `.*' failed");
}

TEST(Infra, IsUsableFromOutside) {
    Infra::CMutex mutex;
    Infra::CSemaphore ran(0);
    const auto before_us = Infra::CTime::getCurrentMicroSecond();
    struct Body {
        explicit Body(Infra::CSemaphore& semaphore) : m_ran(semaphore) {}
        void run(Infra::CThreadLite&) { m_ran.post(); }
        Infra::CSemaphore& m_ran;
    } body(ran);
    Infra::CThreadLite thread(Infra::TFunction1<void, Infra::CThreadLite&>(&Body::run, &body), "outside");
    {
        const Infra::CGuard guard(mutex);
        ASSERT_TRUE(thread.createThread());
    }
    EXPECT_EQ(0, ran.pend(WAIT_MS));
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_GE(Infra::CTime::getCurrentMicroSecond(), before_us);
}

TEST(Log, GoesToTheProductsSink) {
    static std::string s_text;
    static const Infra::LogSink s_sink = {[](void*, const Infra::LogLine& line) { s_text += line.text; },
                                          nullptr};
    const Infra::LogSink* const before = Infra::setLogSink(&s_sink);
    Infra::logFilter(2, "Product", "file", "function", 1, "", "%s\n", "one line");
    Infra::setLogSink(before);
    EXPECT_EQ("one line\n", s_text);
}

}  // namespace
