// CR3TelnetSession: the one client of the debug server, a small telnet peer.
#pragma once

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

class CSockStream;
class TFuncBox;
struct R3Connection;

/// What a session needs of its daemon.
class CR3Owner_IF {
public:
    /// The word of the prompt, in front of its '>'.
    virtual const char* PromptName() const = 0;

    /// The table of commands, or null.
    virtual TFuncBox* FuncBox() const = 0;

protected:
    ~CR3Owner_IF() = default;
};

/// One object for all clients, one after another. What belongs to a client is a record of its own
/// (R3Connection): `close` only detaches it, so that a command which is still running for a client that has
/// gone finds its record, but reaches nobody with it.
///
/// Ownership: made by Create, ended by `close` and then Close. Everything else about a client is touched
/// under `m_mutex` alone, its socket and its sender too; the mutex is not held while a command runs, so a
/// command may print, register, and end the server. It is recursive: what prints under it may come back.
///
/// Locks: the daemon's mutex before this one, this one before that of a CStreamSender.
class CR3TelnetSession : public CNetHandler {
public:
    /// Null if there is no memory. The public pool must exist.
    static CR3TelnetSession* Create();

    CR3TelnetSession(const CR3TelnetSession&) = delete;
    CR3TelnetSession& operator=(const CR3TelnetSession&) = delete;

    /// Begins with a client, whose socket is the session's from now on. `daemon` must outlive the client:
    /// it calls `close` before it goes. A client that is there is closed.
    void Start(CSockStream* sock, CR3Owner_IF* daemon);

    /// Ends the client's connection, if there is one. Any thread, also from inside a command.
    void End();

    /// Sends a text with each CR and each LF as CR LF. Nothing happens while there is no client.
    void SendText(const char* text);

    /// Sends bytes as they are. The sender's result; 0 while there is no client.
    int SendRaw(const void* data, unsigned int len);

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int handle_close(CNetHandler* self) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    struct Echo;

    CR3TelnetSession() = default;
    ~CR3TelnetSession() override = default;

    bool present(const R3Connection& connection) const INFRA_REQUIRES(m_mutex) {
        return &connection == m_connection;
    }
    bool open(R3Connection& connection) INFRA_REQUIRES(m_mutex);
    void greet(R3Connection& connection) INFRA_REQUIRES(m_mutex);
    void detach() INFRA_REQUIRES(m_mutex);
    static void release(R3Connection* connection);
    int receive(R3Connection& connection) INFRA_REQUIRES(m_mutex);
    bool line(R3Connection& connection, char* text) INFRA_REQUIRES(m_mutex);
    void run(R3Connection& connection, char* text) INFRA_REQUIRES(m_mutex);
    int send(R3Connection& connection, const char* data, unsigned int len) INFRA_REQUIRES(m_mutex);
    int send_text(R3Connection& connection, const char* text) INFRA_REQUIRES(m_mutex);
    void send_prompt(R3Connection& connection) INFRA_REQUIRES(m_mutex);

    Infra::CMutex m_mutex{Infra::LockClass::R3_SESSION};
    R3Connection* m_connection INFRA_GUARDED_BY(m_mutex) = nullptr;  ///< Null while there is no client.
};

}  // namespace Orvex::Reticor
