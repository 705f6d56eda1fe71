// DueChains: a record for each timer that is due.
#include "Core/service/DueChains.h"

#include <cstddef>

#include "Core/count/Points.h"
#include "Core/handle/ObjectId.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/LateTimers.h"

namespace Orvex::Reticor {

bool DueChains::Add(const ArmedTimer& timer) {
    CEvent* ev = get_event_reserved();
    if (ev == nullptr) {
        return false;
    }
    ev->m_key = timer.id;
    ev->m_obj_id = timer.obj_id;
    ev->m_expire = timer.expire;
    ev->m_delay = timer.delay;
    ev->m_stamp_ns = m_stamp_ns;
    const uint64_t late_us = m_now_us > timer.expire ? m_now_us - timer.expire : 0;
    m_late.Add(late_us * 1000);
    Points::Due(timer.id, timer.obj_id, m_now_us, timer.expire);
    const size_t index = static_cast<size_t>(INDEX_OF_ID(static_cast<long>(timer.obj_id)));
    LateTimers::Given(static_cast<int>(index), late_us, m_now_us);
    if (m_chain[index] == nullptr) {
        m_active[static_cast<size_t>(m_active_num++)] = static_cast<int>(index);
    }
    ev->m_next = m_chain[index];
    m_chain[index] = ev;
    return true;
}

}  // namespace Orvex::Reticor
