// RecordTable: a pool's socket records by handle, for the reports of the kernel.
#include "Core/watch/RecordTable.h"

#include <algorithm>
#include <utility>

#include "Core/record/GeneralAllocator.h"
#include "Socket/socket/WatchedNumbers.h"

namespace Orvex::Reticor {

namespace {

/// An array of null pointers, or null without memory.
template <class Pointer>
Pointer* make_pointers(size_t count) {
    auto* pointers = static_cast<Pointer*>(general_allocate(count * sizeof(Pointer)));
    if (pointers != nullptr) {
        std::fill_n(pointers, count, nullptr);
    }
    return pointers;
}

}  // namespace

RecordTable::~RecordTable() {
    for (size_t i = 0; i < m_count; ++i) {
        for (size_t place = 0; m_chunks[i] != nullptr && place < CHUNK; ++place) {
            if (m_chunks[i][place] != nullptr) {
                WatchedNumbers::Leave(static_cast<uint32_t>(i * CHUNK + place));
            }
        }
        general_free(m_chunks[i]);
    }
    general_free(m_chunks);
}

bool RecordTable::reach(size_t chunk) {
    if (chunk >= m_count) {
        CEvent*** chunks = make_pointers<CEvent**>(chunk + 1);
        if (chunks == nullptr) {
            return false;
        }
        std::copy_n(m_chunks, m_count, chunks);
        general_free(m_chunks);
        m_chunks = chunks;
        m_count = chunk + 1;
    }
    if (m_chunks[chunk] == nullptr) {
        m_chunks[chunk] = make_pointers<CEvent*>(CHUNK);
    }
    return m_chunks[chunk] != nullptr;
}

bool RecordTable::Add(CEvent* ev) {
    const size_t handle = static_cast<size_t>(ev->m_key);
    if (!reach(handle / CHUNK)) {
        return false;
    }
    if (std::exchange(m_chunks[handle / CHUNK][handle % CHUNK], ev) == nullptr) {
        WatchedNumbers::Enter(static_cast<uint32_t>(handle));
    }
    return true;
}

bool RecordTable::Remove(const CEvent* ev) {
    const size_t handle = static_cast<size_t>(ev->m_key);
    if (handle / CHUNK >= m_count || m_chunks[handle / CHUNK] == nullptr) {
        return false;
    }
    if (std::exchange(m_chunks[handle / CHUNK][handle % CHUNK], nullptr) == nullptr) {
        return false;
    }
    WatchedNumbers::Leave(static_cast<uint32_t>(handle));
    return true;
}

}  // namespace Orvex::Reticor
