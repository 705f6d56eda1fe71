// Probes: what the core's tests may see of private state, one friend structure for each class.
//
// What is guarded by a lock is read under it, so that probing a live pool is not a race. What belongs to one
// thread (the tables of the poller, the records of a stopped pool) is the caller's to read at a quiet moment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/ThreadLite.h>
#include <Reticor/NetHandler.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/Event.h"
#include "Core/record/SockRecord.h"
#include "Core/record/WorkQueue.h"
#include "Core/service/NetSock.h"
#include "Core/service/SockTimer.h"
#include "Core/service/TimerHeap.h"
#include "Core/watch/Select_win.h"

namespace Orvex::Reticor {

struct TimerHeapProbe {
    /// Entries of the heap and the buckets, dead ones included.
    static std::size_t entries(TimerHeap& heap) {
        Infra::CGuard guard(heap.m_mutex);
        return heap.m_array.size() + heap.m_later.Size();
    }

    /// Entries that the heap has room for.
    static std::size_t capacity(TimerHeap& heap) {
        Infra::CGuard guard(heap.m_mutex);
        return heap.m_array.capacity();
    }

    /// Arms a timer under its own id, of a pool that need not exist.
    static bool arm(TimerHeap& heap, const ArmedTimer& timer) {
        Infra::CGuard guard(heap.m_mutex);
        bool first = false;
        return heap.arm(*heap.pool_of(timer.id), timer, first) && first;
    }

    /// Ids of a pool that wait for their next timer.
    static std::size_t waitingIds(TimerHeap& heap, int pool) {
        Infra::CGuard guard(heap.m_mutex);
        return heap.m_pool[static_cast<std::size_t>(pool)].ids.Count();
    }
};

struct EventQueueProbe {
    static std::vector<CEvent*> records(CEventQueue& queue) {
        Infra::CGuard guard(queue.m_mutex);
        std::vector<CEvent*> found;
        for (CEvent* ev = queue.m_head; ev != nullptr; ev = ev->m_next) {
            found.push_back(ev);
        }
        return found;
    }

    static std::size_t size(CEventQueue& queue) { return records(queue).size(); }

    static bool tailIsLast(CEventQueue& queue) {
        const std::vector<CEvent*> found = records(queue);
        Infra::CGuard guard(queue.m_mutex);
        return found.empty() ? queue.m_tail == nullptr : queue.m_tail == found.back();
    }

    // Takes all counts of the semaphore, and tells how many there were.
    static int takeCounts(CEventQueue& queue) {
        int count = 0;
        while (queue.m_sem.pendFor(0)) {
            ++count;
        }
        return count;
    }

    static void addCounts(CEventQueue& queue, int count) { queue.m_sem.post(count, count); }

    static Infra::CMutex& mutex(CEventQueue& queue) { return queue.m_mutex; }
};

struct WorkQueueProbe {
    static bool guarded(CWorkQueue& queue) {
        Infra::CGuard guard(queue.m_mutex);
        return queue.m_guard;
    }
    // As if the token had just been taken from an empty queue.
    static void letPollerWait(CWorkQueue& queue) {
        Infra::CGuard guard(queue.m_mutex);
        queue.m_poller_waits.store(true);
    }
    // As if the pool had taken one more record.
    static void progress(CWorkQueue& queue) {
        Infra::CGuard guard(queue.m_mutex);
        ++queue.m_taken;
    }
    static int sleepers(CWorkQueue& queue) {
        Infra::CGuard guard(queue.m_mutex);
        return queue.m_sleepers;
    }
};

struct ObjectIdProbe {
    static uint32_t capacity(CObjectId& ids) {
        Infra::CGuard guard(ids.m_mutex);
        return ids.m_capacity;
    }
    static uint32_t count(CObjectId& ids) {
        Infra::CGuard guard(ids.m_mutex);
        return ids.m_count;
    }
};

struct MultiplexerProbe {
    static int epoll(const CMultiplexer& mux) { return epoll(mux.m_epoll); }
    static int epoll(const EpollSet& set) { return set.in_use(); }
    // The instance that was in use before the last Replace; -1 once it is closed.
    static int formerEpoll(const EpollSet& set) { return set.m_sides[1 - set.m_side]; }
    static CWINPipe pipe(CMultiplexer& mux) { return pipe(mux.m_waker); }
    static CWINPipe pipe(Waker& waker) {
        Infra::CGuard guard(waker.m_pipe_mutex);
        return waker.m_pipe;
    }
    static int pipePending(CMultiplexer& mux) { return pipePending(mux.m_waker); }
    static int pipePending(Waker& waker) {
        Infra::CGuard guard(waker.m_pipe_mutex);
        return waker.m_pipe_pending;
    }
    // Places taken in a set: 0 read, 1 write, 2 exception.
    static int places(const CMultiplexer& mux, int direction) {
        return mux.m_book.m_taken[direction].load(std::memory_order_relaxed);
    }
    static std::size_t alwaysReady(CMultiplexer& mux) {
        Infra::CGuard guard(mux.m_always.m_list_mutex);
        return mux.m_always.m_list.size();
    }
};

struct SockTimerProbe {
    static std::vector<CEvent*> listed(CSockTimer& timer) {
        Infra::CGuard guard(timer.m_mutex);
        std::vector<CEvent*> found;
        for (CEvent* ev = timer.m_head; ev != nullptr; ev = ev->m_timer.m_timer_next) {
            found.push_back(ev);
        }
        return found;
    }
    static uint64_t now(const CSockTimer& timer) { return timer.m_now.load(); }
    static bool running(const CSockTimer& timer) { return timer.m_thread != nullptr; }
    // One pass on the calling thread, as the timer's own thread makes it every 500 ms.
    static void pass(CSockTimer& timer) { timer.pass(); }
    static Infra::CMutex& mutex(CSockTimer& timer) { return timer.m_mutex; }
};

struct NetSockProbe {
    // The two halves of a delivery.
    static int deliver(CEvent* event, int64_t& missing_owner) {
        return CNetSock::deliver(event, missing_owner);
    }
    static void finish(CEvent* event, int ret, int64_t missing_owner) {
        CNetSock::finish(event, ret, missing_owner);
    }
};

struct ThreadPoolProbe {
    static uint64_t loopCount(CThreadPool& pool) { return pool.m_event.Count().taken; }
    static int workers(const CThreadPool& pool) { return static_cast<int>(pool.m_running); }
    static CEvent* pollToken(CThreadPool& pool) { return &pool.m_poll_event; }
    static CEvent* heartbeat(const CThreadPool& pool) { return pool.m_heartbeat.load(); }
    // Whether the workers were not asked to end yet. A worker may ask to its end: the last is freed last.
    static bool looping(const CThreadPool& pool) { return pool.m_threads.back()->looping(); }
    static Infra::CThreadLite* daemon(const CThreadPool& pool) { return pool.m_daemon.get(); }
    static CEventQueue& serialQueue(CThreadPool& pool) { return pool.m_event_serial; }
    static bool serialIdle(CThreadPool& pool) {
        Infra::CGuard guard(pool.m_serial_mutex);
        return pool.m_serial_idle;
    }
    static Infra::CMutex& serialMutex(CThreadPool& pool) { return pool.m_serial_mutex; }

    // The records of the pool's sockets, in the order of their handles.
    static std::vector<CEvent*> sockets(CThreadPool& pool) {
        std::vector<CEvent*> found;
        pool.m_sock_tree.ReadLock();
        pool.m_sock_tree.ForEach([&](void* payload) { found.push_back(static_cast<CEvent*>(payload)); });
        pool.m_sock_tree.Unlock();
        return found;
    }
};

// CNetHandler keeps its state private and has no friend for tests. An explicit instantiation may name a
// private member.
namespace ProbeDetail {

struct HandlerState {
    using Type = HandlerInternal* CNetHandler::*;
    friend Type stateOf(HandlerState);
};

template <typename Tag, typename Tag::Type value>
struct Named {
    friend typename Tag::Type stateOf(Tag) { return value; }
};
template struct Named<HandlerState, &CNetHandler::m_internal>;

}  // namespace ProbeDetail

struct HandlerProbe {
    static HandlerInternal& state(CNetHandler& handler) {
        return *(handler.*stateOf(ProbeDetail::HandlerState{}));
    }
    // Sockets that are counted on the handler, and references on it.
    static int64_t sockets(CNetHandler& handler) { return state(handler).m_sock.load(); }
    static int64_t references(CNetHandler& handler) { return state(handler).m_ref.load(); }
    static bool closeCalled(CNetHandler& handler) { return state(handler).m_close_called.load() != 0; }
};

}  // namespace Orvex::Reticor
