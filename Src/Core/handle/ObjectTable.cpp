// CObjectTable: a pool's open handlers by id.
#include "Core/handle/ObjectTable.h"

#include <new>

namespace Orvex::Reticor {

ObjectEntry** CObjectTable::slot(size_t place) {
    const size_t chunk = place / CHUNK;
    return chunk < m_chunks.size() && m_chunks[chunk] ? &m_chunks[chunk][place % CHUNK] : nullptr;
}

bool CObjectTable::Insert(ObjectEntry* entry) {
    const size_t place = place_of(entry->m_id);
    Infra::CWriteGuard guard(m_lock);
    try {
        if (place / CHUNK >= m_chunks.size()) {
            m_chunks.resize(place / CHUNK + 1);
        }
        Chunk& chunk = m_chunks[place / CHUNK];
        if (!chunk) {
            chunk = std::make_unique<ObjectEntry*[]>(CHUNK);
        }
        chunk[place % CHUNK] = entry;
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

ObjectEntry* CObjectTable::Remove(int64_t id) {
    Infra::CWriteGuard guard(m_lock);
    ObjectEntry** place = slot(place_of(id));
    if (place == nullptr || *place == nullptr || (*place)->m_id != id) {
        return nullptr;
    }
    ObjectEntry* entry = *place;
    *place = nullptr;
    return entry;
}

HandlerPin CObjectTable::Find(int64_t id) {
    Infra::CReadGuard guard(m_lock);
    ObjectEntry** place = slot(place_of(id));
    if (place == nullptr || *place == nullptr || (*place)->m_id != id) {
        return HandlerPin();
    }
    return HandlerPin::Take((*place)->m_owner);
}

bool CObjectTable::Has(int64_t id) {
    Infra::CReadGuard guard(m_lock);
    ObjectEntry** place = slot(place_of(id));
    return place != nullptr && *place != nullptr && (*place)->m_id == id &&
           HandlerInternal::Of(*(*place)->m_owner).IsOpen();
}

std::optional<uint32_t> CObjectTable::RowOf(int64_t id) {
    Infra::CReadGuard guard(m_lock);
    ObjectEntry** place = slot(place_of(id));
    if (place == nullptr || *place == nullptr || (*place)->m_id != id) {
        return std::nullopt;
    }
    const HandlerInternal& handler = HandlerInternal::Of(*(*place)->m_owner);
    return handler.IsOpen()
               ? std::optional(ThreadCounts::row_at(handler.m_row_offset.load(std::memory_order_relaxed)))
               : std::nullopt;
}

}  // namespace Orvex::Reticor
