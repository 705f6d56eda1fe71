// What the servers of the examples share: who is open, the listening socket, the end.
#pragma once

#include <sys/resource.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <set>
#include <string>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockStream.h>

namespace example {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

constexpr unsigned kStop = 100;  // message to a Member: end

/// The handlers that are open. Outlives them all, so that main can wait for the last one.
class Roster {
public:
    void enter(long id) {
        CGuard guard(m_mutex);
        m_ids.insert(id);
    }
    void leave(long id) {
        CGuard guard(m_mutex);
        m_ids.erase(id);
        if (m_ids.empty()) {
            m_empty.post();
        }
    }
    size_t size() {
        CGuard guard(m_mutex);
        return m_ids.size();
    }
    std::set<long> ids() {
        CGuard guard(m_mutex);
        return m_ids;
    }

    /// Returns when everybody has left. The listener enters first and leaves for good, and so the roster runs
    /// empty once. The roster may go then.
    void waitUntilEmpty() {
        m_empty.pend();
        CGuard guard(m_mutex);  // whoever left last is out of `leave` as well
    }

private:
    Orvex::Infra::CMutex m_mutex;
    std::set<long> m_ids INFRA_GUARDED_BY(m_mutex);
    Orvex::Infra::CSemaphore m_empty{0};
};

/// A handler that is in the roster from `enter` until it is gone.
class Member : public CNetHandler {
public:
    int handle_close(CNetHandler* self) override {
        Roster& roster = m_roster;
        const long id = GetID();
        delete self;
        roster.leave(id);
        return 0;
    }

protected:
    explicit Member(Roster& roster) : m_roster(roster) {}
    void enter() { m_roster.enter(GetID()); }

    Roster& m_roster;
};

/// A listening socket. Calls `create` with every connection; `create` detaches the socket from what it is
/// given, which is closed otherwise.
///
/// When nothing can be accepted because the process is out of descriptors, or the pool's places for sockets
/// are taken, the connection that waits keeps the listening socket ready, and handle_input would be called
/// again at once, for ever. So the listener rests: it takes the socket out of the watch and comes back by a
/// timer.
class Listener : public Member {
public:
    using Create = std::function<void(CSockStream&)>;

    /// Null if the address cannot be listened on; the library has logged why.
    static Listener* Open(Roster& roster, const CSockAddr& local, Create create) {
        auto* self = new Listener(roster, std::move(create));
        self->AddRef();  // keeps it until DecRef, whatever start and Close bring about on other threads
        const bool started = self->start(local);
        if (!started) {
            self->Close();
        }
        self->DecRef();
        return started ? self : nullptr;
    }

    /// Where it listens, as text.
    std::string address() {
        CGuard guard(m_mutex);
        CSockAddrStorage local;
        char ip[128] = "?";
        m_listener.GetLocalAddr(&local);
        local.GetIpStr(ip, sizeof ip);
        const std::string host = local.GetInputType() == 2 ? "[" + std::string(ip) + "]" : ip;
        return host + ":" + std::to_string(local.GetPort());
    }

    /// Ends the listener and tells all other members to end. This object is gone some time after.
    void stop() {
        {
            CGuard guard(m_mutex);  // from here on handle_input accepts nobody
            RemoveSock(m_listener);
            m_listener.Close();
        }
        for (long id : m_roster.ids()) {
            if (id != GetID()) {
                Notify(id, kStop, 0);  // one that has gone meanwhile drops it without a trace
            }
        }
        Close();
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        if (!m_listener.IsValid()) {
            return -1;
        }
        for (int i = 0; i < kAcceptsPerCall; ++i) {
            if (m_roster.size() >= kMaxMembers) {
                return rest();
            }
            CSockStream peer;
            if (m_listener.Accept(peer, nullptr) < 0) {
                const bool exhausted =
                    errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
                return exhausted ? rest() : 0;
            }
            m_create(peer);
        }
        return 0;
    }

    int64_t handle_timeout(long) override {
        CGuard guard(m_mutex);
        if (m_listener.IsValid()) {
            RegisterSock(m_listener, SOCK_READ, 0);
        }
        return -1;  // this timer is done
    }

private:
    static constexpr size_t kMaxMembers = 4090;  // a pool watches 4095 sockets for reading
    static constexpr int kAcceptsPerCall = 64;   // then other sockets have their turn
    static constexpr int64_t kRest_us = 100000;

    Listener(Roster& roster, Create create) : Member(roster), m_create(std::move(create)) {}

    bool start(const CSockAddr& local) {
        enter();
        CGuard guard(m_mutex);
        return m_listener.Open(local) == 0 && RegisterSock(m_listener, SOCK_READ, 0) == 0;
    }

    int rest() INFRA_REQUIRES(m_mutex) {
        UnregisterSock(m_listener, SOCK_READ);
        SetTimer(kRest_us);
        return 0;
    }

    const Create m_create;
    Orvex::Infra::CMutex m_mutex;
    CSockAcceptor m_listener INFRA_GUARDED_BY(m_mutex);
};

/// SIGINT and SIGTERM, taken by main alone. Built before the first pool, so that every thread inherits the
/// mask.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&m_set);
        sigaddset(&m_set, SIGINT);
        sigaddset(&m_set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    }
    void wait() {
        int number = 0;
        sigwait(&m_set, &number);
    }

private:
    sigset_t m_set{};
};

/// Lets this process open as many descriptors as the system allows it: one is needed per connection.
inline void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// Listens on `local` until a signal ends the program. The result is main's.
inline int serve(Roster& roster, EndSignals& signals, const CSockAddr& local, Listener::Create create) {
    Listener* listener = Listener::Open(roster, local, std::move(create));
    if (listener != nullptr) {
        std::printf("listening on %s\n", listener->address().c_str());
        std::fflush(stdout);
        signals.wait();
        listener->stop();
    }
    roster.waitUntilEmpty();
    return listener != nullptr ? 0 : 1;
}

}  // namespace example
