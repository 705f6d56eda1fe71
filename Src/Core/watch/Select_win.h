// CMultiplexer: the readiness wait of one pool.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include <Infra/Semaphore.h>

#include "Core/count/Tally.h"
#include "Core/record/SockRecord.h"
#include "Core/record/WorkQueue.h"
#include "Core/watch/AlwaysReady.h"
#include "Core/watch/BTree.h"
#include "Core/watch/EpollSet.h"
#include "Core/watch/RecordTable.h"
#include "Core/watch/ServePace.h"
#include "Core/watch/SetBook.h"
#include "Core/watch/StrayWatch.h"
#include "Core/watch/Waker.h"

namespace Orvex::Reticor {

/// One epoll instance, and the book of what the pool watches: three sets of FD_CAPACITY places. A socket
/// holds its places while it is idle, and gives them up while it is in flight.
///
/// The kernel is told as little as possible. Interest is level-triggered and stays armed while a socket is in
/// flight; only if the poller meets it again meanwhile is it parked, and armed anew when its handler has
/// returned. A handler that reads before the next poll thus costs no system call here. `arm` is the one place
/// that knows this.
///
/// Its parts have rooms of their own: EpollSet (the instance), SetBook (the places), RecordTable (records by
/// handle), Waker (how the wait is ended), AlwaysReady and StrayWatch (what the kernel refuses to watch, and
/// what it goes on to report), ServePace (how many workers a batch is worth). They are silent; the lines are
/// written here.
///
/// A registration is of a file, not of a handle alone: it has a number, which goes with each report, so that
/// a report of an earlier life of the handle never reaches a later one. A handle that was closed without
/// RemoveSock and opened anew is noticed as soon as the kernel is told of it: from then on the registrations
/// of the new file alone count.
///
/// Thread safety: `Wait` on the holder of the poll token alone. The operations on a record on any thread that
/// holds the record's mutex; Enlist and Delist under the write lock of the socket tree as well. WakeUp on any
/// thread.
class CMultiplexer {
public:
    /// The tree and the queue are the pool's, and outlive the multiplexer.
    CMultiplexer(int pool_index, BTree& sock_tree, CWorkQueue& queue);

    CMultiplexer(const CMultiplexer&) = delete;
    CMultiplexer& operator=(const CMultiplexer&) = delete;

    /// Before any worker starts. 0; -1 with a line if there is no pair to wake the wait. Then sockets are
    /// served all the same, as far as the system lets us, and WakeUp works more slowly.
    int Init();

    /// One pass: waits until a socket is ready or WakeUp was called, and pushes what is ready, and `token`
    /// after it.
    void Wait(CEvent* token);

    /// Ends a wait that is under way, or the next one.
    void WakeUp();

    /// Whether sockets can be watched at all: not without an epoll instance. Any thread.
    bool CanWatch() const { return m_epoll.IsOpen(); }

    /// How many sockets have no place in a set that they asked for. Any thread.
    int SocksWithoutPlace() const { return m_book.WithoutPlace(); }

    /// What the pool watches, and what its polling came to, since its beginning. Any thread.
    struct Figures {
        uint64_t reports;  ///< Of the kernel, the wake-ups among them.
        uint64_t strays;   ///< Reports of no socket that is registered.
        uint64_t rebuilds;
        uint64_t refused;  ///< Sockets that the system had no room for, each time that it said so.
        int sockets;       ///< Registered now.
        int without_place;
        std::array<int, 3> places_left;  ///< For reading, writing, exceptions.
    };
    Figures GetFigures() const;

    /// As SetBook's. Any thread.
    AlarmSpan::Facts LookWhetherFull() { return m_book.LookWhetherFull(); }

    // On a record:

    /// Makes a new record known, and gives it its number. False, with nothing changed, without memory.
    bool Enlist(CEvent* ev);
    /// The counterpart, before the record leaves the tree.
    void Delist(CEvent* ev);
    /// Watches a new record by its mask. Always 0.
    int AddEvent(CEvent* ev);
    /// Watches an idle record by its present mask. Always 0.
    int ModifyEvent(CEvent* ev);
    /// Takes an idle record out of the sets; the kernel is not told. Always 0.
    int RemoveEvent(CEvent* ev);
    /// Watches a record whose worker has finished. Without its owner it holds its places, but the kernel
    /// keeps silent about it until it is registered again: nobody could be called. False if the handle was
    /// closed and registered anew meanwhile: what the worker brings back is about another socket then.
    bool Rearm(CEvent* ev, bool owner_found);
    /// Takes the record out of the sets and out of the kernel.
    void Forget(CEvent* ev);

private:
    static constexpr int BATCH = 512;
    static constexpr int BLIND_WAIT_MS = 200;
    static constexpr int RETRY_MS = 500;         ///< Between two looks at sockets that the kernel refused.
    static constexpr int REBUILD_PAUSE_MS = 20;  ///< Between two passes while a rebuild fails.

    /// What one pass found ready, linked through m_next.
    struct Ready {
        CEvent* head = nullptr;
        CEvent* tail = nullptr;
        int count = 0;
        SetBook::Places freed{};  ///< Given back once for the whole pass.
    };

    /// What the kernel said to a socket.
    enum class Answer {
        watched,
        always_ready,  ///< It refuses to watch it.
        unknown,       ///< It never heard of it, under this number.
        none,          ///< The number is not open.
        refused,       ///< It has no room.
    };

    static MuxForm form_for(uint32_t admitted) { return admitted != 0 ? MuxForm::level : MuxForm::parked; }
    static bool names_another_file(MuxForm form, Answer answer);

    // The kernel.
    void number(CEvent* ev);
    void arm(CEvent* ev, uint32_t admitted, bool force);
    Answer ask(CEvent* ev, uint32_t admitted);
    void settle(CEvent* ev, Answer answer, uint32_t admitted);
    void replace_registration(CEvent* ev, Answer answer);
    void park(CEvent* ev);
    void set_always(CEvent* ev);
    void set_refused(CEvent* ev, int error);
    void set_kernel_state(CEvent* ev, MuxForm form, uint32_t armed);

    // The wait.
    int harvest();
    int wait_limit();
    void retry_refused();
    void note(Waker::Pair pair);
    void collect(int reports, Ready& ready);
    void report(const epoll_event& report, Ready& ready);
    void stray(uint64_t mark_seen);
    void quieten(CEvent* ev);
    void collect_always(Ready& ready);
    bool always_pending();
    void mark(CEvent* ev, int16_t revents, Ready& ready);
    void rebuild();
    void move_over(CEvent* ev);

    const int m_pool_index;
    BTree& m_sock_tree;
    CWorkQueue& m_queue;
    EpollSet m_epoll;
    Waker m_waker{m_epoll};
    Infra::CSemaphore m_blind{0};  ///< Where the wait stands without an epoll instance.
    SetBook m_book;
    AlwaysReady m_always;

    // Under the lock of the socket tree.
    RecordTable m_records;

    // Written under the write lock of the socket tree.
    std::atomic<int> m_sockets{0};

    std::atomic<uint64_t> m_refusals{0};
    std::atomic<uint32_t> m_sequence{0};  ///< The number of the last registration.
    std::atomic<bool> m_refused{false};   ///< There are sockets to be told to the kernel once more.

    // Of the thread in Wait.
    ServePace m_pace;
    std::array<epoll_event, BATCH> m_reports;
    StrayWatch m_strays;
    Tally m_reported;
    Tally m_strayed;
    Tally m_rebuilt;
    uint64_t m_stamp_ns = 0;        ///< Of the sockets that this pass finds ready.
    bool m_rebuild = false;         ///< Wanted, also when the last try failed.
    bool m_rebuild_failed = false;  ///< It did, and the line was written.
    uint64_t m_last_retry_ms = 0;

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
