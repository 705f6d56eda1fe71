// Listener: the listening socket, and the end.
#pragma once

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockStream.h>

#include "media_relay/Member.h"
#include "media_relay/Roster.h"
#include "media_relay/http/Door.h"

namespace relay {

/// A listening socket. Calls `create` with every connection that is let in; `create` detaches the socket
/// from what it is given, which is closed otherwise. Whom the door turns away is closed at once.
///
/// A connection that waits and cannot be accepted keeps the listening socket ready, and handle_input would
/// be called again at once, for ever. So when there is not even a descriptor to turn somebody away with,
/// the listener rests: it takes the socket out of the watch and comes back by a timer.
class Listener : public Member {
public:
    using Create = std::function<void(Orvex::Reticor::CSockStream&)>;

    /// There are at most `most` members, and at most `per_address` clients come from one address; 0 is no
    /// limit. Null if the address cannot be listened on; the library has logged why.
    static Listener* Open(Roster& roster, const Orvex::Reticor::CSockAddr& local, size_t most,
                          size_t per_address, Create create) {
        auto* self = new Listener(roster, most, per_address, std::move(create));
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
        Orvex::Infra::CGuard guard(m_mutex);
        Orvex::Reticor::CSockAddrStorage local;
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
            Orvex::Infra::CGuard guard(m_mutex);  // from here on handle_input accepts nobody
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
        Orvex::Infra::CGuard guard(m_mutex);
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
        Orvex::Infra::CGuard guard(m_mutex);
        if (id == m_telling) {
            m_telling = 0;
            tell();
        } else if (m_listener.IsValid()) {
            RegisterSock(m_listener, Orvex::Reticor::SOCK_READ, 0);
        }
        return -1;  // this timer is done
    }

    /// Another listener has stopped.
    int handle_message(long, unsigned int msg, long) override {
        Orvex::Infra::CGuard guard(m_mutex);
        if (msg == kStop && m_listener.IsValid()) {
            RemoveSock(m_listener);
            m_listener.Close();
            tell();
            Close();
        }
        return 0;
    }

private:
    static constexpr int ACCEPTS_PER_CALL = 64;  // then other sockets have their turn
    static constexpr int64_t REST_US = 50000;    // before somebody is tried to be accepted again
    static constexpr int64_t TELL_US = 1000000;  // between two lines

    Listener(Roster& roster, size_t most, size_t per_address, Create create)
        : Member(roster), m_create(std::move(create)), m_door(roster, most, per_address) {}

    bool start(const Orvex::Reticor::CSockAddr& local) {
        enter();
        Orvex::Infra::CGuard guard(m_mutex);
        return m_listener.Open(local) == 0 && RegisterSock(m_listener, Orvex::Reticor::SOCK_READ, 0) == 0;
    }

    /// False if there is nobody more for now.
    bool accept_one() INFRA_REQUIRES(m_mutex) {
        Orvex::Reticor::CSockStream peer;
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
            UnregisterSock(m_listener, Orvex::Reticor::SOCK_READ);
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
    Orvex::Reticor::CSockAcceptor m_listener INFRA_GUARDED_BY(m_mutex);
    Door m_door;                                   // but for its counter guarded by the mutex as well
    long m_telling INFRA_GUARDED_BY(m_mutex) = 0;  // the timer of the next line; 0 if nobody was turned away
};

}  // namespace relay
