// CNetHandler: the base class of everything that the reactor calls back.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

class CSock;
class OwnerDoor;
struct HandlerInternal;

/// Directions in which a handler watches a socket; add them up.
constexpr unsigned int SOCK_READ = 1;
constexpr unsigned int SOCK_WRITE = 2;
constexpr unsigned int SOCK_EXCEPT = 4;  ///< Out-of-band data.

/// An object that is called back on the worker threads of one pool.
///
/// Derive from it, override the `handle_*` operations that matter, and create it with `new`. From the end of
/// this base class's constructor on it is reachable by its id. Sockets and timers are registered after
/// construction (from a `Create` or `Init` of the derived class), never from the derived constructor: a call
/// from a worker would race with the virtual table that is still being set up.
///
/// Life: the creator never deletes a handler. It calls `Close`; when the last reference is gone
/// `handle_close` runs once, and the override deletes the object there.
///
///  1. Serving. Sockets, timers and messages are delivered; each delivery holds a reference of its own.
///  2. Closing. `Close` was called: `RegisterSock` and `SetTimer` give -1 from now on.
///  3. Detached. A worker took the close message: the id finds nothing any more, so queued messages, expired
///     timers and ready sockets make no call.
///  4. Released. The last reference is dropped, and that thread calls `handle_close`.
///
/// Work outstanding at `Close`: queued messages are dropped without a trace; calls that run on other threads
/// end normally; armed timers are given back when they expire, without a call; registered sockets stay in the
/// pool until they are removed, so remove them in or before `Close`.
///
/// A handler that is still open when its pool ends is never released: its later `Close` finds no worker that
/// could take the close message. Close every handler before its pool is destroyed.
///
/// Thread safety: every operation can be called from any thread, also from inside a `handle_*` call, as long
/// as the caller knows the object alive (it is inside one of its calls, or holds a reference), also while the
/// object's pool ends or after that: registrations and timers then give -1, messages are dropped. `handle_*`
/// calls run with no lock of the library held, and they are not serialised: calls for one socket never
/// overlap, nor do those for one timer, but a socket, a timer and any number of messages can be served at the
/// same time on different workers. A derived class guards its own state.
///
/// Without memory nothing is thrown: what has a result gives -1 with a line at level 2, and a message is
/// dropped.
///
/// No `handle_*` override may create or destroy a pool, nor call `CNetThread::EnableR3`, `DisableR3`,
/// `TraversalSock` or wait for somebody who does: destroying a pool waits for its workers.
class RETICOR_API CNetHandler {
public:
    /// A handler of the public pool. Same as `CNetHandler(0)`.
    CNetHandler();

    /// A handler of the pool with that index (0 is the public one). The pool must exist: otherwise a line is
    /// logged at level 1 and an assertion ends the process. Without memory there is a line at level 2, and
    /// the handler is closed from the start: its id is 0, nobody finds it, `RegisterSock` and `SetTimer` give
    /// -1, and its first `Close` calls `handle_close` there and then, whatever references are out.
    explicit CNetHandler(int pool);

    /// Called by `delete` in `handle_close`. Asserts that `Close` was called. Logs at level 2 if sockets are
    /// still registered; the object goes away all the same.
    virtual ~CNetHandler();

    CNetHandler(const CNetHandler&) = delete;
    CNetHandler& operator=(const CNetHandler&) = delete;

    /// A socket is ready to read (data, end of stream, or an error to be read). Level-triggered: a handler
    /// that neither reads nor unregisters is called again at once.
    ///
    /// The result steers the socket's idle time-out alone, never the registration: 0 runs the stored time-out
    /// again from the start, a positive number sets a new one of that many microseconds, a negative number
    /// cancels it. The same holds for `handle_output` and `handle_exception`. With both directions ready,
    /// `handle_input` runs first, and the result of `handle_output` counts.
    virtual int handle_input(int fd);

    /// A socket is ready to write, or has failed.
    virtual int handle_output(int fd);

    /// A socket has out-of-band data. Hides readability and writability of the same moment.
    virtual int handle_exception(int fd);

    /// Nothing happened on a socket registered for reading during its time-out. It stays registered, without
    /// a time-out; call `RegisterSock` again to have another. The result is ignored.
    virtual int handle_input_timeout(int fd);

    /// The same for a socket that is registered for writing and not for reading.
    virtual int handle_output_timeout(int fd);

    /// Never called by the library; free for derived classes.
    virtual int handle_exception_timeout(int fd);

    /// A timer expired. A negative result ends the timer, 0 runs it again after the same period, a positive
    /// one after that many microseconds, which becomes the new period. The period counts from the return.
    virtual int64_t handle_timeout(long id);

    /// The last reference is gone: delete `self` here and return 0. Runs once, on the thread that dropped the
    /// reference, with no lock held. The one of this class leaves the object allocated, logs a line at level
    /// 2 that names its class, and returns -1.
    virtual int handle_close(CNetHandler* self);

    /// A message from `Notify`, `NotifySerial` or `NotifyIO`. Number 12 with sender equal to receiver is the
    /// library's own close message and never arrives here. The result is ignored.
    virtual int handle_message(long sender, unsigned int msg, long attach);

    /// Ends the object. Safe to call any number of times from any thread that knows the object alive; all
    /// calls but the first do nothing. Does not wait: `handle_close` follows on a worker, or on the thread
    /// that drops the last reference. After the call the object may be gone unless the caller holds a
    /// reference.
    virtual void Close();

    /// Takes a reference. Only while the object is known alive.
    void AddRef();

    /// Drops a reference. The last one calls `handle_close` on this thread, after which the object is gone.
    void DecRef();

    /// Counts the sockets registered on this object; for the library's own use.
    void AddSock();
    /// Takes back one AddSock.
    void DecSock();

    /// The object's id: negative, and 0 only without memory for the object; unique among what is open. Safe
    /// to keep: an id of a closed handler finds nothing, also when its pool has ended and another one has
    /// come in its place. The same number comes again in a pool after a quarter of a million handlers at the
    /// earliest.
    long GetID();

    /// The receiver of the short `Notify`, `NotifySerial` and `NotifyIO` forms. 0, as it is at the start, is
    /// not a valid receiver.
    void SetDefaultRcer(long id);

    /// Ends the write interest of a socket that also reads, and removes the registration of one that does
    /// not. A socket that is not registered in this handler's pool is left alone. Always 0.
    int CheckSock(CSock& sock);

protected:
    /// Watches `sock` for the directions in `mask`. `timeout` is the idle
    /// time-out in microseconds, counted in whole milliseconds; below 1000 there is none. It fires after at
    /// least that time and at most about a second later.
    ///
    /// On a socket that is registered already, the directions are added, the socket moves to this handler,
    /// and the time-out is replaced (0 cancels it). The socket stays the caller's and must stay open until
    /// `RemoveSock`. A connecting socket is registered for writing alone; add reading after
    /// `CSockStream::GetConnectStatus` gave 0, since the error of a failed connect can be read only once.
    ///
    /// Other bits of `mask` are ignored. Result: 0; -1 if this handler is closed, the handle is negative,
    /// there is no memory, or the pool could not get what it watches sockets with. A pool watches up to 4095
    /// sockets for reading, and 4096 each for writing and for exceptions; one more is ignored in silence
    /// (`CNetThread::GetSocksWithoutPlace` counts them).
    int RegisterSock(CSock& sock, unsigned int mask, int timeout);

    /// Ends the interest in the directions of `mask`. The registration stays, if need be with nothing to
    /// watch. Without read and write the time-out ends too. Always 0.
    int UnregisterSock(CSock& sock, unsigned int mask);

    /// Ends the registration. Call it before closing the socket. After it returns no new call is made for the
    /// socket; one that is running on another thread goes on. Always 0.
    int RemoveSock(CSock& sock);

    /// Arms a timer: `handle_timeout` after `us` microseconds, 3000 at least and 24 hours at most, with a
    /// resolution of about 5 ms. More than that, and a negative number, become 24 hours, with a line at
    /// level 2. What repeats it is the result of `handle_timeout`. Result: the timer's id,
    /// or -1 if this handler is closed, or there is no memory; the latter with a line at level 2.
    long SetTimer(int64_t us);

    /// Ends a timer that is waiting. One that is on its way or running is not found: end it by a negative
    /// result of `handle_timeout`. Unknown ids are ignored.
    void DestroyTimer(long id);

    /// Posts a message to the handler with id `receiver`, with this one as sender. Returns at once, never
    /// fails towards the sender; a receiver that is gone drops the message without a trace. One for which
    /// there is no memory is dropped too, with a line at level 2 that counts them, once a second. `attach` is
    /// an opaque number; what it may point to is between sender and receiver.
    ///
    /// `Notify`: any worker of the receiver's pool; started in order, but two messages can run side by side.
    /// `NotifySerial`: strictly one after the other for the whole pool. `reserved` is not used. Do not rely
    /// on promptness after the last message of a burst. `NotifyIO`: a file worker, for work that blocks.
    /// What is posted before the file workers start waits for them, and is delivered once each, in order,
    /// when they do; what is posted after they have ended is dropped, which is logged once.
    void Notify(long receiver, unsigned int msg, long attach);
    /// To the receiver that SetDefaultRcer named.
    void Notify(unsigned int msg, long attach);
    /// As Notify, one after the other.
    void NotifySerial(long receiver, unsigned int msg, long attach, unsigned int reserved);
    /// To the receiver that SetDefaultRcer named.
    void NotifySerial(unsigned int msg, long attach, unsigned int reserved);
    /// As Notify, on a file worker.
    void NotifyIO(long receiver, unsigned int msg, long attach);
    /// To the receiver that SetDefaultRcer named.
    void NotifyIO(unsigned int msg, long attach);

    /// Memory from the calling worker's own recycler, without a lock (`CTsMemory`).
    void* TsMalloc(unsigned int size);
    /// Gives back what any of these four handed out; null is ignored.
    void TsFree(void* p);

    /// Memory from the recycler that all threads share.
    void* Malloc(unsigned int size);
    /// As TsFree, to the shared recycler.
    void Free(void* p);

private:
    /// Registers a socket on the handler that owns it for a helper object, such as CStreamSender.
    friend class OwnerDoor;
    friend struct HandlerInternal;

    HandlerInternal* m_internal;  ///< Owned.
};

}  // namespace Orvex::Reticor
