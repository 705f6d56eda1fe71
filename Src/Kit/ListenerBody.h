// ListenerBody: a listening socket of a server of the kit.
#pragma once

#include <sys/socket.h>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/SockAcceptor.h>

#include "Kit/PoolState.h"

namespace Orvex::Reticor {
class CSockAddr;
}

namespace Orvex::Reticor::Kit {
inline namespace v1 {

struct ServerState;

/// Accepts in bursts. A connection that waits and cannot be accepted keeps the socket ready, and the pool
/// would call again at once, for ever: so a descriptor is kept for closing whoever finds none, and when
/// even that is of no use the listener rests.
class ListenerBody final : public Member {
public:
    ListenerBody(PoolState& pool, ServerState& server);
    ~ListenerBody() override;

    /// False if that address cannot be listened on; the library has logged why.
    bool open(const CSockAddr& local);
    /// Accepts nobody any more. Any thread.
    void shut();
    sockaddr_storage address() const { return m_address; }

    const char* kind() const override { return "listener"; }
    void drain() override { shut(); }
    bool cut() override {
        shut();
        return false;
    }

    int handle_input(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    enum class Found { CLIENT, REFUSED, NOBODY };

    static constexpr int BURST = 64;             ///< Then other sockets have their turn.
    static constexpr int64_t REST_US = 50000;    ///< Before somebody is tried to be accepted again.
    static constexpr int64_t TELL_US = 1000000;  ///< Between two lines.

    Found accept_one(int& client, sockaddr_storage& from);
    Found turn_away() INFRA_REQUIRES(m_mutex);
    void rest() INFRA_REQUIRES(m_mutex);
    static int open_spare();

    ServerState& m_server;
    sockaddr_storage m_address{};  ///< Constant once it is open.

    Infra::CMutex m_mutex{Infra::LockClass::KIT_LISTENER};
    CSockAcceptor m_acceptor INFRA_GUARDED_BY(m_mutex);
    int m_spare INFRA_GUARDED_BY(m_mutex) = -1;
    long m_telling INFRA_GUARDED_BY(m_mutex) = -1;  ///< The timer of the next line.
    bool m_over INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
