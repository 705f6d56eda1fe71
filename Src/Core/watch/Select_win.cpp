// CMultiplexer: the readiness wait of one pool.
#include "Core/watch/Select_win.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <Infra/Log.h>

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
        m_waker.Wake();
    } else {
        m_blind.post();
    }
}

// ---- operations on a record ------------------------------------------------------------------------------

bool CMultiplexer::Enlist(CEvent* ev) {
    if (!m_records.Add(ev)) {
        return false;
    }
    ev->m_timer.m_sequence = ++m_sequence;
    return true;
}

void CMultiplexer::Delist(CEvent* ev) {
    m_records.Remove(ev);
}

int CMultiplexer::AddEvent(CEvent* ev) {
    m_book.Add(ev);
    arm(ev, muxBook(ev), true);
    return 0;
}

int CMultiplexer::ModifyEvent(CEvent* ev) {
    m_book.Remove(ev);
    m_book.Add(ev);
    arm(ev, muxBook(ev), true);
    return 0;
}

int CMultiplexer::RemoveEvent(CEvent* ev) {
    m_book.Remove(ev);
    return 0;
}

void CMultiplexer::Rearm(CEvent* ev, bool owner_found) {
    m_book.Add(ev);
    if (owner_found) {
        arm(ev, muxBook(ev), hasFlag(ev, MUX_FORCE));
        return;
    }
    if (!hasFlag(ev, MUX_ORPHAN)) {
        setFlag(ev, MUX_ORPHAN);
        INFRA_LOG(3,
                  "pool %d: the handler of ready socket %d is gone, the socket rests until it is registered "
                  "again\n",
                  m_pool_index, static_cast<int>(ev->m_key));
    }
    arm(ev, 0, true);
}

void CMultiplexer::Forget(CEvent* ev) {
    m_book.Remove(ev);
    if (muxForm(ev) == MuxForm::always) {
        leave_always(ev);
    } else if (muxForm(ev) != MuxForm::out) {
        // A number that was closed has left the kernel's set by itself.
        m_epoll.Tell(ev, EPOLL_CTL_DEL, 0);
    }
    set_kernel_state(ev, MuxForm::out, 0);
}

// ---- the kernel ----------------------------------------------------------------------------------------

void CMultiplexer::set_kernel_state(CEvent* ev, MuxForm form, uint32_t armed) {
    clearFlag(ev,
              static_cast<uint16_t>(7u << MUX_FORM_SHIFT | SOCK_DIRECTIONS << MUX_ARMED_SHIFT | MUX_FORCE));
    setFlag(ev, static_cast<uint16_t>(static_cast<unsigned int>(form) << MUX_FORM_SHIFT |
                                      armed << MUX_ARMED_SHIFT));
}

/// The one place that decides how the kernel watches a socket for the `admitted` directions. Does nothing if
/// it does so already and the number was not closed meanwhile, unless `force` is set.
void CMultiplexer::arm(CEvent* ev, uint32_t admitted, bool force) {
    const int fd = static_cast<int>(ev->m_key);
    const uint32_t closes = closeCount(fd);
    const bool same_number = !force && ev->m_timer.m_close_count == closes;
    const MuxForm form = muxForm(ev);
    if (form == MuxForm::always) {
        if (same_number) {
            WakeUp();  // the wait only looks while such a socket is idle
            return;
        }
        leave_always(ev);  // the number may name something else now
    }
    const MuxForm wanted = admitted != 0 ? MuxForm::level : MuxForm::parked;
    if (same_number && form == wanted && muxArmed(ev) == admitted) {
        return;
    }
    ev->m_timer.m_close_count = closes;
    if (tell_kernel(ev, admitted != 0 ? kernelBits(admitted) : uint32_t{EPOLLONESHOT})) {
        set_kernel_state(ev, wanted, admitted);
    } else if (errno == EPERM) {
        set_always(ev);
    } else {
        set_kernel_state(ev, MuxForm::out, 0);  // a dead number: silent, and it keeps its places
    }
}

bool CMultiplexer::tell_kernel(CEvent* ev, uint32_t events) {
    const int first = muxForm(ev) == MuxForm::out ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (m_epoll.Tell(ev, first, events)) {
        return true;
    }
    // The kernel forgets a number that is closed, and a number may come back while we still know it.
    if (errno == ENOENT || errno == EEXIST) {
        return m_epoll.Tell(ev, first == EPOLL_CTL_ADD ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, events);
    }
    return false;
}

/// Met again in flight: silent until its worker has finished, and then armed anew.
void CMultiplexer::park(CEvent* ev) {
    const bool parked = tell_kernel(ev, EPOLLONESHOT);
    set_kernel_state(ev, parked ? MuxForm::parked : MuxForm::out, 0);
}

void CMultiplexer::set_always(CEvent* ev) {
    if (!m_always.Add(ev)) {
        set_kernel_state(ev, MuxForm::out, 0);
        return;
    }
    set_kernel_state(ev, MuxForm::always, 0);
    WakeUp();
}

void CMultiplexer::leave_always(CEvent* ev) {
    set_kernel_state(ev, MuxForm::out, 0);
    m_always.Remove(ev);
}

/// A condition that nobody asked for would be reported for ever: from here on only its changes are.
void CMultiplexer::quieten(CEvent* ev) {
    if (muxForm(ev) != MuxForm::level) {
        return;  // parked: its one stray report is spent; edge: a change that does not matter
    }
    if (tell_kernel(ev, kernelBits(muxBook(ev)) | EPOLLET)) {
        set_kernel_state(ev, MuxForm::edge, muxBook(ev));
    }
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
    m_queue.PushReady(ready.head, ready.count, token, m_pace.WorkersFor(ready.count));
}

/// The number of reports; 0 for an interruption or a failure.
int CMultiplexer::harvest() {
    int limit = m_waker.IsOpen() ? -1 : BLIND_WAIT_MS;
    if (!m_queue.PollerMayWait() || (!m_always.IsEmpty() && always_pending())) {
        limit = 0;
    }
    const int reports = m_epoll.Wait(m_reports.data(), BATCH, limit);
    if (reports < 0 && errno != EINTR) {
        const int error = errno;
        INFRA_LOG(2, "select failed!%d,%s\n", error, GetSockErrorText(error).c_str());
    }
    return std::max(reports, 0);
}

void CMultiplexer::collect(int reports, Ready& ready) {
    const bool always = !m_always.IsEmpty();
    if (reports == 0 && !always) {
        return;
    }
    m_sock_tree.ReadLock();
    for (int i = 0; i < reports; ++i) {
        if (m_reports[static_cast<size_t>(i)].data.u64 == EpollSet::WAKE_MARK) {
            m_waker.Drain();
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
    CEvent* ev = m_records.Find(handleOf(mark_seen));
    if (ev == nullptr || markOf(ev) != mark_seen) {
        // A report that lasts has the whole instance built anew.
        m_rebuild = m_strays.ComesAgain(mark_seen) || m_rebuild;
        return;
    }
    RecordPin pin = RecordPin::Enter(ev);
    if (inFlight(ev)) {
        if (muxForm(ev) == MuxForm::level || muxForm(ev) == MuxForm::edge) {
            park(ev);
        }
        return;
    }
    const int16_t revents = hasFlag(ev, MUX_ORPHAN) ? int16_t{0} : delivered(report.events, muxBook(ev));
    if (revents == 0) {
        quieten(ev);
        return;
    }
    mark(ev, revents, ready);
}

void CMultiplexer::mark(CEvent* ev, int16_t revents, Ready& ready) {
    setRevents(ev, revents);
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

/// Puts every record into a new instance. The tree's write lock keeps records from coming and going; who
/// holds a record's mutex meanwhile tells one instance or the other, and the record is told to the new one
/// after that.
void CMultiplexer::rebuild() {
    m_rebuild = false;
    m_strays.Reset();
    const int old = m_waker.ReplaceEpoll();
    if (old == -1) {
        return;
    }
    INFRA_LOG(3, "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n");
    m_sock_tree.WriteLock();
    m_sock_tree.ForEach([this](void* payload) {
        CEvent* ev = static_cast<CEvent*>(payload);
        RecordPin pin = RecordPin::Enter(ev);
        if (muxForm(ev) != MuxForm::out && muxForm(ev) != MuxForm::always) {
            const uint32_t armed = muxArmed(ev);
            set_kernel_state(ev, MuxForm::out, 0);
            arm(ev, armed, true);
        }
    });
    m_sock_tree.Unlock();
    ::close(old);
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
        pending = !inFlight(ev) && (muxBook(ev) & (SOCK_READ | SOCK_WRITE)) && !hasFlag(ev, MUX_ORPHAN);
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
        const int16_t revents = delivered(EPOLLIN | EPOLLOUT, muxBook(ev));
        if (muxForm(ev) == MuxForm::always && !inFlight(ev) && revents != 0 && !hasFlag(ev, MUX_ORPHAN)) {
            mark(ev, revents, ready);
        }
    }
}

}  // namespace Orvex::Reticor
