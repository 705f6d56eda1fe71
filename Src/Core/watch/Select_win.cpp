// CMultiplexer: the readiness wait of one pool.
#include "Core/watch/Select_win.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <Infra/Log.h>

#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

// How the kernel's bits are the three directions, as select(2) has it.
constexpr uint32_t READ_REPORTS = EPOLLIN | EPOLLHUP | EPOLLERR;
constexpr uint32_t WRITE_REPORTS = EPOLLOUT | EPOLLERR;

/// For the kernel. EPOLLHUP and EPOLLERR are reported unasked.
uint32_t kernel_bits(uint32_t directions) {
    return (directions & SOCK_READ ? uint32_t{EPOLLIN} : 0) |
           (directions & SOCK_WRITE ? uint32_t{EPOLLOUT} : 0) |
           (directions & SOCK_EXCEPT ? uint32_t{EPOLLPRI} : 0);
}

/// What of a report goes to the handler, of the directions that have a place in the sets. An exception hides
/// the others.
int16_t delivered(uint32_t reported, uint32_t admitted) {
    if ((admitted & SOCK_EXCEPT) && (reported & EPOLLPRI)) {
        return REVENT_EXCEPT;
    }
    const int read = (admitted & SOCK_READ) && (reported & READ_REPORTS) ? REVENT_READ : 0;
    const int write = (admitted & SOCK_WRITE) && (reported & WRITE_REPORTS) ? REVENT_WRITE : 0;
    return static_cast<int16_t>(read | write);
}

uint64_t mark_of(const CEvent* ev) {
    return uint64_t{ev->m_timer.m_sequence} << 32 | static_cast<uint32_t>(ev->m_key);
}

}  // namespace

CMultiplexer::CMultiplexer(int pool_index, BTree& sock_tree, CWorkQueue& queue)
    : m_pool_index(pool_index), m_sock_tree(sock_tree), m_queue(queue) {
    for (std::atomic<int>& places : m_places) {
        places.store(0, std::memory_order_relaxed);
    }
}

CMultiplexer::~CMultiplexer() {
    close_pipe();
    if (m_epoll != -1) {
        ::close(m_epoll);
    }
}

int CMultiplexer::Init() {
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll == -1 || !m_pipe.CreatePipe(false) || !watch_pipe(m_epoll)) {
        INFRA_LOG(2, "%s :CreatePipe failed!\n", INFRA_FUNCTION);
        close_pipe();
        return -1;
    }
    // The wake end has a place in the read set for the life of the pool.
    m_places[0].store(1, std::memory_order_relaxed);
    return 0;
}

bool CMultiplexer::watch_pipe(int epoll) {
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = WAKE_MARK;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, m_pipe.m_read_fd, &interest) == 0;
}

void CMultiplexer::close_pipe() {
    for (int* fd : {&m_pipe.m_read_fd, &m_pipe.m_write_fd}) {
        if (*fd != -1) {
            CWINPipe::Close(*fd);
            *fd = -1;
        }
    }
}

// ---- the book ------------------------------------------------------------------------------------------

bool CMultiplexer::take_place(int direction) {
    std::atomic<int>& places = m_places[direction];
    int taken = places.load(std::memory_order_relaxed);
    while (taken < FD_CAPACITY) {
        if (places.compare_exchange_weak(taken, taken + 1, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void CMultiplexer::book_add(CEvent* ev) {
    uint32_t book = muxBook(ev);
    if (((ev->m_event_mask & SOCK_DIRECTIONS) & ~book) == 0) {
        return;
    }
    for (int direction = 0; direction < 3; ++direction) {
        const uint32_t bit = SOCK_READ << direction;
        if ((ev->m_event_mask & bit) && !(book & bit) && take_place(direction)) {
            book |= bit;
        }
    }
    clearFlag(ev, static_cast<uint16_t>(SOCK_DIRECTIONS << MUX_BOOK_SHIFT));
    setFlag(ev, static_cast<uint16_t>(book << MUX_BOOK_SHIFT));
}

void CMultiplexer::book_remove(CEvent* ev) {
    Places freed{};
    leave_places(ev, freed);
    give_back(freed);
}

void CMultiplexer::leave_places(CEvent* ev, Places& freed) {
    const uint32_t book = muxBook(ev);
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        freed[direction] += book >> direction & 1;
    }
    clearFlag(ev, static_cast<uint16_t>(SOCK_DIRECTIONS << MUX_BOOK_SHIFT));
}

void CMultiplexer::give_back(const Places& freed) {
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        if (freed[direction] != 0) {
            m_places[direction].fetch_sub(static_cast<int>(freed[direction]), std::memory_order_relaxed);
        }
    }
}

// ---- operations on a record ------------------------------------------------------------------------------

CEvent** CMultiplexer::slot(size_t number) {
    const size_t chunk = number / CHUNK;
    return chunk < m_records.size() && m_records[chunk] ? &m_records[chunk][number % CHUNK] : nullptr;
}

void CMultiplexer::Enlist(CEvent* ev) {
    const size_t number = static_cast<size_t>(ev->m_key);
    if (number / CHUNK >= m_records.size()) {
        m_records.resize(number / CHUNK + 1);
    }
    std::unique_ptr<CEvent*[]>& chunk = m_records[number / CHUNK];
    if (!chunk) {
        chunk = std::make_unique<CEvent*[]>(CHUNK);
    }
    chunk[number % CHUNK] = ev;
    ev->m_timer.m_sequence = ++m_sequence;
}

void CMultiplexer::Delist(CEvent* ev) {
    if (CEvent** place = slot(static_cast<size_t>(ev->m_key))) {
        *place = nullptr;
    }
}

int CMultiplexer::AddEvent(CEvent* ev) {
    book_add(ev);
    arm(ev, muxBook(ev), true);
    return 0;
}

int CMultiplexer::ModifyEvent(CEvent* ev) {
    book_remove(ev);
    book_add(ev);
    arm(ev, muxBook(ev), true);
    return 0;
}

int CMultiplexer::RemoveEvent(CEvent* ev) {
    book_remove(ev);
    return 0;
}

void CMultiplexer::Rearm(CEvent* ev, bool owner_found) {
    book_add(ev);
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
    book_remove(ev);
    if (muxForm(ev) == MuxForm::always) {
        leave_always(ev);
    } else if (muxForm(ev) != MuxForm::out) {
        // A number that was closed has left the kernel's set by itself.
        ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, static_cast<int>(ev->m_key), nullptr);
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
    if (tell_kernel(ev, fd, admitted != 0 ? kernel_bits(admitted) : uint32_t{EPOLLONESHOT})) {
        set_kernel_state(ev, wanted, admitted);
    } else if (errno == EPERM) {
        set_always(ev);
    } else {
        set_kernel_state(ev, MuxForm::out, 0);  // a dead number: silent, and it keeps its places
    }
}

bool CMultiplexer::tell_kernel(CEvent* ev, int fd, uint32_t events) {
    epoll_event interest{};
    interest.events = events;
    interest.data.u64 = mark_of(ev);
    const int first = muxForm(ev) == MuxForm::out ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (::epoll_ctl(m_epoll, first, fd, &interest) == 0) {
        return true;
    }
    // The kernel forgets a number that is closed, and a number may come back while we still know it.
    if (errno == ENOENT || errno == EEXIST) {
        const int other = first == EPOLL_CTL_ADD ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
        return ::epoll_ctl(m_epoll, other, fd, &interest) == 0;
    }
    return false;
}

/// Met again in flight: silent until its worker has finished, and then armed anew.
void CMultiplexer::park(CEvent* ev) {
    const bool parked = tell_kernel(ev, static_cast<int>(ev->m_key), EPOLLONESHOT);
    set_kernel_state(ev, parked ? MuxForm::parked : MuxForm::out, 0);
}

void CMultiplexer::set_always(CEvent* ev) {
    set_kernel_state(ev, MuxForm::always, 0);
    {
        Infra::CGuard guard(m_list_mutex);
        m_always.push_back(ev);
    }
    m_always_count.fetch_add(1, std::memory_order_relaxed);
    WakeUp();
}

void CMultiplexer::leave_always(CEvent* ev) {
    set_kernel_state(ev, MuxForm::out, 0);
    Infra::CGuard guard(m_list_mutex);
    m_always.erase(std::find(m_always.begin(), m_always.end(), ev));
    m_always_count.fetch_sub(1, std::memory_order_relaxed);
}

/// A condition that nobody asked for would be reported for ever: from here on only its changes are.
void CMultiplexer::quieten(CEvent* ev) {
    if (muxForm(ev) != MuxForm::level) {
        return;  // parked: its one stray report is spent; edge: a change that does not matter
    }
    if (tell_kernel(ev, static_cast<int>(ev->m_key), kernel_bits(muxBook(ev)) | EPOLLET)) {
        set_kernel_state(ev, MuxForm::edge, muxBook(ev));
    }
}

// ---- the wait ------------------------------------------------------------------------------------------

void CMultiplexer::Wait(CEvent* token) {
    m_pace.TokenBack();
    Ready ready;
    if (m_epoll == -1) {
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
    int limit = m_pipe.m_read_fd == -1 ? BLIND_WAIT_MS : -1;
    if (!m_queue.PollerMayWait() ||
        (m_always_count.load(std::memory_order_relaxed) != 0 && always_pending())) {
        limit = 0;
    }
    const int reports = ::epoll_wait(m_epoll, m_reports.data(), BATCH, limit);
    if (reports < 0 && errno != EINTR) {
        const int error = errno;
        INFRA_LOG(2, "select failed!%d,%s\n", error, GetSockErrorText(error).c_str());
    }
    return std::max(reports, 0);
}

void CMultiplexer::collect(int reports, Ready& ready) {
    const bool always = m_always_count.load(std::memory_order_relaxed) != 0;
    if (reports == 0 && !always) {
        return;
    }
    m_sock_tree.ReadLock();
    for (int i = 0; i < reports; ++i) {
        if (m_reports[static_cast<size_t>(i)].data.u64 == WAKE_MARK) {
            drain_pipe();
        } else {
            report(m_reports[static_cast<size_t>(i)], ready);
        }
    }
    if (always) {
        collect_always(ready);
    }
    m_sock_tree.Unlock();
    give_back(ready.freed);
}

void CMultiplexer::report(const epoll_event& report, Ready& ready) {
    const uint64_t mark_seen = report.data.u64;
    const int fd = static_cast<int>(mark_seen & 0xFFFFFFFF);
    CEvent** place = slot(static_cast<size_t>(fd));
    CEvent* ev = place != nullptr ? *place : nullptr;
    if (ev == nullptr || mark_of(ev) != mark_seen) {
        stray(mark_seen);
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
    leave_places(ev, ready.freed);
    ev->m_next = nullptr;
    if (ready.head == nullptr) {
        ready.head = ev;
    } else {
        ready.tail->m_next = ev;
    }
    ready.tail = ev;
    ++ready.count;
}

/// A report without a record. Usually its socket was removed a moment ago, and the report is the last. But
/// the kernel goes on about a closed number while a copy of the descriptor lives elsewhere, and there is no
/// way to name it any more: a report that comes again has the whole instance built anew. Several copies may
/// take turns, so the report that is waited for stands while others pass, each time for longer.
void CMultiplexer::stray(uint64_t mark_seen) {
    if (mark_seen == m_stray) {
        m_rebuild = true;
    } else if (++m_strays_passed >= m_stray_patience) {
        m_stray = mark_seen;
        m_strays_passed = 0;
        m_stray_patience = std::min(2 * m_stray_patience, STRAY_PATIENCE_LIMIT);
    }
}

/// Puts every record into a new instance. The tree's write lock keeps records from coming and going; who
/// holds a record's mutex meanwhile tells one instance or the other, and the record is told to the new one
/// after that.
void CMultiplexer::rebuild() {
    m_rebuild = false;
    m_stray = WAKE_MARK;
    m_strays_passed = 0;
    m_stray_patience = 1;
    const int fresh = ::epoll_create1(EPOLL_CLOEXEC);
    if (fresh == -1) {
        return;
    }
    if (m_pipe.m_read_fd != -1 && !watch_pipe(fresh)) {
        ::close(fresh);  // without the wake end the wait could not be ended
        return;
    }
    INFRA_LOG(3, "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n");
    m_sock_tree.WriteLock();
    const int old = m_epoll.exchange(fresh);
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
    std::vector<CEvent*> always;
    {
        Infra::CGuard guard(m_list_mutex);
        always = m_always;
    }
    bool pending = false;
    for (CEvent* ev : always) {
        RecordPin pin = RecordPin::Enter(ev);
        pending = pending ||
                  (!inFlight(ev) && (muxBook(ev) & (SOCK_READ | SOCK_WRITE)) && !hasFlag(ev, MUX_ORPHAN));
    }
    m_sock_tree.Unlock();
    return pending;
}

void CMultiplexer::collect_always(Ready& ready) {
    std::vector<CEvent*> always;
    {
        Infra::CGuard guard(m_list_mutex);
        always = m_always;
    }
    for (CEvent* ev : always) {
        RecordPin pin = RecordPin::Enter(ev);
        const int16_t revents = delivered(EPOLLIN | EPOLLOUT, muxBook(ev));
        if (muxForm(ev) == MuxForm::always && !inFlight(ev) && revents != 0 && !hasFlag(ev, MUX_ORPHAN)) {
            mark(ev, revents, ready);
        }
    }
}

// ---- the wake pair -------------------------------------------------------------------------------------

void CMultiplexer::WakeUp() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_pipe.m_write_fd == -1) {
        if (m_epoll == -1) {
            m_blind.post();
        }
        return;  // else the wait looks round by itself
    }
    if (m_pipe_pending < 1) {
        const int written = CWINPipe::Write(m_pipe.m_write_fd, "M", 1);
        if (written > 0) {
            m_pipe_pending += written;
        }
    }
}

void CMultiplexer::drain_pipe() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_pipe_pending > 0) {
        char buffer[256];
        const int got = CWINPipe::Read(m_pipe.m_read_fd, buffer, sizeof(buffer));
        if (got > 0) {
            m_pipe_pending -= got;
        }
    }
}

}  // namespace Orvex::Reticor
