// CNTimer, CNTimerEvent: one periodic tick, shared by many small timer objects.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

class CNTimerEvent;
struct NTimerInternal;
struct NTimerEventInternal;

/// A tick with one fixed period. Every running event that was pushed on it is called once per tick, one after
/// the other in push order. There is no period per event: for two rates make two timers.
///
///     CNTimer* timer = CNTimer::Create(20000);  // microseconds
///     timer->PushTimerEvent(event);             // of a class that derives from CNTimerEvent
///     event->Start();
///     ...                                       // Stop and Start as often as you like
///     event->Close();
///     timer->Close();
///
/// Ticks are scheduled on a fixed grid, `start + n * period`, so that a late tick makes the next delay
/// shorter and lateness never adds up. A single tick has the resolution of `CNetHandler::SetTimer`, some 5
/// ms, and comes up to 2 ms before its grid point. After a stall the missed ticks follow 2 ms apart, up to
/// twenty of them; a timer that is more than twenty periods off its grid begins a new one from there. No
/// timer is faster than one tick in 2 ms, whatever its period. Periods of more than 24 hours are cut to that
/// tick by tick, with a log line.
///
/// A timer serves on the public pool, which must exist. It owns no memory of its events, but it is what
/// closes them: after `CNTimerEvent::Close` with its next tick or at most about a second later, and all that
/// are left when it goes away itself.
/// To know when a timer has gone, leave an event on it: that one closes when nothing calls the timer any
/// more.
///
/// Threads: every operation from any thread that knows the timer alive. One tick runs on one worker of the
/// pool, and holds the timer's lock from its first call to its last. So
///
///  - the handlers of one timer never run side by side, and one that takes long delays the others;
///  - `PushTimerEvent` waits until a tick that runs on another thread is over. An application's lock that a
///    `handle_timer_event` takes must therefore not be held around `PushTimerEvent`: the two wait for each
///    other. A handler itself may push on its own timer; what it pushes is called from the next tick on.
class RETICOR_API CNTimer : public CNetHandler {
public:
    /// A new timer, which ticks from now on every `period` microseconds. Null, with a line at level 2, if
    /// there is no memory for it. The caller ends it by `Close` and never deletes it.
    static CNTimer* Create(long long period);

    /// Appends `ev`, which was not pushed before, and makes it ready to be started. 0; -1 if there was no
    /// memory for `ev` when it was made. Pushing an event again is logged at level 2, and an assertion ends
    /// the process. The timer must not have been closed, unless the caller holds a reference on it. Never
    /// push an event that was closed.
    int PushTimerEvent(CNTimerEvent* ev);

    /// Ends the timer. Does not wait. When the last call has returned the timer closes the events that are
    /// left on it, without calling `handle_timer_event` again.
    void Close() override;

private:
    RETICOR_HIDDEN CNTimer(long long period, NTimerInternal* internal);
    RETICOR_HIDDEN ~CNTimer() override;
    RETICOR_HIDDEN int64_t handle_timeout(long id) override;
    RETICOR_HIDDEN int handle_close(CNetHandler* self) override;

    NTimerInternal* m_timer;
};

/// What a `CNTimer` calls. Derive from it, override `handle_timer_event`, and `handle_close` to delete the
/// object there, as with every handler.
///
/// States: created; ready, once it was pushed; running; stopped; closed. An event can be pushed once in its
/// life, on one timer. Misuse is logged at level 2, and some of it is a programming error that ends the
/// process by an assertion: see each operation.
///
/// Threads: every operation from any thread that knows the event alive, also from inside any
/// `handle_timer_event`. None of them waits for a tick. So a tick that has begun with this event may still be
/// in `handle_timer_event`, or come there once, when `Stop` or `Close` on another thread has returned. Later
/// ticks make no call.
///
/// Log lines about misuse may be written under a lock of the event: a log sink must not call the event back
/// from another thread and wait for it.
class RETICOR_API CNTimerEvent : public CNetHandler {
public:
    /// An event of the public pool, which must exist. Without memory there is a line at level 2, it cannot be
    /// pushed, and it is to be closed as any other.
    CNTimerEvent();
    ~CNTimerEvent() override;

    /// Ready or stopped: is called from the next tick on. Nothing is owed for ticks that were missed. Before
    /// `PushTimerEvent` it is logged and has no effect; on a running or closed event it is logged, and an
    /// assertion ends the process.
    void Start();

    /// Running: is not called any more until `Start`. In every other state it is logged and has no effect.
    void Stop();

    /// Ends the event, in any state. One that was never pushed closes at once, and must not be pushed any
    /// more. One on a timer is not called by later ticks, and closes with the next pass of its timer, at most
    /// about a second later. As with every handler, the object may be gone when this returns, unless the
    /// caller holds a reference.
    void Close() override;

    /// Called on every tick while the event runs. The result has no effect whatever it is; only `Stop` and
    /// `Close` end the calls. The default does nothing and gives -1.
    virtual int handle_timer_event();

private:
    friend class CNTimer;
    class RETICOR_HIDDEN Turn;

    NTimerEventInternal* m_event;
};

}  // namespace Orvex::Reticor
