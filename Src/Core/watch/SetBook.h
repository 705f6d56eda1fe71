// SetBook: which of a pool's sockets have a place in its three sets.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Core/count/AlarmSpan.h"
#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

/// Places in each of a pool's three sets. What finds no place is not watched, in silence.
constexpr int FD_CAPACITY = 4096;

/// Counts the places that are taken; which of them a record holds stands in the record (`mux_book`), so that
/// taking and leaving cost the same with 10 sockets and with 4000.
///
/// Thread safety: any thread that holds the mutex of the record.
class SetBook {
public:
    /// A number for each of the sets: read, write, exception.
    using Places = std::array<uint32_t, 3>;

    SetBook();

    /// Takes a place in the read set for good: the one of the wake end.
    void TakeForWakeEnd();

    /// Takes a place in each set that the mask of the record asks for, as far as there is room.
    void Add(CEvent* ev);

    /// Gives up all places of the record.
    void Remove(CEvent* ev);

    /// The same, and it is not counted any more: the record leaves the pool.
    void Forget(CEvent* ev);

    /// The same for one record of many: what it held is added to `freed`, and given back at once for all.
    static void Leave(CEvent* ev, Places& freed);
    void GiveBack(const Places& freed);

    /// How many sockets found no place, when they were last added, in a set that they asked for. Any thread.
    int WithoutPlace() const { return m_without_place.load(std::memory_order_relaxed); }

    /// Places that are left in a set. Any thread.
    int Left(size_t direction) const {
        return FD_CAPACITY - m_taken[direction].load(std::memory_order_relaxed);
    }

    /// Since when sockets are left out, or the last place of a set was seen to be taken. A look: what has
    /// changed unnoticed counts from here on. Any thread.
    AlarmSpan::Facts LookWhetherFull();

private:
    void count_unplaced(CEvent* ev, bool unplaced);
    bool take(size_t direction);

    std::atomic<int> m_taken[3];  ///< In the sets: read, write, exception.
    std::atomic<int> m_without_place{0};
    AlarmSpan m_full;

    friend struct MultiplexerProbe;  // tests
};

// Inline, since a delivery leaves its places and takes them again.

inline bool SetBook::take(size_t direction) {
    std::atomic<int>& places = m_taken[direction];
    int taken = places.load(std::memory_order_relaxed);
    while (taken < FD_CAPACITY) {
        if (places.compare_exchange_weak(taken, taken + 1, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

inline void SetBook::Add(CEvent* ev) {
    uint32_t book = mux_book(ev);
    for (uint32_t wanted = ev->m_event_mask & SOCK_DIRECTIONS & ~book; wanted != 0; wanted &= wanted - 1) {
        const int direction = __builtin_ctz(wanted);  // read before write before exception
        if (take(static_cast<size_t>(direction))) {
            book |= SOCK_READ << direction;
        }
    }
    set_mux_book(ev, book);
    const bool unplaced = (ev->m_event_mask & SOCK_DIRECTIONS & ~book) != 0;
    if (unplaced != has_flag(ev, MUX_UNPLACED)) {
        count_unplaced(ev, unplaced);
    }
}

inline void SetBook::Leave(CEvent* ev, Places& freed) {
    const uint32_t book = mux_book(ev);
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        freed[direction] += book >> direction & 1;
    }
    set_mux_book(ev, 0);
}

inline void SetBook::GiveBack(const Places& freed) {
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        if (freed[direction] != 0) {
            m_taken[direction].fetch_sub(static_cast<int>(freed[direction]), std::memory_order_relaxed);
        }
    }
}

}  // namespace Orvex::Reticor
