// Echo server on Reticor: a handler per connection, all on one pool, so any worker serves any connection.
// RETICOR_STATS in the environment: the path of its statistics socket.
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/PoolSet.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "common/Alive.h"
#include "common/EchoServer.h"

namespace {

using namespace Orvex::Reticor;

Bench::Alive alive;

// Calls for one socket never overlap, and nobody but its socket calls this handler: it needs no lock.
class Connection : public CNetHandler {
public:
    // The connection may be served, closed and gone before this returns.
    static void serve(int fd, CPoolSet::Place place) {
        auto* self = new Connection(std::move(place));
        self->m_stream.Attach(fd);
        self->m_stream.SetSockNoDelay(true);
        self->RegisterSock(self->m_stream, SOCK_READ, 0);
    }

    int handle_input(int) override {
        thread_local char room[Bench::kReadRoom];
        const int got = m_stream.Recv(room, sizeof room);
        if (got <= 0) {
            return got < 0 ? end() : 0;
        }
        const int sent = m_stream.Send(room, static_cast<unsigned>(got));
        if (sent < 0) {
            return end();
        }
        if (sent < got) {
            m_unsent.keep(room + sent, static_cast<std::size_t>(got - sent));
            RegisterSock(m_stream, SOCK_WRITE, 0);
            UnregisterSock(m_stream, SOCK_READ);
        }
        return 0;
    }

    int handle_output(int) override {
        const int sent = m_stream.Send(m_unsent.data(), static_cast<unsigned>(m_unsent.size()));
        if (sent < 0) {
            return end();
        }
        m_unsent.drop(static_cast<std::size_t>(sent));
        if (m_unsent.empty()) {
            RegisterSock(m_stream, SOCK_READ, 0);
            UnregisterSock(m_stream, SOCK_WRITE);
        }
        return 0;
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    explicit Connection(CPoolSet::Place place)
        : CNetHandler(std::max(place.GetPool(), 0)), m_place(std::move(place)) {
        alive.enter();
    }

    int end() {
        RemoveSock(m_stream);
        m_stream.Close();
        Close();
        return -1;
    }

    const CPoolSet::Place m_place;  // empty on the public pool
    CSockStream m_stream;
    Bench::Unsent m_unsent;
};

class Listener : public CNetHandler {
public:
    // Null: all connections are on the public pool.
    explicit Listener(CPoolSet* pools) : m_pools(pools) { alive.enter(); }

    bool open(std::uint16_t port) {
        return m_acceptor.Open(CSockAddrIPv4("127.0.0.1", port)) == 0 &&
               RegisterSock(m_acceptor, SOCK_READ, 0) == 0;
    }

    int handle() { return m_acceptor.GetHandle(); }

    int handle_input(int) override {
        CSockStream stream;
        while (m_acceptor.Accept(stream, nullptr) == 0) {
            CPoolSet::Place place;
            if (m_pools != nullptr && m_pools->Next(SOCK_READ + SOCK_WRITE, place) != 0) {
                stream.Close();
            } else {
                Connection::serve(stream.Detach(), std::move(place));
            }
        }
        return 0;
    }

    // The acceptor's number is closed with the object, when no call can be running any more.
    void end() {
        RemoveSock(m_acceptor);
        Close();
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    CPoolSet* const m_pools;
    CSockAcceptor m_acceptor;
};

}  // namespace

int main(int argc, char** argv) {
    Bench::EchoOptions options = Bench::parseEchoOptions(argc, argv, "echo server on Reticor");
    Bench::blockTerminationSignals();
    if (CNetThread::CreateThreadPool(options.threads, false) != 0) {
        return 1;
    }
    const char* const stats = std::getenv("RETICOR_STATS");
    if (stats != nullptr && CNetThread::ServeStats(stats) != 0) {
        return 1;
    }
    CPoolSet pools;
    if (options.pools != 0 && pools.Create(options.pools, options.threads) != 0) {
        return 1;
    }
    auto* listener = new Listener(options.pools != 0 ? &pools : nullptr);
    if (!listener->open(options.port)) {
        return 1;
    }
    Bench::announcePort(listener->handle());
    Bench::waitForTermination();
    listener->end();
    const bool allGone =
        alive.waitForNone();  // the load has closed its connections before it sent the signal
    pools.Destroy();
    CNetThread::DestroyThreadPool();
    return allGone ? 0 : 1;
}
