// CMultiplexer: the readiness wait of one pool. CWINPipe: the pair of sockets that ends it from outside.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>

#include "Core/record/SockRecord.h"
#include "Core/record/WorkQueue.h"
#include "Core/watch/BTree.h"
#include "Core/watch/ServePace.h"

namespace Orvex::Reticor {

/// Places in each of a pool's three sets. What finds no place is not watched, in silence.
constexpr int FD_CAPACITY = 4096;

/// A connected pair of loopback TCP sockets. -1 where an end is absent.
struct CWINPipe {
    int m_read_fd = -1;
    int m_write_fd = -1;

    /// Builds the pair; on failure everything that was opened is closed again.
    bool CreatePipe(bool block);

    /// recv: the bytes read; 0 for nothing now; -1, with a line unless the peer reset, for the end or an
    /// error.
    static int Read(int fd, char* buf, int len);

    /// send: the bytes written; 0 for no room now; -1 with a line.
    static int Write(int fd, const char* buf, int len);

    static bool Close(int fd);
};

/// One epoll instance, and the book of what the pool watches: three sets of FD_CAPACITY places. A socket
/// holds its places while it is idle, and gives them up while it is in flight.
///
/// The kernel is told as little as possible. Interest is level-triggered and stays armed while a socket is in
/// flight; only if the poller meets it again meanwhile is it parked, and armed anew when its handler has
/// returned. A handler that reads before the next poll thus costs no system call here. `arm` is the one place
/// that knows this.
///
/// Reports carry the number of the registration beside the handle, so that one of an earlier life never
/// reaches a later one.
///
/// Thread safety: `Wait` on the holder of the poll token alone. The operations on a record on any thread that
/// holds the record's mutex; Enlist and Delist under the write lock of the socket tree as well. WakeUp on any
/// thread.
class CMultiplexer {
public:
    /// The tree and the queue are the pool's, and outlive the multiplexer.
    CMultiplexer(int pool_index, BTree& sock_tree, CWorkQueue& queue);
    ~CMultiplexer();

    CMultiplexer(const CMultiplexer&) = delete;
    CMultiplexer& operator=(const CMultiplexer&) = delete;

    /// Before any worker starts. 0; -1 with a line if there is no pair to wake the wait. Then sockets are
    /// served all the same, as far as the system lets us, and WakeUp works more slowly.
    int Init();

    /// One pass: waits until a socket is ready or WakeUp was called, and pushes what is ready, and `token`
    /// behind it.
    void Wait(CEvent* token);

    /// Ends a wait that is under way, or the next one.
    void WakeUp();

    // On a record:

    /// Makes a new record known, and gives it its number.
    void Enlist(CEvent* ev);
    /// The counterpart, before the record leaves the tree.
    void Delist(CEvent* ev);
    /// Watches a new record by its mask. Always 0.
    int AddEvent(CEvent* ev);
    /// Watches an idle record by its present mask. Always 0.
    int ModifyEvent(CEvent* ev);
    /// Takes an idle record out of the sets; the kernel is not told. Always 0.
    int RemoveEvent(CEvent* ev);
    /// Watches a record whose worker has finished. Without its owner it holds its places, but the kernel
    /// keeps silent about it until it is registered again: nobody could be called.
    void Rearm(CEvent* ev, bool owner_found);
    /// Takes the record out of the sets and out of the kernel.
    void Forget(CEvent* ev);

private:
    static constexpr int BATCH = 512;
    static constexpr size_t CHUNK = 1024;
    static constexpr uint64_t WAKE_MARK = ~uint64_t{0};
    static constexpr int BLIND_WAIT_MS = 200;
    static constexpr int STRAY_PATIENCE_LIMIT = 4096;

    /// A number for each of the sets: read, write, exception.
    using Places = std::array<uint32_t, 3>;

    /// What one pass found ready, linked through m_next.
    struct Ready {
        CEvent* head = nullptr;
        CEvent* tail = nullptr;
        int count = 0;
        Places freed{};  ///< Given back once for the whole pass.
    };

    // The book.
    bool take_place(int direction);
    void book_add(CEvent* ev);
    void book_remove(CEvent* ev);
    static void leave_places(CEvent* ev, Places& freed);
    void give_back(const Places& freed);

    // The kernel.
    void arm(CEvent* ev, uint32_t admitted, bool force);
    bool tell_kernel(CEvent* ev, int fd, uint32_t events);
    void park(CEvent* ev);
    void set_always(CEvent* ev);
    void leave_always(CEvent* ev);
    void set_kernel_state(CEvent* ev, MuxForm form, uint32_t armed);

    // The wait.
    int harvest();
    void collect(int reports, Ready& ready);
    void report(const epoll_event& report, Ready& ready);
    void stray(uint64_t mark_seen);
    void quieten(CEvent* ev);
    void collect_always(Ready& ready);
    bool always_pending();
    void mark(CEvent* ev, int16_t revents, Ready& ready);
    void drain_pipe();
    void rebuild();
    bool watch_pipe(int epoll);
    void close_pipe();
    CEvent** slot(size_t number);

    /// Guards the always-ready list. A leaf.
    Infra::CMutex m_list_mutex;
    /// Guards the pending count and the use of the pipe. A leaf.
    Infra::CMutex m_pipe_mutex;
    std::atomic<int> m_places[3];  ///< Taken in the sets: read, write, exception.
    CWINPipe m_pipe;               ///< Constant after Init.
    int m_pipe_pending INFRA_GUARDED_BY(m_pipe_mutex) = 0;
    const int m_pool_index;

    BTree& m_sock_tree;
    CWorkQueue& m_queue;
    std::atomic<int> m_epoll{-1};
    Infra::CSemaphore m_blind{0};  ///< Where the wait stands without an epoll instance.

    // Under the lock of the socket tree.
    std::vector<std::unique_ptr<CEvent*[]>> m_records;  ///< By handle.
    uint32_t m_sequence = 0;

    std::vector<CEvent*> m_always INFRA_GUARDED_BY(m_list_mutex);
    std::atomic<int> m_always_count{0};

    // Of the thread in Wait.
    ServePace m_pace;
    std::array<epoll_event, BATCH> m_reports;
    uint64_t m_stray = WAKE_MARK;  ///< A report without a record; the next one like it is a lasting one.
    int m_strays_passed = 0;       ///< Others since then.
    int m_stray_patience = 1;      ///< How many of them before m_stray gives way.
    bool m_rebuild = false;

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
