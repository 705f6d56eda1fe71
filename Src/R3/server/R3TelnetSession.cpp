// CR3TelnetSession: negotiation, banner and prompt, lines to commands, texts to the client.
#include "R3/server/R3TelnetSession.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include <Infra/Log.h>
#include <Reticor/SockStream.h>
#include <Reticor/StreamSender.h>

#include "Core/handle/HandlerInternal.h"
#include "R3/print/FuncBox.h"
#include "R3/server/CommandLine.h"
#include "R3/server/TelnetInput.h"

namespace Orvex::Reticor {

/// One client, from its accept until the last call that works for it is over. Guarded by the session's mutex.
struct R3Connection {
    CSockStream* m_sock = nullptr;      ///< Owned. Null once the connection was ended.
    CStreamSender* m_sender = nullptr;  ///< Output queue; ended by Close. Null once the connection was ended.
    CR3Owner_IF* m_daemon = nullptr;    ///< Null once the connection was ended.
    CTelnetInput m_input;
    int m_users = 1;  ///< The session while it is present, and each call that works for it.
};

namespace {

constexpr unsigned int SEND_BUFFER = 204800;
constexpr unsigned int TEXT_PIECE = 4096;

// RFC 854: IAC DO ECHO, IAC DO LINEMODE, IAC DO 33 (remote flow control), IAC WILL ECHO,
// IAC WILL SUPPRESS-GO-AHEAD. The answers are not waited for and not looked at.
constexpr char NEGOTIATION[] =
    "\xFF\xFD\x01"
    "\xFF\xFD\x22"
    "\xFF\xFD\x21"
    "\xFF\xFB\x01"
    "\xFF\xFB\x03";

constexpr char BANNER[] =
    "================================================================\n"
    "             Realtime Remote Runner                             \n"
    "================================================================\n";

constexpr int DRAIN_LIMIT = 64;

// A socket that closes with unread bytes is reset, and a reset takes from the client what it has not read
// yet. So what has come is read away first, without waiting for more, and in bounds.
void drain(CSockStream& sock) {
    ::shutdown(sock.GetHandle(), SHUT_WR);
    char rest[1024];
    for (int round = 0; round < DRAIN_LIMIT && sock.Recv(rest, sizeof rest) > 0; ++round) {
    }
}

}  // namespace

/// What the line editor of one connection does to its session, whose mutex is held.
struct CR3TelnetSession::Echo final : CTelnetEcho_IF {
    Echo(CR3TelnetSession& its_session, R3Connection& its_connection)
        : session(its_session), connection(its_connection) {}

    void Send(const char* data, unsigned int len) override INFRA_NO_THREAD_SAFETY_ANALYSIS {
        session.send(connection, data, len);
    }
    bool Line(char* text) override INFRA_NO_THREAD_SAFETY_ANALYSIS { return session.line(connection, text); }

    CR3TelnetSession& session;
    R3Connection& connection;
};

CR3TelnetSession* CR3TelnetSession::Create() {
    auto* const session = new (std::nothrow) CR3TelnetSession;
    if (session == nullptr || session->GetID() != 0) {
        return session;
    }
    HandlerInternal::Discard(session);
    return nullptr;
}

// ---- a client comes and goes -----------------------------------------------------------------------------

// The mutex is held until the greeting is on its way, so that input that is already there waits for it.
void CR3TelnetSession::Start(CSockStream* sock, CR3Owner_IF* daemon) {
    Infra::CGuard guard(m_mutex);
    detach();
    m_connection = new (std::nothrow) R3Connection;
    if (m_connection == nullptr) {
        INFRA_LOG(2, "R3 telnet, no memory for a client\n");
        delete sock;
        return;
    }
    m_connection->m_sock = sock;
    m_connection->m_daemon = daemon;
    if (open(*m_connection)) {
        greet(*m_connection);
    } else {
        detach();
    }
}

bool CR3TelnetSession::open(R3Connection& connection) {
    connection.m_sock->SetSockSendBuf(SEND_BUFFER);
    connection.m_sock->SetSockNoDelay(true);  // an echo and the prompt after it are small, and seen by eyes
    connection.m_sender = CStreamSender::Create();
    if (connection.m_sender == nullptr) {
        return false;
    }
    connection.m_sender->WaitException(GetID());
    connection.m_sender->Attach(this, connection.m_sock);
    return RegisterSock(*connection.m_sock, SOCK_READ, 0) == 0;
}

void CR3TelnetSession::greet(R3Connection& connection) {
    send(connection, NEGOTIATION, sizeof(NEGOTIATION) - 1);
    send_text(connection, BANNER);
    send_prompt(connection);
}

void CR3TelnetSession::End() {
    Infra::CGuard guard(m_mutex);
    detach();
}

// The socket closes here and now, whoever still holds the record: it is used under the mutex only, and only
// while the record is present.
void CR3TelnetSession::detach() {
    R3Connection* const connection = std::exchange(m_connection, nullptr);
    if (connection == nullptr) {
        return;
    }
    if (connection->m_sender != nullptr) {
        connection->m_sender->Detach();
        connection->m_sender->Clear();
        connection->m_sender->Close();
        connection->m_sender = nullptr;
    }
    RemoveSock(*connection->m_sock);
    connection->m_sock->Close();
    delete connection->m_sock;
    connection->m_sock = nullptr;
    connection->m_daemon = nullptr;
    release(connection);
}

void CR3TelnetSession::release(R3Connection* connection) {
    if (--connection->m_users == 0) {
        delete connection;
    }
}

// ---- calls of the reactor --------------------------------------------------------------------------------

int CR3TelnetSession::handle_input(int fd) {
    Infra::CGuard guard(m_mutex);
    R3Connection* const connection = m_connection;
    if (connection == nullptr || connection->m_sock->GetHandle() != fd) {
        return 0;  // of a client that has gone
    }
    ++connection->m_users;
    const int result = receive(*connection);
    release(connection);
    return result;
}

int CR3TelnetSession::receive(R3Connection& connection) {
    CTelnetInput& input = connection.m_input;
    const int count = connection.m_sock->Recv(input.Room(), input.RoomLen());
    if (count < 0) {
        detach();
        return -1;
    }
    Echo echo(*this, connection);
    input.Process(static_cast<unsigned int>(count), echo);
    return 0;
}

int CR3TelnetSession::handle_output(int fd) {
    Infra::CGuard guard(m_mutex);
    if (m_connection == nullptr || m_connection->m_sock->GetHandle() != fd) {
        return 0;
    }
    return m_connection->m_sender->handle_output(fd);
}

// The number comes from the sender that was given this session's id, and may come late: after another client
// has displaced the one that it is about.
int CR3TelnetSession::handle_message(long sender, unsigned int msg, long) {
    Infra::CGuard guard(m_mutex);
    if (msg == STREAM_SENDER_FAILED && m_connection != nullptr && m_connection->m_sender->GetID() == sender) {
        detach();
    }
    return 0;
}

int CR3TelnetSession::handle_close(CNetHandler* self) {
    delete self;
    return -1;
}

// ---- lines -----------------------------------------------------------------------------------------------

// False if the client of this line has gone, by "bye" or while its command ran.
bool CR3TelnetSession::line(R3Connection& connection, char* text) {
    if (std::strcmp(text, "bye") == 0) {
        drain(*connection.m_sock);
        detach();
        return false;
    }
    if (*text != '\0') {
        run(connection, text);
    }
    if (!present(connection)) {
        return false;
    }
    send_prompt(connection);
    return true;
}

// Entered and left with the mutex held, which is free while the command runs.
void CR3TelnetSession::run(R3Connection& connection, char* text) {
    const CommandLine line = split_command_line(text);
    if (line.word == nullptr) {
        return;
    }
    const FuncBoxRef box(connection.m_daemon->FuncBox());
    const TFuncEntry* const entry = box.get() != nullptr ? box.get()->Find(line.word) : nullptr;
    if (entry == nullptr) {
        send_text(connection, ":: command not found\n");
        return;
    }
    m_mutex.leave();
    call_command(*entry, line);
    m_mutex.enter();
}

// ---- output ----------------------------------------------------------------------------------------------

int CR3TelnetSession::SendRaw(const void* data, unsigned int len) {
    Infra::CGuard guard(m_mutex);
    return m_connection != nullptr ? send(*m_connection, static_cast<const char*>(data), len) : 0;
}

void CR3TelnetSession::SendText(const char* text) {
    Infra::CGuard guard(m_mutex);
    if (m_connection != nullptr) {
        send_text(*m_connection, text);
    }
}

// A client that has been displaced gets nothing more, nor does its successor get what was meant for it. An
// empty piece is nothing to a sender, which takes it badly while others wait.
int CR3TelnetSession::send(R3Connection& connection, const char* data, unsigned int len) {
    return present(connection) && len > 0 ? connection.m_sender->Put(data, len) : 0;
}

// A line end adds two bytes at a time, so a piece may have one byte more than it is meant to have.
int CR3TelnetSession::send_text(R3Connection& connection, const char* text) {
    char piece[TEXT_PIECE + 1];
    unsigned int length = 0;
    int result = 0;
    for (; *text != '\0' && result == 0; ++text) {
        if (*text == '\n' || *text == '\r') {
            piece[length++] = '\r';
            piece[length++] = '\n';
        } else {
            piece[length++] = *text;
        }
        if (length >= TEXT_PIECE || text[1] == '\0') {
            result = send(connection, piece, std::exchange(length, 0));
        }
    }
    return result;
}

void CR3TelnetSession::send_prompt(R3Connection& connection) {
    char prompt[130];
    const int length = std::snprintf(prompt, sizeof(prompt), "%.128s>", connection.m_daemon->PromptName());
    send(connection, prompt, static_cast<unsigned int>(length));
}

}  // namespace Orvex::Reticor
