// Listener: what the servers of the examples share: the listening socket, and the end.
#pragma once

#include <sys/resource.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockStream.h>

#include "support/Door.h"
#include "support/Roster.h"

namespace example {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

constexpr unsigned kStop = 100;  // message to a Member: end

constexpr int NOTICE = 1;  // level of lines that are printed whatever the level of the log is

constexpr size_t CLIENTS_PER_ADDRESS = 1024;  // unless an option says otherwise: a quarter of all places

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
    void enter(const CSockStream& peer) { m_roster.enter(GetID(), originOf(peer)); }

    Roster& m_roster;
};

/// A listening socket. Calls `create` with every connection that is let in; `create` detaches the socket
/// from what it is given, which is closed otherwise. Whom the door turns away is closed at once.
///
/// A connection that waits and cannot be accepted keeps the listening socket ready, and handle_input would
/// be called again at once, for ever. So when there is not even a descriptor to turn somebody away with,
/// the listener rests: it takes the socket out of the watch and comes back by a timer.
class Listener : public Member {
public:
    using Create = std::function<void(CSockStream&)>;

    /// At most `per_address` clients come from one address; 0 is no limit. Null if the address cannot be
    /// listened on; the library has logged why.
    static Listener* Open(Roster& roster, const CSockAddr& local, size_t per_address, Create create) {
        auto* self = new Listener(roster, per_address, std::move(create));
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

    /// Clients that were turned away since the start.
    uint64_t turnedAway() const { return m_door.turnedAway(); }

    /// Ends the listener and tells all other members to end. This object is gone some time after.
    void stop() {
        {
            CGuard guard(m_mutex);  // from here on handle_input accepts nobody
            RemoveSock(m_listener);
            m_listener.Close();
            tell();
        }
        for (const long id : m_roster.ids()) {
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
        for (int i = 0; i < ACCEPTS_PER_CALL && accept_one(); ++i) {
        }
        if (m_door.hasNews() && m_telling == 0) {
            const long timer = SetTimer(TELL_US);
            m_telling = timer == -1 ? 0 : timer;
        }
        return 0;
    }

    int64_t handle_timeout(long id) override {
        CGuard guard(m_mutex);
        if (id == m_telling) {
            m_telling = 0;
            tell();
        } else if (m_listener.IsValid()) {
            RegisterSock(m_listener, SOCK_READ, 0);
        }
        return -1;  // this timer is done
    }

private:
    static constexpr int ACCEPTS_PER_CALL = 64;  // then other sockets have their turn
    static constexpr int64_t REST_US = 50000;    // before somebody is tried to be accepted again
    static constexpr int64_t TELL_US = 1000000;  // between two lines

    Listener(Roster& roster, size_t per_address, Create create)
        : Member(roster), m_create(std::move(create)), m_door(roster, per_address) {}

    bool start(const CSockAddr& local) {
        enter();
        CGuard guard(m_mutex);
        return m_listener.Open(local) == 0 && RegisterSock(m_listener, SOCK_READ, 0) == 0;
    }

    /// False if there is nobody more for now.
    bool accept_one() INFRA_REQUIRES(m_mutex) {
        CSockStream peer;
        if (m_listener.Accept(peer, nullptr) == 0) {
            if (m_door.admits(peer)) {
                m_create(peer);
            }
            return true;
        }
        Door::Outcome outcome = Door::Outcome::NOBODY_WAITS;
        if (errno == EMFILE || errno == ENFILE) {
            outcome = m_door.turnAway(m_listener.GetHandle());
        } else if (errno == ENOBUFS || errno == ENOMEM) {
            outcome = Door::Outcome::NO_DESCRIPTOR;
        }
        if (outcome == Door::Outcome::NO_DESCRIPTOR) {
            UnregisterSock(m_listener, SOCK_READ);
            SetTimer(REST_US);
        }
        return outcome == Door::Outcome::TURNED_AWAY;
    }

    void tell() INFRA_REQUIRES(m_mutex) {
        if (m_door.hasNews()) {
            INFRA_LOG_PLAIN(NOTICE, "%s: %s\n", program_invocation_short_name, m_door.news().c_str());
        }
    }

    const Create m_create;
    Orvex::Infra::CMutex m_mutex;
    CSockAcceptor m_listener INFRA_GUARDED_BY(m_mutex);
    Door m_door;                                   // but for its counter guarded by the mutex as well
    long m_telling INFRA_GUARDED_BY(m_mutex) = 0;  // the timer of the next line; 0 if nobody was turned away
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

/// Listens on `local` until a signal ends the program; see Listener::Open. The result is main's.
inline int serve(Roster& roster, EndSignals& signals, const CSockAddr& local, size_t per_address,
                 Listener::Create create) {
    Listener* listener = Listener::Open(roster, local, per_address, std::move(create));
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
