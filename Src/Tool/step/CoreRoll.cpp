// CoreRoll: a list through the entries.
#include "Tool/step/CoreRoll.h"

namespace Orvex::Reticor {

Infra::CMutex CoreRoll::sm_mutex{Infra::LockClass::MEDIA_ROLL};
CoreRoll::Entry* CoreRoll::sm_first = nullptr;
uint64_t CoreRoll::sm_last_number = 0;

CoreRoll::Entry::Entry(const std::shared_ptr<MediaCore>& core) : m_core(core) {
    Infra::CGuard guard(sm_mutex);
    m_number = ++sm_last_number;
    m_next = sm_first;
    if (m_next != nullptr) {
        m_next->m_before = this;
    }
    sm_first = this;
}

CoreRoll::Entry::~Entry() {
    Infra::CGuard guard(sm_mutex);
    (m_before != nullptr ? m_before->m_next : sm_first) = m_next;
    if (m_next != nullptr) {
        m_next->m_before = m_before;
    }
}

void CoreRoll::list(std::vector<std::shared_ptr<MediaCore>>& cores) {
    Infra::CGuard guard(sm_mutex);
    for (const Entry* entry = sm_first; entry != nullptr; entry = entry->m_next) {
        cores.push_back(entry->m_core);
    }
}

}  // namespace Orvex::Reticor
