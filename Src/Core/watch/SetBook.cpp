// SetBook: which of a pool's sockets have a place in its three sets.
#include "Core/watch/SetBook.h"

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

SetBook::SetBook() {
    for (std::atomic<int>& taken : m_taken) {
        taken.store(0, std::memory_order_relaxed);
    }
}

void SetBook::TakeForWakeEnd() {
    m_taken[0].fetch_add(1, std::memory_order_relaxed);
}

bool SetBook::take(size_t direction) {
    std::atomic<int>& places = m_taken[direction];
    int taken = places.load(std::memory_order_relaxed);
    while (taken < FD_CAPACITY) {
        if (places.compare_exchange_weak(taken, taken + 1, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void SetBook::Add(CEvent* ev) {
    uint32_t book = muxBook(ev);
    if (((ev->m_event_mask & SOCK_DIRECTIONS) & ~book) == 0) {
        return;
    }
    for (size_t direction = 0; direction < 3; ++direction) {
        const uint32_t bit = SOCK_READ << direction;
        if ((ev->m_event_mask & bit) && !(book & bit) && take(direction)) {
            book |= bit;
        }
    }
    setMuxBook(ev, book);
}

void SetBook::Remove(CEvent* ev) {
    Places freed{};
    Leave(ev, freed);
    GiveBack(freed);
}

void SetBook::Leave(CEvent* ev, Places& freed) {
    const uint32_t book = muxBook(ev);
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        freed[direction] += book >> direction & 1;
    }
    setMuxBook(ev, 0);
}

void SetBook::GiveBack(const Places& freed) {
    for (size_t direction = 0; direction < freed.size(); ++direction) {
        if (freed[direction] != 0) {
            m_taken[direction].fetch_sub(static_cast<int>(freed[direction]), std::memory_order_relaxed);
        }
    }
}

}  // namespace Orvex::Reticor
