// CSockTimer: measures the idle time of sockets, for the whole process.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadLite.h>

#include "Core/record/SockRecord.h"
#include "Core/watch/BTree.h"

namespace Orvex::Reticor {

/// A list of socket records with a time-out, which "Sock_Timer_Thread" walks every 500 ms. A node lives
/// inside its record, so that nothing is allocated, and the clock advances by the thread's own passes.
///
/// Lock order: a record's mutex, then `m_mutex`. The thread runs against it, holds `m_mutex` over its whole
/// pass, only tries the mutex of a record, and goes on from there to the multiplexer's book and, with a lease
/// of the pool, to a queue. So nobody who holds a queue's mutex may call in here.
class CSockTimer {
public:
    constexpr CSockTimer() = default;

    /// Starts the thread. Result: 0, or -1 if the system gives none, or no memory.
    int Start();

    /// Ends and joins the thread, and sets the clock back to 0. The list stays.
    void Stop();

    // The caller of these four holds the record's mutex. Times in milliseconds.

    void Link(CEvent* ev, int time_out);
    void Unlink(CEvent* ev);
    void Update(CEvent* ev, int time_out);
    static bool IsLinked(const CEvent* ev) { return has_flag(ev, MUX_LISTED); }

    /// Takes every record of a pool's tree off the list, at the pool's end, when nobody finds the pool any
    /// more, and waits for a pass that is under way: after that nobody has a record of the pool in hand.
    void UnlinkAll(BTree& tree);

private:
    static constexpr int PASS_MS = 500;

    void thread_proc(Infra::CThreadLite& thread);
    void pass();
    void expire(RecordPin record) INFRA_REQUIRES(m_mutex);
    void set_deadline(CEvent* ev, int time_out);
    void unlink_locked(CEvent* ev) INFRA_REQUIRES(m_mutex);

    Infra::CMutex m_mutex{Infra::LockClass::SOCKET_TIMER};
    Infra::CThreadLite* m_thread = nullptr;  ///< Owned; touched by Start and Stop alone.
    CEvent* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    /// The clock in milliseconds. Written by the thread, read by everybody who sets a deadline.
    std::atomic<uint64_t> m_now{0};

    friend struct SockTimerProbe;  // tests
};

/// The process's one.
CSockTimer& sock_timer();

}  // namespace Orvex::Reticor
