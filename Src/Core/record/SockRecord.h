// The bits of a socket's CEvent, and the pin that keeps its lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include <Infra/Atomic.h>
#include <Reticor/NetHandler.h>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// m_event_mask: what the owner asked for, SOCK_READ and its fellows. Not the same bits as in m_revents.
constexpr uint32_t SOCK_DIRECTIONS = SOCK_READ | SOCK_WRITE | SOCK_EXCEPT;
constexpr uint32_t SOCK_REMOVED = 32;  ///< The record dies when its worker has finished.
/// SOCK_WRITE is there for a sender that waits for room (RoomWatch), and nobody else's interest ends it.
constexpr uint32_t SOCK_ROOM = 64;
constexpr uint32_t SOCK_WRITE_TOO =
    128;  ///< Beside SOCK_ROOM: somebody else has asked for SOCK_WRITE as well.

/// How many times anybody may have lost a place in which he waits for room: a socket was taken out of its
/// pool under him, its handler was not found, a pool ended. Whoever waits looks after his own place when it
/// has changed. Any thread.
struct RoomLosses {
    static void note() { sm_count.fetch_add(1, std::memory_order_relaxed); }
    static uint32_t count() { return sm_count.load(std::memory_order_relaxed); }

private:
    static inline std::atomic<uint32_t> sm_count{0};
};

/// m_revents: what is to be delivered. Written under the record's mutex, read by the worker that serves the
/// record without it, afresh at each test: a removal meanwhile must stop the calls that have not been made.
constexpr int16_t REVENT_READ = 1;
constexpr int16_t REVENT_WRITE = 4;
constexpr int16_t REVENT_EXCEPT = 8;
constexpr int16_t REVENT_READ_TIMEOUT = 256;
constexpr int16_t REVENT_WRITE_TIMEOUT = 512;
constexpr int16_t REVENT_REMOVED = 1024;

/// m_mux_state, under the record's mutex. The directions of the two first groups are SOCK_READ, SOCK_WRITE
/// and SOCK_EXCEPT, shifted.
constexpr unsigned int MUX_BOOK_SHIFT = 0;   ///< In which of the pool's sets the socket has a place.
constexpr unsigned int MUX_ARMED_SHIFT = 3;  ///< What the kernel was told to watch.
constexpr unsigned int MUX_FORM_SHIFT = 6;   ///< A MuxForm, three bits.
constexpr uint16_t MUX_BUSY = 1 << 9;  ///< In flight with nothing to deliver: a time-out without a direction.
constexpr uint16_t MUX_FORCE = 1 << 10;     ///< Tell the kernel again, whatever it was told before.
constexpr uint16_t MUX_LISTED = 1 << 11;    ///< On the list of the socket timer.
constexpr uint16_t MUX_ORPHAN = 1 << 12;    ///< The handler was not found when the socket was ready.
constexpr uint16_t MUX_UNPLACED = 1 << 14;  ///< Counted as a socket without a place.
constexpr uint16_t MUX_SIDE = 1 << 13;      ///< Which of an EpollSet's two places the socket was told to.

/// How the kernel holds a socket.
enum class MuxForm : uint16_t {
    out,      ///< Not at all.
    level,    ///< Level-triggered, for the armed directions.
    parked,   ///< One-shot with no direction: silent but for one stray report.
    edge,     ///< Edge-triggered, since it reports what nobody asked for.
    always,   ///< The kernel refuses it (a regular file): always ready.
    gone,     ///< Not any more: the number was closed, and may name another file by now.
    refused,  ///< The system had no room for it: asked again later.
};

/// Whether the kernel watches a socket in this form, or would if it were not parked.
constexpr bool kernel_knows(MuxForm form) {
    return form == MuxForm::level || form == MuxForm::parked || form == MuxForm::edge;
}

inline MuxForm mux_form(const CEvent* ev) {
    return static_cast<MuxForm>((ev->m_mux_state >> MUX_FORM_SHIFT) & 7);
}

inline uint32_t mux_book(const CEvent* ev) {
    return (ev->m_mux_state >> MUX_BOOK_SHIFT) & SOCK_DIRECTIONS;
}
inline void set_mux_book(CEvent* ev, uint32_t directions) {
    Infra::relaxedStore(ev->m_mux_state, (ev->m_mux_state & ~(SOCK_DIRECTIONS << MUX_BOOK_SHIFT)) |
                                             directions << MUX_BOOK_SHIFT);
}

inline uint32_t mux_armed(const CEvent* ev) {
    return (ev->m_mux_state >> MUX_ARMED_SHIFT) & SOCK_DIRECTIONS;
}

/// From the moment a record is queued until its worker has finished. Under the record's mutex.
inline bool is_in_flight(const CEvent* ev) {
    return ev->m_revents != 0 || (ev->m_mux_state & MUX_BUSY) != 0;
}

/// The interest in room goes; SOCK_WRITE stays if somebody else asked for it. True if there was one.
inline bool drop_room(CEvent* ev) {
    if ((ev->m_event_mask & SOCK_ROOM) == 0) {
        return false;
    }
    const uint32_t write = ev->m_event_mask & SOCK_WRITE_TOO ? SOCK_WRITE : 0;
    ev->m_event_mask = (ev->m_event_mask & ~(SOCK_ROOM | SOCK_WRITE_TOO | SOCK_WRITE)) | write;
    return true;
}

inline void set_flag(CEvent* ev, uint16_t flag) {
    Infra::relaxedStore(ev->m_mux_state, ev->m_mux_state | flag);
}
inline void clear_flag(CEvent* ev, uint16_t flag) {
    Infra::relaxedStore(ev->m_mux_state, ev->m_mux_state & ~flag);
}
inline bool has_flag(const CEvent* ev, uint16_t flag) {
    return (ev->m_mux_state & flag) != 0;
}

inline void set_revents(CEvent* ev, int16_t revents) {
    Infra::relaxedStore(ev->m_revents, revents);
}
inline int16_t revents_now(const CEvent* ev) {
    return Infra::relaxedLoad(ev->m_revents);
}

/// Leaves the mutex of a record at the end of the scope. A lookup in the socket tree comes back with the
/// mutex entered, which the annotations cannot express.
class RecordPin {
public:
    RecordPin() = default;
    ~RecordPin() INFRA_NO_THREAD_SAFETY_ANALYSIS { Leave(); }

    /// Takes over a record whose mutex this thread has entered; null gives an empty pin.
    static RecordPin Adopt(CEvent* ev) { return RecordPin(ev); }
    static RecordPin Enter(CEvent* ev) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        ev->m_mutex.enter();
        return RecordPin(ev);
    }

    /// An empty pin if another thread holds the mutex.
    static RecordPin Try(CEvent* ev) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        return RecordPin(ev->m_mutex.tryEnter() ? ev : nullptr);
    }

    RecordPin(RecordPin&& other) noexcept : m_record(std::exchange(other.m_record, nullptr)) {}
    RecordPin& operator=(RecordPin&& other) noexcept {
        Leave();
        m_record = std::exchange(other.m_record, nullptr);
        return *this;
    }

    /// Leaves the mutex now.
    void Leave() INFRA_NO_THREAD_SAFETY_ANALYSIS {
        if (CEvent* ev = std::exchange(m_record, nullptr)) {
            ev->m_mutex.leave();
        }
    }

    explicit operator bool() const { return m_record != nullptr; }
    CEvent* operator->() const { return m_record; }
    CEvent* get() const { return m_record; }

private:
    explicit RecordPin(CEvent* ev) : m_record(ev) {}

    CEvent* m_record = nullptr;
};

}  // namespace Orvex::Reticor
