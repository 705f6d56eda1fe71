// CObjectTable: a pool's open handlers by id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/ReadWriteMutex.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/handle/HandlerPin.h"
#include "Core/handle/ObjectId.h"

namespace Orvex::Reticor {

/// The upper bits of the ids count down by one from the first counter of the pool, so the table is an array
/// of chunks indexed by them: a lookup is two loads and a compare of the whole id, generation included.
///
/// Thread safety: any thread. Lookups share the lock and do not wait for each other. The reference of a found
/// handler is taken under the lock; a handler is detached under the write lock before its own reference goes,
/// so what is found cannot reach `handle_close` before the pin is dropped.
class CObjectTable {
public:
    /// `first`: the first counter of the ids that will be in the table.
    explicit CObjectTable(int64_t first) : m_first(first) {}

    /// Adds an entry whose id is set. False, with the table as it was, if there is no memory.
    bool Insert(ObjectEntry* entry);

    /// Takes the id out. Result: its entry, or null if it is not there.
    ObjectEntry* Remove(int64_t id);

    /// The handler with that id, pinned; or an empty pin.
    HandlerPin Find(int64_t id);

    /// Whether the handler with that id is there and has not been closed.
    bool Has(int64_t id);

    /// The row of its class (ClassRows), without a reference; nothing if it is not there or has been closed.
    std::optional<uint32_t> RowOf(int64_t id);

private:
    static constexpr size_t CHUNK = 1024;
    using Chunk = std::unique_ptr<ObjectEntry*[]>;

    size_t place_of(int64_t id) const { return CObjectId::place_of(id, m_first); }
    ObjectEntry** slot(size_t place) INFRA_REQUIRES_SHARED(m_lock);

    const int64_t m_first;
    std::vector<Chunk> m_chunks INFRA_GUARDED_BY(m_lock);
    Infra::CReadWriteMutex m_lock{Infra::LockClass::OBJECT_TABLE};
};

}  // namespace Orvex::Reticor
