// RecordTable: a pool's socket records by handle, for the reports of the kernel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// An array of chunks, indexed by the handle: a lookup is two loads. It grows with the greatest handle and
/// does not shrink.
///
/// Thread safety: none of its own. The lock of the socket tree guards it, for writing in Add and Remove.
class RecordTable {
public:
    RecordTable() = default;
    ~RecordTable();
    RecordTable(const RecordTable&) = delete;
    RecordTable& operator=(const RecordTable&) = delete;

    /// Puts the record under its key. False, with nothing changed, if there is no memory.
    bool Add(CEvent* ev);

    /// Takes out what is under the key of the record. False if nothing was.
    bool Remove(const CEvent* ev);

    /// The record of that handle, or null.
    CEvent* Find(uint32_t handle) const {
        const size_t chunk = handle / CHUNK;
        return chunk < m_count && m_chunks[chunk] != nullptr ? m_chunks[chunk][handle % CHUNK] : nullptr;
    }

private:
    static constexpr size_t CHUNK = 1024;

    bool reach(size_t chunk);

    CEvent*** m_chunks = nullptr;  ///< Owned, as is each of the chunks; null where no record was ever put.
    size_t m_count = 0;
};

}  // namespace Orvex::Reticor
