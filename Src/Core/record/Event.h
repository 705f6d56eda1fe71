// CEvent: the one record for every unit of work. CEventQueue: its FIFO. CEventFreeList: where records rest.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>

namespace Orvex::Reticor {

// What `CEvent::m_key` says. 0 or more is a socket handle, below EVENT_KEY_TIMER_LIMIT a timer's id.
constexpr int64_t EVENT_KEY_MESSAGE = -50;
constexpr int64_t EVENT_KEY_SERIAL = -51;
constexpr int64_t EVENT_KEY_POLL = -75;
constexpr int64_t EVENT_KEY_DRAIN = -76;
constexpr int64_t EVENT_KEY_HEARTBEAT = -80;
constexpr int64_t EVENT_KEY_TIMER_LIMIT = -101;

struct CEvent;

/// The idle time-out of a socket record, and its node in the list of CSockTimer.
struct SockTimerNode {
    int32_t m_set_time;       ///< Time-out in milliseconds, 0 for none.
    uint32_t m_sequence;      ///< Tells this registration of the number from earlier ones.
    int64_t m_sock_deadline;  ///< On the clock of CSockTimer; 0 when paused or unset.
    CEvent* m_timer_owner;    ///< The record itself.
    CEvent* m_timer_prev;
    CEvent* m_timer_next;
    uint32_t m_close_count;  ///< Of the number, when the kernel was last told of this socket.
    uint32_t m_asked;        ///< Directions of the registrations since then.
};

/// One record, told apart by `m_key`. `m_key`, `m_mutex`, `m_obj_id` and `m_next` are common to all kinds,
/// the others share their places. All that a message needs stands in the first 64 bytes. Records are
/// recycled, not freed, and keep their old values while they rest.
struct CEvent {
    int64_t m_key = 0;

    /// Guards the fields of a socket. Not used by the other kinds.
    Infra::CMutex m_mutex{Infra::LockClass::SOCKET_RECORD};

    /// Socket and timer: id of the owning handler. Message: id of the sender.
    int64_t m_obj_id = 0;

    /// Link in a queue or in the free list.
    CEvent* m_next = nullptr;

    union {
        uint32_t m_event_mask = 0;  ///< Socket: directions wanted, SOCK_*.
        uint32_t m_msg;             ///< Message: the number.
    };
    union {
        int16_t m_revents = 0;  ///< Socket: to be delivered, REVENT_*; not 0 means in flight.
        int16_t m_from_close;   ///< Message: 1 from CNetHandler::Close; m_attach is then the handler.
    };
    union {
        uint16_t m_mux_state = 0;  ///< Socket: what the multiplexer knows of it, MUX_*.
        uint16_t m_stamped;        ///< Message: 1 if m_stamp_ns is set.
    };

    union {
        int64_t m_receiver = 0;  ///< Message: id of the receiver.
        uint64_t m_expire;       ///< Timer: absolute, microseconds.
    };

    union {
        SockTimerNode m_timer;  ///< Socket.
        int64_t m_attach;       ///< Message: the attachment.
        uint64_t m_delay;       ///< Timer: period in microseconds.
    };

    /// When the record was pushed, by the clock of `Timing`; 0 if nobody looked. Read of a message only if it
    /// is stamped, since it is on another cache line.
    uint64_t m_stamp_ns = 0;

    CEvent() : m_timer{} {}
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;
};

// A queue touches one cache line of a message, and a delivery both lines of a socket.
static_assert(offsetof(CEvent, m_key) == 0, "the socket tree reads the key from the start of a record");
static_assert(offsetof(CEvent, m_attach) + sizeof(CEvent::m_attach) <= 64, "a message is one cache line");
static_assert(sizeof(CEvent) == 112, "a socket's record is two cache lines with room to spare");

/// The FIFO of records. Nothing is allocated: a record links through its own field.
///
/// Thread safety: every operation on any thread. The semaphore holds one count for each record pushed with a
/// post; it is posted inside `m_mutex` and waited for outside, so that who destroys a queue after taking the
/// last record of it never meets a poster that is still inside.
class CEventQueue {
public:
    CEventQueue() = default;
    /// Deletes the records that are still queued.
    ~CEventQueue();

    CEventQueue(const CEventQueue&) = delete;
    CEventQueue& operator=(const CEventQueue&) = delete;

    /// Appends the chain that starts with `ev` and posts once for each of its records. The chain ends where
    /// `m_next` is null: whoever pushes a single record uses PushOne, or clears the link first.
    void Push(CEvent* ev);

    /// Appends one record, whatever its link says.
    void PushOne(CEvent* ev);

    /// As Push, without a post.
    void PushSilent(CEvent* ev);

    /// Puts one record ahead of all others and posts once.
    void PushFront(CEvent* ev);

    /// Waits for a record and takes the first one. Null, with a line in the log, if somebody posted without
    /// one.
    CEvent* Pop();

    /// As Pop, but null at once if there is no record.
    CEvent* PopNow();

    /// How many records were ever pushed and taken. The difference is the length of the queue.
    struct Amounts {
        uint64_t pushed;
        uint64_t taken;
    };
    Amounts Count();

    /// The first record, or null. Takes no count of the semaphore, so it is for queues that are pushed in
    /// silence and for teardown.
    CEvent* TryPop();

protected:
    int append(CEvent* ev) INFRA_REQUIRES(m_mutex);
    void put_front(CEvent* ev) INFRA_REQUIRES(m_mutex);
    CEvent* take() INFRA_REQUIRES(m_mutex);

    CEvent* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    CEvent* m_tail INFRA_GUARDED_BY(m_mutex) = nullptr;
    uint64_t m_pushed INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_taken INFRA_GUARDED_BY(m_mutex) = 0;
    Infra::CMutex m_mutex{Infra::LockClass::QUEUE};
    Infra::CSemaphore m_sem{0};

    friend struct EventQueueProbe;  // tests
};

}  // namespace Orvex::Reticor
