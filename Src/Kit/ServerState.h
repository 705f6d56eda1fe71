// ServerState: what a server of the kit shares with its listeners and connections.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/kit/Server.h>

#include "Kit/ConnectionBody.h"
#include "Kit/PoolState.h"

struct sockaddr_storage;

namespace Orvex::Reticor::Kit {
inline namespace v1 {

class ListenerBody;

/// Thread safety: every operation on any thread. Outlives the pools, and so all that calls it.
struct ServerState final : ConnectionKeeper {
    enum Refusal { NO_PLACE, TOO_MANY, NO_DESCRIPTOR, REFUSALS };

    ServerState(Connection::Event start, const ServerOptions& options)
        : m_options(options), m_start(std::move(start)) {}
    virtual ~ServerState() = default;

    /// Makes a connection of a client that was accepted, and lets the user set it up; or closes it.
    void serve(int descriptor, const sockaddr_storage& address);

    void refuse(Refusal why);

    /// Writes the line about those who were refused since the last one. Whether there were any.
    void tell();
    bool has_news() const { return refused_sum() != m_told.load(std::memory_order_relaxed); }

    /// The calling thread has SIGTERM blocked and is going to wait for it: from here on `request_stop`
    /// sends it one. False if it was asked before.
    bool begin_run();
    void end_run();
    void request_stop();

    void gone(ConnectionBody& body) override;
    ServerCounts counts() const;

    /// The pool that has most places left, with the others; null if they are full.
    PoolState* choose();

    const ServerOptions m_options;
    Connection::Event m_start;
    std::vector<Pool> m_pools;               ///< Constant once the server is made,
    std::vector<PoolState*> m_states;        ///< as are these, of the same pools.
    std::vector<ListenerBody*> m_listeners;  ///< The server's own thread's. References.
    bool m_stopped = false;
    StopReport m_report;

private:
    uint64_t refused_sum() const;
    bool admit(const std::string& origin, Refusal& why);
    void forget(const std::string& origin);

    std::atomic<uint64_t> m_accepted{0};
    std::atomic<uint64_t> m_open{0};
    std::array<std::atomic<uint64_t>, REFUSALS> m_refused{};
    std::atomic<uint64_t> m_told{0};

    Infra::CMutex m_mutex{Infra::LockClass::KIT_SERVER};
    bool m_stop_asked INFRA_GUARDED_BY(m_mutex) = false;
    bool m_running INFRA_GUARDED_BY(m_mutex) = false;
    pthread_t m_runner INFRA_GUARDED_BY(m_mutex){};                     ///< While it is in `run`.
    std::map<std::string, size_t> m_origins INFRA_GUARDED_BY(m_mutex);  ///< Connections from there.
    std::array<uint64_t, REFUSALS> m_last INFRA_GUARDED_BY(m_mutex){};  ///< As they were told last.
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
