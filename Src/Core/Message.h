// CMessage: posting to a handler by its id, and the step that turns a queued record into a call.
#pragma once

#include "Core/Event.h"

namespace Orvex::Reticor {

/// All static. Posting comes from any thread, never fails towards the sender and never waits for the
/// receiver; a message to an object that is gone disappears when it is taken.
class CMessage {
public:
    /// The message number by which a handler that sends it to itself leaves the object table.
    static constexpr unsigned int MSG_CLOSE = 12;

    /// Posts to the main queue of the receiver's pool, or, with `io`, to the queue of the file workers.
    static void Notify(long sender, long receiver, unsigned int msg, long attach, bool io);

    /// Posts to the serial queue of the receiver's pool. `reserved` is not used.
    static void NotifySerial(long sender, long receiver, unsigned int msg, long attach,
                             unsigned int reserved);

    /// Posts the close message of `id` ahead of everything in its pool's queue.
    static void NotifyClose(long id);

    /// Calls the receiver, if it is still there, with no lock held, and gives the record back. Result 0.
    static int HandleMessage(CEvent* ev);

    /// Takes one record of NotifyIO and handles it, on a file worker. Waits for the record.
    static void HandleIOMessage();

    /// Whether the workers print each message and timer they handle (command "threadpool").
    static bool printing();
};

}  // namespace Orvex::Reticor
