// echo_server: sends every byte back to whoever sent it.
//
// What it teaches:
//  - the life of a handler: `new` in a static Create, Close, `delete` in handle_close;
//  - what a short write leaves over is kept and sent from handle_output; until then the connection is not
//    read, so a slow reader costs one buffer and never the server's memory;
//  - idle connections are closed by the time-out of their socket;
//  - a mutex where two workers can meet in one handler;
//  - from support/Listener.h: clients that find no place are closed at once, and an end that waits for
//    every handler before the pool goes.
#include <string>

#include <CLI/CLI.hpp>

#include "support/Listener.h"

using namespace example;

namespace {

/// One client. The calls for its socket never overlap each other, but the stop message can come at the same
/// time on another worker: hence the mutex, and the look at the socket after entering it.
class Connection : public Member {
public:
    /// Takes the socket over from `peer`. `idle_us` is the idle time-out, 0 for none.
    static void Create(Roster& roster, CSockStream& peer, int idle_us) {
        auto* self = new Connection(roster, idle_us);
        self->AddRef();  // the client may hang up, and the handler end, while start still runs
        self->start(peer);
        self->DecRef();
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid()) {
            return -1;
        }
        char buffer[16384];
        const int got = m_sock.Recv(buffer, sizeof buffer);
        if (got < 0) {
            return end();  // the client has closed, or is gone
        }
        const int sent = m_sock.Send(buffer, static_cast<unsigned>(got));
        if (sent < 0) {
            return end();
        }
        if (sent < got) {
            keep(buffer + sent, buffer + got);
        }
        return 0;  // the idle time-out starts anew
    }

    int handle_output(int) override {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid()) {
            return -1;
        }
        const int sent = m_sock.Send(m_pending.data(), static_cast<unsigned>(m_pending.size()));
        if (sent < 0) {
            return end();
        }
        m_pending.erase(0, static_cast<size_t>(sent));
        if (m_pending.empty()) {
            RegisterSock(m_sock, SOCK_READ, m_idle_us);
            UnregisterSock(m_sock, SOCK_WRITE);
        }
        return 0;
    }

    int handle_input_timeout(int) override { return stop(); }
    int handle_output_timeout(int) override { return stop(); }
    int handle_message(long, unsigned int msg, long) override { return msg == kStop ? stop() : 0; }

private:
    Connection(Roster& roster, int idle_us) : Member(roster), m_idle_us(idle_us) {}

    void start(CSockStream& peer) {
        enter(peer);
        CGuard guard(m_mutex);
        m_sock.Attach(peer.Detach());
        m_sock.SetSockNoDelay(true);
        if (RegisterSock(m_sock, SOCK_READ, m_idle_us) < 0) {
            end();
        }
    }

    /// Reading pauses until all of this has been sent. Write is added before read is taken away, since a
    /// socket without either loses its time-out.
    void keep(const char* from, const char* to) INFRA_REQUIRES(m_mutex) {
        m_pending.assign(from, to);
        RegisterSock(m_sock, SOCK_WRITE, m_idle_us);
        UnregisterSock(m_sock, SOCK_READ);
    }

    int stop() {
        CGuard guard(m_mutex);
        return end();
    }

    int end() INFRA_REQUIRES(m_mutex) {
        if (!m_sock.IsValid()) {
            return -1;
        }
        RemoveSock(m_sock);  // before Close, while the number still is this socket's
        m_sock.Close();
        Close();  // handle_close follows when the last call of this handler has returned
        return -1;
    }

    const int m_idle_us;
    Orvex::Infra::CMutex m_mutex;
    CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
    std::string m_pending INFRA_GUARDED_BY(m_mutex);  // not empty: the socket is registered for writing alone
};

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 7007;
    size_t per_address = CLIENTS_PER_ADDRESS;
    unsigned threads = 1;
    int idle_ms = 0;
    CLI::App app{"Sends every byte back to whoever sent it."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--threads", threads, "workers, raised to a multiple of the processors")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    app.add_option("--idle-timeout", idle_ms, "ms of silence that end a connection; 0 is never")
        ->check(CLI::Range(0, 2000000))
        ->capture_default_str();
    app.add_option("--max-per-address", per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    EndSignals signals;
    raiseDescriptorLimit();
    if (CreateThreadPool(threads, 0) != 0) {
        return 1;
    }
    Roster roster;
    const int idle_us = idle_ms * 1000;
    const int result = serve(roster, signals, CSockAddrStorage(host.c_str(), port), per_address,
                             [&](CSockStream& peer) { Connection::Create(roster, peer, idle_us); });
    DestroyThreadPool();
    return result;
}
