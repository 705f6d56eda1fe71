// CNetSock: binds a socket to a handler, and turns its readiness into calls.
#include "Core/service/NetSock.h"

#include <utility>

#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/NetHandler.h>
#include <Reticor/Sock.h>

#include "Core/count/Timing.h"
#include "Core/handle/CallMark.h"
#include "Core/handle/ClassName.h"
#include "Core/handle/HandlerInternal.h"
#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/DeadNumbers.h"
#include "Core/service/RoomWatch.h"
#include "Core/service/SockTimer.h"
#include "R3/print/DebugSocket.h"

namespace Orvex::Reticor {

namespace {

using Flags = CDebugSocket;

bool tracing() {
    return Infra::logEnabled(3);
}

long long traced(int64_t number) {
    return static_cast<long long>(number);
}

long id_of(CNetHandler* handler) {
    return HandlerInternal::Of(*handler).GetID();
}

uintmax_t now() {
    return static_cast<uintmax_t>(Infra::CTime::getCurrentMicroSecond());
}

/// The lines of a call into a handler, at its begin and its end: `what` is the operation.
void trace_call(const char* what, const char* moment, const CEvent* event, const HandlerPin& handler) {
    const int revents = revents_now(event);
    if (Flags::passes_revents(revents) && Flags::passes_density() &&
        Flags::matches(event->m_key, Infra::relaxedLoad(event->m_obj_id))) {
        const bool timeout = what[0] == 't';
        INFRA_LOG_PLAIN(
            3,
            "<Reticor Debug> Enter CNetSock::handle_%s  object:%p, class:%s handle sock %s%s at %ju us, "
            "fd:%lld,revents:%x.\n",
            what, static_cast<void*>(handler.get()), class_name(*handler.get()).c_str(),
            timeout ? "timeout " : "event ", moment, now(), traced(event->m_key),
            static_cast<unsigned int>(revents));
    }
}

/// The lines of RemoveSock: at its entry, and for the idle (&1) and the in-flight case (&2).
void trace_remove(const char* where, CNetHandler* handler, int64_t fd) {
    if (tracing() && Flags::passes_density() && Flags::matches(fd, id_of(handler))) {
        INFRA_LOG_PLAIN(3, "<Reticor Debug> %s CNetHandler:%p, owner type:%s, socket:%lld.\n", where,
                        static_cast<void*>(handler), class_name(*handler).c_str(), traced(fd));
    }
}

void trace_delivered(CEvent* event, int ret) {
    if (Flags::passes_revents(revents_now(event)) &&
        Flags::matches(event->m_key, Infra::relaxedLoad(event->m_obj_id))) {
        RecordPin pin = RecordPin::Enter(event);
        INFRA_LOG_PLAIN(3,
                        "<Reticor Debug> Enter CNetSock::handle_netevent event->m_obj_id:%lld socket:%lld, "
                        "m_revents:%d, m_event_mask:%d ret:%d, m_set_time:%d.\n",
                        traced(event->m_obj_id), traced(event->m_key), event->m_revents,
                        static_cast<int>(event->m_event_mask), ret, event->m_timer.m_set_time);
    }
}

}  // namespace

// ---- registration --------------------------------------------------------------------------------------

int CNetSock::check_valid(int fd) {
    if (fd < 0) {
        INFRA_LOG_STATIC(2, "RegisterSock sock fd error, fd: %d\n", fd);
        return -1;
    }
    if (fd <= 2) {
        INFRA_LOG_STATIC(3, "RegisterSock sock fd specially with standard stream value: %d\n", fd);
    }
    return 0;
}

int CNetSock::RegisterSock(CNetHandler* handler, CSock& sock, unsigned int type,
                           int time_out) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    if (tracing() && Flags::passes_type(type) && Flags::passes_density() &&
        Flags::matches(fd, id_of(handler))) {
        INFRA_LOG_PLAIN(
            3,
            "<Reticor Debug> Enter CNetSock::RegisterSock CNetHandler:%p, owner type:%s, socket:%lld, "
            "type:%d, time_out:%d obj:%lld. \n",
            static_cast<void*>(handler), class_name(*handler).c_str(), traced(fd), static_cast<int>(type),
            time_out, traced(id_of(handler)));
    }
    if (check_valid(fd) == -1) {
        return -1;
    }
    type &= SOCK_DIRECTIONS;  // the other bits of a mask are the library's own
    const PoolLease pool = PoolLease::OfId(id_of(handler));
    if (!pool) {
        return -1;
    }
    if (!pool->m_mux.CanWatch()) {
        INFRA_LOG_STATIC(2, "RegisterSock pool can't watch sockets, fd: %d\n", fd);
        return -1;
    }
    const int time_out_ms = time_out / 1000;
    BTree& tree = pool->m_sock_tree;
    tree.WriteLock();
    if (CEvent* known = static_cast<CEvent*>(tree.FindLocked(fd))) {
        tree.Unlock();
        modify_exist_event(*pool, handler, RecordPin::Adopt(known), type, time_out_ms);
        return 0;
    }
    return register_new_event(*pool, handler, fd, type, time_out_ms);
}

// Entered with the tree's lock held for writing, which it leaves.
int CNetSock::register_new_event(CThreadPool& pool, CNetHandler* handler, int fd, unsigned int type,
                                 int time_out) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    if (tracing() && Flags::passes_type(type) && Flags::matches(fd, id_of(handler))) {
        INFRA_LOG_PLAIN(3,
                        "<Reticor Debug> Enter CNetSock::register_new_event CNetHandler:%p, owner type:%s, "
                        "socket:%lld.\n",
                        static_cast<void*>(handler), class_name(*handler).c_str(), traced(fd));
    }
    CEvent* event = get_event();
    if (event == nullptr) {
        pool.m_sock_tree.Unlock();
        INFRA_LOG_STATIC(2, "RegisterSock no memory, fd: %d\n", fd);
        return -1;
    }
    event->m_key = fd;
    RecordPin pin = RecordPin::Enter(event);
    event->m_obj_id = id_of(handler);
    event->m_event_mask = type;
    event->m_revents = 0;
    event->m_mux_state = 0;
    event->m_timer = SockTimerNode{};
    event->m_timer.m_timer_owner = event;
    if (!pool.m_mux.Enlist(event) || !pool.m_sock_tree.InsertLocked(event)) {
        pool.m_mux.Delist(event);
        pool.m_sock_tree.Unlock();
        pin.Leave();
        put_event(event);
        INFRA_LOG_STATIC(2, "RegisterSock no memory, fd: %d\n", fd);
        return -1;
    }
    pool.m_sock_tree.Unlock();
    if (time_out > 0) {
        sock_timer().Link(event, time_out);
    }
    pool.m_mux.AddEvent(event);
    HandlerInternal::Of(*handler).AddSock();
    return 0;
}

void CNetSock::modify_exist_event(CThreadPool& pool, CNetHandler* handler, RecordPin event, unsigned int type,
                                  int time_out) {
    if (tracing() && Flags::passes_type(type) && Flags::matches(event->m_key, id_of(handler))) {
        INFRA_LOG_PLAIN(3,
                        "<Reticor Debug> Enter CNetSock::modify_exist_event CNetHandler:%p, owner type:%s, "
                        "socket:%lld, m_set_time:%llu, m_revents:%x.\n",
                        static_cast<void*>(handler), class_name(*handler).c_str(), traced(event->m_key),
                        static_cast<unsigned long long>(event->m_timer.m_set_time),
                        static_cast<unsigned int>(revents_now(event.get())));
    }
    const int64_t owner_before = event->m_obj_id;
    if (owner_before != id_of(handler) && drop_room(event.get())) {
        RoomLosses::note();
    }
    const uint32_t sequence = event->m_timer.m_sequence;
    const uint32_t closes = event->m_timer.m_close_count;
    Infra::relaxedStore(event->m_obj_id, static_cast<int64_t>(id_of(handler)));
    clear_flag(event.get(), MUX_ORPHAN);
    if (event->m_timer.m_set_time != 0 || time_out != 0) {
        if (is_in_flight(event.get())) {
            event->m_timer.m_set_time = time_out;  // the worker applies it
        } else {
            reset_timer(event.get(), time_out);
        }
    }
    event->m_event_mask |= type;
    event->m_timer.m_asked |= type;
    if ((event->m_event_mask & SOCK_ROOM) != 0 && (type & SOCK_WRITE) != 0) {
        event->m_event_mask |= SOCK_WRITE_TOO;
    }
    if (is_in_flight(event.get())) {
        // The worker watches the socket again by the new mask. The number may have been closed and reused
        // since the kernel was told.
        set_flag(event.get(), MUX_FORCE);
    } else {
        pool.m_mux.ModifyEvent(event.get());
    }
    if (event->m_event_mask & SOCK_REMOVED) {
        HandlerInternal::Of(*handler).AddSock();
        event->m_event_mask &= ~SOCK_REMOVED;
    }
    if (event->m_timer.m_sequence != sequence) {
        DeadNumbers::NoteReuse(pool, std::move(event), closes, owner_before);
    }
}

int CNetSock::UnregisterSock(CNetHandler* handler, CSock& sock, unsigned int type) {
    const int fd = sock.GetHandle();
    if (tracing() && Flags::passes_type(type) && Flags::passes_density() &&
        Flags::matches(fd, id_of(handler))) {
        INFRA_LOG_PLAIN(3,
                        "<Reticor Debug> Enter CNetSock::UnregisterSock CNetHandler:%p, owner type:%s, "
                        "socket:%lld, type:%d.\n",
                        static_cast<void*>(handler), class_name(*handler).c_str(), traced(fd),
                        static_cast<int>(type));
    }
    type &= SOCK_DIRECTIONS;
    const PoolLease pool = PoolLease::OfId(id_of(handler));
    if (!pool) {
        return 0;
    }
    RecordPin event = RecordPin::Adopt(fd < 0 ? nullptr : static_cast<CEvent*>(pool->m_sock_tree.Find(fd)));
    if (!event || (event->m_event_mask & type) == 0) {
        return 0;
    }
    if ((event->m_event_mask & SOCK_ROOM) != 0 && (type & SOCK_WRITE) != 0) {
        event->m_event_mask &= ~SOCK_WRITE_TOO;
        type &= ~SOCK_WRITE;
    }
    event->m_event_mask &= ~type;
    if ((event->m_event_mask & (SOCK_READ | SOCK_WRITE)) == 0 && CSockTimer::IsLinked(event.get())) {
        sock_timer().Unlink(event.get());
    }
    if (!is_in_flight(event.get())) {
        pool->m_mux.ModifyEvent(event.get());
    }
    return 0;
}

int CNetSock::RemoveSock(CNetHandler* handler, CSock& sock) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    trace_remove("Enter CNetSock::RemoveSock", handler, fd);
    if (fd < 0) {
        // Harmless for a socket that never was registered; else the record stays, and can only be told by its
        // number, which is somebody else's by now.
        if (HandlerInternal::Of(*handler).m_sock.load(std::memory_order_relaxed) != 0) {
            INFRA_LOG_STATIC(2, "RemoveSock closed sock, class: %s, id: %ld, remove it before it is closed\n",
                             class_name(*handler).c_str(), id_of(handler));
        }
        return 0;
    }
    const PoolLease pool = PoolLease::OfId(id_of(handler));
    if (!pool) {
        return 0;
    }
    BTree& tree = pool->m_sock_tree;
    tree.WriteLock();
    RecordPin event = RecordPin::Adopt(static_cast<CEvent*>(tree.FindLocked(fd)));
    if (!event) {
        tree.Unlock();
        return 0;
    }
    if (drop_room(event.get())) {
        RoomLosses::note();
    }
    if (!is_in_flight(event.get())) {
        HandlerInternal::Of(*handler).DecSock();
        remove_sock(std::move(event), *pool);
        trace_remove("CNetSock::RemoveSock &1 ", handler, fd);
        return 0;
    }
    tree.Unlock();
    if ((event->m_event_mask & SOCK_REMOVED) == 0) {
        HandlerInternal::Of(*handler).DecSock();
        // The number may be closed as soon as this returns, so the kernel forgets it now.
        pool->m_mux.Forget(event.get());
        event->m_event_mask = SOCK_REMOVED;
        set_revents(event.get(), REVENT_REMOVED);
        trace_remove("CNetSock::RemoveSock &2 ", handler, fd);
    }
    return 0;
}

// Entered with the tree's lock held for writing, which it leaves; frees the record.
void CNetSock::remove_sock(RecordPin event, CThreadPool& pool) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    CEvent* record = event.get();
    if (tracing() && Flags::matches(record->m_key, record->m_obj_id)) {
        INFRA_LOG_PLAIN(3, "<Reticor Debug> Enter CNetSock::remove_sock  socket:%lld.\n",
                        traced(record->m_key));
    }
    pool.m_mux.Forget(record);
    pool.m_mux.Delist(record);
    pool.m_sock_tree.RemoveLocked(record->m_key);
    pool.m_sock_tree.Unlock();
    if (CSockTimer::IsLinked(record)) {
        sock_timer().Unlink(record);
    }
    event.Leave();
    put_event(record);
}

CNetSock::Registration CNetSock::Look(CNetHandler* handler, CSock& sock) {
    const int fd = sock.GetHandle();
    const PoolLease pool = PoolLease::OfId(id_of(handler));
    if (!pool || fd < 0) {
        return {false, 0};
    }
    RecordPin event = RecordPin::Adopt(static_cast<CEvent*>(pool->m_sock_tree.Find(fd)));
    return event ? Registration{true, event->m_event_mask} : Registration{false, 0};
}

// ---- delivery ------------------------------------------------------------------------------------------

int CNetSock::handle_netevent(CEvent* event) {
    int64_t missing_owner = 0;
    const int ret = deliver(event, missing_owner);
    if (tracing()) {
        trace_delivered(event, ret);
    }
    finish(event, ret, missing_owner);
    return 0;
}

int CNetSock::deliver(CEvent* event, int64_t& missing_owner) {
    const bool timed_out = (revents_now(event) & (REVENT_READ_TIMEOUT | REVENT_WRITE_TIMEOUT)) != 0;
    return timed_out ? handle_timeout(event, missing_owner) : handle_net(event, missing_owner);
}

namespace {

// m_revents is read anew at each test: a removal in between replaces it, and selects no further call.
int call(const CEvent* event, CNetHandler& handler, int fd) {
    int ret = -1;
    if (revents_now(event) & REVENT_EXCEPT) {
        const CallMark mark(handler, CallKind::EXCEPTION);
        return handler.handle_exception(fd);
    }
    if (revents_now(event) & REVENT_READ) {
        const CallMark mark(handler, CallKind::INPUT);
        ret = handler.handle_input(fd);
    }
    if (revents_now(event) & REVENT_WRITE) {
        const CallMark mark(handler, CallKind::OUTPUT);
        ret = handler.handle_output(fd);
    }
    return ret;
}

/// The calls of one delivery are timed together.
__attribute__((noinline, cold)) int call_timed(const CEvent* event, CNetHandler& handler, int fd) {
    const CallTime time(handler, Timing::Taken(event->m_stamp_ns));
    return call(event, handler, fd);
}

}  // namespace

int CNetSock::handle_net(CEvent* event, int64_t& missing_owner) {
    const int64_t owner = Infra::relaxedLoad(event->m_obj_id);
    HandlerPin handler = PoolTable::FindHandler(owner);
    if (!handler) {
        missing_owner = owner;
        return -1;
    }
    if (tracing()) {
        trace_call("net", "begin", event, handler);
    }
    const int fd = static_cast<int>(event->m_key);
    INFRA_PROMISE(HANDLER);
    const int ret = __builtin_expect(event->m_stamp_ns != 0, 0) ? call_timed(event, *handler.get(), fd)
                                                                : call(event, *handler.get(), fd);
    if (tracing()) {
        trace_call("net", "end", event, handler);
    }
    return ret;
}

int CNetSock::handle_timeout(CEvent* event, int64_t& missing_owner) {
    const int64_t owner = Infra::relaxedLoad(event->m_obj_id);
    HandlerPin handler = PoolTable::FindHandler(owner);
    if (!handler) {
        missing_owner = owner;
        return -1;
    }
    if (tracing()) {
        trace_call("timeout", "begin", event, handler);
    }
    const int fd = static_cast<int>(event->m_key);
    if (revents_now(event) & REVENT_READ_TIMEOUT) {
        const CallMark mark(*handler.get(), CallKind::INPUT_TIMEOUT);
        handler->handle_input_timeout(fd);
    } else if (revents_now(event) & REVENT_WRITE_TIMEOUT) {
        const CallMark mark(*handler.get(), CallKind::OUTPUT_TIMEOUT);
        handler->handle_output_timeout(fd);
    }
    if (tracing()) {
        trace_call("timeout", "end", event, handler);
    }
    return -1;
}

// The second half of a delivery: the record is idle again, or, if its removal is pending, freed.
void CNetSock::finish(CEvent* record, int ret, int64_t missing_owner) {
    RecordPin event = RecordPin::Enter(record);
    // No lease: a worker of the pool runs this.
    CThreadPool* pool = PoolTable::Get(INDEX_OF_ID(static_cast<long>(event->m_obj_id)));
    while (event->m_event_mask & SOCK_REMOVED) {
        event.Leave();
        if (free_removed(record, *pool)) {
            return;
        }
        event = RecordPin::Enter(record);  // not removed a moment ago, but perhaps again by now
    }
    if (event->m_revents & REVENT_REMOVED) {
        ret = 0;  // removed and registered again while the handler ran
    }
    set_revents(record, 0);
    clear_flag(record, MUX_BUSY);
    const uint32_t closes = event->m_timer.m_close_count;
    // A registration meanwhile may have named an owner that this delivery did not look for.
    const bool is_same = pool->m_mux.Rearm(record, event->m_obj_id != missing_owner);
    if (!is_same) {
        ret = 0;  // as if removed and registered again: the call was about an earlier socket
    }
    if ((event->m_event_mask & SOCK_ROOM) != 0 && (missing_owner != 0 || !RoomWatch::is_placed(record))) {
        RoomLosses::note();
    }
    const int stored = event->m_timer.m_set_time;
    if (ret == 0 && stored > 0) {
        reset_timer(record, stored);
    } else {
        reset_timer(record, ret > 0 ? ret / 1000 : ret);
    }
    if (!is_same) {
        const int64_t owner = event->m_obj_id;
        DeadNumbers::NoteReuse(*pool, std::move(event), closes, owner);
    }
}

// The tree's lock comes before the record's, so the removal is looked at again under both: it may have been
// cancelled by a registration meanwhile.
bool CNetSock::free_removed(CEvent* record, CThreadPool& pool) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    pool.m_sock_tree.WriteLock();
    RecordPin event = RecordPin::Enter(record);
    if ((event->m_event_mask & SOCK_REMOVED) == 0) {
        pool.m_sock_tree.Unlock();
        return false;
    }
    remove_sock(std::move(event), pool);
    return true;
}

void CNetSock::reset_timer(CEvent* event, int time_out) {
    if (tracing() && Flags::passes_density() && Flags::matches(event->m_key, event->m_obj_id)) {
        INFRA_LOG_PLAIN(3, "<Reticor Debug> Enter CNetSock::reset_timer timt_out:%d, socket:%d.\n", time_out,
                        static_cast<int>(event->m_key));
    }
    if (time_out > 0) {
        if (CSockTimer::IsLinked(event)) {
            sock_timer().Update(event, time_out);
        } else {
            sock_timer().Link(event, time_out);
        }
    } else if (CSockTimer::IsLinked(event)) {
        sock_timer().Unlink(event);
    }
}

// ---- process level -------------------------------------------------------------------------------------

int InitSocketLibrary() {
    return sock_timer().Start();
}

int CleanupSocketLibrary() {
    return 0;
}

int StopSockTimer() {
    sock_timer().Stop();
    return 0;
}

}  // namespace Orvex::Reticor
