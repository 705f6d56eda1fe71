// CMultiplexer: the readiness wait of one pool.
#include "Core/watch/Select_win.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Core/count/Points.h"
#include "Core/count/Timing.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

CMultiplexer::CMultiplexer(int pool_index, BTree& sock_tree, CWorkQueue& queue)
    : m_pool_index(pool_index), m_sock_tree(sock_tree), m_queue(queue) {}

int CMultiplexer::Init() {
    if (!m_epoll.Open() || !m_waker.Open()) {
        INFRA_LOG(2, "%s :CreatePipe failed!\n", INFRA_FUNCTION);
        return -1;
    }
    m_book.TakeForWakeEnd();
    return 0;
}

void CMultiplexer::WakeUp() {
    if (m_epoll.IsOpen()) {
        note(m_waker.Wake());
    } else {
        m_blind.post();
    }
}

void CMultiplexer::note(Waker::Pair pair) {
    if (pair == Waker::Pair::renewed) {
        INFRA_LOG(2, "pool %d: the wake pair was broken, a new one is built\n", m_pool_index);
    } else if (pair == Waker::Pair::lost) {
        INFRA_LOG(2, "pool %d: the wake pair was broken, and a new one failed\n", m_pool_index);
    }
}

// ---- operations on a record ------------------------------------------------------------------------------

bool CMultiplexer::Enlist(CEvent* ev) {
    if (!m_records.Add(ev)) {
        return false;
    }
    m_epoll.Enlist(ev);
    number(ev);
    m_sockets.store(m_sockets.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

void CMultiplexer::number(CEvent* ev) {
    ev->m_timer.m_sequence = m_sequence.fetch_add(1, std::memory_order_relaxed) + 1;
}

void CMultiplexer::Delist(CEvent* ev) {
    if (m_records.Remove(ev)) {
        m_sockets.store(m_sockets.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    }
}

CMultiplexer::Figures CMultiplexer::GetFigures() const {
    return {m_reported.Get(),
            m_strayed.Get(),
            m_rebuilt.Get(),
            m_refusals.load(std::memory_order_relaxed),
            m_sockets.load(std::memory_order_relaxed),
            m_book.WithoutPlace(),
            {m_book.Left(0), m_book.Left(1), m_book.Left(2)}};
}

int CMultiplexer::AddEvent(CEvent* ev) {
    m_book.Add(ev);
    arm(ev, mux_book(ev), true);
    return 0;
}

int CMultiplexer::ModifyEvent(CEvent* ev) {
    m_book.Remove(ev);
    m_book.Add(ev);
    arm(ev, mux_book(ev), true);
    return 0;
}

int CMultiplexer::RemoveEvent(CEvent* ev) {
    m_book.Remove(ev);
    return 0;
}

bool CMultiplexer::Rearm(CEvent* ev, bool owner_found) {
    const uint32_t sequence = ev->m_timer.m_sequence;
    m_book.Add(ev);
    if (owner_found) {
        arm(ev, mux_book(ev), has_flag(ev, MUX_FORCE));
        return ev->m_timer.m_sequence == sequence;
    }
    if (!has_flag(ev, MUX_ORPHAN)) {
        set_flag(ev, MUX_ORPHAN);
        INFRA_LOG(3,
                  "pool %d: the handler of ready socket %d is gone, the socket rests until it is registered "
                  "again\n",
                  m_pool_index, static_cast<int>(ev->m_key));
    }
    arm(ev, 0, true);
    return ev->m_timer.m_sequence == sequence;
}

void CMultiplexer::Forget(CEvent* ev) {
    m_book.Forget(ev);
    if (mux_form(ev) == MuxForm::always) {
        m_always.Remove(ev);
    } else if (kernel_knows(mux_form(ev))) {
        // A number that was closed has left the kernel's set by itself.
        m_epoll.Tell(ev, EPOLL_CTL_DEL, 0);
    }
    ev->m_timer.m_asked = 0;
    set_kernel_state(ev, MuxForm::out, 0);
}

// ---- the kernel ----------------------------------------------------------------------------------------

void CMultiplexer::set_kernel_state(CEvent* ev, MuxForm form, uint32_t armed) {
    clear_flag(ev,
               static_cast<uint16_t>(7u << MUX_FORM_SHIFT | SOCK_DIRECTIONS << MUX_ARMED_SHIFT | MUX_FORCE));
    set_flag(ev, static_cast<uint16_t>(static_cast<unsigned int>(form) << MUX_FORM_SHIFT |
                                       armed << MUX_ARMED_SHIFT));
}

/// The one place that decides how the kernel watches a socket for the `admitted` directions. Does nothing if
/// it does so already and the number was not closed meanwhile, unless `force` is set.
void CMultiplexer::arm(CEvent* ev, uint32_t admitted, bool force) {
    const uint32_t closes = close_count(static_cast<int>(ev->m_key));
    const MuxForm form = mux_form(ev);
    if (!force && ev->m_timer.m_close_count == closes) {
        if (form == MuxForm::always) {
            WakeUp();  // the wait only looks while such a socket is idle
            return;
        }
        if (form == form_for(admitted) && mux_armed(ev) == admitted) {
            return;
        }
    }
    ev->m_timer.m_close_count = closes;
    if (form == MuxForm::gone) {
        replace_registration(ev, Answer::none);
    } else {
        const Answer answer = ask(ev, admitted);
        if (names_another_file(form, answer)) {
            replace_registration(ev, answer);
        } else {
            settle(ev, answer, admitted);
        }
    }
    ev->m_timer.m_asked = 0;
}

/// Tells the kernel, which knows the socket by its file and its number.
CMultiplexer::Answer CMultiplexer::ask(CEvent* ev, uint32_t admitted) {
    const uint32_t events = admitted != 0 ? kernel_bits(admitted) : uint32_t{EPOLLONESHOT};
    const bool known = kernel_knows(mux_form(ev));
    if (m_epoll.Tell(ev, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, events) ||
        (errno == EEXIST && m_epoll.Tell(ev, EPOLL_CTL_MOD, events))) {
        return Answer::watched;
    }
    switch (errno) {
        case EPERM:
            return Answer::always_ready;
        case ENOENT:
            return Answer::unknown;
        case ENOMEM:
        case ENOSPC:
            return Answer::refused;
        default:
            return Answer::none;
    }
}

/// Whether the number turned out to be another file than the one that was registered.
bool CMultiplexer::names_another_file(MuxForm form, Answer answer) {
    if (form == MuxForm::always) {
        return answer == Answer::watched;
    }
    return kernel_knows(form) && (answer == Answer::unknown || answer == Answer::always_ready);
}

void CMultiplexer::settle(CEvent* ev, Answer answer, uint32_t admitted) {
    if (mux_form(ev) == MuxForm::always && answer != Answer::always_ready) {
        m_always.Remove(ev);
    }
    if (answer == Answer::watched) {
        set_kernel_state(ev, form_for(admitted), admitted);
    } else if (answer == Answer::always_ready) {
        set_always(ev);
    } else if (answer == Answer::refused) {
        set_refused(ev, errno);
    } else {
        set_kernel_state(ev, MuxForm::gone, 0);  // a dead number: silent, and it keeps its places
    }
}

/// The number was closed while it was registered. What it names now is watched if it was registered as well,
/// for what that registration asks, under a number of its own: reports of the former file, of which a copy
/// may live on, do not reach it. Otherwise nobody asked for it. `answer` is what the kernel said to the mask
/// of both.
void CMultiplexer::replace_registration(CEvent* ev, Answer answer) {
    if (mux_form(ev) == MuxForm::always) {
        m_always.Remove(ev);
        if (answer == Answer::watched) {
            m_epoll.Tell(ev, EPOLL_CTL_DEL, 0);
        }
    }
    set_kernel_state(ev, MuxForm::gone, 0);
    if (ev->m_timer.m_asked == 0) {
        return;
    }
    m_book.Remove(ev);
    if (drop_room(ev)) {
        RoomLosses::note();
    }
    ev->m_event_mask = ev->m_timer.m_asked | (ev->m_event_mask & SOCK_REMOVED);
    m_book.Add(ev);
    number(ev);
    const uint32_t admitted = has_flag(ev, MUX_ORPHAN) ? 0 : mux_book(ev);
    answer = ask(ev, admitted);
    settle(ev, answer, admitted);
    if (mux_form(ev) != MuxForm::gone) {
        INFRA_LOG(3,
                  "pool %d: socket %d was closed without RemoveSock, its number is another socket's: the new "
                  "registration alone counts\n",
                  m_pool_index, static_cast<int>(ev->m_key));
    }
}

/// Met again in flight: silent until its worker has finished, and then armed anew.
void CMultiplexer::park(CEvent* ev) {
    const bool parked = m_epoll.Tell(ev, EPOLL_CTL_MOD, EPOLLONESHOT);
    set_kernel_state(ev, parked ? MuxForm::parked : MuxForm::gone, 0);
}

void CMultiplexer::set_always(CEvent* ev) {
    if (mux_form(ev) != MuxForm::always && !m_always.Add(ev)) {
        set_refused(ev, ENOMEM);
        return;
    }
    set_kernel_state(ev, MuxForm::always, 0);
    WakeUp();
}

/// The socket keeps its places, and the wait looks at it again from time to time.
void CMultiplexer::set_refused(CEvent* ev, int error) {
    m_refusals.fetch_add(1, std::memory_order_relaxed);
    if (mux_form(ev) != MuxForm::refused) {
        INFRA_LOG(2, "pool %d: socket %d is not watched yet, the system refused it, %s\n", m_pool_index,
                  static_cast<int>(ev->m_key), GetSockErrorText(error).c_str());
    }
    set_kernel_state(ev, MuxForm::refused, 0);
    if (!m_refused.exchange(true, std::memory_order_relaxed)) {
        WakeUp();  // the wait has to know that it is to look
    }
}

/// A condition that nobody asked for would be reported for ever: from here on only its changes are.
void CMultiplexer::quieten(CEvent* ev) {
    if (mux_form(ev) != MuxForm::level) {
        return;  // parked: its one stray report is spent; edge: a change that does not matter
    }
    const bool quiet = m_epoll.Tell(ev, EPOLL_CTL_MOD, kernel_bits(mux_book(ev)) | EPOLLET);
    set_kernel_state(ev, quiet ? MuxForm::edge : MuxForm::gone, quiet ? mux_book(ev) : 0);
}

// ---- the wait ------------------------------------------------------------------------------------------

void CMultiplexer::Wait(CEvent* token) {
    m_pace.TokenBack();
    Ready ready;
    if (!m_epoll.IsOpen()) {
        m_queue.PollerMayWait() ? m_blind.pend() : m_blind.pend(0);
    } else {
        collect(harvest(), ready);
    }
    if (m_rebuild) {
        rebuild();
    }
    if (m_refused.load(std::memory_order_relaxed)) {
        retry_refused();
    }
    m_queue.PushReady(ready.head, ready.count, token, m_pace.WorkersFor(ready.count));
}

/// The number of reports; 0 for an interruption or a failure.
int CMultiplexer::harvest() {
    if (m_rebuild && m_queue.PollerMayWait()) {
        m_waker.Pause(REBUILD_PAUSE_MS);  // the report that cannot be got rid of would end each wait at once
    }
    const int reports = m_epoll.Wait(m_reports.data(), BATCH, wait_limit());
    if (reports < 0 && errno != EINTR) {
        const int error = errno;
        INFRA_LOG(2, "select failed!%d,%s\n", error, GetSockErrorText(error).c_str());
    }
    m_reported.Add(static_cast<uint64_t>(std::max(reports, 0)));
    return std::max(reports, 0);
}

int CMultiplexer::wait_limit() {
    if (!m_queue.PollerMayWait() || (!m_always.IsEmpty() && always_pending())) {
        return 0;
    }
    if (!m_waker.IsOpen()) {
        const Waker::Pair pair = m_waker.Restore();
        if (pair != Waker::Pair::renewed) {
            return BLIND_WAIT_MS;
        }
        note(pair);
    }
    return m_refused.load(std::memory_order_relaxed) ? RETRY_MS : -1;
}

/// Tells the kernel once more of the sockets that it had no room for. One in flight is left to its worker.
void CMultiplexer::retry_refused() {
    const uint64_t now_ms = Infra::CTime::getCurrentMilliSecond();
    if (now_ms - m_last_retry_ms < RETRY_MS) {
        return;
    }
    m_last_retry_ms = now_ms;
    m_refused.store(false, std::memory_order_relaxed);
    m_sock_tree.ReadLock();
    m_sock_tree.ForEach([this](void* payload) {
        CEvent* ev = static_cast<CEvent*>(payload);
        RecordPin pin = RecordPin::Enter(ev);
        if (mux_form(ev) == MuxForm::refused && !is_in_flight(ev)) {
            arm(ev, has_flag(ev, MUX_ORPHAN) ? 0 : mux_book(ev), true);
        }
    });
    m_sock_tree.Unlock();
}

void CMultiplexer::collect(int reports, Ready& ready) {
    const bool always = !m_always.IsEmpty();
    if (reports == 0 && !always) {
        return;
    }
    m_stamp_ns = Timing::Stamp();
    m_sock_tree.ReadLock();
    for (int i = 0; i < reports; ++i) {
        if (m_reports[static_cast<size_t>(i)].data.u64 == EpollSet::WAKE_MARK) {
            note(m_waker.Drain());
        } else {
            report(m_reports[static_cast<size_t>(i)], ready);
        }
    }
    if (always) {
        collect_always(ready);
    }
    m_sock_tree.Unlock();
    m_book.GiveBack(ready.freed);
}

void CMultiplexer::report(const epoll_event& report, Ready& ready) {
    const uint64_t mark_seen = report.data.u64;
    CEvent* ev = m_records.Find(handle_in_mark(mark_seen));
    if (ev == nullptr) {
        stray(mark_seen);
        return;
    }
    RecordPin pin = RecordPin::Enter(ev);
    if (mark_of(ev) != mark_seen || mux_form(ev) == MuxForm::out || mux_form(ev) == MuxForm::gone) {
        stray(mark_seen);
        return;
    }
    if (is_in_flight(ev)) {
        if (mux_form(ev) != MuxForm::parked) {
            park(ev);
        }
        return;
    }
    const int16_t revents = has_flag(ev, MUX_ORPHAN) ? int16_t{0} : delivered(report.events, mux_book(ev));
    if (revents == 0) {
        quieten(ev);
        return;
    }
    mark(ev, revents, ready);
}

/// A report of nobody, of an earlier registration, or of a closed number. One that lasts has the whole
/// instance built anew.
void CMultiplexer::stray(uint64_t mark_seen) {
    m_strayed.Increment();
    m_rebuild = m_strays.ComesAgain(mark_seen) || m_rebuild;
}

void CMultiplexer::mark(CEvent* ev, int16_t revents, Ready& ready) {
    set_revents(ev, revents);
    ev->m_stamp_ns = m_stamp_ns;
    Points::Ready(ev->m_key, revents, ev->m_obj_id);
    ev->m_timer.m_sock_deadline = 0;  // an idle time-out rests while the socket is in flight
    SetBook::Leave(ev, ready.freed);
    ev->m_next = nullptr;
    if (ready.head == nullptr) {
        ready.head = ev;
    } else {
        ready.tail->m_next = ev;
    }
    ready.tail = ev;
    ++ready.count;
}

/// A part of rebuild: the kernel watches the record as before, but in the new instance.
void CMultiplexer::move_over(CEvent* ev) {
    const bool watched = kernel_knows(mux_form(ev));
    const uint32_t armed = mux_armed(ev);
    const uint16_t force = ev->m_mux_state & MUX_FORCE;
    if (!m_epoll.MoveOver(ev)) {
        set_kernel_state(ev, MuxForm::gone, 0);
    } else if (watched) {
        set_kernel_state(ev, MuxForm::out, 0);
        settle(ev, ask(ev, armed), armed);
    }
    set_flag(ev, force);
}

/// Puts every record into a new instance. The tree's write lock keeps records from coming and going, and
/// whoever holds a record's mutex meanwhile tells the instance in which it still is.
void CMultiplexer::rebuild() {
    if (!m_waker.ReplaceEpoll()) {
        if (!m_rebuild_failed) {
            const int error = errno;
            INFRA_LOG(
                2, "pool %d: a closed socket is still reported, and watching all sockets anew failed, %s\n",
                m_pool_index, GetSockErrorText(error).c_str());
        }
        m_rebuild_failed = true;
        return;
    }
    m_rebuild = false;
    m_rebuild_failed = false;
    m_rebuilt.Increment();
    m_strays.Reset();
    INFRA_LOG(3, "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n");
    m_sock_tree.WriteLock();
    m_sock_tree.ForEach([this](void* payload) {
        CEvent* ev = static_cast<CEvent*>(payload);
        RecordPin pin = RecordPin::Enter(ev);
        move_over(ev);
    });
    m_sock_tree.Unlock();
    m_epoll.CloseFormer();
}

// ---- always ready --------------------------------------------------------------------------------------

// Both walk the list with the socket tree's lock held for reading, so that no record goes away; the list's
// own mutex is a leaf and not held while a record's is entered.

bool CMultiplexer::always_pending() {
    m_sock_tree.ReadLock();
    const std::vector<CEvent*>* always = m_always.Snapshot();
    bool pending = always == nullptr;
    for (size_t i = 0; !pending && i < always->size(); ++i) {
        RecordPin pin = RecordPin::Enter((*always)[i]);
        const CEvent* ev = pin.get();
        pending = !is_in_flight(ev) && (mux_book(ev) & (SOCK_READ | SOCK_WRITE)) && !has_flag(ev, MUX_ORPHAN);
    }
    m_sock_tree.Unlock();
    return pending;
}

void CMultiplexer::collect_always(Ready& ready) {
    const std::vector<CEvent*>* always = m_always.Snapshot();
    if (always == nullptr) {
        return;
    }
    for (CEvent* ev : *always) {
        RecordPin pin = RecordPin::Enter(ev);
        const int16_t revents = delivered(EPOLLIN | EPOLLOUT, mux_book(ev));
        if (mux_form(ev) == MuxForm::always && !is_in_flight(ev) && revents != 0 &&
            !has_flag(ev, MUX_ORPHAN)) {
            mark(ev, revents, ready);
        }
    }
}

}  // namespace Orvex::Reticor
