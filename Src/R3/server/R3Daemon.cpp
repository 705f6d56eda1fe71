// CR3Daemon: the port, the clients, the end.
#include "R3/server/R3Daemon.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <Infra/Log.h>
#include <Infra/Thread.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "Core/handle/HandlerInternal.h"

namespace Orvex::Reticor {

namespace {

constexpr unsigned short LAST_PORT = 65535;
constexpr int FURTHER_PORTS = 100;
constexpr size_t NAME_BLOCK = 128;
constexpr size_t NAME_LIMIT = 64;
constexpr unsigned int LOOPBACK_NET = 127;
constexpr int64_t REST_US = 100000;

}  // namespace

unsigned short open_port(CSockAcceptor& acceptor, unsigned short port) {
    for (int attempt = 0;; ++attempt, ++port) {
        if (acceptor.Open(CSockAddrIPv4(0U, port)) == 0) {
            INFRA_LOG_STATIC(4, "R3Server Start @port[%d]\n", port);
            return port;
        }
        if (port == LAST_PORT || attempt == FURTHER_PORTS) {
            return 0;
        }
    }
}

CR3Daemon* CR3Daemon::Create(bool local_only) {
    auto* daemon = new (std::nothrow) CR3Daemon(local_only);
    if (daemon != nullptr && (daemon->m_name == nullptr || daemon->GetID() == 0)) {
        HandlerInternal::Discard(daemon);
        return nullptr;
    }
    return daemon;
}

CR3Daemon::CR3Daemon(bool local_only)
    : m_name(new (std::nothrow) char[NAME_BLOCK]()), m_local_only(local_only) {}

CR3Daemon::~CR3Daemon() {
    delete[] m_name;
    if (m_session != nullptr) {
        m_session->DecRef();
    }
}

int CR3Daemon::Init(unsigned short port, const char* name) {
    Infra::CGuard guard(m_mutex);
    m_session = CR3TelnetSession::Create();
    if (m_session == nullptr) {
        INFRA_LOG(2, "CR3Daemon::Create new CR3TelnetSession fail!\n");
        return -1;
    }
    m_session->AddRef();
    m_port = open_port(m_acceptor, port);
    if (m_port == 0) {
        INFRA_LOG(2, "CR3Daemon::Create new open_port fail!\n");
        return -1;
    }
    std::strncpy(m_name, name != nullptr ? name : "R3", NAME_LIMIT);
    return RegisterSock(m_acceptor, SOCK_READ, 0);
}

int CR3Daemon::Register(void* func, const char* name, const char* help) {
    return m_funcbox.get() != nullptr ? m_funcbox.get()->Register(func, name, help) : -1;
}

void CR3Daemon::Print(const char* text) {
    if (m_session != nullptr) {
        m_session->SendText(text);
    }
}

// ---- clients ---------------------------------------------------------------------------------------------

int CR3Daemon::handle_input(int) {
    Infra::CGuard guard(m_mutex);
    if (m_closing) {
        return 0;
    }
    std::unique_ptr<CSockStream> client(m_acceptor.Accept(nullptr));
    if (client == nullptr) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            rest();
        }
        return 0;
    }
    if (!is_welcome(*client)) {
        return 0;
    }
    INFRA_LOG_PLAIN(6, "R3Server come new connect.\n");
    m_session->End();
    m_session->Start(client.release(), this);
    return 0;
}

// A connection that cannot be accepted keeps the acceptor ready, and would keep a worker busy.
void CR3Daemon::rest() {
    if (SetTimer(REST_US) != -1) {
        UnregisterSock(m_acceptor, SOCK_READ);
    }
}

int64_t CR3Daemon::handle_timeout(long) {
    Infra::CGuard guard(m_mutex);
    if (!m_closing) {
        RegisterSock(m_acceptor, SOCK_READ, 0);
    }
    return -1;
}

bool CR3Daemon::is_welcome(CSockStream& client) const {
    if (!m_local_only) {
        return true;
    }
    CSockAddrIPv4 peer;
    if (client.GetRemoteAddr(&peer) != 0) {
        return false;  // it has gone already, and a line tells so
    }
    if (peer.GetIp() >> 24 == LOOPBACK_NET) {
        return true;
    }
    char text[16] = "?";
    peer.GetIpStr(text, sizeof(text));
    INFRA_LOG(2, "R3Server refuses a client of another machine: %s\n", text);
    return false;
}

// ---- the end ---------------------------------------------------------------------------------------------

void CR3Daemon::Close() {
    {
        Infra::CGuard guard(m_mutex);
        if (m_closing) {
            return;
        }
        m_closing = true;
        RemoveSock(m_acceptor);
    }
    Infra::CThread::sleep(1);
    {
        Infra::CGuard guard(m_mutex);
        m_acceptor.Close();
        if (m_session != nullptr) {
            m_session->End();
            m_session->Close();
        }
    }
    CNetHandler::Close();
}

int CR3Daemon::handle_close(CNetHandler* self) {
    delete self;
    return -1;
}

}  // namespace Orvex::Reticor
