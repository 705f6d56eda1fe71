// ListenerBody: accepts in bursts, and turns away whom nothing is left for.
#include "Kit/ListenerBody.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <Reticor/SockAddr.h>

#include "Kit/ServerState.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

ListenerBody::ListenerBody(PoolState& pool, ServerState& server) : Member(pool), m_server(server) {}

ListenerBody::~ListenerBody() {
    if (m_spare >= 0) {
        close(m_spare);
    }
}

int ListenerBody::open_spare() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool ListenerBody::open(const CSockAddr& local) {
    CGuard guard(m_mutex);
    if (m_acceptor.Open(local) != 0) {
        return false;
    }
    m_spare = open_spare();
    socklen_t length = sizeof m_address;
    getsockname(m_acceptor.GetHandle(), reinterpret_cast<sockaddr*>(&m_address), &length);
    return RegisterSock(m_acceptor, SOCK_READ, 0) == 0;
}

void ListenerBody::shut() {
    CGuard guard(m_mutex);
    if (m_acceptor.IsValid()) {
        RemoveSock(m_acceptor);
        m_acceptor.Close();
    }
    tell_self(1);
}

int ListenerBody::handle_input(int) {
    for (int i = 0; i < BURST; ++i) {
        int client = -1;
        sockaddr_storage from{};
        const Found found = accept_one(client, from);
        if (found == Found::NOBODY) {
            break;
        }
        if (found == Found::CLIENT) {
            m_server.serve(client, from);
        }
    }
    if (m_server.has_news()) {
        CGuard guard(m_mutex);
        if (m_telling == -1 && !m_over) {
            m_telling = SetTimer(TELL_US);
        }
    }
    return 0;
}

ListenerBody::Found ListenerBody::accept_one(int& client, sockaddr_storage& from) {
    CGuard guard(m_mutex);
    if (!m_acceptor.IsValid()) {
        return Found::NOBODY;
    }
    socklen_t length = sizeof from;
    client = accept4(m_acceptor.GetHandle(), reinterpret_cast<sockaddr*>(&from), &length,
                     SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client >= 0) {
        return Found::CLIENT;
    }
    switch (errno) {
        case EMFILE:
        case ENFILE:
            return turn_away();
        case ENOBUFS:
        case ENOMEM:
            rest();
            return Found::NOBODY;
        case EAGAIN:
            return Found::NOBODY;
        default:
            return Found::REFUSED;  // that one has gone already; the burst is bounded
    }
}

// The system takes the number before it looks whether somebody waits, so there may be nobody.
ListenerBody::Found ListenerBody::turn_away() {
    if (m_spare >= 0) {
        close(m_spare);
    }
    const int client = accept4(m_acceptor.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC);
    const int error = errno;
    if (client >= 0) {
        m_server.refuse(ServerState::NO_DESCRIPTOR);
        close(client);
    }
    m_spare = open_spare();
    if (client >= 0) {
        return Found::REFUSED;
    }
    if (error != EAGAIN && error != ECONNABORTED) {
        rest();
    }
    return Found::NOBODY;
}

void ListenerBody::rest() {
    if (SetTimer(REST_US) != -1) {  // or nobody would wake it
        UnregisterSock(m_acceptor, SOCK_READ);
    }
}

int64_t ListenerBody::handle_timeout(long id) {
    CGuard guard(m_mutex);
    if (id == m_telling) {
        m_telling = -1;
        m_server.tell();
    } else if (m_acceptor.IsValid()) {
        RegisterSock(m_acceptor, SOCK_READ, 0);
    }
    return -1;
}

int ListenerBody::handle_message(long, unsigned int, long) {
    {
        CGuard guard(m_mutex);
        if (m_over || m_acceptor.IsValid()) {
            return 0;
        }
        m_over = true;
    }
    m_server.tell();
    leave();
    Close();
    return 0;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
