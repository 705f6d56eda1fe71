// ServerState: whom a server of the kit lets in.
#include "Kit/ServerState.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

#include <Infra/Log.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

namespace {

/// What a client is counted by: of an IPv6 address the first half, since one host has all of the second
/// half to itself.
std::string read_origin(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto& four = reinterpret_cast<const sockaddr_in&>(address).sin_addr;
        return std::string(reinterpret_cast<const char*>(&four), sizeof four);
    }
    const auto& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    const auto* const bytes = reinterpret_cast<const char*>(&six);
    if (IN6_IS_ADDR_V4MAPPED(&six)) {
        return std::string(bytes + 12, 4);
    }
    return std::string(bytes, IN6_IS_ADDR_LINKLOCAL(&six) ? 16 : 8);
}

/// False without memory.
bool find_origin(const sockaddr_storage& address, std::string& origin) {
    try {
        origin = read_origin(address);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace

void ServerState::serve(int descriptor, const sockaddr_storage& address) {
    Refusal why = NO_PLACE;
    std::string origin;
    PoolState* const pool =
        m_options.most_per_address == 0 || find_origin(address, origin) ? choose() : nullptr;
    if (pool == nullptr || !admit(origin, why)) {
        refuse(why);
        close(descriptor);
        return;
    }
    ConnectionBody* const body = ConnectionBody::make(*pool, descriptor, m_options.connection, this, true);
    if (body == nullptr) {  // no memory, or the server is stopping
        forget(origin);
        refuse(NO_PLACE);
        return;
    }
    m_accepted.fetch_add(1, std::memory_order_relaxed);
    body->origin() = std::move(origin);
    body->start_here(m_start);
    body->DecRef();
}

// The connection counts from here on, so that two listeners do not let in one too many.
bool ServerState::admit(const std::string& origin, Refusal& why) {
    if (m_open.fetch_add(1, std::memory_order_relaxed) >= m_options.most_connections) {
        m_open.fetch_sub(1, std::memory_order_relaxed);
        why = NO_PLACE;
        return false;
    }
    if (origin.empty()) {
        return true;
    }
    try {
        CGuard guard(m_mutex);
        size_t& count = m_origins[origin];
        if (count < m_options.most_per_address) {
            ++count;
            return true;
        }
        why = TOO_MANY;
    } catch (const std::bad_alloc&) {
        why = NO_PLACE;
    }
    m_open.fetch_sub(1, std::memory_order_relaxed);
    return false;
}

void ServerState::gone(ConnectionBody& body) {
    forget(body.origin());
}

void ServerState::forget(const std::string& origin) {
    m_open.fetch_sub(1, std::memory_order_relaxed);
    if (origin.empty()) {
        return;
    }
    CGuard guard(m_mutex);
    const auto found = m_origins.find(origin);
    if (found != m_origins.end() && --found->second == 0) {
        m_origins.erase(found);
    }
}

PoolState* ServerState::choose() {
    PoolState* best = nullptr;
    for (PoolState* pool : m_states) {
        if (best == nullptr || pool->places_taken() < best->places_taken()) {
            best = pool;
        }
    }
    return best != nullptr && best->places_taken() < PoolState::MOST_CONNECTIONS ? best : nullptr;
}

void ServerState::refuse(Refusal why) {
    m_refused[why].fetch_add(1, std::memory_order_relaxed);
}

uint64_t ServerState::refused_sum() const {
    uint64_t sum = 0;
    for (const auto& count : m_refused) {
        sum += count.load(std::memory_order_relaxed);
    }
    return sum;
}

void ServerState::tell() {
    CGuard guard(m_mutex);
    std::array<uint64_t, REFUSALS> fresh{};
    uint64_t sum = 0;
    for (size_t i = 0; i < REFUSALS; ++i) {
        const uint64_t count = m_refused[i].load(std::memory_order_relaxed);
        fresh[i] = count - m_last[i];
        m_last[i] = count;
        sum += count;
    }
    if (m_told.exchange(sum, std::memory_order_relaxed) == sum) {
        return;
    }
    INFRA_LOG_PLAIN(
        2,
        "%s: turned away, for want of a place: %ju, with too many of their address: %ju, for want of "
        "a descriptor: %ju; since the start: %ju\n",
        program_invocation_short_name, static_cast<uintmax_t>(fresh[NO_PLACE]),
        static_cast<uintmax_t>(fresh[TOO_MANY]), static_cast<uintmax_t>(fresh[NO_DESCRIPTOR]),
        static_cast<uintmax_t>(sum));
}

bool ServerState::begin_run() {
    CGuard guard(m_mutex);
    m_runner = pthread_self();
    m_running = true;
    return !m_stop_asked;
}

void ServerState::end_run() {
    CGuard guard(m_mutex);
    m_running = false;
}

void ServerState::request_stop() {
    CGuard guard(m_mutex);
    m_stop_asked = true;
    if (m_running) {
        pthread_kill(m_runner, SIGTERM);
    }
}

ServerCounts ServerState::counts() const {
    ServerCounts counts;
    counts.accepted = m_accepted.load(std::memory_order_relaxed);
    counts.open = m_open.load(std::memory_order_relaxed);
    counts.refused_places = m_refused[NO_PLACE].load(std::memory_order_relaxed);
    counts.refused_address = m_refused[TOO_MANY].load(std::memory_order_relaxed);
    counts.refused_descriptors = m_refused[NO_DESCRIPTOR].load(std::memory_order_relaxed);
    return counts;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
