// CStreamSender: writes a byte stream of any pace to a non-blocking socket.
#pragma once

#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

class CSock;
struct StreamSenderState;

/// What a CStreamSender tells by message, with its own id as sender and `attach` as said.
constexpr unsigned int STREAM_SENDER_FAILED = 2;  ///< The socket failed. `attach` is 0.
constexpr unsigned int STREAM_SENDER_ROOM = 4;  ///< The room that was asked for is free; `attach` bytes are.
constexpr unsigned int STREAM_SENDER_DRAINED = 9;  ///< Nothing waits any more. `attach` is 0.

/// Takes bytes at the application's pace and writes them at the socket's. Put tries the socket at once; what
/// does not fit waits in blocks of 32 KiB, and each time the socket has room one gathering write drains as
/// many of them as it takes. While the socket keeps up nothing is copied and nothing is allocated;
/// beyond that, blocks are kept and used again.
///
/// The socket is registered on another handler, the owner, which goes on reading from it. The owner gets
/// `handle_output` from the reactor and calls the sender's from its own. A CSockStream or a CSimulatorStream
/// can be written to; with any other socket the first write fires an assertion.
///
/// Life: made by Create, ended by Close, never deleted by its user. The owner calls it through a pointer, so
/// it takes a reference (AddRef) when it attaches, and drops that (DecRef) when it has detached and makes no
/// more calls. To end a connection: Detach, RemoveSock, close the socket, Close and DecRef of the sender.
/// After that the sender touches the socket no more, if no other thread calls Put.
///
/// Things to know:
///  - A Put that falls short registers the socket with `RegisterSock(sock, SOCK_WRITE, 0)`, and the 0 cancels
///    an idle time-out that runs on the socket. Let `handle_input` return a positive number to arm it anew.
///  - After STREAM_SENDER_FAILED for a drain, what waited still waits, and Put only adds to it: nobody writes
///    any more. Clear or Close the sender.
///  - An Attach with bytes waiting registers nothing: the owner registers the socket for writing itself.
///  - An owner that is closed is not found any more. Nothing is registered on it, and Put still gives 0.
///
/// Thread safety: any thread; `handle_output` comes from a worker. No operation blocks. The mutex of the
/// sender is held over the write to the socket, and no lock while a message is handled.
class RETICOR_API CStreamSender : public CNetHandler {
public:
    /// A sender of the public pool with room for 8 blocks, 256 KiB, without a socket. The pool must exist.
    /// Null, with a line at level 2, if there is no memory.
    static CStreamSender* Create();

    CStreamSender(const CStreamSender&) = delete;
    CStreamSender& operator=(const CStreamSender&) = delete;

    /// Gives the sender its socket and the handler on which that is, or will be, registered. Both stay the
    /// caller's. Registers nothing. Always 0.
    int Attach(CNetHandler* owner, CSock* stream);

    /// Ends the write interest in the socket (CNetHandler::CheckSock), and with it the registration if the
    /// socket is not read from. Returns the socket, null if there never was one. The sender still knows it,
    /// and bytes that wait stay: a Put after this writes to it again.
    CSock* Detach();

    /// Writes or keeps all of `len` bytes, or none. `buf` can be used again at once. There must be a socket,
    /// and `len` must not be above the room of an empty sender (GetBufferSize blocks of 32 KiB): assertions
    /// say so. While bytes wait, `len` must not be 0.
    ///
    /// Returns 0; -1 if there is no room for all of it (WaitBufferSize tells when there is), or if the socket
    /// failed, which is also told by message. If there is no memory: -1 with a line at level 2, and if a part
    /// was written by then the socket counts as failed; so it does if it cannot be registered for the rest.
    int Put(const char* buf, unsigned int len);

    /// Raises the room to `blocks` of 32 KiB. A smaller number changes nothing; below what waits now it logs
    /// at level 2 and fires an assertion. More than 65535 blocks (2 GiB), or more than there is memory for,
    /// log a line at level 2 and change nothing. Always 0.
    int SetBufferSize(unsigned int blocks);

    /// The room of an empty sender, in blocks of 32 KiB. Takes no lock.
    unsigned int GetBufferSize();

    /// Forgets what waits. Nobody is told. The socket stays registered for writing until it is ready once
    /// more. Always 0.
    int Clear();

    /// Asks for STREAM_SENDER_ROOM to the handler with this id, once, as soon as `size` bytes are free, which
    /// may be at once. One request per id: another one replaces it. A size of 0 or above INT_MAX never fires.
    void WaitBufferSize(long id, unsigned int size);

    /// Asks for STREAM_SENDER_DRAINED to the handler with this id, once, as soon as nothing waits, which may
    /// be at once.
    void WaitSendFinish(long id);

    /// Names the handler that is told of each failure of the socket; 0, as at the start, for nobody.
    void WaitException(long id);

    /// The owner calls this from its own `handle_output`, with the same descriptor. 0; -1 without a socket.
    int handle_output(int handle) override;
    /// The library's: ends the object.
    int handle_close(CNetHandler* self) override;

private:
    RETICOR_HIDDEN CStreamSender();
    RETICOR_HIDDEN ~CStreamSender() override;

    friend struct StreamSenderState;
    StreamSenderState* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
