// Server: listens, and makes a Connection of everybody who comes.
#pragma once

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>

#include <Reticor/Export.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>
#include <Reticor/kit/UniqueFunction.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

struct ServerState;

/// How a server behaves. Copied when it is made.
struct ServerOptions {
    /// Workers of each pool, raised to a multiple of the processors.
    unsigned int threads = 1;
    /// Connections at a time. A pool serves 4000, so that this makes one pool for each 4000, 63 at most,
    /// which is 252,000. One pool is faster than two: do not ask for more than you need.
    size_t most_connections = 4000;
    /// Connections at a time from one address, by which the first half of an IPv6 address is meant; 0 is no
    /// limit.
    size_t most_per_address = 0;
    /// Starts the library's file workers as well, for `Pool::postIO`.
    bool file_workers = false;
    /// Of each connection.
    ConnectionOptions connection;
};

/// What a server has counted since it was made.
struct ServerCounts {
    uint64_t accepted = 0;             ///< Connections that were served, those that have ended included.
    uint64_t open = 0;                 ///< Of them those that have not ended.
    uint64_t refused_places = 0;       ///< Closed at once: `most_connections` were there.
    uint64_t refused_address = 0;      ///< Closed at once: `most_per_address` of their address were there.
    uint64_t refused_descriptors = 0;  ///< Closed at once: the process had no descriptor left.
    /// All who were refused.
    uint64_t refused() const { return refused_places + refused_address + refused_descriptors; }
};

/// Keeps SIGINT and SIGTERM from the calling thread, and from those that it starts, while this lives; they
/// wait for `Server::run` then. Made first in `main`, it leaves no moment in which Ctrl-C ends the program
/// by force.
class EndSignals {
public:
    /// Blocks the two signals.
    EndSignals() {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGINT);
        sigaddset(&both, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &both, &m_before);
    }
    /// Back to what was before.
    ~EndSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    /// There is no copy.
    EndSignals(const EndSignals&) = delete;
    /// There is no copy.
    EndSignals& operator=(const EndSignals&) = delete;

private:
    sigset_t m_before;
};

/// A server for byte streams. It owns its pools, and all connections that come to it.
///
///     Kit::Server server([](Kit::Connection& client) {
///         client.onInput([](Kit::Connection& c, std::string_view bytes) { c.write(bytes); });
///     });
///     return server.listen("::", 7007) ? server.run() : 1;
///
/// Whoever comes when there is no place left, or not one descriptor, is closed at once, counted, and told
/// of in a line at level 2 once a second. Nobody is left waiting, and when not even that can be done the
/// listener rests for 50 ms instead of turning in a circle.
///
/// Thread safety: counts, `pool` and `requestStop` on any thread. Everything else on one thread that is not
/// a worker: `listen`, `run`, `stop` and the destructor wait for workers.
class RETICOR_API Server {
public:
    /// `start` is called for each connection on a worker, before anything else of that connection, to set
    /// its call-backs. Two clients can be in it at the same time if the server listens on several
    /// addresses. Starts the pools; if that fails the library has logged why, and `listen` gives false.
    explicit Server(Connection::Event start, const ServerOptions& options = ServerOptions());

    /// `stop` with its default, if that has not been done.
    ~Server();
    /// There is no copy.
    Server(const Server&) = delete;
    /// There is no copy.
    Server& operator=(const Server&) = delete;

    /// Listens on an address as well: "127.0.0.1", "::1", "0.0.0.0" for every IPv4 address of this machine,
    /// "::" for those and every IPv6 address. Port 0 lets the system choose. A host name is looked up,
    /// which blocks. False with a line at level 2 if that cannot be, or the server has no pools or is
    /// stopping.
    bool listen(const char* host, unsigned short port);

    /// The port, and the address as text, "127.0.0.1:7007", of the listener with that number, counted from
    /// 0 in the order of `listen`. 0 and an empty text if there is none.
    unsigned short port(size_t listener = 0) const noexcept;
    /// The address as text.
    std::string address(size_t listener = 0) const {
        char text[64];
        return std::string(text, address(listener, text, sizeof text));
    }
    /// The same, written to `text`; returns its length. 64 bytes are enough.
    size_t address(size_t listener, char* text, size_t size) const noexcept;

    /// What has been counted until now.
    ServerCounts counts() const noexcept;

    /// The first of the server's pools, for timers, posted lambdas and connections to elsewhere. Its end is
    /// the server's.
    Pool& pool() noexcept;

    /// Waits for SIGINT, SIGTERM or `requestStop`, and stops. The signals are blocked in the caller
    /// meanwhile; threads of yours that run beside it must block them as well, or they take them. The
    /// result is main's: 0, or 1 if somebody stayed.
    int run(std::chrono::milliseconds drain = std::chrono::seconds(5));

    /// Has `run` come back. Any thread, also inside call-backs.
    void requestStop() noexcept;

    /// Ends the server in three steps. It accepts nobody any more; every connection gets `close`, and for
    /// at most `drain` what waits is sent; then what is left is cut. It waits for call-backs that run: when
    /// they take more than a second longer, a line at level 2 says who stays, by class, and it waits no
    /// more, but the destructor does. Not inside a call-back: that is refused with a line, and is a
    /// `requestStop`.
    StopReport stop(std::chrono::milliseconds drain = std::chrono::seconds(5));

private:
    ServerState* m_state;  ///< Owned; null without memory.
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
