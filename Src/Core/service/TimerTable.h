// TimerTable: the armed timers by id.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Core/handle/ObjectId.h"

namespace Orvex::Reticor {

/// An armed timer. It needs no record: one is made of it when it is due.
struct ArmedTimer {
    int64_t id;       ///< 0 in a place of the table where no timer is.
    int64_t obj_id;   ///< Of the handler.
    uint64_t expire;  ///< Absolute, microseconds.
    uint64_t delay;   ///< The period in microseconds.
};

/// The timers of one pool. The upper bits of the ids of a pool count down by one, so they index an array of
/// chunks. A chunk without held places goes back, so ids that are never seen again cost nothing.
///
/// Thread safety: none.
class TimerTable {
public:
    /// The timer with that id, generation included, or null. Good until the next Put or Erase.
    ArmedTimer* Find(int64_t id) {
        const size_t place = place_of(id);
        const size_t chunk = place / CHUNK;
        if (chunk >= m_chunks.size() || m_chunks[chunk] == nullptr) {
            return nullptr;
        }
        ArmedTimer* timer = &m_chunks[chunk]->timer[place % CHUNK];
        return timer->id == id ? timer : nullptr;
    }

    /// Keeps a place for the timers of an id, until Drop. Gives it: to write a timer there is what Put does.
    /// Null if there is no memory.
    ArmedTimer* Hold(int64_t id) {
        const size_t place = place_of(id);
        const size_t chunk = place / CHUNK;
        if ((chunk >= m_chunks.size() || m_chunks[chunk] == nullptr) && !make_chunk(chunk)) {
            return nullptr;
        }
        ++m_chunks[chunk]->held;
        return &m_chunks[chunk]->timer[place % CHUNK];
    }
    void Drop(int64_t id) {
        const size_t chunk = place_of(id) / CHUNK;
        if (--m_chunks[chunk]->held == 0) {
            m_spare = std::move(m_chunks[chunk]);
        }
    }

    /// Puts a timer in the place that is held for its id, and is free. Needs no memory.
    void Put(const ArmedTimer& timer) {
        const size_t place = place_of(timer.id);
        m_chunks[place / CHUNK]->timer[place % CHUNK] = timer;
    }

    /// Takes a timer out that Find has found. Its place stays held.
    static void Erase(ArmedTimer* timer) { timer->id = 0; }

    /// Appends the handler of each timer in a chunk to `owners`; std::bad_alloc without memory. False if
    /// there is no such chunk.
    bool ListOwners(size_t chunk, std::vector<int64_t>& owners) const;

    /// Takes all timers out and gives up all places. The counters of ids to come begin with `first`.
    void Clear(int64_t first);

private:
    static constexpr size_t CHUNK = 1024;
    struct Chunk {
        size_t held = 0;
        std::array<ArmedTimer, CHUNK> timer{};
    };

    bool make_chunk(size_t chunk);
    size_t place_of(int64_t id) const { return CObjectId::place_of(id, m_first); }

    int64_t m_first = CObjectId::FIRST_COUNTER;
    std::vector<std::unique_ptr<Chunk>> m_chunks;
    std::unique_ptr<Chunk> m_spare;  ///< The chunk that was given up last.
};

}  // namespace Orvex::Reticor
