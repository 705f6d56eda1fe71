// CNetTimer: one-shot and periodic callbacks for handlers.
#include "Core/service/NetTimer.h"

#include <algorithm>
#include <new>
#include <utility>

#include <Infra/Forever.h>
#include <Infra/HeldLocks.h>
#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>
#include <Infra/Time.h>
#include <Reticor/R3.h>

#include "Core/count/Timing.h"
#include "Core/handle/CallMark.h"
#include "Core/handle/ClassName.h"
#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/Message.h"

namespace Orvex::Reticor {

namespace {

constexpr uint64_t SHORTEST_US = 3000;
constexpr uint64_t LONGEST_US = 86400000000;
/// Timers are armed early by this much, to make up for the grid and for the queue on the way to the worker.
constexpr uint64_t EARLY_US = 2000;
constexpr uint64_t GRID_US = 5000;
/// A tick takes along what is due in the time just after it.
constexpr uint64_t AHEAD_US = 1000;

/// What the thread and those who arm timers share.
struct TimerThread {
    Infra::CMutex m_lock{Infra::LockClass::TIMER};  ///< Comes before the heap's mutex.
    /// The soonest expiry; 0 with nothing to wait for. May be early after a timer was destroyed, never late.
    uint64_t m_next_expire INFRA_GUARDED_BY(m_lock) = 0;
    /// When the thread will look again by itself; 0 while it sleeps without limit.
    uint64_t m_planned INFRA_GUARDED_BY(m_lock) = 0;
    Infra::CSemaphore m_sem{0};  ///< Ends the thread's sleep.
    Infra::CThreadLite* m_thread = nullptr;
    DueChains m_due;  ///< Touched by the thread alone.
};

TimerThread g_timer;

uint64_t grid_point(uint64_t expire) {
    return (expire + GRID_US - 1) / GRID_US * GRID_US;
}

/// The next grid point to look at, which those who arm timers compare with; 0 for none.
uint64_t plan() {
    Infra::CGuard guard(g_timer.m_lock);
    g_timer.m_planned = g_timer.m_next_expire == 0 ? 0 : grid_point(g_timer.m_next_expire);
    return g_timer.m_planned;
}

/// There is a new soonest timer: tells the thread, and wakes it if it would look too late.
void announce_top() {
    Infra::CGuard guard(g_timer.m_lock);
    // The heap is asked again under the lock, since others may have armed sooner ones, or ended this one,
    // meanwhile.
    const uint64_t soonest = CNetTimer::heap().Soonest();
    if (soonest == 0) {
        return;
    }
    g_timer.m_next_expire = soonest;
    if (g_timer.m_planned == 0 || grid_point(soonest) < g_timer.m_planned) {
        g_timer.m_planned = grid_point(soonest);
        g_timer.m_sem.post();
    }
}

/// Everything that is due goes to the pools, each chain with one push.
void tick(uint64_t now) {
    DueChains& due = g_timer.m_due;
    due.m_stamp_ns = Timing::Stamp();
    due.m_now_us = now;
    const bool all = CNetTimer::heap().PopDue(now + AHEAD_US, due);
    for (int i = 0; i < due.m_active_num; ++i) {
        const int index = due.m_active[static_cast<size_t>(i)];
        PoolTable::PushEvent(index, std::exchange(due.m_chain[static_cast<size_t>(index)], nullptr));
    }
    due.m_active_num = 0;
    {
        Infra::CGuard guard(g_timer.m_lock);
        g_timer.m_next_expire = CNetTimer::heap().Peek();
    }
    if (!all) {
        // There was no record for all of them: the others are due again a little later.
        g_timer.m_sem.pendFor(GRID_US);
    }
}

void thread_proc(Infra::CThreadLite& thread) {
    while (thread.looping()) {
        const uint64_t planned = plan();
        if (planned == 0) {
            g_timer.m_sem.pend();
            continue;
        }
        const uint64_t now = Infra::CTime::getCurrentMicroSecond();
        if (now < planned) {
            g_timer.m_sem.pendFor(planned - now);
        } else {
            tick(now);
        }
    }
}

/// A period within the limits, in microseconds.
uint64_t fit(uint64_t delay) {
    if (delay > LONGEST_US) {
        INFRA_LOG_STATIC(2, "Set timer's value is too big,it will be reduce to 24h.\n");
        return LONGEST_US;
    }
    return std::max(delay, SHORTEST_US);
}

uint64_t expiry(uint64_t delay) {
    return Infra::CTime::getCurrentMicroSecond() + delay - EARLY_US;
}

void print_timer(const HandlerPin& handler, const char* moment) {
    if (CMessage::printing()) {
        R3Printf("thread:%d, object:%p,class:%s, handle message %s at %ju us\n",
                 Infra::CThread::getCurrentThreadID(), static_cast<void*>(handler.get()),
                 class_name(*handler.get()).c_str(), moment,
                 static_cast<uintmax_t>(Infra::CTime::getCurrentMicroSecond()));
    }
}

}  // namespace

TimerHeap& CNetTimer::heap() {
    // Never destroyed: workers may still run while static objects are.
    static Infra::Forever<TimerHeap> room;
    static TimerHeap& heap = room.make();
    return heap;
}

int CNetTimer::Init() {
    {
        Infra::CGuard guard(g_timer.m_lock);
        g_timer.m_next_expire = heap().Peek();
    }
    g_timer.m_thread = new (std::nothrow) Infra::CThreadLite(
        Infra::TFunction1<void, Infra::CThreadLite&>(&thread_proc), "Timer_Thread", 64, 0, 0);
    if (g_timer.m_thread != nullptr && g_timer.m_thread->createThread()) {
        return 0;
    }
    delete g_timer.m_thread;
    g_timer.m_thread = nullptr;
    return -1;
}

int CNetTimer::Exit() {
    if (g_timer.m_thread != nullptr) {
        g_timer.m_thread->cancelThread();
        g_timer.m_sem.post();
        g_timer.m_thread->destroyThread();
        delete g_timer.m_thread;
        g_timer.m_thread = nullptr;
    }
    return 0;
}

long CNetTimer::SetTimer(long handler_id, int64_t us) {
    const uint64_t delay = fit(static_cast<uint64_t>(us));
    bool first = false;
    const long id = heap().Arm({0, handler_id, expiry(delay), delay}, first);
    if (first) {
        announce_top();
    }
    if (id == TimerHeap::NO_MEMORY) {
        INFRA_LOG_STATIC(2, "SetTimer no memory, obj: %ld\n", handler_id);
    }
    return id < 0 ? id : -1;
}

long CNetTimer::set_timer(CEvent* ev) {
    const long id = static_cast<long>(ev->m_key);
    const uint64_t delay = fit(ev->m_delay);
    if (heap().Rearm({id, ev->m_obj_id, expiry(delay), delay})) {
        announce_top();
    }
    put_event(ev);
    return id;
}

void CNetTimer::DestroyTimer(long id) {
    heap().RemoveById(id);
}

namespace {

/// The record of a timer that has fired. The timer is over unless it is armed again, so also if its call ends
/// the thread.
class FiredTimer {
public:
    explicit FiredTimer(CEvent* ev) : m_ev(ev) {}
    ~FiredTimer() {
        if (m_ev != nullptr) {
            CNetTimer::heap().Release(static_cast<long>(m_ev->m_key));
            put_event(m_ev);
        }
    }
    FiredTimer(const FiredTimer&) = delete;
    FiredTimer& operator=(const FiredTimer&) = delete;
    void arm() { CNetTimer::set_timer(std::exchange(m_ev, nullptr)); }

private:
    CEvent* m_ev;
};

}  // namespace

int CNetTimer::handle_timer(CEvent* ev) {
    FiredTimer fired(ev);
    const long id = static_cast<long>(ev->m_key);
    int64_t result = -1;
    if (HandlerPin handler = PoolTable::FindHandler(ev->m_obj_id)) {
        print_timer(handler, "begin");
        INFRA_PROMISE(HANDLER);
        {
            const CallMark mark(*handler.get(), CallKind::TIMEOUT);
            const CallTime time(*handler.get(), Timing::Taken(ev->m_stamp_ns));
            result = handler->handle_timeout(id);
        }
        print_timer(handler, "end");
    }
    if (result > 0) {
        ev->m_delay = static_cast<uint64_t>(result);
    }
    if (result >= 0) {
        fired.arm();
    }
    return 0;
}

void CNetTimer::AddLateness(SpreadValues& values) {
    g_timer.m_due.m_late.AddTo(values);
}

void CNetTimer::DropPool(int index, int64_t next) {
    heap().RemovePool(index, next);
}

}  // namespace Orvex::Reticor
