// SetBook: which of a pool's sockets have a place in its three sets.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// Places in each of a pool's three sets. What finds no place is not watched, in silence.
constexpr int FD_CAPACITY = 4096;

/// Counts the places that are taken; which of them a record holds stands in the record (`muxBook`), so that
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

    /// The same for one record of many: what it held is added to `freed`, and given back at once for all.
    static void Leave(CEvent* ev, Places& freed);
    void GiveBack(const Places& freed);

private:
    bool take(size_t direction);

    std::atomic<int> m_taken[3];  ///< In the sets: read, write, exception.

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
