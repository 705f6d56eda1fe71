// TapLine: the list, and the register of all taps of the process that are on one.
#include "Tool/step/TapLine.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include <Infra/Forever.h>
#include <Infra/HeldLocks.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

namespace {

/// All taps that are on a list, since a tap itself cannot tell on which. Few, and rarely changed.
struct TapRegistry {
    Infra::CMutex m_mutex{Infra::LockClass::MEDIA_TAPS};
    std::vector<const CLevel2Buffer_IF*> m_taps INFRA_GUARDED_BY(m_mutex);

    TapLine::Added enter(const CLevel2Buffer_IF* tap) {
        Infra::CGuard guard(m_mutex);
        if (std::find(m_taps.begin(), m_taps.end(), tap) != m_taps.end()) {
            return {false, false, false};
        }
        try {
            m_taps.push_back(tap);
        } catch (const std::bad_alloc&) {
            return {true, false, true};
        }
        return {true, false, false};
    }
    void leave(const CLevel2Buffer_IF* tap) {
        Infra::CGuard guard(m_mutex);
        m_taps.erase(std::remove(m_taps.begin(), m_taps.end(), tap), m_taps.end());
    }
};

TapRegistry& tap_registry() {
    static Infra::Forever<TapRegistry> room;
    static TapRegistry& registry = room.make();
    return registry;
}

}  // namespace

TapLine::Added TapLine::add(CLevel2Buffer_IF& tap) {
    for (const CLevel2Buffer_IF* entry = m_first; entry != nullptr; entry = entry->m_next) {
        if (entry == &tap) {
            return {true, true, false};
        }
    }
    const Added added = tap_registry().enter(&tap);
    if (!added.entered || added.no_memory) {
        return added;
    }
    tap.m_next = m_first;
    m_first = &tap;
    return added;
}

void TapLine::remove(const CLevel2Buffer_IF* tap) {
    CLevel2Buffer_IF** link = &m_first;
    while (*link != nullptr && *link != tap) {
        link = &(*link)->m_next;
    }
    if (*link == nullptr) {
        return;
    }
    CLevel2Buffer_IF* const found = *link;
    *link = found->m_next;
    if (m_walk_next == found) {
        m_walk_next = found->m_next;
    }
    found->m_next = nullptr;
    tap_registry().leave(found);
}

void TapLine::clear() {
    while (m_first != nullptr) {
        remove(m_first);
    }
}

void TapLine::show(CMediaPacket* packet, int len, int mark, int level) {
    CLevel2Buffer_IF* tap = m_first;
    while (tap != nullptr) {
        m_walk_next = tap->m_next;
        INFRA_PROMISE(TAP);
        if (tap->Put(packet, len, mark, level) < 0) {
            remove(tap);
        }
        tap = std::exchange(m_walk_next, nullptr);
    }
}

}  // namespace Orvex::Reticor
