// Server: the face of ServerState.
#include <Reticor/kit/Server.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>
#include <utility>

#include <netinet/in.h>

#include <Infra/Forever.h>
#include <Infra/Log.h>
#include <Reticor/SockAddrStorage.h>

#include "Kit/ListenerBody.h"
#include "Kit/ServerState.h"
#include "Kit/SocketText.h"
#include "Kit/call/UserCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

namespace {

constexpr size_t MOST_POOLS = 63;

size_t pools_for(size_t connections) {
    constexpr size_t EACH = PoolState::MOST_CONNECTIONS;
    return std::min(MOST_POOLS, connections > EACH ? (connections - 1) / EACH + 1 : 1);
}

/// Waits for SIGINT or SIGTERM, which are blocked, and takes those that have come.
void take_signals(bool wait) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    int number = 0;
    if (wait) {
        sigwait(&set, &number);
    }
    const timespec now{};
    while (sigtimedwait(&set, nullptr, &now) >= 0) {
    }
}

}  // namespace

Server::Server(Connection::Event start, const ServerOptions& options)
    : m_state(new (std::nothrow) ServerState(std::move(start), options)) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "no memory for a server\n");
        return;
    }
    if (!m_state->m_start) {
        INFRA_LOG(2, "a server without a call-back for its connections serves nobody\n");
        return;
    }
    const size_t count = pools_for(options.most_connections);
    try {
        m_state->m_pools.reserve(count);
        m_state->m_states.reserve(count);
    } catch (const std::bad_alloc&) {
        INFRA_LOG(2, "no memory for %zu pools\n", count);
        return;
    }
    while (m_state->m_pools.size() < count) {
        Pool pool(options.threads, options.file_workers);
        if (!pool.isOpen()) {
            m_state->m_states.clear();
            m_state->m_pools.clear();
            return;
        }
        m_state->m_states.push_back(PoolState::of(pool));
        m_state->m_pools.push_back(std::move(pool));
    }
}

Server::~Server() {
    if (m_state == nullptr) {
        return;
    }
    stop();
    m_state->m_pools.clear();  // waits for whatever stayed
    for (ListenerBody* const listener : m_state->m_listeners) {
        listener->DecRef();
    }
    delete m_state;
}

bool Server::listen(const char* host, unsigned short port) {
    if (m_state == nullptr || m_state->m_states.empty() || host == nullptr) {
        INFRA_LOG(2, "a server without pools, or without a host, cannot listen\n");
        return false;
    }
    const CSockAddrStorage local(host, port);
    if (local.GetInputType() == SOCKADDR_TYPE_UNKNOWN) {
        INFRA_LOG(2, "cannot listen on '%s': it is neither an address nor a name of this machine\n", host);
        return false;
    }
    ListenerBody* const listener = m_state->m_states.front()->make<ListenerBody>(*m_state);
    if (listener == nullptr) {
        INFRA_LOG(2, "cannot listen on '%s': the server is stopping, or there is no memory\n", host);
        return false;
    }
    try {
        m_state->m_listeners.reserve(m_state->m_listeners.size() + 1);
    } catch (const std::bad_alloc&) {
        listener->shut();
        listener->DecRef();
        return false;
    }
    if (!listener->open(local)) {
        listener->shut();
        listener->DecRef();
        return false;
    }
    m_state->m_listeners.push_back(listener);
    return true;
}

unsigned short Server::port(size_t listener) const noexcept {
    if (m_state == nullptr || listener >= m_state->m_listeners.size()) {
        return 0;
    }
    const sockaddr_storage address = m_state->m_listeners[listener]->address();
    // The port stands at the same place in both families.
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

size_t Server::address(size_t listener, char* text, size_t size) const noexcept {
    if (m_state == nullptr || listener >= m_state->m_listeners.size()) {
        return write_address(nullptr, text, size);
    }
    const sockaddr_storage address = m_state->m_listeners[listener]->address();
    return write_address(&address, text, size);
}

ServerCounts Server::counts() const noexcept {
    return m_state != nullptr ? m_state->counts() : ServerCounts();
}

Pool& Server::pool() noexcept {
    static Infra::Forever<Pool> room;
    static Pool& none = room.make();
    return m_state != nullptr && !m_state->m_pools.empty() ? m_state->m_pools.front() : none;
}

int Server::run(std::chrono::milliseconds drain) {
    if (m_state == nullptr || m_state->m_listeners.empty()) {
        INFRA_LOG(2, "a server that listens nowhere does not run\n");
        return 1;
    }
    {
        const EndSignals signals;
        take_signals(m_state->begin_run());
        m_state->end_run();
        take_signals(false);  // of a request that came beside a signal
    }
    return stop(drain).stayed == 0 ? 0 : 1;
}

void Server::requestStop() noexcept {
    if (m_state != nullptr) {
        m_state->request_stop();
    }
}

StopReport Server::stop(std::chrono::milliseconds drain) {
    if (m_state == nullptr || m_state->m_stopped) {
        return m_state != nullptr ? m_state->m_report : StopReport();
    }
    if (UserCall::owner() != nullptr) {
        INFRA_LOG(
            2, "a server cannot be stopped inside a call-back, it would wait for itself: it is asked to\n");
        requestStop();
        return {};
    }
    m_state->m_stopped = true;
    m_state->m_report = PoolState::stop(m_state->m_states.data(), m_state->m_states.size(),
                                        drain.count() > 0 ? static_cast<uint64_t>(drain.count()) : 0);
    if (m_state->m_report.stayed == 0) {
        for (PoolState* const pool : m_state->m_states) {
            pool->destroy();
        }
    }
    return m_state->m_report;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
