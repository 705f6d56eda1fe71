// TimerIds: ids of timers that have ended.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Core/handle/ObjectId.h"

namespace Orvex::Reticor {

/// Ids that wait for their next timer, the oldest first. They come from the pool's allocator and could all go
/// back there; but hundreds of thousands of ids can wait there, and timers that come and go would walk
/// through as many places of the table. Here only a few wait, and their places stay in the processor's cache.
///
/// Thread safety: none.
class TimerIds {
public:
    /// An id with its next generation, or 0 if too few wait: like those of the allocator, an id waits after
    /// at least 1024 others.
    int64_t Take();

    /// False if enough ids wait already, or if there is no memory for the first one.
    bool Put(int64_t id);

    size_t Count() const { return m_count; }

    void Clear() { m_count = 0; }

private:
    static constexpr size_t CAPACITY = 2 * CObjectId::WAITING;

    std::unique_ptr<std::array<int64_t, CAPACITY>> m_ring;
    size_t m_read = 0;
    size_t m_count = 0;
};

}  // namespace Orvex::Reticor
