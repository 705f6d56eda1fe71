// CMessage: posting to a handler by its id, and the step that turns a queued record into a call.
#pragma once

#include "Core/record/Event.h"

namespace Orvex::Reticor {

class CNetHandler;
class CThreadPool;
class HandlerDrops;

/// All static. Posting comes from any thread, never fails towards the sender and never waits for the
/// receiver; a message to an object that is gone disappears when it is taken. Without memory the message is
/// dropped, with a line at level 2 that counts them, once a second at most.
class CMessage {
public:
    /// The message number by which a handler that sends it to itself leaves the object table.
    static constexpr unsigned int MSG_CLOSE = 12;

    /// Posts to the main queue of the receiver's pool, or, with `io`, to the queue of the file workers. False
    /// if the message is dropped.
    static bool Notify(long sender, long receiver, unsigned int msg, long attach, bool io);

    /// As Notify, for what the library owes a handler: while there is no memory it takes a record of the
    /// reserve.
    static void Tell(long sender, long receiver, unsigned int msg, long attach);

    /// Posts to the serial queue of the receiver's pool. `reserved` is not used. False if the message is
    /// dropped.
    static bool NotifySerial(long sender, long receiver, unsigned int msg, long attach,
                             unsigned int reserved);

    /// Posts the close message of `owner`, whose id is `id`, in the record `ev`, ahead of everything in its
    /// pool's queue. It does nothing to another handler that the id may find.
    static void NotifyClose(CEvent* ev, long id, const CNetHandler* owner);

    /// At the end of a pool, when its threads have ended and nobody finds it any more: detaches the handlers
    /// whose close messages are still queued.
    static void CloseQueued(CThreadPool& pool, HandlerDrops& drops);

    /// Whether the record of a message is a close message: from NotifyClose, or sent by a handler to itself.
    static bool IsClose(const CEvent* ev);

    /// Calls the receiver, if it is still there, with no lock held, and gives the record back. Any thread.
    /// Result 0.
    static int HandleMessage(CEvent* ev);

    /// Takes one record of NotifyIO, if there is one, and handles it as HandleMessage does, on a file worker.
    static void HandleIOMessage();

    /// Messages of NotifyIO that nobody has taken. They wait for the first start of the file workers.
    static unsigned CountIOMessages();

    /// Gives the records of NotifyIO that nobody has taken back to the free list: at teardown, and when the
    /// file workers have ended for good.
    static void DropIOMessages();

    /// Whether the workers print each message and timer they handle (command "threadpool").
    static bool printing();
};

}  // namespace Orvex::Reticor
