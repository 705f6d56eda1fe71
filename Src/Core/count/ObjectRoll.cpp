// ObjectRoll: entering, leaving and reading.
#include "Core/count/ObjectRoll.h"

namespace Orvex::Reticor {

Infra::CMutex ObjectRoll::sm_mutex{Infra::LockClass::OBJECT_ROLL};
RollEntry* ObjectRoll::sm_first = nullptr;

void ObjectRoll::enter(RollEntry& entry, int64_t id) {
    Infra::CGuard guard(sm_mutex);
    entry.m_id = id;
    entry.m_next = sm_first;
    entry.m_link_to_me = &sm_first;
    if (entry.m_next != nullptr) {
        entry.m_next->m_link_to_me = &entry.m_next;
    }
    sm_first = &entry;
}

void ObjectRoll::leave(RollEntry& entry) {
    Infra::CGuard guard(sm_mutex);
    if (entry.m_link_to_me == nullptr) {
        return;
    }
    *entry.m_link_to_me = entry.m_next;
    if (entry.m_next != nullptr) {
        entry.m_next->m_link_to_me = entry.m_link_to_me;
    }
}

void ObjectRoll::read(std::vector<ObjectRow>& rows) {
    Infra::CGuard guard(sm_mutex);
    for (const RollEntry* entry = sm_first; entry != nullptr; entry = entry->m_next) {
        rows.push_back({&entry->m_kind, entry->m_id, entry->m_tell(entry->m_object)});
    }
}

}  // namespace Orvex::Reticor
