// CNetTimer: one-shot and periodic callbacks for handlers.
#pragma once

#include <cstdint>

#include "Core/count/Spread.h"
#include "Core/record/Event.h"
#include "Core/service/TimerHeap.h"

namespace Orvex::Reticor {

/// All static. The timers of all pools are in one heap, watched by "Timer_Thread". It runs nothing itself:
/// what is due goes as records to the pools of the handlers, a chain for each pool.
///
/// Time is quantised to a grid of 5 ms. The thread sleeps to the grid point at which the next timer is due,
/// and is woken early only by a timer that is due at an earlier one; without timers it sleeps without limit.
///
/// A timer is in the heap, or on its way through a queue, or runs; never two of these.
class CNetTimer {
public:
    /// Starts the thread on the process's heap. Result: 0, or -1 if the system gives no thread or no memory.
    static int Init();

    /// Ends and joins the thread. What is armed stays in the heap.
    static int Exit();

    /// Arms a timer of the handler. Result: its id.
    static long SetTimer(long handler_id, int64_t us);

    /// Arms the timer of a record again, for its period, and gives the record back. Result: the timer's id.
    static long set_timer(CEvent* ev);

    /// Ends a timer that is in the heap; does nothing for others.
    static void DestroyTimer(long id);

    /// Calls the handler of an expired timer and arms it again, or gives it back. On a worker of the pool.
    /// Result 0.
    static int handle_timer(CEvent* ev);

    /// Takes all timers of a pool out of the heap, after the pool's slot was cleared. Their ids go with the
    /// pool's allocator; `next` is the counter that it would have drawn next.
    static void DropPool(int index, int64_t next);

    /// Adds to `values` how long after their time timers were found due.
    static void AddLateness(SpreadValues& values);

    /// The process's heap.
    static TimerHeap& heap();
};

}  // namespace Orvex::Reticor
