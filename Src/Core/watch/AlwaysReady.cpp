// AlwaysReady: the records that the kernel refuses to watch, since they never make anybody wait.
#include "Core/watch/AlwaysReady.h"

#include <algorithm>
#include <new>

namespace Orvex::Reticor {

bool AlwaysReady::Add(CEvent* ev) {
    Infra::CGuard guard(m_list_mutex);
    try {
        m_list.push_back(ev);
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_count.store(m_list.size(), std::memory_order_relaxed);
    return true;
}

void AlwaysReady::Remove(CEvent* ev) {
    Infra::CGuard guard(m_list_mutex);
    m_list.erase(std::find(m_list.begin(), m_list.end(), ev));
    m_count.store(m_list.size(), std::memory_order_relaxed);
}

const std::vector<CEvent*>* AlwaysReady::Snapshot() {
    Infra::CGuard guard(m_list_mutex);
    try {
        m_snapshot = m_list;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return &m_snapshot;
}

}  // namespace Orvex::Reticor
