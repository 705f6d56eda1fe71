// CR3Daemon: the debug server's listener, which owns the one session.
#pragma once

#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>
#include <Reticor/SockAcceptor.h>

#include "R3/print/FuncBox.h"
#include "R3/server/R3TelnetSession.h"

namespace Orvex::Reticor {

/// Listens on `port`, or on the first free one of the hundred above it. Port 65535 is the last. Returns the
/// port that was taken; 0 if there is none.
unsigned short open_port(CSockAcceptor& acceptor, unsigned short port);

/// Accepts clients, one at a time: a new one displaces the present one.
///
/// Life: Create, SetFuncBox, Init; ended by Close alone, after which it deletes itself.
class CR3Daemon : public CNetHandler, public CR3Owner_IF {
public:
    /// With `local_only`, clients of other machines are closed before the first byte. Null if there is no
    /// memory. The public pool must exist.
    static CR3Daemon* Create(bool local_only);

    CR3Daemon(const CR3Daemon&) = delete;
    CR3Daemon& operator=(const CR3Daemon&) = delete;

    /// The table that sessions search. Takes over the caller's reference. Once, before Init.
    void SetFuncBox(TFuncBox* box) { m_funcbox.adopt(box); }

    /// Makes the session, opens the port and begins to accept. `name` is the prompt, cut to 64 bytes; null is
    /// "R3". 0, or -1 with a line at level 2; then the daemon is to be closed.
    int Init(unsigned short port, const char* name);

    /// A command for the table that sessions search. Result of TFuncBox::Register; -1 without a table.
    int Register(void* func, const char* name, const char* help);

    /// The port that Init took; 0 before that.
    unsigned short Port() const { return m_port; }

    /// Sends a text to the client, if there is one. Any thread that holds a reference.
    void Print(const char* text);

    const char* PromptName() const override { return m_name; }
    TFuncBox* FuncBox() const override { return m_funcbox.get(); }

    int handle_input(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_close(CNetHandler* self) override;

    /// Stops listening, ends the client and the session, and then the daemon. Not from inside a call that
    /// holds the session's mutex. Only the first call has an effect.
    void Close() override;

private:
    explicit CR3Daemon(bool local_only);
    ~CR3Daemon() override;

    void rest() INFRA_REQUIRES(m_mutex);
    bool is_welcome(CSockStream& client) const;

    /// Guards the acceptor and the hand-over of clients to the session.
    Infra::CMutex m_mutex{Infra::LockClass::R3_DAEMON};
    CSockAcceptor m_acceptor INFRA_GUARDED_BY(m_mutex);
    bool m_closing INFRA_GUARDED_BY(m_mutex) = false;

    // Set before the daemon is known to others, and not changed after that.
    CR3TelnetSession* m_session = nullptr;  ///< With a reference, so that it is there for every Print.
    unsigned short m_port = 0;
    char* m_name;  ///< Owned, NAME_BLOCK bytes.
    FuncBoxRef m_funcbox;
    const bool m_local_only;
};

}  // namespace Orvex::Reticor
