// An outside program: it knows the installed headers and libraries only. It sends messages through a pool,
// lets a timer run, and echoes a line over loopback; script/test_install looks at what it prints.
#include <cstdio>
#include <cstring>
#include <memory>

#include <Infra/Semaphore.h>
#include <Reticor/Reticor.h>

using namespace Orvex;

namespace {

Infra::CSemaphore g_step{0};

// Sends back what it reads, and ends with the connection.
class CEcho : public Reticor::CNetHandler {
public:
    explicit CEcho(Reticor::CSockStream* stream) : m_stream(stream) {}
    int start() { return RegisterSock(*m_stream, 1, 0); }

    int handle_input(int) override {
        char text[64];
        const int got = m_stream->Recv(text, sizeof text);
        if (got < 0 || (got > 0 && m_stream->Send(text, static_cast<unsigned>(got)) != got)) {
            RemoveSock(*m_stream);
            Close();
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        g_step.post();
        return 0;
    }

private:
    std::unique_ptr<Reticor::CSockStream> m_stream;
};

// Accepts one connection, counts three messages and one tick of a timer.
class CServer : public Reticor::CNetHandler {
public:
    int open() {
        if (m_acceptor.Open(Reticor::CSockAddrIPv4("127.0.0.1", 0)) != 0 ||
            m_acceptor.GetLocalAddr(&m_address) != 0)
            return -1;
        return RegisterSock(m_acceptor, 1, 0) == 0 && SetTimer(10000) != -1 ? 0 : -1;
    }
    const Reticor::CSockAddrIPv4& address() const { return m_address; }

    int handle_message(long, unsigned int msg, long attach) override {
        std::printf("message %u carries %ld\n", msg, attach);
        g_step.post();
        return 0;
    }
    int64_t handle_timeout(long) override {
        g_step.post();
        return -1;
    }
    int handle_input(int) override {
        if (Reticor::CSockStream* const stream = m_acceptor.Accept(nullptr)) {
            (new CEcho(stream))->start();
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        g_step.post();
        return 0;
    }
    void tell_itself(unsigned msg, long attach) { Notify(GetID(), msg, attach); }
    void stop() {
        RemoveSock(m_acceptor);
        Close();
    }

private:
    Reticor::CSockAcceptor m_acceptor;
    Reticor::CSockAddrIPv4 m_address;
};

bool echo(const Reticor::CSockAddrIPv4& address) {
    const char line[] = "hello from outside";
    char answer[sizeof line] = "";
    Reticor::CSockStream stream;
    stream.SetBlockOpt(true);
    if (stream.Connect(address, nullptr) != 0 || stream.Send(line, sizeof line) != sizeof line)
        return false;
    const int got = stream.Recv_n(answer, sizeof answer, 10000000);
    std::printf("echo: %s\n", answer);
    return got == sizeof line && std::strcmp(line, answer) == 0;
}

// The library has entered its console commands by itself: their names are taken.
bool has_commands() {
    const auto command = [](int, int, int, int, int, int, int, int, int, int) { return 0; };
    int (*const function)(int, int, int, int, int, int, int, int, int, int) = command;
    int taken = 0;
    for (const char* name :
         {"threadpool", "mediastreamreceiver", "reticorversion", "MediaBufferPrt", "streamsender"})
        taken += Reticor::R3Register(reinterpret_cast<void*>(function), name, nullptr) == -1;
    return taken == 5;
}

}  // namespace

int main() {
    if (Reticor::CreateThreadPool(2, 0) != 0)
        return 1;
    CServer* const server = new CServer;
    if (server->open() != 0)
        return 2;
    g_step.pend();
    std::puts("the timer ran");
    server->tell_itself(1000, 42);
    g_step.pend();
    if (!echo(server->address()))
        return 3;
    g_step.pend();  // The echo handler has seen the connection end.
    server->stop();
    g_step.pend();
    if (Reticor::DestroyThreadPool() != 0)
        return 4;
    if (!has_commands())
        return 5;
    std::puts("done");
    return 0;
}
